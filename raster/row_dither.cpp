// The dither engine: the three process-wide noise tables and the conversion
// of a context's samples through them. Screening's dither module exports it;
// scanline buffers use it directly for their dithered 16-to-8 copies.
#include <zt/random.h>

#include <memory>
#include <mutex>
#include <new>

#include "foundation/internal.h"
#include "raster/buf_internal.h"
#include "raster/row_dither.h"

namespace zt::raster {

namespace {

constexpr size_t kTableSize = ZT_DITHER_TABLE_SIZE;

struct NoiseTables {
  std::unique_ptr<float[]> real;
  std::unique_ptr<int32_t[]> wide;
  std::unique_ptr<int32_t[]> narrow;
  // The integer tables again in 16 bits (wide 0..512, narrow -129..385), the
  // copies the kernels read; contexts point into the 32-bit ones.
  std::unique_ptr<int16_t[]> wide16;
  std::unique_ptr<int16_t[]> narrow16;
};

// Written at start-up and shut-down only (under the mutex); the pointers are
// read without a lock by contexts, which live inside that span.
std::mutex g_tables_mutex;
NoiseTables g_tables;

// Values past 0xFFFFFF would go beyond a byte; they saturate.
uint8_t saturate(double v) { return v >= 255.0 ? 255 : static_cast<uint8_t>(v); }

float uniform01() { return static_cast<float>(static_cast<double>(ZT_random32()) / 4294967295.0); }

}  // namespace

int32_t dither_tables_init(const char *module, const char *function) {
  std::lock_guard<std::mutex> lock(g_tables_mutex);
  if (g_tables.real != nullptr) return 0;
  NoiseTables t;
  t.real.reset(new (std::nothrow) float[kTableSize]);
  t.wide.reset(new (std::nothrow) int32_t[kTableSize]);
  t.narrow.reset(new (std::nothrow) int32_t[kTableSize]);
  t.wide16.reset(new (std::nothrow) int16_t[kTableSize]);
  t.narrow16.reset(new (std::nothrow) int16_t[kTableSize]);
  if (t.real == nullptr || t.wide == nullptr || t.narrow == nullptr || t.wide16 == nullptr ||
      t.narrow16 == nullptr) {
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
  for (size_t i = 0; i < kTableSize; ++i) {
    t.wide16[i] = static_cast<int16_t>(t.wide[i]);
    t.narrow16[i] = static_cast<int16_t>(t.narrow[i]);
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
        context->tableCursor = k.dither_real(out, in, n, static_cast<const float *>(context->tableStart),
                                             static_cast<const float *>(context->tableEnd),
                                             static_cast<const float *>(context->tableCursor));
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
