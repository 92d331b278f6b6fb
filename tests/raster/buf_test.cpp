// Buffer primitives: the depth rules at their edges, bit runs, fills, and the
// vector kernels against the baseline on random runs of awkward lengths.
#include <gtest/gtest.h>
#include <zt/buf.h>
#include <zt/cpu.h>

#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using zt::test::SimdLevelScope;

class BufLevelTest : public testing::TestWithParam<int32_t> {};

TEST_P(BufLevelTest, DepthRulesExhaustive) {
  zt::test::LibraryScope library;
  SimdLevelScope level(GetParam());
  std::vector<uint16_t> all(65536);
  for (uint32_t v = 0; v < 65536; ++v) all[v] = static_cast<uint16_t>(v);
  std::vector<uint8_t> out(65536);
  bufCopy16To8(out.data(), all.data(), 65536, nullptr);
  for (uint32_t v = 0; v < 65536; ++v) {
    ASSERT_EQ(out[v], static_cast<uint8_t>(v * 255.0 / 65535.0 + 0.5)) << v;
  }
  EXPECT_EQ(out[128], 0);
  EXPECT_EQ(out[129], 1);
  EXPECT_EQ(out[65535], 255);

  std::vector<uint8_t> bytes(256 + 7);
  for (uint32_t v = 0; v < bytes.size(); ++v) bytes[v] = static_cast<uint8_t>(v);
  std::vector<uint16_t> wide(bytes.size());
  bufCopy8To16(wide.data(), bytes.data(), static_cast<uint32_t>(bytes.size()));
  for (size_t v = 0; v < bytes.size(); ++v) ASSERT_EQ(wide[v], bytes[v] * 257u);
}

TEST_P(BufLevelTest, BitExpansionMsbFirst) {
  zt::test::LibraryScope library;
  SimdLevelScope level(GetParam());
  std::mt19937 rng(5);
  for (uint32_t n : {1u, 3u, 4u, 5u, 9u, 33u}) {
    std::vector<uint8_t> src(n);
    for (auto &b : src) b = static_cast<uint8_t>(rng());
    std::vector<uint8_t> out8(n * 8);
    std::vector<uint16_t> out16(n * 8);
    bufCopy1To8(out8.data(), src.data(), n);
    bufCopy1To16(out16.data(), src.data(), n);
    for (size_t i = 0; i < n * 8; ++i) {
      const bool on = (src[i / 8] >> (7 - i % 8)) & 1;
      ASSERT_EQ(out8[i], on ? 255 : 0);
      ASSERT_EQ(out16[i], on ? 65535 : 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, BufLevelTest, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

TEST(BufTest, VectorFormsMatchBaselineOnAwkwardLengths) {
  if (ZT_SimdBestLevel() < ZT_SIMD_AVX2) GTEST_SKIP() << "no AVX2";
  zt::test::LibraryScope library;
  std::mt19937 rng(9);
  for (uint32_t n : {0u, 1u, 7u, 15u, 16u, 17u, 31u, 33u, 255u, 1001u}) {
    std::vector<uint8_t> src8(n + 1);
    std::vector<uint16_t> src16(n + 1);
    for (auto &v : src8) v = static_cast<uint8_t>(rng());
    for (auto &v : src16) v = static_cast<uint16_t>(rng());
    // Outputs one element (or eight) longer than asked for, so an overrun shows.
    auto run = [&](int32_t level) {
      SimdLevelScope scope(level);
      std::vector<uint8_t> narrow(n + 1, 0xCD), bits8(n * 8 + 1, 0xCD);
      std::vector<uint16_t> wide(n * 8 + 1, 0xCDCD), bits16(n * 8 + 1, 0xCDCD);
      bufCopy16To8(narrow.data(), src16.data(), n, nullptr);
      bufCopy8To16(wide.data(), src8.data(), n);
      bufCopy1To8(bits8.data(), src8.data(), n);
      bufCopy1To16(bits16.data(), src8.data(), n);
      return std::tuple(narrow, wide, bits8, bits16);
    };
    EXPECT_TRUE(run(ZT_SIMD_BASELINE) == run(ZT_SIMD_AVX2)) << n;
  }
}

TEST(BufTest, BitRunsFillsAndNegation) {
  uint8_t bits[4] = {0, 0, 0, 0};
  bufSetBitsOn1(bits, 8, 11);  // a whole byte, then three top bits
  EXPECT_EQ(bits[1], 0xFF);
  EXPECT_EQ(bits[2], 0xE0);
  bufSetBitsOn1(bits, 3, 3);
  EXPECT_EQ(bits[0], 0x1C);
  bufSetBitsOff1(bits, 4, 14);
  EXPECT_EQ(bits[0], 0x10);
  EXPECT_EQ(bits[1], 0x00);
  EXPECT_EQ(bits[2], 0x20);
  bufSetBitsOff1(bits, 0, 0);
  EXPECT_EQ(bits[0], 0x10);

  uint8_t run[6] = {1, 2, 3, 4, 5, 6};
  const uint16_t colour[3] = {0x0A0B, 0x0C0D, 0x0E0F};
  bufFillWithColour(run, colour, 3, 8, 2);
  EXPECT_EQ(run[3], 0x0B);
  EXPECT_EQ(run[5], 0x0F);
  bufFillWithColourXOR(run, colour, 3, 8, 2);
  EXPECT_EQ(run[4], 0);
  uint16_t run16[3] = {0xFFFF, 0, 1};
  bufFillWithColourXOR(run16, colour, 3, 16, 1);
  EXPECT_EQ(run16[0], 0xFFFF ^ 0x0A0B);
  EXPECT_EQ(run16[2], 1 ^ 0x0E0F);
  bufFillXOR(run, 0xF0, 2);
  EXPECT_EQ(run[0], 0xF0);
  bufNegative(run, run, 1);
  EXPECT_EQ(run[0], 0x0F);

  uint8_t rev[3] = {0x01, 0x80, 0xB4};
  ZTReverseBits(rev, 3);
  EXPECT_EQ(rev[0], 0x80);
  EXPECT_EQ(rev[1], 0x01);
  EXPECT_EQ(rev[2], 0x2D);

  // A 1-bit copy of n samples moves (n + 7) / 8 bytes, no more.
  uint8_t src[3] = {0xAA, 0xBB, 0xCC}, dst[3] = {0, 0, 0};
  bufCopy1To1(dst, src, 9);
  EXPECT_EQ(dst[1], 0xBB);
  EXPECT_EQ(dst[2], 0);
}

}  // namespace
