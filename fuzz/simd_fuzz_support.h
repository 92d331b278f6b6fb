// Shared by the targets that run one input through every kernel level and
// demand the same bytes from each.
#pragma once

#include <zt/cpu.h>

#include <cstring>
#include <vector>

#include "codec_fuzz_support.h"

namespace zt::fuzz {

// Baseline first. On a processor without AVX2 the second is the baseline
// again, which still runs the target's own consistency checks.
constexpr int32_t kLevels[] = {ZT_SIMD_BASELINE, ZT_SIMD_AVX2};

inline void set_level(int32_t level) { ZT_SetSimdLevel(level); }

// `n` bytes taken cyclically from `pool` (zeros when it is empty), in a buffer
// of exactly that size so that a read past the end is caught.
inline std::vector<uint8_t> cycled(const std::vector<uint8_t> &pool, size_t n) {
  std::vector<uint8_t> out(n);
  if (!pool.empty())
    for (size_t i = 0; i < n; ++i) out[i] = pool[i % pool.size()];
  return out;
}

template <class T>
std::vector<T> cycled_as(const std::vector<uint8_t> &pool, size_t n) {
  const std::vector<uint8_t> bytes = cycled(pool, n * sizeof(T));
  std::vector<T> out(n);
  if (n) std::memcpy(out.data(), bytes.data(), n * sizeof(T));
  return out;
}

}  // namespace zt::fuzz
