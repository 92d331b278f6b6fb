// The interleave converters at every level: one converter chosen by the
// input, its width, channel count and sample size from the input too, over
// rows of input bytes. Every buffer has exactly the size the converter may
// touch, so a vector loop that runs past an odd width is caught, and the
// bytes out (and the status) must be the same at each level.
#include <zt/interleave.h>

#include <algorithm>

#include "simd_fuzz_support.h"

namespace {

using zt::fuzz::check;
using Bytes = std::vector<uint8_t>;

// What one converter reads and writes, in samples per pixel.
struct Shape {
  uint32_t in_samples;
  uint32_t out_samples;
  bool planes;   // reads four separate planes
  bool in_place; // works on one buffer
};

constexpr uint32_t kConverters = 25;

Shape shape_of(uint32_t op, uint32_t channels) {
  switch (op) {
    case 0: case 3: case 4: case 7: return {channels, channels, false, false};
    case 1: case 5: return {3, 3, false, false};
    case 2: case 6: return {4, 4, false, false};
    case 8: case 9: case 10: case 11: return {4, 4, false, false};
    case 12: case 13: case 14: case 15: return {1, 4, true, false};
    case 16: return {4, 3, false, false};
    case 17: return {4, 3, false, false};
    case 18: return {3, 4, false, false};
    case 19: return {3, 3, false, false};
    case 20: return {4, 3, false, false};
    case 21: return {2, 1, false, false};
    case 22: case 23: return {channels, channels, false, true};
    default: return {channels, channels, false, false};
  }
}

int32_t convert(uint32_t op, Bytes &dst, const Bytes &src, const Bytes (&plane)[4], uint32_t w, uint32_t ch,
                uint32_t bps, uint32_t background) {
  void *d = dst.data();
  const void *s = src.data();
  const void *r = plane[0].data(), *g = plane[1].data(), *b = plane[2].data(), *a = plane[3].data();
  switch (op) {
    case 0: return ZT_interleavedLineToPixel(d, s, w, ch, bps);
    case 1: return ZT_interleavedLineToPixelThreeChannels(d, s, w, bps);
    case 2: return ZT_interleavedLineToPixelFourChannels(d, s, w, bps);
    case 3: return ZT_interleavedLineToPixelAnyChannels(d, s, w, ch, bps);
    case 4: return ZT_interleavedPixelToLine(d, s, w, ch, bps);
    case 5: return ZT_interleavedPixelToLineThreeChannels(d, s, w, bps);
    case 6: return ZT_interleavedPixelToLineFourChannels(d, s, w, bps);
    case 7: return ZT_interleavedPixelToLineAnyChannels(d, s, w, ch, bps);
    case 8: return ZT_interleavedLineRGBAToARGB(d, s, w, bps);
    case 9: return ZT_interleavedLineRGBAToBGRA(d, s, w, bps);
    case 10: return ZT_interleavedLineRGBAToABGR(d, s, w, bps);
    case 11: return ZT_interleavedLineRGBAToRGBA(d, s, w, bps);
    case 12: return ZT_interleavedLineToARGB(d, r, g, b, a, w, bps);
    case 13: return ZT_interleavedLineToABGR(d, r, g, b, a, w, bps);
    case 14: return ZT_interleavedLineToBGRA(d, r, g, b, a, w, bps);
    case 15: return ZT_interleavedLineToRGBA(d, r, g, b, a, w, bps);
    case 16: return ZT_interleavedLineRGBAToRGB(d, s, w, bps);
    case 17: return ZT_interleavedLineRGBAToLineRGB(d, s, w, bps);
    case 18: return ZT_interleavedLineRGBToLineRGBA(d, s, w, bps);
    case 19: return ZT_interleavedLineRGBToInterleave(d, s, w, bps);
    case 20: return ZT_RGBAToRGB(d, s, w, bps);
    case 21: return ZT_GrayAToGray(d, s, w, bps);
    case 22: return ZT_discardAlphaChannel(d, w, ch, bps);
    case 23: return ZT_applyAlphaChannel(d, w, ch, bps, background);
    default: return ZT_interleavedLineToPixel(d, s, w, ch, bps);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  const uint32_t op = in.byte() % kConverters;
  // Mostly 1 or 2; now and then a size every converter must refuse.
  const uint32_t size_byte = in.byte();
  const uint32_t bps = size_byte < 250 ? 1 + size_byte % 2 : size_byte % 4;
  const uint32_t channels = in.byte() % 17;
  const uint32_t width = in.u16() % 600;
  const uint32_t background = in.u16();
  const Bytes pool = in.rest();

  const Shape shape = shape_of(op, channels);
  const size_t unit = bps == 1 || bps == 2 ? bps : 2;
  const size_t in_bytes = size_t{width} * shape.in_samples * unit;
  const size_t out_bytes = size_t{width} * shape.out_samples * unit;
  const Bytes src = zt::fuzz::cycled(pool, in_bytes);
  Bytes plane[4];
  for (size_t p = 0; p < 4; ++p) {
    // Each plane its own allocation, each a different part of the input.
    Bytes shifted(pool);
    if (!shifted.empty())
      std::rotate(shifted.begin(), shifted.begin() + static_cast<std::ptrdiff_t>(p * 7 % shifted.size()),
                  shifted.end());
    plane[p] = zt::fuzz::cycled(shifted, shape.planes ? size_t{width} * unit : 0);
  }

  Bytes first;
  int32_t first_rc = 0;
  for (const int32_t level : zt::fuzz::kLevels) {
    zt::fuzz::set_level(level);
    Bytes dst = shape.in_place ? src : Bytes(out_bytes, 0xA5);
    const int32_t rc = convert(op, dst, src, plane, width, channels, bps, background);
    if (level == zt::fuzz::kLevels[0]) {
      first = dst;
      first_rc = rc;
    } else {
      check(rc == first_rc && dst == first);
    }
  }
  return 0;
}
