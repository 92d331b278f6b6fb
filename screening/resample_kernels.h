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

inline int16_t saturate16(int32_t v) {
  return static_cast<int16_t>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v));
}

inline float round_even(float v) {
  const float magic = 8388608.0f;
  return (v + magic) - magic;
}

inline float clamp_range(float v, float top) {
  v = v < 0.0f ? 0.0f : v;
  return v > top ? top : v;
}

#if defined(__AVX2__)
// Adds neighbouring lanes of a and b pairwise, `swap` exchanging the
// neighbours: blends are cheap, so each step shuffles one vector, not two.
template <int kBlend, int kSwap>
inline __m256i fold_pair(__m256i a, __m256i b) {
  const __m256i mine = _mm256_blend_epi32(a, b, kBlend);
  const __m256i theirs = _mm256_shuffle_epi32(_mm256_blend_epi32(a, b, ~kBlend & 0xFF), kSwap);
  return _mm256_add_epi32(mine, theirs);
}

// The running-sum fold of the single-precision row filter.
inline float fold8(__m256 acc) {
  const __m128 q = _mm_add_ps(_mm256_castps256_ps128(acc), _mm256_extractf128_ps(acc, 1));
  const __m128 r = _mm_add_ps(q, _mm_movehl_ps(q, q));
  return _mm_cvtss_f32(_mm_add_ss(r, _mm_shuffle_ps(r, r, 1)));
}
#endif

}  // namespace

#if defined(__AVX2__)
namespace {

// Eight outputs of the row filter from pairs of outputs: one vector holds 16
// taps of output x in its low half and of x + 1 in its high half. Masking and
// shifting split even and odd taps into 16-bit lanes (no byte shuffles), and
// the weights lie ready for that split (see pairedWeights). `kGroups` groups
// of 16 taps (0: `groups`, any number).
template <uint32_t kGroups>
inline __m256i hpass_u8_eight(const uint8_t *in, const int16_t *wp, const int32_t *start, uint32_t x,
                              uint32_t groups) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  const uint32_t n = kGroups != 0 ? kGroups : groups;
  __m256i acc[4];
#pragma GCC unroll 4
  for (uint32_t q = 0; q < 4; ++q) {
    const uint8_t *s0 = in + start[x + 2 * q];
    const uint8_t *s1 = in + start[x + 2 * q + 1];
    const int16_t *wq = wp + size_t{(x >> 1) + q} * n * 32;
    __m256i a = _mm256_setzero_si256();
#pragma GCC unroll 4
    for (uint32_t g = 0; g < n; ++g) {
      const __m256i d = _mm256_inserti128_si256(
          _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s0 + 16 * g))),
          _mm_loadu_si128(reinterpret_cast<const __m128i *>(s1 + 16 * g)), 1);
      const __m256i even = _mm256_and_si256(d, low);
      const __m256i odd = _mm256_srli_epi16(d, 8);
      const __m256i *k = reinterpret_cast<const __m256i *>(wq + 32 * g);
      a = _mm256_add_epi32(a, _mm256_madd_epi16(even, _mm256_loadu_si256(k)));
      a = _mm256_add_epi32(a, _mm256_madd_epi16(odd, _mm256_loadu_si256(k + 1)));
    }
    acc[q] = a;
  }
  // acc[q] holds four partial sums of output 2q, then four of 2q + 1.
  const __m256i s01 = fold_pair<0xAA, 0xB1>(acc[0], acc[1]);
  const __m256i s23 = fold_pair<0xAA, 0xB1>(acc[2], acc[3]);
  const __m256i mixed = fold_pair<0xCC, 0x4E>(s01, s23);  // outputs 0 2 4 6 | 1 3 5 7
  return _mm256_permutevar8x32_epi32(mixed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

template <uint32_t kGroups>
inline uint32_t hpass_u8_vector(int16_t *out, const uint8_t *in, const int16_t *wp, const int32_t *start,
                                uint32_t stride, uint32_t x, uint32_t x1) {
  const __m256i round = _mm256_set1_epi32(128);
  const uint32_t groups = stride / 16;
  for (; x + 8 <= x1; x += 8) {
    const __m256i sum =
        _mm256_srai_epi32(_mm256_add_epi32(hpass_u8_eight<kGroups>(in, wp, start, x, groups), round), 8);
    const __m128i packed = _mm_packs_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + x), packed);
  }
  return x;
}

}  // namespace
#endif

namespace {
inline void hpass_u8_one(int16_t *out, const uint8_t *in, const int16_t *w, const int32_t *start,
                         uint32_t stride, uint32_t x) {
  const uint8_t *src = in + start[x];
  const int16_t *wr = w + size_t{x} * stride;
  int32_t acc = 0;
  for (uint32_t k = 0; k < stride; ++k) acc += int32_t{wr[k]} * int32_t{src[k]};
  out[x] = saturate16((acc + 128) >> 8);
}
}  // namespace

void hpass_u8(int16_t *out, const uint8_t *in, const int16_t *w, const int16_t *wp, const int32_t *start,
              uint32_t stride, uint32_t x0, uint32_t x1) {
  uint32_t x = x0;
#if defined(__AVX2__)
  // The paired weights start at even outputs.
  if ((x & 1u) != 0 && x < x1) hpass_u8_one(out, in, w, start, stride, x++);
  switch (stride) {
    case 16:
      x = hpass_u8_vector<1>(out, in, wp, start, stride, x, x1);
      break;
    case 32:
      x = hpass_u8_vector<2>(out, in, wp, start, stride, x, x1);
      break;
    default:
      x = hpass_u8_vector<0>(out, in, wp, start, stride, x, x1);
      break;
  }
#else
  (void)wp;
#endif
  for (; x < x1; ++x) hpass_u8_one(out, in, w, start, stride, x);
}

void vpass_u8(uint8_t *out, const int16_t *const *rows, const int16_t *w, uint32_t count, uint32_t x0,
              uint32_t x1) {
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
void vpass_f(T *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0, uint32_t x1,
             float top) {
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

void vpass_f8(uint8_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0,
              uint32_t x1) {
  vpass_f(out, rows, w, count, x0, x1, 255.0f);
}

void vpass_f16(uint16_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0,
               uint32_t x1) {
  vpass_f(out, rows, w, count, x0, x1, 65535.0f);
}

void to_float_u8(float *out, const uint8_t *in, size_t n, int32_t mode) { to_float(out, in, n, mode); }
void to_float_u16(float *out, const uint16_t *in, size_t n, int32_t mode) { to_float(out, in, n, mode); }

}  // namespace zt::screening::ZT_KERNEL_NS
