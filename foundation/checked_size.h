// Sizes computed from numbers that a caller, a file or a peer supplies. Every
// such product goes through here, so that a wrapped size can never reach an
// allocation: the caller refuses (and logs its own message) instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>

namespace zt {

// The product of `factors` in *out, or false when it does not fit a size_t
// (out is then left alone). An empty list is 1.
[[nodiscard]] inline bool checked_product(std::initializer_list<uint64_t> factors, size_t *out) {
  size_t product = 1;
  for (uint64_t f : factors) {
    if (f > std::numeric_limits<size_t>::max() || __builtin_mul_overflow(product, static_cast<size_t>(f), &product))
      return false;
  }
  *out = product;
  return true;
}

// a + b in *out, or false when it does not fit a size_t.
[[nodiscard]] inline bool checked_sum(size_t a, size_t b, size_t *out) { return !__builtin_add_overflow(a, b, out); }

}  // namespace zt
