// The interleave kernels, one body for every dispatch level (see
// foundation/simd_dispatch.h). Planes are passed one pointer each, so the
// same kernels serve channel reordering: the caller hands the planes over in
// the order the pixels want them.
#ifndef ZT_KERNEL_NS
#error "define ZT_KERNEL_NS before including interleave_kernels.h"
#endif

#include <cstddef>
#include <cstdint>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace zt::raster::ZT_KERNEL_NS {

template <typename T>
void planes3_to_pixels(T *dst, const T *p0, const T *p1, const T *p2, size_t width) {
  for (size_t i = 0; i < width; ++i) {
    dst[3 * i + 0] = p0[i];
    dst[3 * i + 1] = p1[i];
    dst[3 * i + 2] = p2[i];
  }
}

template <typename T>
void pixels_to_planes3(T *p0, T *p1, T *p2, const T *src, size_t width) {
  for (size_t i = 0; i < width; ++i) {
    p0[i] = src[3 * i + 0];
    p1[i] = src[3 * i + 1];
    p2[i] = src[3 * i + 2];
  }
}

template <typename T>
void planes4_tail(T *dst, const T *p0, const T *p1, const T *p2, const T *p3, size_t from, size_t width) {
  for (size_t i = from; i < width; ++i) {
    dst[4 * i + 0] = p0[i];
    dst[4 * i + 1] = p1[i];
    dst[4 * i + 2] = p2[i];
    dst[4 * i + 3] = p3[i];
  }
}

template <typename T>
void pixels4_tail(T *p0, T *p1, T *p2, T *p3, const T *src, size_t from, size_t width) {
  for (size_t i = from; i < width; ++i) {
    p0[i] = src[4 * i + 0];
    p1[i] = src[4 * i + 1];
    p2[i] = src[4 * i + 2];
    p3[i] = src[4 * i + 3];
  }
}

template <typename T>
void planes_to_pixels(T *dst, const T *src, size_t width, size_t channels, size_t stride) {
  for (size_t c = 0; c < channels; ++c) {
    const T *plane = src + c * stride;
    T *out = dst + c;
    for (size_t i = 0; i < width; ++i) out[i * channels] = plane[i];
  }
}

template <typename T>
void pixels_to_planes(T *dst, const T *src, size_t width, size_t channels, size_t stride) {
  for (size_t c = 0; c < channels; ++c) {
    T *plane = dst + c * stride;
    const T *in = src + c;
    for (size_t i = 0; i < width; ++i) plane[i] = in[i * channels];
  }
}

#if defined(__AVX2__)
inline __m128i load16(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }
inline void store16(void *p, __m128i v) { _mm_storeu_si128(static_cast<__m128i *>(p), v); }
#endif

void planes4_to_pixels8(uint8_t *dst, const uint8_t *p0, const uint8_t *p1, const uint8_t *p2,
                        const uint8_t *p3, size_t width) {
  size_t i = 0;
#if defined(__AVX2__)
  for (; i + 16 <= width; i += 16) {
    const __m128i a = load16(p0 + i), b = load16(p1 + i), c = load16(p2 + i), d = load16(p3 + i);
    const __m128i ab_l = _mm_unpacklo_epi8(a, b), ab_h = _mm_unpackhi_epi8(a, b);
    const __m128i cd_l = _mm_unpacklo_epi8(c, d), cd_h = _mm_unpackhi_epi8(c, d);
    store16(dst + 4 * i, _mm_unpacklo_epi16(ab_l, cd_l));
    store16(dst + 4 * i + 16, _mm_unpackhi_epi16(ab_l, cd_l));
    store16(dst + 4 * i + 32, _mm_unpacklo_epi16(ab_h, cd_h));
    store16(dst + 4 * i + 48, _mm_unpackhi_epi16(ab_h, cd_h));
  }
#endif
  planes4_tail(dst, p0, p1, p2, p3, i, width);
}

void planes4_to_pixels16(uint16_t *dst, const uint16_t *p0, const uint16_t *p1, const uint16_t *p2,
                         const uint16_t *p3, size_t width) {
  size_t i = 0;
#if defined(__AVX2__)
  for (; i + 8 <= width; i += 8) {
    const __m128i a = load16(p0 + i), b = load16(p1 + i), c = load16(p2 + i), d = load16(p3 + i);
    const __m128i ab_l = _mm_unpacklo_epi16(a, b), ab_h = _mm_unpackhi_epi16(a, b);
    const __m128i cd_l = _mm_unpacklo_epi16(c, d), cd_h = _mm_unpackhi_epi16(c, d);
    store16(dst + 4 * i, _mm_unpacklo_epi32(ab_l, cd_l));
    store16(dst + 4 * i + 8, _mm_unpackhi_epi32(ab_l, cd_l));
    store16(dst + 4 * i + 16, _mm_unpacklo_epi32(ab_h, cd_h));
    store16(dst + 4 * i + 24, _mm_unpackhi_epi32(ab_h, cd_h));
  }
#endif
  planes4_tail(dst, p0, p1, p2, p3, i, width);
}

// Four planes of 16-bit samples to 8-bit pixels in one pass, each sample
// through `table` (the 16-to-8 table): a depth change and an interleave
// change without a staging row between them. `ahead` is how many bytes on the
// planes of the next row start (0 for none): a plane's run in a row is short
// (2 KiB for 1,024 pixels), too short for the hardware prefetcher to pick up
// four of them afresh each row, so the vector loop asks for the next row's
// lines while it works on this one.
void planes4_16_to_pixels8(uint8_t *dst, const uint16_t *p0, const uint16_t *p1, const uint16_t *p2,
                           const uint16_t *p3, size_t width, const uint8_t *table, ptrdiff_t ahead) {
  size_t i = 0;
#if defined(__AVX2__)
  // The table's rule, round(v / 257), as floor((v + 128) / 257) (no ties: 257
  // is odd): v + 128 saturated (whatever saturates gives 255 either way),
  // then the high half of x * 65281 shifted by 8, which is x / 257 below 2^17.
  const __m256i half = _mm256_set1_epi16(128);
  const __m256i k65281 = _mm256_set1_epi16(static_cast<int16_t>(65281));
  const auto bytes = [&](const uint16_t *p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    return _mm256_srli_epi16(_mm256_mulhi_epu16(_mm256_adds_epu16(v, half), k65281), 8);
  };
  const auto sixteen = [&](size_t at) {
    // Channel pairs side by side in 16-bit lanes, then pairs of pairs: one
    // 32-bit pixel a lane, pixels 0-3 and 8-11 in `lo`, 4-7 and 12-15 in `hi`.
    const __m256i ab = _mm256_or_si256(bytes(p0 + at), _mm256_slli_epi16(bytes(p1 + at), 8));
    const __m256i cd = _mm256_or_si256(bytes(p2 + at), _mm256_slli_epi16(bytes(p3 + at), 8));
    const __m256i lo = _mm256_unpacklo_epi16(ab, cd), hi = _mm256_unpackhi_epi16(ab, cd);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 4 * at), _mm256_permute2x128_si256(lo, hi, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 4 * at + 32),
                        _mm256_permute2x128_si256(lo, hi, 0x31));
  };
  // 32 pixels an iteration: one cache line of each plane, one prefetch each.
  for (; i + 32 <= width; i += 32) {
    _mm_prefetch(reinterpret_cast<const char *>(p0 + i) + ahead, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char *>(p1 + i) + ahead, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char *>(p2 + i) + ahead, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char *>(p3 + i) + ahead, _MM_HINT_T0);
    sixteen(i);
    sixteen(i + 16);
  }
  for (; i + 16 <= width; i += 16) sixteen(i);
#else
  (void)ahead;
#endif
  for (; i < width; ++i) {
    dst[4 * i] = table[p0[i]];
    dst[4 * i + 1] = table[p1[i]];
    dst[4 * i + 2] = table[p2[i]];
    dst[4 * i + 3] = table[p3[i]];
  }
}

#if defined(__AVX2__)
// Four registers whose 32-bit lanes each hold one channel's run, transposed
// so that each output register holds one channel.
inline void transpose_store(void *o0, void *o1, void *o2, void *o3, __m128i q0, __m128i q1, __m128i q2,
                            __m128i q3) {
  const __m128i t0 = _mm_unpacklo_epi32(q0, q1), t1 = _mm_unpacklo_epi32(q2, q3);
  const __m128i t2 = _mm_unpackhi_epi32(q0, q1), t3 = _mm_unpackhi_epi32(q2, q3);
  store16(o0, _mm_unpacklo_epi64(t0, t1));
  store16(o1, _mm_unpackhi_epi64(t0, t1));
  store16(o2, _mm_unpacklo_epi64(t2, t3));
  store16(o3, _mm_unpackhi_epi64(t2, t3));
}
#endif

void pixels_to_planes4_8(uint8_t *p0, uint8_t *p1, uint8_t *p2, uint8_t *p3, const uint8_t *src,
                         size_t width) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m128i gather = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  for (; i + 16 <= width; i += 16) {
    const uint8_t *s = src + 4 * i;
    transpose_store(p0 + i, p1 + i, p2 + i, p3 + i, _mm_shuffle_epi8(load16(s), gather),
                    _mm_shuffle_epi8(load16(s + 16), gather), _mm_shuffle_epi8(load16(s + 32), gather),
                    _mm_shuffle_epi8(load16(s + 48), gather));
  }
#endif
  pixels4_tail(p0, p1, p2, p3, src, i, width);
}

void pixels_to_planes4_16(uint16_t *p0, uint16_t *p1, uint16_t *p2, uint16_t *p3, const uint16_t *src,
                          size_t width) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m128i gather = _mm_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
  for (; i + 8 <= width; i += 8) {
    const uint16_t *s = src + 4 * i;
    transpose_store(p0 + i, p1 + i, p2 + i, p3 + i, _mm_shuffle_epi8(load16(s), gather),
                    _mm_shuffle_epi8(load16(s + 8), gather), _mm_shuffle_epi8(load16(s + 16), gather),
                    _mm_shuffle_epi8(load16(s + 24), gather));
  }
#endif
  pixels4_tail(p0, p1, p2, p3, src, i, width);
}

void planes3_to_pixels8(uint8_t *d, const uint8_t *a, const uint8_t *b, const uint8_t *c, size_t w) {
  planes3_to_pixels(d, a, b, c, w);
}
void planes3_to_pixels16(uint16_t *d, const uint16_t *a, const uint16_t *b, const uint16_t *c, size_t w) {
  planes3_to_pixels(d, a, b, c, w);
}
void pixels_to_planes3_8(uint8_t *a, uint8_t *b, uint8_t *c, const uint8_t *s, size_t w) {
  pixels_to_planes3(a, b, c, s, w);
}
void pixels_to_planes3_16(uint16_t *a, uint16_t *b, uint16_t *c, const uint16_t *s, size_t w) {
  pixels_to_planes3(a, b, c, s, w);
}
// `stride` is the distance between planes, in samples.
void planes_to_pixels8(uint8_t *d, const uint8_t *s, size_t w, size_t ch, size_t stride) {
  planes_to_pixels(d, s, w, ch, stride);
}
void planes_to_pixels16(uint16_t *d, const uint16_t *s, size_t w, size_t ch, size_t stride) {
  planes_to_pixels(d, s, w, ch, stride);
}
void pixels_to_planes8(uint8_t *d, const uint8_t *s, size_t w, size_t ch, size_t stride) {
  pixels_to_planes(d, s, w, ch, stride);
}
void pixels_to_planes16(uint16_t *d, const uint16_t *s, size_t w, size_t ch, size_t stride) {
  pixels_to_planes(d, s, w, ch, stride);
}

}  // namespace zt::raster::ZT_KERNEL_NS
