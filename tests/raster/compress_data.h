// Blocks for the codec tests: flat, random, gradient and 1-bit screened data,
// the kinds a RIP hands the compressors, and a guarded destination that shows
// a write past its end.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace zt::test {

using CodecTest = LibraryTest;

enum class Kind { kFlat, kRandom, kGradient, kScreened };
constexpr Kind kKinds[] = {Kind::kFlat, Kind::kRandom, Kind::kGradient, Kind::kScreened};
inline const char *kind_name(Kind kind) {
  static const char *const names[] = {"flat", "random", "gradient", "screened"};
  return names[static_cast<int>(kind)];
}

// Frees a library object through its own release function.
template <auto Release>
struct Freer {
  void operator()(auto *object) const { Release(object); }
};

inline std::vector<uint8_t> make_block(Kind kind, size_t n, uint32_t seed = 1) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(seed);
  switch (kind) {
    case Kind::kFlat:
      std::fill(v.begin(), v.end(), static_cast<uint8_t>(0x40 + seed));
      break;
    case Kind::kRandom:
      for (auto &b : v) b = static_cast<uint8_t>(rng());
      break;
    case Kind::kGradient:
      // Rows of 1,000 bytes, a ramp across each row rising with the row.
      for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>((i % 1000) / 4 + (i / 1000));
      break;
    case Kind::kScreened: {
      // A ramp thresholded against a 4 x 4 Bayer matrix, packed 8 pixels a
      // byte, rows of 125 bytes.
      static const int kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
      for (size_t i = 0; i < n; ++i) {
        const size_t row = i / 125;
        uint8_t byte = 0;
        for (int bit = 0; bit < 8; ++bit) {
          const size_t x = (i % 125) * 8 + static_cast<size_t>(bit);
          const int level = static_cast<int>((x * 17 / 1000 + row / 8) % 17);
          if (level > kBayer[row & 3][x & 3]) byte = static_cast<uint8_t>(byte | (0x80 >> bit));
        }
        v[i] = byte;
      }
      break;
    }
  }
  return v;
}

// A destination of `size` bytes followed by guard bytes; intact() is false
// once anything past `size` was written.
class Guarded {
 public:
  explicit Guarded(size_t size) : size_(size), bytes_(size + kGuard, kFill) {}
  uint8_t *data() { return bytes_.data(); }
  size_t size() const { return size_; }
  bool intact() const {
    for (size_t i = size_; i < bytes_.size(); ++i)
      if (bytes_[i] != kFill) return false;
    return true;
  }
  std::vector<uint8_t> head(size_t n) const {
    return std::vector<uint8_t>(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(n));
  }

 private:
  static constexpr size_t kGuard = 64;
  static constexpr uint8_t kFill = 0xA5;
  size_t size_;
  std::vector<uint8_t> bytes_;
};

}  // namespace zt::test
