// The table interpolators' per-pixel arithmetic, written once for both
// processor forms: table_interpolator.cpp compiles it as the baseline and
// table_interpolator_avx2.cpp with AVX2, each in its own namespace.
//
// Every output goes through the same single-precision operations in the same
// order on both forms, so they agree to the bit: the vector form only runs
// eight pixels side by side (one pixel per lane, corners fetched by gathers)
// where the baseline runs one. The same holds for the clamp before rounding:
// max/min are written as the comparisons the vector instructions perform, so
// even a NaN in a grid lands on the same value.
#ifndef ZT_KERNEL_NS
#error "define ZT_KERNEL_NS before including table_interpolator_kernels.h"
#endif

#include <stddef.h>
#include <stdint.h>
#include <zt/table_interpolator.h>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

#ifndef ZT_COLOUR_TABLE_INTERPOLATOR_LINE
#define ZT_COLOUR_TABLE_INTERPOLATOR_LINE
namespace zt::colour {

// One line, or one band of columns of a line, for convert_line. Samples are
// 8 or 16 bits; with interleave 1 each channel's row starts `*_plane` samples
// after the previous channel's, otherwise a pixel's channels lie together.
struct InterpLine {
  const ZT_InterpGrid *grid;
  const void *source;
  void *destination;
  uint32_t pixels;
  uint32_t source_plane;
  uint32_t destination_plane;
  uint32_t interleave;
  uint32_t sample_bytes;
  int32_t scheme;
};

using ConvertLineFn = void (*)(const InterpLine &line);

}  // namespace zt::colour
#endif

namespace zt::colour::ZT_KERNEL_NS {

// Pixels staged per step of a line: small enough for the stack, large
// enough that the staging loops run long.
constexpr uint32_t kChunk = 64;
constexpr uint32_t kLanes = 8;

// ---------------------------------------------------------------------------
// Arithmetic on one value (float) or eight lanes (__m256), so that the blends
// below are one body for both.

inline float v_add(float a, float b) { return a + b; }
inline float v_sub(float a, float b) { return a - b; }
inline float v_mul(float a, float b) { return a * b; }
inline float v_splat(float a, float) { return a; }

#if defined(__AVX2__)
inline __m256 v_add(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
inline __m256 v_sub(__m256 a, __m256 b) { return _mm256_sub_ps(a, b); }
inline __m256 v_mul(__m256 a, __m256 b) { return _mm256_mul_ps(a, b); }
inline __m256 v_splat(float a, __m256) { return _mm256_set1_ps(a); }
#endif

// a + (b - a) * f: a at f = 0 exactly.
template <typename V>
inline V v_lerp(V a, V b, V f) {
  return v_add(a, v_mul(v_sub(b, a), f));
}

// Blends the 2^kIn corner values c along every axis in turn, first input
// first: corner k and corner k + half differ in the first remaining input.
// Leaves the result in c[0].
template <uint32_t kIn, typename V>
inline V blend_trilinear(V *c, const V *f) {
#pragma GCC unroll 4
  for (uint32_t a = 0; a < kIn; ++a) {
    const uint32_t count = (1u << kIn) >> (a + 1);
#pragma GCC unroll 8
    for (uint32_t k = 0; k < count; ++k) c[k] = v_lerp(c[k], c[k + count], f[a]);
  }
  return c[0];
}

// The triangle on the first two inputs, for each combination j of the other
// inputs (corner j, the middle corner and the diagonal corner j + 3 * 2^(kIn - 2)),
// then the linear blend along the other inputs with weights 1 - f and f.
template <uint32_t kIn, typename V>
inline V blend_prism(const V *origin, const V *middle, const V *diagonal, V w0, V w1, V w2, const V *f_rest) {
  constexpr uint32_t kFaces = 1u << (kIn - 2);
  V t[kFaces];
#pragma GCC unroll 4
  for (uint32_t j = 0; j < kFaces; ++j)
    t[j] = v_add(v_add(v_mul(origin[j], w0), v_mul(middle[j], w1)), v_mul(diagonal[j], w2));
  const V one = v_splat(1.0f, w0);
#pragma GCC unroll 2
  for (uint32_t a = 0; a + 2 < kIn; ++a) {
    const uint32_t count = kFaces >> (a + 1);
    const V keep = v_sub(one, f_rest[a]);
#pragma GCC unroll 2
    for (uint32_t k = 0; k < count; ++k) t[k] = v_add(v_mul(t[k], keep), v_mul(t[k + count], f_rest[a]));
  }
  return t[0];
}

// The simplex walk. Each axis's fraction travels through the sorting network
// together with the offset of one step along that axis, so that the walk's
// corners come out of the same comparisons as its weights. Only adjacent
// pairs are compared and only a strictly larger fraction moves forward: the
// network is stable. It is loaded last input first, so equal fractions walk
// the later input first, as prism takes its second triangle when fa = fb;
// the corner between them weighs 0, but a NaN there would still show.
//
// The baseline selects by masks rather than branches: the order of a pixel's
// fractions is as good as random, so a branch would mispredict half the time
// (and the compiler turns float selects into branches).
inline void order_pair(float &fa, uint32_t &oa, float &fb, uint32_t &ob) {
  const uint32_t swap = 0u - static_cast<uint32_t>(fb > fa);
  const uint32_t a = __builtin_bit_cast(uint32_t, fa), b = __builtin_bit_cast(uint32_t, fb);
  const uint32_t hi = (b & swap) | (a & ~swap);
  const uint32_t o_hi = (ob & swap) | (oa & ~swap);
  fa = __builtin_bit_cast(float, hi);
  fb = __builtin_bit_cast(float, a ^ b ^ hi);
  ob = oa ^ ob ^ o_hi;
  oa = o_hi;
}

#if defined(__AVX2__)
inline void order_pair(__m256 &fa, __m256i &oa, __m256 &fb, __m256i &ob) {
  const __m256 swap = _mm256_cmp_ps(fb, fa, _CMP_GT_OQ);
  const __m256i swap_i = _mm256_castps_si256(swap);
  const __m256 f_hi = _mm256_blendv_ps(fa, fb, swap);
  const __m256 f_lo = _mm256_blendv_ps(fb, fa, swap);
  const __m256i o_hi = _mm256_blendv_epi8(oa, ob, swap_i);
  const __m256i o_lo = _mm256_blendv_epi8(ob, oa, swap_i);
  fa = f_hi;
  fb = f_lo;
  oa = o_hi;
  ob = o_lo;
}
#endif

// Odd-even transposition: kIn rounds of adjacent pairs sort kIn values.
// Spelled out so that the values stay in registers.
template <uint32_t kIn, typename V, typename O>
inline void sort_decreasing(V *f, O *step) {
  static_assert(kIn == 3 || kIn == 4);
  if constexpr (kIn == 3) {
    order_pair(f[0], step[0], f[1], step[1]);
    order_pair(f[1], step[1], f[2], step[2]);
    order_pair(f[0], step[0], f[1], step[1]);
  } else {
    order_pair(f[0], step[0], f[1], step[1]);
    order_pair(f[2], step[2], f[3], step[3]);
    order_pair(f[1], step[1], f[2], step[2]);
    order_pair(f[0], step[0], f[1], step[1]);
    order_pair(f[2], step[2], f[3], step[3]);
    order_pair(f[1], step[1], f[2], step[2]);
  }
}

// Weights of the kIn + 1 corners of the walk, from the sorted fractions.
template <uint32_t kIn, typename V>
inline void simplex_weights(const V *sorted, V *w) {
  w[0] = v_sub(v_splat(1.0f, sorted[0]), sorted[0]);
#pragma GCC unroll 4
  for (uint32_t k = 1; k < kIn; ++k) w[k] = v_sub(sorted[k - 1], sorted[k]);
  w[kIn] = sorted[kIn - 1];
}

// The weighted sum over the walk's corners, origin first.
template <uint32_t kIn, typename V>
inline V blend_simplex(const V *c, const V *w) {
  V sum = v_mul(c[0], w[0]);
#pragma GCC unroll 4
  for (uint32_t k = 1; k <= kIn; ++k) sum = v_add(sum, v_mul(c[k], w[k]));
  return sum;
}

// Round half up to 16 bits; the clamp only matters for grids that stray off
// the 0 ... 65535 scale.
inline uint16_t round16(float x) {
  float r = x + 0.5f;
  r = r > 0.0f ? r : 0.0f;
  r = r < 65535.0f ? r : 65535.0f;
  return static_cast<uint16_t>(static_cast<int32_t>(r));
}

// ---------------------------------------------------------------------------
// One pixel.

// The cell index and fraction of one input. 65535 is reached from the last
// cell with fraction 1, never as the base of a cell beyond the grid.
struct Axis {
  uint32_t index;
  float fraction;
};

inline Axis locate(const ZT_InterpGrid &g, uint32_t v) {
  if (v == 65535u) return {g.points - 2, 1.0f};
  const float p = static_cast<float>(static_cast<int32_t>(v)) * g.scale;
  const int32_t index = static_cast<int32_t>(p);
  return {static_cast<uint32_t>(index), p - static_cast<float>(index)};
}

// Interpolates the inputs in[0 ... kIn - 1] (16-bit values) and writes output
// o to out[o * out_step]. kOut 0 takes the count from the grid.
template <uint32_t kIn, int32_t kScheme, uint32_t kOut>
inline void pixel(const ZT_InterpGrid &g, const uint32_t *in, uint16_t *out, size_t out_step) {
  constexpr uint32_t kCorners = 1u << kIn;
  const uint32_t m = kOut != 0 ? kOut : g.outputs;
  float f[kIn];
  uint32_t base = 0;
  for (uint32_t a = 0; a < kIn; ++a) {
    const Axis axis = locate(g, in[a]);
    f[a] = axis.fraction;
    base += axis.index * g.strides[a];
  }
  const float *cell = g.values + static_cast<size_t>(base) * m;
  if constexpr (kScheme == ZT_INTERP_TRILINEAR) {
    for (uint32_t o = 0; o < m; ++o) {
      float c[kCorners];
#pragma GCC unroll 16
      for (uint32_t k = 0; k < kCorners; ++k) c[k] = cell[g.corners[k] + o];
      out[o * out_step] = round16(blend_trilinear<kIn>(c, f));
    }
  } else if constexpr (kScheme == ZT_INTERP_TETRAHEDRAL) {
    float sorted[kIn];
    uint32_t step[kIn];
    for (uint32_t k = 0; k < kIn; ++k) {
      sorted[k] = f[kIn - 1 - k];
      step[k] = g.corners[1u << k];
    }
    sort_decreasing<kIn>(sorted, step);
    float w[kIn + 1];
    simplex_weights<kIn>(sorted, w);
    uint32_t vertex[kIn + 1];
    vertex[0] = 0;
    for (uint32_t k = 0; k < kIn; ++k) vertex[k + 1] = vertex[k] + step[k];
    for (uint32_t o = 0; o < m; ++o) {
      float c[kIn + 1];
#pragma GCC unroll 5
      for (uint32_t k = 0; k <= kIn; ++k) c[k] = cell[vertex[k] + o];
      out[o * out_step] = round16(blend_simplex<kIn>(c, w));
    }
  } else {
    constexpr uint32_t kFaces = 1u << (kIn - 2);
    const bool first = f[0] > f[1];
    const float w0 = 1.0f - (first ? f[0] : f[1]);
    const float w1 = first ? f[0] - f[1] : f[1] - f[0];
    const float w2 = first ? f[1] : f[0];
    const uint32_t middle = first ? 2 * kFaces : kFaces;
    for (uint32_t o = 0; o < m; ++o) {
      float origin[kFaces], mid[kFaces], diagonal[kFaces];
      for (uint32_t j = 0; j < kFaces; ++j) {
        origin[j] = cell[g.corners[j] + o];
        mid[j] = cell[g.corners[middle + j] + o];
        diagonal[j] = cell[g.corners[3 * kFaces + j] + o];
      }
      out[o * out_step] = round16(blend_prism<kIn>(origin, mid, diagonal, w0, w1, w2, f + 2));
    }
  }
}

// ---------------------------------------------------------------------------
// Eight pixels: lanes i ... i + 7 of the staged inputs and outputs.

#if defined(__AVX2__)

inline void store16(uint16_t *out, __m256 x) {
  __m256 r = _mm256_add_ps(x, _mm256_set1_ps(0.5f));
  r = _mm256_max_ps(r, _mm256_setzero_ps());
  r = _mm256_min_ps(r, _mm256_set1_ps(65535.0f));
  const __m256i q = _mm256_cvttps_epi32(r);
  const __m128i packed = _mm_packus_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out), packed);
}

// round16 on every lane: the same comparisons, so the same values.
inline __m256i round_lanes(__m256 x) {
  __m256 r = _mm256_add_ps(x, _mm256_set1_ps(0.5f));
  r = _mm256_max_ps(r, _mm256_setzero_ps());
  r = _mm256_min_ps(r, _mm256_set1_ps(65535.0f));
  return _mm256_cvttps_epi32(r);
}

// Four outputs of eight pixels, pixel-major: q[p] holds pixel p's outputs in
// its low half and pixel p + 4's in its high half. Transposed and stored as
// out[o][i ... i + 7].
inline void store_outputs4(uint16_t (*out)[kChunk], uint32_t i, const __m256i *q) {
  const __m256i t0 = _mm256_unpacklo_epi32(q[0], q[1]), t1 = _mm256_unpackhi_epi32(q[0], q[1]);
  const __m256i t2 = _mm256_unpacklo_epi32(q[2], q[3]), t3 = _mm256_unpackhi_epi32(q[2], q[3]);
  // Each u holds one output of pixels 0-3 (low half) and 4-7 (high half).
  const __m256i u0 = _mm256_unpacklo_epi64(t0, t2), u1 = _mm256_unpackhi_epi64(t0, t2);
  const __m256i u2 = _mm256_unpacklo_epi64(t1, t3), u3 = _mm256_unpackhi_epi64(t1, t3);
  const __m256i o01 = _mm256_permute4x64_epi64(_mm256_packus_epi32(u0, u1), 0xD8);
  const __m256i o23 = _mm256_permute4x64_epi64(_mm256_packus_epi32(u2, u3), 0xD8);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out[0] + i), _mm256_castsi256_si128(o01));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out[1] + i), _mm256_extracti128_si256(o01, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out[2] + i), _mm256_castsi256_si128(o23));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out[3] + i), _mm256_extracti128_si256(o23, 1));
}

// The four outputs at a grid point of pixel p (low half) and of pixel p + 4
// (high half): contiguous in the grid, so one load each instead of a gather.
inline __m256 corner_pair(const float *low, const float *high) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(low)), _mm_loadu_ps(high), 1);
}

// Lane p of `v` in the low half, lane p + 4 in the high half.
inline __m256 pair_lanes(__m256 v, uint32_t p) {
  const auto a = static_cast<int32_t>(p), b = static_cast<int32_t>(p + 4);
  return _mm256_permutevar8x32_ps(v, _mm256_setr_epi32(a, a, a, a, b, b, b, b));
}

// The prism's split of the first two fractions, eight pixels at once: which
// triangle each takes (f0 > f1) and the weights of its origin, middle and
// diagonal corners, as the scalar form computes them.
struct PrismSplit {
  __m256 first, w0, w1, w2;
};
inline PrismSplit prism_split(__m256 f0, __m256 f1, __m256 one) {
  const __m256 first = _mm256_cmp_ps(f0, f1, _CMP_GT_OQ);
  return {first, _mm256_sub_ps(one, _mm256_blendv_ps(f1, f0, first)),
          _mm256_blendv_ps(_mm256_sub_ps(f1, f0), _mm256_sub_ps(f0, f1), first), _mm256_blendv_ps(f0, f1, first)};
}

template <uint32_t kIn, int32_t kScheme, uint32_t kOut>
inline void lanes8(const ZT_InterpGrid &g, const uint32_t (*in)[kChunk], uint16_t (*out)[kChunk],
                   uint32_t i) {
  constexpr uint32_t kCorners = 1u << kIn;
  const uint32_t m = kOut != 0 ? kOut : g.outputs;
  const __m256i last_cell = _mm256_set1_epi32(static_cast<int32_t>(g.points - 2));
  const __m256i top_input = _mm256_set1_epi32(65535);
  const __m256 scale = _mm256_set1_ps(g.scale);
  const __m256 one = _mm256_set1_ps(1.0f);
  __m256 f[kIn];
  __m256i base = _mm256_setzero_si256();
#pragma GCC unroll 4
  for (uint32_t a = 0; a < kIn; ++a) {
    const __m256i v = _mm256_load_si256(reinterpret_cast<const __m256i *>(in[a] + i));
    const __m256 p = _mm256_mul_ps(_mm256_cvtepi32_ps(v), scale);
    __m256i index = _mm256_cvttps_epi32(p);
    __m256 fraction = _mm256_sub_ps(p, _mm256_cvtepi32_ps(index));
    const __m256i top = _mm256_cmpeq_epi32(v, top_input);
    index = _mm256_blendv_epi8(index, last_cell, top);
    f[a] = _mm256_blendv_ps(fraction, one, _mm256_castsi256_ps(top));
    base = _mm256_add_epi32(base,
                            _mm256_mullo_epi32(index, _mm256_set1_epi32(static_cast<int32_t>(g.strides[a]))));
  }
  base = _mm256_mullo_epi32(base, _mm256_set1_epi32(static_cast<int32_t>(m)));
  if constexpr (kOut == 4 && kScheme != ZT_INTERP_TETRAHEDRAL) {
    // Four outputs sit together at every grid point: two pixels a register,
    // each corner one load of its four outputs, the lanes' arithmetic as in
    // the baseline (same operations, same order, per output).
    alignas(32) int32_t at[kLanes];
    _mm256_store_si256(reinterpret_cast<__m256i *>(at), base);
    __m256i q[4];
    if constexpr (kScheme == ZT_INTERP_TRILINEAR) {
      for (uint32_t p = 0; p < 4; ++p) {
        const float *low = g.values + at[p], *high = g.values + at[p + 4];
        __m256 fp[kIn], c[kCorners];
#pragma GCC unroll 4
        for (uint32_t a = 0; a < kIn; ++a) fp[a] = pair_lanes(f[a], p);
#pragma GCC unroll 16
        for (uint32_t k = 0; k < kCorners; ++k) c[k] = corner_pair(low + g.corners[k], high + g.corners[k]);
        q[p] = round_lanes(blend_trilinear<kIn>(c, fp));
      }
    } else {
      constexpr uint32_t kFaces = 1u << (kIn - 2);
      const PrismSplit split = prism_split(f[0], f[1], one);
      const __m256 first = split.first, w0 = split.w0, w1 = split.w1, w2 = split.w2;
      const auto first_bits = static_cast<uint32_t>(_mm256_movemask_ps(first));
      for (uint32_t p = 0; p < 4; ++p) {
        const float *low = g.values + at[p], *high = g.values + at[p + 4];
        const uint32_t mid_low = (first_bits >> p) & 1u ? 2 * kFaces : kFaces;
        const uint32_t mid_high = (first_bits >> (p + 4)) & 1u ? 2 * kFaces : kFaces;
        __m256 origin[kFaces], mid[kFaces], diagonal[kFaces], rest[kIn - 2];
#pragma GCC unroll 4
        for (uint32_t j = 0; j < kFaces; ++j) {
          origin[j] = corner_pair(low + g.corners[j], high + g.corners[j]);
          mid[j] = corner_pair(low + g.corners[mid_low + j], high + g.corners[mid_high + j]);
          diagonal[j] = corner_pair(low + g.corners[3 * kFaces + j], high + g.corners[3 * kFaces + j]);
        }
#pragma GCC unroll 2
        for (uint32_t a = 0; a + 2 < kIn; ++a) rest[a] = pair_lanes(f[a + 2], p);
        q[p] = round_lanes(blend_prism<kIn>(origin, mid, diagonal, pair_lanes(w0, p), pair_lanes(w1, p),
                                            pair_lanes(w2, p), rest));
      }
    }
    store_outputs4(out, i, q);
  } else if constexpr (kScheme == ZT_INTERP_TRILINEAR) {
    __m256i corner[kCorners];
#pragma GCC unroll 16
    for (uint32_t k = 0; k < kCorners; ++k)
      corner[k] = _mm256_add_epi32(base, _mm256_set1_epi32(static_cast<int32_t>(g.corners[k])));
    for (uint32_t o = 0; o < m; ++o) {
      const float *plane = g.values + o;
      __m256 c[kCorners];
#pragma GCC unroll 16
      for (uint32_t k = 0; k < kCorners; ++k) c[k] = _mm256_i32gather_ps(plane, corner[k], 4);
      store16(out[o] + i, blend_trilinear<kIn>(c, f));
    }
  } else if constexpr (kScheme == ZT_INTERP_TETRAHEDRAL) {
    __m256 sorted[kIn];
    __m256i step[kIn];
#pragma GCC unroll 4
    for (uint32_t k = 0; k < kIn; ++k) {
      sorted[k] = f[kIn - 1 - k];
      step[k] = _mm256_set1_epi32(static_cast<int32_t>(g.corners[1u << k]));
    }
    sort_decreasing<kIn>(sorted, step);
    __m256 w[kIn + 1];
    simplex_weights<kIn>(sorted, w);
    __m256i vertex[kIn + 1];
    vertex[0] = base;
#pragma GCC unroll 4
    for (uint32_t k = 0; k < kIn; ++k) vertex[k + 1] = _mm256_add_epi32(vertex[k], step[k]);
    for (uint32_t o = 0; o < m; ++o) {
      const float *plane = g.values + o;
      __m256 c[kIn + 1];
#pragma GCC unroll 5
      for (uint32_t k = 0; k <= kIn; ++k) c[k] = _mm256_i32gather_ps(plane, vertex[k], 4);
      store16(out[o] + i, blend_simplex<kIn>(c, w));
    }
  } else {
    constexpr uint32_t kFaces = 1u << (kIn - 2);
    const PrismSplit split = prism_split(f[0], f[1], one);
    const __m256 first = split.first, w0 = split.w0, w1 = split.w1, w2 = split.w2;
    const __m256i first_mask = _mm256_castps_si256(first);
    __m256i origin_at[kFaces], mid_at[kFaces], diagonal_at[kFaces];
#pragma GCC unroll 4
    for (uint32_t j = 0; j < kFaces; ++j) {
      origin_at[j] = _mm256_add_epi32(base, _mm256_set1_epi32(static_cast<int32_t>(g.corners[j])));
      const __m256i b_corner = _mm256_set1_epi32(static_cast<int32_t>(g.corners[kFaces + j]));
      const __m256i a_corner = _mm256_set1_epi32(static_cast<int32_t>(g.corners[2 * kFaces + j]));
      mid_at[j] = _mm256_add_epi32(base, _mm256_blendv_epi8(b_corner, a_corner, first_mask));
      diagonal_at[j] =
          _mm256_add_epi32(base, _mm256_set1_epi32(static_cast<int32_t>(g.corners[3 * kFaces + j])));
    }
    for (uint32_t o = 0; o < m; ++o) {
      const float *plane = g.values + o;
      __m256 origin[kFaces], mid[kFaces], diagonal[kFaces];
#pragma GCC unroll 4
      for (uint32_t j = 0; j < kFaces; ++j) {
        origin[j] = _mm256_i32gather_ps(plane, origin_at[j], 4);
        mid[j] = _mm256_i32gather_ps(plane, mid_at[j], 4);
        diagonal[j] = _mm256_i32gather_ps(plane, diagonal_at[j], 4);
      }
      store16(out[o] + i, blend_prism<kIn>(origin, mid, diagonal, w0, w1, w2, f + 2));
    }
  }
}

#endif

// Interpolates `count` staged pixels: in[a][i] is input a of pixel i,
// out[o][i] receives output o.
template <uint32_t kIn, int32_t kScheme, uint32_t kOut>
inline void interpolate_chunk(const ZT_InterpGrid &g, uint32_t (*in)[kChunk], uint16_t (*out)[kChunk],
                              uint32_t count) {
#if defined(__AVX2__)
  // The lanes past the end compute grid point 0 and are never unpacked.
  const uint32_t padded = (count + kLanes - 1) & ~(kLanes - 1);
  for (uint32_t a = 0; a < kIn; ++a)
    for (uint32_t i = count; i < padded; ++i) in[a][i] = 0;
  for (uint32_t i = 0; i < padded; i += kLanes) lanes8<kIn, kScheme, kOut>(g, in, out, i);
#else
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t v[kIn];
    for (uint32_t a = 0; a < kIn; ++a) v[a] = in[a][i];
    pixel<kIn, kScheme, kOut>(g, v, &out[0][i], kChunk);
  }
#endif
}

// ---------------------------------------------------------------------------
// Lines of 8- or 16-bit samples.

inline uint32_t widen(uint16_t v) { return v; }
inline uint32_t widen(uint8_t v) { return static_cast<uint32_t>(v) * 257u; }

template <typename T>
inline T narrow(uint32_t v);
template <>
inline uint16_t narrow<uint16_t>(uint32_t v) {
  return static_cast<uint16_t>(v);
}
// floor(v * 255 / 65535 + 0.5): q / 65535 for q below 2^24 without a divide.
template <>
inline uint8_t narrow<uint8_t>(uint32_t v) {
  const uint32_t q = v * 255u + 32767u;
  return static_cast<uint8_t>((q + (q >> 16) + 1u) >> 16);
}

template <uint32_t kIn, int32_t kScheme, uint32_t kOut, typename T>
void convert_line_typed(const InterpLine &line) {
  const ZT_InterpGrid &g = *line.grid;
  const uint32_t m = kOut != 0 ? kOut : g.outputs;
  const T *source = static_cast<const T *>(line.source);
  T *destination = static_cast<T *>(line.destination);
  alignas(32) uint32_t in[kIn][kChunk];
  alignas(32) uint16_t out[kOut != 0 ? kOut : ZT_INTERP_MAX_OUTPUTS][kChunk];
  for (uint32_t x = 0; x < line.pixels; x += kChunk) {
    const uint32_t count = line.pixels - x < kChunk ? line.pixels - x : kChunk;
    if (line.interleave != 0) {
      for (uint32_t a = 0; a < kIn; ++a) {
        const T *row = source + static_cast<size_t>(a) * line.source_plane + x;
        for (uint32_t i = 0; i < count; ++i) in[a][i] = widen(row[i]);
      }
    } else {
      const T *pixels = source + static_cast<size_t>(x) * kIn;
      for (uint32_t i = 0; i < count; ++i) {
#pragma GCC unroll 4
        for (uint32_t a = 0; a < kIn; ++a) in[a][i] = widen(pixels[i * kIn + a]);
      }
    }
    interpolate_chunk<kIn, kScheme, kOut>(g, in, out, count);
    if (line.interleave != 0) {
      for (uint32_t o = 0; o < m; ++o) {
        T *row = destination + static_cast<size_t>(o) * line.destination_plane + x;
        for (uint32_t i = 0; i < count; ++i) row[i] = narrow<T>(out[o][i]);
      }
    } else {
      T *pixels = destination + static_cast<size_t>(x) * m;
      for (uint32_t i = 0; i < count; ++i) {
#pragma GCC unroll 4
        for (uint32_t o = 0; o < m; ++o) pixels[static_cast<size_t>(i) * m + o] = narrow<T>(out[o][i]);
      }
    }
  }
}

template <uint32_t kIn, int32_t kScheme, uint32_t kOut>
void convert_line_depth(const InterpLine &line) {
  if (line.sample_bytes == 1)
    convert_line_typed<kIn, kScheme, kOut, uint8_t>(line);
  else
    convert_line_typed<kIn, kScheme, kOut, uint16_t>(line);
}

template <uint32_t kIn, int32_t kScheme>
void convert_line_outputs(const InterpLine &line) {
  switch (line.grid->outputs) {
    case 3:
      convert_line_depth<kIn, kScheme, 3>(line);
      break;
    case 4:
      convert_line_depth<kIn, kScheme, 4>(line);
      break;
    default:
      convert_line_depth<kIn, kScheme, 0>(line);
      break;
  }
}

template <uint32_t kIn>
void convert_line_scheme(const InterpLine &line) {
  switch (line.scheme) {
    case ZT_INTERP_PRISM:
      convert_line_outputs<kIn, ZT_INTERP_PRISM>(line);
      break;
    case ZT_INTERP_TETRAHEDRAL:
      convert_line_outputs<kIn, ZT_INTERP_TETRAHEDRAL>(line);
      break;
    default:
      convert_line_outputs<kIn, ZT_INTERP_TRILINEAR>(line);
      break;
  }
}

// The entry the dispatch table points at: one switch per line on the table's
// shape, scheme and sample size, then loops specialised for it.
void convert_line(const InterpLine &line) {
  if (line.grid->inputs == 4)
    convert_line_scheme<4>(line);
  else
    convert_line_scheme<3>(line);
}

}  // namespace zt::colour::ZT_KERNEL_NS
