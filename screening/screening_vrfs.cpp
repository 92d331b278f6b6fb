// Mode 5: threshold matrices read from text files in the installation's
// "lib/screens/vrfs" folder. Layout (ours): a first line "<Mx> <My>" with two
// decimal sides of 1 ... 4096, then Mx * My thresholds row by row, two
// hexadecimal digits each, with any white space between them. The reader
// trusts nothing: the sides are bounded before anything is allocated, the
// file's size is bounded by what those sides can need, and every character is
// checked.
#include <zt/init.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

constexpr uint32_t kMaxSide = 4096;
constexpr const char *kReader = "CreateVRFSScreens";

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A printable stand-in for a bad byte in the message.
char shown(char c) { return std::isprint(static_cast<unsigned char>(c)) ? c : '?'; }

// A decimal side of 1 ... kMaxSide; false on anything else.
bool parse_side(const char *&p, const char *end, uint32_t *side) {
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  uint32_t v = 0;
  const char *start = p;
  while (p < end && *p >= '0' && *p <= '9') {
    v = v * 10 + static_cast<uint32_t>(*p - '0');
    if (v > kMaxSide) return false;
    ++p;
  }
  if (p == start || v == 0) return false;
  *side = v;
  return true;
}

}  // namespace

int32_t load_vrfs(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *mx, uint32_t *my) {
  const char *name = settings->screenName != nullptr ? settings->screenName : "";
  const std::string relative = std::string("lib/screens/vrfs/") + name;
  std::unique_ptr<char, decltype(&std::free)> path(ZTMakeRootPath(relative.c_str()), &std::free);
  if (path == nullptr) return -1;
  // Names are plain file names: nothing may lead out of the folder.
  if (name[0] == '\0' || std::strchr(name, '/') != nullptr || std::strstr(name, "..") != nullptr) {
    ZT_LOG(kModule, kReader, "Cannot open file %s", path.get());
    return -1;
  }
  std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(path.get(), "rb"), &std::fclose);
  if (file == nullptr) {
    ZT_LOG(kModule, kReader, "Cannot open file %s", path.get());
    return -1;
  }
  // The largest valid file: a header line and three characters an entry
  // (two digits and a separator), with room for generous white space.
  const size_t limit = 64 + static_cast<size_t>(kMaxSide) * kMaxSide * 4;
  std::string bytes;
  char buffer[65536];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
    if (bytes.size() + got > limit) {
      ZT_LOG(kModule, kReader, "Error reading array from  %s", path.get());
      return -1;
    }
    bytes.append(buffer, got);
  }
  if (std::ferror(file.get()) != 0) {
    ZT_LOG(kModule, kReader, "Error reading Mx, My from  %s", path.get());
    return -1;
  }
  return screeningVRFSParse(bytes.data(), bytes.size(), path.get(), matrix, mx, my);
}

}  // namespace zt::screening

using namespace zt::screening;

extern "C" {

ZT_API int32_t screeningVRFSParse(const char *data, size_t size, const char *name, uint8_t **matrix,
                                  uint32_t *mx, uint32_t *my) {
  return zt::api_guard<int32_t>(kModule, kReader, -1, [&]() -> int32_t {
    if (name == nullptr) name = "(memory)";
    if (matrix == nullptr || mx == nullptr || my == nullptr || (data == nullptr && size != 0)) {
      ZT_LOG(kModule, kReader, "Cannot allocate memory for VRFSInfo");
      return -1;
    }
    *matrix = nullptr;
    const char *p = data, *end = data + size;
    while (p < end && is_space(*p)) ++p;
    if (p == end) {
      ZT_LOG(kModule, kReader, "Error reading Mx, My from  %s", name);
      return -1;
    }
    uint32_t w = 0, h = 0;
    if (!parse_side(p, end, &w) || !parse_side(p, end, &h)) {
      ZT_LOG(kModule, kReader, "Error converting Mx, My from  %s", name);
      return -1;
    }
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
    if (p < end && *p != '\n') {
      ZT_LOG(kModule, kReader, "Error converting Mx, My from  %s", name);
      return -1;
    }
    const size_t area = static_cast<size_t>(w) * h;
    // Every entry needs two bytes: a short file is refused before the matrix
    // is allocated.
    if (static_cast<size_t>(end - p) / 2 < area) {
      ZT_LOG(kModule, kReader, "Error reading array from  %s", name);
      return -1;
    }
    std::unique_ptr<uint8_t, decltype(&std::free)> out(static_cast<uint8_t *>(std::malloc(area)), &std::free);
    if (out == nullptr) {
      ZT_LOG(kModule, kReader, "Cannot allocate memory for VRFSInfo");
      return -1;
    }
    for (size_t i = 0; i < area; ++i) {
      while (p < end && is_space(*p)) ++p;
      if (end - p < 2) {
        ZT_LOG(kModule, kReader, "Error reading array from  %s", name);
        return -1;
      }
      const int hi = hex_digit(p[0]), lo = hex_digit(p[1]);
      if (hi < 0 || lo < 0) {
        ZT_LOG(kModule, kReader, "Illegal array value %c read from  %s", shown(hi < 0 ? p[0] : p[1]), name);
        return -1;
      }
      out.get()[i] = static_cast<uint8_t>(hi * 16 + lo);
      p += 2;
    }
    while (p < end && is_space(*p)) ++p;
    if (p < end) {
      ZT_LOG(kModule, kReader, "Illegal array value %c read from  %s", shown(*p), name);
      return -1;
    }
    *matrix = out.release();
    *mx = w;
    *my = h;
    return 0;
  });
}

}  // extern "C"
