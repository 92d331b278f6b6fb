// Shared by the fuzz targets: the library up with its log switched off (every
// refused input logs a line, which would drown a long run and fill the log
// file), and a heap copy of each input so that reading past its end is
// caught.
#pragma once

#include <zt/init.h>
#include <zt/log.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace zt::fuzz {

inline void start_quiet_library() {
  ZT_InitSubSystems();
  LogErrorLogtofile(0, nullptr);
  LogErrorDisable(1);
}

// Reads the leading bytes of a fuzz input as parameters.
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  uint32_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint32_t u16() { return byte() << 8 | byte(); }
  // The rest of the input, in a buffer of exactly its size.
  std::vector<uint8_t> rest() {
    return std::vector<uint8_t>(data_ + (pos_ < size_ ? pos_ : size_), data_ + size_);
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

inline void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace zt::fuzz
