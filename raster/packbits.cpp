// PackBits, the TIFF run-length scheme: a count byte n of 0..127 is followed
// by n + 1 literal bytes, one of -127..-1 by one byte repeated 1 - n times.
// Our encoder writes every pair of equal bytes as a run, cuts runs into pieces
// of 128 and literal stretches into pieces of 128, and never writes -128. The
// decoder moves 16-byte blocks where the room allows; what lands past a
// token's end is overwritten by the next one or is scratch past the result.
#include <bit>
#include <cstring>

#include "foundation/internal.h"
#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

constexpr size_t kMaxPiece = 128;
constexpr uint64_t kOnes = 0x0101010101010101ull;
constexpr uint64_t kHighs = 0x8080808080808080ull;

inline uint64_t load64(const uint8_t *p) noexcept {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// The first k >= i with src[k] == src[k + 1], or n when there is none. Eight
// neighbours are compared at once: a zero byte in x ^ (x >> 8) marks a pair,
// and the lowest flagged byte of the zero-byte test is always a true one.
size_t find_pair(const uint8_t *src, size_t i, size_t n) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    while (i + 9 <= n) {
      const uint64_t x = load64(src + i) ^ load64(src + i + 1);
      const uint64_t zero = (x - kOnes) & ~x & kHighs;
      if (zero != 0) return i + (static_cast<size_t>(std::countr_zero(zero)) >> 3);
      i += 8;
    }
  }
  for (; i + 1 < n; ++i)
    if (src[i] == src[i + 1]) return i;
  return n;
}

// The end of the run of src[i] that starts at i.
size_t run_end(const uint8_t *src, size_t i, size_t n) noexcept {
  const uint8_t b = src[i];
  size_t j = i + 1;
  if constexpr (std::endian::native == std::endian::little) {
    const uint64_t pattern = b * kOnes;
    while (j + 8 <= n) {
      const uint64_t x = load64(src + j) ^ pattern;
      if (x != 0) return j + (static_cast<size_t>(std::countr_zero(x)) >> 3);
      j += 8;
    }
  }
  while (j < n && src[j] == b) ++j;
  return j;
}

}  // namespace

size_t packbits_encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept {
  size_t o = 0;
  size_t i = 0;
  while (i < n) {
    const size_t pair = find_pair(src, i, n);
    while (i < pair) {
      const size_t m = pair - i < kMaxPiece ? pair - i : kMaxPiece;
      if (cap - o < m + 1) return kFail;
      dst[o++] = static_cast<uint8_t>(m - 1);
      std::memcpy(dst + o, src + i, m);
      o += m;
      i += m;
    }
    if (pair >= n) break;
    const size_t end = run_end(src, pair, n);
    const uint8_t b = src[pair];
    size_t run = end - pair;
    // A cut-off rest of one byte goes out as a run of one, which reads the
    // same as a one-byte literal.
    for (;;) {
      const size_t m = run < kMaxPiece ? run : kMaxPiece;
      if (cap - o < 2) return kFail;
      dst[o++] = static_cast<uint8_t>(1 - static_cast<int>(m));
      dst[o++] = b;
      run -= m;
      if (run == 0) break;
    }
    i = end;
  }
  return o;
}

size_t packbits_decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept {
  size_t i = 0;
  size_t o = 0;
  while (i < n) {
    const int count = static_cast<int8_t>(src[i++]);
    if (count >= 0) {
      const size_t m = static_cast<size_t>(count) + 1;
      if (n - i < m) {
        ZT_LOG(kCompressModule, fn, "PackBits stream is cut short in a literal at byte %zu", i - 1);
        return kFail;
      }
      if (cap - o < m) {
        ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
        return kFail;
      }
      if (n - i >= m + 16 && cap - o >= m + 16) {
        for (size_t k = 0; k < m; k += 16) std::memcpy(dst + o + k, src + i + k, 16);
      } else {
        std::memcpy(dst + o, src + i, m);
      }
      i += m;
      o += m;
    } else if (count != -128) {  // -128 is a no-op to TIFF readers
      const size_t m = static_cast<size_t>(1 - count);
      if (i >= n) {
        ZT_LOG(kCompressModule, fn, "PackBits stream is cut short in a run at byte %zu", i - 1);
        return kFail;
      }
      if (cap - o < m) {
        ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
        return kFail;
      }
      if (cap - o >= m + 16) {
        uint8_t block[16];
        std::memset(block, src[i], 16);
        for (size_t k = 0; k < m; k += 16) std::memcpy(dst + o + k, block, 16);
      } else {
        std::memset(dst + o, src[i], m);
      }
      ++i;
      o += m;
    }
  }
  return o;
}

}  // namespace zt::raster
