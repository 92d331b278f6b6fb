// Tiled image buffers: geometry, the cache's rules, access and every
// transform against a plain in-memory page, swap faults, and threads.
#include <gtest/gtest.h>
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

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "raster/imagebuf_internal.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;
using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::TempDir;

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
  uint16_t at(uint32_t x, uint32_t y, uint32_t c) const {
    return samples[(size_t{y} * width + x) * channels + c];
  }
  void randomise(std::mt19937 &rng) {
    for (auto &s : samples) s = static_cast<uint16_t>(bits == 8 ? rng() & 0xFF : rng() & 0xFFFF);
  }
  // The rectangle as a caller passes it: rows of w pixels, interleaved as asked.
  std::vector<uint8_t> pack(uint32_t x, uint32_t y, uint32_t w, uint32_t h, uint32_t il) const {
    const uint32_t bps = bits / 8;
    std::vector<uint8_t> out(size_t{w} * h * channels * bps);
    for (uint32_t j = 0; j < h; ++j)
      for (uint32_t i = 0; i < w; ++i)
        for (uint32_t c = 0; c < channels; ++c) {
          const size_t index = size_t{j} * w * channels + (il == 0 ? size_t{i} * channels + c : size_t{c} * w + i);
          const uint16_t v = at(x + i, y + j, c);
          if (bps == 1)
            out[index] = static_cast<uint8_t>(v);
          else
            std::memcpy(&out[2 * index], &v, 2);
        }
    return out;
  }
  void unpack(uint32_t x, uint32_t y, uint32_t w, uint32_t h, uint32_t il, const std::vector<uint8_t> &in) {
    const uint32_t bps = bits / 8;
    for (uint32_t j = 0; j < h; ++j)
      for (uint32_t i = 0; i < w; ++i)
        for (uint32_t c = 0; c < channels; ++c) {
          const size_t index = size_t{j} * w * channels + (il == 0 ? size_t{i} * channels + c : size_t{c} * w + i);
          uint16_t v = in[index];
          if (bps == 2) std::memcpy(&v, &in[2 * index], 2);
          at(x + i, y + j, c) = v;
        }
  }
};

BufPtr make_buffer(const Page &page, uint32_t il, const std::string &dir, uint32_t compression = 0) {
  return BufPtr(ZT_ImageBufInit(il, page.bits, page.width, page.height, page.channels, compression, dir.c_str(),
                                nullptr));
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

class ImageBufTest : public testing::Test {
 protected:
  void TearDown() override { ZT_ImageBufSetCacheSize(0); }
  LibraryScope library_;
  TempDir dir_;
};

// ---- Geometry and creation -------------------------------------------------

TEST_F(ImageBufTest, TilesOfAnOddPage) {
  BufPtr buf(ZT_ImageBufInit(0, 8, 257, 256, 4, 0, dir_.path().c_str(), nullptr));
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
  BufPtr buf(ZT_ImageBufInit(1, 16, 40, 300, 2, 0, dir_.path().c_str(), nullptr));
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
    LogCapture log;
    const char *dir = c.dir != nullptr ? c.dir : dir_.path().c_str();
    EXPECT_EQ(nullptr, ZT_ImageBufInit(c.il, c.bits, c.w, c.h, c.ch, 0, dir, nullptr)) << c.message;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
    EXPECT_EQ(1u, log.count()) << c.message;
  }
  EXPECT_TRUE(swap_files(dir_.path()).empty());
}

TEST_F(ImageBufTest, TileTableThatWouldOverflowIsRefused) {
  BufPtr buf(ZT_ImageBufInit(0, 8, 70000, 70000, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(buf);
  {
    // 70,000 x 70,000 tiles of one pixel do not number in 32 bits.
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 1, 1));
    EXPECT_TRUE(log.contains("is too large"));
  }
  // The buffer keeps its tiles.
  const uint8_t v = 42;
  uint8_t back = 0;
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 69999, 69999, &v));
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 69999, 69999, &back));
  EXPECT_EQ(42, back);
  EXPECT_EQ(274u * 274 - 1, ZT_ImageBuf_tilenum(buf.get(), 69999, 69999));
}

TEST_F(ImageBufTest, SwapFileNamesSkipExistingOnesAndGoWithTheBuffer) {
  BufPtr first(ZT_ImageBufInit(0, 8, 10, 10, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(first);
  const std::string name = ZT_ImageBufGetSwapName(first.get());
  const int n = std::stoi(name.substr(name.rfind('_') + 1));
  EXPECT_EQ(dir_.file("ztswap_" + std::to_string(n)), name);
  struct stat st {};
  ASSERT_EQ(0, ::stat(name.c_str(), &st));
  EXPECT_EQ(0664u, st.st_mode & 0777u);
  zt::test::write_file(dir_.file("ztswap_" + std::to_string(n + 1)), "x");
  zt::test::write_file(dir_.file("ztswap_" + std::to_string(n + 2)), "x");
  BufPtr second(ZT_ImageBufInit(0, 8, 10, 10, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(second);
  EXPECT_EQ(dir_.file("ztswap_" + std::to_string(n + 3)), ZT_ImageBufGetSwapName(second.get()));
  EXPECT_EQ("x", zt::test::read_file(dir_.file("ztswap_" + std::to_string(n + 1))));
  first.reset();
  EXPECT_FALSE(fs::exists(name));
  // A second reference keeps the buffer and its file.
  ASSERT_EQ(0, ZT_ImageBufAddReference(second.get()));
  ZT_ImageBufFree(second.get());
  EXPECT_TRUE(fs::exists(dir_.file("ztswap_" + std::to_string(n + 3))));
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
  {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufGetScanline(buf, 0, row.data()));
    EXPECT_TRUE(log.contains("error state"));
  }
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
  BufPtr buf(ZT_ImageBufInit(0, 8, 100, 100, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(buf);
  ASSERT_EQ(0, ZT_ImageBufAddReference(buf.get()));
  {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 32, 32));
    EXPECT_TRUE(log.contains("being used by 2 clients"));
  }
  ZT_ImageBufFree(buf.get());
  {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufSetTileSize(buf.get(), 0, 32));
    EXPECT_TRUE(log.contains("Bad tile width or height"));
  }
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
    buf_.reset(ZT_ImageBufInit(0, 8, 256 * 12, 256, 1, 0, dir_.path().c_str(), nullptr));
    ASSERT_TRUE(buf_);
  }
  void touch(uint32_t tile, bool write, uint8_t value = 0) {
    std::vector<uint8_t> block(256 * 256, value);
    if (write)
      ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf_.get(), tile * 256, 0, 256, 256, block.data(), 0));
    else
      ASSERT_EQ(0, ZT_ImageBufGetRectangle(buf_.get(), tile * 256, 0, 256, 256, block.data(), 0));
  }
  ZT_ImageBufTileState state(uint32_t tile) {
    ZT_ImageBufTileState s{};
    EXPECT_EQ(0, ZT_ImageBufGetTileState(buf_.get(), tile, &s));
    return s;
  }
  BufPtr buf_;
};

TEST_F(CacheOrderTest, EvictsLeastRecentlyReleasedCleanBeforeDirty) {
  for (uint32_t t = 0; t < 4; ++t) touch(t, true, static_cast<uint8_t>(t + 1));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));  // tiles 0-3 clean, in release order
  for (uint32_t t = 4; t < 8; ++t) touch(t, true, static_cast<uint8_t>(t + 1));
  touch(2, false);  // tile 2 becomes the most recently released clean tile
  for (uint32_t t = 0; t < 8; ++t) EXPECT_TRUE(state(t).resident) << t;

  touch(8, true, 9);
  EXPECT_FALSE(state(0).resident);
  touch(9, true, 10);
  EXPECT_FALSE(state(1).resident);
  touch(10, true, 11);
  EXPECT_FALSE(state(3).resident);
  EXPECT_TRUE(state(2).resident);
  touch(11, true, 12);
  EXPECT_FALSE(state(2).resident);
  // No clean tile is left: the oldest dirty one, tile 4, is written back.
  EXPECT_TRUE(state(4).neverWritten);
  touch(0, false);
  EXPECT_FALSE(state(4).resident);
  EXPECT_FALSE(state(4).neverWritten);
  EXPECT_TRUE(state(5).resident);
  // And every tile still reads what was written.
  for (uint32_t t = 0; t < 12; ++t) {
    std::vector<uint8_t> block(256 * 256);
    ASSERT_EQ(0, ZT_ImageBufGetRectangle(buf_.get(), t * 256, 0, 256, 256, block.data(), 0));
    EXPECT_EQ(std::vector<uint8_t>(256 * 256, static_cast<uint8_t>(t + 1)), block) << t;
  }
}

TEST_F(CacheOrderTest, RewrittenTileKeepsItsSwapPlace) {
  touch(0, true, 1);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  touch(1, true, 2);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  EXPECT_EQ(0, state(0).offset);
  EXPECT_EQ(65536, state(1).offset);
  EXPECT_EQ(2 * 65536, ZT_ImageBufGetSwapEnd(buf_.get()));
  touch(0, true, 3);
  ASSERT_EQ(0, ZT_ImageBufFlush(buf_.get()));
  EXPECT_EQ(0, state(0).offset);
  EXPECT_EQ(2 * 65536, ZT_ImageBufGetSwapEnd(buf_.get()));
}

TEST_F(ImageBufTest, CompressionIsSkippedPerTileWhenItDoesNotPay) {
  BufPtr buf(ZT_ImageBufInit(0, 8, 512, 256, 1, ZT_COMPRESS_ON | ZT_COMPRESS_LZ4, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(buf);
  std::vector<uint8_t> flat(256 * 256, 200), noise(256 * 256);
  std::mt19937 rng(5);
  for (auto &b : noise) b = static_cast<uint8_t>(rng());
  ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 0, 0, 256, 256, flat.data(), 0));
  ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 256, 0, 256, 256, noise.data(), 0));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf.get()));
  ZT_ImageBufTileState s0{}, s1{};
  ASSERT_EQ(0, ZT_ImageBufGetTileState(buf.get(), 0, &s0));
  ASSERT_EQ(0, ZT_ImageBufGetTileState(buf.get(), 1, &s1));
  EXPECT_NE(0u, s0.flags & ZT_COMPRESS_LZ4);
  EXPECT_LT(s0.length, 65536u);
  EXPECT_EQ(0u, s1.flags & ZT_COMPRESS_LZ4);
  EXPECT_EQ(65536u, s1.length);
  // The small compressed tile grows to raw size: it moves to the end; the
  // raw tile shrinks to a compressed one: it stays where it was.
  const int64_t end = ZT_ImageBufGetSwapEnd(buf.get());
  ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 0, 0, 256, 256, noise.data(), 0));
  ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 256, 0, 256, 256, flat.data(), 0));
  ASSERT_EQ(0, ZT_ImageBufFlush(buf.get()));
  ZT_ImageBufTileState t0{}, t1{};
  ASSERT_EQ(0, ZT_ImageBufGetTileState(buf.get(), 0, &t0));
  ASSERT_EQ(0, ZT_ImageBufGetTileState(buf.get(), 1, &t1));
  EXPECT_EQ(end, t0.offset);
  EXPECT_EQ(s1.offset, t1.offset);
  EXPECT_EQ(end + 65536, ZT_ImageBufGetSwapEnd(buf.get()));
  // Evict both (a fresh page of tiles fills the cache) and read them back.
  ZT_ImageBufSetCacheSize(0x80001);
  BufPtr other(ZT_ImageBufInit(0, 8, 256 * 10, 256, 1, 0, dir_.path().c_str(), nullptr));
  std::vector<uint8_t> row(256 * 10, 1);
  for (uint32_t y = 0; y < 256; ++y) ASSERT_EQ(0, ZT_ImageBufPutScanline(other.get(), y, row.data()));
  ASSERT_EQ(0, ZT_ImageBufGetTileState(buf.get(), 0, &t0));
  EXPECT_FALSE(t0.resident);
  std::vector<uint8_t> back(256 * 256);
  ASSERT_EQ(0, ZT_ImageBufGetRectangle(buf.get(), 0, 0, 256, 256, back.data(), 0));
  EXPECT_EQ(noise, back);
  ASSERT_EQ(0, ZT_ImageBufGetRectangle(buf.get(), 256, 0, 256, 256, back.data(), 0));
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
  Page page(611, 389, 3, GetParam().bits);
  BufPtr buf = make(page);
  ASSERT_TRUE(buf);
  ASSERT_EQ(0, ZT_ImageBufSetTileSize(buf.get(), 37, 23));
  std::mt19937 rng(7);
  // Random rectangles, then whole columns and single pixels, written over one another.
  for (int i = 0; i < 60; ++i) {
    const uint32_t x = rng() % page.width, y = rng() % page.height;
    const uint32_t w = 1 + rng() % (page.width - x), h = 1 + rng() % std::min(80u, page.height - y);
    Page patch(page.width, page.height, 3, page.bits);
    patch.randomise(rng);
    auto bytes = patch.pack(x, y, w, h, il());
    // A stride wider than the row: the gap is not touched.
    const uint32_t row = w * 3 * page.bits / 8, stride = row + 5;
    std::vector<uint8_t> strided(size_t{stride} * h, 0xEE);
    for (uint32_t j = 0; j < h; ++j) std::memcpy(&strided[size_t{j} * stride], &bytes[size_t{j} * row], row);
    ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), x, y, w, h, strided.data(), stride));
    page.unpack(x, y, w, h, il(), bytes);
  }
  for (uint32_t x : {0u, 36u, 37u, 610u}) {
    Page patch(page.width, page.height, 3, page.bits);
    patch.randomise(rng);
    Page column(page.height, 1, 3, page.bits);
    for (uint32_t y = 0; y < page.height; ++y)
      for (uint32_t c = 0; c < 3; ++c) column.at(y, 0, c) = page.at(x, y, c) = patch.at(x, y, c);
    ASSERT_EQ(0, ZT_ImageBufPutColumn(buf.get(), x, column.pack(0, 0, page.height, 1, il()).data()));
  }
  const uint16_t px16[3] = {0x1234, 0x5678, 0x9ABC};
  const uint8_t px8[3] = {0x12, 0x56, 0x9A};
  const void *px = page.bits == 8 ? static_cast<const void *>(px8) : px16;
  ASSERT_EQ(0, ZT_ImageBufPutPixel(buf.get(), 610, 388, px));
  for (uint32_t c = 0; c < 3; ++c) page.at(610, 388, c) = page.bits == 8 ? px8[c] : px16[c];

  expect_page(buf.get(), page, il());
  for (uint32_t x : {0u, 1u, 300u, 610u}) {
    Page column(page.height, 1, 3, page.bits);
    for (uint32_t y = 0; y < page.height; ++y)
      for (uint32_t c = 0; c < 3; ++c) column.at(y, 0, c) = page.at(x, y, c);
    std::vector<uint8_t> got(size_t{page.height} * 3 * page.bits / 8);
    ASSERT_EQ(0, ZT_ImageBufGetColumn(buf.get(), x, got.data()));
    EXPECT_EQ(column.pack(0, 0, page.height, 1, il()), got) << "column " << x;
  }
  uint16_t back16[3] = {};
  ASSERT_EQ(0, ZT_ImageBufGetPixel(buf.get(), 610, 388, back16));
  EXPECT_EQ(0, std::memcmp(back16, px, 3 * page.bits / 8));
  // Both sequential readers, each twice (line 0 restarts the sequence).
  for (int pass = 0; pass < 4; ++pass)
    for (uint32_t y = 0; y < page.height; ++y) {
      std::vector<uint8_t> line(size_t{page.width} * 3 * page.bits / 8);
      ASSERT_EQ(0, pass < 2 ? ZT_ImageBufReadScanline(buf.get(), y, line.data())
                            : ZT_ImageBufReadScanlineFast(buf.get(), y, line.data()));
      ASSERT_EQ(page.pack(0, y, page.width, 1, il()), line) << "pass " << pass << " line " << y;
    }
}

TEST_P(ImageBufShapeTest, TransformsMatchThePlainPage) {
  ZT_ImageBufSetCacheSize(0x80001);
  const Page page = random_page(533, 301, 3, 11);
  const uint32_t W = page.width, H = page.height;
  using Mapper = std::function<uint16_t(const Page &, uint32_t, uint32_t, uint32_t)>;
  struct Case {
    const char *name;
    std::function<int32_t(ZT_ImageBuf *)> run;
    uint32_t w, h;
    Mapper expected;
  };
  const Case cases[] = {
      {"Rotate90", ZT_ImageBufRotate90, H, W,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(y, H - 1 - x, c); }},
      {"Rotate180", ZT_ImageBufRotate180, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(W - 1 - x, H - 1 - y, c); }},
      {"Rotate270", ZT_ImageBufRotate270, H, W,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(W - 1 - y, x, c); }},
      {"XMirror", ZT_ImageBufXMirror, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(W - 1 - x, y, c); }},
      {"YMirror", ZT_ImageBufYMirror, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(x, H - 1 - y, c); }},
      {"Mirror both", [](ZT_ImageBuf *b) { return ZT_ImageBufMirror(b, 1, 1); }, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(W - 1 - x, H - 1 - y, c); }},
      {"MirrorRectangle", [](ZT_ImageBuf *b) { return ZT_ImageBufMirrorRectangle(b, 10, 20, 300, 257, 1, 1); }, W,
       H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) {
         const bool inside = x >= 10 && x < 310 && y >= 20 && y < 277;
         return inside ? p.at(10 + 309 - x, 20 + 276 - y, c) : p.at(x, y, c);
       }},
      {"MirrorRectangle X", [](ZT_ImageBuf *b) { return ZT_ImageBufMirrorRectangle(b, 1, 2, 257, 3, 1, 0); }, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) {
         const bool inside = x >= 1 && x < 258 && y >= 2 && y < 5;
         return inside ? p.at(258 - x, y, c) : p.at(x, y, c);
       }},
      {"Negative", ZT_ImageBufNegative, W, H,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) {
         return static_cast<uint16_t>(~p.at(x, y, c) & (p.bits == 8 ? 0xFF : 0xFFFF));
       }},
      {"Crop", [](ZT_ImageBuf *b) { return ZT_ImageBufCrop(b, 255, 1, 259, 299); }, 259, 299,
       [&](const Page &p, uint32_t x, uint32_t y, uint32_t c) { return p.at(x + 255, y + 1, c); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    BufPtr buf = make(page);
    ASSERT_TRUE(buf);
    put_page(buf.get(), page, il());
    ASSERT_EQ(0, c.run(buf.get()));
    Page want(c.w, c.h, page.channels, page.bits);
    for (uint32_t y = 0; y < c.h; ++y)
      for (uint32_t x = 0; x < c.w; ++x)
        for (uint32_t ch = 0; ch < page.channels; ++ch) want.at(x, y, ch) = c.expected(page, x, y, ch);
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
  BufPtr copy(ZT_ImageBufInit(il(), 8, 5, 5, 1, GetParam().compression, dir_.path().c_str(), nullptr));
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
    LogCapture log;
    EXPECT_EQ(-1, call());
    EXPECT_EQ(1u, log.count());
    EXPECT_TRUE(log.contains("NULL imagebuf passed"));
  }
  ZT_ImageBufFree(nullptr);
}

TEST_F(ImageBufTest, RectanglesOutsideOrOverflowingFailAndEmptyOnesDoNothing) {
  BufPtr buf(ZT_ImageBufInit(0, 8, 300, 200, 1, 0, dir_.path().c_str(), nullptr));
  ASSERT_TRUE(buf);
  std::vector<uint8_t> data(300 * 200, 5);
  struct Bad {
    uint32_t x, y, w, h;
  };
  for (const Bad &b : {Bad{300, 0, 1, 1}, Bad{0, 200, 1, 1}, Bad{299, 0, 2, 1}, Bad{0, 0, 1, 201},
                       Bad{10, 0, 0xFFFFFFF8u, 1}, Bad{0, 10, 1, 0xFFFFFFFFu}}) {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufPutRectangle(buf.get(), b.x, b.y, b.w, b.h, data.data(), 0));
    EXPECT_EQ(-1, ZT_ImageBufGetRectangle(buf.get(), b.x, b.y, b.w, b.h, data.data(), 0));
    EXPECT_EQ(2u, log.count());
    EXPECT_TRUE(log.contains("Bad rectangle"));
  }
  {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufGetColumn(buf.get(), 300, data.data()));
    EXPECT_EQ(-1, ZT_ImageBufPutPixel(buf.get(), 0, 200, data.data()));
    EXPECT_EQ(-1, ZT_ImageBufRotateRectangle90(buf.get(), 1, 1, 300, 1, data.data(), 0));
    EXPECT_EQ(3u, log.count());
  }
  // Zero-sized areas succeed with nothing done, anywhere.
  EXPECT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 0, 0, 0, 10, data.data(), 0));
  EXPECT_EQ(0, ZT_ImageBufPutRectangle(buf.get(), 5000, 5000, 10, 0, nullptr, 0));
  EXPECT_EQ(0, ZT_ImageBufMirrorRectangle(buf.get(), 0, 0, 0, 0, 1, 1));
  EXPECT_EQ(0, ZT_ImageBuf_tile_exists(buf.get(), 0));
  {
    LogCapture log;
    EXPECT_EQ(0, ZT_ImageBufReadScanline(buf.get(), 0, data.data()));
    EXPECT_EQ(-1, ZT_ImageBufReadScanline(buf.get(), 2, data.data()));
    EXPECT_TRUE(log.contains("Called out of sequence. Expecting line 1 but got 2 instead"));
  }
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
    bystander_.reset(ZT_ImageBufInit(0, 8, 256 * 8, 256, 1, 0, dir_.path().c_str(), nullptr));
    ASSERT_TRUE(victim_ && bystander_);
    fill(victim_.get(), 4, 1);
  }
  void TearDown() override {
    ZT_ImageBufSetSwapWriteHook(nullptr);
    g_failing_fd = -1;
    ImageBufTest::TearDown();
  }
  static void fill(ZT_ImageBuf *buf, uint32_t tiles, uint8_t value) {
    std::vector<uint8_t> block(256 * 256, value);
    for (uint32_t t = 0; t < tiles; ++t)
      ASSERT_EQ(0, ZT_ImageBufPutRectangle(buf, t * 256, 0, 256, 256, block.data(), 0));
  }
  // The bystander's tiles push the victim's out and read back what they hold.
  void bystander_works() {
    fill(bystander_.get(), 8, 2);
    std::vector<uint8_t> block(256 * 256);
    for (uint32_t t = 0; t < 8; ++t) {
      ASSERT_EQ(0, ZT_ImageBufGetRectangle(bystander_.get(), t * 256, 0, 256, 256, block.data(), 0));
      ASSERT_EQ(std::vector<uint8_t>(256 * 256, 2), block);
    }
  }
  void expect_victim_refuses() {
    LogCapture log;
    std::vector<uint8_t> block(256 * 256);
    for (uint32_t t = 0; t < 4; ++t)
      EXPECT_EQ(-1, ZT_ImageBufGetRectangle(victim_.get(), t * 256, 0, 256, 256, block.data(), 0));
    EXPECT_EQ(-1, ZT_ImageBufPutPixel(victim_.get(), 0, 0, block.data()));
    EXPECT_EQ(-1, ZT_ImageBufRotate90(victim_.get()));
    EXPECT_EQ(6u, log.count());
    EXPECT_TRUE(log.contains("error state"));
    ZT_ImageBufInfo info{};
    ASSERT_EQ(0, ZT_ImageBufGetInfo(victim_.get(), &info));
    EXPECT_EQ(-1, info.errorState);
  }
  int victim_fd() {
    // The victim's swap file is opened on its first write-back; a flush makes it so.
    const std::string name = ZT_ImageBufGetSwapName(victim_.get());
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      if (fs::read_symlink(entry.path(), ec).string() == name) return std::stoi(entry.path().filename().string());
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
    {
      LogCapture log;
      bystander_works();
      EXPECT_TRUE(log.contains(std::strerror(err)));
      EXPECT_EQ(1u, log.count());
    }
    expect_victim_refuses();
    const std::string name = ZT_ImageBufGetSwapName(victim_.get());
    victim_.reset();
    EXPECT_FALSE(fs::exists(name));
    TearDown();
  }
}

TEST_F(SwapFaultTest, VanishedSwapDirectory) {
  fs::remove_all(victim_dir_);
  {
    LogCapture log;
    bystander_works();
    EXPECT_TRUE(log.contains("Cannot open swap file"));
  }
  expect_victim_refuses();
  victim_.reset();
  EXPECT_FALSE(fs::exists(victim_dir_));
}

TEST_F(SwapFaultTest, TruncatedSwapFileIsNeverReadAsATile) {
  bystander_works();  // the victim's tiles are now in its swap file only
  ZT_ImageBufTileState s{};
  ASSERT_EQ(0, ZT_ImageBufGetTileState(victim_.get(), 3, &s));
  ASSERT_FALSE(s.resident);
  ASSERT_EQ(0, ::truncate(ZT_ImageBufGetSwapName(victim_.get()), 3 * 65536 + 100));
  std::vector<uint8_t> block(256 * 256);
  // Tiles 0-2 are whole and read back; tile 3 is cut short.
  ASSERT_EQ(0, ZT_ImageBufGetRectangle(victim_.get(), 0, 0, 256, 256, block.data(), 0));
  EXPECT_EQ(std::vector<uint8_t>(256 * 256, 1), block);
  {
    LogCapture log;
    EXPECT_EQ(-1, ZT_ImageBufGetRectangle(victim_.get(), 3 * 256, 0, 256, 256, block.data(), 0));
    EXPECT_TRUE(log.contains("the file is too short"));
  }
  expect_victim_refuses();
  bystander_works();
}

// ---- Threads ------------------------------------------------------------------

// Four writers and four readers over three buffers in a cache of half a
// megabyte. Writers own disjoint tiles and stamp each write with a version;
// a reader must always see one whole version of a tile, and at the end every
// tile holds its last version.
TEST(ImageBufMT, WritersAndReadersShareATinyCache) {
  LibraryScope library;
  TempDir dir;
  ZT_ImageBufSetCacheSize(0x80001);
  constexpr uint32_t kSide = 32, kTiles = 8;  // 8 x 8 tiles of 32 x 32 x 4 bytes each
  std::vector<BufPtr> bufs;
  for (int i = 0; i < 3; ++i) {
    bufs.emplace_back(ZT_ImageBufInit(0, 8, kSide * kTiles * 2, kSide * kTiles, 4,
                                      i == 2 ? ZT_COMPRESS_ON | ZT_COMPRESS_LZ4 : 0, dir.path().c_str(), nullptr));
    ASSERT_TRUE(bufs.back());
    ASSERT_EQ(0, ZT_ImageBufSetTileSize(bufs.back().get(), kSide, kSide));
  }
  const uint32_t tiles_per_buf = kTiles * kTiles * 2;
  auto pattern = [](uint32_t b, uint32_t t, uint32_t version, std::vector<uint8_t> &block) {
    for (size_t i = 0; i < block.size(); ++i)
      block[i] = static_cast<uint8_t>((i * 31 + b * 7 + t * 13 + version * 101) >> (i % 3));
    std::memcpy(block.data(), &version, 4);
  };
  std::vector<std::atomic<uint32_t>> last(3 * tiles_per_buf);
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (uint32_t w = 0; w < 4; ++w)
    threads.emplace_back([&, w] {
      std::vector<uint8_t> block(kSide * kSide * 4);
      std::mt19937 rng(w);
      for (uint32_t version = 1; !stop.load(); ++version) {
        const uint32_t b = rng() % 3, t = (rng() % (tiles_per_buf / 4)) * 4 + w;
        pattern(b, t, version, block);
        const uint32_t x = (t % (kTiles * 2)) * kSide, y = (t / (kTiles * 2)) * kSide;
        if (ZT_ImageBufPutRectangle(bufs[b].get(), x, y, kSide, kSide, block.data(), 0) != 0) ++failures;
        last[b * tiles_per_buf + t].store(version);
      }
    });
  for (uint32_t r = 0; r < 4; ++r)
    threads.emplace_back([&, r] {
      std::vector<uint8_t> block(kSide * kSide * 4), want(block.size());
      std::mt19937 rng(100 + r);
      while (!stop.load()) {
        const uint32_t b = rng() % 3, t = rng() % tiles_per_buf;
        const uint32_t x = (t % (kTiles * 2)) * kSide, y = (t / (kTiles * 2)) * kSide;
        if (ZT_ImageBufGetRectangle(bufs[b].get(), x, y, kSide, kSide, block.data(), 0) != 0) ++failures;
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
    for (uint32_t t = 0; t < tiles_per_buf; ++t) {
      const uint32_t version = last[b * tiles_per_buf + t].load();
      const uint32_t x = (t % (kTiles * 2)) * kSide, y = (t / (kTiles * 2)) * kSide;
      ASSERT_EQ(0, ZT_ImageBufGetRectangle(bufs[b].get(), x, y, kSide, kSide, block.data(), 0));
      if (version == 0) continue;
      pattern(b, t, version, want);
      EXPECT_EQ(want, block) << "buffer " << b << " tile " << t;
    }
  bufs.clear();
  EXPECT_TRUE(swap_files(dir.path()).empty());
  ZT_ImageBufSetCacheSize(0);
}

}  // namespace
