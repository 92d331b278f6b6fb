// Image buffers and VLIMG pages: save and load round trips, tiles taken
// straight from a file, and files whose tile table does not fit the page.
#include <gtest/gtest.h>
#include <zt/compress.h>
#include <zt/imagebuf.h>
#include <zt/vlimg.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct BufDeleter {
  void operator()(ZT_ImageBuf *b) const { ZT_ImageBufFree(b); }
};
using BufPtr = std::unique_ptr<ZT_ImageBuf, BufDeleter>;

// A CMYK page by pixel, host-order samples of `bits` bits.
Bytes make_page(uint32_t w, uint32_t h, uint32_t bits, uint32_t seed) {
  Bytes page(size_t{w} * h * 4 * bits / 8);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i % 7 == 0 ? rng() : i / 4096);
  return page;
}

// The buffer's lines by pixel (converted from by line where needed).
Bytes read_by_pixel(ZT_ImageBuf *buf) {
  ZT_ImageBufInfo info{};
  EXPECT_EQ(0, ZT_ImageBufGetInfo(buf, &info));
  const uint32_t bps = info.bitsPerSample / 8, ch = info.channels;
  Bytes page(size_t{info.width} * info.height * info.bytesPerPixel),
      line(size_t{info.width} * info.bytesPerPixel);
  for (uint32_t y = 0; y < info.height; ++y) {
    EXPECT_EQ(0, ZT_ImageBufGetScanline(buf, y, line.data()));
    for (uint32_t x = 0; x < info.width; ++x)
      for (uint32_t c = 0; c < ch; ++c)
        std::memcpy(&page[(size_t{y} * info.width + x) * ch * bps + c * bps],
                    &line[(info.interleave == 0 ? size_t{x} * ch + c : size_t{c} * info.width + x) * bps],
                    bps);
  }
  return page;
}

// Writes `page` as a CMYK VLIMG page, by lines or in tiles of tile_w x tile_h.
void write_file(const std::string &name, const Bytes &page, uint32_t w, uint32_t h, uint32_t bits,
                uint32_t tile_w, uint32_t tile_h, uint32_t compression) {
  VLIMG_File *file = VLIMG_Open(name.c_str(), VLIMG_MODE_CREATE);
  ASSERT_NE(nullptr, file);
  const uint32_t type = VLIMG_IMAGETYPE_CMYK, bpp[4] = {bits, bits, bits, bits};
  for (const auto &[tag, value] : {std::pair<uint32_t, const void *>{VLIMG_TAG_WIDTH, &w},
                                   {VLIMG_TAG_HEIGHT, &h},
                                   {VLIMG_TAG_IMAGETYPE, &type},
                                   {VLIMG_TAG_COMPRESSION, &compression},
                                   {VLIMG_TAG_BPP_ARRAY, bpp}})
    ASSERT_EQ(0, VLIMG_SetField(file, tag, value));
  const size_t row = size_t{w} * 4 * bits / 8;
  for (uint32_t y = 0; tile_w == 0 && y < h; ++y) ASSERT_EQ(0, VLIMG_WriteScanline(file, &page[y * row]));
  if (tile_w != 0) {
    ASSERT_EQ(0, VLIMG_EnableTiling(file, tile_w, tile_h));
    const uint32_t across = (w + tile_w - 1) / tile_w;
    for (uint32_t t = 0; t < VLIMG_NumTiles(file); ++t) {
      const size_t x0 = (t % across) * tile_w, y0 = (t / across) * tile_h;
      ASSERT_EQ(0, VLIMG_WriteTile(file, t, &page[y0 * row + x0 * 4 * bits / 8], static_cast<uint32_t>(row)));
    }
  }
  ASSERT_EQ(0, VLIMG_Close(file));
}

class ImageBufVlimgTest : public zt::test::LibraryTest,
                          public testing::WithParamInterface<std::tuple<uint32_t, uint32_t>> {
 protected:
  void TearDown() override {
    ZT_ImageBufSetCacheSize(0);
    LibraryTest::TearDown();
  }
  uint32_t il() const { return std::get<0>(GetParam()); }
  uint32_t bits() const { return std::get<1>(GetParam()); }
  BufPtr blank(uint32_t compression = 0) {
    return BufPtr(ZT_ImageBufInit(il(), 8, 1, 1, 1, compression, dir_.path().c_str(), nullptr));
  }
};

TEST_P(ImageBufVlimgTest, SaveAndLoadRoundTrip) {
  const uint32_t w = 301, h = 270;
  const auto page = make_page(w, h, bits(), 3);
  const std::string scan = dir_.file("scan.vlimg"), tiled = dir_.file("tiled.vlimg");
  write_file(scan, page, w, h, bits(), 0, 0, VLIMG_COMPRESSION_LZ4);
  BufPtr buf = blank();
  ASSERT_EQ(0, ZT_ImageBufLoadFromVLIMG(buf.get(), scan.c_str(), 0));
  EXPECT_EQ(page, read_by_pixel(buf.get()));

  // Saved with a tile size of our own and loaded again into a new buffer.
  ASSERT_EQ(0, ZT_ImageBufSetTileSize(buf.get(), 100, 64));
  ASSERT_EQ(0, ZT_ImageBufLoadFromVLIMG(buf.get(), scan.c_str(), 0));
  VLIMG_File *out = VLIMG_Open(tiled.c_str(), VLIMG_MODE_CREATE);
  ASSERT_NE(nullptr, out);
  ASSERT_EQ(0,
            ZT_ImageBufSaveToVLIMGUsingHandle(buf.get(), out, VLIMG_IMAGETYPE_CMYK, VLIMG_COMPRESSION_NONE));
  ASSERT_EQ(0, VLIMG_Close(out));
  BufPtr again = blank();
  ASSERT_EQ(0, ZT_ImageBufLoadFromVLIMG(again.get(), tiled.c_str(), 0));
  EXPECT_EQ(page, read_by_pixel(again.get()));
  ZT_ImageBufInfo info{};
  ASSERT_EQ(0, ZT_ImageBufGetInfo(again.get(), &info));
  EXPECT_EQ(4u, info.tilesAcross);
  EXPECT_EQ(5u, info.tilesDown);

  VLIMG_File *grey = VLIMG_Open(dir_.file("grey.vlimg").c_str(), VLIMG_MODE_CREATE);
  EXPECT_EQ(-1,
            ZT_ImageBufSaveToVLIMGUsingHandle(buf.get(), grey, VLIMG_IMAGETYPE_GREY, VLIMG_COMPRESSION_NONE));
  expect_one_log("does not have the 4 planes");
  // Nothing reached the file: closing it says what the page lacks.
  EXPECT_EQ(-1, VLIMG_Close(grey));
  expect_one_log("width is undefined");
}

TEST_P(ImageBufVlimgTest, TilesComeFromTheFileUntilWritten) {
  ZT_ImageBufSetCacheSize(0x80001);
  const uint32_t w = 700, h = 300;
  auto page = make_page(w, h, bits(), 5);
  const std::string name = dir_.file("src.vlimg");
  write_file(name, page, w, h, bits(), 128, 128, VLIMG_COMPRESSION_LZ4);
  BufPtr buf = blank(ZT_COMPRESS_ON | ZT_COMPRESS_LZ4);
  EXPECT_EQ(-1, ZT_ImageBufSetTilesFromFileProperties(buf.get()));
  expect_one_log("Please call ZT_ImageBufSetTilesFromFilename() first");
  ASSERT_EQ(0, ZT_ImageBufSetTilesFromFilename(buf.get(), name.c_str(), 0));
  uint8_t px[8];
  EXPECT_EQ(-1, ZT_ImageBufGetPixel(buf.get(), 0, 0, px));
  expect_one_log("ZT_ImageBufSetTilesFromFileProperties() must be called before fetching any data");
  EXPECT_EQ(-1, ZT_ImageBufSetTilesFromFilename(buf.get(), name.c_str(), 0));
  expect_one_log("Src handle has already been set previously");
  ASSERT_EQ(0, ZT_ImageBufSetTilesFromFileProperties(buf.get()));
  EXPECT_EQ(1, ZT_ImageBuf_rectangle_exists(buf.get(), 0, 0, w, h));
  EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 64, 64));
  expect_one_log("come from a file");
  EXPECT_EQ(page, read_by_pixel(buf.get()));
  // A written pixel goes through the swap file; its neighbours still come from the file.
  const uint32_t bpp = 4 * bits() / 8;
  Bytes written(bpp, 0xA5);
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 650, 290, written.data()));
  std::memcpy(&page[(size_t{290} * w + 650) * bpp], written.data(), bpp);
  // A second pass over a page larger than the cache evicts and re-reads every tile.
  EXPECT_EQ(page, read_by_pixel(buf.get()));
  EXPECT_EQ(page, read_by_pixel(buf.get()));
}

TEST_P(ImageBufVlimgTest, FileOfAnotherCompressionIsRefused) {
  const std::string name = dir_.file("lz4.vlimg");
  write_file(name, make_page(64, 64, bits(), 1), 64, 64, bits(), 32, 32, VLIMG_COMPRESSION_LZ4);
  BufPtr buf = blank(0);
  ASSERT_EQ(0, ZT_ImageBufSetTilesFromFilename(buf.get(), name.c_str(), 0));
  EXPECT_EQ(-1, ZT_ImageBufSetTilesFromFileProperties(buf.get()));
  expect_one_log("source tiles use different compression algorithm tile = 801, imagebuf = 0");
}

// Rewrites the width of tile `index` in the file's tile table (tag 25).
void falsify_tile_width(const std::string &name, uint32_t index, uint32_t width) {
  std::string bytes = zt::test::read_file(name);
  auto u32 = [&](size_t p) {
    return uint32_t{uint8_t(bytes[p])} << 24 | uint32_t{uint8_t(bytes[p + 1])} << 16 |
           uint32_t{uint8_t(bytes[p + 2])} << 8 | uint8_t(bytes[p + 3]);
  };
  for (size_t at = 0; at + 14 < bytes.size(); ++at) {
    const uint32_t count = u32(at + 10);
    if (u32(at) != VLIMG_TAG_TILETABLE || u32(at + 4) != 24 * count + 6 || count == 0) continue;
    for (int i = 0; i < 4; ++i)
      bytes[at + 14 + size_t{index} * 24 + i] = static_cast<char>(width >> (24 - 8 * i));
    return zt::test::write_file(name, bytes);
  }
  FAIL() << "no tile table in " << name;
}

TEST_P(ImageBufVlimgTest, FileThatLiesAboutItsTileSizesIsRefused) {
  const std::string name = dir_.file("liar.vlimg");
  write_file(name, make_page(200, 100, bits(), 2), 200, 100, bits(), 64, 64, VLIMG_COMPRESSION_NONE);
  falsify_tile_width(name, 3, 60);  // the edge tile is 8 wide, the file says 60
  BufPtr buf = blank();
  EXPECT_EQ(-1, ZT_ImageBufLoadFromVLIMG(buf.get(), name.c_str(), 0));
  expect_one_log("Tile 3 is 60 x 64, the page needs 8 x 64");
  EXPECT_EQ(-1, ZT_ImageBufSetTilesFromFilename(buf.get(), name.c_str(), 0));
  expect_one_log("Tile 3 is 60 x 64, the page needs 8 x 64");
  // The buffer is as it was, and no source was taken.
  ZT_ImageBufInfo info{};
  ASSERT_EQ(0, ZT_ImageBufGetInfo(buf.get(), &info));
  EXPECT_EQ(1u, info.width);
  EXPECT_EQ(-1, ZT_ImageBufSetTilesFromFileProperties(buf.get()));
  expect_one_log("Please call ZT_ImageBufSetTilesFromFilename() first");
}

INSTANTIATE_TEST_SUITE_P(Shapes, ImageBufVlimgTest,
                         testing::Combine(testing::Values(0u, 1u), testing::Values(8u, 16u)),
                         [](const testing::TestParamInfo<std::tuple<uint32_t, uint32_t>> &p) {
                           return std::string(std::get<0>(p.param) ? "ByLine" : "ByPixel") +
                                  std::to_string(std::get<1>(p.param));
                         });

}  // namespace
