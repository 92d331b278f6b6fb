// Interleave converters against a per-sample model, at every dispatch level,
// and the vector forms against the baseline on random rows.
#include <gtest/gtest.h>
#include <zt/cpu.h>
#include <zt/interleave.h>

#include <cstring>
#include <random>
#include <vector>

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using zt::test::SimdLevelScope;

template <typename T>
std::vector<T> random_row(size_t n, std::mt19937 &rng) {
  std::vector<T> v(n);
  for (auto &x : v) x = static_cast<T>(rng());
  return v;
}

class InterleaveTest : public testing::TestWithParam<int32_t> {};

template <typename T>
void check_round_trip(uint32_t width, uint32_t ch, std::mt19937 &rng) {
  const uint32_t bps = sizeof(T);
  const auto line = random_row<T>(size_t{width} * ch, rng);
  std::vector<T> pixel(line.size() + 1, 0x5A), back(line.size() + 1, 0x5A);
  ASSERT_EQ(ZT_interleavedLineToPixel(pixel.data(), line.data(), width, ch, bps), 0);
  for (uint32_t x = 0; x < width; ++x)
    for (uint32_t c = 0; c < ch; ++c) ASSERT_EQ(pixel[size_t{x} * ch + c], line[size_t{c} * width + x]);
  EXPECT_EQ(pixel.back(), static_cast<T>(0x5A));
  ASSERT_EQ(ZT_interleavedPixelToLine(back.data(), pixel.data(), width, ch, bps), 0);
  EXPECT_TRUE(std::equal(line.begin(), line.end(), back.begin()));
  EXPECT_EQ(back.back(), static_cast<T>(0x5A));
}

TEST_P(InterleaveTest, LineAndPixelRoundTrip) {
  zt::test::LibraryScope library;
  SimdLevelScope level(GetParam());
  std::mt19937 rng(1);
  for (uint32_t width : {1u, 7u, 8u, 15u, 16u, 17u, 33u, 100u}) {
    for (uint32_t ch : {1u, 2u, 3u, 4u, 5u}) {
      check_round_trip<uint8_t>(width, ch, rng);
      check_round_trip<uint16_t>(width, ch, rng);
    }
  }
}

TEST_P(InterleaveTest, ReorderingAndAlpha) {
  zt::test::LibraryScope library;
  SimdLevelScope level(GetParam());
  const uint32_t w = 19;
  std::vector<uint8_t> rgba(4 * w);
  for (uint32_t c = 0; c < 4; ++c)
    for (uint32_t x = 0; x < w; ++x) rgba[c * w + x] = static_cast<uint8_t>(c * 64 + x);
  std::vector<uint8_t> out(4 * w);
  auto expect_order = [&](const char *name, uint32_t c0, uint32_t c1, uint32_t c2, uint32_t c3) {
    const uint32_t order[4] = {c0, c1, c2, c3};
    for (uint32_t x = 0; x < w; ++x)
      for (uint32_t k = 0; k < 4; ++k) ASSERT_EQ(out[4 * x + k], rgba[order[k] * w + x]) << name << " " << x;
  };
  ASSERT_EQ(ZT_interleavedLineRGBAToARGB(out.data(), rgba.data(), w, 1), 0);
  expect_order("ARGB", 3, 0, 1, 2);
  ASSERT_EQ(ZT_interleavedLineRGBAToBGRA(out.data(), rgba.data(), w, 1), 0);
  expect_order("BGRA", 2, 1, 0, 3);
  ASSERT_EQ(ZT_interleavedLineRGBAToABGR(out.data(), rgba.data(), w, 1), 0);
  expect_order("ABGR", 3, 2, 1, 0);
  const uint8_t *p = rgba.data();
  ASSERT_EQ(ZT_interleavedLineToABGR(out.data(), p, p + w, p + 2 * w, p + 3 * w, w, 1), 0);
  expect_order("ToABGR", 3, 2, 1, 0);
  ASSERT_EQ(ZT_interleavedLineToBGRA(out.data(), p, p + w, p + 2 * w, p + 3 * w, w, 1), 0);
  expect_order("ToBGRA", 2, 1, 0, 3);

  std::vector<uint8_t> rgb(3 * w);
  ASSERT_EQ(ZT_interleavedLineRGBAToRGB(rgb.data(), rgba.data(), w, 1), 0);
  for (uint32_t x = 0; x < w; ++x) ASSERT_EQ(rgb[3 * x + 2], rgba[2 * w + x]);
  std::vector<uint8_t> line4(4 * w);
  ASSERT_EQ(ZT_interleavedLineRGBToLineRGBA(line4.data(), rgba.data(), w, 1), 0);
  EXPECT_EQ(line4[3 * w + 5], 255);
  EXPECT_EQ(line4[2 * w + 5], rgba[2 * w + 5]);

  // Dropping alpha from pixels, in place.
  ASSERT_EQ(ZT_interleavedLineRGBAToRGBA(out.data(), rgba.data(), w, 1), 0);
  ASSERT_EQ(ZT_discardAlphaChannel(out.data(), w, 4, 1), 0);
  EXPECT_EQ(std::memcmp(out.data(), rgb.data(), 3 * w), 0);
  uint16_t ga[4] = {10, 20, 30, 40}, g[2];
  ASSERT_EQ(ZT_GrayAToGray(g, ga, 2, 2), 0);
  EXPECT_EQ(g[1], 30);
  EXPECT_EQ(ZT_interleavedLineToPixel(out.data(), rgba.data(), w, 4, 3), -1);
}

TEST(InterleaveAlphaTest, ApplyComposesOverBackground) {
  uint8_t px[8] = {200, 100, 255, 255, 200, 0, 0, 0};  // grey+alpha pairs: opaque, transparent, ...
  ASSERT_EQ(ZT_applyAlphaChannel(px, 4, 2, 1, 255), 0);
  EXPECT_EQ(px[0], 233);  // 200 * 100/255 + 255 * 155/255
  EXPECT_EQ(px[2], 255);
  EXPECT_EQ(px[4], 255);  // alpha 0 shows the background
  EXPECT_EQ(px[5], 255);
  EXPECT_EQ(px[6], 255);
}

TEST(InterleaveTestAvx2, VectorMatchesBaseline) {
  if (ZT_SimdBestLevel() < ZT_SIMD_AVX2) GTEST_SKIP() << "no AVX2";
  zt::test::LibraryScope library;
  std::mt19937 rng(2);
  for (uint32_t width : {5u, 16u, 31u, 64u, 1003u})
    for (uint32_t bps : {1u, 2u}) {
      const auto src = random_row<uint8_t>(size_t{width} * 4 * bps, rng);
      auto run = [&](int32_t level) {
        SimdLevelScope scope(level);
        std::vector<uint8_t> pixels(src.size()), lines(src.size());
        ZT_interleavedLineToPixelFourChannels(pixels.data(), src.data(), width, bps);
        ZT_interleavedPixelToLineFourChannels(lines.data(), src.data(), width, bps);
        return std::pair(pixels, lines);
      };
      EXPECT_TRUE(run(ZT_SIMD_BASELINE) == run(ZT_SIMD_AVX2)) << width << " x " << bps;
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, InterleaveTest, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

}  // namespace
