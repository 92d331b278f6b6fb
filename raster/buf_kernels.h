// The per-sample depth converters and the 16-to-8 noise-dither kernel, one
// body for every dispatch level. buf.cpp includes it with ZT_KERNEL_NS
// baseline, buf_avx2.cpp with avx2; the vector blocks compile only in the
// latter and give the same bits as the scalar loops they stand for.
#ifndef ZT_KERNEL_NS
#error "define ZT_KERNEL_NS before including buf_kernels.h"
#endif

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace zt::raster::ZT_KERNEL_NS {

// `npix` pixels of a 1-bit row from its first bit; a row may end mid-byte.
void copy1to8(uint8_t *dst, const uint8_t *src, size_t npix) {
  size_t i = 0;
#if defined(__AVX2__)
  // Each of 32 lanes picks its source byte and tests its own bit.
  const __m256i shuffle = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2,
                                           2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
  const __m256i bits = _mm256_set1_epi64x(static_cast<int64_t>(0x0102040810204080ull));
  for (; i + 32 <= npix; i += 32) {
    uint32_t word;
    __builtin_memcpy(&word, src + i / 8, 4);
    const __m256i bytes = _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int32_t>(word)), shuffle);
    const __m256i hit = _mm256_cmpeq_epi8(_mm256_and_si256(bytes, bits), bits);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), hit);
  }
#endif
  for (; i + 8 <= npix; i += 8) {
    const uint32_t b = src[i / 8];
    dst[i + 0] = static_cast<uint8_t>(0u - ((b >> 7) & 1u));
    dst[i + 1] = static_cast<uint8_t>(0u - ((b >> 6) & 1u));
    dst[i + 2] = static_cast<uint8_t>(0u - ((b >> 5) & 1u));
    dst[i + 3] = static_cast<uint8_t>(0u - ((b >> 4) & 1u));
    dst[i + 4] = static_cast<uint8_t>(0u - ((b >> 3) & 1u));
    dst[i + 5] = static_cast<uint8_t>(0u - ((b >> 2) & 1u));
    dst[i + 6] = static_cast<uint8_t>(0u - ((b >> 1) & 1u));
    dst[i + 7] = static_cast<uint8_t>(0u - (b & 1u));
  }
  for (; i < npix; ++i) dst[i] = static_cast<uint8_t>(0u - ((src[i / 8] >> (7 - i % 8)) & 1u));
}

void copy1to16(uint16_t *dst, const uint8_t *src, size_t npix) {
  size_t i = 0;
#if defined(__AVX2__)
  // Sixteen pixels: each byte lane tests its bit, then widens 0xFF to 0xFFFF.
  const __m128i shuffle = _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
  const __m128i bits = _mm_set1_epi64x(static_cast<int64_t>(0x0102040810204080ull));
  for (; i + 16 <= npix; i += 16) {
    uint16_t pair;
    __builtin_memcpy(&pair, src + i / 8, 2);
    const __m128i bytes = _mm_shuffle_epi8(_mm_set1_epi16(static_cast<int16_t>(pair)), shuffle);
    const __m128i hit = _mm_cmpeq_epi8(_mm_and_si128(bytes, bits), bits);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), _mm256_cvtepi8_epi16(hit));
  }
#endif
  for (; i + 8 <= npix; i += 8) {
    const uint32_t b = src[i / 8];
    for (uint32_t k = 0; k < 8; ++k) dst[i + k] = static_cast<uint16_t>(0u - ((b >> (7 - k)) & 1u));
  }
  for (; i < npix; ++i) dst[i] = static_cast<uint16_t>(0u - ((src[i / 8] >> (7 - i % 8)) & 1u));
}

void copy8to16(uint16_t *dst, const uint8_t *src, size_t n) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m256i k257 = _mm256_set1_epi16(257);
  for (; i + 32 <= n; i += 32) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 16));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i),
                        _mm256_mullo_epi16(_mm256_cvtepu8_epi16(a), k257));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 16),
                        _mm256_mullo_epi16(_mm256_cvtepu8_epi16(b), k257));
  }
#endif
  for (; i + 8 <= n; i += 8) {
    for (size_t k = 0; k < 8; ++k) dst[i + k] = static_cast<uint16_t>(src[i + k] * 257u);
  }
  for (; i < n; ++i) dst[i] = static_cast<uint16_t>(src[i] * 257u);
}

// The vector form computes the table's rule, round(v / 257), as
// floor((v + 128) / 257) (257 is odd, so no tie exists): v + 128 saturated at
// 65535 (every v that saturates gives 255 either way), then the high half of
// x * 65281 shifted by 8, which is x / 257 for every x below 2^17.
void copy16to8(uint8_t *dst, const uint16_t *src, size_t n, const uint8_t *table) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m256i half = _mm256_set1_epi16(128);
  const __m256i k65281 = _mm256_set1_epi16(static_cast<int16_t>(65281));
  const auto bytes = [&](size_t at) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + at));
    return _mm256_srli_epi16(_mm256_mulhi_epu16(_mm256_adds_epu16(v, half), k65281), 8);
  };
  // 64 samples an iteration: short rows spend less of their time on the
  // loop itself.
  for (; i + 64 <= n; i += 64) {
    const __m256i a = _mm256_packus_epi16(bytes(i), bytes(i + 16));
    const __m256i b = _mm256_packus_epi16(bytes(i + 32), bytes(i + 48));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), _mm256_permute4x64_epi64(a, 0xD8));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 32), _mm256_permute4x64_epi64(b, 0xD8));
  }
  for (; i + 32 <= n; i += 32) {
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(bytes(i), bytes(i + 16)), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), packed);
  }
#endif
  for (; i + 8 <= n; i += 8) {
    dst[i + 0] = table[src[i + 0]];
    dst[i + 1] = table[src[i + 1]];
    dst[i + 2] = table[src[i + 2]];
    dst[i + 3] = table[src[i + 3]];
    dst[i + 4] = table[src[i + 4]];
    dst[i + 5] = table[src[i + 5]];
    dst[i + 6] = table[src[i + 6]];
    dst[i + 7] = table[src[i + 7]];
  }
  for (; i < n; ++i) dst[i] = table[src[i]];
}

// One sample of noise dithering with integer noise: `narrow` is kind 3 (the
// sum may drop below 1), else kind 2 (noise never negative).
inline uint8_t dither_int_sample(uint32_t s, int32_t noise, bool narrow) {
  const int32_t v = static_cast<int32_t>(s) + noise;
  if (narrow && v < 1) return 0;
  if (v < 65535) return static_cast<uint8_t>(v / 257);
  return 255;
}

inline uint8_t dither_real_sample(uint32_t s, float noise) {
  const float v = static_cast<float>(s) / 257.0f + noise;
  if (v <= 0.0f) return 0;
  if (v >= 255.0f) return 255;
  return static_cast<uint8_t>(v);
}

// One sample of either table: 0 and 65535 map to 0 and 255 and take no
// noise; any other sample takes the entry at the cursor, which then moves on
// (wrapping at the table's end).
template <typename T, typename Sample>
inline uint8_t dither_step(uint32_t s, const T *&cursor, const T *start, const T *end, Sample sample) {
  if (s == 0 || s == 65535) return static_cast<uint8_t>(s & 255u);
  const uint8_t v = sample(s, *cursor);
  if (++cursor == end) cursor = start;
  return v;
}

#if defined(__AVX2__)
// For each mask of the samples that take noise, the index of the noise entry
// each lane uses: the count of taking lanes before it.
// The rank of lane i among the taking lanes of mask m: how many take before it.
constexpr int taking_rank(int m, int i) { return std::popcount(static_cast<unsigned>(m) & ((1u << i) - 1u)); }

struct ExpandIndex {
  int32_t lane[256][8];
};
constexpr ExpandIndex make_expand_index() {
  ExpandIndex t{};
  for (int m = 0; m < 256; ++m)
    for (int i = 0; i < 8; ++i) t.lane[m][i] = taking_rank(m, i);
  return t;
}
constexpr ExpandIndex kExpandIndex = make_expand_index();

// Eight samples as eight 32-bit lanes, the mask of lanes that take noise, and
// the noise for them: `raw` holds the next 8 entries of the table as 32-bit
// lanes, and each taking lane gets the entry of its rank among them.
inline __m256i dither_lanes(const uint16_t *in, __m256i raw, uint32_t *taken, __m256i *noise) {
  const __m256i s = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in)));
  const __m256i zero = _mm256_cmpeq_epi32(s, _mm256_setzero_si256());
  const __m256i full = _mm256_cmpeq_epi32(s, _mm256_set1_epi32(65535));
  const uint32_t skip =
      static_cast<uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(zero, full))));
  const uint32_t mask = ~skip & 0xFFu;
  *noise = mask == 0xFFu
               ? raw
               : _mm256_permutevar8x32_epi32(
                     raw, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(kExpandIndex.lane[mask])));
  *taken = static_cast<uint32_t>(__builtin_popcount(mask));
  return s;
}

inline void store8(uint8_t *out, __m256i q) {
  const __m256i pack = _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8,
                                        12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m256i b = _mm256_shuffle_epi8(q, pack);
  const uint32_t words[2] = {static_cast<uint32_t>(_mm256_extract_epi32(b, 0)),
                             static_cast<uint32_t>(_mm256_extract_epi32(b, 4))};
  __builtin_memcpy(out, words, 8);
}

// Stores eight results whose lanes at the ends (samples 0 and 65535) keep
// their own value, 0 or 255, whatever the noise made of them.
inline void store8_keeping_ends(uint8_t *out, __m256i s, __m256i q) {
  const __m256i ends = _mm256_or_si256(_mm256_cmpeq_epi32(s, _mm256_setzero_si256()),
                                       _mm256_cmpeq_epi32(s, _mm256_set1_epi32(65535)));
  store8(out, _mm256_blendv_epi8(q, _mm256_and_si256(s, _mm256_set1_epi32(255)), ends));
}

// Sixteen results of 0..255 in two vectors of 32-bit lanes, stored in order.
inline void store16x(uint8_t *out, __m256i q0, __m256i q1) {
  const __m256i w = _mm256_permute4x64_epi64(_mm256_packus_epi32(q0, q1), 0xD8);
  const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(w, w), 0x08);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm256_castsi256_si128(b));
}

// True when none of the 16-bit samples of `a` and `b` is an end (0 or
// 65535), so all take noise.
inline bool no_ends(__m256i a, __m256i b) {
  const __m256i ones = _mm256_set1_epi32(-1), zero = _mm256_setzero_si256();
  const __m256i ends = _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi16(a, zero), _mm256_cmpeq_epi16(a, ones)),
                                       _mm256_or_si256(_mm256_cmpeq_epi16(b, zero), _mm256_cmpeq_epi16(b, ones)));
  return _mm256_testz_si256(ends, ends) != 0;
}
inline bool no_ends16(__m256i raw) { return no_ends(raw, raw); }

// s / 257.0f for every integer s of 0 ... 65535, without a division: the
// product with the rounded reciprocal, corrected once by its exact residual.
// Checked against the division for all 65,536 samples (the tests do too).
inline __m256 div257_ps(__m256 s) {
  const __m256 reciprocal = _mm256_set1_ps(1.0f / 257.0f), k257 = _mm256_set1_ps(257.0f);
  const __m256 q = _mm256_mul_ps(s, reciprocal);
  return _mm256_fmadd_ps(_mm256_fnmadd_ps(q, k257, s), reciprocal, q);
}
#endif

#if defined(__AVX2__)
// How a 16-bit noise entry reads: wide noise is never negative, so a plain
// saturating add clamps the sum; narrow and real noise can be, and take the
// biased signed add.
enum class Noise { kWide, kNarrow, kReal };

// What the real kind carries besides its 16-bit entries: the floats they
// stand for and one bit an entry (LSB first, padded like the entries) set
// where the integer rule may not give the float rule's byte.
struct RealNoise {
  const float *floats;
  const uint8_t *flags;
};

// The flags of entries index ... index + 31 as bits 0 ... 31.
inline uint32_t real_flags32(const uint8_t *flags, size_t index) {
  uint64_t word;
  __builtin_memcpy(&word, flags + index / 8, 8);
  return static_cast<uint32_t>(word >> (index % 8));
}

// For each mask of the lanes (of eight) that take noise, the pshufb control
// that hands each taking lane the 16-bit entry of its rank among them; lanes
// that take none get a neighbour's entry, which the caller overrides.
struct Expand16 {
  uint8_t lane[256][16];
};
constexpr Expand16 make_expand16() {
  Expand16 t{};
  for (int m = 0; m < 256; ++m)
    for (int i = 0; i < 8; ++i) {
      const int r = taking_rank(m, i);
      t.lane[m][2 * i] = static_cast<uint8_t>(2 * r);
      t.lane[m][2 * i + 1] = static_cast<uint8_t>(2 * r + 1);
    }
  return t;
}
constexpr Expand16 kExpand16 = make_expand16();

// The constants of the noise walk, set once outside its loop.
struct NoiseConstants {
  __m256i bias = _mm256_set1_epi16(static_cast<int16_t>(0x8000));
  __m256i k65281 = _mm256_set1_epi16(static_cast<int16_t>(65281));
};

// Sixteen samples and their 16-bit noise entries: clamp(s + n, 0, 65535) / 257
// (both integer kinds reduce to that: a sum below 1 gives 0 and one at or past
// 65535 gives 255). The quotient is the high half of v * 65281 shifted by 8,
// exact below 2^17; `sum` receives v for the real kind's check.
template <Noise K>
inline __m256i noise_quotients(const NoiseConstants &c, __m256i s, __m256i entry, __m256i *sum) {
  __m256i v;
  if constexpr (K == Noise::kWide) {
    v = _mm256_adds_epu16(s, entry);
  } else {
    v = _mm256_xor_si256(_mm256_adds_epi16(_mm256_xor_si256(s, c.bias), entry), c.bias);
  }
  *sum = v;
  return _mm256_srli_epi16(_mm256_mulhi_epu16(v, c.k65281), 8);
}

// Real noise n runs through the integer rule with floor(257 n); that gives the
// float sum's byte except, for a flagged entry, where s + floor(257 n) lands on
// a multiple of 257 or one short of it. True when one of the sixteen lanes
// selected by `lanes` (a 16-bit mask) is such a case.
inline bool real_on_edge(__m256i v, __m256i q, __m256i lanes) {
  const __m256i r = _mm256_sub_epi16(v, _mm256_mullo_epi16(q, _mm256_set1_epi16(257)));
  const __m256i edge = _mm256_or_si256(_mm256_cmpeq_epi16(r, _mm256_setzero_si256()),
                                       _mm256_cmpeq_epi16(r, _mm256_set1_epi16(256)));
  return !_mm256_testz_si256(edge, lanes);
}

// The 16 flag bits `bits` as lane masks, bit k for lane k.
inline __m256i flag_lanes(uint32_t bits) {
  const __m256i bit = _mm256_setr_epi16(1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 16384,
                                        static_cast<int16_t>(0x8000));
  const __m256i b = _mm256_and_si256(_mm256_set1_epi16(static_cast<int16_t>(bits)), bit);
  return _mm256_cmpeq_epi16(b, bit);
}

// Sixteen samples of which some may be ends (0, 65535): the taking lanes get
// consecutive entries from `noise`, the ends keep their byte value. Returns
// the sixteen results in 16-bit lanes, the entries taken in `taken`, and for
// the real kind (`flags` the bits of the sixteen entries from `noise` on)
// whether a taking lane sits on an edge while any of those entries is
// flagged: the caller then redoes the block from the floats.
template <Noise K>
inline __m256i noise_quotients_with_ends(const NoiseConstants &c, __m256i s, const int16_t *noise,
                                         uint32_t flags, size_t *taken, bool *floats) {
  const __m256i ends = _mm256_or_si256(_mm256_cmpeq_epi16(s, _mm256_setzero_si256()),
                                       _mm256_cmpeq_epi16(s, _mm256_set1_epi16(-1)));
  const auto m = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_packs_epi16(ends, ends)));
  const uint32_t take_lo = ~m & 0xFFu, take_hi = ~(m >> 16) & 0xFFu;
  const auto count_lo = static_cast<size_t>(__builtin_popcount(take_lo));
  const __m128i lo =
      _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(noise)),
                       _mm_loadu_si128(reinterpret_cast<const __m128i *>(kExpand16.lane[take_lo])));
  const __m128i hi =
      _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(noise + count_lo)),
                       _mm_loadu_si128(reinterpret_cast<const __m128i *>(kExpand16.lane[take_hi])));
  __m256i v;
  const __m256i q = noise_quotients<K>(c, s, _mm256_set_m128i(hi, lo), &v);
  *taken = count_lo + static_cast<size_t>(__builtin_popcount(take_hi));
  if constexpr (K == Noise::kReal) {
    *floats = (flags & ((1u << *taken) - 1u)) != 0 &&
              real_on_edge(v, q, _mm256_xor_si256(ends, _mm256_set1_epi16(-1)));
  }
  return _mm256_blendv_epi8(q, _mm256_and_si256(s, _mm256_set1_epi16(255)), ends);
}

// True when a lane of `a` or `b` may be an end: |s| as signed 16 bits is 0
// for 0 and 1 for 65535. (0x8000 reads as an end too; it only takes the
// slower path.)
inline bool may_have_ends(__m256i a, __m256i b) {
  const __m256i low = _mm256_min_epu16(_mm256_abs_epi16(a), _mm256_abs_epi16(b));
  return _mm256_movemask_epi8(_mm256_cmpgt_epi16(_mm256_set1_epi16(2), low)) != 0;
}

inline void store_bytes16(uint8_t *out, __m256i q) {
  const __m256i b = _mm256_permute4x64_epi64(_mm256_packus_epi16(q, q), 0x08);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm256_castsi256_si128(b));
}

// A block the integer rule cannot settle, redone from the floats.
[[gnu::noinline, gnu::cold]] inline void redo_from_floats(uint8_t *out, const uint16_t *in, size_t count,
                                                          const float *real, size_t size, size_t from) {
  const float *cursor = real + from;
  for (size_t k = 0; k < count; ++k)
    out[k] = dither_step(in[k], cursor, real, real + size, dither_real_sample);
}

// Sixteen samples at `in` (already loaded as `s`) that may hold ends; returns
// the index after the entries they take.
template <Noise K>
inline size_t dither_block16_with_ends(const NoiseConstants &c, uint8_t *out, const uint16_t *in, __m256i s,
                                       const int16_t *table, size_t size, size_t index, RealNoise real) {
  size_t taken;
  bool floats = false;
  const uint32_t flags = K == Noise::kReal ? real_flags32(real.flags, index) & 0xFFFFu : 0;
  store_bytes16(out, noise_quotients_with_ends<K>(c, s, table + index, flags, &taken, &floats));
  if constexpr (K == Noise::kReal)
    if (floats) [[unlikely]]
      redo_from_floats(out, in, 16, real.floats, size, index);
  index += taken;
  return index >= size ? index - size : index;
}

// The noise walk over 16-bit entries. `table` holds `size` entries and then at
// least 32 more that repeat its start, so that a run of entries never needs
// the wrap in the middle of a load. The loop keeps its state in locals: every
// byte store may alias anything, so state behind a pointer would be reloaded.
template <Noise K>
size_t dither_noise16(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, size_t size,
                      size_t index, RealNoise real) {
  const NoiseConstants c;
  size_t i = 0;
  while (i + 32 <= n) {
    // Blocks of 32 up to the row's end or the first block that starts past
    // the table's end, whichever comes first: within them the entries run
    // on without a wrap (the padding covers the last block's overhang).
    const size_t blocks = std::min((n - i) / 32, (size - index + 31) / 32);
    const uint16_t *src = in + i;
    const uint16_t *const stop = src + blocks * 32;
    uint8_t *dst = out + i;
    const int16_t *noise = table + index;
    size_t at = index;
    for (; src != stop; src += 32, dst += 32, noise += 32, at += 32) {
      // Rows beyond the level-2 cache stream in from further out than its
      // prefetcher runs ahead on its own; a line a block keeps both streams
      // 512 bytes ahead.
      _mm_prefetch(reinterpret_cast<const char *>(src) + 512, _MM_HINT_T0);
      _mm_prefetch(reinterpret_cast<const char *>(noise) + 512, _MM_HINT_T0);
      const __m256i s0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src));
      const __m256i s1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 16));
      if (may_have_ends(s0, s1)) [[unlikely]]
        break;
      // Read before the store, which the compiler must assume may write them.
      const uint32_t flags = K == Noise::kReal ? real_flags32(real.flags, at) : 0;
      __m256i v0, v1;
      const __m256i q0 =
          noise_quotients<K>(c, s0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(noise)), &v0);
      const __m256i q1 =
          noise_quotients<K>(c, s1, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(noise + 16)), &v1);
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst),
                          _mm256_permute4x64_epi64(_mm256_packus_epi16(q0, q1), 0xD8));
      if constexpr (K == Noise::kReal) {
        if (flags != 0) [[unlikely]] {
          const size_t from = at < size ? at : at - size;
          if (real_on_edge(v0, q0, flag_lanes(flags & 0xFFFFu)))
            redo_from_floats(dst, src, 16, real.floats, size, from);
          if (real_on_edge(v1, q1, flag_lanes(flags >> 16)))
            redo_from_floats(dst + 16, src + 16, 16, real.floats, size,
                             from + 16 < size ? from + 16 : from + 16 - size);
        }
      }
    }
    const auto done = static_cast<size_t>(src - (in + i));
    i += done;
    index += done;
    if (index >= size) index -= size;
    if (src != stop) {
      // A block with an end in it: two halves with their lanes sorted out.
      index = dither_block16_with_ends<K>(c, out + i, in + i,
                                          _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i)),
                                          table, size, index, real);
      index = dither_block16_with_ends<K>(c, out + i + 16, in + i + 16,
                                          _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i + 16)),
                                          table, size, index, real);
      i += 32;
    }
  }
  if (i + 16 <= n) {
    index = dither_block16_with_ends<K>(c, out + i, in + i,
                                        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i)), table,
                                        size, index, real);
    i += 16;
  }
  if (i < n) {
    // The tail through a zero-padded copy: its padding is all ends, which
    // take no noise and are not stored.
    alignas(32) uint16_t tail[16] = {};
    alignas(16) uint8_t bytes[16];
    for (size_t k = i; k < n; ++k) tail[k - i] = in[k];
    index = dither_block16_with_ends<K>(
        c, bytes, tail, _mm256_load_si256(reinterpret_cast<const __m256i *>(tail)), table, size, index, real);
    for (size_t k = i; k < n; ++k) out[k] = bytes[k - i];
  }
  return index;
}
#endif

// Noise dithering of `n` samples with the 16-bit copy of an integer table
// of `size` entries (followed by 32 that repeat its start), from entry
// `index`; returns the index after the entries taken. Samples of 0 and 65535
// take no noise.
size_t dither16to8_int(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, size_t size,
                       size_t index, bool narrow) {
#if defined(__AVX2__)
  return narrow ? dither_noise16<Noise::kNarrow>(out, in, n, table, size, index, {})
                : dither_noise16<Noise::kWide>(out, in, n, table, size, index, {});
#else
  const auto sample = [narrow](uint32_t s, int32_t noise) { return dither_int_sample(s, noise, narrow); };
  const int16_t *start = table, *end = table + size, *cursor = table + index;
  for (size_t i = 0; i < n; ++i) out[i] = dither_step(in[i], cursor, start, end, sample);
  return static_cast<size_t>(cursor - start);
#endif
}

// Real-noise dithering through the float table `real` of `size` entries from
// entry `index`. `table` is its 16-bit form, floor(257 n) an entry, and
// `flags` one bit an entry for those the integer rule may get wrong, both
// padded like the integer copies. The baseline reads the floats only.
size_t dither16to8_real16(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table,
                          const uint8_t *flags, const float *real, size_t size, size_t index) {
#if defined(__AVX2__)
  return dither_noise16<Noise::kReal>(out, in, n, table, size, index, RealNoise{real, flags});
#else
  (void)table;
  (void)flags;
  const float *cursor = real + index;
  for (size_t i = 0; i < n; ++i) out[i] = dither_step(in[i], cursor, real, real + size, dither_real_sample);
  return static_cast<size_t>(cursor - real);
#endif
}

const float *dither16to8_real(uint8_t *out, const uint16_t *in, size_t n, const float *start,
                              const float *end, const float *cursor) {
  size_t i = 0;
#if defined(__AVX2__)
  const __m256 k255 = _mm256_set1_ps(255.0f);
  const __m256 zero = _mm256_setzero_ps();
  for (; i + 8 <= n; i += 8) {
    if (i + 16 <= n && end - cursor >= 16) {
      const __m256i raw = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i));
      if (no_ends16(raw)) {
        const __m256 f0 = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(raw)));
        const __m256 f1 = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_extracti128_si256(raw, 1)));
        __m256 v0 = _mm256_add_ps(div257_ps(f0), _mm256_loadu_ps(cursor));
        __m256 v1 = _mm256_add_ps(div257_ps(f1), _mm256_loadu_ps(cursor + 8));
        v0 = _mm256_min_ps(_mm256_max_ps(v0, zero), k255);
        v1 = _mm256_min_ps(_mm256_max_ps(v1, zero), k255);
        store16x(out + i, _mm256_cvttps_epi32(v0), _mm256_cvttps_epi32(v1));
        cursor += 16;
        if (cursor == end) cursor = start;
        i += 8;
        continue;
      }
    }
    if (end - cursor < 8) {
      for (size_t k = i; k < i + 8; ++k) out[k] = dither_step(in[k], cursor, start, end, dither_real_sample);
      continue;
    }
    uint32_t taken;
    __m256i noise;
    const __m256i s =
        dither_lanes(in + i, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(cursor)), &taken, &noise);
    __m256 v = _mm256_add_ps(div257_ps(_mm256_cvtepi32_ps(s)), _mm256_castsi256_ps(noise));
    v = _mm256_min_ps(_mm256_max_ps(v, zero), k255);
    store8_keeping_ends(out + i, s, _mm256_cvttps_epi32(v));
    cursor += taken;
    if (cursor == end) cursor = start;
  }
#endif
  for (; i < n; ++i) out[i] = dither_step(in[i], cursor, start, end, dither_real_sample);
  return cursor;
}

}  // namespace zt::raster::ZT_KERNEL_NS
