// A folder under /tmp for the targets that write files, made the working
// directory so that the library's log file lands there too. It goes, with
// everything in it, when the process ends through exit: libFuzzer ends that
// way at its time or run limit, and so does the replay main. A crash ends with
// _Exit and leaves the folder beside the crashing input, which is what one
// wants to look at then.
#pragma once

#include <zt/log.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

namespace zt::fuzz {

class ScratchDir {
 public:
  // Makes /tmp/zt_<name>_fuzz_XXXXXX on the first call; later calls return it.
  static const std::string &enter(const char *name) {
    static ScratchDir dir(name);
    return dir.path_;
  }

  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

 private:
  explicit ScratchDir(const char *name) {
    std::string pattern = std::string("/tmp/zt_") + name + "_fuzz_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr || chdir(pattern.c_str()) != 0) std::abort();
    path_ = pattern;
  }
  ~ScratchDir() {
    // The log would otherwise flush into a folder that is gone.
    LogErrorLogtofile(0, nullptr);
    if (chdir("/tmp") != 0) return;
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  std::string path_;
};

}  // namespace zt::fuzz
