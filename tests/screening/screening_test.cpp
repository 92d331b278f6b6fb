// Screening objects: the exact parts (evenly spaced levels, the 4 x 4 cell,
// the weight table, a hand-worked error-diffusion case, spot boundaries, the
// stochastic cache on an injected clock), the refusals with their messages,
// the VRFS reader, and the whole-image 16-to-8 path.
#include <gtest/gtest.h>
#include <zt/dither.h>
#include <zt/init.h>
#include <zt/random.h>
#include <zt/screening.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "screening/screening_metrics.h"
#include "support/test_support.h"

namespace {

using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::TempDir;
using zt::test::halftone::bit;
using zt::test::halftone::Object;
using zt::test::halftone::settings_for;
using Levels = std::vector<uint16_t>;

TEST(ScreeningLevels, EvenlySpacedFromTheTextsNumbers) {
  uint16_t t[256], d[256], c[256];
  // Three levels: s = 127.5, so the middle density rounds up and the
  // thresholds sit half-way.
  struct Row {
    uint32_t levels, bits;
    Levels thresholds, densities;
  };
  for (const Row &r : {Row{2, 8, {0, 128}, {0, 255}}, Row{3, 8, {0, 64, 191}, {0, 128, 255}},
                       Row{4, 16, {0, 10923, 32768, 54613}, {0, 21845, 43690, 65535}}}) {
    ASSERT_EQ(GeneratePixelThresholds(r.levels, t, r.bits), 0);
    ASSERT_EQ(GeneratePixelDensities(r.levels, d, r.bits), 0);
    EXPECT_EQ(Levels(t, t + r.levels), r.thresholds) << r.levels;
    EXPECT_EQ(Levels(d, d + r.levels), r.densities) << r.levels;
  }
  // Where doubles and exact fractions part, the doubles hold: 255/21 * 10.5
  // is 127.49999... in doubles, 127.5 exactly.
  GeneratePixelThresholds(22, t, 8);
  EXPECT_EQ(t[11], 127);
  GeneratePixelDensities(51, d, 8);
  EXPECT_EQ(d[25], 127);
  EXPECT_EQ(d[45], 229);
  GeneratePixelDotsizes(5, c);
  EXPECT_EQ(Levels(c, c + 5), (Levels{0, 1, 2, 3, 4}));
  // Every count: thresholds rise strictly and lie between their densities.
  for (uint32_t levels = 2; levels <= 256; ++levels) {
    GeneratePixelThresholds(levels, t, 8);
    GeneratePixelDensities(levels, d, 8);
    for (uint32_t i = 1; i < levels; ++i) {
      ASSERT_GT(t[i], t[i - 1]) << levels;
      ASSERT_GE(t[i], d[i - 1]) << levels;
      ASSERT_LE(t[i], d[i]) << levels;
    }
  }
}

ScreeningDrop drop(uint32_t code, double y, double density) {
  ScreeningDrop d{};
  d.dotCode = code;
  d.xyz[0] = y * 0.95;
  d.xyz[1] = y;
  d.xyz[2] = y * 1.08;
  d.density = density;
  return d;
}

TEST(ScreeningLevels, PaperProfileVariantsAndTheirChecks) {
  LibraryScope library;
  const ScreeningDrop drops[4] = {drop(0, 0.9, 0.05), drop(1, 0.5, 0.35), drop(3, 0.2, 0.75),
                                  drop(2, 0.04, 1.45)};
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC, 4, 2);
  s.drops = drops;
  s.dropCount = 4;
  s.yuleNielsen = 1.0;
  for (uint32_t source : {ZT_LEVELS_LAB_V1, ZT_LEVELS_LAB_V2, ZT_LEVELS_DENSITY}) {
    s.levelSource = source;
    uint16_t *t = nullptr, *d = nullptr, *c = nullptr;
    ASSERT_EQ(GeneratePixelThresholdsAndDensities(&s, 4, &t, &d, &c, 8), 0) << source;
    EXPECT_EQ(d[0], 0) << source;
    EXPECT_EQ(d[3], 255) << source;
    EXPECT_EQ(t[0], 0);
    // Each threshold half-way between the densities it parts.
    for (int i = 1; i < 4; ++i) EXPECT_EQ(t[i], (d[i - 1] + d[i] + 1) / 2) << source;
    EXPECT_EQ(Levels(c, c + 4), (Levels{0, 1, 3, 2}));
    // V1 by hand: Yule-Nielsen with n = 1 is Murray-Davies on reflectance,
    // so the drop of Y 0.5 between 0.9 and 0.04 sits at 46.5 % -> 119.
    if (source == ZT_LEVELS_LAB_V1) {
      EXPECT_EQ(d[1], 119);
    }
    for (uint16_t *p : {t, d, c}) std::free(p);
  }
  uint16_t *t = nullptr, *d = nullptr, *c = nullptr;

  // Two drops of the same density: refused, nothing survives.
  ScreeningDrop same[4] = {drops[0], drops[1], drops[1], drops[3]};
  s.drops = same;
  for (uint32_t source : {ZT_LEVELS_LAB_V1, ZT_LEVELS_LAB_V2, ZT_LEVELS_DENSITY}) {
    s.levelSource = source;
    LogCapture capture;
    t = d = c = reinterpret_cast<uint16_t *>(&s);
    EXPECT_EQ(GeneratePixelThresholdsAndDensities(&s, 4, &t, &d, &c, 8), -1);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_TRUE(
        capture.contains("Inconsistent data in paperprofile, some pixels are lighter or the same density. "
                         "Please fix and try again"));
    EXPECT_EQ(capture.count(), 1u);
  }
  // Measured densities out of order, and a code past 16 bits (a warning).
  ScreeningDrop unordered[4] = {drops[0], drops[2], drops[1], drops[3]};
  unordered[3].dotCode = 0x10002;
  s.drops = unordered;
  s.levelSource = ZT_LEVELS_DENSITY;
  LogCapture capture;
  EXPECT_EQ(GeneratePixelThresholdsAndDensities(&s, 4, &t, &d, &c, 8), -1);
  EXPECT_TRUE(
      capture.contains("Dots must be ordered by density in the paperprofile, please resave and try again"));
  EXPECT_TRUE(capture.contains(
      "warning: Paper profile cotains a dot size of 65538, which does not fit into 16 bits"));
}

TEST(ScreeningLevels, ReflectanceColumn) {
  const double x[3] = {0.8, 0.7, 0.6}, y[3] = {0.9, 0.3, 0.05}, z[3] = {0.9, 0.85, 0.8};
  double out[3];
  EXPECT_EQ(getXYZChannelToUseAsReflectance(x, y, z, 3, ZT_REFLECTANCE_AUTO, out), ZT_REFLECTANCE_Y);
  EXPECT_EQ(out[2], 0.05);
  EXPECT_EQ(getXYZChannelToUseAsReflectance(x, y, z, 3, ZT_REFLECTANCE_Z, out), ZT_REFLECTANCE_Z);
  EXPECT_EQ(out[0], 0.9);
  // A yellow ink absorbs in Z: the automatic choice follows it.
  const double zy[3] = {0.9, 0.2, 0.02};
  EXPECT_EQ(getXYZChannelToUseAsReflectance(x, z, zy, 3, ZT_REFLECTANCE_AUTO, out), ZT_REFLECTANCE_Z);
}

TEST(ScreeningCells, FixedCellSpotBoundariesAndTiling) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_ORDERED_4X4);
  Object o(CreateScreeningObject(&s, 64, 8));
  ASSERT_NE(o, nullptr);
  const uint8_t expected[16] = {238, 102, 204, 68, 34, 170, 0, 136, 187, 51, 221, 85, 239, 119, 17, 153};
  ASSERT_EQ(o->cellWidth, 4u);
  ASSERT_EQ(o->cellHeight, 4u);
  EXPECT_EQ(0, std::memcmp(o->matrix, expected, 16));

  // Shape 4: s = 0.75 takes the middle formula, s = 1.25 the outer one;
  // shape 5: s = 1 the inner one. The 0.85 and 0.7 weights stay.
  struct Spot {
    uint32_t shape;
    double x, y, value;
  };
  for (const Spot &p :
       {Spot{4, 0.5, 0.25, 1.0 - 0.85 * 0.5 - 0.25}, Spot{4, 0.25, 0.5, 1.0 - 0.85 * 0.25 - 0.5},
        Spot{4, 0.75, 0.5, 0.25 * 0.25 + 0.5 * 0.5 - 1.0}, Spot{4, 0.25, 0.25, 1.0 - 0.125},
        Spot{5, 0.5, 0.5, 0.5}, Spot{5, 0.75, 0.5, 0.0625 + 0.25 - 1.0}, Spot{9, 0.5, 0.5, 0.5},
        Spot{2, 0.5, -0.5, 1.0 - 0.25 - 0.7 * 0.25}, Spot{3, -0.5, 0.5, 0.25 + 0.7 * 0.25 - 1.0},
        Spot{6, 0.3, -0.4, 0.6}, Spot{1, 0.3, 0.4, 0.09 + 0.16 - 1.0}})
    EXPECT_DOUBLE_EQ(screeningSpotValue(p.shape, p.x, p.y), p.value) << p.shape << " " << p.x << " " << p.y;

  // The rational cell reports exactly the formula of its vector, and the
  // matrix repeats with its own size.
  s = settings_for(ZT_SCREEN_HALFTONE_RATIONAL);
  s.angle = 15;
  uint8_t *m = nullptr;
  uint32_t w = 0, h = 0;
  double lpi = 0, angle = 0;
  ASSERT_EQ(SuperCellCreate_rational(&s, &m, &w, &h, &lpi, &angle), 0);
  EXPECT_EQ(w, 17u);  // (4, 1): 4^2 + 1^2 = 17
  EXPECT_EQ(h, 17u);
  EXPECT_DOUBLE_EQ(lpi, 600.0 / std::sqrt(17.0));
  EXPECT_DOUBLE_EQ(angle, std::atan2(1.0, 4.0) * 180.0 / 3.14159265358979323846);
  std::free(m);
}

// The worked case: 2 levels, 8 bits, 4 pixels of 100 on two lines, with a
// weight table of two known groups put in place of the drawn one.
TEST(ScreeningErrorDiffusion, TwoLineGoldenWorkedByHand) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
  Object o(CreateScreeningObject(&s, 4, 8));
  ASSERT_NE(o, nullptr);
  int32_t *saved[3] = {o->weightTable, o->weightTableEnd, o->weightCursor};
  int32_t table[8] = {1024, 1024, 4096, 2048, 0, 2048, 6144, 0};
  o->weightTable = o->weightCursor = table;
  o->weightTableEnd = table + 8;
  uint8_t in[4] = {100, 100, 100, 100};
  uint8_t out = 0xFF;
  ASSERT_EQ(o->screenScanline(o.get(), in, &out, 4, 0), 0);
  EXPECT_EQ(out, 0x40);
  EXPECT_EQ(o->serpentine, 1u);
  EXPECT_EQ(o->weightCursor, table);
  const int32_t after0[4] = {204800, 124928, -169984, 22528};
  EXPECT_EQ(0, std::memcmp(o->errorRowA + 4, after0, sizeof after0));
  ASSERT_EQ(o->screenScanline(o.get(), in, &out, 4, 1), 0);
  EXPECT_EQ(out, 0xA0);  // right to left: pixels 2 and 0
  EXPECT_EQ(o->serpentine, 0u);
  EXPECT_EQ(o->weightCursor, table);
  const int32_t after1[4] = {22528, -210944, 126976, 208896};
  EXPECT_EQ(0, std::memcmp(o->errorRowA + 4, after1, sizeof after1));
  o->weightTable = saved[0];
  o->weightTableEnd = saved[1];
  o->weightCursor = saved[2];
}

TEST(ScreeningErrorDiffusion, WeightTableAndCacheSharing) {
  LibraryScope library;
  ZT_randomSeed(7);
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
  Object a(CreateScreeningObject(&s, 100, 8));
  Object b(CreateScreeningObject(&s, 100, 8));
  s.mode = ZT_SCREEN_STOCHASTIC_B;
  Object c(CreateScreeningObject(&s, 100, 8));
  Object d(CreateScreeningObject(&s, 100, 16));
  ASSERT_TRUE(a && b && c && d);
  EXPECT_EQ(a->weightTable, b->weightTable);
  EXPECT_NE(a->weightTable, c->weightTable);
  EXPECT_NE(c->weightTable, d->weightTable);
  EXPECT_NE(a->cached, 0u);
  ASSERT_EQ(a->weightTableEnd - a->weightTable, 24604);
  for (const int32_t *g = a->weightTable; g < a->weightTableEnd; g += 4) {
    ASSERT_EQ(g[0] + g[1], 2048);
    ASSERT_EQ(g[2] + g[3], 6144);
    ASSERT_GE(g[1], 0);
    ASSERT_LE(g[1], 1024);  // r1 <= 22: 22/176 of 8192
    ASSERT_GE(g[3], 0);
    ASSERT_LE(g[3], 5120);  // r2 <= 110
  }
  // The cursor moves four entries a pixel that spreads error and wraps.
  std::vector<uint8_t> line(100, 77), out(13);
  a->weightCursor = a->weightTableEnd - 8;
  a->screenScanline(a.get(), line.data(), out.data(), 100, 0);
  // (Pixels that land exactly on a density spread nothing and take no group.)
  const ptrdiff_t moved = a->weightCursor - a->weightTable;
  EXPECT_EQ(moved % 4, 0);
  EXPECT_GE(moved, 4);
  EXPECT_LE(moved, 4 * 98);
}

// The short-chain loop (two or four levels, no modulation) against the
// pixel-by-pixel walk, which an all-zero modulation matrix selects without
// changing a bit of what the walk does: outputs, both error rows and the
// cursor after every line, over random lines with zero runs, full ink and
// the other end of the range, at widths on and off byte boundaries.
TEST(ScreeningErrorDiffusion, ShortChainLoopMatchesThePixelWalk) {
  LibraryScope library;
  std::mt19937 random(21);
  for (uint32_t input_bits : {8u, 16u})
    for (uint32_t levels : {2u, 4u})
      for (uint32_t planes : {levels == 2 ? 1u : 2u, 3u})
        for (uint32_t width : {1u, 7u, 8u, 9u, 333u, 1000u}) {
          ZT_randomSeed(width + levels);
          ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC, levels, planes);
          Object fast(CreateScreeningObject(&s, width, input_bits));
          Object walk(CreateScreeningObject(&s, width, input_bits));
          ASSERT_TRUE(fast && walk);
          walk->weightCursor = fast->weightCursor;
          walk->modulation = static_cast<int16_t *>(std::calloc(1, sizeof(int16_t)));
          walk->cellWidth = walk->cellHeight = 1;
          const uint32_t full = input_bits == 16 ? 65535u : 255u;
          std::vector<uint16_t> line16(width);
          std::vector<uint8_t> line8(width), a(fast->outputBytes), b(walk->outputBytes);
          for (uint32_t y = 0; y < 40; ++y) {
            const uint32_t kind = y % 4;  // flat, random, zero runs, extremes
            const uint32_t flat = random() % (full + 1);
            for (uint32_t x = 0; x < width; ++x) {
              uint32_t v = random() % (full + 1);
              if (kind == 0) v = flat;
              if (kind == 2 && (x / 5) % 2 == 0) v = 0;
              if (kind == 3) v = random() % 3 == 0 ? 0 : random() % 2 == 0 ? full : 1;
              line16[x] = static_cast<uint16_t>(v);
              line8[x] = static_cast<uint8_t>(v);
            }
            auto run = [&](ScreeningObject *o, std::vector<uint8_t> &out) {
              std::vector<uint16_t> in16 = line16;
              std::vector<uint8_t> in8 = line8;
              void *in =
                  input_bits == 16 ? static_cast<void *>(in16.data()) : static_cast<void *>(in8.data());
              return o->screenScanline(o, in, out.data(), width, y);
            };
            ASSERT_EQ(run(fast.get(), a), 0);
            ASSERT_EQ(run(walk.get(), b), 0);
            ASSERT_EQ(a, b) << input_bits << " bits, " << levels << " levels, width " << width << ", line "
                            << y;
            ASSERT_EQ(0, std::memcmp(fast->errorRowA, walk->errorRowA, (width + 8) * sizeof(int32_t))) << y;
            ASSERT_EQ(0, std::memcmp(fast->errorRowB, walk->errorRowB, (width + 8) * sizeof(int32_t))) << y;
            ASSERT_EQ(fast->weightCursor, walk->weightCursor) << y;
          }
        }
}

// (The 1-px line on paper, for every mode, is in the quality suite.)
TEST(ScreeningErrorDiffusion, ZeroPixelsEdgesAndLongPages) {
  LibraryScope library;
  ZT_randomSeed(11);
  for (uint32_t levels : {2u, 4u}) {
    ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC, levels, 2);
    Object o(CreateScreeningObject(&s, 257, 8));
    ASSERT_NE(o, nullptr);
    std::vector<uint8_t> in(257), out(o->outputBytes);
    // Zero pixels never print, whatever the carry from dark neighbours.
    for (uint32_t y = 0; y < 200; ++y) {
      for (uint32_t x = 0; x < 257; ++x)
        in[x] = (x % 3 == 0) ? 0 : (x == 100 ? 255 : static_cast<uint8_t>(200 + x % 50));
      o->screenScanline(o.get(), in.data(), out.data(), 257, y);
      for (uint32_t x = 0; x < 257; x += 3)
        for (uint32_t p = 0; p < 2; ++p) ASSERT_FALSE(bit(out.data() + p * o->bytesPerPlane, x)) << x;
    }
  }
  // 20,000 lines of a flat patch: the 16 columns at each edge keep the tone
  // and no error entry grows (the ones under the first pixel and behind it
  // are cleared every line).
  for (uint8_t tone : {8, 128, 250}) {
    ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
    const uint32_t width = 64;
    Object o(CreateScreeningObject(&s, width, 8));
    std::vector<uint8_t> in(width), out(o->outputBytes);
    uint32_t left = 0, right = 0;
    const uint32_t lines = 20000;
    for (uint32_t y = 0; y < lines; ++y) {
      std::memset(in.data(), tone, width);
      o->screenScanline(o.get(), in.data(), out.data(), width, y);
      for (uint32_t x = 0; x < 16; ++x) {
        left += bit(out.data(), x);
        right += bit(out.data(), width - 1 - x);
      }
      for (uint32_t x = 0; x < width + 8; ++x) ASSERT_LT(std::abs(o->errorRowA[x]), 1 << 26);
    }
    // The stated walk drops the shares that leave the line, so the outer
    // columns run a little light in highlights; they must not run away.
    EXPECT_NEAR(left / double(lines) / 16, tone / 255.0, 0.008) << int(tone);
    EXPECT_NEAR(right / double(lines) / 16, tone / 255.0, 0.008) << int(tone);
  }
}

TEST(ScreeningObjects, RefusalsCarryTheirMessages) {
  LibraryScope library;
  struct Case {
    ScreeningSettings s;
    uint32_t width, bits;
    const char *message;
  };
  auto with = [](ScreeningSettings s, auto f) {
    f(s);
    return s;
  };
  const Case cases[] = {
      {settings_for(4), 10, 8, "Uknown screening mode requested"},
      {settings_for(6), 10, 8, "Uknown screening mode requested"},
      {settings_for(99), 10, 8, "Uknown screening mode requested"},
      {settings_for(7), 10, 8, "Screening mode 7 is not supported"},
      {settings_for(ZT_SCREEN_STOCHASTIC, 5, 2), 10, 8, "screenlevels 5 is too large for bpp = 2"},
      {settings_for(ZT_SCREEN_STOCHASTIC), 10, 12, "12 bits per pixel is not currently supported"},
      {settings_for(ZT_SCREEN_PATTERN), 10, 16,
       "16 bits per pixel input is not currently supported, please use Stochastic screening instead"},
      {settings_for(ZT_SCREEN_STOCHASTIC), 0, 8, "Bad scanline width 0"},
      {settings_for(ZT_SCREEN_STOCHASTIC), 0x80000000u, 8, "Bad scanline width 2147483648"},
      {with(settings_for(ZT_SCREEN_HALFTONE_SUPERCELL), [](auto &s) { s.linesPerInch = 1.0; }), 10, 8,
       "Bad LPI 1.000000, value must be greater than 1.0"},
      {with(settings_for(ZT_SCREEN_STOCHASTIC), [](auto &s) { s.linearisationPoints = 1; }), 10, 8,
       "Cannot create channel linearisation lut"},
      {with(settings_for(ZT_SCREEN_STOCHASTIC), [](auto &s) { s.inkLimit = 120; }), 10, 8,
       "Cannot create channel ink limiting lut"},
  };
  for (const Case &c : cases) {
    LogCapture capture;
    EXPECT_EQ(CreateScreeningObject(&c.s, c.width, c.bits), nullptr) << c.message;
    EXPECT_TRUE(capture.contains(c.message)) << c.message;
    EXPECT_EQ(capture.count(), 1u) << c.message;
  }
  LogCapture capture;
  EXPECT_EQ(CreateScreeningObject16To8(2, 100), nullptr);
  EXPECT_TRUE(capture.contains("Only stochastic screening is currently supported"));
  DestroyScreeningObject(nullptr);
}

TEST(ScreeningObjects, LinearisationAndInkLimitReachTheInput) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_ORDERED_4X4);
  const uint16_t curve[3] = {0, 16384, 65535};  // darkens the light half less
  s.linearisationPoints = 3;
  s.linearisation = curve;
  s.inkLimit = 50;
  Object o(CreateScreeningObject(&s, 8, 8));
  ASSERT_NE(o, nullptr);
  ASSERT_NE(o->inputLut, nullptr);
  uint8_t in[8] = {0, 64, 128, 255, 255, 255, 255, 255}, out[1];
  o->screenScanline(o.get(), in, out, 8, 0);
  // The curve gives 64.5 of 255 at 128 (rounded up to 65), then half of it.
  EXPECT_EQ(in[1], 16);
  EXPECT_EQ(in[2], 33);
  EXPECT_EQ(in[0], 0);
  EXPECT_EQ(in[3], 128);  // full ink limited to half
}

int64_t g_now = 1000;
int64_t fake_clock() { return g_now; }

TEST(ScreeningCache, ReferencesIdleTimeAndCrowding) {
  LibraryScope library;
  screeningCacheSetClock(fake_clock);
  g_now = 1000;
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
  screeningCachePurge();
  const uint32_t before = screeningCacheCount();
  Object a(CreateScreeningObject(&s, 16, 8));
  Object b(CreateScreeningObject(&s, 16, 8));
  s.mode = ZT_SCREEN_STOCHASTIC_B;
  Object c(CreateScreeningObject(&s, 16, 16));
  EXPECT_EQ(screeningCacheCount(), before + 2);
  auto purge_after = [&](int64_t seconds, uint32_t held) {
    g_now += seconds;
    screeningCachePurge();
    EXPECT_EQ(screeningCacheCount(), before + held) << "at " << g_now;
  };
  a.reset();
  purge_after(500, 2);  // b still holds the table
  b.reset();            // released at 1500
  purge_after(119, 2);
  purge_after(2, 1);      // 121 s idle
  purge_after(10000, 1);  // a referenced entry outlives any idle time
  c.reset();
  purge_after(0, 1);  // just released: kept
  purge_after(121, 0);
  screeningCacheSetClock(nullptr);
}

TEST(ScreeningVRFS, FilesAndEveryBadOne) {
  LibraryScope library;
  TempDir root;
  ASSERT_EQ(ZTSetVariables(root.path().c_str()), 0);
  ASSERT_TRUE(std::filesystem::create_directories(root.path() + "/lib/screens/vrfs"));
  const std::string dir = root.path() + "/lib/screens/vrfs/";
  zt::test::write_file(dir + "dots.vrfs", "3 2\n00 80 fe\n40 c0 10\n");
  ScreeningSettings s = settings_for(ZT_SCREEN_VRFS);
  s.screenName = "dots.vrfs";
  Object o(CreateScreeningObject(&s, 6, 8));
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->cellWidth, 3u);
  EXPECT_EQ(o->cellHeight, 2u);
  const uint8_t expected[6] = {0x00, 0x80, 0xfe, 0x40, 0xc0, 0x10};
  EXPECT_EQ(0, std::memcmp(o->matrix, expected, 6));
  uint8_t in[6] = {0x81, 0x81, 0x81, 0x81, 0x81, 0x81}, out[1];
  o->screenScanline(o.get(), in, out, 6, 0);
  EXPECT_EQ(out[0], 0xD8);  // above 00 and 80, not fe; repeated every 3

  struct Bad {
    const char *name, *text, *message;
  };
  const Bad bad[] = {
      {"empty.vrfs", "  \n", "Error reading Mx, My from  "},
      {"letters.vrfs", "x 2\n00", "Error converting Mx, My from  "},
      {"huge.vrfs", "99999999999 99999999999\n", "Error converting Mx, My from  "},
      {"zero.vrfs", "0 4\n", "Error converting Mx, My from  "},
      {"short.vrfs", "4 4\n00 11 22", "Error reading array from  "},
      {"bad.vrfs", "2 1\n0g 11", "Illegal array value g read from  "},
      {"tail.vrfs", "1 1\n00 zz", "Illegal array value z read from  "},
  };
  for (const Bad &b : bad) {
    zt::test::write_file(dir + b.name, b.text);
    s.screenName = b.name;
    LogCapture capture;
    EXPECT_EQ(CreateScreeningObject(&s, 6, 8), nullptr) << b.name;
    EXPECT_TRUE(capture.contains(std::string(b.message) + dir + b.name)) << b.name;
    EXPECT_EQ(capture.count(), 1u) << b.name;
  }
  for (const char *name : {"missing.vrfs", "../escape.vrfs"}) {
    s.screenName = name;
    LogCapture capture;
    EXPECT_EQ(CreateScreeningObject(&s, 6, 8), nullptr);
    EXPECT_TRUE(capture.contains("Cannot open file ")) << name;
  }
  ZTReleaseVariables();
}

TEST(ScreeningWholeImage, SixteenToEightByErrorDiffusion) {
  LibraryScope library;
  DitherContext ctx{};
  {
    LogCapture capture;
    EXPECT_EQ(ditherSetupImage(&ctx, 8, 3, 8, 100), -1);
    EXPECT_TRUE(capture.contains("8 bpp to 8 bpp transformation not implemented"));
  }
  const uint32_t width = 300, stride = 320, lines = 64;
  ASSERT_EQ(ditherSetupImage(&ctx, 16, 3, 8, width), 0);
  EXPECT_EQ(ctx.method, 5u);
  const uint16_t tones[3] = {0, 300, 40000};
  std::vector<uint16_t> in(stride * 3);
  std::vector<uint8_t> out(stride * 3);
  double sum[3] = {};
  for (uint32_t y = 0; y < lines; ++y) {
    for (uint32_t c = 0; c < 3; ++c) std::fill_n(in.begin() + c * stride, width, tones[c]);
    ASSERT_EQ(ditherImage16To8(&ctx, out.data(), in.data(), width, stride), 0);
    for (uint32_t c = 0; c < 3; ++c)
      for (uint32_t x = 0; x < width; ++x) sum[c] += out[c * stride + x];
  }
  EXPECT_EQ(ctx.lineNumber, lines);
  // The mean byte keeps the 16-bit tone to a small part of one 8-bit step.
  for (uint32_t c = 0; c < 3; ++c) EXPECT_NEAR(sum[c] / (width * lines), tones[c] / 257.0, 0.02) << c;
  ditherCleanup(&ctx, 0);
  EXPECT_EQ(ctx.channelScreens, nullptr);
  ditherCleanup(nullptr, 0);
}

// Four channels on the default queue give the bytes of four channels screened
// one after another: each channel's lines stay in order on one worker.
TEST(ScreeningChannelsMT, ParallelChannelsMatchSerial) {
  LibraryScope library;
  const uint32_t width = 1000, lines = 40, channels = 4;
  std::vector<Object> serial, parallel;
  std::vector<std::vector<uint8_t>> in(channels), out_a(channels), out_b(channels);
  std::vector<ScreeningObject *> objects;
  std::vector<void *> inputs;
  std::vector<uint8_t *> outputs;
  for (uint32_t c = 0; c < channels; ++c) {
    ScreeningSettings s = settings_for(c % 2 == 0 ? ZT_SCREEN_STOCHASTIC : ZT_SCREEN_BLUE_NOISE, 4, 2);
    s.channel = c;
    serial.emplace_back(CreateScreeningObject(&s, width, 8));
    parallel.emplace_back(CreateScreeningObject(&s, width, 8));
    if (serial[c]->weightTable != nullptr)
      parallel[c]->weightCursor =
          parallel[c]->weightTable + (serial[c]->weightCursor - serial[c]->weightTable);
    const size_t stride = serial[c]->outputBytes;
    in[c].resize(size_t(width) * lines);
    for (size_t i = 0; i < in[c].size(); ++i) in[c][i] = static_cast<uint8_t>((i * (c + 3) / 7) & 0xFF);
    out_a[c].resize(stride * lines);
    out_b[c].resize(stride * lines);
    std::vector<uint8_t> copy = in[c];  // screening may rewrite its input in place
    for (uint32_t y = 0; y < lines; ++y)
      serial[c]->screenScanline(serial[c].get(), copy.data() + size_t(y) * width,
                                out_a[c].data() + y * stride, width, y);
    objects.push_back(parallel[c].get());
    inputs.push_back(in[c].data());
    outputs.push_back(out_b[c].data());
  }
  ASSERT_EQ(screeningScreenChannelLines(objects.data(), channels, inputs.data(), width, outputs.data(),
                                        serial[0]->outputBytes, width, 0, lines),
            0);
  for (uint32_t c = 0; c < channels; ++c) EXPECT_EQ(out_a[c], out_b[c]) << c;
  LogCapture capture;
  objects[2] = nullptr;
  EXPECT_EQ(screeningScreenChannels(objects.data(), channels, inputs.data(), outputs.data(), width, 0), -1);
  EXPECT_TRUE(capture.contains("Cannot screen 4 channels"));
}

}  // namespace
