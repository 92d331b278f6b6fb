// Scaling image buffers: the result must be what the resampler makes of the
// same page held in memory, for both interleaves and depths.
#include <gtest/gtest.h>
#include <zt/imagebuf.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>

#include <cstring>
#include <random>
#include <vector>

#include "support/test_support.h"

namespace {

using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::TempDir;

struct BufDeleter {
  void operator()(ZT_ImageBuf *b) const { ZT_ImageBufFree(b); }
};
using BufPtr = std::unique_ptr<ZT_ImageBuf, BufDeleter>;

// A page as rows interleaved by line, the resampler's own form.
struct Rows {
  uint32_t width, height, channels, bits;
  std::vector<std::vector<uint8_t>> lines;
};

int32_t read_rows(void *user, ScanlineBuf *dst, uint32_t line) {
  const auto *rows = static_cast<const Rows *>(user);
  if (dst != nullptr) std::memcpy(dst->data, rows->lines[line].data(), rows->lines[line].size());
  return 0;
}

// What the resampler makes of `in` at out_w x out_h, with `filter` (0: its default).
Rows reference(const Rows &in, uint32_t out_w, uint32_t out_h, uint32_t filter) {
  ResampleContext *ctx =
      filter == 0 ? resampleInit(ZT_RESAMPLE_FILTERED, in.width, in.height, out_w, out_h, in.channels, in.bits,
                                 in.bits, read_rows, nullptr, nullptr, const_cast<Rows *>(&in))
                  : resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, in.width, in.height, out_w, out_h, in.channels,
                                            in.bits, in.bits, read_rows, nullptr, nullptr, const_cast<Rows *>(&in),
                                            filter);
  ScanlineBuf *line = scanlinebufAlloc(1, in.bits, in.channels, 0, out_w, 1, 0);
  Rows out{out_w, out_h, in.channels, in.bits, {}};
  for (uint32_t y = 0; y < out_h; ++y) {
    EXPECT_EQ(0, resampleGetNextScanline(ctx, line));
    out.lines.emplace_back(line->data, line->data + size_t{out_w} * in.channels * in.bits / 8);
  }
  scanlinebufFree(line);
  resampleFree(ctx);
  return out;
}

// Converts one row between by-line and by-pixel order.
std::vector<uint8_t> reorder(const std::vector<uint8_t> &row, uint32_t w, uint32_t ch, uint32_t bps, bool to_pixel) {
  std::vector<uint8_t> out(row.size());
  for (uint32_t x = 0; x < w; ++x)
    for (uint32_t c = 0; c < ch; ++c) {
      const size_t line = (size_t{c} * w + x) * bps, pixel = (size_t{x} * ch + c) * bps;
      std::memcpy(&out[to_pixel ? pixel : line], &row[to_pixel ? line : pixel], bps);
    }
  return out;
}

class ImageBufScaleTest : public testing::TestWithParam<std::tuple<uint32_t, uint32_t>> {
 protected:
  void TearDown() override { ZT_ImageBufSetCacheSize(0); }
  LibraryScope library_;
  TempDir dir_;
};

TEST_P(ImageBufScaleTest, MatchesTheResamplerOnThePageInMemory) {
  const auto [il, bits] = GetParam();
  ZT_ImageBufSetCacheSize(0x80001);
  Rows in{347, 283, 3, bits, {}};
  std::mt19937 rng(9);
  for (uint32_t y = 0; y < in.height; ++y) {
    std::vector<uint8_t> row(size_t{in.width} * 3 * bits / 8);
    for (size_t i = 0; i < row.size(); ++i) row[i] = static_cast<uint8_t>((i + y) % 97 < 50 ? rng() : i + y);
    in.lines.push_back(row);
  }
  struct Case {
    uint32_t w, h, filter;
  };
  for (const Case &c : {Case{521, 99, 0}, Case{170, 600, ZT_FILTER_LANCZOS3}, Case{12, 9, ZT_FILTER_BOX}}) {
    SCOPED_TRACE(c.w);
    BufPtr buf(ZT_ImageBufInit(il, bits, in.width, in.height, 3, 0, dir_.path().c_str(), nullptr));
    ASSERT_TRUE(buf);
    for (uint32_t y = 0; y < in.height; ++y) {
      const auto row = il == 0 ? reorder(in.lines[y], in.width, 3, bits / 8, true) : in.lines[y];
      ASSERT_EQ(0, ZT_ImageBufPutScanline(buf.get(), y, row.data()));
    }
    ASSERT_EQ(0, c.filter == 0 ? ZT_ImageBufScale(buf.get(), c.w, c.h)
                               : ZT_ImageBufScaleUsingFilter(buf.get(), c.w, c.h, c.filter));
    const Rows want = reference(in, c.w, c.h, c.filter);
    ZT_ImageBufInfo info{};
    ASSERT_EQ(0, ZT_ImageBufGetInfo(buf.get(), &info));
    ASSERT_EQ(c.w, info.width);
    ASSERT_EQ(c.h, info.height);
    std::vector<uint8_t> row(size_t{c.w} * 3 * bits / 8);
    for (uint32_t y = 0; y < c.h; ++y) {
      ASSERT_EQ(0, ZT_ImageBufGetScanline(buf.get(), y, row.data()));
      const auto got = il == 0 ? reorder(row, c.w, 3, bits / 8, false) : row;
      ASSERT_EQ(want.lines[y], got) << "line " << y;
    }
  }
}

TEST_P(ImageBufScaleTest, RefusalsLeaveTheBufferAsItWas) {
  const auto [il, bits] = GetParam();
  BufPtr buf(ZT_ImageBufInit(il, bits, 64, 64, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(buf);
  LogCapture log;
  EXPECT_EQ(-1, ZT_ImageBufScale(buf.get(), 0, 10));
  EXPECT_EQ(-1, ZT_ImageBufScaleUsingFilter(buf.get(), 10, 10, 99));
  EXPECT_EQ(-1, ZT_ImageBufScale(nullptr, 10, 10));
  EXPECT_EQ(3u, log.count());
  EXPECT_TRUE(log.contains("Cannot scale to 0 x 10 pixels"));
  EXPECT_TRUE(log.contains("NULL imagebuf passed"));
  ZT_ImageBufInfo info{};
  ASSERT_EQ(0, ZT_ImageBufGetInfo(buf.get(), &info));
  EXPECT_EQ(64u, info.width);
  EXPECT_EQ(64u, info.height);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ImageBufScaleTest, testing::Combine(testing::Values(0u, 1u), testing::Values(8u, 16u)),
                         [](const testing::TestParamInfo<std::tuple<uint32_t, uint32_t>> &p) {
                           return std::string(std::get<0>(p.param) ? "ByLine" : "ByPixel") +
                                  std::to_string(std::get<1>(p.param));
                         });

}  // namespace
