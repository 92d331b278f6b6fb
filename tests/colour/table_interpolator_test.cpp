#include <gtest/gtest.h>
#include <zt/table_interpolator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#if defined(ZT_HAVE_LCMS2)
#include <lcms2.h>
#endif

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using zt::test::ChdirGuard;
using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::TempDir;

struct Table {
  uint32_t inputs, points, outputs;
  std::vector<float> values;
  size_t point_index(const uint32_t *idx) const {
    size_t p = 0;
    for (uint32_t a = 0; a < inputs; ++a) p = p * points + idx[a];
    return p;
  }
};

// Calls fn(grid coordinates, value slot) for every grid point and output.
template <typename F>
Table make_table(uint32_t inputs, uint32_t points, uint32_t outputs, F fn) {
  Table t{inputs, points, outputs, {}};
  size_t count = outputs;
  for (uint32_t a = 0; a < inputs; ++a) count *= points;
  t.values.resize(count);
  for (size_t p = 0; p < count / outputs; ++p) {
    uint32_t idx[4];
    size_t rest = p;
    for (uint32_t a = inputs; a-- > 0;) {
      idx[a] = static_cast<uint32_t>(rest % points);
      rest /= points;
    }
    for (uint32_t o = 0; o < outputs; ++o) t.values[p * outputs + o] = fn(idx, o);
  }
  return t;
}

// A smooth table with random coefficients, off the integers and well inside
// 0 ... 65535.
Table smooth_table(uint32_t inputs, uint32_t points, uint32_t outputs, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> coef(-3.0, 3.0);
  std::vector<double> k(outputs * 5);
  for (double &c : k) c = coef(rng);
  return make_table(inputs, points, outputs, [&](const uint32_t *idx, uint32_t o) {
    double s = k[o * 5 + 4];
    for (uint32_t a = 0; a < inputs; ++a) s += k[o * 5 + a] * idx[a] / (points - 1.0);
    return static_cast<float>(32767.5 + 30000.0 * std::sin(s));
  });
}

// The weight a scheme gives corner c (bit d - 1 - a high: the far side of
// input a) at in-cell fractions f, in closed form: trilinear the product of f
// or 1 - f per input; the simplex walk (Kuhn's triangulation) max(0, the least
// f among c's far inputs - the greatest among its near ones); prism that over
// the first two inputs times the trilinear weight of the rest.
double hat(int32_t scheme, uint32_t d, uint32_t c, const double *f) {
  const uint32_t simplex = scheme == ZT_INTERP_TETRAHEDRAL ? d : scheme == ZT_INTERP_PRISM ? 2 : 0;
  double least_far = 1, greatest_near = 0, w = 1;
  for (uint32_t a = 0; a < d; ++a) {
    const bool far = (c >> (d - 1 - a)) & 1u;
    if (a >= simplex)
      w *= far ? f[a] : 1 - f[a];
    else if (far)
      least_far = std::min(least_far, f[a]);
    else
      greatest_near = std::max(greatest_near, f[a]);
  }
  return w * std::max(0.0, least_far - greatest_near);
}

ZT_InterpGrid grid_of(const Table &t) {
  ZT_InterpGrid g;
  EXPECT_EQ(TableInterpolatorGridSetup(&g, t.inputs, t.points, t.outputs, t.values.data()), 0);
  return g;
}

// The one-pixel kernels of one scheme.
struct KernelSet {
  void (*n_out)(const ZT_InterpGrid *, uint16_t, uint16_t, uint16_t, uint16_t *);
  void (*out3)(const ZT_InterpGrid *, uint16_t, uint16_t, uint16_t, uint16_t *, uint16_t *, uint16_t *);
  void (*out4)(const ZT_InterpGrid *, uint16_t, uint16_t, uint16_t, uint16_t *);
  void (*in4_n_out)(const ZT_InterpGrid *, uint16_t, uint16_t, uint16_t, uint16_t, uint16_t *);
  void (*in4_out3)(const ZT_InterpGrid *, uint16_t, uint16_t, uint16_t, uint16_t, uint16_t *, uint16_t *,
                   uint16_t *);
};

KernelSet kernels_of(int32_t scheme) {
  switch (scheme) {
    case ZT_INTERP_PRISM:
      return {Prism_NOut, Prism_3Out, Prism_4Out, Prism4Input_NOut, Prism4Input};
    case ZT_INTERP_TETRAHEDRAL:
      return {Tetrahedral_NOut, Tetrahedral_3Out, Tetrahedral_4Out, Tetrahedral4Input_NOut,
              Tetrahedral4Input};
    default:
      return {TriLinear_NOut, TriLinear_3Out, TriLinear_4Out, TriLinear4Input_NOut, TriLinear4Input};
  }
}

// Runs every kernel form that fits the table's shape and checks that the
// fixed-count forms agree with the looped one; returns the looped result.
std::vector<uint16_t> evaluate(const ZT_InterpGrid &g, int32_t scheme, const uint16_t *in) {
  const KernelSet k = kernels_of(scheme);
  std::vector<uint16_t> out(g.outputs), fixed(4, 0xBEEF);
  if (g.inputs == 3) {
    k.n_out(&g, in[0], in[1], in[2], out.data());
    if (g.outputs == 3) k.out3(&g, in[0], in[1], in[2], &fixed[0], &fixed[1], &fixed[2]);
    if (g.outputs == 4) k.out4(&g, in[0], in[1], in[2], fixed.data());
  } else {
    k.in4_n_out(&g, in[0], in[1], in[2], in[3], out.data());
    if (g.outputs == 3) k.in4_out3(&g, in[0], in[1], in[2], in[3], &fixed[0], &fixed[1], &fixed[2]);
  }
  const bool has_fixed = g.outputs == 3 || (g.outputs == 4 && g.inputs == 3);
  if (has_fixed) {
    for (uint32_t o = 0; o < g.outputs; ++o) EXPECT_EQ(fixed[o], out[o]) << "output " << o;
  }
  return out;
}

// Properties every scheme has.
class TableInterpolatorKernels : public testing::TestWithParam<int32_t> {};

std::string scheme_name(const testing::TestParamInfo<int32_t> &param) {
  return param.param == ZT_INTERP_PRISM         ? "Prism"
         : param.param == ZT_INTERP_TETRAHEDRAL ? "Tetrahedral"
                                                : "TriLinear";
}

// On a single cell (two points per input) every output is the corners' values
// weighted by the scheme's closed-form weights. Random inputs, a quarter on
// the prism split (a tie in the simplex walk), a fifth at 65535 on one input.
TEST_P(TableInterpolatorKernels, OneCellMatchesTheClosedFormWeights) {
  const int32_t scheme = GetParam();
  std::mt19937 rng(static_cast<uint32_t>(scheme));
  for (uint32_t inputs : {3u, 4u}) {
    for (uint32_t outputs : {1u, 3u, 4u, 6u}) {
      const Table t =
          make_table(inputs, 2, outputs, [&](const uint32_t *, uint32_t) { return float(rng() % 65536); });
      const ZT_InterpGrid g = grid_of(t);
      for (int i = 0; i < 20000; ++i) {
        uint16_t in[4];
        double f[4];
        for (uint16_t &v : in) v = static_cast<uint16_t>(rng());
        if (i % 4 == 0) in[1] = in[0];
        if (i % 5 == 0) in[rng() % inputs] = 65535;
        for (uint32_t a = 0; a < 4; ++a) f[a] = in[a] / 65535.0;
        const std::vector<uint16_t> out = evaluate(g, scheme, in);
        for (uint32_t o = 0; o < outputs; ++o) {
          double want = 0;
          for (uint32_t c = 0; c < (1u << inputs); ++c)
            want += hat(scheme, inputs, c, f) * t.values[c * outputs + o];
          ASSERT_NEAR(out[o], std::floor(want + 0.5), 1.0)
              << inputs << " inputs, output " << o << " at " << in[0] << "," << in[1] << "," << in[2] << ","
              << in[3];
        }
      }
    }
  }
  // The scale never takes an input below 65535 into a cell beyond n - 2.
  const float dummy = 0;
  for (uint32_t n = 2; n <= ZT_INTERP_MAX_POINTS; ++n) {
    ZT_InterpGrid g;
    ASSERT_EQ(TableInterpolatorGridSetup(&g, 3, n, 1, &dummy), 0);
    EXPECT_LE(static_cast<uint32_t>(65534.0f * g.scale), n - 2) << n;
  }
}

// Where (n - 1) divides 65535 every grid point is an input value; integer
// table values must come back as they are, whatever rounding the scale and
// the fraction suffer on the way. The grid is exactly as long as the table,
// so a read beyond its top corner trips ASan.
TEST_P(TableInterpolatorKernels, GridPointsComeOutExactly) {
  const int32_t scheme = GetParam();
  for (const auto &[inputs, points] :
       {std::pair{3u, 2u}, {3u, 4u}, {3u, 16u}, {3u, 18u}, {4u, 2u}, {4u, 4u}, {4u, 6u}}) {
    const Table t = make_table(inputs, points, 3, [&](const uint32_t *idx, uint32_t o) {
      uint32_t v = o * 7 + 1;
      for (uint32_t a = 0; a < inputs; ++a) v = v * 2654435761u + idx[a] * (a + 3);
      return static_cast<float>(v % 65536);
    });
    const ZT_InterpGrid g = grid_of(t);
    for (size_t p = 0; p < t.values.size() / 3; ++p) {
      uint16_t in[4];
      size_t rest = p;
      for (uint32_t a = inputs; a-- > 0; rest /= points)
        in[a] = static_cast<uint16_t>(rest % points * (65535 / (points - 1)));
      const std::vector<uint16_t> out = evaluate(g, scheme, in);
      for (uint32_t o = 0; o < 3; ++o)
        ASSERT_EQ(out[o], t.values[p * 3 + o]) << inputs << " inputs, n " << points << " point " << p;
    }
  }
}

// A table that is linear in its inputs is interpolated without error by
// every scheme: only the final rounding and single precision may show. Every
// value passes along the first axis, the others vary with it; the identity
// table (slope 1, the full output range) is one of the planes.
TEST_P(TableInterpolatorKernels, LinearTablesComeOutExactly) {
  const int32_t scheme = GetParam();
  uint32_t seed = 40;
  for (uint32_t inputs : {3u, 4u}) {
    for (uint32_t n : {2u, 9u, 17u, 33u}) {
      std::mt19937 rng(++seed);
      std::uniform_real_distribution<double> slope(-0.24, 0.24), offset(-1000.0, 1000.0);
      double a[4][4] = {}, b[4] = {};
      for (uint32_t o = 0; o < 4; ++o) {
        if (n == 33) {  // the identity
          a[o][o % inputs] = o < inputs ? 1 : 0;
          b[o] = o < inputs ? 0 : 5;
          continue;
        }
        b[o] = 32767.5 + offset(rng);
        for (uint32_t i = 0; i < inputs; ++i) b[o] -= (a[o][i] = slope(rng)) * 32767.5;
      }
      auto plane = [&](uint32_t o, const double *x) {
        double v = b[o];
        for (uint32_t i = 0; i < inputs; ++i) v += a[o][i] * x[i];
        return v;
      };
      const Table t = make_table(inputs, n, 4, [&](const uint32_t *idx, uint32_t o) {
        double x[4];
        for (uint32_t i = 0; i < inputs; ++i) x[i] = idx[i] * 65535.0 / (n - 1);
        return static_cast<float>(plane(o, x));
      });
      const ZT_InterpGrid g = grid_of(t);
      double worst = 0;
      for (uint32_t k = 0; k < 65536; ++k) {
        uint16_t in[4] = {static_cast<uint16_t>(k), static_cast<uint16_t>(k * 7919u + 13),
                          static_cast<uint16_t>(k * 104729u + 5), static_cast<uint16_t>(65535u - k)};
        if (k % 3 == 0) in[2] = in[0];  // equal fractions
        if (k % 7 == 0) in[k / 7 % inputs] = 65535;
        double x[4];
        for (uint32_t i = 0; i < 4; ++i) x[i] = in[i];
        const std::vector<uint16_t> out = evaluate(g, scheme, in);
        for (uint32_t o = 0; o < 4; ++o) worst = std::max(worst, std::abs(out[o] - plane(o, x)));
      }
      EXPECT_LT(worst, 0.53) << inputs << " inputs, n " << n;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Schemes, TableInterpolatorKernels,
                         testing::Values(ZT_INTERP_TRILINEAR, ZT_INTERP_PRISM, ZT_INTERP_TETRAHEDRAL),
                         scheme_name);

// With fa = fb the corner between the two walks weighs 0 in both, so only a
// NaN there tells which one the kernel took: prism takes its second triangle
// (corners 0, 2, 6) and the simplex walk steps along the second input first,
// so a NaN in corner 4 (first input only) stays unseen and one in corner 2
// comes through.
TEST(TableInterpolatorSplit, EqualFirstFractionsStepAlongTheSecondInputFirst) {
  for (int32_t scheme : {ZT_INTERP_PRISM, ZT_INTERP_TETRAHEDRAL}) {
    const KernelSet k = kernels_of(scheme);
    for (uint32_t inputs : {3u, 4u}) {
      const uint32_t corners = 1u << inputs, a_bit = corners / 2, b_bit = corners / 4;
      for (uint32_t poisoned : {a_bit, b_bit}) {
        // n = 2: a single cell whose grid points are the corners.
        std::vector<float> values(corners);
        for (uint32_t c = 0; c < corners; ++c) values[c] = static_cast<float>(1000 * (c + 1));
        values[poisoned] = std::numeric_limits<float>::quiet_NaN();
        ZT_InterpGrid g;
        ASSERT_EQ(TableInterpolatorGridSetup(&g, inputs, 2, 1, values.data()), 0);
        uint16_t out = 0;
        if (inputs == 3)
          k.n_out(&g, 40000, 40000, 30000, &out);
        else
          k.in4_n_out(&g, 40000, 40000, 30000, 20000, &out);
        if (poisoned == a_bit)
          EXPECT_GT(out, 1000) << scheme << " " << inputs;
        else
          EXPECT_EQ(out, 0) << scheme << " " << inputs;  // the NaN, clamped
      }
    }
  }
}

#if defined(ZT_HAVE_LCMS2)
// Little CMS evaluates 16-bit three-input tables tetrahedrally, in fixed
// point: a random table must agree within one code everywhere, edges and
// equal fractions included. The table is a random smooth one with noise of
// +-2000 codes, in integers so that both hold the same grid. (On white noise,
// steps of up to 65535 codes between neighbours, Little CMS's 16-bit
// fractions put it 2 codes off the exact value now and then.)
TEST(TableInterpolatorTetrahedral, AgreesWithLittleCmsWithinOneCode) {
  for (uint32_t outputs : {3u, 4u}) {
    std::mt19937 rng(outputs);
    std::uniform_real_distribution<float> noise(-2000.0f, 2000.0f);
    Table t = smooth_table(3, 17, outputs, outputs + 30);
    for (float &v : t.values) v = std::clamp(std::floor(v + noise(rng)), 0.0f, 65535.0f);
    const std::vector<uint16_t> t16(t.values.begin(), t.values.end());
    cmsStage *stage = cmsStageAllocCLut16bit(nullptr, 17, 3, outputs, t16.data());
    cmsPipeline *lut = cmsPipelineAlloc(nullptr, 3, outputs);
    ASSERT_TRUE(stage != nullptr && lut != nullptr && cmsPipelineInsertStage(lut, cmsAT_BEGIN, stage));
    const ZT_InterpGrid g = grid_of(t);
    const uint16_t edges[] = {0, 1, 4095, 4096, 65534, 65535};
    for (int k = 0; k < 200000; ++k) {
      uint16_t in[3];
      for (uint16_t &v : in) v = static_cast<uint16_t>(rng());
      if (k % 4 == 0) in[rng() % 3] = in[rng() % 3];
      if (k % 5 == 0) in[rng() % 3] = edges[rng() % std::size(edges)];
      uint16_t theirs[4];
      cmsPipelineEval16(in, theirs, lut);
      const std::vector<uint16_t> ours = evaluate(g, ZT_INTERP_TETRAHEDRAL, in);
      for (uint32_t o = 0; o < outputs; ++o) {
        ASSERT_LE(std::abs(ours[o] - theirs[o]), 1)
            << outputs << " outputs, output " << o << " at " << in[0] << "," << in[1] << "," << in[2];
      }
    }
    cmsPipelineFree(lut);
  }
}
#endif

// Rectangles, at every dispatch level, against the one-pixel kernels.
class TableInterpolatorRect : public testing::TestWithParam<int32_t> {
 protected:
  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  zt::test::SimdLevelScope level_{GetParam()};
};

// Converts with `interp` (made from `t`) and checks every sample against the
// kernels, and that the padding after each destination line is untouched.
void check_rect(ZT_TableInterpolator *interp, const Table &t, int32_t scheme, uint32_t bytes,
                uint32_t interleave, uint32_t pixels, uint32_t lines, uint32_t seed) {
  SCOPED_TRACE(testing::Message() << "bytes " << bytes << " interleave " << interleave << " pixels " << pixels
                                  << " scheme " << scheme << " " << t.inputs << "->" << t.outputs);
  const uint32_t src_step = pixels * t.inputs * bytes + 24, dst_step = pixels * t.outputs * bytes + 10;
  std::vector<uint8_t> src(src_step * lines), dst(dst_step * lines, 0xA5);
  std::mt19937 rng(seed);
  for (uint8_t &b : src) b = static_cast<uint8_t>(rng());
  // Every third pixel has equal first and second fractions (the prism split,
  // a tie in the simplex walk's sort), every fifth is at the top of one input.
  auto in_at = [&](uint32_t y, uint32_t x, uint32_t c) {
    return src.data() + size_t{y} * src_step +
           (interleave ? size_t{c} * pixels + x : size_t{x} * t.inputs + c) * bytes;
  };
  for (uint32_t y = 0; y < lines; ++y) {
    for (uint32_t x = 0; x < pixels; x += 3) std::memcpy(in_at(y, x, 1), in_at(y, x, 0), bytes);
    for (uint32_t x = 1; x < pixels; x += 5) std::memset(in_at(y, x, x % t.inputs), 0xFF, bytes);
  }
  ASSERT_EQ(TableInterpolatorConvertRect(interp, src.data(), src_step, dst.data(), dst_step, pixels, lines,
                                         interleave),
            0);
  const ZT_InterpGrid g = grid_of(t);
  auto sample = [&](const uint8_t *line, uint32_t channels, uint32_t x, uint32_t c) -> uint32_t {
    const size_t at = interleave ? size_t{c} * pixels + x : size_t{x} * channels + c;
    if (bytes == 1) return line[at];
    uint16_t v;
    std::memcpy(&v, line + 2 * at, 2);
    return v;
  };
  for (uint32_t y = 0; y < lines; ++y) {
    const uint8_t *in_line = src.data() + size_t{y} * src_step, *out_line = dst.data() + size_t{y} * dst_step;
    for (uint32_t x = 0; x < pixels; ++x) {
      uint16_t in[4];
      for (uint32_t a = 0; a < t.inputs; ++a) {
        const uint32_t v = sample(in_line, t.inputs, x, a);
        in[a] = static_cast<uint16_t>(bytes == 1 ? v * 257 : v);
      }
      const std::vector<uint16_t> want = evaluate(g, scheme, in);
      for (uint32_t o = 0; o < t.outputs; ++o) {
        const uint32_t expect =
            bytes == 1 ? static_cast<uint32_t>(std::floor(want[o] * 255.0 / 65535.0 + 0.5)) : want[o];
        ASSERT_EQ(sample(out_line, t.outputs, x, o), expect)
            << "line " << y << " pixel " << x << " output " << o;
      }
    }
    for (uint32_t b = pixels * t.outputs * bytes; b < dst_step; ++b) ASSERT_EQ(out_line[b], 0xA5);
  }
}

// Wild tables are off the 0 ... 65535 scale, with NaN and infinities: the
// clamp before rounding must land every form on the same samples.
TEST_P(TableInterpolatorRect, EveryLayoutMatchesTheKernelsOnOneAndSeveralWorkers) {
  struct Case {
    uint32_t inputs, points, outputs;
    int32_t scheme;
    bool wild;
  };
  const Case cases[] = {{3, 17, 4, ZT_INTERP_TRILINEAR, false},   {3, 9, 3, ZT_INTERP_PRISM, false},
                        {4, 9, 3, ZT_INTERP_TRILINEAR, false},    {4, 5, 3, ZT_INTERP_PRISM, false},
                        {3, 5, 7, ZT_INTERP_PRISM, false},        {4, 3, 2, ZT_INTERP_TRILINEAR, false},
                        {3, 17, 4, ZT_INTERP_TETRAHEDRAL, false}, {3, 9, 3, ZT_INTERP_TETRAHEDRAL, false},
                        {4, 9, 3, ZT_INTERP_TETRAHEDRAL, false},  {4, 5, 6, ZT_INTERP_TETRAHEDRAL, false},
                        {3, 5, 4, ZT_INTERP_TRILINEAR, true},     {3, 5, 4, ZT_INTERP_PRISM, true},
                        {3, 5, 4, ZT_INTERP_TETRAHEDRAL, true},   {4, 3, 3, ZT_INTERP_TETRAHEDRAL, true}};
  const float wild[] = {-1e9f,
                        -0.4f,
                        65535.4f,
                        1e9f,
                        std::numeric_limits<float>::quiet_NaN(),
                        std::numeric_limits<float>::infinity(),
                        -std::numeric_limits<float>::infinity()};
  uint32_t seed = 7;
  for (const Case &c : cases) {
    Table t = smooth_table(c.inputs, c.points, c.outputs, seed);
    for (size_t i = 0; c.wild && i < t.values.size(); i += 3) t.values[i] = wild[(i * 5 + seed) % 7];
    for (uint32_t bytes : {1u, 2u}) {
      auto *init = bytes == 1 ? TableInterpolatorInit_uchar : TableInterpolatorInit_ushort;
      ZT_TableInterpolator *interp =
          init(c.inputs, c.points, c.outputs, t.values.data(), c.scheme, 1, nullptr);
      ASSERT_NE(interp, nullptr);
      for (int32_t workers : {1, 3}) {
        ASSERT_EQ(TableInterpolatorAllocateThreadsAndCaches(interp, workers), 0);
        for (uint32_t interleave : {0u, 1u})
          for (uint32_t pixels : {1u, 37u, 203u})
            check_rect(interp, t, c.scheme, bytes, interleave, pixels, 3, ++seed);
      }
      TableInterpolatorDestroy(interp);
    }
  }
}

// Every 16-bit value narrows to 8 bits by the depth rule: constant tables of
// 16 outputs make the interpolator produce each value exactly once.
TEST_P(TableInterpolatorRect, EightBitOutputsRoundEverySixteenBitValue) {
  const uint8_t in[3] = {1, 128, 255};
  for (uint32_t first = 0; first < 65536; first += 16) {
    const Table t =
        make_table(3, 2, 16, [&](const uint32_t *, uint32_t o) { return static_cast<float>(first + o); });
    ZT_TableInterpolator *interp =
        TableInterpolatorInit_uchar(3, 2, 16, t.values.data(), ZT_INTERP_PRISM, 1, nullptr);
    ASSERT_NE(interp, nullptr);
    uint8_t out[16];
    ASSERT_EQ(TableInterpolatorConvertRect(interp, in, 3, out, 16, 1, 1, 0), 0);
    for (uint32_t o = 0; o < 16; ++o)
      ASSERT_EQ(out[o], static_cast<uint8_t>(std::floor((first + o) * 255.0 / 65535.0 + 0.5))) << first + o;
    TableInterpolatorDestroy(interp);
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, TableInterpolatorRect, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

class TableInterpolatorApi : public testing::Test {
 protected:
  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  LogCapture log_;
  Table table_ = smooth_table(3, 5, 4, 11);
  ZT_TableInterpolator *make(const char *key, int32_t scheme = ZT_INTERP_PRISM) {
    return TableInterpolatorInit_ushort(3, 5, 4, table_.values.data(), scheme, 2, key);
  }
};

TEST_F(TableInterpolatorApi, KeyedInterpolatorsShareOneTableUntilTheLastReference) {
  ZT_TableInterpolator *a = make("profile.icc#0");
  ZT_TableInterpolator *b = make("profile.icc#0");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a, b);
  // Another key, scheme or sample size is another table; no key is private.
  ZT_TableInterpolator *other = make("profile.icc#1");
  ZT_TableInterpolator *trilinear = make("profile.icc#0", ZT_INTERP_TRILINEAR);
  ZT_TableInterpolator *tetrahedral = make("profile.icc#0", ZT_INTERP_TETRAHEDRAL);
  ZT_TableInterpolator *eight =
      TableInterpolatorInit_uchar(3, 5, 4, table_.values.data(), ZT_INTERP_PRISM, 1, "profile.icc#0");
  ZT_TableInterpolator *mine = make(nullptr);
  for (ZT_TableInterpolator *p : {other, trilinear, tetrahedral, eight, mine})
    EXPECT_TRUE(p != nullptr && p != a);
  EXPECT_NE(tetrahedral, trilinear);

  EXPECT_EQ(TableInterpolatorCacheAddReference(a), 0);  // three references now
  TableInterpolatorDestroy(a);
  EXPECT_EQ(TableInterpolatorCacheRemoveReference(a), 0);
  EXPECT_EQ(make("profile.icc#0"), a) << "one reference left: still cached";
  TableInterpolatorDestroy(a);
  TableInterpolatorDestroy(b);  // the last: freed (ASan sees a use after this)
  ZT_TableInterpolator *fresh = make("profile.icc#0");
  EXPECT_EQ(TableInterpolatorCacheRemoveReference(fresh), 0);
  EXPECT_EQ(log_.count(), 0u);

  EXPECT_EQ(TableInterpolatorCacheAddReference(mine), -1);
  EXPECT_EQ(TableInterpolatorCacheRemoveReference(nullptr), -1);
  ASSERT_EQ(log_.count(), 2u);
  for (const auto &line : log_.lines()) EXPECT_EQ(line.message, "TABLEINTERPOLATOR was not found in cache");
  for (ZT_TableInterpolator *p : {other, trilinear, tetrahedral, eight, mine}) TableInterpolatorDestroy(p);
  TableInterpolatorDestroy(nullptr);
}

TEST_F(TableInterpolatorApi, ShutDownLetsGoOfCachedTablesTheirHoldersStillFree) {
  ZT_TableInterpolator *held = make("kept");
  ASSERT_NE(held, nullptr);
  TableInterpolatorStaticFree();
  EXPECT_EQ(TableInterpolatorCacheAddReference(held), -1);
  ZT_TableInterpolator *again = make("kept");
  EXPECT_NE(again, held);
  uint16_t src[3 * 64] = {}, dst[4 * 64];
  EXPECT_EQ(TableInterpolatorConvertRect(held, src, 0, dst, 0, 64, 1, 0), 0);
  TableInterpolatorDestroy(held);
  TableInterpolatorDestroy(again);
  EXPECT_EQ(log_.count(), 1u);
  ASSERT_EQ(TableInterpolatorStaticInit(), 0);
}

TEST_F(TableInterpolatorApi, BadArgumentsLogOnceAndFail) {
  const float *v = table_.values.data();
  uint16_t src[3 * 8] = {}, dst[4 * 8];
  ZT_TableInterpolator *interp = make(nullptr);
  struct Call {
    const char *what;
    bool failed;
  };
  const Call calls[] = {
      {"two inputs", TableInterpolatorInit_ushort(2, 5, 4, v, 0, 1, nullptr) == nullptr},
      {"one point", TableInterpolatorInit_ushort(3, 1, 4, v, 0, 1, nullptr) == nullptr},
      {"too many outputs", TableInterpolatorInit_uchar(3, 5, 17, v, 0, 1, nullptr) == nullptr},
      {"no table", TableInterpolatorInit_ushort(3, 5, 4, nullptr, 0, 1, "k") == nullptr},
      {"scheme", TableInterpolatorInit_ushort(3, 5, 4, v, 3, 1, nullptr) == nullptr},
      {"too large", TableInterpolatorInit_ushort(4, 256, 16, v, 0, 1, nullptr) == nullptr},
      {"grid NULL", TableInterpolatorGridSetup(nullptr, 3, 5, 4, v) == -1},
      {"rect NULL interpolator", TableInterpolatorConvertRect(nullptr, src, 24, dst, 32, 4, 2, 0) == -1},
      {"rect interleave", TableInterpolatorConvertRect(interp, src, 24, dst, 32, 4, 2, 2) == -1},
      {"rect NULL source", TableInterpolatorConvertRect(interp, nullptr, 24, dst, 32, 4, 2, 0) == -1},
      {"rect short source step", TableInterpolatorConvertRect(interp, src, 23, dst, 32, 4, 2, 0) == -1},
      {"rect short destination step", TableInterpolatorConvertRect(interp, src, 24, dst, 31, 4, 2, 1) == -1},
      {"threads NULL", TableInterpolatorAllocateThreadsAndCaches(nullptr, 2) == -1},
  };
  for (const Call &c : calls) {
    EXPECT_TRUE(c.failed) << c.what;
  }
  EXPECT_EQ(log_.count(), std::size(calls));
  log_.clear();
  // Nothing to convert is no error; one line needs no step.
  EXPECT_EQ(TableInterpolatorConvertRect(interp, src, 0, dst, 0, 0, 5, 0), 0);
  EXPECT_EQ(TableInterpolatorConvertRect(interp, src, 0, dst, 0, 8, 1, 0), 0);
  EXPECT_EQ(log_.count(), 0u);
  TableInterpolatorDestroyThreadsAndCaches(interp);
  TableInterpolatorDestroyThreadsAndCaches(nullptr);
  TableInterpolatorDestroy(interp);
}

// Several threads convert through one shared interpolator, each spreading its
// rectangle over the task queue, while others take and drop references.
TEST(TableInterpolatorMT, SharedInterpolatorConvertsConcurrently) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  LibraryScope library;
  const Table t = smooth_table(4, 9, 3, 5);
  ZT_TableInterpolator *shared =
      TableInterpolatorInit_ushort(4, 9, 3, t.values.data(), ZT_INTERP_TRILINEAR, 2, "shared");
  ASSERT_NE(shared, nullptr);
  constexpr uint32_t kPixels = 300, kLines = 6;
  std::vector<uint16_t> src(kPixels * kLines * 4);
  std::mt19937 rng(3);
  for (uint16_t &v : src) v = static_cast<uint16_t>(rng());
  std::vector<uint16_t> expected(kPixels * kLines * 3);
  ASSERT_EQ(TableInterpolatorConvertRect(shared, src.data(), kPixels * 8, expected.data(), kPixels * 6,
                                         kPixels, kLines, 0),
            0);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      std::vector<uint16_t> out(expected.size());
      for (int round = 0; round < 20; ++round) {
        ZT_TableInterpolator *mine =
            TableInterpolatorInit_ushort(4, 9, 3, t.values.data(), ZT_INTERP_TRILINEAR, 2, "shared");
        if (mine != shared ||
            TableInterpolatorConvertRect(mine, src.data(), kPixels * 8, out.data(), kPixels * 6, kPixels,
                                         kLines, i % 2) != 0 ||
            (i % 2 == 0 && out != expected))
          ++mismatches[i];
        TableInterpolatorDestroy(mine);
      }
    });
  }
  for (std::thread &th : threads) th.join();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(mismatches[i], 0) << i;
  EXPECT_EQ(TableInterpolatorCacheRemoveReference(shared), 0);
}

}  // namespace
