// VLIMG page files: the bytes we write checked against pages assembled by
// hand from the item table, round trips over every layout, depth and codec,
// the page chain, threads, a growing file, a full disk and hostile headers.
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zt/compress.h>
#include <zt/vlimg.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Pages assembled by hand: big-endian numbers and items as the format lays
// them out (tag, length = 6 + payload, type, count, payload).
struct Hand {
  Bytes b;
  Hand &u8(uint8_t v) {
    b.push_back(v);
    return *this;
  }
  Hand &u16(uint32_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
  Hand &u32(uint32_t v) { return u16(v >> 16).u16(v & 0xFFFF); }
  Hand &u64(uint64_t v) { return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v)); }
  Hand &repeat32(uint32_t v, int n) {
    while (n-- > 0) u32(v);
    return *this;
  }
  Hand &text(const std::string &t) { return raw(Bytes(t.begin(), t.end())); }
  Hand &raw(const Bytes &bytes) {
    b.insert(b.end(), bytes.begin(), bytes.end());
    return *this;
  }
  Hand &prologue() { return u8(0x42).u8(0x42).u32(0x0B0A1340).u32(0); }
  Hand &head(uint32_t tag, uint32_t payload, uint32_t type, uint32_t count) {
    return u32(tag).u32(payload + 6).u16(type).u32(count);
  }
  Hand &item32(uint32_t tag, uint32_t v) { return head(tag, 4, 0x0B, 1).u32(v); }
  Hand &item16(uint32_t tag, uint32_t v) { return head(tag, 2, 0x03, 1).u16(v); }
  Hand &version() { return head(14, 8, 0x0C, 1).u64(0x4018000000000000ull); }  // 6.0
  Hand &next(uint64_t v) { return head(32, 8, 0x0A, 1).u64(v); }
  Hand &end() { return head(16, 0, 0x0B, 0); }
  Hand &dims(uint32_t w, uint32_t h) { return item32(1, w).item32(2, h); }
  Hand &tiles(uint32_t w, uint32_t h) { return item32(23, w).item32(24, h); }
  // Prologue, version, new-file and next-page items: how every file starts.
  Hand &start() { return prologue().version().item32(31, 1).next(0); }
  // The required items of a grey 8-bit page.
  Hand &grey(uint32_t w, uint32_t h, uint32_t compression = 1) {
    return dims(w, h).item16(3, compression).item16(5, 1).head(19, 2, 0x03, 1).u16(8);
  }
  // Tiles of 2 x 1 and a table of one entry: a `w` x 1 tile of `length` bytes at `offset`.
  Hand &one_tile(uint32_t w, uint64_t offset, uint32_t length) {
    return tiles(2, 1).head(25, 24, 0x0B, 1).u32(w).u32(1).u64(offset).u32(length).u32(0);
  }
};

struct PageLayout {
  uint32_t width = 0, height = 0, type = VLIMG_IMAGETYPE_GREY, planes = 1, tile_w = 0, tile_h = 0;
  std::vector<uint32_t> bpp = {};  // empty: 8 bits per plane, left to the default
  uint32_t numseps = 0;
  std::string seps = "";
  uint32_t compression = VLIMG_COMPRESSION_NONE;
};

uint32_t bits_of(const PageLayout &p) {
  return p.bpp.empty() ? 8 * p.planes : std::accumulate(p.bpp.begin(), p.bpp.end(), 0u);
}

size_t line_of(const PageLayout &p, uint32_t width) { return (size_t{width} * bits_of(p) + 7) / 8; }

// Copies `n` bits, most significant first, from bit `from` of src to bit `to` of dst.
void copy_bits(uint8_t *dst, size_t to, const uint8_t *src, size_t from, size_t n) {
  for (size_t i = 0; i < n; ++i, ++to, ++from) {
    const uint8_t m = static_cast<uint8_t>(0x80 >> (to % 8));
    dst[to / 8] = (src[from / 8] >> (7 - from % 8)) & 1 ? dst[to / 8] | m : dst[to / 8] & ~m;
  }
}

// A page that compresses like a rendered one: flat tints, a ramp and noise.
Bytes make_pixels(const PageLayout &p, uint32_t seed) {
  const size_t line = line_of(p, p.width);
  Bytes px(line * p.height);
  uint32_t state = seed * 2654435761u + 1;
  for (uint32_t y = 0; y < p.height; ++y) {
    uint8_t *row = px.data() + y * line;
    for (size_t i = 0; i < line; ++i) {
      state = state * 1103515245u + 12345u;
      row[i] = static_cast<uint8_t>(y % 7 < 3 ? i * 3 + y : y % 7 < 5 ? 0x40 + (i % 4) * 0x11 : state >> 24);
    }
    // Bits past the last pixel of a line are not stored: keep them zero.
    row[line - 1] &= static_cast<uint8_t>(0xFF << (line * 8 - size_t{p.width} * bits_of(p)));
  }
  return px;
}

// A writer with the page's header fields set; NULL when one is refused.
VLIMG_File *open_writer(const std::string &name, int32_t mode, const PageLayout &p) {
  VLIMG_File *f = VLIMG_Open(name.c_str(), mode);
  bool ok = f && VLIMG_SetField(f, VLIMG_TAG_WIDTH, &p.width) == 0 &&
            VLIMG_SetField(f, VLIMG_TAG_HEIGHT, &p.height) == 0 &&
            VLIMG_SetField(f, VLIMG_TAG_COMPRESSION, &p.compression) == 0;
  if (ok && p.numseps) ok = VLIMG_SetField(f, VLIMG_TAG_NUMSEPS, &p.numseps) == 0;
  ok = ok && VLIMG_SetField(f, VLIMG_TAG_IMAGETYPE, &p.type) == 0;
  if (ok && !p.bpp.empty()) ok = VLIMG_SetField(f, VLIMG_TAG_BPP_ARRAY, p.bpp.data()) == 0;
  if (ok && !p.seps.empty()) ok = VLIMG_SetField(f, VLIMG_TAG_SEPNAMES, p.seps.c_str()) == 0;
  if (ok) return f;
  VLIMG_Close(f);
  return nullptr;
}

// Writes `px` as one page of `name` (mode 2 or 5); 0 or -1 like the library.
int32_t write_page(const std::string &name, int32_t mode, const PageLayout &p, const Bytes &px) {
  VLIMG_File *f = open_writer(name, mode, p);
  if (f == nullptr) return -1;
  const size_t line = line_of(p, p.width);
  bool ok = true;
  if (p.tile_w) {
    ok = VLIMG_EnableTiling(f, p.tile_w, p.tile_h) == 0;
    const uint32_t n = VLIMG_NumTiles(f), across = (p.width + p.tile_w - 1) / p.tile_w;
    // Tiles go in back to front, so the table has to map them.
    for (uint32_t i = n; ok && i-- > 0;) {
      uint32_t w = 0, h = 0;
      ok = VLIMG_GetTileSize(f, i, &w, &h) == 0;
      const size_t x = (i % across) * p.tile_w, y = (i / across) * p.tile_h, tl = line_of(p, w);
      Bytes tile(tl * h, 0);
      for (uint32_t r = 0; r < h; ++r)
        copy_bits(tile.data() + r * tl, 0, px.data() + (y + r) * line, x * bits_of(p),
                  size_t{w} * bits_of(p));
      ok = ok && VLIMG_WriteTile(f, i, tile.data(), static_cast<uint32_t>(tl)) == 0;
    }
  } else {
    for (uint32_t y = 0; ok && y < p.height; ++y) ok = VLIMG_WriteScanline(f, px.data() + y * line) == 0;
  }
  const int32_t closed = VLIMG_Close(f);
  return ok && closed == 0 ? 0 : -1;
}

// Reads the current page of `f` whole, by lines or by tiles (all in one call).
bool read_page(VLIMG_File *f, Bytes *px) {
  uint32_t width = 0, height = 0, tw = 0, th = 0;
  if (VLIMG_GetField(f, VLIMG_TAG_WIDTH, &width) != 0 || VLIMG_GetField(f, VLIMG_TAG_HEIGHT, &height) != 0)
    return false;
  const size_t line = VLIMG_BytesPerLine(f);
  const uint32_t bits = VLIMG_BitsPerPixel(f);
  px->assign(line * height, 0);
  if (!VLIMG_IsTiled(f)) {
    for (uint32_t y = 0; y < height; ++y)
      if (VLIMG_ReadScanline(f, px->data() + y * line) != 0) return false;
    return true;
  }
  VLIMG_GetField(f, VLIMG_TAG_TILEWIDTH, &tw);
  VLIMG_GetField(f, VLIMG_TAG_TILEHEIGHT, &th);
  const uint32_t n = VLIMG_NumTiles(f), across = (width + tw - 1) / tw;
  std::vector<Bytes> tiles(n);
  std::vector<uint32_t> indices(n), strides(n), ws(n), hs(n);
  std::vector<uint8_t *> dsts(n);
  for (uint32_t i = 0; i < n; ++i) {
    VLIMG_GetTileSize(f, i, &ws[i], &hs[i]);
    strides[i] = static_cast<uint32_t>((size_t{ws[i]} * bits + 7) / 8);
    tiles[i].assign(size_t{strides[i]} * hs[i], 0);
    indices[i] = i;
    dsts[i] = tiles[i].data();
  }
  if (VLIMG_ReadTiles(f, indices.data(), n, dsts.data(), strides.data()) != 0) return false;
  for (uint32_t i = 0; i < n; ++i)
    for (uint32_t r = 0; r < hs[i]; ++r)
      copy_bits(px->data() + ((i / across) * th + r) * line, size_t{i % across} * tw * bits,
                tiles[i].data() + size_t{r} * strides[i], 0, size_t{ws[i]} * bits);
  return true;
}

struct Closer {
  void operator()(VLIMG_File *f) const { VLIMG_Close(f); }
};
using File = std::unique_ptr<VLIMG_File, Closer>;

// Reads `name`'s first page whole.
Bytes read_file_page(const std::string &name) {
  Bytes px;
  File f(VLIMG_Open(name.c_str(), VLIMG_MODE_READ));
  EXPECT_TRUE(f && read_page(f.get(), &px));
  return px;
}

class Vlimg : public ::testing::Test {
 protected:
  void SetUp() override { VLIMGSetupThreads(1); }
  void TearDown() override { VLIMGSetupThreads(1); }
  std::string path(const std::string &name = "page.vlimg") const { return dir_.file(name); }
  Bytes bytes(const std::string &name = "page.vlimg") const {
    const std::string s = zt::test::read_file(path(name));
    return Bytes(s.begin(), s.end());
  }
  void put(const Bytes &b, const std::string &name = "page.vlimg") const {
    zt::test::write_file(path(name), std::string(b.begin(), b.end()));
  }
  // Opens hand-made bytes for reading; NULL when refused.
  File open_bytes(const Bytes &b) {
    put(b, "hand.vlimg");
    return File(VLIMG_Open(path("hand.vlimg").c_str(), VLIMG_MODE_READ));
  }

  zt::test::LibraryScope library_;
  zt::test::TempDir dir_;
};

// ---- Bytes on disk ------------------------------------------------------------

TEST_F(Vlimg, ScanlinePageIsLaidOutItemByItem) {
  const Bytes px = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, {.width = 3, .height = 2}, px), 0);
  EXPECT_EQ(bytes(), Hand().start().grey(3, 2).end().raw(px).b);
}

TEST_F(Vlimg, TiledPageReservesItsTableAndFillsItLast) {
  const PageLayout p{.width = 3, .height = 2, .tile_w = 2, .tile_h = 2};
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, {1, 2, 3, 4, 5, 6}), 0);
  Hand want;
  want.start().grey(3, 2).tiles(2, 2).head(25, 48, 0x0B, 2);
  const uint64_t data = want.b.size() + 48 + 14;
  // write_page writes the last tile first: tile 1 (1 x 2) then tile 0 (2 x 2).
  want.u32(2).u32(2).u64(data + 2).u32(4).u32(0);
  want.u32(1).u32(2).u64(data).u32(2).u32(0);
  want.end().raw({3, 6}).raw({1, 2, 4, 5});
  EXPECT_EQ(bytes(), want.b);
}

TEST_F(Vlimg, AppendedPageIsLinkedFromThePageBefore) {
  const PageLayout p{.width = 2, .height = 1};
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, {7, 8}), 0);
  ASSERT_EQ(write_page(path(), VLIMG_MODE_APPEND, p, {9, 10}), 0);
  const size_t first = Hand().start().grey(2, 1).end().raw({7, 8}).b.size();
  Hand want;
  want.prologue().version().item32(31, 1).next(first).grey(2, 1).end().raw({7, 8});
  // An appended page carries no new-file item.
  want.prologue().version().next(0).grey(2, 1).end().raw({9, 10});
  EXPECT_EQ(bytes(), want.b);
}

TEST_F(Vlimg, CompressedLineIsABlockWithFlagsAndLength) {
  const PageLayout p{.width = 300, .height = 1, .compression = VLIMG_COMPRESSION_PACKBITS};
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, Bytes(300, 0x55)), 0);
  Hand want;
  want.start().grey(300, 1, 8).end();
  // PackBits takes no delta filter: 300 equal bytes are three runs.
  want.u32(ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS).u32(6).raw({0x81, 0x55, 0x81, 0x55, 0xD5, 0x55});
  EXPECT_EQ(bytes(), want.b);
}

// ---- Header reading -----------------------------------------------------------

TEST_F(Vlimg, HeaderValuesSurviveARoundTrip) {
  const uint32_t w = 4, h = 1, comp = 7, type = 4, seps = 3, unit = 2, cs = 77, level = 0, pageno = 9;
  const float xres = 720.5f;
  const uint32_t bpp[3] = {8, 8, 8};
  const uint8_t icc[5] = {1, 2, 3, 4, 5};
  const VLIMG_Blob blob{icc, 5};
  const char *sepnames = "[2colour][Pantone 485|0:0,50:62,100:100]";
  const std::pair<uint32_t, const void *> fields[] = {{VLIMG_TAG_WIDTH, &w},
                                                      {VLIMG_TAG_HEIGHT, &h},
                                                      {VLIMG_TAG_COMPRESSION, &comp},
                                                      {VLIMG_TAG_NUMSEPS, &seps},
                                                      {VLIMG_TAG_IMAGETYPE, &type},
                                                      {VLIMG_TAG_BPP_ARRAY32, bpp},
                                                      {VLIMG_TAG_SEPNAMES, sepnames},
                                                      {VLIMG_TAG_XRESOLUTION, &xres},
                                                      {VLIMG_TAG_RESOLUTIONUNIT, &unit},
                                                      {VLIMG_TAG_COLOURSPACE, &cs},
                                                      {VLIMG_TAG_DESCRIPTION, "proof of page 9"},
                                                      {VLIMG_TAG_ICCPROFILE, &blob},
                                                      {VLIMG_TAG_MIPMAPLEVEL, &level},
                                                      {VLIMG_TAG_PAGENUMBER, &pageno}};
  VLIMG_File *f = VLIMG_Open(path().c_str(), VLIMG_MODE_CREATE);
  ASSERT_NE(f, nullptr);
  for (const auto &[tag, value] : fields) ASSERT_EQ(VLIMG_SetField(f, tag, value), 0) << tag;
  const Bytes line(12, 3);
  ASSERT_EQ(VLIMG_WriteScanline(f, line.data()), 0);
  ASSERT_EQ(VLIMG_Close(f), 0);

  File file(VLIMG_Open(path().c_str(), VLIMG_MODE_READ));
  ASSERT_TRUE(file);
  f = file.get();
  auto get = [&]<typename T>(uint32_t tag, T value) {
    EXPECT_EQ(VLIMG_GetField(f, tag, &value), 0) << tag;
    return value;
  };
  EXPECT_EQ(VLIMG_NumPlanes(f), 3u);
  EXPECT_EQ(get(VLIMG_TAG_COMPRESSION, 0u), 7u);
  EXPECT_EQ(get(VLIMG_TAG_RESOLUTIONUNIT, 0u), 2u);
  EXPECT_EQ(get(VLIMG_TAG_ORIENTATION, 0u), 1u);  // the default
  EXPECT_EQ(get(VLIMG_TAG_NEWFILE, 0u), 1u);
  EXPECT_EQ(get(VLIMG_TAG_PAGENUMBER, 0u), 9u);
  EXPECT_EQ(get(VLIMG_TAG_NEXTPAGE, uint64_t{1}), 0u);  // a single page ends the chain
  EXPECT_STREQ(get(VLIMG_TAG_DESCRIPTION, static_cast<const char *>(nullptr)), "proof of page 9");
  EXPECT_EQ(get(VLIMG_TAG_COLOURSPACE_F64, 0.0), 77.0);
  EXPECT_EQ(get(VLIMG_TAG_VERSION, 0.0), 6.0);
  EXPECT_EQ(get(VLIMG_TAG_XRESOLUTION, 0.0f), xres);
  EXPECT_STREQ(get(VLIMG_TAG_SEPNAMES, static_cast<const char *>(nullptr)), sepnames);
  const VLIMG_Blob got = get(VLIMG_TAG_ICCPROFILE, VLIMG_Blob{});
  ASSERT_EQ(got.length, 5u);
  EXPECT_EQ(std::memcmp(got.data, icc, 5), 0);
  uint32_t planes[3] = {};
  EXPECT_EQ(VLIMG_GetField(f, VLIMG_TAG_BPP_ARRAY32, planes), 0);
  EXPECT_EQ(planes[2], 8u);
  Bytes back(12);
  EXPECT_EQ(VLIMG_ReadScanline(f, back.data()), 0);
  EXPECT_EQ(back, line);
  {
    zt::test::LogCapture capture;
    const char *text = nullptr;
    EXPECT_EQ(VLIMG_GetField(f, VLIMG_TAG_SOFTWARE, &text), -1);
    EXPECT_TRUE(capture.contains("Tag 17 is not set"));
  }
}

// Each header breaks one rule; the reader must refuse it with its message
// (bytes of another format are refused without a word).
TEST_F(Vlimg, HostileHeadersAreRefusedWithTheirMessage) {
  const std::pair<const char *, Hand> cases[] = {
      {"width is undefined", Hand().prologue().end()},
      {"height is undefined", Hand().start().item32(1, 4).end()},
      {"compression type is undefined", Hand().start().dims(4, 4).end()},
      {"image type is undefined", Hand().start().dims(4, 4).item16(3, 1).end()},
      {"Unsupported compression mode 14 encountered",
       Hand().start().dims(4, 4).item16(3, 14).item16(5, 1).end()},
      {"Not a VL IMG file id = b0a1341", Hand().u8(0x42).u8(0x42).u32(0x0B0A1341).u32(0)},
      {"", Hand().raw({'I', 'I', 42, 0, 8, 0, 0, 0})},
      {"undefined tag encountered", Hand().start().head(0, 0, 0, 0)},
      {"Could not find numseps tag for Separated image",
       Hand().start().dims(4, 4).item16(3, 1).item16(5, 4).item32(22, 2).end()},
      {"Cannot handle imagetype 5", Hand().start().item16(5, 5)},
      {"Got bpp before colourspace", Hand().start().head(19, 2, 3, 1).u16(8)},
      {"Inconsistent number of planes. Expected 3 but got 2 instead",
       Hand().start().item16(5, 2).head(19, 4, 3, 2).u16(8).u16(8)},
      {"Failed to read bpp array", Hand().start().item16(5, 1).head(19, 4, 3, 1).u16(8).u16(8)},
      {"Saw sep definitions before numseps", Hand().start().head(21, 6, 2, 6).text("[Cyan]")},
      {"Problem parsing sep names", Hand().start().item32(22, 1).head(21, 5, 2, 5).text("[Cyan")},
      {"Problem parsing dotgain curve for specials",
       Hand().start().item32(22, 1).head(21, 12, 2, 12).text("[S|5:1,2:2] ")},
      {"below the 6 of a bare item", Hand().start().u32(40).u32(5).u16(0).u32(0)},
      {"runs past the end of the file", Hand().start().head(40, 1000, 0, 0).raw(Bytes(10, 0))},
      {"Read error while processing VLIMG header", Hand().start().grey(4, 4)},
      {"corrupted tiled image encountered", Hand().start().grey(4, 4).tiles(2, 2).end()},
      {"Corrupt tile table encountered at tile 0, tile width = 2, tile height = 1, offset = 0",
       Hand().start().grey(2, 1).one_tile(2, 0, 2).end().raw({1, 2})},
      {"Corrupt tile table encountered at tile 0, tile width = 3",
       Hand().start().grey(2, 1).one_tile(3, 90, 2).end()},
      {"the page has 2 tiles",
       Hand().start().grey(4, 1).tiles(2, 1).head(25, 24, 0x0B, 1).raw(Bytes(24, 1)).end()},
      {"overlaps the header", Hand().start().grey(2, 1).one_tile(2, 10, 2).end().raw({1, 2})},
      {"lies past the end of the file", Hand().start().grey(2, 1).one_tile(2, 244, 2).end().raw({1})},
      {"announces 40 bytes, more than it holds",
       Hand().start().grey(2, 1, 7).one_tile(2, 244, 40).end().raw(Bytes(40, 0))},
      {"Item 25 of 240000 bytes runs past the end of the file",
       Hand().start().grey(1000, 1000).tiles(10, 10).head(25, 240000, 0x0B, 10000).raw(Bytes(64, 1))},
      {"is too large",
       Hand().start().dims(~0u, ~0u).item16(3, 1).item16(5, 8).head(20, 28, 0x0B, 7).repeat32(16, 7).end()},
      {"Tiles of 1 x 1", Hand().start().grey(100000, 100000).tiles(1, 1).head(25, 0, 0x0B, 0).end()},
  };
  for (const auto &[message, hand] : cases) {
    SCOPED_TRACE(message);
    zt::test::LogCapture capture;
    EXPECT_FALSE(open_bytes(hand.b));
    if (*message == '\0')
      EXPECT_EQ(capture.count(), 0u);
    else
      EXPECT_TRUE(capture.contains(message)) << (capture.count() ? capture.lines()[0].message : "no log");
  }
}

TEST_F(Vlimg, UnknownItemsAreSkippedByTheirLength) {
  // A bare unknown item (length 6), one with a payload, and the never-written
  // tags 4, 12, 13 and 18, between the required items.
  Hand h;
  h.start().head(99, 0, 0, 0).item32(1, 2).head(4, 3, 1, 3).raw({9, 9, 9}).item32(2, 1).head(12, 0, 0, 0);
  h.item16(3, 1).head(13, 1, 0, 0).u8(1).item16(5, 1).head(18, 0, 0, 0).end().raw({5, 6});
  File f = open_bytes(h.b);
  ASSERT_TRUE(f);
  Bytes line(2);
  EXPECT_EQ(VLIMG_ReadScanline(f.get(), line.data()), 0);
  EXPECT_EQ(line, (Bytes{5, 6}));
}

TEST_F(Vlimg, DamagedDataFailsTheLineOrTileNotTheProcess) {
  // A line block announcing more than a line holds, a raw block of the
  // wrong size, unknown block flags and a deflate stream of garbage.
  const std::pair<Hand, const char *> lines[] = {
      {Hand().start().grey(4, 1, 7).end().u32(0x41).u32(9).raw(Bytes(9, 0)), "more than the line's 4"},
      {Hand().start().grey(4, 1, 7).end().u32(0).u32(3).raw(Bytes(3, 0)),
       "A raw block of 3 bytes should hold 4"},
      {Hand().start().grey(4, 1, 7).end().u32(0x41 | 0x800).u32(3).raw(Bytes(3, 0)),
       "Unknown block flags 0x841"},
      {Hand().start().grey(4, 1, 7).end().u32(0x41).u32(3).raw({1, 2, 3}), "Cannot read line 0"},
      {Hand().start().grey(4, 2).end().raw({1, 2, 3, 4, 5}), "Cannot read line 1"},
  };
  for (const auto &[hand, message] : lines) {
    SCOPED_TRACE(message);
    File f = open_bytes(hand.b);
    ASSERT_TRUE(f);
    Bytes line(4);
    zt::test::LogCapture capture;
    int32_t r = VLIMG_ReadScanline(f.get(), line.data());
    if (r == 0) r = VLIMG_ReadScanline(f.get(), line.data());
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(capture.contains(message));
  }
}

// A 2 KB file may declare a page of ten giga-pixels; opening it must not
// commit memory for the page, only for what is read.
TEST_F(Vlimg, AnnouncedSizesCostNothingUntilDataIsRead) {
  Hand h;
  h.start().dims(100000, 100000).item16(3, 7).item16(5, 3).end();
  h.raw(Bytes(2048 - h.b.size(), 0));
  put(h.b, "big.vlimg");
  const size_t before = mallinfo2().uordblks;
  File f(VLIMG_Open(path("big.vlimg").c_str(), VLIMG_MODE_READ));
  ASSERT_TRUE(f);
  EXPECT_LT(mallinfo2().uordblks - before, size_t{8} << 20);
  EXPECT_EQ(VLIMG_BytesPerLine(f.get()), 400000u);
}

// ---- Round trips ----------------------------------------------------------------

struct Layout {
  const char *name;
  PageLayout layout;
};

// Every image type, 1 to 16 bits, lines and tiles (odd tiles, a tile larger than the page).
const Layout kLayouts[] = {
    {"grey8 lines", {37, 23, 1, 1}},
    {"grey1 lines", {37, 23, 10, 1, 0, 0, {1}}},
    {"rgb8 tiles", {37, 23, 2, 3, 16, 8}},
    {"cmyk8 tiles", {37, 23, 3, 4, 16, 8}},
    {"cmyk16 lines", {37, 23, 3, 4, 0, 0, {16, 16, 16, 16}}},
    {"cmyk16 tiles", {37, 23, 3, 4, 16, 8, {16, 16, 16, 16}}},
    {"lab mixed tiles", {37, 23, 9, 3, 16, 8, {8, 16, 8}}},
    {"grey1 odd tiles", {37, 23, 10, 1, 5, 4, {1}}},
    {"sep5 tiles", {37, 23, 4, 5, 16, 8, {}, 5, "[4colour][Spot|0:0,100:90]"}},
    {"cmykogv lines", {37, 23, 8, 7}},
    {"hexa4 tiles", {37, 23, 6, 6, 7, 3, {4, 4, 4, 4, 4, 4}}},
    {"one tile bigger than page", {37, 23, 3, 4, 64, 64}},
};

constexpr uint32_t kCompressions[] = {1, 5, 7, 8, 10, 11, 13};

TEST_F(Vlimg, EveryLayoutDepthAndCodecRoundTrips) {
  setCompressDefaultAlgorithm(ZT_COMPRESS_LZ4);
  for (const Layout &l : kLayouts)
    for (uint32_t c : kCompressions) {
      SCOPED_TRACE(std::string(l.name) + " compression " + std::to_string(c));
      PageLayout p = l.layout;
      p.compression = c;
      const Bytes px = make_pixels(p, c);
      ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, px), 0);
      EXPECT_EQ(read_file_page(path()), px);
    }
  setCompressDefaultAlgorithm(0);
}

// A codec that quietly stored every block raw would pass the round trips.
TEST_F(Vlimg, CompressedPagesAreSmaller) {
  PageLayout p{.width = 512, .height = 64, .type = 3, .planes = 4, .tile_w = 128, .tile_h = 32};
  const Bytes px(512 * 4 * 64, 0x33);
  for (uint32_t c : {5u, 7u, 8u, 11u, 13u}) {
    p.compression = c;
    ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, px), 0);
    EXPECT_LT(bytes().size(), px.size() / 4) << "compression " << c;
  }
}

TEST_F(Vlimg, ScanlineBuffersByPixelAndByLine) {
  PageLayout p{.width = 9, .height = 2, .type = 2, .planes = 3, .bpp = {16, 16, 16}, .compression = 7};
  const Bytes px = make_pixels(p, 3);
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, px), 0);
  File f(VLIMG_Open(path().c_str(), VLIMG_MODE_READ));
  ASSERT_TRUE(f);
  using Sb = std::unique_ptr<ScanlineBuf, decltype([](ScanlineBuf *b) { scanlinebufFree(b); })>;
  Sb by_pixel(scanlinebufAlloc(ZT_INTERLEAVE_BY_PIXEL, 16, 3, 0, 9, 1, 0));
  Sb by_line(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 16, 3, 0, 9, 1, 0));
  ASSERT_EQ(VLIMG_ReadScanlineSB(f.get(), by_pixel.get()), 0);
  EXPECT_EQ(std::memcmp(by_pixel->data, px.data(), 54), 0);
  ASSERT_EQ(VLIMG_ReadScanlineSB(f.get(), by_line.get()), 0);
  for (uint32_t c = 0; c < 3; ++c)
    for (uint32_t x = 0; x < 9; ++x)
      EXPECT_EQ(std::memcmp(by_line->data + c * by_line->bytesPerPlaneRow + x * 2,
                            px.data() + 54 + (x * 3 + c) * 2, 2),
                0);
  // Back through the writer from the by-line buffer gives the same line.
  p.height = 1;
  VLIMG_File *w = open_writer(path("copy.vlimg"), VLIMG_MODE_CREATE, p);
  EXPECT_EQ(VLIMG_WriteScanlineSB(w, by_line.get()), 0);
  EXPECT_EQ(VLIMG_Close(w), 0);
  EXPECT_EQ(read_file_page(path("copy.vlimg")), Bytes(px.begin() + 54, px.end()));
  zt::test::LogCapture capture;
  Sb wrong(scanlinebufAlloc(ZT_INTERLEAVE_BY_PIXEL, 8, 3, 0, 9, 1, 0));
  EXPECT_EQ(VLIMG_ReadScanlineSB(f.get(), wrong.get()), -1);
  EXPECT_TRUE(capture.contains("does not match"));
}

// ---- Writer rules -------------------------------------------------------------------

TEST_F(Vlimg, WriterRefusesIncompleteHeadersAndMixedLayouts) {
  const uint32_t four = 4, one = 1, sep = 4, two = 2;
  zt::test::LogCapture capture;
  auto refused = [&](int32_t result, const std::string &message) {
    EXPECT_EQ(result, -1) << message;
    EXPECT_TRUE(capture.contains(message)) << message;
  };
  VLIMG_File *f = VLIMG_Open(path().c_str(), VLIMG_MODE_CREATE);
  Bytes line(16);
  refused(VLIMG_WriteScanline(f, line.data()), "width is undefined");
  VLIMG_SetField(f, VLIMG_TAG_WIDTH, &four);
  VLIMG_SetField(f, VLIMG_TAG_HEIGHT, &four);
  VLIMG_SetField(f, VLIMG_TAG_COMPRESSION, &one);
  refused(VLIMG_WriteScanline(f, line.data()), "image type is undefined");
  refused(VLIMG_SetField(f, VLIMG_TAG_BPP_ARRAY, &one), "Got bpp before colourspace");
  VLIMG_SetField(f, VLIMG_TAG_IMAGETYPE, &sep);
  refused(VLIMG_WriteScanline(f, line.data()), "numseps is undefined");
  VLIMG_SetField(f, VLIMG_TAG_NUMSEPS, &two);
  VLIMG_SetField(f, VLIMG_TAG_SEPNAMES, "[Cyan]");
  refused(VLIMG_WriteScanline(f, line.data()),
          "Not all separation names are defined, sepname array length = 1, numseps = 2");
  VLIMG_SetField(f, VLIMG_TAG_SEPNAMES, "[Cyan][Black]");
  EXPECT_EQ(VLIMG_WriteScanline(f, line.data()), 0);
  refused(VLIMG_WriteTile(f, 0, line.data(), 8),
          "VLIMG_WriteScanline has already been called. You can either use VLIMG_WriteTile or "
          "VLIMG_WriteScanline but not both.");
  refused(VLIMG_EnableTiling(f, 2, 2), "Cannot enable tiled mode");
  refused(VLIMG_SetField(f, VLIMG_TAG_WIDTH, &one), "Header has already been written");
  // Three lines missing: the page is not finished, and Close says so.
  refused(VLIMG_Close(f), "Page is incomplete: 1 of 4 lines written");

  f = open_writer(path(), VLIMG_MODE_CREATE, {.width = 4, .height = 4});
  VLIMG_EnableTiling(f, 2, 2);
  Bytes tile(4, 1);
  EXPECT_EQ(VLIMG_WriteTile(f, 0, tile.data(), 2), 0);
  refused(VLIMG_WriteTile(f, 0, tile.data(), 2), "Tile 0 has already been written");
  refused(VLIMG_WriteTile(f, 4, tile.data(), 2), "Tile 4 does not exist; the page has 4");
  refused(VLIMG_WriteScanline(f, tile.data()), "Page is tiled");
  refused(VLIMG_Close(f), "Page is incomplete: 1 of 4 tiles written");
}

TEST_F(Vlimg, OpenModesAndTheirMessages) {
  zt::test::LogCapture capture;
  EXPECT_EQ(VLIMG_Open(nullptr, 1), nullptr);
  EXPECT_TRUE(capture.contains("NULL filename passed"));
  EXPECT_EQ(VLIMG_Open(path().c_str(), 3), nullptr);
  EXPECT_EQ(capture.count(), 1u);
  EXPECT_EQ(VLIMG_Open(path().c_str(), 6), nullptr);
  EXPECT_TRUE(capture.contains("Unknown open mode 6"));
  EXPECT_EQ(VLIMG_Open(path("missing").c_str(), 1), nullptr);
  EXPECT_TRUE(capture.contains("Cannot open " + path("missing") + " for read"));
  EXPECT_EQ(VLIMG_Open((dir_.path() + "/no/such/dir").c_str(), 2), nullptr);
  EXPECT_TRUE(capture.contains("for write"));
}

// ---- Page chains ----------------------------------------------------------------------

TEST_F(Vlimg, AppendedPagesAreFoundByNumber) {
  std::vector<Bytes> pages;
  for (uint32_t i = 0; i < 4; ++i) {
    PageLayout p{.width = 10 + i * 7, .height = 3 + i, .type = i % 2 ? 3u : 1u, .planes = i % 2 ? 4u : 1u};
    p.compression = kCompressions[i];
    if (i == 2) p.tile_w = p.tile_h = 4;
    pages.push_back(make_pixels(p, i));
    ASSERT_EQ(write_page(path(), i == 0 ? VLIMG_MODE_CREATE : VLIMG_MODE_APPEND, p, pages.back()), 0);
  }
  File f(VLIMG_Open(path().c_str(), VLIMG_MODE_READ));
  ASSERT_TRUE(f);
  for (uint32_t i : {3u, 0u, 2u, 1u}) {
    SCOPED_TRACE(i);
    ASSERT_EQ(VLIMG_SeekToPage(f.get(), i), 0);
    Bytes back;
    EXPECT_TRUE(read_page(f.get(), &back));
    EXPECT_EQ(back, pages[i]);
    // Going back to the start of the data reads the page again.
    if (!VLIMG_IsTiled(f.get())) {
      ASSERT_EQ(VLIMG_GoToStartOfData(f.get()), 0);
      EXPECT_TRUE(read_page(f.get(), &back));
      EXPECT_EQ(back, pages[i]);
    }
  }
  {
    zt::test::LogCapture capture;
    EXPECT_EQ(VLIMG_SeekToPage(f.get(), 4), -1);
    EXPECT_TRUE(capture.contains("Cannot find page 4: the file has 4"));
    EXPECT_EQ(VLIMG_OpenAtPage(path().c_str(), 4), nullptr);
    EXPECT_TRUE(capture.contains("Cannot open " + path() + " at page 4"));
  }
  File at(VLIMG_OpenAtPage(path().c_str(), 2));
  ASSERT_TRUE(at);
  uint32_t width = 0;
  VLIMG_GetField(at.get(), VLIMG_TAG_WIDTH, &width);
  EXPECT_EQ(width, 24u);
}

TEST_F(Vlimg, LoopingChainIsRefused) {
  // Page 1's next-page item points at page 1 itself.
  const uint64_t second = Hand().start().grey(1, 1).end().u8(7).b.size();
  Hand all;
  all.prologue().version().item32(31, 1).next(second).grey(1, 1).end().u8(7);
  all.prologue().version().next(second).grey(1, 1).end().u8(8);
  put(all.b);
  File f(VLIMG_Open(path().c_str(), VLIMG_MODE_READ));
  ASSERT_TRUE(f);
  zt::test::LogCapture capture;
  EXPECT_EQ(VLIMG_SeekToPage(f.get(), 5), -1);
  EXPECT_TRUE(capture.contains("loops back"));
  EXPECT_EQ(VLIMG_Open(path().c_str(), VLIMG_MODE_APPEND), nullptr);
  EXPECT_TRUE(capture.contains("loops back"));
}

// ---- Crop ------------------------------------------------------------------------------

TEST_F(Vlimg, CropCopiesTheRectangleBitExactly) {
  for (const Layout &l : kLayouts) {
    SCOPED_TRACE(l.name);
    PageLayout p = l.layout;
    p.compression = 7;
    const Bytes px = make_pixels(p, 11);
    ASSERT_EQ(write_page(path("src.vlimg"), VLIMG_MODE_CREATE, p, px), 0);
    ASSERT_EQ(VLIMG_CropFileToFile(path("src.vlimg").c_str(), path("crop.vlimg").c_str(), 0, 3, 5, 29, 17),
              0);
    const size_t line = line_of(p, 29);
    Bytes want(line * 17, 0);
    for (uint32_t y = 0; y < 17; ++y)
      copy_bits(want.data() + y * line, 0, px.data() + (y + 5) * line_of(p, p.width), 3 * bits_of(p),
                29 * bits_of(p));
    File f(VLIMG_Open(path("crop.vlimg").c_str(), VLIMG_MODE_READ));
    ASSERT_TRUE(f);
    EXPECT_EQ(VLIMG_IsTiled(f.get()), p.tile_w ? 1 : 0);
    Bytes back;
    EXPECT_TRUE(read_page(f.get(), &back));
    EXPECT_EQ(back, want);
  }
  zt::test::LogCapture capture;
  EXPECT_EQ(VLIMG_CropFileToFile(path("src.vlimg").c_str(), path("bad.vlimg").c_str(), 0, 30, 0, 8, 1), -1);
  EXPECT_TRUE(capture.contains("Ridiculous crop values detected"));
  EXPECT_NE(access(path("bad.vlimg").c_str(), F_OK), 0);
}

// ---- Threads, growing files, full disks --------------------------------------------------

class VlimgMT : public Vlimg {};

// Tiles read by several workers straight into their places in one page (rows
// a page line apart), as an image buffer or a viewer reads them.
Bytes read_tiles_in_place(const std::string &name, const PageLayout &p) {
  File f(VLIMG_Open(name.c_str(), VLIMG_MODE_READ));
  const uint32_t line = static_cast<uint32_t>(line_of(p, p.width)), across = (p.width + p.tile_w - 1) / p.tile_w;
  const uint32_t n = f ? VLIMG_NumTiles(f.get()) : 0;
  Bytes page(size_t{line} * p.height, 0);
  std::vector<uint32_t> indices(n), strides(n, line);
  std::vector<uint8_t *> dsts(n);
  for (uint32_t i = 0; i < n; ++i) {
    indices[i] = i;
    dsts[i] = page.data() + size_t{i / across} * p.tile_h * line + line_of(p, (i % across) * p.tile_w);
  }
  EXPECT_TRUE(f && VLIMG_ReadTiles(f.get(), indices.data(), n, dsts.data(), strides.data()) == 0);
  return page;
}

TEST_F(VlimgMT, ThreadCountDoesNotChangeTheBytes) {
  // 35 tiles: with three threads several groups are coded and written while
  // the next is being filled.
  PageLayout p{.width = 300, .height = 200, .type = 3, .planes = 4, .tile_w = 64, .tile_h = 32};
  for (uint32_t c : {1u, 5u, 7u, 13u}) {
    SCOPED_TRACE(c);
    p.compression = c;
    const Bytes px = make_pixels(p, c);
    VLIMGSetupThreads(1);
    ASSERT_EQ(write_page(path("one.vlimg"), VLIMG_MODE_CREATE, p, px), 0);
    EXPECT_EQ(read_tiles_in_place(path("one.vlimg"), p), px);
    VLIMGSetupThreads(3);
    ASSERT_EQ(write_page(path("three.vlimg"), VLIMG_MODE_CREATE, p, px), 0);
    EXPECT_EQ(bytes("one.vlimg"), bytes("three.vlimg"));
    EXPECT_EQ(read_file_page(path("one.vlimg")), px);
    EXPECT_EQ(read_tiles_in_place(path("one.vlimg"), p), px);
  }
}


TEST_F(VlimgMT, ReaderFollowsAGrowingFile) {
  const PageLayout p{.width = 1000, .height = 200, .compression = 13};
  const Bytes px = make_pixels(p, 5);
  VLIMG_File *w = open_writer(path(), VLIMG_MODE_CREATE, p);
  ASSERT_EQ(VLIMG_WriteScanline(w, px.data()), 0);
  ASSERT_EQ(VLIMG_Flush(w), 0);
  std::atomic<bool> writer_ok{true};
  std::thread writer([&] {
    for (uint32_t y = 1; y < p.height; ++y) {
      if (VLIMG_WriteScanline(w, px.data() + y * 1000) != 0 || VLIMG_Flush(w) != 0) writer_ok = false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  VLIMG_File *r = VLIMG_Open(path().c_str(), VLIMG_MODE_READ_GROWING);
  ASSERT_NE(r, nullptr);
  Bytes back(px.size());
  bool ok = true;
  {
    // The reader waits 8 ms for a line that is not there; a writer held up
    // longer than that (a busy machine) makes the read fail, and the line is
    // asked for again.
    zt::test::LogCapture capture;
    for (uint32_t y = 0, tries = 0; ok && y < p.height;) {
      if (VLIMG_ReadScanline(r, back.data() + y * 1000) == 0)
        ++y;
      else
        ok = ++tries < 5000;
    }
    for (const auto &line : capture.lines())
      EXPECT_NE(line.message.find("Cannot read line"), std::string::npos);
  }
  writer.join();
  EXPECT_TRUE(ok);
  EXPECT_TRUE(writer_ok);
  EXPECT_EQ(back, px);
  EXPECT_EQ(VLIMG_Close(w), 0);
  VLIMG_Close(r);
}

TEST_F(Vlimg, GrowingReaderRetriesALineThatWasNotThereYet) {
  for (uint32_t compression : {1u, 7u}) {
    SCOPED_TRACE(compression);
    const PageLayout p{.width = 100, .height = 2, .compression = compression};
    const Bytes px = make_pixels(p, 9);
    VLIMG_File *w = open_writer(path(), VLIMG_MODE_CREATE, p);
    ASSERT_EQ(VLIMG_WriteScanline(w, px.data()), 0);
    ASSERT_EQ(VLIMG_Flush(w), 0);
    VLIMG_File *r = VLIMG_Open(path().c_str(), VLIMG_MODE_READ_GROWING);
    ASSERT_NE(r, nullptr);
    Bytes line(100);
    ASSERT_EQ(VLIMG_ReadScanline(r, line.data()), 0);
    {
      zt::test::LogCapture capture;
      EXPECT_EQ(VLIMG_ReadScanline(r, line.data()), -1);
      EXPECT_TRUE(capture.contains("Cannot read line 1"));
    }
    ASSERT_EQ(VLIMG_WriteScanline(w, px.data() + 100), 0);
    ASSERT_EQ(VLIMG_Close(w), 0);
    ASSERT_EQ(VLIMG_ReadScanline(r, line.data()), 0);
    EXPECT_EQ(line, Bytes(px.begin() + 100, px.end()));
    VLIMG_Close(r);
  }
}

// A file size limit makes the kernel cut writes short the way a full disk does.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : old_handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit limit = old_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, old_handler_);
  }

 private:
  rlimit old_{};
  sighandler_t old_handler_;
};

TEST_F(Vlimg, ShortWriteFailsAndLeavesNoPageInTheChain) {
  const PageLayout small{.width = 64, .height = 64};
  ASSERT_EQ(write_page(path(), VLIMG_MODE_CREATE, small, make_pixels(small, 1)), 0);
  const size_t first = bytes().size();
  PageLayout big{.width = 4000, .height = 100, .type = 3, .planes = 4, .tile_w = 64, .tile_h = 64};
  for (uint32_t c : {1u, 13u}) {
    SCOPED_TRACE(c);
    big.compression = c;
    int32_t r = 0;
    zt::test::LogCapture capture;
    {
      FileSizeLimit limit(first + 100000);
      r = write_page(path(), VLIMG_MODE_APPEND, big, make_pixels(big, 2));
    }
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(capture.contains("Failed to write to disk"));
    // The first page still ends the chain: the broken one is unreachable.
    File f(VLIMG_Open(path().c_str(), VLIMG_MODE_READ));
    ASSERT_TRUE(f);
    EXPECT_EQ(VLIMG_SeekToPage(f.get(), 1), -1);
    EXPECT_EQ(VLIMG_SeekToPage(f.get(), 0), 0);
  }
  // New file, scanlines: the failure reaches the writer of the lines.
  zt::test::LogCapture capture;
  FileSizeLimit limit(50000);
  big.tile_w = big.tile_h = 0;
  big.compression = 1;
  EXPECT_EQ(write_page(path("new.vlimg"), VLIMG_MODE_CREATE, big, make_pixels(big, 3)), -1);
  EXPECT_TRUE(capture.contains("Failed to write to disk"));
}

// A disk that fills while a group is being written in the background: the
// page fails at a later call or at the close, and nothing waits forever.
TEST_F(VlimgMT, WriteFailingInTheBackgroundFailsThePage) {
  PageLayout p{.width = 1000, .height = 640, .type = 3, .planes = 4, .tile_w = 64, .tile_h = 64, .compression = 13};
  const Bytes px = make_pixels(p, 9);
  VLIMGSetupThreads(3);
  zt::test::LogCapture capture;
  {
    FileSizeLimit limit(60000);
    EXPECT_EQ(write_page(path(), VLIMG_MODE_CREATE, p, px), -1);
  }
  EXPECT_TRUE(capture.contains("Failed to write to disk"));
  // A caller that goes on handing over tiles after the failure gets -1 for
  // some of them and for the close, never a crash.
  {
    FileSizeLimit limit(60000);
    VLIMG_File *f = open_writer(path("again.vlimg"), VLIMG_MODE_CREATE, p);
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(VLIMG_EnableTiling(f, p.tile_w, p.tile_h), 0);
    const uint32_t line = p.width * 4, across = (p.width + p.tile_w - 1) / p.tile_w;
    uint32_t refused = 0;
    for (uint32_t i = 0; i < VLIMG_NumTiles(f); ++i) {
      const size_t x = (i % across) * p.tile_w, y = (i / across) * p.tile_h;
      refused += VLIMG_WriteTile(f, i, px.data() + y * line + x * 4, line) != 0;
    }
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(VLIMG_Close(f), -1);
  }
  VLIMGSetupThreads(1);
}

}  // namespace
