// Tiled image buffers: geometry, the cache's rules, access and every
// transform against a plain in-memory page, swap faults, and threads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/compress.h>
#include <zt/imagebuf.h>
#include <zt/init.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "raster/imagebuf_internal.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;

struct BufDeleter {
  void operator()(ZT_ImageBuf *b) const { ZT_ImageBufFree(b); }
};
using BufPtr = std::unique_ptr<ZT_ImageBuf, BufDeleter>;

std::vector<std::string> swap_files(const std::string &dir) {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(dir))
    if (entry.path().filename().string().rfind("ztswap_", 0) == 0) names.push_back(entry.path().string());
  return names;
}

// The plain in-memory page the buffer is checked against: samples [y][x][c].
struct Page {
  uint32_t width = 0, height = 0, channels = 0, bits = 8;
  std::vector<uint16_t> samples;

  Page(uint32_t w, uint32_t h, uint32_t c, uint32_t b) : width(w), height(h), channels(c), bits(b) {
    samples.assign(size_t{w} * h * c, 0);
  }
  uint16_t &at(uint32_t x, uint32_t y, uint32_t c) { return samples[(size_t{y} * width + x) * channels + c]; }
  const uint16_t &at(uint32_t x, uint32_t y, uint32_t c) const {
    return samples[(size_t{y} * width + x) * channels + c];
  }
  void randomise(std::mt19937 &rng) {
    for (auto &s : samples) s = static_cast<uint16_t>(bits == 8 ? rng() & 0xFF : rng() & 0xFFFF);
  }
  // Where sample (i, j, c) of a w-wide rectangle lies as a caller passes it:
  // rows of w pixels, interleaved as asked (samples in host order).
  size_t offset(uint32_t i, uint32_t j, uint32_t c, uint32_t w, uint32_t il) const {
    return (size_t{j} * w * channels + (il == 0 ? size_t{i} * channels + c : size_t{c} * w + i)) * (bits / 8);
  }
  std::vector<uint8_t> pack(uint32_t x, uint32_t y, uint32_t w, uint32_t h, uint32_t il) const {
    std::vector<uint8_t> out(size_t{w} * h * channels * bits / 8);
    for (uint32_t j = 0; j < h; ++j)
      for (uint32_t i = 0; i < w; ++i)
        for (uint32_t c = 0; c < channels; ++c)
          std::memcpy(&out[offset(i, j, c, w, il)], &at(x + i, y + j, c), bits / 8);
    return out;
  }
  // Takes the samples of the rectangle from another page of the same shape.
  void copy(const Page &from, uint32_t x, uint32_t y, uint32_t w, uint32_t h) {
    for (uint32_t j = y; j < y + h; ++j)
      for (uint32_t i = x; i < x + w; ++i)
        for (uint32_t c = 0; c < channels; ++c) at(i, j, c) = from.at(i, j, c);
  }
  // Column x as a buffer passes it.
  std::vector<uint8_t> column(uint32_t x, uint32_t il) const {
    Page col(height, 1, channels, bits);
    for (uint32_t y = 0; y < height; ++y)
      for (uint32_t c = 0; c < channels; ++c) col.at(y, 0, c) = at(x, y, c);
    return col.pack(0, 0, height, 1, il);
  }
};

// Tile t of a one-channel 8-bit buffer whose 256 x 256 tiles lie in one row.
int32_t put_tile(ZT_ImageBuf *buf, uint32_t t, const std::vector<uint8_t> &block) {
  return ZT_ImageBufPutRectangle(buf, t * 256, 0, 256, 256, block.data(), 0);
}
int32_t put_tile(ZT_ImageBuf *buf, uint32_t t, uint8_t value) {
  return put_tile(buf, t, std::vector<uint8_t>(256 * 256, value));
}
int32_t get_tile(ZT_ImageBuf *buf, uint32_t t, std::vector<uint8_t> *block) {
  block->resize(256 * 256);
  return ZT_ImageBufGetRectangle(buf, t * 256, 0, 256, 256, block->data(), 0);
}
ZT_ImageBufTileState tile_state(ZT_ImageBuf *buf, uint32_t tile) {
  ZT_ImageBufTileState s{};
  EXPECT_EQ(0, ZT_ImageBufGetTileState(buf, tile, &s));
  return s;
}

BufPtr make_buffer(const Page &page, uint32_t il, const std::string &dir, uint32_t compression = 0) {
  return BufPtr(ZT_ImageBufInit(il, page.bits, page.width, page.height, page.channels, compression,
                                dir.c_str(), nullptr));
}

void put_page(ZT_ImageBuf *buf, const Page &page, uint32_t il) {
  for (uint32_t y = 0; y < page.height; ++y) {
    auto row = page.pack(0, y, page.width, 1, il);
    ASSERT_EQ(0, ZT_ImageBufPutScanline(buf, y, row.data()));
  }
}

// Every line of the buffer against the page.
void expect_page(ZT_ImageBuf *buf, const Page &page, uint32_t il) {
  ZT_ImageBufInfo info{};
  ASSERT_EQ(0, ZT_ImageBufGetInfo(buf, &info));
  ASSERT_EQ(page.width, info.width);
  ASSERT_EQ(page.height, info.height);
  ASSERT_EQ(page.bits, info.bitsPerSample);
  for (uint32_t y = 0; y < page.height; ++y) {
    std::vector<uint8_t> row(size_t{page.width} * info.bytesPerPixel);
    ASSERT_EQ(0, ZT_ImageBufGetScanline(buf, y, row.data()));
    ASSERT_EQ(page.pack(0, y, page.width, 1, il), row) << "line " << y;
  }
}

class ImageBufTest : public zt::test::LibraryTest {
 protected:
  void TearDown() override {
    ZT_ImageBufSetCacheSize(0);
    LibraryTest::TearDown();
  }
  BufPtr init(uint32_t w, uint32_t h, uint32_t ch = 1, uint32_t bits = 8, uint32_t il = 0,
              uint32_t comp = 0) {
    return BufPtr(ZT_ImageBufInit(il, bits, w, h, ch, comp, dir_.path().c_str(), nullptr));
  }
};

// ---- Geometry and creation -------------------------------------------------

TEST_F(ImageBufTest, TilesOfAnOddPage) {
  BufPtr buf = init(257, 256, 4);
  ASSERT_TRUE(buf);
  ZT_ImageBufInfo info{};
  ASSERT_EQ(0, ZT_ImageBufGetInfo(buf.get(), &info));
  EXPECT_EQ(2u, info.tilesAcross);
  EXPECT_EQ(1u, info.tilesDown);
  EXPECT_EQ(0u, ZT_ImageBuf_tilenum(buf.get(), 255, 255));
  EXPECT_EQ(1u, ZT_ImageBuf_tilenum(buf.get(), 256, 0));
  // The narrow edge tile holds its one column and nothing spills into tile 0.
  const uint8_t px[4] = {1, 2, 3, 4};
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 256, 255, px));
  EXPECT_EQ(1, ZT_ImageBuf_tile_exists(buf.get(), 1));
  EXPECT_EQ(0, ZT_ImageBuf_tile_exists(buf.get(), 0));
  EXPECT_EQ(0, ZT_ImageBuf_rectangle_exists(buf.get(), 0, 0, 257, 256));
  EXPECT_EQ(1, ZT_ImageBuf_rectangle_exists(buf.get(), 256, 0, 1, 256));
  uint8_t back[4] = {};
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 256, 255, back));
  EXPECT_EQ(0, std::memcmp(px, back, 4));
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 255, 255, back));
  EXPECT_EQ(0u, back[0] | back[1] | back[2] | back[3]);
}

// Columns are read through a band kept between calls: a write into the band,
// or a transform, must show in the next column read.
TEST_F(ImageBufTest, ColumnReadsSeeEveryLaterWrite) {
  BufPtr buf = init(40, 300, 2, 16, 1);
  ASSERT_TRUE(buf);
  std::vector<uint16_t> column(600);
  ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), 3, column.data()));
  const uint16_t px[2] = {0x1111, 0x2222};
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 4, 299, px));
  ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), 4, column.data()));
  EXPECT_EQ(0x1111, column[299]);
  EXPECT_EQ(0x2222, column[599]);  // by line: channel 1 follows the 300 samples of channel 0
  ASSERT_EQ(0, ZT_ImageBufYMirror(buf.get()));
  ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), 4, column.data()));
  EXPECT_EQ(0x1111, column[0]);
  EXPECT_EQ(0, column[299]);
}

// A CMYK page so tall that a band of columns is a third of a tile (86
// columns of 256): every band must stay inside its column of tiles and every
// column come out whole, the last band of each tile being the narrower one.
// Four-byte pixels go from rows to columns four by four, and the height is
// no multiple of four, so the last rows take the single-pixel path.
TEST_F(ImageBufTest, ColumnsOfATallPageComeFromNarrowBands) {
  constexpr uint32_t kW = 300, kH = 12203, kCh = 4;
  BufPtr buf = init(kW, kH, kCh);
  ASSERT_TRUE(buf);
  std::vector<uint8_t> page(size_t{kW} * kH * kCh);
  for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
  ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 0, 0, kW, kH, page.data(), kW * kCh));
  std::vector<uint8_t> column(size_t{kH} * kCh);
  for (uint32_t x : {0u, 85u, 86u, 171u, 172u, 255u, 256u, 299u, 3u, 200u}) {
    ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), x, column.data()));
    uint32_t wrong = 0;
    for (uint32_t y = 0; y < kH; ++y)
      wrong += std::memcmp(&column[size_t{y} * kCh], &page[(size_t{y} * kW + x) * kCh], kCh) != 0;
    EXPECT_EQ(0u, wrong) << "column " << x;
  }
}

TEST_F(ImageBufTest, CreationRefusesBadParametersAndLeavesNoFile) {
  struct Case {
    uint32_t il, bits, w, h, ch;
    const char *dir;
    const char *message;
  };
  const std::string missing = dir_.file("gone");
  const Case cases[] = {
      {2, 8, 10, 10, 1, nullptr, "Unsupported interleave type 2"},
      {0, 12, 10, 10, 1, nullptr, "Unsupported bpp 12"},
      {0, 8, 10, 10, 1, missing.c_str(), "swapfilepath"},
      {0, 8, 0, 10, 1, nullptr, "You must set the ZTIMAGEBUF width and height first"},
      // 256 x 256 x 65535 x 2 bytes does not make a tile whose length fits a codec.
      {0, 16, 1000, 1000, 65535, nullptr, "is too large"},
      {0, 8, 10, 10, 0, nullptr, "Unsupported number of channels 0"},
      {0, 8, 0xFFFFFFFFu, 0xFFFFFFFFu, 1, nullptr, "is too large"},
  };
  for (const Case &c : cases) {
    const char *dir = c.dir != nullptr ? c.dir : dir_.path().c_str();
    EXPECT_EQ(nullptr, ZT_ImageBufInit(c.il, c.bits, c.w, c.h, c.ch, 0, dir, nullptr)) << c.message;
    expect_one_log(c.message);
  }
  EXPECT_TRUE(swap_files(dir_.path()).empty());
}

TEST_F(ImageBufTest, TileTableThatWouldOverflowIsRefused) {
  BufPtr buf = init(70000, 70000);
  ASSERT_TRUE(buf);
  // 70,000 x 70,000 tiles of one pixel do not number in 32 bits.
  EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 1, 1));
  expect_one_log("is too large");
  // The buffer keeps its tiles.
  const uint8_t v = 42;
  uint8_t back = 0;
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 69999, 69999, &v));
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 69999, 69999, &back));
  EXPECT_EQ(42, back);
  EXPECT_EQ(274u * 274 - 1, ZT_ImageBuf_tilenum(buf.get(), 69999, 69999));
}

TEST_F(ImageBufTest, SwapFileNamesSkipExistingOnesAndGoWithTheBuffer) {
  BufPtr first = init(10, 10);
  ASSERT_TRUE(first);
  const std::string name = ZT_ImageBufGetSwapName(first.get());
  const int n = std::stoi(name.substr(name.rfind('_') + 1));
  auto swap = [&](int i) { return dir_.file("ztswap_" + std::to_string(n + i)); };
  EXPECT_EQ(swap(0), name);
  struct stat st {};
  ASSERT_EQ(0, ::stat(name.c_str(), &st));
  EXPECT_EQ(0664u, st.st_mode & 0777u);
  zt::test::write_file(swap(1), "x");
  zt::test::write_file(swap(2), "x");
  BufPtr second = init(10, 10);
  ASSERT_TRUE(second);
  EXPECT_EQ(swap(3), ZT_ImageBufGetSwapName(second.get()));
  EXPECT_EQ("x", zt::test::read_file(swap(1)));
  first.reset();
  EXPECT_FALSE(fs::exists(name));
  // A second reference keeps the buffer and its file.
  ASSERT_EQ(0, ZT_ImageBufAddReference(second.get()));
  ZT_ImageBufFree(second.get());
  EXPECT_TRUE(fs::exists(swap(3)));
}

TEST_F(ImageBufTest, ShutDownRemovesSwapFilesOfLiveBuffers) {
  ZT_ImageBuf *buf = ZT_ImageBufInit(0, 8, 600, 600, 4, 0, dir_.path().c_str(), nullptr);
  ASSERT_NE(nullptr, buf);
  std::vector<uint8_t> row(600 * 4, 7);
  ASSERT_EQ(0, ZT_ImageBufPutScanline(buf, 0, row.data()));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf));
  // The sequential reader holds a row of tiles across the shut-down.
  ASSERT_EQ(0, ZT_ImageBufReadScanlineFast(buf, 0, row.data()));
  ZT_DeInitSubSystems();
  EXPECT_TRUE(swap_files(dir_.path()).empty());
  ZT_InitSubSystems();
  zt::test::LogCapture log;  // the fixture's capture went with the log
  EXPECT_EQ(-1, ZT_ImageBufGetScanline(buf, 0, row.data()));
  log.expect_one("error state");
  ZT_ImageBufFree(buf);
}

// ---- The cache's rules --------------------------------------------------------

TEST_F(ImageBufTest, CacheSizeAtOrBelowHalfAMegabyteMeansTheDefault) {
  ZT_ImageBufSetCacheSize(0x80000);
  EXPECT_EQ(0x2000000, ZT_ImageBufGetCacheSize());
  ZT_ImageBufSetCacheSize(0x80001);
  EXPECT_EQ(0x80001, ZT_ImageBufGetCacheSize());
  ZT_ImageBufSetCacheSize(-1);
  EXPECT_EQ(0x2000000, ZT_ImageBufGetCacheSize());
}

TEST_F(ImageBufTest, TileSizeCannotChangeUnderTwoClients) {
  BufPtr buf = init(100, 100);
  ASSERT_TRUE(buf);
  ASSERT_EQ(0, ZT_ImageBufAddReference(buf.get()));
  EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 32, 32));
  expect_one_log("being used by 2 clients");
  ZT_ImageBufFree(buf.get());
  EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 0, 32));
  expect_one_log("Bad tile width or height");
  ASSERT_EQ(0, ZT_ImageBufSetTileSize(buf.get(), 32, 16));
  EXPECT_EQ(4u * 4 + 3, ZT_ImageBuf_tilenum(buf.get(), 99, 70));
}

TEST_F(ImageBufTest, CacheSmallerThanOneTileStillServes) {
  ZT_ImageBufSetCacheSize(0x80001);
  // One tile of 256 x 256 x 5 x 2 bytes is 640 KB, beyond the limit.
  Page page(300, 260, 5, 16);
  std::mt19937 rng(1);
  page.randomise(rng);
  BufPtr buf = make_buffer(page, 0, dir_.path());
  ASSERT_TRUE(buf);
  put_page(buf.get(), page, 0);
  expect_page(buf.get(), page, 0);
  EXPECT_GT(ZT_ImageBufGetCacheUsage(), 0x80001);
}

// Eight 64 KB tiles fill a cache of 0x80001 bytes.
class CacheOrderTest : public ImageBufTest {
 protected:
  void SetUp() override {
    ZT_ImageBufSetCacheSize(0x80001);
    buf_ = init(256 * 12, 256);
    ASSERT_TRUE(buf_);
  }
  void write(uint32_t tile, uint8_t value) { ASSERT_EQ(0, put_tile(buf_.get(), tile, value)); }
  void read(uint32_t tile) {
    std::vector<uint8_t> block;
    ASSERT_EQ(0, get_tile(buf_.get(), tile, &block));
  }
  ZT_ImageBufTileState state(uint32_t tile) { return tile_state(buf_.get(), tile); }
  BufPtr buf_;
};

TEST_F(CacheOrderTest, EvictsLeastRecentlyReleasedCleanBeforeDirty) {
  for (uint32_t t = 0; t < 4; ++t) write(t, static_cast<uint8_t>(t + 1));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));  // tiles 0-3 clean, in release order
  for (uint32_t t = 4; t < 8; ++t) write(t, static_cast<uint8_t>(t + 1));
  read(2);  // tile 2 becomes the most recently released clean tile
  for (uint32_t t = 0; t < 8; ++t) EXPECT_TRUE(state(t).resident) << t;

  write(8, 9);
  EXPECT_FALSE(state(0).resident);
  write(9, 10);
  EXPECT_FALSE(state(1).resident);
  write(10, 11);
  EXPECT_FALSE(state(3).resident);
  EXPECT_TRUE(state(2).resident);
  write(11, 12);
  EXPECT_FALSE(state(2).resident);
  // No clean tile is left: the oldest dirty one, tile 4, is written back.
  EXPECT_TRUE(state(4).neverWritten);
  read(0);
  EXPECT_FALSE(state(4).resident);
  EXPECT_FALSE(state(4).neverWritten);
  EXPECT_TRUE(state(5).resident);
  // And every tile still reads what was written.
  std::vector<uint8_t> block;
  for (uint32_t t = 0; t < 12; ++t) {
    ASSERT_EQ(0, get_tile(buf_.get(), t, &block));
    EXPECT_EQ(std::vector<uint8_t>(256 * 256, static_cast<uint8_t>(t + 1)), block) << t;
  }
}

TEST_F(CacheOrderTest, RewrittenTileKeepsItsSwapPlace) {
  write(0, 1);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  write(1, 2);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  EXPECT_EQ(0, state(0).offset);
  EXPECT_EQ(65536, state(1).offset);
  EXPECT_EQ(2 * 65536, ZT_ImageBufGetSwapEnd(buf_.get()));
  write(0, 3);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  EXPECT_EQ(0, state(0).offset);
  EXPECT_EQ(2 * 65536, ZT_ImageBufGetSwapEnd(buf_.get()));
}

TEST_F(ImageBufTest, CompressionIsSkippedPerTileWhenItDoesNotPay) {
  BufPtr buf = init(512, 256, 1, 8, 0, ZT_COMPRESS_ON | ZT_COMPRESS_LZ4);
  ASSERT_TRUE(buf);
  std::vector<uint8_t> flat(256 * 256, 200), noise(256 * 256), back;
  std::mt19937 rng(5);
  for (auto &b : noise) b = static_cast<uint8_t>(rng());
  ASSERT_EQ(0, put_tile(buf.get(), 0, flat));
  ASSERT_EQ(0, put_tile(buf.get(), 1, noise));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf.get()));
  const ZT_ImageBufTileState s0 = tile_state(buf.get(), 0), s1 = tile_state(buf.get(), 1);
  EXPECT_NE(0u, s0.flags & ZT_COMPRESS_LZ4);
  EXPECT_LT(s0.length, 65536u);
  EXPECT_EQ(0u, s1.flags & ZT_COMPRESS_LZ4);
  EXPECT_EQ(65536u, s1.length);
  // The small compressed tile grows to raw size: it moves to the end; the
  // raw tile shrinks to a compressed one: it stays where it was.
  const int64_t end = ZT_ImageBufGetSwapEnd(buf.get());
  ASSERT_EQ(0, put_tile(buf.get(), 0, noise));
  ASSERT_EQ(0, put_tile(buf.get(), 1, flat));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf.get()));
  EXPECT_EQ(end, tile_state(buf.get(), 0).offset);
  EXPECT_EQ(s1.offset, tile_state(buf.get(), 1).offset);
  EXPECT_EQ(end + 65536, ZT_ImageBufGetSwapEnd(buf.get()));
  // Evict both (a fresh page of tiles fills the cache) and read them back.
  ZT_ImageBufSetCacheSize(0x80001);
  BufPtr other = init(256 * 10, 256);
  for (uint32_t t = 0; t < 10; ++t) ASSERT_EQ(0, put_tile(other.get(), t, 1));
  EXPECT_FALSE(tile_state(buf.get(), 0).resident);
  ASSERT_EQ(0, get_tile(buf.get(), 0, &back));
  EXPECT_EQ(noise, back);
  ASSERT_EQ(0, get_tile(buf.get(), 1, &back));
  EXPECT_EQ(flat, back);
}

// ---- Access and transforms over interleave, depth and compression ---------

struct Shape {
  uint32_t interleave, bits, compression;
};

class ImageBufShapeTest : public ImageBufTest, public testing::WithParamInterface<Shape> {
 protected:
  uint32_t il() const { return GetParam().interleave; }
  Page random_page(uint32_t w, uint32_t h, uint32_t ch, uint32_t seed) {
    Page page(w, h, ch, GetParam().bits);
    std::mt19937 rng(seed);
    page.randomise(rng);
    // Runs of equal samples, so that compressed tiles occur too.
    for (uint32_t y = 0; y < h; y += 3)
      for (uint32_t x = 0; x < w; ++x) page.at(x, y, 0) = static_cast<uint16_t>(y & 0xFF);
    return page;
  }
  BufPtr make(const Page &page) { return make_buffer(page, il(), dir_.path(), GetParam().compression); }
};

TEST_P(ImageBufShapeTest, AccessRoundTripsThroughASmallCache) {
  ZT_ImageBufSetCacheSize(0x80001);
  Page page(611, 389, 3, GetParam().bits), patch = page;
  BufPtr buf = make(page);
  ASSERT_TRUE(buf);
  ASSERT_EQ(0, ZT_ImageBufSetTileSize(buf.get(), 37, 23));
  std::mt19937 rng(7);
  // Random rectangles, then whole columns and single pixels, written over one another.
  for (int i = 0; i < 60; ++i) {
    const uint32_t x = rng() % page.width, y = rng() % page.height;
    const uint32_t w = 1 + rng() % (page.width - x), h = 1 + rng() % std::min(80u, page.height - y);
    patch.randomise(rng);
    auto bytes = patch.pack(x, y, w, h, il());
    // A stride wider than the row: the gap is not touched.
    const uint32_t row = w * 3 * page.bits / 8, stride = row + 5;
    std::vector<uint8_t> strided(size_t{stride} * h, 0xEE);
    for (uint32_t j = 0; j < h; ++j) std::memcpy(&strided[size_t{j} * stride], &bytes[size_t{j} * row], row);
    ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), x, y, w, h, strided.data(), stride));
    page.copy(patch, x, y, w, h);
  }
  for (uint32_t x : {0u, 36u, 37u, 610u}) {
    patch.randomise(rng);
    page.copy(patch, x, 0, 1, page.height);
    ASSERT_EQ(0, ZT_ImageBufPutColumn(buf.get(), x, page.column(x, il()).data()));
  }
  const uint16_t px16[3] = {0x1234, 0x5678, 0x9ABC};
  const uint8_t px8[3] = {0x12, 0x56, 0x9A};
  const void *px = page.bits == 8 ? static_cast<const void *>(px8) : px16;
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 610, 388, px));
  for (uint32_t c = 0; c < 3; ++c) page.at(610, 388, c) = page.bits == 8 ? px8[c] : px16[c];

  expect_page(buf.get(), page, il());
  for (uint32_t x : {0u, 1u, 300u, 610u}) {
    std::vector<uint8_t> got(size_t{page.height} * 3 * page.bits / 8);
    ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), x, got.data()));
    EXPECT_EQ(page.column(x, il()), got) << "column " << x;
  }
  uint16_t back16[3] = {};
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 610, 388, back16));
  EXPECT_EQ(0, std::memcmp(back16, px, 3 * page.bits / 8));
  // Both sequential readers, each twice (line 0 restarts the sequence).
  std::vector<uint8_t> line(size_t{page.width} * 3 * page.bits / 8);
  for (int pass = 0; pass < 4; ++pass)
    for (uint32_t y = 0; y < page.height; ++y) {
      ASSERT_EQ(0, pass < 2 ? ZT_ImageBufReadScanline(buf.get(), y, line.data())
                            : ZT_ImageBufReadScanlineFast(buf.get(), y, line.data()));
      ASSERT_EQ(page.pack(0, y, page.width, 1, il()), line) << "pass " << pass << " line " << y;
    }
}

TEST_P(ImageBufShapeTest, TransformsMatchThePlainPage) {
  ZT_ImageBufSetCacheSize(0x80001);
  const Page page = random_page(533, 301, 3, 11);
  const uint32_t W = page.width, H = page.height;
  // Pixel (x, y) of the result comes from (m0 x + m1 y + m2, m3 x + m4 y + m5)
  // inside the box [x0, x1) x [y0, y1), and from (x, y) outside it.
  struct Case {
    const char *name;
    std::function<int32_t(ZT_ImageBuf *)> run;
    uint32_t w, h;
    int64_t m[6];
    uint32_t box[4] = {0, 0, ~0u, ~0u};
    bool negated = false;
  };
  const Case cases[] = {
      {"Rotate90", ZT_ImageBufRotate90, H, W, {0, 1, 0, -1, 0, H - 1}},
      {"Rotate180", ZT_ImageBufRotate180, W, H, {-1, 0, W - 1, 0, -1, H - 1}},
      {"Rotate270", ZT_ImageBufRotate270, H, W, {0, -1, W - 1, 1, 0, 0}},
      {"XMirror", ZT_ImageBufXMirror, W, H, {-1, 0, W - 1, 0, 1, 0}},
      {"YMirror", ZT_ImageBufYMirror, W, H, {1, 0, 0, 0, -1, H - 1}},
      {"Mirror both",
       [](ZT_ImageBuf *b) { return ZT_ImageBufMirror(b, 1, 1); },
       W,
       H,
       {-1, 0, W - 1, 0, -1, H - 1}},
      {"MirrorRectangle",
       [](ZT_ImageBuf *b) { return ZT_ImageBufMirrorRectangle(b, 10, 20, 300, 257, 1, 1); },
       W,
       H,
       {-1, 0, 319, 0, -1, 296},
       {10, 20, 310, 277}},
      {"MirrorRectangle X",
       [](ZT_ImageBuf *b) { return ZT_ImageBufMirrorRectangle(b, 1, 2, 257, 3, 1, 0); },
       W,
       H,
       {-1, 0, 258, 0, 1, 0},
       {1, 2, 258, 5}},
      {"Negative", ZT_ImageBufNegative, W, H, {1, 0, 0, 0, 1, 0}, {0, 0, ~0u, ~0u}, true},
      {"Crop",
       [](ZT_ImageBuf *b) { return ZT_ImageBufCrop(b, 255, 1, 259, 299); },
       259,
       299,
       {1, 0, 255, 0, 1, 1}},
  };
  const uint16_t full = page.bits == 8 ? 0xFF : 0xFFFF;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    BufPtr buf = make(page);
    ASSERT_TRUE(buf);
    put_page(buf.get(), page, il());
    ASSERT_EQ(0, c.run(buf.get()));
    Page want(c.w, c.h, page.channels, page.bits);
    for (uint32_t y = 0; y < c.h; ++y)
      for (uint32_t x = 0; x < c.w; ++x) {
        const bool in = x >= c.box[0] && y >= c.box[1] && x < c.box[2] && y < c.box[3];
        const auto sx = static_cast<uint32_t>(in ? c.m[0] * x + c.m[1] * y + c.m[2] : x);
        const auto sy = static_cast<uint32_t>(in ? c.m[3] * x + c.m[4] * y + c.m[5] : y);
        for (uint32_t ch = 0; ch < page.channels; ++ch)
          want.at(x, y, ch) =
              c.negated ? static_cast<uint16_t>(full - page.at(sx, sy, ch)) : page.at(sx, sy, ch);
      }
    expect_page(buf.get(), want, il());
  }
}

TEST_P(ImageBufShapeTest, RectangleRotationsGoToCallerMemory) {
  const Page page = random_page(300, 280, 2, 13);
  BufPtr buf = make(page);
  ASSERT_TRUE(buf);
  put_page(buf.get(), page, il());
  const uint32_t x = 3, y = 250, w = 290, h = 29;
  Page cw(h, w, 2, page.bits), ccw(h, w, 2, page.bits);
  for (uint32_t j = 0; j < w; ++j)
    for (uint32_t i = 0; i < h; ++i)
      for (uint32_t c = 0; c < 2; ++c) {
        cw.at(i, j, c) = page.at(x + j, y + h - 1 - i, c);
        ccw.at(i, j, c) = page.at(x + w - 1 - j, y + i, c);
      }
  std::vector<uint8_t> out(size_t{w} * h * 2 * page.bits / 8);
  ASSERT_EQ(0, ZT_ImageBufRotateRectangle90(buf.get(), x, y, w, h, out.data(), 0));
  EXPECT_EQ(cw.pack(0, 0, h, w, il()), out);
  ASSERT_EQ(0, ZT_ImageBufRotateRectangle270(buf.get(), x, y, w, h, out.data(), 0));
  EXPECT_EQ(ccw.pack(0, 0, h, w, il()), out);
  expect_page(buf.get(), page, il());
}

TEST_P(ImageBufShapeTest, DepthChangeCopyAndAutoCrop) {
  ZT_ImageBufSetCacheSize(0x80001);
  Page page = random_page(401, 263, 3, 17);
  BufPtr buf = make(page);
  ASSERT_TRUE(buf);
  put_page(buf.get(), page, il());

  // Copy: another buffer takes the page; the source stays.
  BufPtr copy = init(5, 5, 1, 8, il(), GetParam().compression);
  ASSERT_TRUE(copy);
  ASSERT_EQ(0, ZT_ImageBufCopy(copy.get(), buf.get()));
  expect_page(copy.get(), page, il());
  expect_page(buf.get(), page, il());

  // Depth: 8 -> 16 is v * 257; 16 -> 8 rounds.
  const uint32_t other = page.bits == 8 ? 16 : 8;
  ASSERT_EQ(0, ZT_ImageBufChangeBPP(buf.get(), other));
  Page converted(page.width, page.height, 3, other);
  for (size_t i = 0; i < page.samples.size(); ++i)
    converted.samples[i] = other == 16 ? static_cast<uint16_t>(page.samples[i] * 257)
                                       : static_cast<uint16_t>(page.samples[i] * 255.0 / 65535.0 + 0.5);
  expect_page(buf.get(), converted, il());

  // Auto-crop: a background page with a few marks keeps the marks' bounds.
  Page marks(page.width, page.height, 3, page.bits);
  for (auto &s : marks.samples) s = 9;
  marks.at(17, 250, 1) = 1;
  marks.at(399, 30, 2) = 1;
  BufPtr crop = make(marks);
  put_page(crop.get(), marks, il());
  ZT_Rect kept{};
  ASSERT_EQ(0, ZT_ImageBufAutoCrop(crop.get(), nullptr, &kept));
  EXPECT_EQ(17, kept.left);
  EXPECT_EQ(30, kept.top);
  EXPECT_EQ(400, kept.right);
  EXPECT_EQ(251, kept.bottom);
  Page want(383, 221, 3, page.bits);
  for (uint32_t y = 0; y < want.height; ++y)
    for (uint32_t x = 0; x < want.width; ++x)
      for (uint32_t c = 0; c < 3; ++c) want.at(x, y, c) = marks.at(x + 17, y + 30, c);
  expect_page(crop.get(), want, il());
  // A page of background only is left whole.
  Page plain(40, 30, 3, page.bits);
  BufPtr whole = make(plain);
  ASSERT_EQ(0, ZT_ImageBufAutoCrop(whole.get(), nullptr, &kept));
  EXPECT_EQ(40, kept.right);
  expect_page(whole.get(), plain, il());
}

INSTANTIATE_TEST_SUITE_P(Shapes, ImageBufShapeTest,
                         testing::Values(Shape{0, 8, 0}, Shape{1, 8, 0}, Shape{0, 16, 0}, Shape{1, 16, 0},
                                         Shape{0, 8, ZT_COMPRESS_ON | ZT_COMPRESS_LZ4},
                                         Shape{1, 16, ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS}),
                         [](const testing::TestParamInfo<Shape> &p) {
                           return std::string(p.param.interleave ? "ByLine" : "ByPixel") +
                                  std::to_string(p.param.bits) + (p.param.compression ? "Compressed" : "");
                         });

// ---- Bad input --------------------------------------------------------------

TEST_F(ImageBufTest, NullBuffersFailWithOneMessage) {
  uint8_t data[16] = {};
  const std::function<int32_t()> calls[] = {
      [&] { return ZT_ImageBufGetRectangle(nullptr, 0, 0, 1, 1, data, 0); },
      [&] { return ZT_ImageBufPutRectangle(nullptr, 0, 0, 1, 1, data, 0); },
      [&] { return ZT_ImageBufGetScanline(nullptr, 0, data); },
      [&] { return ZT_ImageBufPutColumn(nullptr, 0, data); },
      [&] { return ZT_ImageBufGetPixel(nullptr, 0, 0, data); },
      [&] { return ZT_ImageBufReadScanline(nullptr, 0, data); },
      [&] { return ZT_ImageBufReadScanlineFast(nullptr, 0, data); },
      [&] { return ZT_ImageBufFlush(nullptr); },
      [&] { return ZT_ImageBufAddReference(nullptr); },
      [&] { return ZT_ImageBufRotate90(nullptr); },
      [&] { return ZT_ImageBufNegative(nullptr); },
      [&] { return ZT_ImageBufChangeBPP(nullptr, 8); },
      [&] { return ZT_ImageBufCrop(nullptr, 0, 0, 1, 1); },
      [&] { return ZT_ImageBufAutoCrop(nullptr, nullptr, nullptr); },
      [&] { return ZT_ImageBufCopy(nullptr, nullptr); },
      [&] { return ZT_ImageBufMirrorRectangle(nullptr, 0, 0, 1, 1, 1, 1); },
  };
  for (const auto &call : calls) {
    EXPECT_EQ(-1, call());
    expect_one_log("NULL imagebuf passed");
  }
  ZT_ImageBufFree(nullptr);
}

TEST_F(ImageBufTest, RectanglesOutsideOrOverflowingFailAndEmptyOnesDoNothing) {
  BufPtr buf = init(300, 200);
  ASSERT_TRUE(buf);
  std::vector<uint8_t> data(300 * 200, 5);
  struct Bad {
    uint32_t x, y, w, h;
  };
  for (const Bad &b : {Bad{300, 0, 1, 1}, Bad{0, 200, 1, 1}, Bad{299, 0, 2, 1}, Bad{0, 0, 1, 201},
                       Bad{10, 0, 0xFFFFFFF8u, 1}, Bad{0, 10, 1, 0xFFFFFFFFu}}) {
    EXPECT_EQ(-1, ZT_ImageBufPutRectangle(buf.get(), b.x, b.y, b.w, b.h, data.data(), 0));
    expect_one_log("Bad rectangle");
    EXPECT_EQ(-1, ZT_ImageBufGetRectangle(buf.get(), b.x, b.y, b.w, b.h, data.data(), 0));
    expect_one_log("Bad rectangle");
  }
  EXPECT_EQ(-1, ZT_ImageBufGetColumn(buf.get(), 300, data.data()));
  EXPECT_EQ(-1, ZT_ImageBufPutPixel(buf.get(), 0, 200, data.data()));
  EXPECT_EQ(-1, ZT_ImageBufRotateRectangle90(buf.get(), 1, 1, 300, 1, data.data(), 0));
  EXPECT_EQ(3u, log_.count());
  log_.clear();
  // Zero-sized areas succeed with nothing done, anywhere.
  EXPECT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 0, 0, 0, 10, data.data(), 0));
  EXPECT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 5000, 5000, 10, 0, nullptr, 0));
  EXPECT_EQ(0, ZT_ImageBufMirrorRectangle(buf.get(), 0, 0, 0, 0, 1, 1));
  EXPECT_EQ(0, ZT_ImageBuf_tile_exists(buf.get(), 0));
  EXPECT_EQ(0, ZT_ImageBufReadScanline(buf.get(), 0, data.data()));
  EXPECT_EQ(-1, ZT_ImageBufReadScanline(buf.get(), 2, data.data()));
  expect_one_log("Called out of sequence. Expecting line 1 but got 2 instead");
}

// ---- Swap faults ---------------------------------------------------------------

std::atomic<int> g_failing_fd{-1};
std::atomic<int> g_failing_errno{ENOSPC};

ssize_t failing_write(int fd, const void *data, size_t length, off_t offset) {
  if (fd == g_failing_fd.load()) {
    errno = g_failing_errno.load();
    return -1;
  }
  return ::pwrite(fd, data, length, offset);
}

// Two buffers of 64 KB tiles in a cache of eight tiles; the victim's tiles
// are pushed out by the bystander's.
class SwapFaultTest : public ImageBufTest {
 protected:
  void SetUp() override {
    ZT_ImageBufSetCacheSize(0x80001);
    victim_dir_ = dir_.file("victim");
    fs::create_directory(victim_dir_);
    victim_.reset(ZT_ImageBufInit(0, 8, 256 * 4, 256, 1, 0, victim_dir_.c_str(), nullptr));
    bystander_ = init(256 * 8, 256);
    ASSERT_TRUE(victim_ && bystander_);
    fill(victim_.get(), 4, 1);
  }
  void TearDown() override {
    ZT_ImageBufSetSwapWriteHook(nullptr);
    g_failing_fd = -1;
    ImageBufTest::TearDown();
  }
  static void fill(ZT_ImageBuf *buf, uint32_t tiles, uint8_t value) {
    for (uint32_t t = 0; t < tiles; ++t) ASSERT_EQ(0, put_tile(buf, t, value));
  }
  // The bystander's tiles push the victim's out and read back what they hold.
  void bystander_works() {
    fill(bystander_.get(), 8, 2);
    std::vector<uint8_t> block;
    for (uint32_t t = 0; t < 8; ++t) {
      ASSERT_EQ(0, get_tile(bystander_.get(), t, &block));
      ASSERT_EQ(std::vector<uint8_t>(256 * 256, 2), block);
    }
  }
  void expect_victim_refuses() {
    std::vector<uint8_t> block;
    for (uint32_t t = 0; t < 4; ++t) EXPECT_EQ(-1, get_tile(victim_.get(), t, &block));
    EXPECT_EQ(-1, ZT_ImageBufPutPixel(victim_.get(), 0, 0, block.data()));
    EXPECT_EQ(-1, ZT_ImageBufRotate90(victim_.get()));
    EXPECT_EQ(6u, log_.count());
    EXPECT_TRUE(log_.contains("error state"));
    log_.clear();
    ZT_ImageBufInfo info{};
    ASSERT_EQ(0, ZT_ImageBufGetInfo(victim_.get(), &info));
    EXPECT_EQ(-1, info.errorState);
  }
  int victim_fd() {
    // The victim's swap file is opened on its first write-back; a flush makes it so.
    const std::string name = ZT_ImageBufGetSwapName(victim_.get());
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      if (fs::read_symlink(entry.path(), ec).string() == name)
        return std::stoi(entry.path().filename().string());
    }
    return -1;
  }
  std::string victim_dir_;
  BufPtr victim_, bystander_;
};

TEST_F(SwapFaultTest, FailedWriteBackPutsOnlyTheOwnerInError) {
  for (int err : {ENOSPC, EFBIG}) {
    SCOPED_TRACE(err);
    SetUp();
    ASSERT_EQ(0, ZT_ImageBufFlush(victim_.get()));
    fill(victim_.get(), 4, 3);  // dirty again, not yet written
    g_failing_fd = victim_fd();
    g_failing_errno = err;
    ASSERT_GE(g_failing_fd.load(), 0);
    ZT_ImageBufSetSwapWriteHook(failing_write);
    bystander_works();
    expect_one_log(std::strerror(err));
    expect_victim_refuses();
    const std::string name = ZT_ImageBufGetSwapName(victim_.get());
    victim_.reset();
    EXPECT_FALSE(fs::exists(name));
    TearDown();
  }
}

TEST_F(SwapFaultTest, VanishedSwapDirectory) {
  fs::remove_all(victim_dir_);
  bystander_works();
  expect_one_log("Cannot open swap file");
  expect_victim_refuses();
  victim_.reset();
  EXPECT_FALSE(fs::exists(victim_dir_));
}

TEST_F(SwapFaultTest, TruncatedSwapFileIsNeverReadAsATile) {
  bystander_works();  // the victim's tiles are now in its swap file only
  ASSERT_FALSE(tile_state(victim_.get(), 3).resident);
  ASSERT_EQ(0, ::truncate(ZT_ImageBufGetSwapName(victim_.get()), 3 * 65536 + 100));
  std::vector<uint8_t> block;
  // Tiles 0-2 are whole and read back; tile 3 is cut short.
  ASSERT_EQ(0, get_tile(victim_.get(), 0, &block));
  EXPECT_EQ(std::vector<uint8_t>(256 * 256, 1), block);
  EXPECT_EQ(-1, get_tile(victim_.get(), 3, &block));
  expect_one_log("the file is too short");
  expect_victim_refuses();
  bystander_works();
}

// ---- Threads ------------------------------------------------------------------

// Four writers and four readers over three buffers in a cache of half a
// megabyte. Writers own disjoint tiles and stamp each write with a version;
// a reader must always see one whole version of a tile, and at the end every
// tile holds its last version.
class ImageBufMT : public ImageBufTest {};

TEST_F(ImageBufMT, WritersAndReadersShareATinyCache) {
  ZT_ImageBufSetCacheSize(0x80001);
  constexpr uint32_t kSide = 32, kAcross = 16, kTiles = 16 * 8;  // 16 x 8 tiles of 32 x 32 x 4 bytes each
  std::vector<BufPtr> bufs;
  for (uint32_t i = 0; i < 3; ++i) {
    bufs.push_back(init(kSide * kAcross, kSide * 8, 4, 8, 0, i == 2 ? ZT_COMPRESS_ON | ZT_COMPRESS_LZ4 : 0));
    ASSERT_TRUE(bufs.back());
    ASSERT_EQ(0, ZT_ImageBufSetTileSize(bufs.back().get(), kSide, kSide));
  }
  auto pattern = [](uint32_t b, uint32_t t, uint32_t version, std::vector<uint8_t> &block) {
    for (size_t i = 0; i < block.size(); ++i)
      block[i] = static_cast<uint8_t>((i * 31 + b * 7 + t * 13 + version * 101) >> (i % 3));
    std::memcpy(block.data(), &version, 4);
  };
  auto io = [&](bool put, uint32_t b, uint32_t t, std::vector<uint8_t> &block) {
    const uint32_t x = (t % kAcross) * kSide, y = (t / kAcross) * kSide;
    return put ? ZT_ImageBufPutRectangle(bufs[b].get(), x, y, kSide, kSide, block.data(), 0)
               : ZT_ImageBufGetRectangle(bufs[b].get(), x, y, kSide, kSide, block.data(), 0);
  };
  std::vector<std::atomic<uint32_t>> last(3 * kTiles);
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (uint32_t w = 0; w < 4; ++w)
    threads.emplace_back([&, w] {
      std::vector<uint8_t> block(kSide * kSide * 4);
      std::mt19937 rng(w);
      for (uint32_t version = 1; !stop.load(); ++version) {
        const uint32_t b = rng() % 3, t = (rng() % (kTiles / 4)) * 4 + w;
        pattern(b, t, version, block);
        if (io(true, b, t, block) != 0) ++failures;
        last[b * kTiles + t].store(version);
      }
    });
  for (uint32_t r = 0; r < 4; ++r)
    threads.emplace_back([&, r] {
      std::vector<uint8_t> block(kSide * kSide * 4), want(block.size());
      std::mt19937 rng(100 + r);
      while (!stop.load()) {
        const uint32_t b = rng() % 3, t = rng() % kTiles;
        if (io(false, b, t, block) != 0) ++failures;
        uint32_t version;
        std::memcpy(&version, block.data(), 4);
        if (version == 0) {
          if (block != std::vector<uint8_t>(block.size(), 0)) ++failures;
          continue;
        }
        pattern(b, t, version, want);
        if (block != want) ++failures;
      }
    });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (auto &t : threads) t.join();
  EXPECT_EQ(0, failures.load());
  std::vector<uint8_t> block(kSide * kSide * 4), want(block.size());
  for (uint32_t b = 0; b < 3; ++b)
    for (uint32_t t = 0; t < kTiles; ++t) {
      ASSERT_EQ(0, io(false, b, t, block));
      if (last[b * kTiles + t].load() == 0) continue;
      pattern(b, t, last[b * kTiles + t].load(), want);
      EXPECT_EQ(want, block) << "buffer " << b << " tile " << t;
    }
  bufs.clear();
  EXPECT_TRUE(swap_files(dir_.path()).empty());
}

}  // namespace
