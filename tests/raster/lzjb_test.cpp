#include <gtest/gtest.h>
#include <zt/compress.h>

#include <cstdint>
#include <vector>

#include "compress_data.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zt::test::Guarded;
using zt::test::Kind;

class Lzjb : public zt::test::CodecTest {};

Bytes decode(const Bytes &stream, size_t capacity) {
  Bytes out(capacity);
  const uint32_t n = lzjb_decompress(stream.data(), out.data(), static_cast<uint32_t>(stream.size()),
                                     static_cast<uint32_t>(capacity));
  EXPECT_NE(n, ZT_COMPRESS_ERROR);
  out.resize(n == ZT_COMPRESS_ERROR ? 0 : n);
  return out;
}

// The published layout: a copy-map byte, literals, and a copy of 3 + top six
// bits bytes from the low ten bits back.
TEST_F(Lzjb, ReadsThePublishedLayout) {
  const Bytes stream = {0x08, 'a', 'b', 'c', (6 - 3) << 2, 3, 'd'};
  EXPECT_EQ(decode(stream, 64), (Bytes{'a', 'b', 'c', 'a', 'b', 'c', 'a', 'b', 'c', 'd'}));
  // A copy may overlap what it produces: one byte back repeats it.
  const Bytes run = {0x02, 'x', (10 - 3) << 2, 1};
  EXPECT_EQ(decode(run, 64), Bytes(11, 'x'));
}

TEST_F(Lzjb, RoundTripsEveryKindAndLength) {
  for (Kind kind : zt::test::kKinds) {
    for (size_t n : {size_t{1}, size_t{2}, size_t{66}, size_t{67}, size_t{4097}, size_t{1} << 20}) {
      SCOPED_TRACE(std::string(zt::test::kind_name(kind)) + " " + std::to_string(n));
      const Bytes in = zt::test::make_block(kind, n, static_cast<uint32_t>(n));
      Bytes stream(n + n / 8 + 32);
      const uint32_t size = lzjb_compress(in.data(), stream.data(), static_cast<uint32_t>(n),
                                          static_cast<uint32_t>(stream.size()));
      if (size >= n) {
        // Did not shrink: the published signal is the input length.
        EXPECT_EQ(size, n);
        // Copies need 66 bytes of input ahead, so short blocks stay literal.
        EXPECT_TRUE(kind == Kind::kRandom || n < 2 * 66) << size;
        continue;
      }
      stream.resize(size);
      EXPECT_EQ(decode(stream, n), in);
    }
  }
}

TEST_F(Lzjb, DecoderRefusesBadStreams) {
  Bytes out(64);
  auto run = [&](const Bytes &stream, uint32_t capacity) {
    return lzjb_decompress(stream.data(), out.data(), static_cast<uint32_t>(stream.size()), capacity);
  };
  EXPECT_EQ(run({0x01, 0x00, 0x05}, 64), ZT_COMPRESS_ERROR);
  expect_one_log("lzjb_decompress", "before the start");
  EXPECT_EQ(run({0x02, 'a', 0x00, 0x00}, 64), ZT_COMPRESS_ERROR);  // offset 0
  expect_one_log("lzjb_decompress", "before the start");
  EXPECT_EQ(run({0x02, 'a', 0x04}, 64), ZT_COMPRESS_ERROR);
  expect_one_log("lzjb_decompress", "cut short in a copy");
  EXPECT_EQ(run({0x00, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0x00}, 64), ZT_COMPRESS_ERROR);
  expect_one_log("lzjb_decompress", "ends after a copy map");

  const Bytes in = zt::test::make_block(Kind::kGradient, 5000);
  Bytes stream(6000);
  stream.resize(lzjb_compress(in.data(), stream.data(), 5000, 6000));
  ASSERT_LT(stream.size(), 5000u);
  Guarded dst(4999);
  EXPECT_EQ(lzjb_decompress(stream.data(), dst.data(), static_cast<uint32_t>(stream.size()), 4999),
            ZT_COMPRESS_ERROR);
  EXPECT_TRUE(dst.intact());
  expect_one_log("lzjb_decompress", "does not fit in 4999 bytes");
}

}  // namespace
