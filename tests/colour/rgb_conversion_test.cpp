// RGB conversion records: the defaults, the gamma and tone-curve paths, the
// clamping flag and ownership of the curve tables.
#include <gtest/gtest.h>
#include <zt/ztcms.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "colour/ztcms_fixture.h"

namespace {

using Triple = std::array<double, 3>;

class RgbTest : public zt::test::ColourTest {
 protected:
  ZTCMS_RGBConv record_{};

  void SetUp() override { ASSERT_EQ(ZTCMS_MakeDefaultRGBConvMatrices(&record_, 0x55), 0); }
  void TearDown() override {
    ZTCMS_FreeRGBConvMatrices(&record_);
    zt::test::LibraryTest::TearDown();
  }
  Triple to_xyz(Triple rgb, uint8_t flags = ZTCMS_RGB_TONE_CURVES) {
    Triple xyz;
    ZTCMS_RGBToXYZ(&record_, flags, rgb.data(), xyz.data());
    return xyz;
  }
  Triple to_rgb(const Triple &xyz, uint8_t flags = ZTCMS_RGB_TONE_CURVES) {
    Triple rgb;
    ZTCMS_XYZToRGB(&record_, flags, xyz.data(), rgb.data());
    return rgb;
  }
  // Entries spread evenly over 0 ... 65535 on channel k.
  void install(int k, std::initializer_list<uint16_t> entries, bool inverse) {
    ZTCMS_ToneCurve &tone = record_.tone[k];
    tone.count = static_cast<uint32_t>(entries.size());
    tone.step = 65535.0 / (tone.count - 1);
    tone.scale = 1.0 / tone.step;
    auto *table = static_cast<uint16_t *>(std::malloc(entries.size() * sizeof(uint16_t)));
    std::memcpy(table, entries.begin(), entries.size() * sizeof(uint16_t));
    std::free(inverse ? tone.inverse : tone.curve);
    (inverse ? tone.inverse : tone.curve) = table;
  }
};

TEST_F(RgbTest, DefaultsGammaAndClamping) {
  EXPECT_EQ(record_.flags, 0x55u);
  const Triple white = to_xyz({255, 255, 255});
  EXPECT_NEAR(white[0], 0.9642, 1e-6);
  EXPECT_NEAR(white[1], 1.0, 1e-6);
  EXPECT_NEAR(white[2], 0.8249, 1e-6);
  // With the flag the input is clamped in place and made linear by the gamma.
  Triple rgb = {300, -20, 128}, xyz;
  ZTCMS_RGBToXYZ(&record_, ZTCMS_RGB_TONE_CURVES, rgb.data(), xyz.data());
  EXPECT_EQ(rgb, (Triple{255, 0, 128}));
  EXPECT_NEAR(xyz[1], 0.2224428 + 0.0605911 * std::pow(128 / 255.0, 2.2), 1e-15);
  // Without it nothing is clamped or curved.
  rgb = {300, -20, 128};
  ZTCMS_RGBToXYZ(&record_, 0, rgb.data(), xyz.data());
  EXPECT_EQ(rgb, (Triple{300, -20, 128}));
  EXPECT_NEAR(xyz[1], (0.2224428 * 300 - 0.7169661 * 20 + 0.0605911 * 128) / 255, 1e-14);
  for (double c : to_rgb({2, 2, 2})) EXPECT_EQ(c, 255.0);
  // Round trips, away from 0 where the gamma magnifies the matrices' 7th digit.
  for (const Triple &in : {Triple{250, 20, 30}, Triple{128, 64, 32}}) {
    const Triple gamma = to_rgb(to_xyz(in)), plain = to_rgb(to_xyz(in, 0), 0);
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(gamma[k], in[k], 2e-3);
      EXPECT_NEAR(plain[k], in[k], 2e-4);
    }
  }
}

// Entries at 0, 32767.5 and 65535: on an entry's position the entry itself,
// between two the straight line rounded half up; other channels keep gamma.
TEST_F(RgbTest, ToneCurveLookup) {
  install(0, {0, 1000, 65535}, false);
  auto red = [&](double c) { return to_xyz({c, 0, 0})[0] / 0.4359763 * 65535.0; };
  EXPECT_NEAR(red(0), 0, 1e-9);
  EXPECT_NEAR(red(255), 65535, 1e-9);
  EXPECT_NEAR(red(64), 502, 1e-9);  // v = 16448: 1000 * 16448 / 32767.5 = 501.96
  // 257 * 127.5 is on entry 1, but v = 32768 is just past: 1000.98 -> 1001.
  EXPECT_NEAR(red(127.5), 1001, 1e-9);
  EXPECT_NEAR(to_xyz({0, 128, 0})[1], 0.7169661 * std::pow(128 / 255.0, 2.2), 1e-15);
  // The inverse shares count, scale and step: linear 0.25 -> v = 16384 ->
  // 60000 * 16384 / 32767.5 = 30000.46 -> 30000, then / 257.
  install(0, {0, 60000, 65535}, true);
  EXPECT_NEAR(to_rgb({0.4359763 * 0.25, 0.2224428 * 0.25, 0.0139132 * 0.25})[0], 30000 / 257.0, 1e-3);
}

TEST_F(RgbTest, UnfitCurvesStayInsideTheTable) {
  install(1, {0, 65535}, false);
  for (double scale : {1e300, -5.0}) {
    record_.tone[1].scale = scale;  // held to the only cell, whose line gives v itself
    EXPECT_NEAR(to_xyz({0, 200, 0})[1], 0.7169661 * 51400 / 65535, 1e-12);
  }
  record_.tone[1].scale = record_.tone[1].step = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(to_xyz({0, 200, 0})[1], 0.0);
  record_.tone[1].count = 1;  // no usable curve: the gamma applies
  EXPECT_NEAR(to_xyz({0, 128, 0})[1], 0.7169661 * std::pow(128 / 255.0, 2.2), 1e-15);
}

// Making the defaults again frees every table (ASan reports a leak if not).
TEST_F(RgbTest, DefaultsReleaseTheTables) {
  for (int k = 0; k < 3; ++k) {
    install(k, {0, 65535}, false);
    install(k, {0, 65535}, true);
  }
  ASSERT_EQ(ZTCMS_MakeDefaultRGBConvMatrices(&record_, 1), 0);
  for (const ZTCMS_ToneCurve &tone : record_.tone) {
    EXPECT_EQ(tone.curve, nullptr);
    EXPECT_EQ(tone.inverse, nullptr);
  }
  EXPECT_EQ(ZTCMS_MakeDefaultRGBConvMatrices(nullptr, 0), -1);
  expect_one_log("ZTCMS_MakeDefaultRGBConvMatrices", "NULL");
}

}  // namespace
