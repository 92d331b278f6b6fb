// Files the library keeps for the process: the per-user scratch directory and
// the job and scratch-file sequence numbers that survive a restart.
#include "foundation/startup.h"
#include "foundation/internal.h"

#include <zt/init.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zt {
namespace {

constexpr const char *kJobSequence = "etc/jobid.seq";
constexpr const char *kScratchSequence = "etc/mktmp.seq";

constinit std::atomic<char *> g_temp_dir{nullptr};
constinit std::atomic<bool> g_numbers_loaded{false};
constinit std::atomic<uint32_t> g_next_job{0};
constinit std::atomic<uint32_t> g_next_unique{0};

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

struct FdCloser {
  void operator()(int *fd) const {
    if (*fd >= 0) ::close(*fd);
    delete fd;
  }
};

// mkdir -p with mode 0775. True when the directory exists afterwards.
bool make_directories(const std::string &path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (::mkdir(part.c_str(), 0775) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) break;
  }
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string user_cache_dir() {
  const char *xdg = std::getenv("XDG_CACHE_HOME");
  if (xdg != nullptr && xdg[0] == '/') return xdg;
  const char *home = std::getenv("HOME");
  if (home != nullptr && home[0] != '\0') return std::string(home) + "/.cache";
  return {};
}

// Reads at most `limit` bytes of the file's first line. -1 for a missing file,
// -2 for any other failure.
int read_first_line(const char *path, char *line, size_t limit) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? -1 : -2;
  ssize_t n;
  do n = ::read(fd, line, limit);
  while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n < 0) return -2;
  line[n] = '\0';
  line[std::strcspn(line, "\r\n")] = '\0';
  return 0;
}

// The unsigned decimal a sequence file starts with, or false when there is
// none or it does not fit 32 bits (strtoul would saturate it, and the next
// number would then wrap to 0 and be written back without a word). Numbers
// are written back with "%d", so one above 2^31 comes back negative; a sign
// is read the way a 32-bit strtoul reads it (negated modulo 2^32), which
// gives back the number that was written.
bool parse_sequence_number(const char *line, uint32_t *out) {
  const char *p = line + std::strspn(line, " \t");
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  if (*p < '0' || *p > '9') return false;
  uint64_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT32_MAX) return false;
  }
  *out = negative ? static_cast<uint32_t>(0u - static_cast<uint32_t>(value)) : static_cast<uint32_t>(value);
  return true;
}

uint32_t load_job_number() {
  CString path(ZTMakeRootPath(kJobSequence));
  if (!path) return 1;
  char line[80];
  int status = read_first_line(path.get(), line, sizeof line - 1);
  if (status == -1) return 1;
  uint32_t value = 0;
  if (status != 0 || !parse_sequence_number(line, &value)) {
    ZT_LOG("ztjob", "LoadJobNo", "Could not read next jobid from %s", path.get());
    return 1;
  }
  return value;
}

uint32_t load_unique_number() {
  CString path(ZTMakeRootPath(kScratchSequence));
  if (!path) return 1;
  char line[80];
  int status = read_first_line(path.get(), line, 79);
  if (status == -1) return 1;
  if (status != 0) return 1;
  // A first line without digits reads as 0, as an unsigned decimal parse
  // gives; one too large for 32 bits is refused.
  const char *p = line + std::strspn(line, " \t");
  if (*p == '-' || *p == '+') ++p;
  if (*p < '0' || *p > '9') return 0;
  uint32_t value = 0;
  if (!parse_sequence_number(line, &value)) {
    ZT_LOG("files", "LoadUniqueNumber", "Could not read next scratch-file number from %s", path.get());
    return 1;
  }
  return value;
}

void dump_number(const char *relative, uint32_t value, const char *module, const char *function,
                 const char *write_message) {
  CString path(ZTMakeRootPath(relative));
  if (!path) return;
  int fd = ::open(path.get(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
  if (fd < 0) {
    ZT_LOG(module, function, "Cannot open %s", path.get());
    return;
  }
  std::unique_ptr<int, FdCloser> closer(new int(fd));
  char text[16];
  int length = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(value));
  if (::write(fd, text, static_cast<size_t>(length)) != length) ZT_LOG(module, function, write_message, path.get());
}

}  // namespace

void scratch_dir_init() {
  if (g_temp_dir.load() != nullptr) return;
  std::string base = user_cache_dir();
  std::string dir = ".";
  if (!base.empty()) {
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    dir = base + "/Korvane/Temp";
    if (!make_directories(dir))
      ZT_LOG("init", "ZT_InitSubSystems", "Cannot create directory %s: %s", dir.c_str(), std::strerror(errno));
  }
  char *copy = ::strdup(dir.c_str());
  if (copy == nullptr) {
    ZT_LOG_NOMEM("init", "ZT_InitSubSystems", dir.size() + 1);
    return;
  }
  g_temp_dir.store(copy);
}

void scratch_dir_free() { std::free(g_temp_dir.exchange(nullptr)); }

void sequence_numbers_load() {
  if (g_numbers_loaded.exchange(true)) return;
  g_next_job.store(load_job_number());
  g_next_unique.store(load_unique_number());
}

void sequence_numbers_dump() {
  if (!g_numbers_loaded.exchange(false)) return;
  dump_number(kJobSequence, g_next_job.exchange(0), "ztjob", "DumpJobNo", "Error writing to file %s");
  dump_number(kScratchSequence, g_next_unique.exchange(0), "files", "DumpUniqueNumber", "Error writing to %s");
}

}  // namespace zt

extern "C" {

ZT_API const char *ZT_GetTempDirectory(void) { return zt::g_temp_dir.load(); }

ZT_API uint32_t ZTNextJobNumber(void) {
  if (!zt::g_numbers_loaded.load()) return 0;
  return zt::g_next_job.fetch_add(1);
}

ZT_API uint32_t ZTNextUniqueNumber(void) {
  if (!zt::g_numbers_loaded.load()) return 0;
  return zt::g_next_unique.fetch_add(1);
}

}  // extern "C"
