#include <gtest/gtest.h>
#include <zt/compress.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "compress_data.h"

// Counts the allocations made through operator new anywhere in the process,
// the library included, so a test can see that a call allocated nothing. The
// standard operator delete frees with free(), which matches. Sanitizers bring
// their own operators, which must stay paired, so their builds go without.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZT_COUNT_ALLOCATIONS 0
#else
#define ZT_COUNT_ALLOCATIONS 1
namespace {
std::atomic<uint64_t> g_news{0};
}  // namespace

void *operator new(std::size_t size) {
  g_news.fetch_add(1, std::memory_order_relaxed);
  if (void *p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using zt::test::Guarded;
using zt::test::Kind;

constexpr uint32_t kCodecs[] = {ZT_COMPRESS_LZ4, ZT_COMPRESS_PACKBITS, ZT_COMPRESS_LZJB, ZT_COMPRESS_LZW,
                                ZT_COMPRESS_DEFLATE};
constexpr uint32_t kAllCodecs =
    ZT_COMPRESS_LZ4 | ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZJB | ZT_COMPRESS_LZW | ZT_COMPRESS_DEFLATE;

using Compressor = std::unique_ptr<ZT_Compressor, zt::test::Freer<ZT_CompressFree>>;
using Decompressor = std::unique_ptr<ZT_Decompressor, zt::test::Freer<ZT_DecompressFree>>;

class Compress : public zt::test::CodecTest {};

struct Block {
  Bytes data;
  uint32_t flags = 0;
  uint32_t size = 0;  // the compressor's result
};

Block compress(ZT_Compressor *c, const Bytes &in, uint32_t flags_in = 0) {
  Block b;
  b.flags = flags_in;
  b.data.resize(in.size() + 64);
  b.size = ZT_Compress(c, in.data(), b.data.data(), static_cast<uint32_t>(in.size()),
                       static_cast<uint32_t>(b.data.size()), &b.flags);
  if (b.size != ZT_COMPRESS_ERROR) b.data.resize(b.size);
  return b;
}

Bytes decompress(ZT_Decompressor *d, const Bytes &stream, uint32_t flags, size_t capacity) {
  Bytes out(capacity);
  const uint32_t n = ZT_Decompress(d, stream.data(), out.data(), static_cast<uint32_t>(stream.size()),
                                   static_cast<uint32_t>(capacity), flags);
  EXPECT_NE(n, ZT_COMPRESS_ERROR);
  out.resize(n == ZT_COMPRESS_ERROR ? 0 : n);
  return out;
}

TEST_F(Compress, EmptyAndIncompressibleBlocksAreStoredRaw) {
  Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | kAllCodecs | ZT_COMPRESS_DELTA, 8));
  ASSERT_NE(c, nullptr);
  // Bits outside the codec mask belong to the caller and stay.
  Block empty = compress(c.get(), {}, 0x10000u | ZT_COMPRESS_LZW | ZT_COMPRESS_ON);
  EXPECT_EQ(empty.size, 0u);
  EXPECT_EQ(empty.flags, 0x10000u);
  Block noise = compress(c.get(), zt::test::make_block(Kind::kRandom, 70000), 0x10000u | 0x1A7Du);
  EXPECT_EQ(noise.size, 0u);
  EXPECT_EQ(noise.flags, 0x10000u);
  // A raw block decodes as a copy.
  Decompressor d(ZT_DecompressInit(0, 8));
  const Bytes raw = {1, 2, 3};
  EXPECT_EQ(decompress(d.get(), raw, 0x10000u, 3), raw);
}

// Every codec alone, with and without the delta filter, on 8- and 16-bit
// samples (odd lengths included) and with the small scratch buffer: the block
// flags name the codec and the block decodes.
TEST_F(Compress, EveryCodecRoundTrips) {
  for (uint32_t codec : kCodecs)
    for (uint32_t extra : {0u, ZT_COMPRESS_DELTA, ZT_COMPRESS_SCRATCH})
      for (uint32_t bits : {8u, 16u}) {
        Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | codec | extra, bits));
        Decompressor d(ZT_DecompressInit(ZT_COMPRESS_ON | codec, bits));
        ASSERT_NE(c, nullptr);
        ASSERT_NE(d, nullptr);
        for (Kind kind : {Kind::kFlat, Kind::kGradient, Kind::kScreened})
          for (size_t n : {size_t{9}, size_t{1001}, size_t{65537}, size_t{1} << 18}) {
            SCOPED_TRACE(testing::Message() << "codec " << codec << " extra " << extra << " bits " << bits
                                            << " " << zt::test::kind_name(kind) << " " << n);
            const Bytes in = zt::test::make_block(kind, n, static_cast<uint32_t>(n));
            const Block b = compress(c.get(), in);
            ASSERT_NE(b.size, ZT_COMPRESS_ERROR);
            if (b.size == 0) {
              // Whether a codec finds anything depends on the data; flat
              // blocks it always shrinks.
              EXPECT_TRUE(kind != Kind::kFlat || n < 100);
              continue;
            }
            EXPECT_LT(b.size, n);
            const uint32_t delta = (extra & ZT_COMPRESS_DELTA) ? ZT_COMPRESS_DELTA : 0;
            EXPECT_EQ(b.flags, codec | ZT_COMPRESS_ON | delta);
            EXPECT_EQ(decompress(d.get(), b.data, b.flags, n), in);
          }
      }
}

// With every codec on, the result is the smallest single-codec result, and
// on a tie the codec tried first (LZ4, PackBits, LZJB, LZW, deflate) wins.
TEST_F(Compress, AllCodecsKeepTheSmallest) {
  Compressor all(ZT_CompressInit(ZT_COMPRESS_ON | kAllCodecs, 8));
  Decompressor d(ZT_DecompressInit(ZT_COMPRESS_ON | kAllCodecs, 8));
  for (Kind kind : {Kind::kFlat, Kind::kGradient, Kind::kScreened})
    for (size_t n : {size_t{40}, size_t{3000}, size_t{300000}}) {
      SCOPED_TRACE(testing::Message() << zt::test::kind_name(kind) << " " << n);
      const Bytes in = zt::test::make_block(kind, n);
      uint32_t best = static_cast<uint32_t>(n);
      uint32_t winner = 0;
      for (uint32_t codec : kCodecs) {
        Compressor one(ZT_CompressInit(ZT_COMPRESS_ON | codec, 8));
        const Block b = compress(one.get(), in);
        if (b.size != 0 && b.size < best) {
          best = b.size;
          winner = codec;
        }
      }
      const Block b = compress(all.get(), in);
      EXPECT_EQ(b.size, winner ? best : 0u);
      EXPECT_EQ(b.flags, winner ? (winner | ZT_COMPRESS_ON) : 0u);
      if (!winner) continue;
      EXPECT_EQ(decompress(d.get(), b.data, b.flags, n), in);
    }
}

// A destination shorter than the input takes only results that fit it.
TEST_F(Compress, HonoursASmallDestination) {
  Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | kAllCodecs, 8));
  const Bytes in = zt::test::make_block(Kind::kGradient, 100000);
  const Block full = compress(c.get(), in);
  ASSERT_GT(full.size, 0u);
  for (uint32_t room : {full.size, full.size - 1, 1u, 0u}) {
    Guarded dst(room);
    uint32_t flags = 0;
    const uint32_t size = ZT_Compress(c.get(), in.data(), dst.data(), 100000, room, &flags);
    EXPECT_TRUE(dst.intact()) << room;
    EXPECT_LE(size, room);
    if (room != full.size) continue;
    EXPECT_EQ(size, full.size);
  }
}

TEST_F(Compress, DeltaCompressForcesTheFilter) {
  Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS, 8));
  Decompressor d(ZT_DecompressInit(0, 8));
  Bytes in(50000);
  for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<uint8_t>(i);
  Block b;
  b.data.resize(60000);
  b.size = deltaCompress(c.get(), in.data(), b.data.data(), 50000, 60000, &b.flags);
  ASSERT_GT(b.size, 0u);
  b.data.resize(b.size);
  EXPECT_EQ(b.flags, ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS | ZT_COMPRESS_DELTA);
  // A ramp differences to one long run; the ramp itself has none.
  EXPECT_LT(b.size, 1000u);
  EXPECT_EQ(compress(c.get(), in).size, 0u);
  EXPECT_EQ(decompress(d.get(), b.data, b.flags, 50000), in);
}

// A page file's compression type picks its codec: a block compressed under
// each type's flags names that codec and decodes; the delta filter comes with
// every type but plain PackBits unless the caller turns it off; both entry
// points agree; other types are refused.
TEST_F(Compress, VlimgCompressionTypesPickTheirCodec) {
  struct Case {
    uint32_t type, codec;
  };
  const Case cases[] = {{1, 0},  {5, ZT_COMPRESS_LZW},   {7, ZT_COMPRESS_DEFLATE}, {8, ZT_COMPRESS_PACKBITS},
                        {10, 0}, {11, ZT_COMPRESS_LZJB}, {13, ZT_COMPRESS_LZ4}};
  const Bytes in = zt::test::make_block(Kind::kGradient, 30000);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.type);
    for (uint32_t no_delta : {0u, 1u}) {
      const uint32_t flags = ZT_CompressFlagsFromVLIMG(c.type, no_delta);
      EXPECT_EQ(ZT_ImageBufFlagsFromVLIMG(c.type, no_delta), flags);
      EXPECT_EQ((flags & ZT_COMPRESS_DELTA) != 0, no_delta == 0 && c.type != 8);
      Compressor comp(ZT_CompressInit(flags, 8));
      ASSERT_NE(comp, nullptr);
      const Block b = compress(comp.get(), in);
      if (c.codec == 0) {
        EXPECT_EQ(b.size, 0u) << "stored raw";
        continue;
      }
      ASSERT_GT(b.size, 0u);
      EXPECT_EQ(b.flags & ZT_COMPRESS_CODEC_MASK & ~ZT_COMPRESS_DELTA, c.codec | ZT_COMPRESS_ON);
      Decompressor d(ZT_DecompressInit(flags, 8));
      EXPECT_EQ(decompress(d.get(), b.data, b.flags, in.size()), in);
    }
  }
  for (uint32_t type : {0u, 2u, 3u, 4u, 6u, 9u, 12u, 14u, 1000u}) {
    EXPECT_EQ(ZT_CompressFlagsFromVLIMG(type, 0), 0u);
    expect_one_log("ZT_CompressFlagsFromVLIMG",
                   "Unsupported compression mode " + std::to_string(type) + " encountered");
    EXPECT_EQ(ZT_ImageBufFlagsFromVLIMG(type, 1), 0u);
    expect_one_log("ZT_ImageBufFlagsFromVLIMG",
                   "Unsupported compression mode " + std::to_string(type) + " encountered");
  }
}

// Type 10 (on, no codec) takes the library default, read when the compressor
// is made; with no default its blocks are stored raw.
TEST_F(Compress, OnWithoutACodecUsesTheDefault) {
  const Bytes in = zt::test::make_block(Kind::kFlat, 10000);
  const uint32_t type10 = ZT_CompressFlagsFromVLIMG(10, 1);
  Compressor none(ZT_CompressInit(type10, 8));
  EXPECT_EQ(compress(none.get(), in).size, 0u);

  ASSERT_EQ(setCompressDefaultAlgorithm(ZT_COMPRESS_LZ4), 0);
  Compressor lz4(ZT_CompressInit(type10, 8));
  ASSERT_EQ(setCompressDefaultAlgorithm(0), 0);
  const Block b = compress(lz4.get(), in);
  EXPECT_GT(b.size, 0u);
  EXPECT_EQ(b.flags, ZT_COMPRESS_LZ4 | ZT_COMPRESS_ON);
  EXPECT_EQ(compress(none.get(), in).size, 0u);

  EXPECT_EQ(setCompressDefaultAlgorithm(0x2), -1);
  expect_one_log("setCompressDefaultAlgorithm", "Unknown compression mode 2");
}

TEST_F(Compress, RefusesUnknownFlagsDepthsAndArguments) {
  EXPECT_EQ(ZT_CompressInit(0x2, 8), nullptr);
  expect_one_log("ZT_CompressInit", "Unknown compression mode 2");
  EXPECT_EQ(ZT_CompressInit(ZT_COMPRESS_ON | ZT_COMPRESS_LZ4, 12), nullptr);
  expect_one_log("ZT_CompressInit", "Unsupported sample depth 12");
  EXPECT_EQ(ZT_DecompressInit(0x10000, 8), nullptr);
  expect_one_log("ZT_DecompressInit", "Unknown compression mode 65536");

  Decompressor d(ZT_DecompressInit(0, 8));
  Bytes out(16);
  const Bytes in = {0, 1, 2};
  for (uint32_t flags : {ZT_COMPRESS_ON, ZT_COMPRESS_PACKBITS, ZT_COMPRESS_DELTA,
                         ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZW, ZT_COMPRESS_ON | 0x10u}) {
    EXPECT_EQ(ZT_Decompress(d.get(), in.data(), out.data(), 3, 16, flags), ZT_COMPRESS_ERROR);
    expect_one_log("ZT_Decompress", "Unknown compression mode " + std::to_string(flags));
  }
  uint32_t flags = 0;
  EXPECT_EQ(ZT_Compress(nullptr, in.data(), out.data(), 3, 16, &flags), ZT_COMPRESS_ERROR);
  expect_one_log("ZT_Compress", "NULL");
  EXPECT_EQ(ZT_Decompress(d.get(), nullptr, out.data(), 3, 16, 0), ZT_COMPRESS_ERROR);
  expect_one_log("ZT_Decompress", "NULL");
  ZT_CompressFree(nullptr);
  ZT_DecompressFree(nullptr);
}

// A block cut short, and a destination one byte shorter than the block,
// fail with one log line and nothing written past the destination. LZJB has
// no end marker: cut inside a copy it fails, cut after an item it decodes to
// less than the whole.
TEST_F(Compress, CorruptAndShortBlocksAreRefused) {
  const Bytes in = zt::test::make_block(Kind::kGradient, 20000);
  for (uint32_t codec : kCodecs) {
    SCOPED_TRACE(codec);
    Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | codec, 8));
    Decompressor d(ZT_DecompressInit(0, 8));
    const Block b = compress(c.get(), in);
    ASSERT_GT(b.size, 2u);
    Guarded dst(in.size());
    const uint32_t cut = ZT_Decompress(d.get(), b.data.data(), dst.data(), b.size - 1, 20000, b.flags);
    if (codec == ZT_COMPRESS_LZJB && cut != ZT_COMPRESS_ERROR) {
      EXPECT_LT(cut, 20000u);
    } else {
      EXPECT_EQ(cut, ZT_COMPRESS_ERROR);
      EXPECT_EQ(log_.count(), 1u);
      log_.clear();
    }
    Guarded short_dst(19999);
    EXPECT_EQ(ZT_Decompress(d.get(), b.data.data(), short_dst.data(), b.size, 19999, b.flags),
              ZT_COMPRESS_ERROR);
    EXPECT_TRUE(short_dst.intact());
    expect_one_log("ZT_Decompress", "does not fit in 19999 bytes");
    // The decompressor is fine afterwards.
    EXPECT_EQ(decompress(d.get(), b.data, b.flags, 20000), in);
  }
  // A deflate stream with a broken byte fails its check.
  Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | ZT_COMPRESS_DEFLATE, 8));
  Decompressor d(ZT_DecompressInit(ZT_COMPRESS_ON | ZT_COMPRESS_DEFLATE, 8));
  Block b = compress(c.get(), in);
  b.data[b.size / 2] ^= 0x5A;
  Bytes out(20000);
  EXPECT_EQ(ZT_Decompress(d.get(), b.data.data(), out.data(), b.size, 20000, b.flags), ZT_COMPRESS_ERROR);
  expect_one_log("ZT_Decompress", "Deflate block is corrupt");
}

// Once the largest block has been seen, neither side allocates.
#if ZT_COUNT_ALLOCATIONS
TEST_F(Compress, NoAllocationOnceTheLargestBlockWasSeen) {
  Compressor c(ZT_CompressInit(ZT_COMPRESS_ON | kAllCodecs | ZT_COMPRESS_DELTA, 8));
  Decompressor d(ZT_DecompressInit(0, 8));
  const Bytes big = zt::test::make_block(Kind::kGradient, 1 << 20);
  const Bytes small = zt::test::make_block(Kind::kScreened, 70000);
  Bytes dst(big.size()), back(big.size());
  std::vector<Block> seen;
  for (uint32_t codec : kCodecs) {
    Compressor one(ZT_CompressInit(ZT_COMPRESS_ON | codec, 8));
    seen.push_back(compress(one.get(), big));
  }
  for (const Block &b : seen) decompress(d.get(), b.data, b.flags, big.size());
  compress(c.get(), big);

  const uint64_t before = g_news.load();
  uint32_t flags = 0;
  for (const Bytes *in : {&small, &big}) {
    EXPECT_NE(ZT_Compress(c.get(), in->data(), dst.data(), static_cast<uint32_t>(in->size()),
                          static_cast<uint32_t>(dst.size()), &flags),
              ZT_COMPRESS_ERROR);
  }
  for (const Block &b : seen)
    EXPECT_EQ(ZT_Decompress(d.get(), b.data.data(), back.data(), b.size, static_cast<uint32_t>(back.size()),
                            b.flags),
              big.size());
  EXPECT_EQ(g_news.load(), before);
}
#endif

// Compressors share nothing but the library default: threads each with their
// own objects round-trip blocks while another keeps changing the default.
class CompressMT : public zt::test::CodecTest {};

TEST_F(CompressMT, IndependentObjectsInParallel) {
  std::atomic<bool> stop{false};
  std::thread flipper([&] {
    for (uint32_t i = 0; !stop.load(); ++i)
      setCompressDefaultAlgorithm(i % 2 ? ZT_COMPRESS_LZ4 : ZT_COMPRESS_LZW | ZT_COMPRESS_DELTA);
  });
  std::vector<std::thread> workers;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([&, t] {
      Compressor c(ZT_CompressInit(t % 2 ? ZT_COMPRESS_ON : ZT_COMPRESS_ON | kAllCodecs, 8));
      Decompressor d(ZT_DecompressInit(0, 8));
      const Bytes in = zt::test::make_block(Kind::kGradient, 20000, static_cast<uint32_t>(t));
      Bytes packed(in.size()), back(in.size());
      for (int i = 0; i < 20; ++i) {
        uint32_t flags = 0;
        const uint32_t n = ZT_Compress(c.get(), in.data(), packed.data(), 20000, 20000, &flags);
        const bool raw = n == 0;
        const uint32_t got = ZT_Decompress(d.get(), raw ? in.data() : packed.data(), back.data(),
                                           raw ? 20000 : n, 20000, flags);
        if (got != 20000 || back != in) failures.fetch_add(1);
      }
    });
  }
  for (auto &w : workers) w.join();
  stop.store(true);
  flipper.join();
  setCompressDefaultAlgorithm(0);
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
