// Scanline buffers: set-up, and copies across every depth and interleave pair
// checked against a per-sample model of the layout written here.
#include <gtest/gtest.h>
#include <zt/buf.h>
#include <zt/colourspace.h>
#include <zt/scanlinebuf.h>

#include <cstring>
#include <random>
#include <vector>

#include "support/simd_levels.h"
#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct BufDeleter {
  void operator()(ScanlineBuf *b) const { scanlinebufFree(b); }
};
using BufPtr = std::unique_ptr<ScanlineBuf, BufDeleter>;

BufPtr make(uint32_t il, uint32_t bits, uint32_t ch, uint32_t w, uint32_t lines, uint32_t flags = 0) {
  return BufPtr(scanlinebufAlloc(il, bits, ch, 0, w, lines, flags));
}

// The model: where sample (x, c) of line y lives, by the record's layout.
uint32_t get(const ScanlineBuf *b, uint32_t y, uint32_t x, uint32_t c) {
  const uint8_t *row = b->data + size_t{y} * b->bytesPerLine;
  if (b->bitsPerPixel == 1) {
    const uint8_t *p = b->interleave ? row + size_t{c} * b->bytesPerPlaneRow : row;
    const size_t bit = b->interleave ? x : size_t{x} * b->channels + c;
    return (p[bit / 8] >> (7 - bit % 8)) & 1u;
  }
  const size_t index = b->interleave ? size_t{c} * b->width + x : size_t{x} * b->channels + c;
  if (b->bitsPerPixel == 8) return row[index];
  uint16_t v;
  std::memcpy(&v, row + 2 * index, 2);
  return v;
}

// Depth changes: 1 bit to full scale, 8 to 16 by 257, 16 to 8 rounded.
uint32_t convert(uint32_t v, uint32_t from, uint32_t to) {
  if (from == to) return v;
  if (from == 1) return v ? (to == 8 ? 255u : 65535u) : 0u;
  if (from == 8) return v * 257u;
  return static_cast<uint32_t>(v * 255.0 / 65535.0 + 0.5);
}

void randomise(ScanlineBuf *b, std::mt19937 &rng) {
  for (size_t i = 0; i < size_t{b->bytesPerLine} * b->lines; ++i) b->data[i] = static_cast<uint8_t>(rng());
}

// Every sample of dst, inside and outside the rectangle, against the model.
void expect_copied(const ScanlineBuf *before, const ScanlineBuf *dst, const ScanlineBuf *src, uint32_t sx,
                   uint32_t sy, uint32_t w, uint32_t h, uint32_t dx, uint32_t dy) {
  for (uint32_t y = 0; y < dst->lines; ++y)
    for (uint32_t x = 0; x < dst->width; ++x)
      for (uint32_t c = 0; c < dst->channels; ++c) {
        const bool inside = x >= dx && x < dx + w && y >= dy && y < dy + h;
        const uint32_t want =
            inside ? convert(get(src, sy + y - dy, sx + x - dx, c), src->bitsPerPixel, dst->bitsPerPixel)
                   : get(before, y, x, c);
        ASSERT_EQ(get(dst, y, x, c), want) << "line " << y << " pixel " << x << " channel " << c;
      }
}

class ScanlinebufCopyTest : public zt::test::LibraryTest, public testing::WithParamInterface<int32_t> {
 protected:
  zt::test::SimdLevelScope level_{GetParam()};
};

TEST_P(ScanlinebufCopyTest, EveryDepthAndInterleavePairMatchesModel) {
  std::mt19937 rng(7);
  const uint32_t depths[] = {1, 8, 16};
  for (uint32_t width : {13u, 37u, 77u})
    for (uint32_t ch : {1u, 3u, 4u})
      for (uint32_t flags : {0u, ZT_SLB_ALIGNED, ZT_SLB_PAD32})
        for (uint32_t sb : depths)
          for (uint32_t db : depths)
            for (uint32_t sil = 0; sil < 2; ++sil)
              for (uint32_t dil = 0; dil < 2; ++dil) {
                SCOPED_TRACE(testing::Message() << "w" << width << " ch" << ch << " " << sb << "->" << db
                                                << " il " << sil << "->" << dil << " flags " << flags);
                // Inside, at the right and bottom edges, and from a byte
                // boundary of a 1-bit row.
                const uint32_t rects[][6] = {
                    {3, 1, width - 5, 3, 2, 1}, {5, 2, width - 5, 3, 5, 1}, {8, 0, width - 8, 2, 0, 2}};
                for (const auto &r : rects) {
                  BufPtr src = make(sil, sb, ch, width, 5, flags);
                  BufPtr dst = make(dil, db, ch, width, 4, flags);
                  BufPtr before = make(dil, db, ch, width, 4);
                  ASSERT_TRUE(src && dst && before);
                  randomise(src.get(), rng);
                  randomise(dst.get(), rng);
                  std::memcpy(before->data, dst->data, size_t{dst->bytesPerLine} * dst->lines);
                  const int32_t rc =
                      scanlinebufCopyRect(dst.get(), src.get(), r[0], r[1], r[2], r[3], r[4], r[5]);
                  // No narrowing to 1 bit, no interleave change at 1 bit.
                  if ((sb != db && db == 1) || (sil != dil && (sb == 1 || db == 1))) {
                    EXPECT_EQ(rc, -1);
                    EXPECT_EQ(log_.count(), 1u);
                    log_.clear();
                    continue;
                  }
                  ASSERT_EQ(rc, 0);
                  expect_copied(before.get(), dst.get(), src.get(), r[0], r[1], r[2], r[3], r[4], r[5]);
                }
              }
}

TEST_P(ScanlinebufCopyTest, WholeCopyConvertsInterleaveAndDepth) {
  std::mt19937 rng(11);
  for (uint32_t ch : {2u, 3u, 4u, 5u})
    for (uint32_t sb : {8u, 16u})
      for (uint32_t db : {8u, 16u}) {
        BufPtr src = make(ZT_INTERLEAVE_BY_LINE, sb, ch, 41, 3);
        BufPtr dst = make(ZT_INTERLEAVE_BY_PIXEL, db, ch, 41, 3);
        BufPtr back = make(ZT_INTERLEAVE_BY_LINE, sb, ch, 41, 3);
        randomise(src.get(), rng);
        ASSERT_EQ(scanlinebufCopy(dst.get(), src.get()), 0);
        expect_copied(dst.get(), dst.get(), src.get(), 0, 0, 41, 3, 0, 0);
        if (sb == db) {
          ASSERT_EQ(scanlinebufCopy(back.get(), dst.get()), 0);
          EXPECT_EQ(std::memcmp(back->data, src->data, size_t{src->bytesPerLine} * 3), 0);
        }
      }
}

// Four 16-bit planes into 8-bit pixels convert and interleave in one pass:
// every 16-bit value must land where the model puts it, in a rectangle whose
// width is no multiple of the vector block, at an offset on both sides.
TEST_P(ScanlinebufCopyTest, EverySixteenBitValueIntoBytePixels) {
  const uint32_t width = 16400;
  BufPtr src = make(ZT_INTERLEAVE_BY_LINE, 16, 4, width, 2);
  BufPtr dst = make(ZT_INTERLEAVE_BY_PIXEL, 8, 4, width, 2);
  BufPtr before = make(ZT_INTERLEAVE_BY_PIXEL, 8, 4, width, 2);
  ASSERT_TRUE(src && dst && before);
  auto *samples = reinterpret_cast<uint16_t *>(src->data);
  for (uint32_t i = 0; i < 2 * 4 * width; ++i) samples[i] = static_cast<uint16_t>(i * 4 + i / width * 13);
  std::memcpy(before->data, dst->data, size_t{dst->bytesPerLine} * dst->lines);
  ASSERT_EQ(scanlinebufCopyRect(dst.get(), src.get(), 3, 0, width - 9, 2, 5, 0), 0);
  expect_copied(before.get(), dst.get(), src.get(), 3, 0, width - 9, 2, 5, 0);
}

INSTANTIATE_TEST_SUITE_P(Levels, ScanlinebufCopyTest, testing::ValuesIn(zt::test::simd_levels()),
                         zt::test::simd_level_name);

class ScanlinebufTest : public zt::test::LibraryTest {};

TEST_F(ScanlinebufTest, SetupShapesAndFlags) {
  BufPtr one = make(ZT_INTERLEAVE_BY_LINE, 1, 3, 13, 0);
  ASSERT_TRUE(one);
  EXPECT_EQ(one->lines, 1u);
  EXPECT_EQ(one->bytesPerPlaneRow, 2u);
  EXPECT_EQ(one->bytesPerLine, 6u);
  EXPECT_EQ(one->flags, ZT_SLB_OWNED);

  BufPtr aligned = make(ZT_INTERLEAVE_BY_PIXEL, 16, 2, 7, 3, ZT_SLB_ALIGNED | ZT_SLB_FILL);
  ASSERT_TRUE(aligned);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned->data) % 16, 0u);
  EXPECT_EQ(aligned->bytesPerLine, 28u);
  // The whole allocation, padding included, takes the fill value.
  for (size_t i = 0; i < 3 * 2 * 32; ++i) ASSERT_EQ(aligned->data[i], 0);

  // A record set up by its owner is not released by scanlinebufFree.
  ScanlineBuf local{};
  std::vector<uint8_t> pixels(10, 0xAB);
  local.data = pixels.data();
  ASSERT_EQ(scanlinebufSetup(&local, 0, 8, 1, 0, 10, 1, 0), 0);
  scanlinebufFree(&local);
  EXPECT_EQ(local.data, pixels.data());
  EXPECT_EQ(pixels[0], 0xAB);
}

TEST_F(ScanlinebufTest, RefusalsLogOneLineEach) {
  ScanlineBuf rec{};
  EXPECT_EQ(scanlinebufSetup(&rec, 0, 4, 1, 0, 10, 1, 0), -1);
  expect_one_log("Unsupported bitsperpixel of 4");
  EXPECT_EQ(scanlinebufAlloc(0, 12, 1, 0, 10, 1, 0), nullptr);
  expect_one_log("Unsupported bitsperpixel of 12");
  std::vector<uint8_t> pixels(10);
  rec.data = pixels.data();
  EXPECT_EQ(scanlinebufSetup(&rec, 0, 8, 1, 0, 10, 1, ZT_SLB_ALLOCATE), -1);
  expect_one_log("Attempted to allocate memory on a non allocated scanlinebuf");
  EXPECT_EQ(scanlinebufSetColourspace(&rec, ZT_CS_RGB), -1);
  expect_one_log("scanlinebufSetBackgroundColour", "");

  BufPtr a = make(0, 8, 3, 10, 2), b = make(0, 8, 3, 11, 2), c = make(0, 8, 4, 10, 2),
         d = make(0, 8, 3, 10, 3);
  BufPtr e = make(0, 16, 3, 10, 2), f = make(0, 8, 3, 10, 2);
  EXPECT_EQ(scanlinebufCopy(a.get(), b.get()), -1);
  expect_one_log("The 2 scanline buffers have different widths 10 and 11");
  EXPECT_EQ(scanlinebufCopy(a.get(), c.get()), -1);
  expect_one_log("The 2 scanline buffers have different number of planes 3 and 4");
  EXPECT_EQ(scanlinebufCopy(a.get(), d.get()), -1);
  expect_one_log("The 2 scanline buffers contain different number of scanlines in them 2 and 3");
  EXPECT_EQ(scanlinebufNegativeTo(a.get(), e.get()), -1);
  expect_one_log("The two scanlines have different bits per pixel of 8 and 16");
  EXPECT_EQ(scanlinebufCopy(a.get(), a.get()), 0);
  EXPECT_EQ(scanlinebufCopyRect(a.get(), f.get(), 5, 0, 6, 1, 0, 0), -1);
  expect_one_log("Bad src parameters, 5, 0, 6 x 1 for a scanlineBuf of size 10 x 2");
  EXPECT_EQ(scanlinebufCopyRect(a.get(), f.get(), 0, 0, 4, 2, 7, 1), -1);
  expect_one_log("Bad dst parameters, 7, 1, 4 x 2 for a scanlineBuf of size 10 x 2");
  EXPECT_EQ(scanlinebufCopyRect(a.get(), f.get(), 0, 0, 0, 2, 0, 0), 0);

  // A 1-bit row of 13 pixels takes rectangles up to x = 16.
  BufPtr bits = make(1, 1, 1, 13, 1), bits2 = make(1, 1, 1, 13, 1);
  EXPECT_EQ(scanlinebufCopyRect(bits.get(), bits2.get(), 8, 0, 8, 1, 0, 0), 0);

  a->interleave = 2;
  EXPECT_EQ(scanlinebufCopy(a.get(), f.get()), -1);
  expect_one_log("Unsupported interleave of 2");
  EXPECT_EQ(scanlinebufMirror(a.get()), -1);
  expect_one_log("Unsupported interleave of 2");
}

// Paper white per colour space: Lab is L full and a, b at their middle.
TEST_F(ScanlinebufTest, ColourspaceFillAndClear) {
  BufPtr lab = make(ZT_INTERLEAVE_BY_PIXEL, 16, 3, 5, 2);
  ASSERT_EQ(scanlinebufSetColourspace(lab.get(), ZT_CS_LAB), 0);
  EXPECT_EQ(lab->fill, 128u);
  ASSERT_EQ(scanlinebufClear(lab.get()), 0);
  for (uint32_t x = 0; x < 5; ++x) {
    EXPECT_EQ(get(lab.get(), 1, x, 0), 65535u);
    EXPECT_EQ(get(lab.get(), 1, x, 1), 32896u);
    EXPECT_EQ(get(lab.get(), 1, x, 2), 32896u);
  }
  BufPtr rgb = make(ZT_INTERLEAVE_BY_LINE, 8, 3, 5, 2);
  ASSERT_EQ(scanlinebufSetColourspace(rgb.get(), ZT_CS_RGB), 0);
  ASSERT_EQ(scanlinebufClear(rgb.get()), 0);
  for (size_t i = 0; i < 30; ++i) ASSERT_EQ(rgb->data[i], 255);
  ASSERT_EQ(scanlinebufSetColourspace(rgb.get(), ZT_CS_CMYK), 0);
  ASSERT_EQ(scanlinebufClearRect(rgb.get(), 1, 1, 2, 1), 0);
  for (uint32_t x = 0; x < 5; ++x) EXPECT_EQ(get(rgb.get(), 1, x, 2), (x == 1 || x == 2) ? 0u : 255u);
  EXPECT_EQ(get(rgb.get(), 0, 1, 2), 255u);

  // Fill: 16-bit colours narrowed through the table; by pixel is a no-op.
  const uint16_t colour[3] = {128, 129, 65535};
  ASSERT_EQ(scanlinebufFillRect(rgb.get(), 0, 0, 5, 1, colour), 0);
  EXPECT_EQ(get(rgb.get(), 0, 4, 0), 0u);
  EXPECT_EQ(get(rgb.get(), 0, 4, 1), 1u);
  EXPECT_EQ(get(rgb.get(), 0, 4, 2), 255u);
  const uint8_t snapshot = lab->data[0];
  EXPECT_EQ(scanlinebufFillRect(lab.get(), 0, 0, 5, 1, colour), 0);
  EXPECT_EQ(lab->data[0], snapshot);
  expect_one_log("scanlinebufFillRectInterleavedByPixel", "");
  EXPECT_EQ(scanlinebufFillRect(rgb.get(), 4, 0, 2, 1, colour), -1);
  expect_no_log();
}

TEST_F(ScanlinebufTest, MirrorNegativeAndPlainArrays) {
  std::mt19937 rng(3);
  for (uint32_t bits : {1u, 8u, 16u})
    for (uint32_t il = 0; il < 2; ++il) {
      BufPtr a = make(il, bits, 3, 11, 2), m = make(il, bits, 3, 11, 2);
      randomise(a.get(), rng);
      ASSERT_EQ(scanlinebufMirrorTo(m.get(), a.get()), 0);
      for (uint32_t y = 0; y < 2; ++y)
        for (uint32_t x = 0; x < 11; ++x)
          for (uint32_t c = 0; c < 3; ++c) ASSERT_EQ(get(m.get(), y, x, c), get(a.get(), y, 10 - x, c));
      ASSERT_EQ(scanlinebufNegativeTo(m.get(), a.get()), 0);
      const uint32_t full = bits == 1 ? 1u : bits == 8 ? 255u : 65535u;
      for (uint32_t x = 0; x < 11; ++x) ASSERT_EQ(get(m.get(), 1, x, 2), full - get(a.get(), 1, x, 2));
    }
  // Out to 16-bit samples and back in to an 8-bit buffer.
  BufPtr a = make(ZT_INTERLEAVE_BY_LINE, 8, 2, 9, 2), b = make(ZT_INTERLEAVE_BY_LINE, 8, 2, 9, 2);
  randomise(a.get(), rng);
  std::vector<uint16_t> wide(36);
  ASSERT_EQ(scanlinebufCopyTo16bit(a.get(), wide.data()), 0);
  EXPECT_EQ(wide[20], a->data[20] * 257u);
  ASSERT_EQ(scanlinebufCopyFrom16bit(b.get(), wide.data()), 0);
  EXPECT_EQ(std::memcmp(a->data, b->data, 36), 0);
  BufPtr one = make(ZT_INTERLEAVE_BY_LINE, 1, 1, 9, 1);
  EXPECT_EQ(scanlinebufCopyFrom16bit(one.get(), wide.data()), -1);
  expect_one_log("Do not know how to convert between 16 and 1 bits per pixel");
}

// Shapes whose size does not fit are refused before anything is allocated: a
// stride past 32 bits, and a whole buffer whose padded rows times channels
// times lines wraps (2^29 channels of aligned 32-byte rows over 2^30 lines is
// 2^64 bytes, which wrapped to a 16-byte block that claimed to hold it all).
TEST_F(ScanlinebufTest, SizesThatDoNotFitAreRefused) {
  struct Case {
    uint32_t bits, channels, width, lines, flags;
    const char *shape;
  };
  const Case cases[] = {
      {16, 1, 0x80000000u, 1, 0, "2147483648x1x1@16bpp"},
      {8, 4, 0x40000000u, 1, 0, "1073741824x1x4@8bpp"},
      {8, 1u << 29, 1, 1u << 30, ZT_SLB_ALIGNED, "1x1073741824x536870912@8bpp"},
      {8, 1u << 16, 0xFFFF, 0xFFFFFFFFu, ZT_SLB_PAD32, "65535x4294967295x65536@8bpp"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, c.bits, c.channels, 0, c.width, c.lines, c.flags),
              nullptr);
    expect_one_log("scanlinebufSetup", std::string("Cannot allocate memory for scanlinebuf of ") + c.shape);
  }
}

// Widths 0 and 1 through every copy path: nothing is touched at 0, the one
// pixel arrives at 1, across depth and interleave changes.
TEST_F(ScanlinebufTest, CopiesAtWidthsZeroAndOne) {
  std::mt19937 rng(11);
  for (uint32_t sil : {ZT_INTERLEAVE_BY_PIXEL, ZT_INTERLEAVE_BY_LINE})
    for (uint32_t dil : {ZT_INTERLEAVE_BY_PIXEL, ZT_INTERLEAVE_BY_LINE})
      for (uint32_t sbits : {8u, 16u})
        for (uint32_t dbits : {8u, 16u}) {
          SCOPED_TRACE(::testing::Message() << sil << dil << " " << sbits << "->" << dbits);
          BufPtr s0 = make(sil, sbits, 3, 0, 2), d0 = make(dil, dbits, 3, 0, 2);
          ASSERT_TRUE(s0 && d0);
          EXPECT_EQ(scanlinebufCopy(d0.get(), s0.get()), 0);
          BufPtr s1 = make(sil, sbits, 3, 1, 2), d1 = make(dil, dbits, 3, 1, 2);
          ASSERT_TRUE(s1 && d1);
          randomise(s1.get(), rng);
          randomise(d1.get(), rng);
          ASSERT_EQ(scanlinebufCopy(d1.get(), s1.get()), 0);
          expect_copied(d1.get(), d1.get(), s1.get(), 0, 0, 1, 2, 0, 0);
        }
}

// A duplicate has the shape and flags of its original and memory of its own.
TEST_F(ScanlinebufTest, DuplicateIsTheSameShapeWithItsOwnMemory) {
  BufPtr a(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 16, 3, 7, 9, 4, ZT_SLB_ALIGNED | ZT_SLB_FILL));
  ASSERT_TRUE(a);
  const uint16_t colour[3] = {1, 2, 3};
  ASSERT_EQ(scanlinebufFillRect(a.get(), 0, 0, 9, 4, colour), 0);
  BufPtr b(scanlinebufDuplicate(a.get()));
  ASSERT_TRUE(b);
  EXPECT_NE(b->data, a->data);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b->data) % 16, 0u);
  for (auto field :
       {&ScanlineBuf::interleave, &ScanlineBuf::bitsPerPixel, &ScanlineBuf::channels, &ScanlineBuf::fill,
        &ScanlineBuf::width, &ScanlineBuf::lines, &ScanlineBuf::bytesPerLine, &ScanlineBuf::flags})
    EXPECT_EQ((*b).*field, (*a).*field);
  // Filled anew, not copied: the original's pixels stay its own.
  EXPECT_EQ(get(b.get(), 3, 8, 2), 0x0707u);
  ASSERT_EQ(scanlinebufClear(b.get()), 0);
  EXPECT_EQ(get(a.get(), 3, 8, 2), 3u);
  EXPECT_EQ(scanlinebufDuplicate(nullptr), nullptr);
}

// Out to a plain 8-bit array: 16-bit samples by the rounding rule
// floor(v * 255 / 65535 + 0.5), 1-bit samples to full scale, 8-bit as stored.
TEST_F(ScanlinebufTest, CopyTo8bitFromEveryDepth) {
  const uint16_t samples[] = {0, 128, 129, 32767, 32768, 65406, 65407, 65535};
  BufPtr deep = make(ZT_INTERLEAVE_BY_PIXEL, 16, 1, 8, 1);
  ASSERT_TRUE(deep);
  std::memcpy(deep->data, samples, sizeof samples);
  uint8_t out[8];
  ASSERT_EQ(scanlinebufCopyTo8bit(deep.get(), out), 0);
  EXPECT_EQ(Bytes(out, out + 8), (Bytes{0, 0, 1, 127, 128, 254, 255, 255}));

  BufPtr bits = make(ZT_INTERLEAVE_BY_LINE, 1, 1, 8, 1);
  ASSERT_TRUE(bits);
  bits->data[0] = 0xA5;
  ASSERT_EQ(scanlinebufCopyTo8bit(bits.get(), out), 0);
  EXPECT_EQ(Bytes(out, out + 8), (Bytes{255, 0, 255, 0, 0, 255, 0, 255}));

  BufPtr plain = make(ZT_INTERLEAVE_BY_LINE, 8, 2, 4, 1);
  ASSERT_TRUE(plain);
  for (uint8_t i = 0; i < 8; ++i) plain->data[i] = static_cast<uint8_t>(i * 31);
  ASSERT_EQ(scanlinebufCopyTo8bit(plain.get(), out), 0);
  EXPECT_EQ(std::memcmp(out, plain->data, 8), 0);
  EXPECT_EQ(scanlinebufCopyTo8bit(nullptr, out), -1);
}

}  // namespace
