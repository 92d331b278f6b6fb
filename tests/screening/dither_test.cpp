// Dithering: exact ends, the cursor's cycle, mean tone, repeatability, the
// 24-bit path, the scanline buffer's dithered copies, and the vector kernel
// against the baseline.
#include <gtest/gtest.h>
#include <zt/buf.h>
#include <zt/cpu.h>
#include <zt/dither.h>
#include <zt/random.h>
#include <zt/scanlinebuf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using zt::test::LibraryScope;
using zt::test::SimdLevelScope;

const uint32_t kKinds[] = {2, 3, 7};

class DitherLevelTest : public testing::TestWithParam<int32_t> {};

TEST_P(DitherLevelTest, EndsMapExactlyUnderEveryKind) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  std::vector<uint16_t> in(1000);
  for (size_t i = 0; i < in.size(); ++i) in[i] = (i % 3 == 0) ? 0 : 65535;
  for (uint32_t kind : kKinds) {
    DitherContext ctx{};
    ASSERT_EQ(ditherSetup(&ctx, 2, kind), 0);
    const void *cursor = ctx.tableCursor;
    std::vector<uint8_t> out(in.size());
    ditherBuf16To8(&ctx, out.data(), in.data(), static_cast<uint32_t>(in.size()));
    for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], in[i] == 0 ? 0 : 255) << kind;
    EXPECT_EQ(ctx.tableCursor, cursor) << "ends take no noise";
  }
}

TEST_P(DitherLevelTest, CursorCyclesAndFlatFieldKeepsTone) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  for (uint32_t kind : kKinds) {
    DitherContext ctx{};
    ditherSetup(&ctx, 0, kind);
    ctx.tableCursor = ctx.tableStart;
    for (uint16_t s : {1u, 300u, 12345u, 32768u, 50000u, 65534u}) {
      std::vector<uint16_t> in(ZT_DITHER_TABLE_SIZE, s);
      std::vector<uint8_t> out(in.size());
      // In two calls, so the cursor carries over between lines.
      ditherBuf16To8(&ctx, out.data(), in.data(), 100001);
      ditherBuf16To8(&ctx, out.data() + 100001, in.data() + 100001, ZT_DITHER_TABLE_SIZE - 100001);
      EXPECT_EQ(ctx.tableCursor, ctx.tableStart) << kind;
      if (s == 1 || s == 65534) continue;  // clipped at the ends: no mean to keep
      double sum = 0;
      for (uint8_t v : out) sum += v;
      // The wide table's offset of 256 with a truncating divide sits half a
      // level high by design; the other two keep the tone.
      const double want = kind == 2 ? s / 257.0 + 256.0 / 257.0 - 0.5 : s / 257.0;
      EXPECT_NEAR(sum / out.size(), want, 0.01) << "kind " << kind << " s " << s;
    }
  }
}

TEST_P(DitherLevelTest, SeededRunRepeatsExactly) {
  LibraryScope library;
  SimdLevelScope level(GetParam());
  std::mt19937 rng(4);
  std::vector<uint16_t> in(5003);
  for (auto &v : in) v = static_cast<uint16_t>(rng());
  for (uint32_t kind : kKinds) {
    std::vector<uint8_t> a(in.size()), b(in.size());
    DitherContext ctx{};
    ZT_randomSeed(99);
    ditherSetup(&ctx, 2, kind);
    ditherBuf16To8(&ctx, a.data(), in.data(), static_cast<uint32_t>(in.size()));
    ZT_randomSeed(99);
    ditherSetup(&ctx, 2, kind);
    ditherBuf16To8(&ctx, b.data(), in.data(), static_cast<uint32_t>(in.size()));
    EXPECT_EQ(a, b);
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, DitherLevelTest, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

// Both forms from one context state: the bytes and where the cursor ends.
void expect_same_bytes(const DitherContext &start, const std::vector<uint16_t> &in, const std::string &what) {
  DitherContext base = start, vec = start;
  std::vector<uint8_t> a(in.size()), b(in.size());
  {
    SimdLevelScope level(ZT_SIMD_BASELINE);
    ditherBuf16To8(&base, a.data(), in.data(), static_cast<uint32_t>(in.size()));
  }
  {
    SimdLevelScope level(ZT_SIMD_AVX2);
    ditherBuf16To8(&vec, b.data(), in.data(), static_cast<uint32_t>(in.size()));
  }
  EXPECT_EQ(a, b) << what;
  EXPECT_EQ(base.tableCursor, vec.tableCursor) << what;
}

// Lengths off the vector width, with the wrap of the table inside the run at
// several distances from the run's start;
// ends mixed in (none, nearly half, a few) so the lanes take noise unevenly,
// or no ends but samples the noise pushes past 0 or 65535. Then every sample
// value between the ends from several table positions: the vector form
// divides by 257 without a division instruction and reads the integer noise
// from a narrower copy of its table.
TEST(DitherTest, VectorKernelMatchesBaseline) {
  if (ZT_SimdBestLevel() < ZT_SIMD_AVX2) GTEST_SKIP() << "no AVX2";
  constexpr uint32_t kNearEnds = 1000;
  LibraryScope library;
  std::mt19937 rng(8);
  std::vector<uint16_t> every(65534);
  for (uint32_t s = 1; s <= 65534; ++s) every[s - 1] = static_cast<uint16_t>(s);
  for (uint32_t kind : kKinds) {
    DitherContext ctx{};
    ditherSetup(&ctx, 2, kind);
    const auto *start = static_cast<const int32_t *>(ctx.tableStart);
    for (uint32_t n : {1u, 7u, 9u, 64u, 1001u}) {
      for (uint32_t ends_in : {0u, 97u, 8u, kNearEnds}) {
        std::vector<uint16_t> in(n);
        for (auto &v : in) {
          const uint32_t r = rng() % 100;
          if (ends_in == kNearEnds) {
            v = static_cast<uint16_t>(r < 50 ? rng() % 300 + 1 : 65534 - rng() % 600);
          } else {
            v = r < ends_in / 2 ? 0 : r < ends_in ? 65535 : static_cast<uint16_t>(rng() % 65534 + 1);
          }
        }
        // The wrap inside the first vector block, at its edges and just past it.
        for (const ptrdiff_t back : {1, 5, 16, 31, 32, 33}) {
          ctx.tableCursor = static_cast<const int32_t *>(ctx.tableEnd) - back;
          expect_same_bytes(ctx, in,
                            "kind " + std::to_string(kind) + " n " + std::to_string(n) + " back " +
                                std::to_string(back));
        }
      }
    }
    for (const size_t from : {size_t{0}, size_t{3}, size_t{ZT_DITHER_TABLE_SIZE - 40000}}) {
      ctx.tableCursor = start + from;
      expect_same_bytes(ctx, every, "kind " + std::to_string(kind) + " from " + std::to_string(from));
    }
  }
}

// Real noise chosen per sample so that s / 257 plus it lands exactly on a
// whole number: a quotient one unit in the last place low (what a plain
// product with the reciprocal gives for 254 samples) truncates one code
// lower. Every sample at both levels must give that whole number.
TEST(DitherTest, RealNoiseQuotientIsTheDivision) {
  LibraryScope library;
  std::vector<uint16_t> in(65534);
  std::vector<float> noise(in.size());
  std::vector<uint8_t> expect(in.size());
  for (uint32_t s = 1; s <= 65534; ++s) {
    const float q = static_cast<float>(s) / 257.0f;
    in[s - 1] = static_cast<uint16_t>(s);
    noise[s - 1] = std::ceil(q) - q;
    expect[s - 1] = static_cast<uint8_t>(std::min(255.0f, std::ceil(q)));
  }
  for (const int32_t simd : {ZT_SIMD_BASELINE, ZT_SIMD_AVX2}) {
    SimdLevelScope level(simd);
    DitherContext ctx{};
    ditherSetup(&ctx, 2, 7);
    ctx.tableStart = ctx.tableCursor = noise.data();
    ctx.tableEnd = noise.data() + noise.size();
    std::vector<uint8_t> out(in.size());
    ditherBuf16To8(&ctx, out.data(), in.data(), static_cast<uint32_t>(in.size()));
    EXPECT_EQ(out, expect) << "level " << simd;
  }
}

// The vector form runs the library's real noise through the integer rule
// with floor(257 n) and falls back on the floats where an entry lies too
// close to call. Every entry of the table is met here with a sample that puts
// s + floor(257 n) on a multiple of 257 or one short of it (the only samples
// where the two rules can part), at a random multiple each pass; some passes
// mix in ends, so the entries reach the lanes out of step with the samples.
TEST(DitherTest, RealNoiseAtEveryEntrysEdgeMatchesBaseline) {
  if (ZT_SimdBestLevel() < ZT_SIMD_AVX2) GTEST_SKIP() << "no AVX2";
  LibraryScope library;
  std::mt19937 rng(11);
  DitherContext ctx{};
  ditherSetup(&ctx, 2, 1);
  const auto *real = static_cast<const float *>(ctx.tableStart);
  ctx.tableCursor = real;
  for (const uint32_t ends_percent : {0u, 0u, 0u, 0u, 0u, 0u, 30u, 30u}) {
    std::vector<uint16_t> in;
    size_t entry = 0;
    while (entry < ZT_DITHER_TABLE_SIZE) {
      if (rng() % 100 < ends_percent) {
        in.push_back(rng() % 2 == 0 ? 0 : 65535);
        continue;
      }
      const auto k = static_cast<int32_t>(std::floor(257.0 * static_cast<double>(real[entry])));
      int32_t s = 0;
      while (s < 1 || s > 65534)
        s = 257 * static_cast<int32_t>(rng() % 256 + 1) - k - static_cast<int32_t>(rng() % 2);
      in.push_back(static_cast<uint16_t>(s));
      ++entry;
    }
    expect_same_bytes(ctx, in, "ends " + std::to_string(ends_percent) + "%");
  }
}

// The plain methods worked by hand: 1 rounds (128 / 257 = 0.498), 9
// truncates (32768 / 257 = 127.5), 4 gives 0 for full ink; at 24 bits 8
// floors (8421504 / 65793 = 128.0).
TEST(DitherTest, MethodsAndNarrowNoiseFloor) {
  LibraryScope library;
  DitherContext ctx{};
  struct Hand {
    uint32_t method, in, out;
  };
  for (const Hand &h :
       {Hand{1, 128, 0}, Hand{1, 129, 1}, Hand{1, 32768, 128}, Hand{4, 65535, 0}, Hand{9, 32768, 127}}) {
    ditherSetup(&ctx, h.method, 0);
    const auto in = static_cast<uint16_t>(h.in);
    uint8_t out = 77;
    ditherBuf16To8(&ctx, &out, &in, 1);
    EXPECT_EQ(out, h.out) << h.method << " " << h.in;
  }
  for (const Hand &h : {Hand{1, 0x808080, 128}, Hand{1, 0xFFFFFF, 255}, Hand{2, 0, 0}, Hand{2, 0xFFFFFF, 255},
                        Hand{8, 0x808080, 128}, Hand{8, 0x7FFFFF, 127}}) {
    ditherSetup(&ctx, h.method, 0);
    uint8_t out = 77;
    ditherBuf24To8(&ctx, &out, &h.in, 1);
    EXPECT_EQ(out, h.out) << "24 bits " << h.method << " " << h.in;
  }
  const uint32_t mid = 0x7FFFFF;
  uint8_t byte = 77;
  ditherSetup(&ctx, 2, 0);
  ditherBuf24To8(&ctx, &byte, &mid, 1);
  EXPECT_NEAR(byte, 127.5, 1.0);

  // Sample 1 under the narrow table: a negative entry floors at 0, never wraps.
  ditherSetup(&ctx, 2, 3);
  const auto *table = static_cast<const int32_t *>(ctx.tableStart);
  size_t negative = 0;
  while (table[negative] >= 0) ++negative;
  ctx.tableCursor = table + negative;
  const uint16_t one = 1;
  ditherBuf16To8(&ctx, &byte, &one, 1);
  EXPECT_EQ(byte, 0);
  ditherBuf16To8(nullptr, &byte, &one, 1);
  EXPECT_EQ(byte, 0);
  auto *owned = static_cast<DitherContext *>(std::calloc(1, sizeof(DitherContext)));
  ditherCleanup(owned, 1);
  ditherCleanup(nullptr, 1);
}

TEST(DitherTest, TriangularDistribution) {
  LibraryScope library;
  double sum = 0, squares = 0;
  for (int i = 0; i < 20000; ++i) {
    const double v = TPDF(-1.0, 0.0, 1.0);
    ASSERT_GE(v, -1.0);
    ASSERT_LE(v, 1.0);
    sum += v;
    squares += v * v;
  }
  EXPECT_NEAR(sum / 20000, 0.0, 0.02);
  // A triangle on [-1, 1] has variance 1/6; a uniform draw would give 1/3.
  EXPECT_NEAR(squares / 20000, 1.0 / 6, 0.01);
}

TEST(DitherTest, ScanlinebufDitheredCopies) {
  LibraryScope library;
  zt::test::LogCapture log;
  setScanlinebufUseDithering(1);
  ScanlineBuf *src = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 16, 2, 0, 50, 2, 0);
  ScanlineBuf *dst = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, 2, 0, 50, 2, ZT_SLB_DITHER);
  ScanlineBuf *px = scanlinebufAlloc(ZT_INTERLEAVE_BY_PIXEL, 8, 2, 0, 50, 2, ZT_SLB_DITHER);
  ScanlineBuf *eight = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, 2, 0, 50, 2, 0);
  ASSERT_TRUE(src && dst && px && eight);
  auto *s = reinterpret_cast<uint16_t *>(src->data);
  for (size_t i = 0; i < 200; ++i) s[i] = static_cast<uint16_t>(i * 300 + 1);
  const void *cursor = dst->dither.tableCursor;
  ASSERT_EQ(scanlinebufCopyRect(dst, src, 0, 0, 50, 2, 0, 0), 0);
  EXPECT_NE(dst->dither.tableCursor, cursor);
  for (size_t i = 0; i < 200; ++i) EXPECT_NEAR(dst->data[i], s[i] / 257.0, 2.0);
  EXPECT_EQ(log.count(), 0u);
  EXPECT_EQ(scanlinebufCopyRect(px, src, 0, 0, 50, 2, 0, 0), -1);
  EXPECT_TRUE(log.contains("dither 16 to 8 for interleave by pixel not yet supported"));
  EXPECT_EQ(scanlinebufCopyRect(dst, eight, 0, 0, 50, 2, 0, 0), -1);
  EXPECT_TRUE(log.contains("8 bpp to 8 bpp dither is not yet supported"));
  // From a plain array: dithered too.
  cursor = dst->dither.tableCursor;
  ASSERT_EQ(scanlinebufCopyFrom16bit(dst, s), 0);
  EXPECT_NE(dst->dither.tableCursor, cursor);
  setScanlinebufUseDithering(0);
  // Switch off: the table, whatever the flag.
  ASSERT_EQ(scanlinebufCopyRect(dst, src, 0, 0, 50, 2, 0, 0), 0);
  std::vector<uint8_t> want(200);
  bufCopy16To8(want.data(), s, 200, &dst->dither);
  EXPECT_EQ(std::memcmp(want.data(), dst->data, 200), 0);
  scanlinebufFree(src);
  scanlinebufFree(dst);
  scanlinebufFree(px);
  scanlinebufFree(eight);
}

}  // namespace

namespace {

// The tables are shared read-only; each thread walks its own context.
TEST(DitherMT, ContextsPerThreadShareTheTables) {
  LibraryScope library;
  std::vector<uint16_t> in(4099);
  for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<uint16_t>(i * 16);
  std::vector<std::vector<uint8_t>> outs(4, std::vector<uint8_t>(in.size()));
  std::vector<std::thread> threads;
  for (size_t t = 0; t < outs.size(); ++t) {
    threads.emplace_back([&, t] {
      DitherContext ctx{};
      ditherSetup(&ctx, 2, t % 2 == 0 ? 3 : 7);
      for (int pass = 0; pass < 20; ++pass) {
        ditherBuf16To8(&ctx, outs[t].data(), in.data(), static_cast<uint32_t>(in.size()));
      }
    });
  }
  for (auto &th : threads) th.join();
  for (const auto &out : outs) {
    for (size_t i = 0; i < in.size(); ++i) ASSERT_NEAR(out[i], in[i] / 257.0, 1.6);
  }
}

}  // namespace
