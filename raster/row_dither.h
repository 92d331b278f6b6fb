// The row dither engine: the three process-wide noise tables and the
// conversion of a context's samples through them.
//
// It lives in raster, not in screening, because scanline buffers embed a
// dither context and convert through it, and raster may not use screening.
// Screening's dither module is the public face: its exported
// ditherStaticInit / ditherSetup / ditherBuf16To8 / ... are shims over these.
#pragma once

#include <zt/dither_context.h>

#include <cstddef>
#include <cstdint>

namespace zt::raster {

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

}  // namespace zt::raster
