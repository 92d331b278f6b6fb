// Shared by the VLIMG fuzz targets: the library's readers take file names, so
// each input is written to a file of this process's own before it is opened.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

#include "codec_fuzz_support.h"

namespace zt::fuzz {

inline const std::string &vlimg_input_path() {
  static const std::string path = [] {
    const char *dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/zt_vlimg_fuzz_" + std::to_string(::getpid()) +
           ".vlimg";
  }();
  // The file goes with the process.
  static const bool cleanup = std::atexit([] { std::remove(vlimg_input_path().c_str()); }) == 0;
  (void)cleanup;
  return path;
}

inline bool write_input(const uint8_t *data, size_t size) {
  FILE *f = std::fopen(vlimg_input_path().c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

}  // namespace zt::fuzz
