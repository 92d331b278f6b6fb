// Resampling: the filters and interpolators against their curves, the pull
// model's bookkeeping and refusals, and the engine's output against a
// double-precision resampler written here from the documented mapping, across
// depth pairs, processor forms, thread splits and the weight cache.
#include <gtest/gtest.h>
#include <zt/cpu.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::SimdLevelScope;

// The filters, checked against facts that do not come from their formulas:
// values published for each kernel, symmetry, continuity, the support, and
// the partition of unity that makes a flat image stay flat.

// clang-format off
const double kSupport[18] = {0, 1.0, 0.5, 1.0, 1.5, 2.0, 3.0, 2.0, 2.0, 1.3712, 2.0, 2.0, 1.0, 4.5, 2.703395061,
                             2.0, 2.0, 2.0};
// clang-format on

struct KnownValue {
  uint32_t id;
  double x, value, tolerance;
};
// Mitchell-Netravali (B, C) splines have f(0) = (6 - 2B) / 6 and f(1) = B / 6;
// Keys' cubic with parameter a is 1 at 0 and (a + 2) / 8 - (a + 3) / 4 + 1 at
// 0.5; the quadratic B-spline is 3/4, 1/2, 1/8 at 0, 0.5, 1; Lanczos-3 at 0.5
// is sinc(0.5) sinc(1/6) = 0.607927 (pi to five decimals moves it by 1e-6).
const KnownValue kKnown[] = {
    {ZT_FILTER_HERMITE, 0, 1, 0},          {ZT_FILTER_HERMITE, 0.5, 0.5, 1e-15},
    {ZT_FILTER_BOX, 0.5, 1, 0},            {ZT_FILTER_BOX, -0.5, 0, 0},
    {ZT_FILTER_TRIANGLE, 0.25, 0.75, 0},   {ZT_FILTER_BELL, 0, 0.75, 0},
    {ZT_FILTER_BELL, 0.5, 0.5, 1e-15},     {ZT_FILTER_BELL, 1, 0.125, 1e-15},
    {ZT_FILTER_BSPLINE, 0, 2.0 / 3, 1e-15}, {ZT_FILTER_BSPLINE, 1, 1.0 / 6, 1e-15},
    {ZT_FILTER_LANCZOS3, 0, 1, 0},         {ZT_FILTER_LANCZOS3, 0.5, 0.607927, 1e-5},
    {ZT_FILTER_LANCZOS3, 1, 0, 1e-5},      {ZT_FILTER_MITCHELL, 0, 8.0 / 9, 1e-15},
    {ZT_FILTER_MITCHELL, 1, 1.0 / 18, 1e-15}, {ZT_FILTER_CUBIC_B15, 0, 0.5, 1e-15},
    {ZT_FILTER_CUBIC_B15, 1, 0.25, 1e-15}, {ZT_FILTER_GAUSSIAN, 0, 1, 0},
    {ZT_FILTER_GAUSSIAN, 1, 0.25, 1e-15},  {ZT_FILTER_BUTTERWORTH, 1.5, 0.5, 1e-15},
    {ZT_FILTER_KEYS_05, 0.5, 0.5625, 1e-15}, {ZT_FILTER_KEYS_05, 1, 0, 1e-15},
    {ZT_FILTER_KEYS_075, 0.5, 0.59375, 1e-15}, {ZT_FILTER_CATMULL_ROM, 0.5, 0.5625, 1e-15},
};

// A filter's value through the library's own table, which the test above
// holds to the published facts; the reference resampler below builds on it.
double filter_value(uint32_t id, double x) {
  ResampleFilterFn fn = nullptr;
  double support = 0;
  if (resampleFilteredGetFilter(id, &fn, &support) != 0) return 0.0;
  return fn(x);
}

TEST(ResampleFilterTest, KnownValuesSymmetryContinuityAndPartitionOfUnity) {
  LibraryScope library;
  ResampleFilterFn fn = nullptr;
  double support = 0;
  for (const KnownValue &k : kKnown) {
    ASSERT_EQ(resampleFilteredGetFilter(k.id, &fn, &support), 0);
    EXPECT_NEAR(fn(k.x), k.value, k.tolerance) << "filter " << k.id << " at " << k.x;
  }
  const uint32_t kUnity[] = {ZT_FILTER_HERMITE, ZT_FILTER_BOX,       ZT_FILTER_TRIANGLE, ZT_FILTER_BELL,
                             ZT_FILTER_BSPLINE, ZT_FILTER_MITCHELL,  ZT_FILTER_CUBIC_B15, ZT_FILTER_KEYS_05,
                             ZT_FILTER_KEYS_075, ZT_FILTER_CATMULL_ROM};
  for (uint32_t id = ZT_FILTER_FIRST; id <= ZT_FILTER_LAST; ++id) {
    ASSERT_EQ(resampleFilteredGetFilter(id, &fn, &support), 0) << id;
    EXPECT_EQ(support, kSupport[id]) << id;
    EXPECT_EQ(fn(support + 1e-9), 0.0) << id;
    EXPECT_EQ(fn(-support - 1e-9), 0.0) << id;
    const bool unity = std::find(std::begin(kUnity), std::end(kUnity), id) != std::end(kUnity);
    for (int k = 1; k < 256; ++k) {
      const double x = support * k / 256.0;
      if (id != ZT_FILTER_BOX) {
        EXPECT_EQ(fn(x), fn(-x)) << "filter " << id << " is not even at " << x;
        // Continuous inside the support (the cut filters jump only at its end).
        EXPECT_NEAR(fn(x), fn(x + 1e-9), 1e-6) << "filter " << id << " jumps at " << x;
      }
      if (unity) {
        const double t = k / 256.0;
        double sum = 0;
        for (int j = -6; j <= 6; ++j) sum += fn(t + j);
        EXPECT_NEAR(sum, 1.0, 1e-12) << "filter " << id << " at offset " << t;
      }
    }
  }
}

TEST(ResampleFilterTest, CutFiltersEndAtTheirSupportAndOthersAreRefused) {
  LibraryScope library;
  ResampleFilterFn fn = nullptr, hermite = nullptr;
  double support = 0;
  ASSERT_EQ(resampleFilteredGetFilter(ZT_FILTER_HERMITE, &hermite, &support), 0);
  // The cut filters are zero at their support though their curve is not.
  for (uint32_t id : {11u, 13u, 14u}) {
    resampleFilteredGetFilter(id, &fn, &support);
    EXPECT_GT(fn(std::nextafter(support, 0.0)), 1e-6) << id;
  }
  // A refusal still leaves a usable filter: Hermite, support 1.
  LogCapture log;
  for (uint32_t id : {0u, 18u, 1000u}) {
    support = 7;
    EXPECT_EQ(resampleFilteredGetFilter(id, &fn, &support), -1) << id;
    EXPECT_EQ(fn, hermite);
    EXPECT_EQ(support, 1.0);
  }
  fn = nullptr;
  support = 7;
  EXPECT_EQ(resampleFilteredGetFilter(6, nullptr, &support), -1);
  EXPECT_EQ(support, 1.0);
  EXPECT_EQ(resampleFilteredGetFilter(6, &fn, nullptr), -1);
  EXPECT_EQ(fn, hermite);
  EXPECT_EQ(log.count(), 5u);
  for (const auto &line : log.lines()) EXPECT_EQ(line.message, "Uknown filter type requested");
}

// Interpolators: properties rather than their formulas.

TEST(InterpolatorTest, EndPointsAndReproducedCurves) {
  const double y[4] = {3.0, -2.0, 7.5, 1.25};
  EXPECT_EQ(LinearInterpolate(y[1], y[2], 0), y[1]);
  EXPECT_EQ(LinearInterpolate(y[1], y[2], 1), y[2]);
  EXPECT_DOUBLE_EQ(LinearInterpolate(y[1], y[2], 0.25), -2.0 + 9.5 / 4);
  EXPECT_EQ(CosineInterpolate(y[1], y[2], 0), y[1]);
  EXPECT_NE(CosineInterpolate(0, 1, 1), 1.0);  // pi is 3.14159
  EXPECT_NEAR(CosineInterpolate(0, 1, 1), 1.0, 1e-10);
  EXPECT_NEAR(CosineInterpolate(y[1], y[2], 0.5), (y[1] + y[2]) / 2, 1e-5);
  EXPECT_EQ(CubicInterpolate(y[0], y[1], y[2], y[3], 0), y[1]);
  EXPECT_DOUBLE_EQ(CubicInterpolate(y[0], y[1], y[2], y[3], 1), y[2]);
  for (double tb : {-1.0, 0.0, 0.4, 1.0}) {
    EXPECT_DOUBLE_EQ(HermiteInterpolate(y[0], y[1], y[2], y[3], 0, tb, -tb / 2), y[1]);
    EXPECT_DOUBLE_EQ(HermiteInterpolate(y[0], y[1], y[2], y[3], 1, tb, 0.7 - tb), y[2]);
  }
  for (double t = 0; t <= 1.0; t += 0.125) {
    // Samples of a line: Hermite with plain tangents and Catmull-Rom give it back;
    // full tension flattens the tangents to a smooth step between y1 and y2.
    EXPECT_NEAR(HermiteInterpolate(1, 3, 5, 7, t, 0, 0), 3 + 2 * t, 1e-12);
    EXPECT_NEAR(HermiteInterpolate(0, 0, 1, 1, t, 1, 0.3), 3 * t * t - 2 * t * t * t, 1e-12);
    // Bias 1 takes both tangents from the segments before them, so y3 has no
    // say; bias -1 from the segments after them, so y0 has none.
    EXPECT_NEAR(HermiteInterpolate(0, 1, 4, 9, t, 0, 1), HermiteInterpolate(0, 1, 4, -50, t, 0, 1), 1e-12);
    EXPECT_NEAR(HermiteInterpolate(0, 1, 4, 9, t, 0, -1), HermiteInterpolate(80, 1, 4, 9, t, 0, -1), 1e-12);
    // Catmull-Rom reproduces any quadratic, and is the curve of filters 15 and 17.
    auto q = [](double s) { return 0.75 * s * s - 2 * s + 4; };
    EXPECT_NEAR(CatmullRomInterpolate(q(-1), q(0), q(1), q(2), t), q(t), 1e-12);
    const double cr = CatmullRomInterpolate(y[0], y[1], y[2], y[3], t);
    EXPECT_DOUBLE_EQ(CatmullRomInterpolate3(y[0], y[1], y[2], y[3], t, t * t, t * t * t), cr);
    double weighted = 0;
    for (int k = 0; k < 4; ++k) weighted += y[k] * filter_value(ZT_FILTER_KEYS_05, (k - 1) - t);
    EXPECT_NEAR(cr, weighted, 1e-12) << t;
  }
}

// Images, the read side and the pull loop.

struct Image {
  uint32_t w = 0, h = 0, planes = 0, bits = 8;
  std::vector<uint16_t> px;  // [(y * planes + c) * w + x]
  uint16_t &at(uint32_t x, uint32_t y, uint32_t c) { return px[(size_t{y} * planes + c) * w + x]; }
  uint16_t at(uint32_t x, uint32_t y, uint32_t c) const { return px[(size_t{y} * planes + c) * w + x]; }
};

Image blank(uint32_t w, uint32_t h, uint32_t planes, uint32_t bits) {
  return Image{w, h, planes, bits, std::vector<uint16_t>(size_t{w} * h * planes)};
}

Image noise(uint32_t w, uint32_t h, uint32_t planes, uint32_t bits, uint32_t seed) {
  Image im = blank(w, h, planes, bits);
  std::mt19937 rng(seed);
  for (auto &v : im.px) v = static_cast<uint16_t>(rng() & (bits == 8 ? 0xFFu : 0xFFFFu));
  return im;
}

// One level per plane.
Image flat(uint32_t w, uint32_t h, uint32_t bits, const std::vector<uint16_t> &levels) {
  Image im = blank(w, h, static_cast<uint32_t>(levels.size()), bits);
  for (size_t i = 0; i < im.px.size(); ++i) im.px[i] = levels[i / w % levels.size()];
  return im;
}

// Sample (x, c) of a line buffer, by its plane-row stride.
uint8_t *sample_at(const ScanlineBuf *b, uint32_t x, uint32_t c) {
  return b->data + size_t{c} * b->bytesPerPlaneRow + size_t{x} * (b->bitsPerPixel / 8);
}

uint32_t sample(const ScanlineBuf *b, uint32_t x, uint32_t c) {
  uint16_t v = *sample_at(b, x, c);
  if (b->bitsPerPixel == 16) std::memcpy(&v, sample_at(b, x, c), 2);
  return v;
}

void set_sample(ScanlineBuf *b, uint32_t x, uint32_t c, uint32_t v) {
  const auto s = static_cast<uint16_t>(v);
  if (b->bitsPerPixel == 16) std::memcpy(sample_at(b, x, c), &s, 2);
  if (b->bitsPerPixel == 8) *sample_at(b, x, c) = static_cast<uint8_t>(v);
}

// What the callbacks saw.
struct Feed {
  explicit Feed(const Image *im = nullptr) : image(im) {}
  const Image *image;
  std::vector<uint32_t> reads, nullReads, skips, produced;
  uint32_t failAt = UINT32_MAX;
  bool badBuffer = false;
};

int32_t read_line(void *user, ScanlineBuf *dst, uint32_t line) {
  auto *f = static_cast<Feed *>(user);
  if (line == f->failAt) return 5;
  if (!dst) {
    f->nullReads.push_back(line);
    return 0;
  }
  f->reads.push_back(line);
  const Image &im = *f->image;
  if (dst->interleave != ZT_INTERLEAVE_BY_LINE || dst->bitsPerPixel != im.bits ||
      dst->channels != im.planes || dst->width < im.w || line >= im.h) {
    f->badBuffer = true;
    return 1;
  }
  for (uint32_t c = 0; c < im.planes; ++c) {
    for (uint32_t x = 0; x < im.w; ++x) set_sample(dst, x, c, im.at(x, line, c));
  }
  return 0;
}

int32_t skip_line(void *user, ScanlineBuf *scratch, uint32_t line) {
  auto *f = static_cast<Feed *>(user);
  f->skips.push_back(line);
  if (!scratch || scratch->channels != f->image->planes || scratch->width < f->image->w) f->badBuffer = true;
  return 0;
}

// Writes the line number into every sample in place of the engine.
int32_t produce_line(void *user, ScanlineBuf *dst, uint32_t line) {
  static_cast<Feed *>(user)->produced.push_back(line);
  for (uint32_t c = 0; c < dst->channels; ++c) {
    for (uint32_t x = 0; x < dst->width; ++x) set_sample(dst, x, c, line + 1);
  }
  return 0;
}

template <auto Free>
struct Deleter {
  void operator()(auto *p) const { Free(p); }
};
using CtxPtr = std::unique_ptr<ResampleContext, Deleter<resampleFree>>;
using BufPtr = std::unique_ptr<ScanlineBuf, Deleter<scanlinebufFree>>;

CtxPtr make(Feed &feed, uint32_t ow, uint32_t oh, uint32_t bppOut, uint32_t filter) {
  const Image &in = *feed.image;
  return CtxPtr(resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, in.w, in.h, ow, oh, in.planes, in.bits, bppOut,
                                        read_line, nullptr, nullptr, &feed, filter));
}

// Every output line, through `pullFn`, into a buffer `extra` samples wider
// than the output.
Image pull(ResampleContext *ctx,
           int32_t (*pullFn)(ResampleContext *, ScanlineBuf *) = resampleGetNextScanline, uint32_t extra = 0,
           uint32_t flags = 0) {
  Image out = blank(ctx->outWidth, ctx->outHeight, ctx->planes, ctx->bppOut);
  BufPtr buf(
      scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, ctx->bppOut, ctx->planes, 0, ctx->outWidth + extra, 1, flags));
  for (uint32_t y = 0; y < ctx->outHeight; ++y) {
    if (pullFn(ctx, buf.get()) != 0) {
      ADD_FAILURE() << "output line " << y;
      return out;
    }
    for (uint32_t c = 0; c < out.planes; ++c) {
      for (uint32_t x = 0; x < out.w; ++x) out.at(x, y, c) = static_cast<uint16_t>(sample(buf.get(), x, c));
    }
  }
  return out;
}

std::vector<uint32_t> upto(uint32_t n) {
  std::vector<uint32_t> v(n);
  std::iota(v.begin(), v.end(), 0u);
  return v;
}

// One whole resample; threads 0 keeps the context's own split.
Image run(const Image &in, uint32_t ow, uint32_t oh, uint32_t bppOut, uint32_t filter, uint32_t threads = 1,
          uint32_t ioBound = 0) {
  Feed feed(&in);
  CtxPtr ctx = make(feed, ow, oh, bppOut, filter);
  if (!ctx) {
    ADD_FAILURE() << "no context for " << in.w << "x" << in.h << " -> " << ow << "x" << oh;
    return {};
  }
  EXPECT_EQ(threads ? resampleSetupThreads(ctx.get(), threads) : 0, 0);
  EXPECT_EQ(resampleSetIOBoundTask(ctx.get(), ioBound), 0);
  Image out = pull(ctx.get());
  EXPECT_EQ(feed.reads, upto(in.h)) << "every input line once, in order";
  EXPECT_FALSE(feed.badBuffer);
  EXPECT_EQ(ctx->linesRead, in.h);
  return out;
}

// The reference: the documented mapping in double precision.

// Per output sample, the (input sample, weight) pairs after edge folding.
std::vector<std::vector<std::pair<uint32_t, double>>> taps(uint32_t n, uint32_t m, uint32_t id) {
  const double stretch = m < n ? double(n) / m : 1.0;
  const double reach = kSupport[id] * stretch;
  std::vector<std::vector<std::pair<uint32_t, double>>> all(m);
  for (uint32_t j = 0; j < m; ++j) {
    const double centre = (j + 0.5) * n / m - 0.5;
    std::vector<double> w(n, 0.0);
    double sum = 0;
    for (int64_t i = static_cast<int64_t>(std::floor(centre - reach)); i <= std::ceil(centre + reach); ++i) {
      const double v = filter_value(id, (i - centre) / stretch);
      w[std::clamp<int64_t>(i, 0, n - 1)] += v;
      sum += v;
    }
    for (uint32_t i = 0; i < n; ++i) {
      if (w[i] != 0) all[j].emplace_back(i, w[i] / sum);
    }
  }
  return all;
}

Image reference(const Image &in, uint32_t ow, uint32_t oh, uint32_t bppOut, uint32_t id) {
  const double unit = in.bits == bppOut ? 1.0 : bppOut == 16 ? 257.0 : 1.0 / 257.0;
  const double top = bppOut == 16 ? 65535.0 : 255.0;
  const auto hx = taps(in.w, ow, id), vy = taps(in.h, oh, id);
  Image out = blank(ow, oh, in.planes, bppOut);
  std::vector<double> column(in.h);
  for (uint32_t c = 0; c < in.planes; ++c) {
    for (uint32_t x = 0; x < ow; ++x) {
      for (uint32_t y = 0; y < in.h; ++y) {
        column[y] = 0;
        for (auto [i, w] : hx[x]) column[y] += w * in.at(i, y, c) * unit;
      }
      for (uint32_t y = 0; y < oh; ++y) {
        double s = 0;
        for (auto [i, w] : vy[y]) s += w * column[i];
        out.at(x, y, c) = static_cast<uint16_t>(std::lround(std::clamp(s, 0.0, top)));
      }
    }
  }
  return out;
}

// Every sample within `tolerance` levels; else the largest difference and where.
testing::AssertionResult Near(const Image &a, const Image &b, int tolerance = 0) {
  if (a.w != b.w || a.h != b.h || a.planes != b.planes || a.bits != b.bits) {
    return testing::AssertionFailure() << "shapes differ";
  }
  int most = 0;
  size_t at = 0;
  for (size_t i = 0; i < a.px.size(); ++i) {
    const int d = std::abs(int{a.px[i]} - int{b.px[i]});
    if (d > most) most = d, at = i;
  }
  if (most <= tolerance) return testing::AssertionSuccess();
  const size_t x = at % a.w, c = at / a.w % a.planes, y = at / a.w / a.planes;
  return testing::AssertionFailure() << "off by " << most << " at (" << x << "," << y << "," << c
                                     << "): " << a.px[at] << " vs " << b.px[at];
}

struct Geometry {
  uint32_t iw, ih, ow, oh;
};
// Factors about 0.5, 0.37, 1.6, 2, and mixed ones; then the edges of the range.
const Geometry kGeometries[] = {{37, 23, 18, 11}, {37, 23, 14, 9},  {37, 23, 59, 37}, {37, 23, 74, 46},
                                {37, 23, 20, 40}, {37, 23, 61, 12}, {5, 4, 1, 1},     {1, 1, 6, 5},
                                {3, 1, 7, 2},     {64, 33, 2, 3},   {37, 23, 37, 23}};
const uint32_t kDepths[][2] = {{8, 8}, {8, 16}, {16, 8}, {16, 16}};

class ResampleLevelTest : public testing::TestWithParam<int32_t> {};

TEST_P(ResampleLevelTest, WithinALevelOfTheReference) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  for (const auto &d : kDepths) {
    for (const Geometry &g : kGeometries) {
      const Image in = noise(g.iw, g.ih, 3, d[0], g.iw * 131 + g.ow);
      // Filters that fall to zero at their support, so a tap landing on the
      // bound weighs nothing either way.
      for (uint32_t id : {1u, 3u, 4u, 5u, 6u, 7u, 9u, 15u, 16u}) {
        EXPECT_TRUE(Near(run(in, g.ow, g.oh, d[1], id), reference(in, g.ow, g.oh, d[1], id), 1))
            << d[0] << "->" << d[1] << " filter " << id << " " << g.iw << "x" << g.ih << " -> " << g.ow << "x"
            << g.oh;
      }
    }
  }
}

TEST_P(ResampleLevelTest, ConstantImagesStayExact) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  for (uint32_t bits : {8u, 16u}) {
    const std::vector<uint16_t> levels =
        bits == 8 ? std::vector<uint16_t>{0, 1, 128, 255} : std::vector<uint16_t>{0, 1, 32769, 65535};
    const Image in = flat(37, 23, bits, levels);
    for (uint32_t id = ZT_FILTER_FIRST; id <= ZT_FILTER_LAST; ++id) {
      for (const Geometry &g :
           {kGeometries[0], kGeometries[1], kGeometries[2], kGeometries[4], kGeometries[5]}) {
        EXPECT_TRUE(Near(run(in, g.ow, g.oh, bits, id), flat(g.ow, g.oh, bits, levels)))
            << bits << " bit, filter " << id << " -> " << g.ow << "x" << g.oh;
      }
    }
  }
}

TEST_P(ResampleLevelTest, SameSizeInterpolatingFiltersGiveTheInputBack) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  for (uint32_t bits : {8u, 16u}) {
    const Image in = noise(37, 23, 3, bits, 11);
    for (uint32_t id : {1u, 2u, 3u, 6u, 15u, 16u, 17u})
      EXPECT_TRUE(Near(run(in, 37, 23, bits, id), in)) << bits << " " << id;
  }
}

TEST_P(ResampleLevelTest, BoxHalvingAveragesEachSquare) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  for (uint32_t bits : {8u, 16u}) {
    Image in = noise(38, 24, 3, bits, 5);
    // Some squares that sum to exact halves, so the tie rule shows.
    for (uint32_t c = 0; c < 3; ++c) {
      in.at(0, 0, c) = 1, in.at(1, 0, c) = 1, in.at(0, 1, c) = 0, in.at(1, 1, c) = 0;
      in.at(2, 0, c) = 3, in.at(3, 0, c) = 3, in.at(2, 1, c) = 0, in.at(3, 1, c) = 0;
    }
    const Image out = run(in, 19, 12, bits, ZT_FILTER_BOX);
    for (uint32_t y = 0; y < 12; ++y) {
      for (uint32_t c = 0; c < 3; ++c) {
        for (uint32_t x = 0; x < 19; ++x) {
          const uint32_t sum = in.at(2 * x, 2 * y, c) + in.at(2 * x + 1, 2 * y, c) +
                               in.at(2 * x, 2 * y + 1, c) + in.at(2 * x + 1, 2 * y + 1, c);
          // 8 to 8 rounds half up; the single-precision path ties to even.
          const auto want = bits == 8 ? (sum + 2) / 4 : static_cast<uint32_t>(std::nearbyint(sum / 4.0));
          ASSERT_EQ(out.at(x, y, c), want)
              << bits << " bit at " << x << "," << y << "," << c << " sum " << sum;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, ResampleLevelTest, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

TEST(ResampleTest, VectorKernelsMatchBaselineExactly) {
  if (ZT_SimdBestLevel() < ZT_SIMD_AVX2) GTEST_SKIP() << "no AVX2";
  LibraryScope library;
  const Geometry shapes[] = {
      {101, 9, 53, 5}, {37, 23, 59, 37}, {33, 7, 9, 8}, {9, 17, 70, 3}, {260, 5, 13, 4}};
  for (const auto &d : kDepths) {
    for (const Geometry &g : shapes) {
      const Image in = noise(g.iw, g.ih, 2, d[0], g.ow);
      for (uint32_t id = ZT_FILTER_FIRST; id <= ZT_FILTER_LAST; ++id) {
        auto at = [&](int32_t level) {
          SimdLevelScope scope(level);
          return run(in, g.ow, g.oh, d[1], id);
        };
        EXPECT_TRUE(Near(at(ZT_SIMD_BASELINE), at(ZT_SIMD_AVX2)))
            << d[0] << "->" << d[1] << " filter " << id << " " << g.iw << " -> " << g.ow;
      }
    }
  }
}

// The pull model.

TEST(ResamplePullTest, RefusalsPaddedRowsAndLinesPastTheEnd) {
  LibraryScope library;
  const Image in = noise(29, 13, 3, 16, 3);
  Feed feed(&in), other(&in);
  CtxPtr ctx = make(feed, 21, 17, 8, ZT_FILTER_LANCZOS3), plain = make(other, 21, 17, 8, ZT_FILTER_LANCZOS3);
  ASSERT_TRUE(ctx && plain);
  BufPtr line(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, 3, 0, 21, 1, 0));
  BufPtr pixel(scanlinebufAlloc(ZT_INTERLEAVE_BY_PIXEL, 8, 3, 0, 21, 1, 0));
  {
    LogCapture log;
    EXPECT_EQ(resampleGetNextScanline(nullptr, line.get()), -1);
    EXPECT_EQ(resampleGetNextScanline(ctx.get(), nullptr), -1);
    EXPECT_EQ(resampleGetNextScanline(ctx.get(), pixel.get()), -1);
    ASSERT_EQ(log.count(), 3u);
    EXPECT_EQ(log.lines()[0].message, "NULL pointer caught");
    EXPECT_EQ(log.lines()[1].message, "NULL pointer caught");
    EXPECT_EQ(log.lines()[2].message, "Only interleaved by line scanlines are currently supported");
    EXPECT_EQ(log.lines()[2].module, "resample");
    EXPECT_EQ(ctx->linesWritten, 0u);
  }
  // Plane rows wider and padded: the engine goes by the buffer's stride.
  EXPECT_TRUE(Near(pull(ctx.get(), resampleGetNextScanline, 11, ZT_SLB_ALIGNED), pull(plain.get())));
  for (uint32_t extra = 1; extra <= 2; ++extra) {
    std::memset(line->data, 0x5A, line->bytesPerLine);
    EXPECT_EQ(resampleGetNextScanline(ctx.get(), line.get()), 0);
    EXPECT_EQ(ctx->linesWritten, 17u + extra);
    for (uint32_t i = 0; i < line->bytesPerLine; ++i) ASSERT_EQ(line->data[i], 0) << i;
  }
  EXPECT_EQ(ctx->linesRead, 13u);
  EXPECT_EQ(feed.reads, upto(13));
  resampleFree(nullptr);
}

// After the last output line the rest of the input is consumed; a producer
// makes every line, so none of the input was needed.
TEST(ResamplePullTest, TheUnreadInputIsConsumedThreeWays) {
  LibraryScope library;
  const Image in = noise(12, 9, 2, 8, 4);
  for (int way = 0; way < 3; ++way) {
    Feed feed(&in);
    CtxPtr ctx(resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, 12, 9, 7, 4, 2, 8, 8, read_line,
                                       way == 0 ? skip_line : nullptr, produce_line, &feed,
                                       ZT_FILTER_TRIANGLE));
    ASSERT_TRUE(ctx);
    EXPECT_EQ(resampleSetCanSkipScanlines(ctx.get(), way == 1), 0);
    const Image out = pull(ctx.get());
    for (uint32_t y = 0; y < 4; ++y) EXPECT_EQ(out.at(6, y, 1), y + 1) << "the producer's line";
    EXPECT_EQ(feed.produced, upto(4));
    EXPECT_EQ(ctx->linesRead, 9u) << way;
    // Every input line once, in order, across the callbacks.
    std::vector<uint32_t> all = feed.reads;
    all.insert(all.end(), feed.nullReads.begin(), feed.nullReads.end());
    all.insert(all.end(), feed.skips.begin(), feed.skips.end());
    EXPECT_EQ(all, upto(9)) << way;
    EXPECT_FALSE(feed.badBuffer);
    EXPECT_EQ(feed.skips.empty(), way != 0) << way;
    EXPECT_EQ(feed.nullReads.empty(), way != 1) << way;
    EXPECT_EQ(feed.reads == upto(9), way == 2) << way;
  }
}

TEST(ResamplePullTest, AFailedReadStopsTheContext) {
  LibraryScope library;
  const Image in = noise(10, 10, 1, 8, 6);
  Feed feed(&in);
  feed.failAt = 4;
  CtxPtr ctx = make(feed, 10, 10, 8, ZT_FILTER_HERMITE);
  ASSERT_TRUE(ctx);
  BufPtr line(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, 1, 0, 10, 1, 0));
  LogCapture log;
  uint32_t y = 0;
  while (y < 10 && resampleGetNextScanline(ctx.get(), line.get()) == 0) ++y;
  EXPECT_LT(y, 4u + 1) << "a line needing input line 4 was delivered";
  log.expect_one("Error reading scanline 4");
  for (int again = 0; again < 3; ++again) {
    EXPECT_EQ(resampleGetNextScanline(ctx.get(), line.get()), -1);
    log.expect_one("Resampling stopped after an earlier error");
  }
}

TEST(ResampleInitTest, RefusesBadGeometryDepthTypeAndReduction) {
  LibraryScope library;
  struct Case {
    uint32_t type, iw, ih, ow, oh, planes, bi, bo;
    const char *message;
  };
  const Case cases[] = {
      {0, 0, 8, 4, 4, 1, 8, 8, "zero width/height detected"},
      {0, 8, 8, 4, 0, 1, 8, 8, "zero width/height detected"},
      {0, 8, 8, 4, 4, 0, 8, 8, "zero nplanes/bpp_in/bpp_out detected"},
      {0, 8, 8, 4, 4, 1, 8, 0, "zero nplanes/bpp_in/bpp_out detected"},
      {0, 8, 8, 4, 4, 1, 12, 8, "unsupported bpp of 12"},
      {0, 8, 8, 4, 4, 1, 8, 1, "unsupported bpp of 1"},
      {1, 8, 8, 4, 4, 1, 8, 8, "resampling type 1 has not yet been implemented"},
      {0, 321, 8, 10, 4, 1, 8, 8, "Requested scale factor is beyond algorithm's ability"},
      {0, 8, 33, 4, 1, 1, 8, 8, "Requested scale factor is beyond algorithm's ability"},
      // A stretch of one pixel to fifty million would have built gigabytes of
      // weights; so many planes are no page.
      {0, 1, 1, 50000000, 1, 1, 8, 8, "Filter weights for 1x1 to 50000000x1 would take"},
      {0, 1, 1, 1, 50000000, 1, 8, 8, "more than 512 MiB"},
      {0, 8, 8, 4, 4, 1u << 20, 8, 8, "1048576 planes are more than the 64 a resampler takes"},
      {0, 8, 8, 4, 4, 65, 8, 8, "65 planes are more than the 64"},
  };
  Feed feed;
  for (const Case &k : cases) {
    LogCapture log;
    EXPECT_EQ(resampleInit(k.type, k.iw, k.ih, k.ow, k.oh, k.planes, k.bi, k.bo, read_line, nullptr, nullptr,
                           &feed),
              nullptr)
        << k.message;
    EXPECT_TRUE(log.contains(k.message)) << k.message;
    ASSERT_EQ(log.count(), 1u) << k.message;
    EXPECT_EQ(log.lines()[0].module, "resample");
  }
  // Exactly the largest reduction, both ways; enlargement by any factor a
  // page needs, and the widest plane count.
  const Image wide = noise(320, 32, 1, 8, 9);
  EXPECT_TRUE(Near(run(wide, 10, 1, 8, ZT_FILTER_HERMITE), reference(wide, 10, 1, 8, ZT_FILTER_HERMITE), 1));
  const Image dot = noise(1, 1, 1, 16, 2);
  for (uint16_t v : run(dot, 400, 3, 16, ZT_FILTER_LANCZOS3).px) ASSERT_EQ(v, dot.px[0]);
  ResampleContext *widest = resampleInit(0, 8, 8, 200000, 4, ZT_RESAMPLE_MAX_PLANES, 8, 8, read_line, nullptr,
                                         nullptr, &feed);
  EXPECT_NE(widest, nullptr);
  resampleFree(widest);
  LogCapture log;
  EXPECT_EQ(ScaleInit(8, 8, 0, 4, 1, 8, 8, read_line, nullptr, &feed), nullptr);
  ASSERT_EQ(log.count(), 1u);
  EXPECT_EQ(log.lines()[0].module, "scale");
}

// The weight cache and the older scaling entry.

TEST(ResampleCacheTest, SameGeometrySharesAndEachOfTheNineNumbersSeparates) {
  LibraryScope library;
  const Image in = noise(41, 17, 3, 8, 12);
  Feed fa(&in), fb(&in);
  CtxPtr a = make(fa, 23, 29, 8, ZT_FILTER_BSPLINE);
  ASSERT_TRUE(a);
  {
    // A context's weights are cached as it is made, so adding it again is
    // refused with its message.
    LogCapture log;
    EXPECT_EQ(resampleFilteredAddToCache(a.get()), -1);
    log.expect_one("Weights of this context are cached already");
  }
  CtxPtr b = make(fb, 23, 29, 8, ZT_FILTER_BSPLINE);
  ASSERT_TRUE(b);
  EXPECT_EQ(resampleFilteredInitFromCache(b.get()), 0);
  const Image want = reference(in, 23, 29, 8, ZT_FILTER_BSPLINE);
  EXPECT_TRUE(Near(pull(a.get()), want, 1));
  EXPECT_TRUE(Near(pull(b.get()), want, 1));
  // b on a private copy now: its key is taken, by a, which still holds the entry.
  EXPECT_EQ(resampleFilteredCacheRemoveReference(b.get()), 0);
  {
    LogCapture log;
    EXPECT_EQ(resampleFilteredAddToCache(b.get()), -1);
    log.expect_one("Cannot cache weights under");
  }
  EXPECT_EQ(resampleFilteredInitFromCache(b.get()), 0);
  // One number changed at a time while `a` holds its entry: weights borrowed
  // from it would be wrong, or out of bounds, for every one of them.
  struct Variant {
    uint32_t iw, ih, ow, oh, planes, bi, bo, filter;
  };
  for (const Variant &v : {Variant{42, 17, 23, 29, 3, 8, 8, 5}, Variant{41, 18, 23, 29, 3, 8, 8, 5},
                           Variant{41, 17, 24, 29, 3, 8, 8, 5}, Variant{41, 17, 23, 30, 3, 8, 8, 5},
                           Variant{41, 17, 23, 29, 2, 8, 8, 5}, Variant{41, 17, 23, 29, 3, 16, 8, 5},
                           Variant{41, 17, 23, 29, 3, 8, 16, 5}, Variant{41, 17, 23, 29, 3, 8, 8, 6}}) {
    const Image other = noise(v.iw, v.ih, v.planes, v.bi, v.iw + v.oh);
    EXPECT_TRUE(Near(run(other, v.ow, v.oh, v.bo, v.filter), reference(other, v.ow, v.oh, v.bo, v.filter), 1))
        << v.iw << " " << v.ih << " " << v.ow << " " << v.oh << " " << v.planes << " " << v.bi << " " << v.bo
        << " " << v.filter;
  }
  // An entry nobody holds waits until eight newer ones are dropped; then a
  // context of its geometry finds nothing, though `a`'s entry is still there.
  const Image small = noise(16, 8, 1, 8, 1);
  Feed fc(&small);
  CtxPtr c = make(fc, 5, 3, 8, ZT_FILTER_TRIANGLE);
  ASSERT_TRUE(c);
  ASSERT_EQ(resampleFilteredCacheRemoveReference(c.get()), 0);
  auto drop_newer = [&](uint32_t count, uint32_t width) {
    for (uint32_t k = 0; k < count; ++k) run(small, width + k, 3, 8, ZT_FILTER_TRIANGLE);
  };
  drop_newer(7, 6);
  EXPECT_EQ(resampleFilteredInitFromCache(c.get()), 0);
  ASSERT_EQ(resampleFilteredCacheRemoveReference(c.get()), 0);
  drop_newer(8, 20);
  EXPECT_EQ(resampleFilteredInitFromCache(c.get()), -1);
  EXPECT_TRUE(Near(pull(c.get()), reference(small, 5, 3, 8, ZT_FILTER_TRIANGLE), 1));
}

// Both entries' default filters, a filter set before the first line, and the
// scale entry giving what the resample entry gives.
TEST(ScaleTest, DefaultFiltersSetFilterAndTheScaleEntry) {
  LibraryScope library;
  const Image in = noise(37, 23, 3, 16, 14);
  for (const Geometry &g : {kGeometries[0], kGeometries[3], kGeometries[4]}) {
    Feed f1(&in), f2(&in), f3(&in);
    CtxPtr resample(resampleInit(ZT_RESAMPLE_FILTERED, g.iw, g.ih, g.ow, g.oh, 3, 16, 8, read_line, nullptr,
                                 nullptr, &f1));
    CtxPtr scale(ScaleInit(g.iw, g.ih, g.ow, g.oh, 3, 16, 8, read_line, nullptr, &f2));
    CtxPtr lanczos(ScaleInitUsingFilter(g.iw, g.ih, g.ow, g.oh, 3, 16, 8, read_line, nullptr, &f3, 6));
    ASSERT_TRUE(resample && scale && lanczos);
    EXPECT_TRUE(Near(pull(resample.get()), run(in, g.ow, g.oh, 8, ZT_FILTER_HERMITE)));
    EXPECT_TRUE(Near(pull(scale.get(), ScaleGetNextScanline), run(in, g.ow, g.oh, 8, ZT_FILTER_TRIANGLE)));
    EXPECT_TRUE(Near(pull(lanczos.get(), ScaleGetNextScanline), run(in, g.ow, g.oh, 8, ZT_FILTER_LANCZOS3)));
  }
  Feed f1(&in), f2(&in);
  CtxPtr resample(make(f1, 45, 11, 16, ZT_FILTER_HERMITE));
  CtxPtr scale(ScaleInit(37, 23, 45, 11, 3, 16, 16, read_line, nullptr, &f2));
  ASSERT_TRUE(resample && scale);
  LogCapture log;
  EXPECT_EQ(resampleFilteredSetFilter(resample.get(), 18), -1);
  log.expect_one("Uknown filter type requested");
  ASSERT_EQ(resampleFilteredSetFilter(resample.get(), ZT_FILTER_MITCHELL), 0);
  ASSERT_EQ(FilteredScaleSetFilter(scale.get(), ZT_FILTER_MITCHELL), 0);
  const Image want = run(in, 45, 11, 16, ZT_FILTER_MITCHELL);
  EXPECT_TRUE(Near(pull(resample.get()), want));
  EXPECT_TRUE(Near(pull(scale.get(), ScaleGetNextScanline), want));
  ScaleFree(nullptr);
}

// Threads: split lines and concurrent contexts.

TEST(ResampleMT, SplittingTheLineDoesNotChangeTheOutput) {
  LibraryScope library;
  for (const auto &d : kDepths) {
    const Image in = noise(3000, 7, 3, d[0], d[1]);
    for (uint32_t id : {ZT_FILTER_HERMITE, ZT_FILTER_LANCZOS3}) {
      for (const Geometry &g : {Geometry{3000, 7, 2101, 5}, Geometry{3000, 7, 3777, 9}}) {
        const Image one = run(in, g.ow, g.oh, d[1], id, 1);
        EXPECT_TRUE(Near(run(in, g.ow, g.oh, d[1], id, 4), one))
            << d[0] << "->" << d[1] << " " << id << " " << g.ow;
        EXPECT_TRUE(Near(run(in, g.ow, g.oh, d[1], id, 0), one));
        EXPECT_TRUE(Near(run(in, g.ow, g.oh, d[1], id, 4, 1), one)) << "kept on the caller's thread";
      }
    }
  }
}

TEST(ResampleMT, ContextsOnSeveralThreadsShareTheCache) {
  LibraryScope library;
  const Image in = noise(3000, 6, 2, 8, 21);
  const Image want = run(in, 2345, 11, 8, ZT_FILTER_MITCHELL, 1);
  std::vector<Image> outs(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < outs.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int pass = 0; pass < 3; ++pass) outs[t] = run(in, 2345, 11, 8, ZT_FILTER_MITCHELL, 2);
    });
  }
  for (auto &th : threads) th.join();
  for (const Image &out : outs) EXPECT_TRUE(Near(out, want));
}

}  // namespace
