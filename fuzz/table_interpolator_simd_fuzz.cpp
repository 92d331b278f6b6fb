// The table interpolators at every level: three or four inputs, the grid
// size, output count and table values from the input (now and then values off
// the 0 ... 65535 scale, or any float at all, which the clamp must take the
// same way everywhere), and a small rectangle of input samples converted with
// every scheme or the one the input picks. The rectangle must come out the
// same at each level and equal, pixel by pixel, the one-pixel kernels over
// the same grid (narrowed as the 8-bit form narrows); the fixed-output
// kernels must agree with the general ones.
#include <zt/table_interpolator.h>

#include <algorithm>

#include "simd_fuzz_support.h"

namespace {

using zt::fuzz::check;

struct Setup {
  uint32_t inputs, points, outputs, pixels, lines, interleave, bytes;
  uint32_t src_step, dst_step;  // in bytes
};

uint16_t narrow(uint32_t v) { return static_cast<uint16_t>((2 * v * 255 + 65535) / 131070); }

// One pixel through the general kernel of `scheme`.
void kernel(const ZT_InterpGrid &g, int32_t scheme, const uint16_t *in, uint16_t *out) {
  if (g.inputs == 3) {
    if (scheme == ZT_INTERP_PRISM)
      Prism_NOut(&g, in[0], in[1], in[2], out);
    else if (scheme == ZT_INTERP_TETRAHEDRAL)
      Tetrahedral_NOut(&g, in[0], in[1], in[2], out);
    else
      TriLinear_NOut(&g, in[0], in[1], in[2], out);
  } else {
    if (scheme == ZT_INTERP_PRISM)
      Prism4Input_NOut(&g, in[0], in[1], in[2], in[3], out);
    else if (scheme == ZT_INTERP_TETRAHEDRAL)
      Tetrahedral4Input_NOut(&g, in[0], in[1], in[2], in[3], out);
    else
      TriLinear4Input_NOut(&g, in[0], in[1], in[2], in[3], out);
  }
}

// The fixed-output kernels where the grid has their shape.
void check_fixed_forms(const ZT_InterpGrid &g, int32_t scheme, const uint16_t *in, const uint16_t *expected) {
  const bool prism = scheme == ZT_INTERP_PRISM, tetrahedral = scheme == ZT_INTERP_TETRAHEDRAL;
  uint16_t out[4] = {};
  if (g.inputs == 3 && g.outputs == 3) {
    (prism         ? Prism_3Out
     : tetrahedral ? Tetrahedral_3Out
                   : TriLinear_3Out)(&g, in[0], in[1], in[2], &out[0], &out[1], &out[2]);
    check(out[0] == expected[0] && out[1] == expected[1] && out[2] == expected[2]);
  } else if (g.inputs == 3 && g.outputs == 4) {
    (prism ? Prism_4Out : tetrahedral ? Tetrahedral_4Out : TriLinear_4Out)(&g, in[0], in[1], in[2], out);
    check(std::memcmp(out, expected, sizeof out) == 0);
  } else if (g.inputs == 4 && g.outputs == 3) {
    (prism         ? Prism4Input
     : tetrahedral ? Tetrahedral4Input
                   : TriLinear4Input)(&g, in[0], in[1], in[2], in[3], &out[0], &out[1], &out[2]);
    check(out[0] == expected[0] && out[1] == expected[1] && out[2] == expected[2]);
  }
}

// Sample `c` of pixel `x` on line `y` of a rectangle.
size_t offset_of(const Setup &s, uint32_t channels, uint32_t step, uint32_t x, uint32_t y, uint32_t c) {
  const size_t index = s.interleave ? size_t{c} * s.pixels + x : size_t{x} * channels + c;
  return size_t{y} * step + index * s.bytes;
}

uint32_t sample_at(const std::vector<uint8_t> &buf, size_t offset, uint32_t bytes) {
  if (bytes == 1) return buf[offset];
  uint16_t v;
  std::memcpy(&v, buf.data() + offset, 2);
  return v;
}

std::vector<uint8_t> convert(const Setup &s, const std::vector<float> &table, int32_t scheme,
                             const std::vector<uint8_t> &src) {
  ZT_TableInterpolator *ti =
      s.bytes == 2 ? TableInterpolatorInit_ushort(s.inputs, s.points, s.outputs, table.data(), scheme, 1, nullptr)
                   : TableInterpolatorInit_uchar(s.inputs, s.points, s.outputs, table.data(), scheme, 1, nullptr);
  check(ti != nullptr);
  // The destination is exactly as large as its lines reach.
  const size_t dst_size = size_t{s.lines - 1} * s.dst_step + size_t{s.pixels} * s.outputs * s.bytes;
  std::vector<uint8_t> dst(dst_size, 0x5A);
  check(TableInterpolatorConvertRect(ti, src.data(), s.src_step, dst.data(), s.dst_step, s.pixels, s.lines,
                                     s.interleave) == 0);
  TableInterpolatorDestroy(ti);
  return dst;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  Setup s{};
  const uint32_t mode = in.byte();
  s.inputs = mode & 1 ? 4 : 3;
  s.bytes = mode & 2 ? 1 : 2;
  s.interleave = (mode >> 2) & 1;
  const uint32_t values_mode = (mode >> 3) & 3;
  // 0 converts with every scheme; 1 ... 3 with scheme (pick - 1) alone, so
  // the fuzzer can spend its time on one.
  const uint32_t scheme_pick = (mode >> 5) & 3;
  s.points = 2 + in.byte() % (s.inputs == 3 ? 8 : 4);
  s.outputs = 1 + in.byte() % ZT_INTERP_MAX_OUTPUTS;
  s.pixels = 1 + in.byte() % 32;
  s.lines = 1 + in.byte() % 3;
  const uint32_t slack = in.byte();
  s.src_step = (s.pixels * s.inputs + slack % 4) * s.bytes;
  s.dst_step = (s.pixels * s.outputs + (slack >> 2) % 4) * s.bytes;
  const std::vector<uint8_t> rest = in.rest();

  // The source samples first, the table from what follows (both cycled).
  const size_t src_size = size_t{s.lines - 1} * s.src_step + size_t{s.pixels} * s.inputs * s.bytes;
  const std::vector<uint8_t> src = zt::fuzz::cycled(rest, src_size);
  const std::vector<uint8_t> table_pool(rest.begin() + static_cast<std::ptrdiff_t>(std::min(src_size, rest.size())),
                                        rest.end());
  size_t count = s.outputs;
  for (uint32_t i = 0; i < s.inputs; ++i) count *= s.points;
  std::vector<float> table(count);
  if (values_mode == 3) {
    table = zt::fuzz::cycled_as<float>(table_pool, count);
  } else {
    const auto raw = zt::fuzz::cycled_as<uint16_t>(table_pool, count);
    for (size_t i = 0; i < count; ++i)
      table[i] = values_mode == 2 ? static_cast<float>(raw[i]) * 1.25f - 8192.0f : static_cast<float>(raw[i]);
  }
  ZT_InterpGrid grid{};
  check(TableInterpolatorGridSetup(&grid, s.inputs, s.points, s.outputs, table.data()) == 0);

  for (const int32_t scheme : {ZT_INTERP_TRILINEAR, ZT_INTERP_PRISM, ZT_INTERP_TETRAHEDRAL}) {
    if (scheme_pick != 0 && scheme != static_cast<int32_t>(scheme_pick) - 1) continue;
    std::vector<uint8_t> first;
    for (const int32_t level : zt::fuzz::kLevels) {
      zt::fuzz::set_level(level);
      const std::vector<uint8_t> dst = convert(s, table, scheme, src);
      if (level == zt::fuzz::kLevels[0])
        first = dst;
      else
        check(dst == first);
      for (uint32_t y = 0; y < s.lines; ++y) {
        for (uint32_t x = 0; x < s.pixels; ++x) {
          uint16_t pixel[4], out[ZT_INTERP_MAX_OUTPUTS];
          for (uint32_t c = 0; c < s.inputs; ++c) {
            const uint32_t v = sample_at(src, offset_of(s, s.inputs, s.src_step, x, y, c), s.bytes);
            pixel[c] = static_cast<uint16_t>(s.bytes == 1 ? v * 257 : v);
          }
          kernel(grid, scheme, pixel, out);
          check_fixed_forms(grid, scheme, pixel, out);
          for (uint32_t c = 0; c < s.outputs; ++c) {
            const uint32_t got = sample_at(dst, offset_of(s, s.outputs, s.dst_step, x, y, c), s.bytes);
            check(got == (s.bytes == 1 ? narrow(out[c]) : out[c]));
          }
        }
      }
    }
  }
  return 0;
}
