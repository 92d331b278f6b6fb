// The buffer primitives: depth-converting copies, fills, bit runs and
// negation on plain memory, and the dispatch table of their kernels.
#include <zt/buf.h>

#include <atomic>
#include <cstring>

#include "foundation/simd_dispatch.h"
#include "raster/buf_internal.h"
#include "raster/row_dither.h"

#define ZT_KERNEL_NS baseline
#include "raster/buf_kernels.h"
#undef ZT_KERNEL_NS

namespace zt::raster {

namespace avx2 {
void copy1to8(uint8_t *dst, const uint8_t *src, size_t npix);
void copy1to16(uint16_t *dst, const uint8_t *src, size_t npix);
void copy8to16(uint16_t *dst, const uint8_t *src, size_t n);
void copy16to8(uint8_t *dst, const uint16_t *src, size_t n, const uint8_t *table);
size_t dither16to8_int(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, size_t size, size_t index,
                       bool narrow);
const float *dither16to8_real(uint8_t *out, const uint16_t *in, size_t n, const float *start,
                              const float *end, const float *cursor);
size_t dither16to8_real16(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, const uint8_t *flags,
                          const float *real, size_t size, size_t index);
}  // namespace avx2

namespace {

struct Table16To8 {
  uint8_t v[65536];
};
// Built by the compiler: the table is ready before any start-up code runs,
// so conversions before ZT_InitSubSystems give the same results as after.
constexpr Table16To8 make_table16to8() {
  Table16To8 t{};
  for (uint32_t v = 0; v < 65536; ++v)
    t.v[v] = static_cast<uint8_t>((v * 255u * 2u + 65535u) / (65535u * 2u));
  return t;
}
alignas(64) constexpr Table16To8 kTable16To8 = make_table16to8();

constexpr BufKernels kBaseline = {baseline::copy1to8,        baseline::copy1to16,       baseline::copy8to16,
                                  baseline::copy16to8,       baseline::dither16to8_int, baseline::dither16to8_real,
                                  baseline::dither16to8_real16};
constexpr BufKernels kAvx2 = {avx2::copy1to8,        avx2::copy1to16,       avx2::copy8to16,
                              avx2::copy16to8,       avx2::dither16to8_int, avx2::dither16to8_real,
                              avx2::dither16to8_real16};

BufKernels g_kernels = kBaseline;

void refill_buf(int32_t level) { g_kernels = level >= ZT_SIMD_AVX2 ? kAvx2 : kBaseline; }

std::atomic<bool> g_use_dithering{false};

void fill_colour(void *buf, const uint16_t *colour, uint32_t channels, uint32_t bits, uint32_t n,
                 bool xor_op) {
  if (buf == nullptr || colour == nullptr || channels == 0) return;
  if (bits == 8) {
    auto *p = static_cast<uint8_t *>(buf);
    for (uint32_t i = 0; i < n; ++i) {
      for (uint32_t c = 0; c < channels; ++c, ++p) {
        const auto v = static_cast<uint8_t>(colour[c]);
        *p = xor_op ? static_cast<uint8_t>(*p ^ v) : v;
      }
    }
  } else if (bits == 16) {
    auto *p = static_cast<uint8_t *>(buf);
    for (uint32_t i = 0; i < n; ++i) {
      for (uint32_t c = 0; c < channels; ++c, p += 2) {
        uint16_t s;
        std::memcpy(&s, p, 2);
        s = xor_op ? static_cast<uint16_t>(s ^ colour[c]) : colour[c];
        std::memcpy(p, &s, 2);
      }
    }
  }
}

void set_bits(uint8_t *p, uint32_t first, uint32_t count, bool on) {
  if (p == nullptr || count == 0) return;
  uint32_t bit = first;
  // Leading bits up to a byte boundary.
  while (count > 0 && bit % 8 != 0) {
    const auto m = static_cast<uint8_t>(0x80u >> (bit % 8));
    p[bit / 8] = on ? static_cast<uint8_t>(p[bit / 8] | m) : static_cast<uint8_t>(p[bit / 8] & ~m);
    ++bit;
    --count;
  }
  std::memset(p + bit / 8, on ? 0xFF : 0x00, count / 8);
  bit += count / 8 * 8;
  count %= 8;
  if (count > 0) {
    const auto m = static_cast<uint8_t>(0xFF00u >> count);
    p[bit / 8] = on ? static_cast<uint8_t>(p[bit / 8] | m) : static_cast<uint8_t>(p[bit / 8] & ~m);
  }
}

}  // namespace

const uint8_t *table16to8() { return kTable16To8.v; }
const BufKernels &buf_kernels() { return g_kernels; }
int32_t buf_kernels_init() { return zt::simd_register_table(&refill_buf); }
bool dithering_enabled() { return g_use_dithering.load(std::memory_order_relaxed); }

}  // namespace zt::raster

using zt::raster::buf_kernels;

extern "C" {

ZT_API int32_t bufCopy1To1(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  std::memcpy(dst, src, (static_cast<size_t>(n) + 7) / 8);
  return 0;
}

ZT_API int32_t bufCopy8To8(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  std::memcpy(dst, src, n);
  return 0;
}

ZT_API int32_t bufCopy16To16(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  std::memcpy(dst, src, static_cast<size_t>(n) * 2);
  return 0;
}

ZT_API int32_t bufCopy1To8(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  buf_kernels().copy1to8(static_cast<uint8_t *>(dst), static_cast<const uint8_t *>(src), size_t{n} * 8);
  return 0;
}

ZT_API int32_t bufCopy1To16(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  buf_kernels().copy1to16(static_cast<uint16_t *>(dst), static_cast<const uint8_t *>(src), size_t{n} * 8);
  return 0;
}

ZT_API int32_t bufCopy8To16(void *dst, const void *src, uint32_t n) {
  if (dst == nullptr || src == nullptr) return 0;
  buf_kernels().copy8to16(static_cast<uint16_t *>(dst), static_cast<const uint8_t *>(src), n);
  return 0;
}

ZT_API int32_t bufCopy16To8(void *dst, const void *src, uint32_t n, DitherContext *dither) {
  if (dst == nullptr || src == nullptr) return 0;
  if (dither != nullptr && zt::raster::dithering_enabled()) {
    zt::raster::dither_16to8(dither, static_cast<uint8_t *>(dst), static_cast<const uint16_t *>(src), n);
  } else {
    buf_kernels().copy16to8(static_cast<uint8_t *>(dst), static_cast<const uint16_t *>(src), n,
                            zt::raster::table16to8());
  }
  return 0;
}

ZT_API int32_t bufSetBitsOn1(void *buf, uint32_t firstBit, uint32_t count) {
  zt::raster::set_bits(static_cast<uint8_t *>(buf), firstBit, count, true);
  return 0;
}

ZT_API int32_t bufSetBitsOff1(void *buf, uint32_t firstBit, uint32_t count) {
  zt::raster::set_bits(static_cast<uint8_t *>(buf), firstBit, count, false);
  return 0;
}

ZT_API int32_t bufFill(void *buf, uint8_t value, uint32_t n) {
  if (buf != nullptr) std::memset(buf, value, n);
  return 0;
}

ZT_API int32_t bufFillXOR(void *buf, uint8_t value, uint32_t n) {
  auto *p = static_cast<uint8_t *>(buf);
  for (uint32_t i = 0; p != nullptr && i < n; ++i) p[i] = static_cast<uint8_t>(p[i] ^ value);
  return 0;
}

ZT_API int32_t bufFillWithColour(void *buf, const uint16_t *colour, uint32_t channels, uint32_t bitsPerSample,
                                 uint32_t n) {
  zt::raster::fill_colour(buf, colour, channels, bitsPerSample, n, false);
  return 0;
}

ZT_API int32_t bufFillWithColourXOR(void *buf, const uint16_t *colour, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t n) {
  zt::raster::fill_colour(buf, colour, channels, bitsPerSample, n, true);
  return 0;
}

ZT_API int32_t bufClear(void *buf, uint32_t n) {
  if (buf != nullptr) std::memset(buf, 0, n);
  return 0;
}

ZT_API int32_t bufClearXOR(void *buf, uint32_t n) { return bufClear(buf, n); }

ZT_API int32_t bufNegative(void *dst, const void *src, uint32_t n) {
  auto *d = static_cast<uint8_t *>(dst);
  const auto *s = static_cast<const uint8_t *>(src);
  for (uint32_t i = 0; d != nullptr && s != nullptr && i < n; ++i) d[i] = static_cast<uint8_t>(~s[i]);
  return 0;
}

ZT_API void *ZTFillMemory(void *dst, uint8_t value, size_t n) {
  if (dst != nullptr) std::memset(dst, value, n);
  return dst;
}

ZT_API void *ZTmemcpy(void *dst, const void *src, size_t n) {
  if (dst != nullptr && src != nullptr) std::memcpy(dst, src, n);
  return dst;
}

ZT_API void ZTReverseBits(void *buf, size_t n) {
  auto *p = static_cast<uint8_t *>(buf);
  for (size_t i = 0; p != nullptr && i < n; ++i) {
    uint32_t b = p[i];
    b = ((b & 0xF0u) >> 4) | ((b & 0x0Fu) << 4);
    b = ((b & 0xCCu) >> 2) | ((b & 0x33u) << 2);
    b = ((b & 0xAAu) >> 1) | ((b & 0x55u) << 1);
    p[i] = static_cast<uint8_t>(b);
  }
}

ZT_API void setScanlinebufUseDithering(int32_t on) {
  zt::raster::g_use_dithering.store(on != 0, std::memory_order_relaxed);
}

ZT_API int32_t scanlinebufUseDithering(void) { return zt::raster::dithering_enabled() ? 1 : 0; }

}  // extern "C"
