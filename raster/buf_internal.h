// Row-level services of the raster modules: the 16-to-8 table and the
// depth-converter kernels chosen by dispatch level.
#pragma once

#include <zt/dither_context.h>

#include <cstddef>
#include <cstdint>

namespace zt::raster {

inline constexpr const char *kScanlinebufModule = "scanlinebuf";

// v -> floor(v * 255 / 65535 + 0.5), for every 16-bit v.
const uint8_t *table16to8();

// Entries past the end of a 16-bit noise table that repeat its start.
inline constexpr size_t kNoiseTablePad = 32;

struct BufKernels {
  void (*copy1to8)(uint8_t *dst, const uint8_t *src, size_t npix);
  void (*copy1to16)(uint16_t *dst, const uint8_t *src, size_t npix);
  void (*copy8to16)(uint16_t *dst, const uint8_t *src, size_t n);
  void (*copy16to8)(uint8_t *dst, const uint16_t *src, size_t n, const uint8_t *table);
  // Integer noise comes from a 16-bit copy of its table (every entry fits),
  // addressed by index: half the bytes of the 32-bit table, so that the
  // walk through it stays in the level-2 cache. The copy runs
  // kNoiseTablePad entries past the table's end, repeating its start, so a
  // vector load never straddles the wrap. Returns the index after the
  // entries taken.
  size_t (*dither_int)(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, size_t size, size_t index,
                       bool narrow);
  // Real noise of a table of the caller's own: the floats themselves.
  const float *(*dither_real)(uint8_t *out, const uint16_t *in, size_t n, const float *start,
                              const float *end, const float *cursor);
  // Real noise of the library's table, through its 16-bit form and a bit
  // an entry where that form alone may not do (see row_dither.cpp), both
  // padded like the integer copies; same bytes as the floats.
  size_t (*dither_real16)(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, const uint8_t *flags,
                          const float *real, size_t size, size_t index);
};
// The kernels of the level in force.
const BufKernels &buf_kernels();
// Registers the kernel table with the dispatch registry. Idempotent.
int32_t buf_kernels_init();

// The library-wide dithering switch.
bool dithering_enabled();

}  // namespace zt::raster
