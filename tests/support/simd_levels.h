// The dispatch levels a kernel test runs over: the baseline and, when the
// processor runs it, AVX2.
//
//   class BlendTest : public testing::TestWithParam<int32_t> {};
//   TEST_P(BlendTest, MatchesBaseline) { zt::test::SimdLevelScope level(GetParam()); ... }
//   INSTANTIATE_TEST_SUITE_P(Levels, BlendTest, testing::ValuesIn(zt::test::simd_levels()),
//                            zt::test::simd_level_name);
#pragma once

#include <zt/cpu.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zt::test {

inline std::vector<int32_t> simd_levels() {
  std::vector<int32_t> levels{ZT_SIMD_BASELINE};
  if (ZT_SimdBestLevel() >= ZT_SIMD_AVX2) levels.push_back(ZT_SIMD_AVX2);
  return levels;
}

inline std::string simd_level_name(const testing::TestParamInfo<int32_t> &info) {
  return info.param == ZT_SIMD_AVX2 ? "AVX2" : "Baseline";
}

// Runs the library at `level` while it lives, then goes back to the former level.
class SimdLevelScope {
 public:
  explicit SimdLevelScope(int32_t level) : saved_(ZT_SimdLevel()) { ZT_SetSimdLevel(level); }
  ~SimdLevelScope() { ZT_SetSimdLevel(saved_); }
  SimdLevelScope(const SimdLevelScope &) = delete;
  SimdLevelScope &operator=(const SimdLevelScope &) = delete;

 private:
  int32_t saved_;
};

}  // namespace zt::test
