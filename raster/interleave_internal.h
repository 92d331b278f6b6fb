// The interleave converters as the scanline buffer uses them: planes at any
// distance from one another, so a rectangle inside wider rows converts in
// place without a staging copy.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zt::raster {

// `width` pixels of `channels` samples of `bytes_per_sample` (1 or 2); plane
// c of the by-line side starts `stride` samples after plane c - 1.
void line_to_pixel(void *dst, const void *src, size_t width, size_t channels, uint32_t bytes_per_sample,
                   size_t stride);
void pixel_to_line(void *dst, const void *src, size_t width, size_t channels, uint32_t bytes_per_sample,
                   size_t stride);
// Four planes of 16-bit samples to pixels of four bytes in one pass, each
// sample as the 16-to-8 table maps it. `next_row` is the distance in bytes to
// the planes of the row the caller converts next (0 for none), which the
// conversion fetches ahead.
void line16_to_pixel8_4(uint8_t *dst, const uint16_t *src, size_t width, size_t stride, ptrdiff_t next_row);

// Registers the kernel table with the dispatch registry. Idempotent.
int32_t interleave_kernels_init();

}  // namespace zt::raster
