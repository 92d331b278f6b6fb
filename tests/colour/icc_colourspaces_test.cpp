// Conversions between the CIE spaces, colour temperature, whites, adaptation
// and spectra. Little CMS is the oracle where it computes the same quantity.
#include <gtest/gtest.h>
#include <zt/ztcms.h>

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "colour/ztcms_fixture.h"

#if defined(ZT_HAVE_LCMS2)
#include <lcms2.h>
#endif

namespace {

using zt::test::ColourTest;
using Triple = std::array<double, 3>;
using CieTest = ColourTest;

constexpr Triple kD50 = {0.9642, 1.0, 0.8249};
constexpr Triple kD65 = {0.9505, 1.0, 1.0888};
constexpr Triple kA = {1.0985, 1.0, 0.3558};
constexpr Triple kBluish = {0.9497, 1.0, 1.2264};

Triple to_lab(const Triple &xyz, const Triple &white) {
  Triple lab;
  ZTCMS_XYZToLab(xyz.data(), white.data(), lab.data());
  return lab;
}

Triple to_xyz(const Triple &lab, const Triple &white) {
  Triple xyz;
  ZTCMS_LabToXYZ(lab.data(), white.data(), xyz.data());
  return xyz;
}

Triple adapt(const Triple &xyz, const Triple &src, const Triple &dst, int32_t method) {
  Triple out;
  EXPECT_EQ(ZTCMS_Chromatic_Adaptation(xyz.data(), src.data(), dst.data(), method, out.data()), out.data());
  return out;
}

// The clamps, black, and the deliberate mismatch of the two directions below
// L = 8 (rounded epsilon and kappa backward, exact ones forward).
TEST_F(CieTest, LabLimitsAndRoundTrip) {
  EXPECT_EQ(to_lab(kD50, kD50), (Triple{100, 0, 0}));
  EXPECT_EQ(to_lab({2, 3, 2}, kD50)[0], 100.0);
  EXPECT_EQ(to_lab({5, 0.2, 0.2}, kD50)[1], 127.0);
  EXPECT_EQ(to_lab({0.2, 0.2, 5}, kD50)[2], -128.0);
  EXPECT_EQ(to_xyz({0, 0, 0}, kD50), (Triple{0, 0, 0}));
  EXPECT_EQ(to_xyz({5, 0, 120}, kD50)[2], 0.0);
  for (double l : {1.0, 7.5, 10.0, 99.0}) {
    const double back = to_lab(to_xyz({l, 12.5, -30.25}, kD50), kD50)[0];
    EXPECT_EQ(std::fabs(back - l) < 1e-11, l > 8) << l;
  }
  const float white[3] = {0.9642f, 1.0f, 0.8249f}, xyzf[3] = {0.3f, 0.2f, 0.6f};
  float labf[3];
  ZTCMS_XYZToLabf(xyzf, white, labf);
  EXPECT_NEAR(labf[2], to_lab({0.3f, 0.2f, 0.6f}, kD50)[2], 2e-3);
}

// Every sign of a and b, signed zeros and hair-thin negative b: 6.28318 *
// 180 / 3.14159 is exactly 360, yet the hue never reaches it.
TEST_F(CieTest, HueStaysInRange) {
  const double values[] = {-100.0, -1e-300, -0.0, 0.0, 1e-300, 1e-12, 100.0};
  for (double a : values) {
    for (double b : values) {
      const Triple lab = {50, a, b};
      Triple lch;
      ZTCMS_LabToLch(lab.data(), lch.data());
      EXPECT_GE(lch[2], 0.0) << a << " " << b;
      EXPECT_LT(lch[2], 360.0) << a << " " << b;
    }
  }
}

TEST_F(CieTest, LuvRoundTrip) {
  Triple luv, xyz;
  for (const Triple &in : {kD50, Triple{0.3, 0.2, 0.1}, Triple{0.05, 0.1, 0.6}}) {
    ZTCMS_XYZToLUV(in.data(), kD50.data(), luv.data());
    EXPECT_TRUE(in != kD50 || std::fabs(luv[0] - 100) + std::fabs(luv[1]) + std::fabs(luv[2]) < 1e-12);
    ZTCMS_LUVToXYZ(luv.data(), kD50.data(), xyz.data());
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(xyz[k], in[k], 1e-12);
  }
}

// A point on the Planckian locus at 325e-6 per kelvin lies on that row's
// isotemperature line, so 1 / 325e-6 comes back. With the misprinted u of
// 0.24702, which Little CMS keeps, it comes out near 3056 K.
TEST_F(CieTest, ColourTemperatureAndDaylight) {
  const double u = 0.24792, v = 0.34655, d = 6.0 / v, x = u * d / 4.0;
  const Triple on_row = {x, 1.0, (d - x - 15.0) / 3.0};
  double kelvin = 1234.0;
  ASSERT_EQ(ZTCMS_XYZtoCorColourTemp(on_row.data(), &kelvin), 0);
  EXPECT_NEAR(kelvin, 1e6 / 325.0, 1e-6);
  EXPECT_EQ(ZTCMS_XYZtoCorColourTemp(Triple{0, 0, 0}.data(), &kelvin), -1);
  expect_one_log("ZTCMS_XYZtoCorColourTemp", "black");
  EXPECT_EQ(ZTCMS_XYZtoCorColourTemp(Triple{0.2835, 0.107, 0}.data(), &kelvin), -1);  // redder than 1667 K
  expect_one_log("ZTCMS_XYZtoCorColourTemp", "outside");
  Triple xyz = {5, 6, 7};
  ZTCMS_CorColourTempToxy(3999.0, xyz.data());
  EXPECT_EQ(xyz, (Triple{0, 0, 7}));
  ZTCMS_CorColourTempToxy(25000.5, xyz.data());
  EXPECT_EQ(xyz, (Triple{0, 0, 7}));
}

TEST_F(CieTest, AdaptationMethodsAndEdges) {
  const Triple colour = {0.4, 0.3, 0.2};
  EXPECT_EQ(adapt(colour, kD65, kD50, 7), adapt(colour, kD65, kD50, ZTCMS_ADAPT_BRADFORD));
  EXPECT_EQ(adapt(colour, kD65, kD50, 4), adapt(colour, kD65, kD50, ZTCMS_ADAPT_CAT02));
  for (int32_t method = 0; method < 3; ++method)
    EXPECT_NE(adapt(colour, kD65, kD50, method), adapt(colour, kD65, kD50, method + 1)) << method;
  for (int32_t method = 0; method <= 4; ++method) {
    const Triple same = adapt(colour, kA, kA, method);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(same[k], colour[k], 1e-15) << method;
    EXPECT_EQ(adapt(colour, {0, 0, 0}, kD50, method), colour);
  }
  // Pure Y from A towards a bluish white: unclamped, X and Z would be about
  // -0.13 and -0.16.
  const Triple out = adapt({0, 1, 0}, kA, kBluish, ZTCMS_ADAPT_BRADFORD);
  EXPECT_EQ(out[0], 0.0);
  EXPECT_NEAR(out[1], 1.106, 1e-3);
  EXPECT_EQ(out[2], 0.0);
  EXPECT_EQ(ZTCMS_Chromatic_Adaptation(kD50.data(), nullptr, kD50.data(), 2, Triple{}.data()), nullptr);
  expect_one_log("ZTCMS_Chromatic_Adaptation", "NULL");
}

TEST_F(CieTest, Spectra) {
  // The weighting is a D50 daylight: the perfect reflector is near that white.
  const std::vector<double> ones(40, 1.0);
  Triple xyz;
  ASSERT_EQ(ZTCMS_spectralToXYZ(ones.data(), 40, 360.0, 10.0, xyz.data()), 0);
  EXPECT_EQ(xyz[1], 1.0);
  EXPECT_NEAR(xyz[0], 0.9642, 2e-3);
  EXPECT_NEAR(xyz[2], 0.8249, 2e-3);
  // Steps of 20 from 400 nm: sample 1 is 420 nm, so X : Y : Z is that row's.
  std::vector<double> line(18, 0.0);
  line[1] = 1.0;
  ASSERT_EQ(ZTCMS_spectralToLab(line.data(), 18, 400.0, 20.0, xyz.data()), 0);
  ASSERT_EQ(ZTCMS_spectralToXYZ(line.data(), 18, 400.0, 20.0, xyz.data()), 0);
  EXPECT_NEAR(xyz[0] / xyz[2], 0.13438 / 0.6456, 1e-12);
  EXPECT_NEAR(xyz[0] / xyz[1], 0.13438 / 0.004, 1e-9);
  // Between the rows nothing matches: -1, output untouched.
  xyz = {7, 8, 9};
  EXPECT_EQ(ZTCMS_spectralToLab(ones.data(), 40, 355.0, 10.0, xyz.data()), -1);
  expect_one_log("ZTCMS_spectralToLab", "matches");
  EXPECT_EQ(xyz, (Triple{7, 8, 9}));
}

#if defined(ZT_HAVE_LCMS2)
// Forward, our epsilon, kappa and slope are the CIE ratios rounded to ten
// digits: well under 1e-6 in L, a or b. Backward, away from black (L above 8,
// both cubes above epsilon), both compute the same cubes. A hue in degrees
// from 3.14159 and 6.28318 is off the full-precision one by at most
// 360 * (pi / 3.14159 - 1) or (2 pi - 6.28318) * 180 / pi, both 3.04e-4.
TEST_F(CieTest, LabAgreesWithLittleCms) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> l_dist(0.5, 100.0), ab_dist(-110.0, 110.0);
  int backward = 0;
  for (int i = 0; i < 20000; ++i) {
    const Triple &white = i % 2 ? kD50 : kD65;
    const cmsCIEXYZ w = {white[0], white[1], white[2]};
    const cmsCIELab ref = {l_dist(rng), ab_dist(rng), ab_dist(rng)};
    cmsCIEXYZ xyz;
    cmsLab2XYZ(&w, &xyz, &ref);
    cmsCIELab expect;
    cmsXYZ2Lab(&w, &expect, &xyz);
    if (xyz.X < 0 || xyz.Z < 0 || std::fabs(expect.a) > 127 || std::fabs(expect.b) > 127) continue;
    const Triple lab = to_lab({xyz.X, xyz.Y, xyz.Z}, white);
    ASSERT_NEAR(lab[0], expect.L, 1e-6) << i;
    ASSERT_NEAR(lab[1], expect.a, 1e-6) << i;
    ASSERT_NEAR(lab[2], expect.b, 1e-6) << i;
    Triple lch;
    cmsCIELCh expect_lch;
    ZTCMS_LabToLch(lab.data(), lch.data());
    const cmsCIELab ours = {lab[0], lab[1], lab[2]};
    cmsLab2LCh(&expect_lch, &ours);
    const double dh = std::fabs(lch[2] - expect_lch.h);
    ASSERT_LE(std::fmin(dh, 360 - dh), 3.1e-4) << i;
    const double fy = (ref.L + 16) / 116, fx = fy + ref.a / 500, fz = fy - ref.b / 200;
    if (ref.L > 8 && fx * fx * fx > 0.0089 && fz * fz * fz > 0.0089) {
      const Triple back = to_xyz({ref.L, ref.a, ref.b}, white);
      ASSERT_NEAR(back[0], xyz.X, 1e-12) << i;
      ASSERT_NEAR(back[1], xyz.Y, 1e-12) << i;
      ASSERT_NEAR(back[2], xyz.Z, 1e-12) << i;
      ++backward;
    }
  }
  EXPECT_GT(backward, 3000);
}

// The same Robertson method; none of these whites falls between 300e-6 and
// 350e-6 per kelvin, where Little CMS keeps the misprinted u.
TEST_F(CieTest, TemperatureAndDaylightAgreeWithLittleCms) {
  for (const Triple &white : {kD50, kD65, kA, kBluish, Triple{1, 1, 1}, Triple{0.3, 0.3, 0.6}}) {
    double kelvin = 0, expect = 0;
    ASSERT_EQ(ZTCMS_XYZtoCorColourTemp(white.data(), &kelvin), 0);
    const cmsCIEXYZ xyz = {white[0], white[1], white[2]};
    cmsCIExyY xyy;
    cmsXYZ2xyY(&xyy, &xyz);
    ASSERT_TRUE(cmsTempFromWhitePoint(&expect, &xyy));
    EXPECT_NEAR(kelvin, expect, expect * 1e-12);
  }
  for (double t : {4000.0, 5003.0, 7000.0, 7000.5, 9300.0, 25000.0}) {
    Triple xyz;
    ZTCMS_CorColourTempToxy(t, xyz.data());
    cmsCIExyY expect;
    ASSERT_TRUE(cmsWhitePointFromTemp(&expect, t));
    EXPECT_NEAR(xyz[0], expect.x, 1e-14) << t;
    EXPECT_NEAR(xyz[1], expect.y, 1e-14) << t;
  }
}

TEST_F(CieTest, BradfordAgreesWithLittleCms) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> unit(0.05, 1.0);
  for (const Triple &src : {kD50, kD65, kA, kBluish}) {
    for (const Triple &dst : {kD50, kD65, kA, kBluish}) {
      for (int i = 0; i < 50; ++i) {
        const Triple colour = {unit(rng) * src[0], unit(rng), unit(rng) * src[2]};
        const Triple out = adapt(colour, src, dst, ZTCMS_ADAPT_BRADFORD);
        const cmsCIEXYZ s = {src[0], src[1], src[2]}, d = {dst[0], dst[1], dst[2]};
        const cmsCIEXYZ v = {colour[0], colour[1], colour[2]};
        cmsCIEXYZ expect;
        ASSERT_TRUE(cmsAdaptToIlluminant(&expect, &s, &d, &v));
        if (expect.X < 0 || expect.Y < 0 || expect.Z < 0) continue;
        EXPECT_NEAR(out[0], expect.X, 1e-12);
        EXPECT_NEAR(out[1], expect.Y, 1e-12);
        EXPECT_NEAR(out[2], expect.Z, 1e-12);
      }
    }
  }
}
#endif

}  // namespace
