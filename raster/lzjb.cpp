// LZJB, the Lempel-Ziv scheme of the Solaris kernel: a copy-map byte announces
// eight items, each a literal byte (bit clear) or, bit set, a two-byte copy of
// 3 to 66 bytes (top 6 bits: length - 3) from 1 to 1,023 bytes back (low 10
// bits). Matches are found through a 1,024-entry table hashed on three bytes,
// holding the low 16 bits of the position where those bytes last started.
#include <cstring>

#include "foundation/internal.h"
#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

constexpr int kMatchBits = 6;
constexpr size_t kMatchMin = 3;
constexpr size_t kMatchMax = (1u << kMatchBits) + (kMatchMin - 1);
constexpr size_t kOffsetMask = (1u << (16 - kMatchBits)) - 1;
constexpr size_t kLempelSize = 1024;

}  // namespace

size_t lzjb_encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept {
  uint16_t lempel[kLempelSize] = {};
  size_t s = 0;
  size_t o = 0;
  size_t copymap = 0;
  unsigned copymask = 0x80;
  while (s < n) {
    copymask <<= 1;
    if (copymask == 0x100) {
      // Room for the map byte and eight items of up to two bytes.
      if (cap - o < 1 + 2 * 8) return kFail;
      copymask = 1;
      copymap = o;
      dst[o++] = 0;
    }
    if (s + kMatchMax > n) {
      dst[o++] = src[s++];
      continue;
    }
    uint32_t hash = (uint32_t{src[s]} << 16) + (uint32_t{src[s + 1]} << 8) + src[s + 2];
    hash += hash >> 9;
    hash += hash >> 5;
    uint16_t &slot = lempel[hash & (kLempelSize - 1)];
    const size_t offset = (s - slot) & kOffsetMask;
    slot = static_cast<uint16_t>(s);
    if (offset != 0 && offset <= s && src[s] == src[s - offset] && src[s + 1] == src[s + 1 - offset] &&
        src[s + 2] == src[s + 2 - offset]) {
      const uint8_t *cpy = src + s - offset;
      size_t mlen = kMatchMin;
      while (mlen < kMatchMax && src[s + mlen] == cpy[mlen]) ++mlen;
      dst[copymap] = static_cast<uint8_t>(dst[copymap] | copymask);
      dst[o++] = static_cast<uint8_t>(((mlen - kMatchMin) << (8 - kMatchBits)) | (offset >> 8));
      dst[o++] = static_cast<uint8_t>(offset);
      s += mlen;
    } else {
      dst[o++] = src[s++];
    }
  }
  return o;
}

size_t lzjb_decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept {
  size_t s = 0;
  size_t o = 0;
  unsigned copymap = 0;
  unsigned copymask = 0x80;
  while (s < n) {
    copymask <<= 1;
    if (copymask == 0x100) {
      copymask = 1;
      copymap = src[s++];
      if (s == n) {
        ZT_LOG(kCompressModule, fn, "LZJB stream ends after a copy map");
        return kFail;
      }
    }
    if (copymap & copymask) {
      if (n - s < 2) {
        ZT_LOG(kCompressModule, fn, "LZJB stream is cut short in a copy");
        return kFail;
      }
      const size_t mlen = (src[s] >> (8 - kMatchBits)) + kMatchMin;
      const size_t offset = ((size_t{src[s]} << 8) | src[s + 1]) & kOffsetMask;
      s += 2;
      if (offset == 0 || offset > o) {
        ZT_LOG(kCompressModule, fn, "LZJB copy reaches before the start of the block");
        return kFail;
      }
      if (cap - o < mlen) {
        ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
        return kFail;
      }
      // Overlapping copies repeat the last `offset` bytes, so byte by byte.
      const uint8_t *cpy = dst + o - offset;
      for (size_t k = 0; k < mlen; ++k) dst[o + k] = cpy[k];
      o += mlen;
    } else {
      if (o >= cap) {
        ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
        return kFail;
      }
      dst[o++] = src[s++];
    }
  }
  return o;
}

}  // namespace zt::raster
