// The dither engine: the three process-wide noise tables and the conversion
// of a context's samples through them. Screening's dither module exports it;
// scanline buffers use it directly for their dithered 16-to-8 copies.
#include <zt/random.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <new>

#include "foundation/internal.h"
#include "raster/buf_internal.h"
#include "raster/row_dither.h"

namespace zt::raster {

namespace {

constexpr size_t kTableSize = ZT_DITHER_TABLE_SIZE;
constexpr size_t kFlagBytes = (kTableSize + kNoiseTablePad + 7) / 8 + 8;

struct NoiseTables {
  std::unique_ptr<float[]> real;
  std::unique_ptr<int32_t[]> wide;
  std::unique_ptr<int32_t[]> narrow;
  // The integer tables again in 16 bits (wide 0..512, narrow -129..385), the
  // copies the kernels read; contexts point into the 32-bit ones. Each runs
  // kNoiseTablePad entries on, repeating its start.
  std::unique_ptr<int16_t[]> wide16;
  std::unique_ptr<int16_t[]> narrow16;
  // The real table in the same form, and its flags one bit an entry (LSB
  // first, eight bytes of slack for the kernels' word reads): see real16_entry.
  std::unique_ptr<int16_t[]> real16;
  std::unique_ptr<uint8_t[]> real_flags;
};

// Written at start-up and shut-down only (under the mutex); the pointers are
// read without a lock by contexts, which live inside that span.
std::mutex g_tables_mutex;
NoiseTables g_tables;

// Values past 0xFFFFFF would go beyond a byte; they saturate.
uint8_t saturate(double v) { return v >= 255.0 ? 255 : static_cast<uint8_t>(v); }

float uniform01() { return static_cast<float>(static_cast<double>(ZT_random32()) / 4294967295.0); }

// A sample with real noise, as the kernels compute it, from its quotient
// s / 257.0f.
uint8_t real_rule(float quotient, float noise) {
  const float v = quotient + noise;
  if (v <= 0.0f) return 0;
  if (v >= 255.0f) return 255;
  return static_cast<uint8_t>(v);
}

// A real entry n in 16 bits: floor(257 n), and whether that alone may not
// give the float rule's byte for some sample. `quotients` holds s / 257.0f
// for every s.
//
// With k = floor(257 n), exact arithmetic gives floor((s + 257 n) / 257) =
// floor((s + k) / 257) for every integer s, so the kernels can run the integer
// rule. The float sum strays from the exact one by at most 2^-16 (half a unit
// in the last place for the quotient and for the sum below 256), 257 / 65536
// of a sample step; only where s + 257 n lies that close to a multiple of 257
// can the truncation differ, which takes s + k = 257 m or 257 m - 1 and the
// fraction 257 n - k within that distance of 0 or 1. Entries within 1/200 (a
// quarter more than that distance, about one in a hundred) are tried on
// every such sample; those that do differ somewhere keep the flag, and the
// kernels redo the samples that land on the multiple from the floats.
int16_t real16_entry(float noise, const float *quotients, bool *flag_out) {
  constexpr double kClose = 1.0 / 200.0;
  const double scaled = 257.0 * static_cast<double>(noise);  // exact: 24 + 9 bits
  const double whole = std::floor(scaled);
  const auto k = static_cast<int32_t>(whole);
  bool differs = false;
  if (scaled - whole < kClose || scaled - whole > 1.0 - kClose) {
    // s + k = 257 m - c gives the integer rule's byte clamp(m - c, 0, 255).
    for (int32_t c = 0; c < 2; ++c) {
      for (int32_t m = 0; m <= 256; ++m) {
        const int32_t s = 257 * m - k - c;
        if (s < 1 || s > 65534) continue;
        const int32_t expect = std::min(std::max(m - c, 0), 255);
        differs |= real_rule(quotients[s], noise) != expect;
      }
    }
  }
  *flag_out = differs;
  return static_cast<int16_t>(k);
}

}  // namespace

int32_t dither_tables_init(const char *module, const char *function) {
  std::lock_guard<std::mutex> lock(g_tables_mutex);
  if (g_tables.real != nullptr) return 0;
  NoiseTables t;
  t.real.reset(new (std::nothrow) float[kTableSize]);
  t.wide.reset(new (std::nothrow) int32_t[kTableSize]);
  t.narrow.reset(new (std::nothrow) int32_t[kTableSize]);
  t.wide16.reset(new (std::nothrow) int16_t[kTableSize + kNoiseTablePad]);
  t.narrow16.reset(new (std::nothrow) int16_t[kTableSize + kNoiseTablePad]);
  t.real16.reset(new (std::nothrow) int16_t[kTableSize + kNoiseTablePad]);
  t.real_flags.reset(new (std::nothrow) uint8_t[kFlagBytes]());
  // Scratch for the flags: the float quotient of every sample, worked out
  // once rather than for each of the half million or so samples tried.
  std::unique_ptr<float[]> quotients(new (std::nothrow) float[65536]);
  if (t.real == nullptr || t.wide == nullptr || t.narrow == nullptr || t.wide16 == nullptr ||
      t.narrow16 == nullptr || t.real16 == nullptr || t.real_flags == nullptr || quotients == nullptr) {
    ZT_LOG(module, function, "Cannot allocate memory");
    return -1;
  }
  // Each entry is the sum of two uniform draws: triangular noise. The wide
  // table (0..256 twice, offset 256) and the narrow one (0..257 twice, offset
  // 128) differ on purpose; both are kept.
  for (size_t i = 0; i < kTableSize; ++i) {
    const float u1 = uniform01();
    const float u2 = uniform01();
    t.real[i] = 0.5f + u1 - u2;
  }
  for (size_t i = 0; i < kTableSize; ++i) {
    const int32_t r1 = ZT_randomIntInRange(0, 256);
    const int32_t r2 = ZT_randomIntInRange(0, 256);
    t.wide[i] = r1 - r2 + 256;
  }
  for (size_t i = 0; i < kTableSize; ++i) {
    const int32_t r1 = ZT_randomIntInRange(0, 257);
    const int32_t r2 = ZT_randomIntInRange(0, 257);
    t.narrow[i] = r1 - r2 + 128;
  }
  for (uint32_t v = 0; v < 65536; ++v) quotients[v] = static_cast<float>(v) / 257.0f;
  for (size_t i = 0; i < kTableSize + kNoiseTablePad; ++i) {
    const size_t at = i < kTableSize ? i : i - kTableSize;
    t.wide16[i] = static_cast<int16_t>(t.wide[at]);
    t.narrow16[i] = static_cast<int16_t>(t.narrow[at]);
    bool flag = false;
    t.real16[i] = i < kTableSize ? real16_entry(t.real[i], quotients.get(), &flag) : t.real16[at];
    if (i >= kTableSize) flag = ((t.real_flags[at / 8] >> (at % 8)) & 1u) != 0;
    if (flag) t.real_flags[i / 8] = static_cast<uint8_t>(t.real_flags[i / 8] | (1u << (i % 8)));
  }
  g_tables = std::move(t);
  return 0;
}

void dither_tables_free() {
  std::lock_guard<std::mutex> lock(g_tables_mutex);
  g_tables = NoiseTables{};
}

const float *dither_real_table() { return g_tables.real.get(); }
const int32_t *dither_wide_table() { return g_tables.wide.get(); }
const int32_t *dither_narrow_table() { return g_tables.narrow.get(); }

void dither_setup(DitherContext *context, uint32_t method, uint32_t noise_kind) {
  if (method == 0) method = ZT_DITHER_NOISE;
  if (noise_kind == 0) noise_kind = ZT_DITHER_NOISE_NARROW;
  context->method = method;
  context->noiseKind = noise_kind;
  context->tableStart = nullptr;
  context->tableEnd = nullptr;
  context->tableCursor = nullptr;
  if (method != ZT_DITHER_NOISE) return;
  const void *start = noise_kind == ZT_DITHER_NOISE_WIDE ? static_cast<const void *>(dither_wide_table())
                      : noise_kind == ZT_DITHER_NOISE_NARROW
                          ? static_cast<const void *>(dither_narrow_table())
                          : static_cast<const void *>(dither_real_table());
  if (start == nullptr) return;
  // All three tables hold 4-byte entries.
  const auto *base = static_cast<const int32_t *>(start);
  context->tableStart = base;
  context->tableEnd = base + kTableSize;
  context->tableCursor = base + ZT_randomIntInRange(0, static_cast<int32_t>(kTableSize) - 1);
}

void dither_16to8(DitherContext *context, uint8_t *out, const uint16_t *in, size_t n) {
  const BufKernels &k = buf_kernels();
  switch (context->method) {
    case ZT_DITHER_ROUND:
      k.copy16to8(out, in, n, table16to8());
      return;
    case ZT_DITHER_NOISE:
      if (context->tableCursor == nullptr) {
        // No table attached (set up before the tables were built): round.
        k.copy16to8(out, in, n, table16to8());
      } else if (context->noiseKind == ZT_DITHER_NOISE_WIDE || context->noiseKind == ZT_DITHER_NOISE_NARROW) {
        const bool narrow = context->noiseKind == ZT_DITHER_NOISE_NARROW;
        const auto *start = static_cast<const int32_t *>(context->tableStart);
        const auto *end = static_cast<const int32_t *>(context->tableEnd);
        const auto *cursor = static_cast<const int32_t *>(context->tableCursor);
        if (start == (narrow ? g_tables.narrow.get() : g_tables.wide.get()) && end == start + kTableSize) {
          const int16_t *table16 = narrow ? g_tables.narrow16.get() : g_tables.wide16.get();
          context->tableCursor =
              start + k.dither_int(out, in, n, table16, kTableSize, static_cast<size_t>(cursor - start), narrow);
        } else {
          // A table of the caller's own has no 16-bit copy: sample by sample.
          for (size_t i = 0; i < n; ++i) {
            const uint32_t s = in[i];
            if (s == 0 || s == 65535) {
              out[i] = static_cast<uint8_t>(s & 255u);
              continue;
            }
            const int32_t v = static_cast<int32_t>(s) + *cursor;
            out[i] = narrow && v < 1 ? 0 : v < 65535 ? static_cast<uint8_t>(v / 257) : 255;
            if (++cursor == end) cursor = start;
          }
          context->tableCursor = cursor;
        }
      } else {
        const auto *start = static_cast<const float *>(context->tableStart);
        const auto *end = static_cast<const float *>(context->tableEnd);
        const auto *cursor = static_cast<const float *>(context->tableCursor);
        if (start == g_tables.real.get() && end == start + kTableSize) {
          context->tableCursor =
              start + k.dither_real16(out, in, n, g_tables.real16.get(), g_tables.real_flags.get(), start,
                                      kTableSize, static_cast<size_t>(cursor - start));
        } else {
          context->tableCursor = k.dither_real(out, in, n, start, end, cursor);
        }
      }
      return;
    case ZT_DITHER_ZERO:
      for (size_t i = 0; i < n; ++i) out[i] = 0;
      return;
    default:
      // Truncation: s / 257.0 truncated is the integer quotient.
      for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(in[i] / 257u);
      return;
  }
}

void dither_24to8(DitherContext *context, uint8_t *out, const uint32_t *in, size_t n) {
  constexpr double kDivisor = 65793.0;
  switch (context->method) {
    case ZT_DITHER_ROUND:
      for (size_t i = 0; i < n; ++i) out[i] = saturate(static_cast<double>(in[i]) / kDivisor + 0.5);
      return;
    case ZT_DITHER_NOISE: {
      // The real-noise table always, walked in step with the context's cursor
      // whatever table that points into.
      const float *real = dither_real_table();
      const auto *start = static_cast<const int32_t *>(context->tableStart);
      const auto *end = static_cast<const int32_t *>(context->tableEnd);
      const auto *cursor = static_cast<const int32_t *>(context->tableCursor);
      for (size_t i = 0; i < n; ++i) {
        const uint32_t x = in[i];
        if (x == 0) {
          out[i] = 0;
        } else if (x >= 0xFFFFFFu) {
          out[i] = 255;
        } else if (cursor == nullptr || real == nullptr) {
          out[i] = saturate(static_cast<double>(x) / kDivisor + 0.5);
        } else {
          const double v = static_cast<double>(x) / kDivisor + static_cast<double>(real[cursor - start]);
          out[i] = v <= 0.0 ? 0 : v >= 255.0 ? 255 : static_cast<uint8_t>(v);
          if (++cursor == end) cursor = start;
        }
      }
      context->tableCursor = cursor;
      return;
    }
    case ZT_DITHER_ZERO:
      for (size_t i = 0; i < n; ++i) out[i] = 0;
      return;
    default:
      for (size_t i = 0; i < n; ++i) {
        out[i] = saturate(static_cast<double>(in[i]) / kDivisor);
      }
      return;
  }
}

}  // namespace zt::raster
