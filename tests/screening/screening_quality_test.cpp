// Screening quality as statistics of flat patches with fixed seeds: tone
// and end points for every mode, blue-noise spectra and worms for the mask
// and pattern modes, a quality lock on the stated error diffusion, channel
// decorrelation, multi-level tone, and the geometry and moire of the
// clustered-dot cells. Each limit sits a margin above what we measured
// (spread over 5 seeds where the screen is random), below the public anchor
// where the design is ours.
#include <gtest/gtest.h>
#include <zt/dotpercent.h>
#include <zt/random.h>
#include <zt/screening.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "screening/screening_metrics.h"
#include "support/test_support.h"

namespace {

using zt::test::LibraryScope;
namespace ht = zt::test::halftone;
using ht::Object;
using ht::settings_for;

int64_t far_future() { return int64_t(1) << 40; }

// Drops every unreferenced weight table, so that the next object draws a
// fresh one from the seeded generator.
void fresh_tables(uint64_t seed) {
  screeningCacheSetClock(far_future);
  screeningCachePurge();
  screeningCacheSetClock(nullptr);
  ZT_randomSeed(seed);
}

const uint32_t kSpectrumTones[] = {2, 4, 8, 16, 32, 64, 85, 128, 170, 191, 223, 239, 247, 251};

TEST(ScreeningQuality, EndPointsAndThinLinesInEveryMode) {
  LibraryScope library;
  for (uint32_t mode : {1u, 2u, 3u, 8u, 9u, 10u, 11u}) {
    for (uint32_t levels : {2u, 4u}) {
      if (mode == 9 && levels == 4) continue;
      ScreeningSettings s = settings_for(mode, levels, 2);
      Object o(CreateScreeningObject(&s, 64, 8));
      ASSERT_NE(o, nullptr) << mode;
      for (uint32_t v : {0u, 255u}) {
        const ht::Image img = ht::flat_patch(o.get(), v, 64, 0);
        EXPECT_EQ(img.mean(), v == 0 ? 0.0 : 1.0) << "mode " << mode << " levels " << levels << " v " << v;
      }
      // A 1-px vertical line of full ink on paper comes through unbroken.
      std::vector<uint8_t> in(64), out(o->outputBytes);
      for (uint32_t y = 0; y < 64; ++y) {
        std::fill(in.begin(), in.end(), 0);
        in[17] = 255;
        o->screenScanline(o.get(), in.data(), out.data(), 64, y);
        uint32_t code = 0;
        for (uint32_t p = 0; p < 2; ++p) code |= ((out[p * o->bytesPerPlane + 2] >> 6) & 1u) << p;
        ASSERT_EQ(code, o->dotCodes[levels - 1]) << "mode " << mode << " line " << y;
      }
    }
  }
}

TEST(ScreeningQuality, MatrixModesToneIsExactAndMonotone) {
  LibraryScope library;
  // Mask, pattern and super-cell: coverage round(v A / 255) / A over a whole
  // number of tiles, so within 0.05 % of v / 255 and never falling.
  for (uint32_t mode : {2u, 9u, 8u}) {
    ScreeningSettings s = settings_for(mode);
    s.linesPerInch = 200;
    Object o(CreateScreeningObject(&s, 2048, 8));
    ASSERT_NE(o, nullptr);
    const uint32_t side =
        o->cellWidth >= 256 ? o->cellWidth : o->cellWidth * ((255 + o->cellWidth) / o->cellWidth);
    ASSERT_EQ(o->cellWidth, o->cellHeight);
    double last = 0, worst = 0, step = 0;
    for (uint32_t v = 1; v < 255; ++v) {
      const double m = ht::flat_patch(o.get(), v, side, 0).mean();
      worst = std::fmax(worst, std::fabs(m - v / 255.0));
      step = std::fmax(step, m - last);
      ASSERT_GE(m, last) << mode << " v " << v;
      last = m;
    }
    EXPECT_LE(worst, 0.0005) << mode;
    EXPECT_LE(step, 2 / 255.0) << mode;
  }
}

TEST(ScreeningQuality, ErrorDiffusionToneAt8And16Bits) {
  LibraryScope library;
  fresh_tables(1);
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
  double worst8 = 0, worst16 = 0;
  for (uint32_t v = 1; v < 255; ++v) {
    Object o(CreateScreeningObject(&s, 320, 8));
    worst8 = std::fmax(worst8, std::fabs(ht::flat_patch(o.get(), v, 320, 32).mean() - v / 255.0));
  }
  for (uint32_t i = 1; i <= 64; ++i) {
    const uint32_t v = i * 1023;
    Object o(CreateScreeningObject(&s, 320, 16));
    worst16 = std::fmax(worst16, std::fabs(ht::flat_patch(o.get(), v, 320, 32).mean() - v / 65535.0));
  }
  EXPECT_LE(worst8, 0.0025);
  EXPECT_LE(worst16, 0.0005);
}

TEST(ScreeningQuality, MultiLevelToneNeverFalls) {
  LibraryScope library;
  fresh_tables(2);
  for (uint32_t mode : {3u, 2u}) {
    ScreeningSettings s = settings_for(mode, 4, 2);
    double last = 0, worst_step = 0;
    Object o(CreateScreeningObject(&s, 256, 8));
    for (uint32_t v = 0; v < 256; ++v) {
      if (mode == 3) o.reset(CreateScreeningObject(&s, 320, 8));
      const double d =
          mode == 3 ? ht::flat_patch(o.get(), v, 320, 32).mean() : ht::flat_patch(o.get(), v, 256, 0).mean();
      if (v > 0) worst_step = std::fmax(worst_step, std::fabs(d - last - 1 / 255.0));
      // Error diffusion is a statistic of a finite patch: a hair of slack.
      ASSERT_GE(d, last - (mode == 3 ? 0.0005 : 0.0)) << mode << " v " << v;
      last = d;
    }
    EXPECT_LE(worst_step, mode == 3 ? 0.002 : 0.0005) << mode;
  }
}

// The mask's spectra on mask-sized tiles (its flat output is periodic) and
// the worm index of the mask and of the pattern tiles cut from it. The
// mask is fixed, so the margins only absorb arithmetic; where a limit sits
// at a goal rather than above the measure, the comment says so.
TEST(ScreeningQuality, BlueNoiseMaskSpectraAndWorms) {
  LibraryScope library;
  // Tones near 1/128, 1/64 and 1/32 (and mirrored) must beat the best
  // public void-and-cluster mask (-7.2, -8.5 and -9.7 dB) by a decibel.
  struct Extreme {
    uint32_t v;
    double lfe;
  };
  const Extreme extremes[] = {{2, -8.2}, {253, -8.2}, {4, -9.5}, {251, -9.5}, {8, -10.7}, {247, -10.7}};
  std::vector<uint32_t> tones(std::begin(kSpectrumTones), std::end(kSpectrumTones));
  tones.push_back(253);
  double worst_worm = 0;
  for (uint32_t mode : {2u, 9u}) {
    ScreeningSettings s = settings_for(mode);
    Object o(CreateScreeningObject(&s, 512, 8));
    ASSERT_NE(o, nullptr);
    const uint32_t side = o->cellWidth;
    double worst_lfe = -100, worst_cut = 10, worst_cut_extreme = 10, worst_aniso = -100;
    for (uint32_t v : tones) {
      const ht::Image big = ht::flat_patch(o.get(), v, 512, 0);
      const double worm = (v <= 16 || v >= 239) ? ht::worm_index(big, big.mean()) : 0;
      worst_worm = std::fmax(worst_worm, worm);
      if (mode == 9) continue;  // same spectra as the mask by construction
      const ht::Image tile = ht::flat_patch(o.get(), v, side, 0);
      const ht::Spectrum sp = ht::spectrum(tile, side, tile.mean(), 1);
      worst_lfe = std::fmax(worst_lfe, sp.lfe_db);
      worst_cut = std::fmin(worst_cut, sp.cutoff_ratio);
      if (v <= 16) worst_cut_extreme = std::fmin(worst_cut_extreme, sp.cutoff_ratio);
      worst_aniso = std::fmax(worst_aniso, sp.anisotropy_db);
      for (const Extreme &e : extremes) {
        if (e.v == v) {
          EXPECT_LE(sp.lfe_db, e.lfe) << "v " << v;
        }
      }
    }
    if (mode == 9) continue;
    // Measured: LFE -9.4 dB at worst (g = 1/2; goal -7), cut-off 0.55 at
    // worst (g = 1/2; goal 0.5), anisotropy 0.18 dB (goal 1).
    EXPECT_LE(worst_lfe, -9.0);
    EXPECT_GE(worst_cut, 0.53);
    EXPECT_LE(worst_aniso, 0.5);
    // Highlights: 0.75 to 0.82 measured. The goal is 0.75, but at g = 1/128
    // the 0.75 point falls on annulus 16.97 of the 256-sample periodogram,
    // so the annulus that meets it reads 0.7498: the limit allows that bin.
    EXPECT_GE(worst_cut_extreme, 0.745);
  }
  // Measured 0.243 (goal 0.26; the best public masks reach 0.21-0.24).
  EXPECT_LE(worst_worm, 0.255);
}

// On a 720 x 1440 dpi device the mask spaces dots evenly on paper, not in
// pixels: a sparse tone's nearest neighbours lie across as often as down
// once distances are physical. A mask built in pixels would put nearly all
// of them down (half the physical distance).
TEST(ScreeningQuality, BlueNoiseMaskIsEvenOnPaperAtTwoToOne) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_BLUE_NOISE);
  s.resolutionX = 720;
  s.resolutionY = 1440;
  Object o(CreateScreeningObject(&s, 512, 8));
  ASSERT_NE(o, nullptr);
  const long side = long(o->cellWidth);
  const ht::Image tile = ht::flat_patch(o.get(), 8, uint32_t(side), 0);
  size_t dots = 0, across = 0;
  for (long y = 0; y < side; ++y)
    for (long x = 0; x < side; ++x) {
      if (tile.at(size_t(x), size_t(y)) < 0.5) continue;
      double best = 1e30;
      bool best_across = false;
      for (long j = -16; j <= 16; ++j)
        for (long i = -16; i <= 16; ++i) {
          if ((i == 0 && j == 0) ||
              tile.at(size_t((x + i + side) % side), size_t((y + j + side) % side)) < 0.5)
            continue;
          const double px = i / 720.0, py = j / 1440.0, d = px * px + py * py;
          if (d < best) {
            best = d;
            best_across = std::fabs(px) > std::fabs(py);
          }
        }
      ++dots;
      across += best_across ? 1 : 0;
    }
  const double share = double(across) / double(dots);
  EXPECT_NEAR(share, 0.5, 0.12);
}

TEST(ScreeningQuality, ErrorDiffusionQualityLock) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_STOCHASTIC);
  double worst_lfe = -100, worst_aniso = -100, worst_worm = 0;
  for (uint64_t seed : {3u, 4u}) {
    fresh_tables(seed);
    for (uint32_t v : kSpectrumTones) {
      Object o(CreateScreeningObject(&s, 1152, 8));
      const ht::Image img = ht::flat_patch(o.get(), v, 1152, 64);
      const double g = img.mean();
      const ht::Spectrum sp = ht::spectrum(img, 256, g, 16);
      const double worm = (v <= 16 || v >= 239) ? ht::worm_index(img, g) : 0;
      worst_lfe = std::fmax(worst_lfe, sp.lfe_db);
      worst_aniso = std::fmax(worst_aniso, sp.anisotropy_db);
      worst_worm = std::fmax(worst_worm, worm);
    }
  }
  // A wrong neighbour slot, a missing serpentine flip or a stuck cursor
  // breaks one of these.
  EXPECT_LE(worst_lfe, -4.5);
  EXPECT_LE(worst_aniso, 8.0);
  EXPECT_LE(worst_worm, 0.36);
}

// Drops printing `targets` percent of full ink (paper first, solid last)
// through the density route: each drop's density found by bisection on the
// tone it gives.
ScreeningSettings density_settings(uint32_t mode, const std::vector<double> &targets, uint32_t bits,
                                   ScreeningDrop *drops) {
  const uint32_t n = static_cast<uint32_t>(targets.size());
  ScreeningSettings s = settings_for(mode, n, bits);
  const double paper = 0.05, solid = 1.6;
  for (uint32_t i = 0; i < n; ++i) {
    double lo = paper, hi = solid;
    for (int step = 0; step < 60; ++step) {
      const double mid = (lo + hi) / 2;
      (dotPercentFromDensity(mid, paper, solid, 1.0) < targets[i] ? lo : hi) = mid;
    }
    drops[i] = ScreeningDrop{};
    drops[i].dotCode = i;
    drops[i].density = i == 0 ? paper : i + 1 == n ? solid : (lo + hi) / 2;
  }
  s.levelSource = ZT_LEVELS_DENSITY;
  s.dropCount = n;
  s.drops = drops;
  return s;
}

// A four-drop profile whose drops print about 46/255 and 115/255 of full
// ink (uneven, like measured drops).
ScreeningSettings profile_settings(uint32_t mode, ScreeningDrop *drops) {
  return density_settings(mode, {0, 46 / 2.55, 115 / 2.55, 100}, 2, drops);
}

// Transition smoothness: the visual noise sigma(v) over every tone, and J,
// its largest step between neighbouring tones over its largest value. A
// drop that takes over abruptly (every pixel at one level right at its
// density, noisy just above) shows as a spike. The first and last steps
// (paper to the lightest drop's first pixels, the last pixels to solid) are
// fixed by the end points and the drop set, not by the screen, so they are
// held apart, at what they measure.
TEST(ScreeningQuality, MultiLevelTransitionsAreSmooth) {
  LibraryScope library;
  ScreeningDrop drops[4];
  struct Case {
    const char *name;
    ScreeningSettings settings;
    double end_steps;  // measured + margin
  };
  const Case cases[] = {{"mask, even drops", settings_for(ZT_SCREEN_BLUE_NOISE, 4, 2), 0.31},
                        {"mask, profile drops", profile_settings(ZT_SCREEN_BLUE_NOISE, drops), 0.36},
                        {"pattern", settings_for(ZT_SCREEN_PATTERN), 0.56}};
  for (const Case &c : cases) {
    Object o(CreateScreeningObject(&c.settings, 384, 8));
    ASSERT_NE(o, nullptr) << c.name;
    std::vector<double> sigma(256);
    for (uint32_t v = 0; v < 256; ++v) sigma[v] = ht::visual_noise(ht::flat_patch(o.get(), v, 384, 64));
    double top = 0, jump = 0;
    uint32_t at = 0;
    for (uint32_t v = 1; v < 256; ++v) top = std::fmax(top, sigma[v]);
    for (uint32_t v = 2; v < 255; ++v) {
      if (std::fabs(sigma[v] - sigma[v - 1]) > jump) {
        jump = std::fabs(sigma[v] - sigma[v - 1]);
        at = v;
      }
    }
    const double ends = std::fmax(sigma[1], sigma[254]) / top;
    // Measured 0.19 (even), 0.21 (profile), 0.17 (pattern); the goal.
    EXPECT_LE(jump / top, 0.35) << c.name << " at v " << at;
    EXPECT_LE(ends, c.end_steps) << c.name;
  }
}

// Worms next to each drop density: just above or below a drop's density
// nearly every pixel carries that drop, and the few that do not are the
// minority dots, as in a highlight. Error diffusion chains them into worms
// there (its weights are fixed). Measured: error diffusion 0.27-0.31 (the
// goal is 0.33); the mask 0.20-0.22 with the traded pixels taken from one
// end of its ranks (0.28-0.29 at the even drops when they came from both
// ends, two blue-noise sets laid over each other); its goal is 0.26.
TEST(ScreeningQuality, FewWormsNextToDropDensities) {
  LibraryScope library;
  ScreeningDrop drops[4];
  struct Case {
    const char *name;
    ScreeningSettings settings;
    uint32_t margin;  // lines error diffusion needs to settle
    double limit;     // measured + margin
  };
  const Case cases[] = {
      {"mask, even drops", settings_for(ZT_SCREEN_BLUE_NOISE, 4, 2), 0, 0.26},
      {"mask, profile drops", profile_settings(ZT_SCREEN_BLUE_NOISE, drops), 0, 0.26},
      {"error diffusion, even drops", settings_for(ZT_SCREEN_STOCHASTIC, 4, 2), 32, 0.33},
      {"error diffusion, profile drops", profile_settings(ZT_SCREEN_STOCHASTIC, drops), 32, 0.33}};
  for (const Case &c : cases) {
    Object o(CreateScreeningObject(&c.settings, 576, 8));
    ASSERT_NE(o, nullptr) << c.name;
    double worst = 0;
    for (uint32_t k = 1; k + 1 < o->levels; ++k) {
      const double level = o->densities[k] / 255.0;
      const int centre = static_cast<int>(std::lround(o->densities[k]));
      for (int v : {centre - 3, centre + 3}) {
        const ht::Image patch = ht::flat_patch(o.get(), static_cast<uint32_t>(v), 576, c.margin);
        ht::Image others = patch;
        for (double &d : others.v) d = std::fabs(d - level) > 1e-9 ? 1.0 : 0.0;
        worst = std::fmax(worst, ht::worm_index(others, others.mean()));
      }
    }
    EXPECT_LE(worst, c.limit) << c.name;
  }
}

// The mask's level of each (tone, entry) pair over level sets even and
// uneven, 8- and 16-bit: no entry's level ever falls as the tone rises (a
// gradient would flicker otherwise, and the sixteen-pixel rows assume it),
// the ends are paper and solid, the mean follows the tone (exactly with
// spacings that divide 255; within one entry of the widest spacing
// otherwise, as plain rounding of one share gives), and near each inner
// drop the entries not at that drop form one run from an end of the ranks,
// which is what keeps the traded pixels one blue-noise set.
TEST(ScreeningQuality, MaskLevelsRiseAndTradeFromOneEnd) {
  LibraryScope library;
  ScreeningDrop drops[3][8];
  struct Case {
    const char *name;
    ScreeningSettings settings;
    uint32_t input_bits;
    bool even;
  };
  const Case cases[] = {
      {"3 even", settings_for(ZT_SCREEN_BLUE_NOISE, 3, 2), 8, false},  // 0 128 255
      {"4 even", settings_for(ZT_SCREEN_BLUE_NOISE, 4, 2), 8, true},
      {"8 even", settings_for(ZT_SCREEN_BLUE_NOISE, 8, 3), 8, false},  // 36 73 109 ...
      {"16 even", settings_for(ZT_SCREEN_BLUE_NOISE, 16, 4), 8, true},
      {"256 even", settings_for(ZT_SCREEN_BLUE_NOISE, 256, 8), 8, true},
      {"4 even, 16-bit", settings_for(ZT_SCREEN_BLUE_NOISE, 4, 2), 16, false},
      {"profile", profile_settings(ZT_SCREEN_BLUE_NOISE, drops[0]), 8, false},
      {"crowded light drops", density_settings(ZT_SCREEN_BLUE_NOISE, {0, 1, 1.8, 30, 100}, 3, drops[1]), 8,
       false},
      {"wide last step", density_settings(ZT_SCREEN_BLUE_NOISE, {0, 10, 20, 35, 100}, 3, drops[2]), 8,
       false}};
  std::vector<Case> all(std::begin(cases), std::end(cases));
  // Random profiles of 3 to 8 drops, at least 1 % of full ink apart.
  std::mt19937 random(17);
  std::vector<std::vector<ScreeningDrop>> random_drops;
  for (int i = 0; i < 40; ++i) {
    const uint32_t n = 3 + random() % 6;
    std::vector<double> targets{0};
    for (uint32_t k = 1; k + 1 < n; ++k)
      targets.push_back(targets.back() + 1 +
                        (100.0 - targets.back() - 1.0 * (n - k)) * (random() % 1000) / 2500.0);
    targets.push_back(100);
    random_drops.emplace_back(n);
    all.push_back(
        {"random", density_settings(ZT_SCREEN_BLUE_NOISE, targets, 3, random_drops.back().data()), 8, false});
  }
  for (const Case &c : all) {
    Object o(CreateScreeningObject(&c.settings, 64, c.input_bits));
    ASSERT_NE(o, nullptr) << c.name;
    ASSERT_NE(o->levelTable, nullptr) << c.name;
    const uint32_t top = o->levels - 1;
    const double scale = c.input_bits == 16 ? 255.0 / 65535.0 : 1.0;
    std::vector<double> d(o->levels);
    double widest = 0;
    for (uint32_t k = 0; k <= top; ++k) d[k] = o->densities[k] * scale;
    for (uint32_t k = 1; k <= top; ++k) widest = std::fmax(widest, d[k] - d[k - 1]);
    const uint8_t *table = o->levelTable;
    std::string drops_text;
    for (uint32_t k = 0; k <= top; ++k) drops_text += " " + std::to_string(o->densities[k]);
    SCOPED_TRACE(std::string(c.name) + drops_text);
    for (uint32_t m = 0; m < 255; ++m) {
      EXPECT_EQ(table[m], 0) << c.name;
      EXPECT_EQ(table[255 * 256 + m], top) << c.name;
      for (uint32_t v = 1; v < 256; ++v)
        ASSERT_GE(table[v * 256 + m], table[(v - 1) * 256 + m]) << c.name << " v " << v;
    }
    for (uint32_t v = 0; v < 256; ++v) {
      double mean = 0;
      for (uint32_t m = 0; m < 255; ++m) mean += d[table[v * 256 + m]] / 255;
      EXPECT_NEAR(mean, v, c.even ? 1e-9 : widest / 255) << c.name << " v " << v;
    }
    for (uint32_t k = 1; k < top; ++k) {
      if (d[k] - d[k - 1] < 8 || d[k + 1] - d[k] < 8) continue;
      for (int v = int(std::lround(d[k])) - 3; v <= int(std::lround(d[k])) + 3; ++v) {
        const uint8_t *row = table + v * 256;
        uint32_t others = 0, low_run = 0, high_run = 0;
        for (uint32_t m = 0; m < 255; ++m) others += row[m] != k ? 1 : 0;
        while (low_run < 255 && row[low_run] != k) ++low_run;
        while (high_run < 255 && row[254 - high_run] != k) ++high_run;
        EXPECT_GT(others, 0u) << c.name << " v " << v;
        EXPECT_TRUE(others == low_run || others == high_run) << c.name << " drop " << k << " v " << v;
      }
    }
  }
}

// The default CMYK set rendered through the module's own matrices at 50 %
// and overprinted: a wrong cell mapping or a set whose residual is not zero
// shows as a low-frequency line well below the screens' own frequencies.
// Plain one-cell screens at 15, 75 and 45 degrees are the control: their
// residual beats at about 72 pixels, and the measure must see it.
double overlay_moire_line(bool default_set) {
  constexpr uint32_t kSide = 1024;
  std::vector<ht::Image> plates;
  double f_min = 1;  // cycles a pixel of the coarsest screen
  const double angles[3] = {15, 75, 45};
  for (uint32_t i = 0; i < 3; ++i) {
    ScreeningSettings s =
        settings_for(default_set ? ZT_SCREEN_HALFTONE_SUPERCELL : ZT_SCREEN_HALFTONE_RATIONAL);
    if (default_set) s.flags = ZT_SCREEN_FLAG_CMYK_SET;
    s.channel = i == 2 ? 3 : i;
    s.angle = angles[i];
    Object o(CreateScreeningObject(&s, kSide, 8));
    if (o == nullptr) return 1;
    f_min = std::fmin(f_min, o->effectiveLpi / s.resolutionX);
    plates.push_back(ht::flat_patch(o.get(), 128, kSide, 0));
  }
  ht::Image ink = plates[0];
  for (size_t i = 0; i < ink.v.size(); ++i)
    ink.v[i] = 1 - (1 - plates[0].v[i]) * (1 - plates[1].v[i]) * (1 - plates[2].v[i]);
  return ht::strongest_line(ink, kSide * f_min / 3);
}

TEST(ScreeningQuality, DefaultCMYKOverlayShowsNoMoireLine) {
  LibraryScope library;
  const double ours = overlay_moire_line(true), plain = overlay_moire_line(false);
  // Measured 9.6e-5; the goal 1.5e-4.
  EXPECT_LE(ours, 1.5e-4);
  EXPECT_GE(plain, 3e-4);
}

TEST(ScreeningQuality, ChannelsAreDecorrelated) {
  LibraryScope library;
  for (uint32_t mode : {2u, 3u, 9u}) {
    fresh_tables(5);
    std::vector<ht::Image> patterns;
    for (uint32_t channel = 0; channel < 2; ++channel) {
      ScreeningSettings s = settings_for(mode);
      s.channel = channel;
      Object o(CreateScreeningObject(&s, 512, 8));
      patterns.push_back(ht::flat_patch(o.get(), 128, 512, 0));
    }
    double both = 0;
    for (size_t i = 0; i < patterns[0].v.size(); ++i) both += patterns[0].v[i] * patterns[1].v[i];
    const double n = double(patterns[0].v.size());
    const double g = patterns[0].mean();
    EXPECT_NEAR(both / n, g * g, 2 / std::sqrt(n)) << mode;
  }
}

TEST(ScreeningQuality, PatternTilesAreNested) {
  LibraryScope library;
  ScreeningSettings s = settings_for(ZT_SCREEN_PATTERN);
  Object o(CreateScreeningObject(&s, 16, 8));
  const size_t bytes = size_t(o->patternStride) * o->cellHeight;
  const double area = double(o->cellWidth) * o->cellHeight;
  EXPECT_EQ(o->ditherScreens[0], nullptr);
  for (uint32_t v = 1; v < 256; ++v) {
    size_t ones = 0;
    for (size_t i = 0; i < bytes; ++i) {
      ones += size_t(__builtin_popcount(o->ditherScreens[v][i]));
      if (v > 1) {
        ASSERT_EQ(o->ditherScreens[v - 1][i] & ~o->ditherScreens[v][i], 0) << v;
      }
    }
    EXPECT_EQ(double(ones), std::floor(v * area / 255 + 0.5)) << v;
  }
}

// The cell as device-pixel vector (M / R, N / R) at X x Y dpi: the library's
// reported frequency and angle against the formula, and the error limits.
TEST(ScreeningQuality, CellGeometry) {
  LibraryScope library;
  double worst_f[2] = {}, worst_a[2] = {};  // tiles of at most 1024, 4096
  for (uint32_t dpi : {600u, 720u, 1200u, 1440u})
    for (double lpi : {100.0, 150.0, 200.0})
      for (double angle : {0.0, 15.0, 45.0, 75.0}) {
        ScreeningSettings s = settings_for(ZT_SCREEN_HALFTONE_RATIONAL);
        s.resolutionX = s.resolutionY = dpi;
        s.linesPerInch = lpi;
        s.angle = angle;
        uint8_t *m = nullptr;
        uint32_t w = 0, h = 0;
        double f = 0, a = 0;
        ASSERT_EQ(SuperCellCreate_rational(&s, &m, &w, &h, &f, &a), 0);
        std::free(m);
        // One plain cell: its corners are whole pixels, so the reported
        // figures come from an integer vector.
        const double mx = dpi / f * std::cos(a * M_PI / 180), ny = dpi / f * std::sin(a * M_PI / 180);
        EXPECT_NEAR(mx, std::round(mx), 1e-9);
        EXPECT_NEAR(ny, std::round(ny), 1e-9);
        EXPECT_EQ(w,
                  uint32_t(std::lround(mx * mx + ny * ny)) /
                      std::gcd(uint32_t(std::lround(std::fabs(mx))), uint32_t(std::lround(std::fabs(ny)))));
        for (int i = 0; i < 2; ++i) {
          s.mode = ZT_SCREEN_HALFTONE_SUPERCELL;
          s.maxTileSide = i == 0 ? 1024 : 4096;
          ASSERT_EQ(SuperCellCreate(&s, nullptr, &w, &h, &f, &a), 0);  // geometry only
          EXPECT_LE(w, s.maxTileSide);
          worst_f[i] = std::fmax(worst_f[i], std::fabs(f - lpi) / lpi);
          worst_a[i] = std::fmax(worst_a[i], std::fabs(a - angle));
        }
      }
  EXPECT_LE(worst_f[0], 0.0105);
  EXPECT_LE(worst_a[0], 0.9);
  EXPECT_LE(worst_f[1], 0.005);
  EXPECT_LE(worst_a[1], 0.1);
  // At 600 dpi and 200 lpi or coarser the super-cell has all 256 levels.
  ScreeningSettings s = settings_for(ZT_SCREEN_HALFTONE_SUPERCELL);
  s.linesPerInch = 200;
  s.angle = 15;
  Object o(CreateScreeningObject(&s, 64, 8));
  std::vector<bool> seen(256, false);
  for (size_t i = 0; i < size_t(o->cellWidth) * o->cellHeight; ++i) seen[o->matrix[i]] = true;
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 255);  // entries 0 ... 254: 256 tones
}

// The default set's first-order moire term f_C1 + f_K2 - f_M1 in exact
// integers, each f = (M, N) R / (M^2 + N^2) over a common denominator.
TEST(ScreeningQuality, DefaultCMYKSetHasNoMoireResidual) {
  LibraryScope library;
  int32_t c[3], m[3], k[3];
  ASSERT_EQ(screeningDefaultCMYKCell(0, c), 0);
  ASSERT_EQ(screeningDefaultCMYKCell(1, m), 0);
  ASSERT_EQ(screeningDefaultCMYKCell(3, k), 0);
  auto len2 = [](const int32_t *v) { return int64_t(v[0]) * v[0] + int64_t(v[1]) * v[1]; };
  const int64_t den = len2(c) * len2(m) * len2(k);
  auto f1 = [&](const int32_t *v, int axis) { return int64_t(v[axis]) * v[2] * (den / len2(v)); };
  // f2 is f1 turned by 90 degrees: (-N, M).
  const int64_t rx = f1(c, 0) + (-f1(k, 1)) - f1(m, 0);
  const int64_t ry = f1(c, 1) + f1(k, 0) - f1(m, 1);
  EXPECT_EQ(rx, 0);
  EXPECT_EQ(ry, 0);
  // The set's geometry at every dpi: the angles of those cells, C and M
  // within 1 % of the request, K's cell 0.894 of theirs. One object is built
  // whole to see the flag reach it.
  for (uint32_t dpi : {600u, 720u, 1200u, 1440u}) {
    for (uint32_t ch = 0; ch < 4; ++ch) {
      ScreeningSettings s = settings_for(ZT_SCREEN_HALFTONE_SUPERCELL);
      s.flags = ZT_SCREEN_FLAG_CMYK_SET;
      s.channel = ch;
      s.resolutionX = s.resolutionY = dpi;
      uint32_t w = 0, h = 0;
      double lpi = 0, angle = 0;
      ASSERT_EQ(SuperCellCreate(&s, nullptr, &w, &h, &lpi, &angle), 0);
      int32_t cell[3];
      screeningDefaultCMYKCell(ch, cell);
      EXPECT_NEAR(angle, std::atan2(cell[1], cell[0]) * 180 / M_PI, 1e-9);
      const double expected = ch == 3 ? 150 * 2 / (5 * std::sqrt(2.0)) * std::sqrt(10.0) : 150;
      if (ch != 2) {
        EXPECT_NEAR(lpi, expected, expected * 0.01) << dpi << " " << ch;
      }
      EXPECT_LE(w, 1024u);
    }
  }
  ScreeningSettings s = settings_for(ZT_SCREEN_HALFTONE_SUPERCELL);
  s.flags = ZT_SCREEN_FLAG_CMYK_SET;
  s.channel = 3;
  Object o(CreateScreeningObject(&s, 64, 8));
  ASSERT_NE(o, nullptr);
  EXPECT_NEAR(o->effectiveAngle, 45.0, 1e-9);
}

}  // namespace

namespace {

// The sixteen-pixel loops against the per-pixel rules they replace: the
// multi-level rows against the level table, the pattern mode
// against its tiles' bits, on random lines of widths off the vector size.
TEST(ScreeningKernels, VectorLoopsMatchThePerPixelRules) {
  LibraryScope library;
  std::srand(12);
  for (uint32_t mode : {2u, 8u, 11u}) {
    ScreeningSettings s = settings_for(mode, 5, 3);
    Object o(CreateScreeningObject(&s, 1000, 8));
    ASSERT_NE(o->levelRows, nullptr);
    for (uint32_t width : {1000u, 997u, 15u, 1u}) {
      for (uint32_t y = 0; y < 40; ++y) {
        std::vector<uint8_t> in(width), copy, fast(o->outputBytes), slow(o->outputBytes);
        for (auto &v : in) v = static_cast<uint8_t>(std::rand());
        copy = in;
        o->screenScanline(o.get(), in.data(), fast.data(), width, y);
        uint8_t *rows = o->levelRows;
        o->levelRows = nullptr;
        o->screenScanline(o.get(), copy.data(), slow.data(), width, y);
        o->levelRows = rows;
        ASSERT_EQ(fast, slow) << mode << " width " << width << " y " << y;
      }
    }
  }
  ScreeningSettings s = settings_for(ZT_SCREEN_PATTERN);
  s.channel = 1;
  Object o(CreateScreeningObject(&s, 333, 8));
  for (uint32_t y = 0; y < 300; y += 7) {
    std::vector<uint8_t> in(333), out(o->outputBytes);
    for (auto &v : in) v = static_cast<uint8_t>(std::rand());
    o->screenScanline(o.get(), in.data(), out.data(), 333, y);
    for (uint32_t x = 0; x < 333; ++x) {
      const uint8_t *tile = o->ditherScreens[in[x]];
      const uint32_t tx = x % o->cellWidth, ty = y % o->cellHeight;
      const bool want = tile != nullptr && ((tile[ty * o->patternStride + tx / 8] >> (7 - tx % 8)) & 1u);
      ASSERT_EQ(((out[x / 8] >> (7 - x % 8)) & 1u) != 0, want) << x << " " << y;
    }
  }
}

}  // namespace
