// Dot percentage and tone value increase: the measurement formulas, the
// standard increase and its inverse, and the setup record.
#include <gtest/gtest.h>
#include <zt/dotpercent.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "colour/ztcms_fixture.h"

namespace {

using DotPercentTest = zt::test::ColourTest;

static_assert(offsetof(ZTDotPercentSetup, method) == 4 && offsetof(ZTDotPercentSetup, band_type) == 12 &&
              offsetof(ZTDotPercentSetup, factor) == 16 && offsetof(ZTDotPercentSetup, solid_density) == 32);

TEST_F(DotPercentTest, MeasurementFormulas) {
  EXPECT_EQ(dotPercentFromDensity(0.1, 0.1, 1.5, 2.0), 0.0);
  EXPECT_DOUBLE_EQ(dotPercentFromDensity(1.5, 0.1, 1.5, 2.0), 100.0);
  EXPECT_EQ(dotPercentFromDensity(0.8, 0.1, 1.5, 0.0), 0.0);
  EXPECT_EQ(dotPercentFromDensity(0.8, 1.6, 1.5, 2.0), 0.0);  // paper darker than solid
  // n = 1 is Murray-Davies on the reflectances 10^-D.
  for (double d = 0.1; d <= 1.5; d += 0.1) {
    EXPECT_NEAR(dotPercentFromDensity(d, 0.1, 1.5, 1.0),
                dotPercentFromReflectance(std::pow(10, -d), std::pow(10, -0.1), std::pow(10, -1.5)), 1e-10);
  }
  EXPECT_EQ(dotPercentFromReflectance(0.0, 0.9, 0.05), 100.0);
  EXPECT_LT(dotPercentFromReflectance(0.95, 0.9, 0.05), 0.0);  // not clamped
  EXPECT_NEAR(dotPercentFromReflectanceMinusDotgain(0.5, 0.9, 0.1, 0.1), 40.0, 1e-12);
  EXPECT_EQ(dotPercentFromReflectanceMinusDotgain(0.95, 0.9, 0.1, 0.0), 0.0);
  EXPECT_EQ(dotPercentFromReflectanceMinusDotgain(0.0, 0.9, 0.1, 0.2), 100.0);
  EXPECT_DOUBLE_EQ(calculateTVI(0.5, 0.17), 0.17);
  for (double t : {-3.0, 0.0, 1.0, 4.0}) EXPECT_EQ(calculateTVI(t, 0.17), 0.0);
}

TEST_F(DotPercentTest, StandardIncreaseAndItsInverse) {
  EXPECT_DOUBLE_EQ(calculateISOTVI(50, 4), 15.0);
  EXPECT_DOUBLE_EQ(calculateISOTVI(50, 1), 17.2);
  EXPECT_DOUBLE_EQ(calculateISOTVI(50, 13), 14.4);
  EXPECT_NEAR(calculateISOTVI(45, 3), 13.0, 1e-12);
  for (double t : {-5.0, 0.0, 100.0, 150.0}) EXPECT_EQ(calculateISOTVI(t, 4), 0.0);
  EXPECT_DOUBLE_EQ(calculateISOTVIReverse(65, 4), 15.0);
  // Band types sharing a curve agree; the inverse undoes the increase on
  // every curve, between the rows as well as on them.
  const int32_t groups[4][3] = {{4, 5, 11}, {3, 10, 12}, {13, 13, 13}, {1, 2, -7}};
  for (const auto &group : groups) {
    for (double t = 0; t <= 100; t += 0.25) {
      const double tvi = calculateISOTVI(t, group[0]);
      ASSERT_EQ(calculateISOTVI(t, group[1]), tvi);
      ASSERT_EQ(calculateISOTVI(t, group[2]), tvi);
      ASSERT_NEAR(calculateISOTVIReverse(t + tvi, group[0]), tvi, 1e-9) << group[0] << " " << t;
    }
  }
}

TEST_F(DotPercentTest, SetupRecordMethodsAndModes) {
  ZTDotPercentSetup setup;
  setup.reserved = 99;
  // Paper 0 and solid 2: reflectances 1 and 0.01.
  ASSERT_EQ(dotpercentSetup(&setup, ZT_DOTPERCENT_YULE_NIELSEN, ZT_TVI_NONE, 4, 1.0), 0);
  ASSERT_EQ(dotpercentSetupUsingPaperAndSolid(&setup, 0.0, 2.0), 0);
  EXPECT_EQ(setup.reserved, 0);
  const double half = std::log10(2.0);
  EXPECT_NEAR(dotpercentFromValue(&setup, &half), 50.0 / 0.99, 1e-12);
  // Mode 2 maps a printed 65 back to 50, mode 1 maps 50 to 65; any other mode
  // only clamps.
  setup.method = ZT_DOTPERCENT_MURRAY_DAVIES;
  setup.tvi_mode = ZT_TVI_REMOVE;
  const double r65 = 1.0 - 0.65 * 0.99, r50 = 1.0 - 0.50 * 0.99, beyond_solid = 0.001;
  EXPECT_NEAR(dotpercentFromValue(&setup, &r65), 50.0, 1e-12);
  setup.tvi_mode = ZT_TVI_ADD;
  EXPECT_NEAR(dotpercentFromValue(&setup, &r50), 65.0, 1e-12);
  setup.tvi_mode = 7;
  EXPECT_EQ(dotpercentFromValue(&setup, &beyond_solid), 100.0);
  // Method 4 takes its peak gain from the factor.
  ASSERT_EQ(dotpercentSetup(&setup, ZT_DOTPERCENT_MINUS_DOTGAIN, ZT_TVI_NONE, 4, 0.1), 0);
  ASSERT_EQ(dotpercentSetupUsingPaperAndSolid(&setup, 0.0, 2.0), 0);
  EXPECT_NEAR(dotpercentFromValue(&setup, &r50), 40.0, 1e-12);
  ASSERT_EQ(dotpercetSetYuleNielsen(&setup, 0.0), 0);
  EXPECT_NEAR(dotpercentFromValue(&setup, &r50), 50.0, 1e-12);
  // Density through Murray-Davies is Yule-Nielsen with n = 1.
  ASSERT_EQ(dotpercentSetup(&setup, ZT_DOTPERCENT_MURRAY_DAVIES_DENSITY, ZT_TVI_NONE, 4, 0.0), 0);
  ASSERT_EQ(dotpercentSetupUsingPaperAndSolid(&setup, 0.1, 1.6), 0);
  for (double d = 0.1; d <= 1.6; d += 0.05) {
    EXPECT_NEAR(dotpercentFromValue(&setup, &d), dotPercentFromDensity(d, 0.1, 1.6, 1.0), 1e-9) << d;
  }
}

TEST_F(DotPercentTest, ManyValuesAndBadArguments) {
  ZTDotPercentSetup setup;
  ASSERT_EQ(dotpercentSetup(&setup, ZT_DOTPERCENT_YULE_NIELSEN, ZT_TVI_ADD, 1, 1.7), 0);
  ASSERT_EQ(dotpercentSetupUsingPaperAndSolid(&setup, 0.07, 1.45), 0);
  const std::vector<double> wedge = {0.07, 0.2, 0.35, 0.5, 0.8, 1.1, 1.45};
  std::vector<double> percents(wedge.size(), -1.0);
  ASSERT_EQ(dotpercentFromArray(&setup, wedge.data(), percents.data(), 7), 0);
  for (size_t i = 0; i < wedge.size(); ++i) {
    EXPECT_EQ(percents[i], dotpercentFromValue(&setup, &wedge[i])) << i;
    EXPECT_TRUE(i == 0 || percents[i] > percents[i - 1]) << i;
  }
  EXPECT_EQ(percents.front(), 0.0);
  EXPECT_NEAR(percents.back(), 100.0, 1e-9);
  const double readings[] = {0.49, 0.5, 0.51}, mean = 0.5;
  EXPECT_NEAR(dotpercentFromValues(&setup, readings, 3), dotpercentFromValue(&setup, &mean), 1e-12);

  EXPECT_EQ(dotpercentFromValue(nullptr, &mean), 0.0);
  expect_one_log("dotpercentFromValue", "NULL");
  EXPECT_EQ(dotpercentFromValues(&setup, readings, 0), 0.0);
  expect_one_log("dotpercentFromValues", "No readings");
  EXPECT_EQ(dotpercentSetup(&setup, 5, 0, 4, 1.0), -1);
  expect_one_log("dotpercentSetup", "Unknown measurement method 5");
  setup.method = 0;  // filled by hand
  EXPECT_EQ(dotpercentFromValue(&setup, &mean), 0.0);
  expect_one_log("dotpercentFromValue", "Unknown measurement method 0");
}

}  // namespace
