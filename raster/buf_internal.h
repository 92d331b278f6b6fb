// Row-level services the raster and screening modules share: the 16-to-8
// table, the depth-converter kernels chosen by dispatch level, and the dither
// engine (noise tables and the per-context conversion).
//
// The dither engine lives here in raster, not in screening, because scanline
// buffers embed a dither context and convert through it, and raster may not
// use screening. Screening's dither module is the public face: its exported
// ditherStaticInit / ditherSetup / ditherBuf16To8 / ... are shims over these.
#pragma once

#include <zt/dither.h>

#include <cstddef>
#include <cstdint>

namespace zt::raster {

inline constexpr const char *kScanlinebufModule = "scanlinebuf";

// v -> floor(v * 255 / 65535 + 0.5), for every 16-bit v.
const uint8_t *table16to8();

struct BufKernels {
  void (*copy1to8)(uint8_t *dst, const uint8_t *src, size_t npix);
  void (*copy1to16)(uint16_t *dst, const uint8_t *src, size_t npix);
  void (*copy8to16)(uint16_t *dst, const uint8_t *src, size_t n);
  void (*copy16to8)(uint8_t *dst, const uint16_t *src, size_t n, const uint8_t *table);
  const int32_t *(*dither_int)(uint8_t *out, const uint16_t *in, size_t n, const int32_t *start,
                               const int32_t *end, const int32_t *cursor, bool narrow);
  const float *(*dither_real)(uint8_t *out, const uint16_t *in, size_t n, const float *start,
                              const float *end, const float *cursor);
};
// The kernels of the level in force.
const BufKernels &buf_kernels();
// Registers the kernel table with the dispatch registry. Idempotent.
int32_t buf_kernels_init();

// The noise tables: built once, read-only until freed. 0, or -1 when memory
// fails (logged under `function`).
int32_t dither_tables_init(const char *module, const char *function);
void dither_tables_free();
// The real-noise table, or null while the tables are not built.
const float *dither_real_table();
const int32_t *dither_wide_table();
const int32_t *dither_narrow_table();

// Points a context at its method and table; never fails.
void dither_setup(DitherContext *context, uint32_t method, uint32_t noise_kind);
void dither_16to8(DitherContext *context, uint8_t *out, const uint16_t *in, size_t n);
void dither_24to8(DitherContext *context, uint8_t *out, const uint32_t *in, size_t n);

// The library-wide dithering switch.
bool dithering_enabled();

}  // namespace zt::raster
