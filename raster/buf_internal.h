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

struct BufKernels {
  void (*copy1to8)(uint8_t *dst, const uint8_t *src, size_t npix);
  void (*copy1to16)(uint16_t *dst, const uint8_t *src, size_t npix);
  void (*copy8to16)(uint16_t *dst, const uint8_t *src, size_t n);
  void (*copy16to8)(uint8_t *dst, const uint16_t *src, size_t n, const uint8_t *table);
  // Integer noise comes from a 16-bit copy of its table (every entry fits),
  // addressed by index: half the bytes of the 32-bit table, so that the
  // walk through it stays in the level-2 cache. Returns the index after the
  // entries taken.
  size_t (*dither_int)(uint8_t *out, const uint16_t *in, size_t n, const int16_t *table, size_t size, size_t index,
                       bool narrow);
  const float *(*dither_real)(uint8_t *out, const uint16_t *in, size_t n, const float *start,
                              const float *end, const float *cursor);
};
// The kernels of the level in force.
const BufKernels &buf_kernels();
// Registers the kernel table with the dispatch registry. Idempotent.
int32_t buf_kernels_init();

// The library-wide dithering switch.
bool dithering_enabled();

}  // namespace zt::raster
