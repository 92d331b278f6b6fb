#include <gtest/gtest.h>
#include <zt/compress.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "compress_data.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zt::test::Kind;

class Delta : public zt::test::CodecTest {};

std::vector<uint16_t> samples(const Bytes &bytes) {
  std::vector<uint16_t> s(bytes.size() / 2);
  std::memcpy(s.data(), bytes.data(), s.size() * 2);
  return s;
}

TEST_F(Delta, EightBitDifferencesWrap) {
  Bytes buf = {10, 12, 9, 255, 0, 0};
  ASSERT_EQ(deltaEncodeBuffer(buf.data(), 6, 8), 0);
  EXPECT_EQ(buf, (Bytes{10, 2, 253, 246, 1, 0}));
  ASSERT_EQ(deltaDecodeBuffer(buf.data(), 6, 8), 0);
  EXPECT_EQ(buf, (Bytes{10, 12, 9, 255, 0, 0}));
}

// 16-bit samples difference modulo 65536 in host order; an odd last byte is
// not a sample and passes through.
TEST_F(Delta, SixteenBitSamplesAndAnOddTail) {
  const std::vector<uint16_t> in = {1000, 65535, 3, 3};
  Bytes buf(9);
  std::memcpy(buf.data(), in.data(), 8);
  buf[8] = 0x77;
  Bytes out(9);
  ASSERT_EQ(deltaEncodeToBuffer(buf.data(), out.data(), 9, 16), 0);
  EXPECT_EQ(samples(out), (std::vector<uint16_t>{1000, 64535, 4, 0}));
  EXPECT_EQ(out[8], 0x77);
  ASSERT_EQ(deltaEncodeBuffer(buf.data(), 9, 16), 0);
  EXPECT_EQ(buf, out);
  ASSERT_EQ(deltaDecodeBuffer(buf.data(), 9, 16), 0);
  EXPECT_EQ(samples(buf), in);
  EXPECT_EQ(buf[8], 0x77);
}

// In place and into another buffer agree, and decoding undoes encoding, for
// both depths and odd and even lengths.
TEST_F(Delta, RoundTripsInPlaceAndCopying) {
  for (uint32_t bits : {8u, 16u}) {
    for (size_t n : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{1001}, size_t{65536}}) {
      SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(n));
      const Bytes in = zt::test::make_block(Kind::kRandom, n, static_cast<uint32_t>(n));
      Bytes copied(n), in_place = in, back(n);
      ASSERT_EQ(deltaEncodeToBuffer(in.data(), copied.data(), static_cast<uint32_t>(n), bits), 0);
      ASSERT_EQ(deltaEncodeBuffer(in_place.data(), static_cast<uint32_t>(n), bits), 0);
      EXPECT_EQ(copied, in_place);
      ASSERT_EQ(deltaDecodeToBuffer(copied.data(), back.data(), static_cast<uint32_t>(n), bits), 0);
      EXPECT_EQ(back, in);
      ASSERT_EQ(deltaDecodeBuffer(in_place.data(), static_cast<uint32_t>(n), bits), 0);
      EXPECT_EQ(in_place, in);
    }
  }
}

TEST_F(Delta, RefusesOtherDepthsAndMissingBuffers) {
  Bytes buf(4);
  EXPECT_EQ(deltaEncodeBuffer(buf.data(), 4, 12), -1);
  expect_one_log("deltaEncodeBuffer", "Unsupported sample depth 12");
  EXPECT_EQ(deltaDecodeToBuffer(nullptr, buf.data(), 4, 8), -1);
  expect_one_log("deltaDecodeToBuffer", "NULL");
  EXPECT_EQ(deltaEncodeBuffer(nullptr, 0, 8), 0);
}

}  // namespace
