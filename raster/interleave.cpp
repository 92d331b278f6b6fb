// The interleave converters: rows by line to rows by pixel and back, channel
// reordering, and dropping or adding the alpha channel.
#include <zt/interleave.h>

#include <cstring>

#include "foundation/simd_dispatch.h"
#include "raster/buf_internal.h"
#include "raster/interleave_internal.h"

#define ZT_KERNEL_NS baseline
#include "raster/interleave_kernels.h"
#undef ZT_KERNEL_NS

namespace zt::raster {

namespace avx2 {
void planes4_to_pixels8(uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *,
                        size_t);
void planes4_to_pixels16(uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *,
                         size_t);
void pixels_to_planes4_8(uint8_t *, uint8_t *, uint8_t *, uint8_t *, const uint8_t *, size_t);
void pixels_to_planes4_16(uint16_t *, uint16_t *, uint16_t *, uint16_t *, const uint16_t *, size_t);
void planes3_to_pixels8(uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *, size_t);
void planes3_to_pixels16(uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, size_t);
void pixels_to_planes3_8(uint8_t *, uint8_t *, uint8_t *, const uint8_t *, size_t);
void pixels_to_planes3_16(uint16_t *, uint16_t *, uint16_t *, const uint16_t *, size_t);
void planes_to_pixels8(uint8_t *, const uint8_t *, size_t, size_t, size_t);
void planes_to_pixels16(uint16_t *, const uint16_t *, size_t, size_t, size_t);
void pixels_to_planes8(uint8_t *, const uint8_t *, size_t, size_t, size_t);
void pixels_to_planes16(uint16_t *, const uint16_t *, size_t, size_t, size_t);
void planes4_16_to_pixels8(uint8_t *, const uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *,
                           size_t, const uint8_t *, ptrdiff_t);
}  // namespace avx2

namespace {

struct InterleaveKernels {
  void (*l2p4_8)(uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *, size_t);
  void (*l2p4_16)(uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, size_t);
  void (*p2l4_8)(uint8_t *, uint8_t *, uint8_t *, uint8_t *, const uint8_t *, size_t);
  void (*p2l4_16)(uint16_t *, uint16_t *, uint16_t *, uint16_t *, const uint16_t *, size_t);
  void (*l2p3_8)(uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *, size_t);
  void (*l2p3_16)(uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, size_t);
  void (*p2l3_8)(uint8_t *, uint8_t *, uint8_t *, const uint8_t *, size_t);
  void (*p2l3_16)(uint16_t *, uint16_t *, uint16_t *, const uint16_t *, size_t);
  void (*l2p_8)(uint8_t *, const uint8_t *, size_t, size_t, size_t);
  void (*l2p_16)(uint16_t *, const uint16_t *, size_t, size_t, size_t);
  void (*p2l_8)(uint8_t *, const uint8_t *, size_t, size_t, size_t);
  void (*p2l_16)(uint16_t *, const uint16_t *, size_t, size_t, size_t);
  void (*l16p8_4)(uint8_t *, const uint16_t *, const uint16_t *, const uint16_t *, const uint16_t *, size_t,
                  const uint8_t *, ptrdiff_t);
};

#define ZT_INTERLEAVE_TABLE(ns)                                                                             \
  {                                                                                                         \
    ns::planes4_to_pixels8, ns::planes4_to_pixels16, ns::pixels_to_planes4_8, ns::pixels_to_planes4_16,     \
        ns::planes3_to_pixels8, ns::planes3_to_pixels16, ns::pixels_to_planes3_8, ns::pixels_to_planes3_16, \
        ns::planes_to_pixels8, ns::planes_to_pixels16, ns::pixels_to_planes8, ns::pixels_to_planes16,       \
        ns::planes4_16_to_pixels8                                                                           \
  }
constexpr InterleaveKernels kBaseline = ZT_INTERLEAVE_TABLE(baseline);
constexpr InterleaveKernels kAvx2 = ZT_INTERLEAVE_TABLE(avx2);
#undef ZT_INTERLEAVE_TABLE

InterleaveKernels g_k = kBaseline;

void refill_interleave(int32_t level) { g_k = level >= ZT_SIMD_AVX2 ? kAvx2 : kBaseline; }

// Four planes (in the order the pixel wants them) to pixels.
int32_t planes4(void *dst, const void *a, const void *b, const void *c, const void *d, uint32_t width,
                uint32_t bps) {
  if (dst == nullptr || a == nullptr || b == nullptr || c == nullptr || d == nullptr) return -1;
  if (bps == 1) {
    g_k.l2p4_8(static_cast<uint8_t *>(dst), static_cast<const uint8_t *>(a), static_cast<const uint8_t *>(b),
               static_cast<const uint8_t *>(c), static_cast<const uint8_t *>(d), width);
    return 0;
  }
  if (bps == 2) {
    g_k.l2p4_16(static_cast<uint16_t *>(dst), static_cast<const uint16_t *>(a),
                static_cast<const uint16_t *>(b), static_cast<const uint16_t *>(c),
                static_cast<const uint16_t *>(d), width);
    return 0;
  }
  return -1;
}

int32_t planes3(void *dst, const void *a, const void *b, const void *c, uint32_t width, uint32_t bps) {
  if (dst == nullptr || a == nullptr || b == nullptr || c == nullptr) return -1;
  if (bps == 1) {
    g_k.l2p3_8(static_cast<uint8_t *>(dst), static_cast<const uint8_t *>(a), static_cast<const uint8_t *>(b),
               static_cast<const uint8_t *>(c), width);
    return 0;
  }
  if (bps == 2) {
    g_k.l2p3_16(static_cast<uint16_t *>(dst), static_cast<const uint16_t *>(a),
                static_cast<const uint16_t *>(b), static_cast<const uint16_t *>(c), width);
    return 0;
  }
  return -1;
}

const void *plane(const void *src, uint32_t index, uint32_t width, uint32_t bps) {
  return static_cast<const uint8_t *>(src) + static_cast<size_t>(index) * width * bps;
}

// A row by line of four planes, handed to planes4 in the order given.
int32_t reorder4(void *dst, const void *src, uint32_t width, uint32_t bps, uint32_t i0, uint32_t i1,
                 uint32_t i2, uint32_t i3) {
  if (src == nullptr) return -1;
  return planes4(dst, plane(src, i0, width, bps), plane(src, i1, width, bps), plane(src, i2, width, bps),
                 plane(src, i3, width, bps), width, bps);
}

// Copies `keep` of every `channels` samples of a row by pixel; safe in place
// because the write position never passes the read position.
int32_t drop_trailing(void *dst, const void *src, uint32_t width, uint32_t channels, uint32_t keep,
                      uint32_t bps) {
  if (dst == nullptr || src == nullptr || (bps != 1 && bps != 2) || channels < keep) return -1;
  auto *d = static_cast<uint8_t *>(dst);
  const auto *s = static_cast<const uint8_t *>(src);
  const size_t in_px = size_t{channels} * bps, out_px = size_t{keep} * bps;
  for (size_t i = 0; i < width; ++i) std::memmove(d + i * out_px, s + i * in_px, out_px);
  return 0;
}

}  // namespace

int32_t interleave_kernels_init() { return zt::simd_register_table(&refill_interleave); }

void line_to_pixel(void *dst, const void *src, size_t width, size_t channels, uint32_t bps, size_t stride) {
  if (bps == 1) {
    auto *d = static_cast<uint8_t *>(dst);
    const auto *s = static_cast<const uint8_t *>(src);
    if (channels == 4) {
      g_k.l2p4_8(d, s, s + stride, s + 2 * stride, s + 3 * stride, width);
    } else if (channels == 3) {
      g_k.l2p3_8(d, s, s + stride, s + 2 * stride, width);
    } else {
      g_k.l2p_8(d, s, width, channels, stride);
    }
  } else {
    auto *d = static_cast<uint16_t *>(dst);
    const auto *s = static_cast<const uint16_t *>(src);
    if (channels == 4) {
      g_k.l2p4_16(d, s, s + stride, s + 2 * stride, s + 3 * stride, width);
    } else if (channels == 3) {
      g_k.l2p3_16(d, s, s + stride, s + 2 * stride, width);
    } else {
      g_k.l2p_16(d, s, width, channels, stride);
    }
  }
}

void line16_to_pixel8_4(uint8_t *dst, const uint16_t *src, size_t width, size_t stride, ptrdiff_t next_row) {
  g_k.l16p8_4(dst, src, src + stride, src + 2 * stride, src + 3 * stride, width, table16to8(), next_row);
}

void pixel_to_line(void *dst, const void *src, size_t width, size_t channels, uint32_t bps, size_t stride) {
  if (bps == 1) {
    auto *d = static_cast<uint8_t *>(dst);
    const auto *s = static_cast<const uint8_t *>(src);
    if (channels == 4) {
      g_k.p2l4_8(d, d + stride, d + 2 * stride, d + 3 * stride, s, width);
    } else if (channels == 3) {
      g_k.p2l3_8(d, d + stride, d + 2 * stride, s, width);
    } else {
      g_k.p2l_8(d, s, width, channels, stride);
    }
  } else {
    auto *d = static_cast<uint16_t *>(dst);
    const auto *s = static_cast<const uint16_t *>(src);
    if (channels == 4) {
      g_k.p2l4_16(d, d + stride, d + 2 * stride, d + 3 * stride, s, width);
    } else if (channels == 3) {
      g_k.p2l3_16(d, d + stride, d + 2 * stride, s, width);
    } else {
      g_k.p2l_16(d, s, width, channels, stride);
    }
  }
}

}  // namespace zt::raster

using namespace zt::raster;

namespace {

int32_t checked_l2p(void *dst, const void *src, uint32_t width, uint32_t channels, uint32_t bps) {
  if (dst == nullptr || src == nullptr || channels == 0 || (bps != 1 && bps != 2)) return -1;
  line_to_pixel(dst, src, width, channels, bps, width);
  return 0;
}

int32_t checked_p2l(void *dst, const void *src, uint32_t width, uint32_t channels, uint32_t bps) {
  if (dst == nullptr || src == nullptr || channels == 0 || (bps != 1 && bps != 2)) return -1;
  pixel_to_line(dst, src, width, channels, bps, width);
  return 0;
}

}  // namespace

extern "C" {

ZT_API int32_t ZT_interleavedLineToPixel(void *dst, const void *src, uint32_t width, uint32_t channels,
                                         uint32_t bytesPerSample) {
  return checked_l2p(dst, src, width, channels, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToPixelThreeChannels(void *dst, const void *src, uint32_t width,
                                                      uint32_t bytesPerSample) {
  return checked_l2p(dst, src, width, 3, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToPixelFourChannels(void *dst, const void *src, uint32_t width,
                                                     uint32_t bytesPerSample) {
  return checked_l2p(dst, src, width, 4, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToPixelAnyChannels(void *dst, const void *src, uint32_t width,
                                                    uint32_t channels, uint32_t bytesPerSample) {
  return checked_l2p(dst, src, width, channels, bytesPerSample);
}

ZT_API int32_t ZT_interleavedPixelToLine(void *dst, const void *src, uint32_t width, uint32_t channels,
                                         uint32_t bytesPerSample) {
  return checked_p2l(dst, src, width, channels, bytesPerSample);
}
ZT_API int32_t ZT_interleavedPixelToLineThreeChannels(void *dst, const void *src, uint32_t width,
                                                      uint32_t bytesPerSample) {
  return checked_p2l(dst, src, width, 3, bytesPerSample);
}
ZT_API int32_t ZT_interleavedPixelToLineFourChannels(void *dst, const void *src, uint32_t width,
                                                     uint32_t bytesPerSample) {
  return checked_p2l(dst, src, width, 4, bytesPerSample);
}
ZT_API int32_t ZT_interleavedPixelToLineAnyChannels(void *dst, const void *src, uint32_t width,
                                                    uint32_t channels, uint32_t bytesPerSample) {
  return checked_p2l(dst, src, width, channels, bytesPerSample);
}

ZT_API int32_t ZT_interleavedLineRGBAToARGB(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample) {
  return reorder4(dst, src, width, bytesPerSample, 3, 0, 1, 2);
}
ZT_API int32_t ZT_interleavedLineRGBAToBGRA(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample) {
  return reorder4(dst, src, width, bytesPerSample, 2, 1, 0, 3);
}
ZT_API int32_t ZT_interleavedLineRGBAToABGR(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample) {
  return reorder4(dst, src, width, bytesPerSample, 3, 2, 1, 0);
}
ZT_API int32_t ZT_interleavedLineRGBAToRGBA(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample) {
  return reorder4(dst, src, width, bytesPerSample, 0, 1, 2, 3);
}

ZT_API int32_t ZT_interleavedLineToARGB(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample) {
  return planes4(dst, a, r, g, b, width, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToABGR(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample) {
  return planes4(dst, a, b, g, r, width, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToBGRA(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample) {
  return planes4(dst, b, g, r, a, width, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineToRGBA(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample) {
  return planes4(dst, r, g, b, a, width, bytesPerSample);
}

ZT_API int32_t ZT_interleavedLineRGBAToRGB(void *dst, const void *src, uint32_t width,
                                           uint32_t bytesPerSample) {
  if (src == nullptr) return -1;
  return planes3(dst, plane(src, 0, width, bytesPerSample), plane(src, 1, width, bytesPerSample),
                 plane(src, 2, width, bytesPerSample), width, bytesPerSample);
}
ZT_API int32_t ZT_interleavedLineRGBAToLineRGB(void *dst, const void *src, uint32_t width,
                                               uint32_t bytesPerSample) {
  if (dst == nullptr || src == nullptr || (bytesPerSample != 1 && bytesPerSample != 2)) return -1;
  std::memmove(dst, src, size_t{3} * width * bytesPerSample);
  return 0;
}
ZT_API int32_t ZT_interleavedLineRGBToLineRGBA(void *dst, const void *src, uint32_t width,
                                               uint32_t bytesPerSample) {
  if (dst == nullptr || src == nullptr || (bytesPerSample != 1 && bytesPerSample != 2)) return -1;
  const size_t plane_bytes = size_t{width} * bytesPerSample;
  std::memmove(dst, src, 3 * plane_bytes);
  std::memset(static_cast<uint8_t *>(dst) + 3 * plane_bytes, 0xFF, plane_bytes);
  return 0;
}
ZT_API int32_t ZT_interleavedLineRGBToInterleave(void *dst, const void *src, uint32_t width,
                                                 uint32_t bytesPerSample) {
  return checked_l2p(dst, src, width, 3, bytesPerSample);
}
ZT_API int32_t ZT_RGBAToRGB(void *dst, const void *src, uint32_t width, uint32_t bytesPerSample) {
  return drop_trailing(dst, src, width, 4, 3, bytesPerSample);
}
ZT_API int32_t ZT_GrayAToGray(void *dst, const void *src, uint32_t width, uint32_t bytesPerSample) {
  return drop_trailing(dst, src, width, 2, 1, bytesPerSample);
}
ZT_API int32_t ZT_discardAlphaChannel(void *buf, uint32_t width, uint32_t channels, uint32_t bytesPerSample) {
  if (channels < 1) return -1;
  return drop_trailing(buf, buf, width, channels, channels - 1, bytesPerSample);
}

ZT_API int32_t ZT_applyAlphaChannel(void *buf, uint32_t width, uint32_t channels, uint32_t bytesPerSample,
                                    uint32_t background) {
  if (buf == nullptr || channels < 2 || (bytesPerSample != 1 && bytesPerSample != 2)) return -1;
  const uint64_t max = bytesPerSample == 1 ? 255 : 65535;
  const uint64_t bg = background > max ? max : background;
  auto *p = static_cast<uint8_t *>(buf);
  const size_t px = size_t{channels} * bytesPerSample;
  for (size_t i = 0; i < width; ++i, p += px) {
    auto get = [&](size_t c) -> uint64_t {
      if (bytesPerSample == 1) return p[c];
      uint16_t v;
      std::memcpy(&v, p + 2 * c, 2);
      return v;
    };
    auto put = [&](size_t c, uint64_t v) {
      if (bytesPerSample == 1) {
        p[c] = static_cast<uint8_t>(v);
      } else {
        const auto s = static_cast<uint16_t>(v);
        std::memcpy(p + 2 * c, &s, 2);
      }
    };
    const uint64_t a = get(channels - 1);
    for (size_t c = 0; c + 1 < channels; ++c) put(c, (get(c) * a + bg * (max - a) + max / 2) / max);
    put(channels - 1, max);
  }
  return 0;
}

}  // extern "C"
