#include <gtest/gtest.h>
#include <zt/compress.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "compress_data.h"
#include "support/tiff_memory.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zt::test::Guarded;
using zt::test::Kind;

class Lzw : public zt::test::CodecTest {};

using Encoder = std::unique_ptr<ZT_LZWState, zt::test::Freer<lzwCompressFree>>;
using Decoder = std::unique_ptr<ZT_LZWDecodeState, zt::test::Freer<lzwDeCompressFree>>;

// The whole stream, the input fed `chunk` bytes at a time.
Bytes encode(ZT_LZWState *enc, const Bytes &in, size_t chunk = SIZE_MAX) {
  Bytes out;
  Bytes buf(std::min(in.size(), chunk) * 2 + 16);
  for (size_t pos = 0; pos < in.size();) {
    const size_t n = std::min(chunk, in.size() - pos);
    uint32_t got = 0;
    EXPECT_EQ(lzwCompress(enc, in.data() + pos, buf.data(), static_cast<uint32_t>(n),
                          static_cast<uint32_t>(buf.size()), &got),
              0);
    out.insert(out.end(), buf.begin(), buf.begin() + got);
    pos += n;
  }
  uint32_t got = 0;
  EXPECT_EQ(lzwCompressEnd(enc, buf.data(), static_cast<uint32_t>(buf.size()), &got), 0);
  out.insert(out.end(), buf.begin(), buf.begin() + got);
  return out;
}

Bytes encode(const Bytes &in, size_t chunk = SIZE_MAX) {
  Encoder enc(lzwCompressInit());
  return encode(enc.get(), in, chunk);
}

// The stream fed `chunk` bytes at a time into a destination of `capacity`.
Bytes decode(ZT_LZWDecodeState *dec, const Bytes &stream, size_t capacity, size_t chunk = SIZE_MAX) {
  Bytes out(capacity);
  size_t produced = 0;
  for (size_t pos = 0; pos < stream.size();) {
    const size_t n = std::min(chunk, stream.size() - pos);
    uint32_t got = 0;
    EXPECT_EQ(lzwDeCompress(dec, stream.data() + pos, out.data() + produced, static_cast<uint32_t>(n),
                            static_cast<uint32_t>(capacity - produced), &got),
              0);
    produced += got;
    pos += n;
  }
  EXPECT_EQ(lzwDeCompressEnd(dec), 0);
  out.resize(produced);
  return out;
}

Bytes decode(const Bytes &stream, size_t capacity, size_t chunk = SIZE_MAX) {
  Decoder dec(lzwDeCompressCreate());
  return decode(dec.get(), stream, capacity, chunk);
}

// Codes of chosen widths, packed most significant bit first.
class BitWriter {
 public:
  BitWriter &put(uint32_t code, int width) {
    acc_ = (acc_ << width) | code;
    bits_ += width;
    while (bits_ >= 8) {
      bits_ -= 8;
      out_.push_back(static_cast<uint8_t>(acc_ >> bits_));
    }
    return *this;
  }
  Bytes bytes() const {
    Bytes out = out_;
    if (bits_ > 0) out.push_back(static_cast<uint8_t>(acc_ << (8 - bits_)));
    return out;
  }

 private:
  uint64_t acc_ = 0;
  int bits_ = 0;
  Bytes out_;
};

TEST_F(Lzw, ExactShortStreams) {
  // Clear, 'A', End of information at 9 bits, padded with zeros.
  EXPECT_EQ(encode(Bytes{'A'}), (Bytes{0x80, 0x10, 0x60, 0x20}));
  // No input: Clear, End of information.
  EXPECT_EQ(encode(Bytes{}), (Bytes{0x80, 0x40, 0x40}));
  // "ABABABA": A, B, AB (258), ABA (260, defined as it is used).
  EXPECT_EQ(encode(Bytes{'A', 'B', 'A', 'B', 'A', 'B', 'A'}),
            BitWriter().put(256, 9).put('A', 9).put('B', 9).put(258, 9).put(260, 9).put(257, 9).bytes());
  EXPECT_EQ(decode(Bytes{0x80, 0x10, 0x60, 0x20}, 1), Bytes{'A'});
}

// Width 10 starts once the next free code is 512. Bytes whose neighbouring
// pairs never repeat make one new string per byte, so code k goes out while
// the next free code is 258 + k - 1. With 254 bytes the last code goes out at
// 9 bits and End of information at 10, where a decoder looks for the next code.
TEST_F(Lzw, WidthGrowsWhenTheNextFreeCodeReaches512) {
  for (size_t n : {size_t{254}, size_t{256}}) {
    SCOPED_TRACE(n);
    Bytes in;
    for (size_t i = 0; in.size() < n; ++i) {
      in.push_back(static_cast<uint8_t>(i));
      in.push_back(static_cast<uint8_t>(i * 7 + 1));
    }
    in.resize(n);
    BitWriter expect;
    expect.put(256, 9);
    for (size_t k = 1; k < n; ++k) expect.put(in[k - 1], 258 + (k - 1) > 511 ? 10 : 9);
    const size_t last_free = 258 + (n - 1);
    expect.put(in.back(), last_free > 511 ? 10 : 9).put(257, last_free + 1 > 511 ? 10 : 9);
    const Bytes stream = encode(in);
    EXPECT_EQ(stream, expect.bytes());
    EXPECT_EQ(decode(stream, n), in);
  }
}

// Every kind through the table's edges (511 codes, a reset at 4,094); fed in
// pieces the encoder gives the same stream, and the decoder the same bytes,
// whatever the split; one encoder and decoder serve stream after stream.
TEST_F(Lzw, RoundTripsEveryKindAndLength) {
  Encoder enc(lzwCompressInit());
  Decoder dec(lzwDeCompressCreate());
  for (Kind kind : zt::test::kKinds)
    for (size_t n : {size_t{1}, size_t{2}, size_t{511}, size_t{4097}, size_t{65539}, size_t{1} << 20}) {
      SCOPED_TRACE(std::string(zt::test::kind_name(kind)) + " " + std::to_string(n));
      const Bytes in = zt::test::make_block(kind, n, static_cast<uint32_t>(n));
      const Bytes stream = encode(enc.get(), in);
      EXPECT_EQ(decode(dec.get(), stream, n), in);
      if (n != 65539) continue;
      EXPECT_EQ(encode(enc.get(), in, 1), stream);
      EXPECT_EQ(encode(enc.get(), in, 4093), stream);
      for (size_t chunk : {size_t{1}, size_t{7}, size_t{4096}})
        EXPECT_EQ(decode(dec.get(), stream, in.size(), chunk), in) << chunk;
    }
}

TEST_F(Lzw, EncoderNeedsFiveBytesOfRoom) {
  Encoder enc(lzwCompressInit());
  const Bytes in = {'a', 'b'};
  Guarded four(4);
  uint32_t got = 0;
  EXPECT_EQ(lzwCompress(enc.get(), in.data(), four.data(), 2, 4, &got), -1);
  EXPECT_TRUE(four.intact());
  EXPECT_EQ(lzwCompressEnd(enc.get(), four.data(), 4, &got), -1);
  EXPECT_TRUE(four.intact());
  // Clear leaves one byte written and 5 of 6 free for the code of 'a'.
  Guarded six(6);
  lzwCompressReset(enc.get());
  EXPECT_EQ(lzwCompress(enc.get(), in.data(), six.data(), 2, 6, &got), 0);
  EXPECT_EQ(got, 2u);  // Clear and 'a', 18 bits
  Guarded five(5);
  uint32_t end = 0;
  EXPECT_EQ(lzwCompressEnd(enc.get(), five.data(), 5, &end), 0);
  EXPECT_EQ(end, 3u);  // 2 bits pending, 'b' and End of information
  EXPECT_TRUE(five.intact());
  EXPECT_TRUE(six.intact());
  // Encoding stops at the code that would leave less than 5 bytes.
  const Bytes noise = zt::test::make_block(Kind::kRandom, 1000);
  Guarded small(100);
  EXPECT_EQ(lzwCompress(enc.get(), noise.data(), small.data(), 1000, 100, &got), -1);
  EXPECT_TRUE(small.intact());
}

TEST_F(Lzw, DecoderRefusesBadStreams) {
  Decoder dec(lzwDeCompressCreate());
  Bytes out(1000);
  uint32_t got = 0;
  auto feed = [&](const Bytes &stream, uint32_t capacity) {
    return lzwDeCompress(dec.get(), stream.data(), out.data(), static_cast<uint32_t>(stream.size()), capacity,
                         &got);
  };

  EXPECT_EQ(feed(BitWriter().put(256, 9).put(258, 9).put(257, 9).bytes(), 1000), -1);
  expect_one_log("lzwDeCompress", "starts a table with a string code");
  // Decoding after a failure refuses until the stream is ended; ending it
  // does not log again.
  EXPECT_EQ(feed(Bytes{0x80}, 1000), -1);
  expect_one_log("lzwDeCompress", "already failed");
  EXPECT_EQ(lzwDeCompressEnd(dec.get()), -1);

  EXPECT_EQ(feed(BitWriter().put(256, 9).put('a', 9).put(259, 9).bytes(), 1000), -1);
  expect_one_log("lzwDeCompress", "code not yet defined");
  EXPECT_EQ(lzwDeCompressEnd(dec.get()), -1);

  // A stream cut before End of information decodes what it has, then fails
  // at its end.
  const Bytes in = zt::test::make_block(Kind::kGradient, 900);
  Bytes stream = encode(in);
  const Bytes cut(stream.begin(), stream.end() - 2);
  EXPECT_EQ(feed(cut, 1000), 0);
  EXPECT_EQ(lzwDeCompressEnd(dec.get()), -1);
  expect_one_log("lzwDeCompressEnd", "cut short");

  // One byte short of the decoded size.
  Guarded dst(899);
  EXPECT_EQ(
      lzwDeCompress(dec.get(), stream.data(), dst.data(), static_cast<uint32_t>(stream.size()), 899, &got),
      -1);
  EXPECT_TRUE(dst.intact());
  expect_one_log("lzwDeCompress", "does not fit in 899 bytes");
  EXPECT_EQ(lzwDeCompressEnd(dec.get()), -1);

  // Bytes after End of information are ignored; the next stream decodes.
  stream.push_back(0xFF);
  EXPECT_EQ(decode(dec.get(), stream, 1000), in);
}

#ifdef ZT_HAVE_TIFF
// libtiff's LZW is the same code: it reads our streams, and its own streams
// match ours byte for byte, through table resets at 4,094 codes and, in the
// last case, at a ratio checkpoint (the noise after the flat part compresses
// worse than what came before).
TEST_F(Lzw, AgreesWithLibtiff) {
  std::vector<std::pair<std::string, Bytes>> cases;
  for (Kind kind : zt::test::kKinds)
    cases.emplace_back(zt::test::kind_name(kind),
                       zt::test::make_block(kind, kind == Kind::kRandom ? 300000 : 1000000));
  Bytes flat_then_noise = zt::test::make_block(Kind::kFlat, 30000);
  const Bytes noise = zt::test::make_block(Kind::kRandom, 70000);
  flat_then_noise.insert(flat_then_noise.end(), noise.begin(), noise.end());
  cases.emplace_back("flat then noise", flat_then_noise);

  zt::test::TiffImage img;
  img.width = 1000;
  img.compression = COMPRESSION_LZW;
  for (const auto &[name, pixels] : cases) {
    SCOPED_TRACE(name);
    img.height = static_cast<uint32_t>(pixels.size() / img.width);
    const Bytes ours = encode(pixels);
    auto wrapped = zt::test::tiff_from_raw_strip(img, ours);
    EXPECT_EQ(zt::test::tiff_decode(wrapped, img), pixels);
    auto theirs = zt::test::tiff_encode(img, pixels);
    const Bytes raw = zt::test::tiff_raw_strip(theirs);
    EXPECT_EQ(decode(raw, pixels.size()), pixels);
    EXPECT_EQ(raw, ours);
  }
}
#endif

}  // namespace
