// The job and scratch-file sequence files under the installation root, read
// by ZT_InitSubSystems2 and written back by ZT_DeInitSubSystems2. The first
// byte says how the input becomes "etc/jobid.seq" and "etc/mktmp.seq" (both
// the same bytes, split between them, one missing, or one a folder). A first
// line that is a plain decimal number must be read as that number, a missing
// file as 1, and whatever was read, the number written back at shut-down must
// be read at the next start-up.
#include <zt/init.h>
#include <zt/log.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "codec_fuzz_support.h"
#include "scratch_dir.h"

namespace {

using zt::fuzz::check;

std::string g_etc;

// The value the file's first line states, when it is nothing but up to nine
// decimal digits (so it fits); -1 otherwise.
int64_t plain_number(const std::string &bytes) {
  const std::string line = bytes.substr(0, std::min<size_t>(bytes.size(), 79)).substr(0, bytes.find_first_of("\r\n"));
  if (line.empty() || line.size() > 9 || line.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::stoll(line);
}

enum class Kind { kFile, kMissing, kFolder };

// What each file is now, so that a file is only rewritten in place when it
// stays a file (removing and creating entries is what costs time here).
Kind g_job_state = Kind::kMissing, g_scratch_state = Kind::kMissing;

void put(const std::string &name, Kind &state, Kind kind, const std::string &bytes) {
  const std::string path = g_etc + "/" + name;
  if (state != kind || kind == Kind::kMissing) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
    if (kind == Kind::kFolder) check(std::filesystem::create_directory(path));
  }
  state = kind;
  if (kind != Kind::kFile) return;
  std::FILE *out = std::fopen(path.c_str(), "wb");
  check(out != nullptr);
  check(bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size());
  check(std::fclose(out) == 0);
}

void expect(uint32_t got, Kind kind, const std::string &bytes) {
  if (kind == Kind::kMissing) check(got == 1);
  if (kind != Kind::kFile) return;
  const int64_t stated = plain_number(bytes);
  if (stated >= 0) check(got == static_cast<uint32_t>(stated));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const std::string root = zt::fuzz::ScratchDir::enter("sequence");
  g_etc = root + "/etc";
  check(std::filesystem::create_directory(g_etc));
  zt::fuzz::start_quiet_library();
  check(ZTSetVariables(root.c_str()) == 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
  std::string job = rest, scratch = rest;
  Kind job_kind = Kind::kFile, scratch_kind = Kind::kFile;
  switch (data[0] % 5) {
    case 0: break;
    case 1: {
      const size_t cut = rest.empty() ? 0 : (data[0] / 5) % (rest.size() + 1);
      job = rest.substr(0, cut);
      scratch = rest.substr(cut);
      break;
    }
    case 2: job_kind = Kind::kMissing; break;
    case 3: scratch_kind = Kind::kMissing; break;
    default: (data[0] & 8 ? job_kind : scratch_kind) = Kind::kFolder; break;
  }
  put("jobid.seq", g_job_state, job_kind, job);
  put("mktmp.seq", g_scratch_state, scratch_kind, scratch);

  ZT_InitSubSystems2();
  const uint32_t job_number = ZTNextJobNumber();
  const uint32_t scratch_number = ZTNextUniqueNumber();
  ZT_DeInitSubSystems2();
  expect(job_number, job_kind, job);
  expect(scratch_number, scratch_kind, scratch);

  // A folder cannot be written over; everything else now holds the next number.
  ZT_InitSubSystems2();
  const uint32_t job_again = ZTNextJobNumber();
  const uint32_t scratch_again = ZTNextUniqueNumber();
  ZT_DeInitSubSystems2();
  // Shut-down wrote the numbers back, creating the files that were missing.
  if (g_job_state == Kind::kMissing) g_job_state = Kind::kFile;
  if (g_scratch_state == Kind::kMissing) g_scratch_state = Kind::kFile;
  if (job_kind != Kind::kFolder) check(job_again == job_number + 1);
  if (scratch_kind != Kind::kFolder) check(scratch_again == scratch_number + 1);
  return 0;
}
