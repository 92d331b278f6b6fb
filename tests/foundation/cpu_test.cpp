#include <gtest/gtest.h>
#include <zt/cpu.h>

#include <cstdlib>

#include "foundation/simd_dispatch.h"
#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

// GCC's own probe (which also asks the operating system about AVX state) is
// an independent check of our cpuid bit numbers.
TEST(Cpu, FeaturesAgreeWithCompilerProbe) {
  const uint32_t features = ZT_CpuFeatures();
  __builtin_cpu_init();
  EXPECT_EQ((features & ZT_CPU_SSE2) != 0, __builtin_cpu_supports("sse2") != 0);
  EXPECT_EQ((features & ZT_CPU_SSE41) != 0, __builtin_cpu_supports("sse4.1") != 0);
  EXPECT_EQ((features & ZT_CPU_AVX) != 0, __builtin_cpu_supports("avx") != 0);
  EXPECT_EQ((features & ZT_CPU_AVX2) != 0, __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ((features & ZT_CPU_FMA) != 0, __builtin_cpu_supports("fma") != 0);
  EXPECT_EQ((features & ZT_CPU_BMI2) != 0, __builtin_cpu_supports("bmi2") != 0);
  const bool vector_form_runs = (features & ZT_CPU_AVX2) != 0 && (features & ZT_CPU_FMA) != 0;
  EXPECT_EQ(ZT_SimdBestLevel(), vector_form_runs ? ZT_SIMD_AVX2 : ZT_SIMD_BASELINE);
}

TEST(Cpu, SetSimdLevelClampsToBest) {
  zt::test::SimdLevelScope restore(ZT_SimdLevel());
  const int32_t best = ZT_SimdBestLevel();
  EXPECT_EQ(ZT_SetSimdLevel(ZT_SIMD_AVX2 + 5), best);
  EXPECT_EQ(ZT_SimdLevel(), best);
  EXPECT_EQ(ZT_SetSimdLevel(-1), ZT_SIMD_BASELINE);
  EXPECT_EQ(ZT_SimdLevel(), ZT_SIMD_BASELINE);
}

struct Refills {
  int32_t level = -1;
  int calls = 0;
};
Refills g_table_a, g_table_b;
void refill_a(int32_t level) {
  g_table_a.level = level;
  ++g_table_a.calls;
}
void refill_b(int32_t level) {
  g_table_b.level = level;
  ++g_table_b.calls;
}

TEST(SimdRegistry, RefillsEveryTableWithClampedLevel) {
  g_table_a = {};
  g_table_b = {};
  zt::SimdRegistry registry(ZT_SIMD_AVX2, ZT_SIMD_AVX2);
  ASSERT_TRUE(registry.add(refill_a));
  EXPECT_EQ(g_table_a.level, ZT_SIMD_AVX2);
  ASSERT_TRUE(registry.add(refill_b));
  // A module initialiser that runs again refills without registering twice.
  ASSERT_TRUE(registry.add(refill_a));
  EXPECT_EQ(g_table_a.calls, 2);

  EXPECT_EQ(registry.set_level(ZT_SIMD_BASELINE), ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_a.level, ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_b.level, ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_a.calls, 3);
  EXPECT_EQ(registry.set_level(9), ZT_SIMD_AVX2);
  EXPECT_EQ(g_table_a.level, ZT_SIMD_AVX2);
  EXPECT_EQ(g_table_b.level, ZT_SIMD_AVX2);

  registry.remove(refill_b);
  registry.set_level(ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_a.level, ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_b.level, ZT_SIMD_AVX2);

  // On a processor without the vector form, nothing raises the level.
  zt::SimdRegistry scalar_only(ZT_SIMD_BASELINE, ZT_SIMD_AVX2);
  EXPECT_EQ(scalar_only.level(), ZT_SIMD_BASELINE);
  ASSERT_TRUE(scalar_only.add(refill_b));
  EXPECT_EQ(scalar_only.set_level(ZT_SIMD_AVX2), ZT_SIMD_BASELINE);
  EXPECT_EQ(g_table_b.level, ZT_SIMD_BASELINE);
}

// The level is chosen once per process, so the environment is checked in a
// freshly started child (the "threadsafe" style re-executes this binary).
TEST(CpuDeathTest, EnvironmentForcesBaseline) {
  EXPECT_EQ(zt::simd_level_from_env("baseline", ZT_SIMD_AVX2), ZT_SIMD_BASELINE);
  EXPECT_EQ(zt::simd_level_from_env("avx2", ZT_SIMD_AVX2), ZT_SIMD_AVX2);
  EXPECT_EQ(zt::simd_level_from_env(nullptr, ZT_SIMD_AVX2), ZT_SIMD_AVX2);

  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const int32_t best = ZT_SimdBestLevel();
  zt::test::EnvScope forced("ZT_SIMD", "baseline");
  EXPECT_EXIT(std::exit(ZT_SimdLevel() == ZT_SIMD_BASELINE && ZT_SimdBestLevel() == best ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

}  // namespace
