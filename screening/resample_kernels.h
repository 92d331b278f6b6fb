// The resampler's inner loops, one body for every dispatch level.
// resample_weights.cpp includes it with ZT_KERNEL_NS baseline,
// resample_avx2.cpp with avx2; the vector blocks compile only in the latter
// and give the same bits as the scalar loops they stand for.
//
// Fixed point: an 8-bit row is filtered along the row with 14-fraction-bit
// weights into 16-bit values with 6 fraction bits ((sum + 128) >> 8,
// saturated); across rows the same weights give (sum + 2^19) >> 20 clamped to
// 0 ... 255. Integer sums do not depend on their order, so the vector forms
// are free to pair and regroup them.
//
// Single precision: sums are formed in a fixed order that both forms follow.
// Along the row eight running sums take taps k, k + 8, ... (a vector's lanes)
// and fold as ((p0 + p4) + (p2 + p6)) + ((p1 + p5) + (p3 + p7)); across rows
// each column adds its taps in order. No multiply-add is fused (the tree
// builds with -ffp-contract=off). Rounding to an integer adds and subtracts
// 2^23, which rounds to nearest, ties to even, for 0 <= v < 2^22.
#ifndef ZT_KERNEL_NS
#error "define ZT_KERNEL_NS before including resample_kernels.h"
#endif

#include <cstddef>
#include <cstdint>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace zt::screening::ZT_KERNEL_NS {

namespace {

inline int16_t saturate16(int32_t v) { return static_cast<int16_t>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v)); }

inline float round_even(float v) {
  const float magic = 8388608.0f;
  return (v + magic) - magic;
}

inline float clamp_range(float v, float top) {
  v = v < 0.0f ? 0.0f : v;
  return v > top ? top : v;
}

#if defined(__AVX2__)
// Sums the eight 32-bit lanes of each of eight vectors: lane i of the result
// is the total of v[i].
inline __m256i hsum8_epi32(const __m256i *v) {
  const __m256i s01 = _mm256_hadd_epi32(v[0], v[1]);
  const __m256i s23 = _mm256_hadd_epi32(v[2], v[3]);
  const __m256i s45 = _mm256_hadd_epi32(v[4], v[5]);
  const __m256i s67 = _mm256_hadd_epi32(v[6], v[7]);
  const __m256i s0123 = _mm256_hadd_epi32(s01, s23);
  const __m256i s4567 = _mm256_hadd_epi32(s45, s67);
  const __m256i lo = _mm256_permute2x128_si256(s0123, s4567, 0x20);
  const __m256i hi = _mm256_permute2x128_si256(s0123, s4567, 0x31);
  return _mm256_add_epi32(lo, hi);
}

// The running-sum fold of the single-precision row filter.
inline float fold8(__m256 acc) {
  const __m128 q = _mm_add_ps(_mm256_castps256_ps128(acc), _mm256_extractf128_ps(acc, 1));
  const __m128 r = _mm_add_ps(q, _mm_movehl_ps(q, q));
  return _mm_cvtss_f32(_mm_add_ss(r, _mm_shuffle_ps(r, r, 1)));
}
#endif

}  // namespace

void hpass_u8(int16_t *out, const uint8_t *in, const int16_t *w, const int32_t *start, uint32_t stride, uint32_t x0,
              uint32_t x1) {
  uint32_t x = x0;
#if defined(__AVX2__)
  const uint32_t groups = stride / 16;
  const __m256i round = _mm256_set1_epi32(128);
  for (; x + 8 <= x1; x += 8) {
    __m256i acc[8];
    for (uint32_t l = 0; l < 8; ++l) {
      const uint8_t *src = in + start[x + l];
      const int16_t *wr = w + size_t{x + l} * stride;
      __m256i a = _mm256_setzero_si256();
      for (uint32_t g = 0; g < groups; ++g) {
        const __m256i s = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 16 * g)));
        const __m256i k = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(wr + 16 * g));
        a = _mm256_add_epi32(a, _mm256_madd_epi16(s, k));
      }
      acc[l] = a;
    }
    const __m256i sum = _mm256_srai_epi32(_mm256_add_epi32(hsum8_epi32(acc), round), 8);
    const __m128i packed = _mm_packs_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + x), packed);
  }
#endif
  for (; x < x1; ++x) {
    const uint8_t *src = in + start[x];
    const int16_t *wr = w + size_t{x} * stride;
    int32_t acc = 0;
    for (uint32_t k = 0; k < stride; ++k) acc += int32_t{wr[k]} * int32_t{src[k]};
    out[x] = saturate16((acc + 128) >> 8);
  }
}

void vpass_u8(uint8_t *out, const int16_t *const *rows, const int16_t *w, uint32_t count, uint32_t x0, uint32_t x1) {
  uint32_t x = x0;
#if defined(__AVX2__)
  const __m256i round = _mm256_set1_epi32(1 << 19);
  for (; x + 16 <= x1; x += 16) {
    __m256i lo = _mm256_setzero_si256();
    __m256i hi = _mm256_setzero_si256();
    uint32_t k = 0;
    for (; k < count; k += 2) {
      // An odd last tap pairs its row with itself at weight zero.
      const bool single = k + 1 == count;
      const int16_t *r1 = single ? rows[k] : rows[k + 1];
      const uint32_t pair = uint32_t{static_cast<uint16_t>(w[k])} |
                            (single ? 0u : uint32_t{static_cast<uint16_t>(w[k + 1])} << 16);
      const __m256i wp = _mm256_set1_epi32(static_cast<int32_t>(pair));
      const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[k] + x));
      const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r1 + x));
      lo = _mm256_add_epi32(lo, _mm256_madd_epi16(_mm256_unpacklo_epi16(a, b), wp));
      hi = _mm256_add_epi32(hi, _mm256_madd_epi16(_mm256_unpackhi_epi16(a, b), wp));
    }
    lo = _mm256_srai_epi32(_mm256_add_epi32(lo, round), 20);
    hi = _mm256_srai_epi32(_mm256_add_epi32(hi, round), 20);
    // The unpacks and packs both work within 128-bit halves, so the columns
    // come back in order; saturating to 16 and then 8 bits is the clamp.
    const __m256i words = _mm256_packs_epi32(lo, hi);
    const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(words, words), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + x), _mm256_castsi256_si128(bytes));
  }
#endif
  for (; x < x1; ++x) {
    int32_t acc = 0;
    for (uint32_t k = 0; k < count; ++k) acc += int32_t{w[k]} * int32_t{rows[k][x]};
    const int32_t v = (acc + (1 << 19)) >> 20;
    out[x] = static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
  }
}

void hpass_f(float *out, const float *in, const float *w, const int32_t *start, uint32_t stride, uint32_t x0,
             uint32_t x1) {
  const uint32_t groups = stride / 8;
  uint32_t x = x0;
#if defined(__AVX2__)
  for (; x < x1; ++x) {
    const float *src = in + start[x];
    const float *wr = w + size_t{x} * stride;
    __m256 acc = _mm256_setzero_ps();
    for (uint32_t g = 0; g < groups; ++g)
      acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_loadu_ps(src + 8 * g), _mm256_loadu_ps(wr + 8 * g)));
    out[x] = fold8(acc);
  }
#endif
  for (; x < x1; ++x) {
    const float *src = in + start[x];
    const float *wr = w + size_t{x} * stride;
    float p[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (uint32_t g = 0; g < groups; ++g)
      for (uint32_t l = 0; l < 8; ++l) p[l] = p[l] + src[8 * g + l] * wr[8 * g + l];
    const float r0 = (p[0] + p[4]) + (p[2] + p[6]);
    const float r1 = (p[1] + p[5]) + (p[3] + p[7]);
    out[x] = r0 + r1;
  }
}

namespace {

template <typename T>
void vpass_f(T *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0, uint32_t x1, float top) {
  uint32_t x = x0;
#if defined(__AVX2__)
  const __m256 magic = _mm256_set1_ps(8388608.0f);
  const __m256 vtop = _mm256_set1_ps(top);
  for (; x + 8 <= x1; x += 8) {
    __m256 acc = _mm256_setzero_ps();
    for (uint32_t k = 0; k < count; ++k)
      acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_set1_ps(w[k]), _mm256_loadu_ps(rows[k] + x)));
    acc = _mm256_min_ps(_mm256_max_ps(acc, _mm256_setzero_ps()), vtop);
    const __m256i v = _mm256_cvttps_epi32(_mm256_sub_ps(_mm256_add_ps(acc, magic), magic));
    const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    if constexpr (sizeof(T) == 1) {
      _mm_storel_epi64(reinterpret_cast<__m128i *>(out + x), _mm_packus_epi16(words, words));
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + x), words);
    }
  }
#endif
  for (; x < x1; ++x) {
    float acc = 0.0f;
    for (uint32_t k = 0; k < count; ++k) acc = acc + w[k] * rows[k][x];
    out[x] = static_cast<T>(round_even(clamp_range(acc, top)));
  }
}

template <typename T>
void to_float(float *out, const T *in, size_t n, int32_t mode) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m256 k257 = _mm256_set1_ps(257.0f);
  for (; i + 8 <= n; i += 8) {
    __m256i v;
    if constexpr (sizeof(T) == 1) {
      v = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(in + i)));
    } else {
      v = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i)));
    }
    __m256 f = _mm256_cvtepi32_ps(v);
    if (mode == 1) f = _mm256_mul_ps(f, k257);
    if (mode == 2) f = _mm256_div_ps(f, k257);
    _mm256_storeu_ps(out + i, f);
  }
#endif
  for (; i < n; ++i) {
    float f = static_cast<float>(in[i]);
    if (mode == 1) f = f * 257.0f;
    if (mode == 2) f = f / 257.0f;
    out[i] = f;
  }
}

}  // namespace

void vpass_f8(uint8_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0, uint32_t x1) {
  vpass_f(out, rows, w, count, x0, x1, 255.0f);
}

void vpass_f16(uint16_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0, uint32_t x1) {
  vpass_f(out, rows, w, count, x0, x1, 65535.0f);
}

void to_float_u8(float *out, const uint8_t *in, size_t n, int32_t mode) { to_float(out, in, n, mode); }
void to_float_u16(float *out, const uint16_t *in, size_t n, int32_t mode) { to_float(out, in, n, mode); }

}  // namespace zt::screening::ZT_KERNEL_NS
