// Mipmaps of VLIMG pages: each level must be what the resampler itself makes
// of the level above, they must sit in the chain without disturbing page
// numbers, and clearing them must leave the pages as they were.
#include <gtest/gtest.h>
#include <zt/resample.h>
#include <zt/vlimg.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Image {
  uint32_t width, height, planes, bits;
  Bytes px;  // by pixel, host order
};

Image make_image(uint32_t w, uint32_t h, uint32_t planes, uint32_t bits) {
  Image im{w, h, planes, bits, Bytes(size_t{w} * h * planes * bits / 8)};
  for (size_t i = 0; i < im.px.size(); ++i)
    im.px[i] = static_cast<uint8_t>((i * 7) ^ (i / (w * planes)) * 13);
  return im;
}

int32_t read_mem(void *user, ScanlineBuf *dst, uint32_t line) {
  const Image &im = *static_cast<const Image *>(user);
  const uint32_t bps = im.bits / 8;
  const uint8_t *row = im.px.data() + size_t{line} * im.width * im.planes * bps;
  for (uint32_t c = 0; c < im.planes; ++c)
    for (uint32_t x = 0; x < im.width; ++x)
      std::memcpy(dst->data + c * dst->bytesPerPlaneRow + x * bps, row + (x * im.planes + c) * bps, bps);
  return 0;
}

// The resampler's own half-size image of `im`.
Image halve(const Image &im) {
  Image out{(im.width + 1) / 2, (im.height + 1) / 2, im.planes, im.bits, {}};
  const uint32_t bps = im.bits / 8;
  out.px.resize(size_t{out.width} * out.height * im.planes * bps);
  ResampleContext *ctx =
      resampleInit(ZT_RESAMPLE_FILTERED, im.width, im.height, out.width, out.height, im.planes, im.bits,
                   im.bits, read_mem, nullptr, nullptr, const_cast<Image *>(&im));
  ScanlineBuf *line = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, im.bits, im.planes, 0, out.width, 1, 0);
  for (uint32_t y = 0; y < out.height; ++y) {
    EXPECT_EQ(resampleGetNextScanline(ctx, line), 0);
    for (uint32_t c = 0; c < im.planes; ++c)
      for (uint32_t x = 0; x < out.width; ++x)
        std::memcpy(out.px.data() + ((size_t{y} * out.width + x) * im.planes + c) * bps,
                    line->data + c * line->bytesPerPlaneRow + x * bps, bps);
  }
  scanlinebufFree(line);
  resampleFree(ctx);
  return out;
}

void write_image(const std::string &name, int32_t mode, const Image &im, uint32_t type, uint32_t compression,
                 uint32_t tile) {
  VLIMG_File *f = VLIMG_Open(name.c_str(), mode);
  ASSERT_NE(f, nullptr);
  std::vector<uint32_t> bpp(im.planes, im.bits);
  const uint32_t fields[][2] = {{VLIMG_TAG_WIDTH, im.width},
                                {VLIMG_TAG_HEIGHT, im.height},
                                {VLIMG_TAG_COMPRESSION, compression},
                                {VLIMG_TAG_IMAGETYPE, type}};
  for (const auto &[tag, value] : fields) ASSERT_EQ(VLIMG_SetField(f, tag, &value), 0) << tag;
  ASSERT_EQ(VLIMG_SetField(f, VLIMG_TAG_BPP_ARRAY, bpp.data()), 0);
  const size_t line = size_t{im.width} * im.planes * im.bits / 8;
  if (tile) {
    // One tile over the whole width keeps the test's tile cutting trivial.
    ASSERT_EQ(VLIMG_EnableTiling(f, im.width, tile), 0);
    for (uint32_t i = 0; i < VLIMG_NumTiles(f); ++i)
      ASSERT_EQ(VLIMG_WriteTile(f, i, im.px.data() + size_t{i} * tile * line, static_cast<uint32_t>(line)),
                0);
  } else {
    for (uint32_t y = 0; y < im.height; ++y) ASSERT_EQ(VLIMG_WriteScanline(f, im.px.data() + y * line), 0);
  }
  ASSERT_EQ(VLIMG_Close(f), 0);
}

Bytes read_current(VLIMG_File *f) {
  uint32_t w = 0, h = 0;
  VLIMG_GetField(f, VLIMG_TAG_WIDTH, &w);
  VLIMG_GetField(f, VLIMG_TAG_HEIGHT, &h);
  const size_t line = VLIMG_BytesPerLine(f);
  Bytes px(line * h);
  if (!VLIMG_IsTiled(f)) {
    for (uint32_t y = 0; y < h; ++y) EXPECT_EQ(VLIMG_ReadScanline(f, px.data() + y * line), 0);
    return px;
  }
  uint32_t tw = 0, th = 0;
  VLIMG_GetField(f, VLIMG_TAG_TILEWIDTH, &tw);
  VLIMG_GetField(f, VLIMG_TAG_TILEHEIGHT, &th);
  const uint32_t across = (w + tw - 1) / tw;
  const uint32_t bpp = VLIMG_BitsPerPixel(f) / 8;
  for (uint32_t i = 0; i < VLIMG_NumTiles(f); ++i) {
    const uint32_t x = (i % across) * tw, y = (i / across) * th;
    EXPECT_EQ(VLIMG_ReadTile(f, i, px.data() + y * line + x * bpp, static_cast<uint32_t>(line)), 0);
  }
  return px;
}

class VlimgMipmaps : public ::testing::Test {
 protected:
  zt::test::LibraryScope library_;
  zt::test::TempDir dir_;
};

TEST_F(VlimgMipmaps, LevelsAreTheResamplersOwnOutput) {
  const std::string name = dir_.file("mip.vlimg");
  const Image cmyk = make_image(53, 37, 4, 8);
  const Image rgb16 = make_image(20, 9, 3, 16);
  write_image(name, VLIMG_MODE_CREATE, cmyk, VLIMG_IMAGETYPE_CMYK, VLIMG_COMPRESSION_DEFLATE, 16);
  write_image(name, VLIMG_MODE_APPEND, rgb16, VLIMG_IMAGETYPE_RGB, VLIMG_COMPRESSION_LZ4, 0);
  ASSERT_EQ(VLIMG_GenerateMipmapsForFile(name.c_str(), 3), 0);

  VLIMG_File *f = VLIMG_Open(name.c_str(), VLIMG_MODE_READ);
  ASSERT_NE(f, nullptr);
  const Image *pages[2] = {&cmyk, &rgb16};
  for (uint32_t page = 0; page < 2; ++page) {
    SCOPED_TRACE(page);
    ASSERT_EQ(VLIMG_SeekToPage(f, page), 0);
    EXPECT_EQ(VLIMG_NumMipmaps(f), 3);
    Image want = *pages[page];
    for (uint32_t level = 1; level <= 3; ++level) {
      want = halve(want);
      ASSERT_EQ(VLIMG_SeekToMipmap(f, level), 0);
      uint32_t w = 0, got_level = 0;
      VLIMG_GetField(f, VLIMG_TAG_WIDTH, &w);
      VLIMG_GetField(f, VLIMG_TAG_MIPMAPLEVEL, &got_level);
      EXPECT_EQ(w, want.width);
      EXPECT_EQ(got_level, level);
      EXPECT_EQ(read_current(f), want.px) << "level " << level;
    }
    ASSERT_EQ(VLIMG_SeekToMipmap(f, 0), 0);
    EXPECT_EQ(read_current(f), pages[page]->px);
  }
  // Clearing page 0's mipmaps leaves page 1 and its mipmaps reachable.
  ASSERT_EQ(VLIMG_SeekToPage(f, 0), 0);
  ASSERT_EQ(VLIMG_ClearMipmaps(f), 0);
  EXPECT_EQ(VLIMG_NumMipmaps(f), 0);
  ASSERT_EQ(VLIMG_SeekToPage(f, 1), 0);
  EXPECT_EQ(VLIMG_NumMipmaps(f), 3);
  EXPECT_EQ(read_current(f), rgb16.px);
  VLIMG_Close(f);
}

TEST_F(VlimgMipmaps, LevelsStopAtOnePixelAndNeedWholeBytes) {
  const std::string name = dir_.file("tiny.vlimg");
  write_image(name, VLIMG_MODE_CREATE, make_image(2, 1, 1, 8), VLIMG_IMAGETYPE_GREY, VLIMG_COMPRESSION_NONE,
              0);
  ASSERT_EQ(VLIMG_GenerateMipmapsForFile(name.c_str(), 5), 0);
  VLIMG_File *f = VLIMG_Open(name.c_str(), VLIMG_MODE_READ);
  EXPECT_EQ(VLIMG_NumMipmaps(f), 1);
  // Generating again replaces the levels instead of stacking them.
  ASSERT_EQ(VLIMG_GenerateMipmaps(f, 5), 0);
  EXPECT_EQ(VLIMG_NumMipmaps(f), 1);
  {
    zt::test::LogCapture capture;
    EXPECT_EQ(VLIMG_SeekToMipmap(f, 2), -1);
    EXPECT_TRUE(capture.contains("The page has 1 mipmaps, not 2"));
    ASSERT_EQ(VLIMG_SeekToMipmap(f, 1), 0);
    EXPECT_EQ(VLIMG_GenerateMipmaps(f, 1), -1);
    EXPECT_TRUE(capture.contains("Mipmaps are made from a page, not from a mipmap"));
  }
  VLIMG_Close(f);
}

}  // namespace
