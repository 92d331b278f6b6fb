#include <gtest/gtest.h>
#include <zt/compress.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "compress_data.h"
#include "support/tiff_memory.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zt::test::Guarded;

class Group4 : public zt::test::CodecTest {};

// A 1-bit page, rows packed most significant bit first, set = black.
struct Page {
  Page(uint32_t w, uint32_t h) : width(w), height(h), bits(stride() * h, 0) {}
  uint32_t width, height;
  Bytes bits;
  size_t stride() const { return (width + 7) / 8; }
  void set(uint32_t x, uint32_t y) { bits[y * stride() + x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8)); }
  void fill(uint32_t from, uint32_t to, uint32_t y) {
    for (uint32_t x = from; x < std::min(to, width); ++x) set(x, y);
  }
};

// Rows that bring every mode into play: white, black, noise, random runs,
// the same runs shifted by 1 and by 5 pixels (vertical and horizontal modes),
// some of them dropped (pass mode), long runs, and one black run.
Page mixed_page(uint32_t width, uint32_t seed) {
  Page p(width, 9);
  std::mt19937 rng(seed);
  p.fill(0, width, 1);
  for (uint32_t x = 0; x < width; ++x)
    if (rng() & 1) p.set(x, 2);
  std::vector<std::pair<uint32_t, uint32_t>> runs;
  for (uint32_t x = rng() % 8; x < width;) {
    const uint32_t len = 1 + rng() % 40;
    runs.emplace_back(x, x + len);
    x += len + 1 + rng() % 40;
  }
  for (size_t i = 0; i < runs.size(); ++i) {
    p.fill(runs[i].first, runs[i].second, 3);
    p.fill(runs[i].first + 1, runs[i].second + 1, 4);
    p.fill(runs[i].first + 5, runs[i].second + 4, 5);
    if (i % 3 != 0) p.fill(runs[i].first, runs[i].second, 6);
  }
  for (uint32_t x = 0; x < width;) {
    const uint32_t len = 1 + rng() % (width / 2 + 1);
    if (rng() & 1) p.fill(x, x + len, 7);
    x += len;
  }
  p.fill(width / 3, 2 * width / 3 + 1, 8);
  return p;
}

Bytes encode(const Page &p, uint32_t chunk_rows = UINT32_MAX) {
  ZT_CCITG4Encoder *enc = CCITG4Create(p.width);
  EXPECT_NE(enc, nullptr);
  Bytes out;
  Bytes buf(p.bits.size() * 2 + 64);
  for (uint32_t row = 0; row < p.height;) {
    const uint32_t rows = std::min(chunk_rows, p.height - row);
    uint32_t got = 0;
    EXPECT_EQ(CCITG4Compress(enc, p.bits.data() + row * p.stride(), rows, static_cast<uint32_t>(p.stride()),
                             buf.data(), static_cast<uint32_t>(buf.size()), &got),
              0);
    out.insert(out.end(), buf.begin(), buf.begin() + got);
    row += rows;
  }
  uint32_t got = 0;
  EXPECT_EQ(CCITG4Close(enc, buf.data(), static_cast<uint32_t>(buf.size()), &got), 0);
  out.insert(out.end(), buf.begin(), buf.begin() + got);
  return out;
}

// Decodes a whole page, the stream fed `chunk` bytes at a time.
Bytes decode(const Bytes &stream, uint32_t width, uint32_t height, size_t chunk = SIZE_MAX) {
  ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(width, height);
  EXPECT_NE(dec, nullptr);
  const size_t stride = (width + 7) / 8;
  Bytes page(stride * height, 0xEE);
  uint32_t rows = 0;
  for (size_t pos = 0; pos < stream.size();) {
    const size_t n = std::min(chunk, stream.size() - pos);
    EXPECT_EQ(CCITG4DeCompress(dec, stream.data() + pos, static_cast<uint32_t>(n), page.data(),
                               static_cast<uint32_t>(stride), &rows),
              0);
    pos += n;
  }
  EXPECT_EQ(rows, height);
  EXPECT_EQ(CCITG4DecompressClose(dec), 0);
  return page;
}

TEST_F(Group4, RoundTripsPagesAndPieces) {
  for (uint32_t width : {1u, 2u, 7u, 8u, 9u, 63u, 64u, 65u, 1728u, 2561u}) {
    SCOPED_TRACE(width);
    const Page p = mixed_page(width, width);
    const Bytes stream = encode(p);
    EXPECT_EQ(encode(p, 1), stream);
    EXPECT_EQ(decode(stream, width, p.height), p.bits);
  }
}

// The stream fed in pieces of 1, 7 and 4,096 bytes gives the same rows.
TEST_F(Group4, StreamingDecoderIsSplitIndependent) {
  Page p(1728, 117);
  for (uint32_t block = 0; block < 13; ++block) {
    const Page m = mixed_page(1728, block + 3);
    std::copy(m.bits.begin(), m.bits.end(), p.bits.begin() + static_cast<ptrdiff_t>(block * m.bits.size()));
  }
  const Bytes stream = encode(p);
  for (size_t chunk : {size_t{1}, size_t{7}, size_t{4096}})
    EXPECT_EQ(decode(stream, 1728, 117, chunk), p.bits) << chunk;
}

// Bits past the width are not pixels: garbage there changes nothing, and the
// decoder writes zeros there.
TEST_F(Group4, IgnoresBitsPastTheWidth) {
  const Page clean = mixed_page(13, 5);
  Page dirty = clean;
  for (uint32_t y = 0; y < dirty.height; ++y) dirty.bits[y * dirty.stride() + 1] |= 0x07;
  const Bytes stream = encode(clean);
  EXPECT_EQ(encode(dirty), stream);
  EXPECT_EQ(decode(stream, 13, clean.height), clean.bits);
}

TEST_F(Group4, EncoderStopsAtItsCapacity) {
  const Page p = mixed_page(800, 1);
  ZT_CCITG4Encoder *enc = CCITG4Create(800);
  Guarded dst(40);
  uint32_t got = 0;
  EXPECT_EQ(CCITG4Compress(enc, p.bits.data(), p.height, 100, dst.data(), 40, &got), -1);
  EXPECT_TRUE(dst.intact());
  EXPECT_EQ(CCITG4Compress(enc, p.bits.data(), 1, 100, dst.data(), 40, &got), -1);
  expect_one_log("CCITG4Compress", "close it");
  EXPECT_EQ(CCITG4Close(enc, dst.data(), 40, &got), -1);
  EXPECT_TRUE(dst.intact());
  // The end alone needs 3 bytes plus what is pending.
  enc = CCITG4Create(8);
  Guarded two(2);
  EXPECT_EQ(CCITG4Close(enc, two.data(), 2, &got), -1);
  EXPECT_TRUE(two.intact());
  EXPECT_EQ(CCITG4Close(nullptr, nullptr, 0, nullptr), 0);
  EXPECT_EQ(CCITG4Close(CCITG4Create(8), nullptr, 0, nullptr), 0);
}

// Feeds `stream` to a `width` x `height` decoder; its result and Close's.
std::pair<int32_t, int32_t> feed(const Bytes &stream, uint32_t width, uint32_t height) {
  ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(width, height);
  Bytes page(((width + 7) / 8) * height);
  uint32_t rows = 0;
  const int32_t r = CCITG4DeCompress(dec, stream.data(), static_cast<uint32_t>(stream.size()), page.data(),
                                     (width + 7) / 8, &rows);
  return {r, CCITG4DecompressClose(dec)};
}

TEST_F(Group4, DecoderRefusesBadStreams) {
  // Cut short: fine so far, but the page is incomplete at the close.
  const Page p = mixed_page(300, 2);
  Bytes stream = encode(p);
  stream.resize(stream.size() - 12);
  EXPECT_EQ(feed(stream, 300, p.height), std::make_pair(0, -1));
  expect_one_log("CCITG4DecompressClose", "Group 4 data end after");

  // EOFB after 9 rows of a page of 12.
  EXPECT_EQ(feed(encode(p), 300, 12), std::make_pair(-1, -1));
  expect_one_log("CCITG4DeCompress", "Group 4 data end after 9 of 12 rows");

  struct Case {
    Bytes stream;
    const char *message;
  };
  const Case cases[] = {
      {{0x00, 0x00, 0x00}, "Invalid Group 4 code"},
      {{0x02, 0x00}, "extension codes"},
      {{0x06}, "vertical mode outside the row"},        // VR3 off the end of 8 pixels
      {{0x3B, 0x40}, "run beyond the end of the row"},  // H, white make-up 64
      {{0x10}, "pass mode beyond the end of the row"},  // P over an empty line
      {{0x00, 0x10, 0x00, 0x00}, "Invalid Group 4 code after EOL"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(feed(c.stream, 8, 4), std::make_pair(-1, -1));
    expect_one_log("CCITG4DeCompress", c.message);
  }

  EXPECT_EQ(CCITG4DecompressCreate(0, 5), nullptr);
  expect_one_log("CCITG4DecompressCreate", "0 x 5");
  EXPECT_EQ(CCITG4Create(0), nullptr);
  expect_one_log("CCITG4Create", "0 pixels");
  EXPECT_EQ(CCITG4DecompressClose(nullptr), 0);
}

#ifdef ZT_HAVE_TIFF
// libtiff decodes our stream to the page, its own stream of the page is ours
// bit for bit, and we decode it to the page.
void expect_agreement(const Page &p) {
  zt::test::TiffImage img;
  img.width = p.width;
  img.height = p.height;
  img.bits = 1;
  img.compression = COMPRESSION_CCITTFAX4;
  const Bytes ours = encode(p);
  auto wrapped = zt::test::tiff_from_raw_strip(img, ours);
  EXPECT_EQ(zt::test::tiff_decode(wrapped, img), p.bits);
  auto theirs = zt::test::tiff_encode(img, p.bits);
  const Bytes raw = zt::test::tiff_raw_strip(theirs);
  EXPECT_EQ(raw, ours);
  EXPECT_EQ(decode(raw, p.width, p.height), p.bits);
}

TEST_F(Group4, AgreesWithLibtiffAtEveryWidthTo4097) {
  TIFFSetWarningHandler(nullptr);
  for (uint32_t width = 1; width <= 4097; ++width) {
    SCOPED_TRACE(width);
    expect_agreement(mixed_page(width, width));
    if (HasFailure()) break;
  }
}

// One white and one black run per row, both orders, so that every make-up
// and extended make-up code of both colours appears (the mixed pages above
// bring every terminating code).
TEST_F(Group4, AgreesWithLibtiffOnEveryRunCode) {
  TIFFSetWarningHandler(nullptr);
  const uint32_t width = 5200;
  Page p(width, 2 * 82);
  for (uint32_t k = 0; k < 82; ++k) {
    const uint32_t run = std::min(width, 64 * k + (k * 37) % 64);
    p.fill(run, width, 2 * k);          // white run, then black
    p.fill(0, width - run, 2 * k + 1);  // black run, then white
  }
  expect_agreement(p);
}
#endif

}  // namespace
