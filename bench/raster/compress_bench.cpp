// The block compressors on a synthetic 8-bit CMYK page (gradients, flats,
// text-like strokes and a noisy picture area; 2048 x 2048 pixels, 16 MiB) and
// on its 1-bit screened version (the four planes through a clustered-dot
// screen, stacked: 2048 x 8192 pixels, 2 MiB). Each codec encodes and decodes
// the page as one block; the peers, in the same run, are libtiff's PackBits,
// LZW and Group 4 (one strip, in memory), raw zlib at level 6 and raw LZ4.
//
// Counters: MB/s of raw page data and the compression ratio (raw / coded).
// Every case is checked once before it is timed: a decoder must give the page
// back, an encoder's output must decode to the page (ours through our
// decoder, libtiff's through libtiff). Output buffers of ours and the peers
// are allocated alike (page-aligned, separate); libtiff reads its file from
// memory, opened once. The closing table sets each of our codecs against its
// peer, medians over repetitions.
//
// A short run (--benchmark_min_time below 0.1 s, as the CI smoke run uses, or
// ZT_BENCH_SMALL_PAGE=1) uses a quarter-size page so that it ends quickly.
#include <benchmark/benchmark.h>
#include <zt/compress.h>

#include "bench_support.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#ifdef ZT_HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef ZT_HAVE_LZ4
#include <lz4.h>
#endif
#ifdef ZT_HAVE_TIFF
#include <tiffio.h>

#include "support/tiff_memory.h"
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using zt::bench::Buffer;

bool same(const Buffer &out, const Bytes &in, size_t n) {
  return n == in.size() && std::memcmp(out.data(), in.data(), in.size()) == 0;
}

// ---- The page -------------------------------------------------------------------

uint32_t g_width = 2048;
uint32_t g_height = 2048;

struct Page {
  Bytes cmyk;      // g_width x g_height x 4, interleaved
  Bytes screened;  // 4 planes of g_width x g_height bits, one after the other
};

Bytes make_cmyk() {
  const uint32_t w = g_width, h = g_height;
  Bytes p(size_t{w} * h * 4);
  uint32_t noise = 12345;
  for (uint32_t y = 0; y < h; ++y) {
    uint8_t *row = p.data() + size_t{y} * w * 4;
    for (uint32_t x = 0; x < w; ++x) {
      uint8_t *px = row + size_t{x} * 4;
      if (y < h / 3) {
        // Vignettes: smooth ramps in three inks.
        px[0] = static_cast<uint8_t>(x * 255 / w);
        px[1] = static_cast<uint8_t>(y * 255 / (h / 3));
        px[2] = static_cast<uint8_t>((x + y) * 255 / (w + h / 3));
        px[3] = 0;
      } else if (y < 2 * h / 3) {
        // Flat panels with lines of text-like black strokes.
        const uint32_t panel = (x / 512 + y / 256) % 4;
        static const uint8_t kFlats[4][4] = {{0, 0, 0, 0}, {200, 40, 0, 0}, {0, 0, 255, 0}, {20, 20, 20, 0}};
        std::memcpy(px, kFlats[panel], 4);
        const uint32_t line_y = y % 24, glyph_x = x % 9;
        if (line_y >= 4 && line_y < 16 && glyph_x < 6 && ((x / 9 * 7 + y / 24 * 3) % 11) != 0) {
          const bool stroke =
              glyph_x == 0 || glyph_x == 5 || line_y == 4 || line_y == 10 || ((x / 9 + line_y) % 5 == 0);
          if (stroke) px[3] = 255;
        }
      } else {
        // A picture: smooth shapes with a little sensor noise.
        noise = noise * 1103515245u + 12345u;
        const int n = static_cast<int>((noise >> 16) & 7) - 3;
        const double fx = x / static_cast<double>(w), fy = (y - 2 * h / 3) / static_cast<double>(h / 3);
        for (int c = 0; c < 4; ++c) {
          const double v = 110 + 90 * std::sin(6.0 * fx + c) * std::cos(5.0 * fy - c);
          px[c] = static_cast<uint8_t>(std::clamp(static_cast<int>(v) + n, 0, 255));
        }
      }
    }
  }
  return p;
}

// An 8 x 8 clustered-dot screen: cells grow from the middle outwards.
Bytes make_screened(const Bytes &cmyk) {
  int threshold[8][8];
  int order[64];
  for (int i = 0; i < 64; ++i) order[i] = i;
  std::sort(order, order + 64, [](int a, int b) {
    auto d = [](int i) { return std::hypot((i % 8) - 3.5, (i / 8) - 3.5); };
    auto angle = [](int i) { return std::atan2((i / 8) - 3.5, (i % 8) - 3.5); };
    return d(a) != d(b) ? d(a) < d(b) : angle(a) < angle(b);
  });
  for (int rank = 0; rank < 64; ++rank) threshold[order[rank] / 8][order[rank] % 8] = rank * 4 + 2;
  const uint32_t w = g_width, h = g_height, stride = w / 8;
  Bytes out(size_t{stride} * h * 4, 0);
  for (int c = 0; c < 4; ++c) {
    for (uint32_t y = 0; y < h; ++y) {
      uint8_t *row = out.data() + (static_cast<size_t>(c) * h + y) * stride;
      const uint8_t *src = cmyk.data() + size_t{y} * w * 4 + c;
      for (uint32_t x = 0; x < w; ++x)
        if (src[size_t{x} * 4] > threshold[y % 8][x % 8]) row[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
    }
  }
  return out;
}

const Page &page() {
  static const Page p = [] {
    Page q;
    q.cmyk = make_cmyk();
    q.screened = make_screened(q.cmyk);
    return q;
  }();
  return p;
}

enum Data { kCmyk, kScreened };
const Bytes &data(Data d) { return d == kCmyk ? page().cmyk : page().screened; }

void report(benchmark::State &state, size_t raw, size_t coded) {
  state.counters["MB/s"] = benchmark::Counter(
      static_cast<double>(raw) * static_cast<double>(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
  state.counters["ratio"] = coded ? static_cast<double>(raw) / static_cast<double>(coded) : 0.0;
}

// ---- Our codecs -------------------------------------------------------------------

Bytes packbits(const Bytes &in) {
  Bytes out(ZT_PACKBITS_MAX_SIZE(in.size()));
  uint32_t n = 0;
  ZTPackbits_Compress(in.data(), out.data(), static_cast<uint32_t>(in.size()), &n);
  out.resize(n);
  return out;
}

Bytes lzw(ZT_LZWState *enc, const Bytes &in) {
  Bytes out(in.size() * 2 + 16);
  uint32_t a = 0, b = 0;
  lzwCompressReset(enc);
  lzwCompress(enc, in.data(), out.data(), static_cast<uint32_t>(in.size()), static_cast<uint32_t>(out.size()),
              &a);
  lzwCompressEnd(enc, out.data() + a, static_cast<uint32_t>(out.size() - a), &b);
  out.resize(a + b);
  return out;
}

Bytes lzjb(const Bytes &in) {
  Bytes out(in.size() + in.size() / 8 + 64);
  out.resize(lzjb_compress(in.data(), out.data(), static_cast<uint32_t>(in.size()),
                           static_cast<uint32_t>(out.size())));
  return out;
}

void BM_PackBits_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Buffer out(ZT_PACKBITS_MAX_SIZE(in.size())), back(in.size());
  uint32_t n = 0, m = 0;
  ZTPackbits_Compress(in.data(), out.data(), static_cast<uint32_t>(in.size()), &n);
  ZTPackbits_DeCompress(out.data(), back.data(), n, static_cast<uint32_t>(back.size()), &m);
  if (!zt::bench::check(state, same(back, in, m), "PackBits encoding does not decode to the page")) return;
  for (auto _ : state) {
    ZTPackbits_Compress(in.data(), out.data(), static_cast<uint32_t>(in.size()), &n);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), n);
}

void BM_PackBits_Decode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  const Bytes coded = packbits(in);
  Buffer out(in.size());
  uint32_t n = 0;
  ZTPackbits_DeCompress(coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                        static_cast<uint32_t>(out.size()), &n);
  if (!zt::bench::check(state, same(out, in, n), "PackBits round trip")) return;
  for (auto _ : state) {
    ZTPackbits_DeCompress(coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                          static_cast<uint32_t>(out.size()), &n);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), coded.size());
}

void BM_LZW_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  ZT_LZWState *enc = lzwCompressInit();
  size_t coded = 0;
  {
    const Bytes once = lzw(enc, in);
    ZT_LZWDecodeState *dec = lzwDeCompressCreate();
    Buffer back(in.size());
    uint32_t n = 0;
    lzwDeCompress(dec, once.data(), back.data(), static_cast<uint32_t>(once.size()),
                  static_cast<uint32_t>(back.size()), &n);
    lzwDeCompressFree(dec);
    if (!zt::bench::check(state, same(back, in, n), "LZW encoding does not decode to the page")) {
      lzwCompressFree(enc);
      return;
    }
  }
  for (auto _ : state) coded = lzw(enc, in).size();
  lzwCompressFree(enc);
  report(state, in.size(), coded);
}

void BM_LZW_Decode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  ZT_LZWState *enc = lzwCompressInit();
  const Bytes coded = lzw(enc, in);
  lzwCompressFree(enc);
  ZT_LZWDecodeState *dec = lzwDeCompressCreate();
  Buffer out(in.size());
  uint32_t n = 0;
  lzwDeCompress(dec, coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                static_cast<uint32_t>(out.size()), &n);
  lzwDeCompressEnd(dec);
  if (!zt::bench::check(state, same(out, in, n), "LZW round trip")) {
    lzwDeCompressFree(dec);
    return;
  }
  for (auto _ : state) {
    lzwDeCompress(dec, coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                  static_cast<uint32_t>(out.size()), &n);
    lzwDeCompressEnd(dec);
    benchmark::DoNotOptimize(out.data());
  }
  lzwDeCompressFree(dec);
  report(state, in.size(), coded.size());
}

void BM_LZJB_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  size_t coded = 0;
  {
    const Bytes once = lzjb(in);
    Buffer back(in.size());
    const uint32_t n = lzjb_decompress(once.data(), back.data(), static_cast<uint32_t>(once.size()),
                                       static_cast<uint32_t>(back.size()));
    if (!zt::bench::check(state, same(back, in, n), "LZJB encoding does not decode to the page")) return;
  }
  for (auto _ : state) coded = lzjb(in).size();
  report(state, in.size(), coded);
}

void BM_LZJB_Decode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  const Bytes coded = lzjb(in);
  Buffer out(in.size());
  uint32_t n = lzjb_decompress(coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                               static_cast<uint32_t>(out.size()));
  if (!zt::bench::check(state, same(out, in, n), "LZJB round trip")) return;
  for (auto _ : state) {
    n = lzjb_decompress(coded.data(), out.data(), static_cast<uint32_t>(coded.size()),
                        static_cast<uint32_t>(out.size()));
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), coded.size());
}

void BM_Delta_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Buffer out(in.size()), back(in.size());
  deltaEncodeToBuffer(in.data(), out.data(), static_cast<uint32_t>(in.size()), 8);
  deltaDecodeToBuffer(out.data(), back.data(), static_cast<uint32_t>(in.size()), 8);
  if (!zt::bench::check(state, same(back, in, in.size()), "delta encoding does not decode to the page")) return;
  for (auto _ : state) {
    deltaEncodeToBuffer(in.data(), out.data(), static_cast<uint32_t>(in.size()), 8);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), in.size());
}

// ZT_Compress with the codecs in `flags` (ZT_COMPRESS_ON implied).
void BM_ZTCompress_Encode(benchmark::State &state, Data d, uint32_t flags) {
  const Bytes &in = data(d);
  ZT_Compressor *c = ZT_CompressInit(ZT_COMPRESS_ON | flags, 8);
  Buffer out(in.size()), back(in.size());
  uint32_t size = 0, block = 0;
  size = ZT_Compress(c, in.data(), out.data(), static_cast<uint32_t>(in.size()), static_cast<uint32_t>(out.size()),
                     &block);
  {
    ZT_Decompressor *dec = ZT_DecompressInit(flags, 8);
    const uint32_t n = size ? ZT_Decompress(dec, out.data(), back.data(), size, static_cast<uint32_t>(back.size()),
                                            block)
                            : 0;
    ZT_DecompressFree(dec);
    if (!zt::bench::check(state, size == 0 || same(back, in, n), "ZT_Compress output does not decode to the page")) {
      ZT_CompressFree(c);
      return;
    }
  }
  for (auto _ : state) {
    size = ZT_Compress(c, in.data(), out.data(), static_cast<uint32_t>(in.size()),
                       static_cast<uint32_t>(out.size()), &block);
    benchmark::DoNotOptimize(out.data());
  }
  ZT_CompressFree(c);
  report(state, in.size(), size ? size : in.size());
}

void BM_ZTCompress_Decode(benchmark::State &state, Data d, uint32_t flags) {
  const Bytes &in = data(d);
  ZT_Compressor *c = ZT_CompressInit(ZT_COMPRESS_ON | flags, 8);
  Bytes coded(in.size());
  uint32_t block = 0;
  const uint32_t size = ZT_Compress(c, in.data(), coded.data(), static_cast<uint32_t>(in.size()),
                                    static_cast<uint32_t>(coded.size()), &block);
  ZT_CompressFree(c);
  ZT_Decompressor *dec = ZT_DecompressInit(flags, 8);
  Buffer out(in.size());
  const uint32_t length = size ? size : static_cast<uint32_t>(in.size());
  const uint8_t *src = size ? coded.data() : in.data();
  uint32_t n = ZT_Decompress(dec, src, out.data(), length, static_cast<uint32_t>(out.size()), block);
  if (!zt::bench::check(state, same(out, in, n), "ZT_Compress round trip")) {
    ZT_DecompressFree(dec);
    return;
  }
  for (auto _ : state) {
    n = ZT_Decompress(dec, src, out.data(), length, static_cast<uint32_t>(out.size()), block);
    benchmark::DoNotOptimize(out.data());
  }
  ZT_DecompressFree(dec);
  report(state, in.size(), length);
}

// Group 4 on the screened planes, as one image of 4 x height rows.
Bytes g4(const Bytes &bits) {
  ZT_CCITG4Encoder *enc = CCITG4Create(g_width);
  Bytes out(bits.size() * 2 + 64);
  uint32_t a = 0, b = 0;
  CCITG4Compress(enc, bits.data(), g_height * 4, g_width / 8, out.data(), static_cast<uint32_t>(out.size()),
                 &a);
  CCITG4Close(enc, out.data() + a, static_cast<uint32_t>(out.size() - a), &b);
  out.resize(a + b);
  return out;
}

void BM_G4_Encode(benchmark::State &state) {
  const Bytes &in = data(kScreened);
  size_t coded = 0;
  {
    const Bytes once = g4(in);
    Buffer back(in.size());
    uint32_t rows = 0;
    ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(g_width, g_height * 4);
    CCITG4DeCompress(dec, once.data(), static_cast<uint32_t>(once.size()), back.data(), g_width / 8, &rows);
    CCITG4DecompressClose(dec);
    if (!zt::bench::check(state, same(back, in, in.size()), "Group 4 encoding does not decode to the page")) return;
  }
  for (auto _ : state) coded = g4(in).size();
  report(state, in.size(), coded);
}

void BM_G4_Decode(benchmark::State &state) {
  const Bytes &in = data(kScreened);
  const Bytes coded = g4(in);
  Buffer out(in.size());
  uint32_t rows = 0;
  {
    ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(g_width, g_height * 4);
    CCITG4DeCompress(dec, coded.data(), static_cast<uint32_t>(coded.size()), out.data(), g_width / 8, &rows);
    CCITG4DecompressClose(dec);
    if (!zt::bench::check(state, same(out, in, in.size()), "Group 4 round trip")) return;
  }
  for (auto _ : state) {
    ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(g_width, g_height * 4);
    CCITG4DeCompress(dec, coded.data(), static_cast<uint32_t>(coded.size()), out.data(), g_width / 8, &rows);
    CCITG4DecompressClose(dec);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), coded.size());
}

// ---- Peers --------------------------------------------------------------------------

#ifdef ZT_HAVE_ZLIB
void BM_Zlib_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Buffer out(compressBound(in.size())), back(in.size());
  uLongf n = out.size(), m = back.size();
  compress2(out.data(), &n, in.data(), in.size(), 6);
  uncompress(back.data(), &m, out.data(), n);
  if (!zt::bench::check(state, same(back, in, m), "zlib round trip")) return;
  for (auto _ : state) {
    n = out.size();
    compress2(out.data(), &n, in.data(), in.size(), 6);
  }
  report(state, in.size(), n);
}

void BM_Zlib_Decode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Bytes coded(compressBound(in.size()));
  uLongf size = coded.size();
  compress2(coded.data(), &size, in.data(), in.size(), 6);
  Buffer out(in.size());
  uLongf got = out.size();
  uncompress(out.data(), &got, coded.data(), size);
  if (!zt::bench::check(state, same(out, in, got), "zlib round trip")) return;
  for (auto _ : state) {
    uLongf n = out.size();
    uncompress(out.data(), &n, coded.data(), size);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), size);
}
#endif

#ifdef ZT_HAVE_LZ4
void BM_LZ4_Encode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Buffer out(static_cast<size_t>(LZ4_compressBound(static_cast<int>(in.size())))), back(in.size());
  int n = LZ4_compress_default(reinterpret_cast<const char *>(in.data()), reinterpret_cast<char *>(out.data()),
                               static_cast<int>(in.size()), static_cast<int>(out.size()));
  const int m = LZ4_decompress_safe(reinterpret_cast<const char *>(out.data()), reinterpret_cast<char *>(back.data()),
                                    n, static_cast<int>(back.size()));
  if (!zt::bench::check(state, m > 0 && same(back, in, static_cast<size_t>(m)), "LZ4 round trip")) return;
  for (auto _ : state) {
    n = LZ4_compress_default(reinterpret_cast<const char *>(in.data()), reinterpret_cast<char *>(out.data()),
                             static_cast<int>(in.size()), static_cast<int>(out.size()));
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), static_cast<size_t>(n));
}

void BM_LZ4_Decode(benchmark::State &state, Data d) {
  const Bytes &in = data(d);
  Bytes coded(LZ4_compressBound(static_cast<int>(in.size())));
  const int size =
      LZ4_compress_default(reinterpret_cast<const char *>(in.data()), reinterpret_cast<char *>(coded.data()),
                           static_cast<int>(in.size()), static_cast<int>(coded.size()));
  Buffer out(in.size());
  const int got = LZ4_decompress_safe(reinterpret_cast<const char *>(coded.data()), reinterpret_cast<char *>(out.data()),
                                      size, static_cast<int>(out.size()));
  if (!zt::bench::check(state, got > 0 && same(out, in, static_cast<size_t>(got)), "LZ4 round trip")) return;
  for (auto _ : state) {
    LZ4_decompress_safe(reinterpret_cast<const char *>(coded.data()), reinterpret_cast<char *>(out.data()),
                        size, static_cast<int>(out.size()));
    benchmark::DoNotOptimize(out.data());
  }
  report(state, in.size(), static_cast<size_t>(size));
}
#endif

#ifdef ZT_HAVE_TIFF
using zt::test::MemoryTiff;

struct TiffShape {
  uint32_t width, height;
  uint16_t bits, samples;
};

TiffShape shape(Data d, uint16_t compression) {
  if (compression == COMPRESSION_CCITTFAX4 || d == kScreened) return {g_width, g_height * 4, 1, 1};
  return {g_width, g_height, 8, 4};
}

// Writes the data as one strip; returns the strip's coded size.
size_t tiff_write(MemoryTiff &m, Data d, uint16_t compression) {
  const Bytes &in = data(d);
  const TiffShape s = shape(d, compression);
  m.clear();
  TIFF *tif = m.open("w");
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, s.width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, s.height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, s.bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, s.samples);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, s.bits == 1 ? PHOTOMETRIC_MINISWHITE : PHOTOMETRIC_SEPARATED);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, s.height);
  TIFFWriteEncodedStrip(tif, 0, const_cast<uint8_t *>(in.data()), static_cast<tmsize_t>(in.size()));
  TIFFClose(tif);
  tif = m.open("r");
  uint64_t *counts = nullptr;
  TIFFGetField(tif, TIFFTAG_STRIPBYTECOUNTS, &counts);
  const size_t coded = counts ? static_cast<size_t>(counts[0]) : 0;
  TIFFClose(tif);
  return coded;
}

bool tiff_reads_back(MemoryTiff &m, const Bytes &in, Buffer &out) {
  TIFF *tif = m.open("r");
  const bool ok = tif != nullptr &&
                  TIFFReadEncodedStrip(tif, 0, out.data(), static_cast<tmsize_t>(out.size())) ==
                      static_cast<tmsize_t>(in.size()) &&
                  same(out, in, in.size());
  if (tif != nullptr) TIFFClose(tif);
  return ok;
}

void BM_Tiff_Encode(benchmark::State &state, Data d, uint16_t compression) {
  MemoryTiff m;
  size_t coded = tiff_write(m, d, compression);
  Buffer back(data(d).size());
  if (!zt::bench::check(state, tiff_reads_back(m, data(d), back), "libtiff encoding does not read back")) return;
  for (auto _ : state) coded = tiff_write(m, d, compression);
  report(state, data(d).size(), coded);
}

void BM_Tiff_Decode(benchmark::State &state, Data d, uint16_t compression) {
  MemoryTiff m;
  const size_t coded = tiff_write(m, d, compression);
  const Bytes &in = data(d);
  Buffer out(in.size());
  if (!zt::bench::check(state, tiff_reads_back(m, in, out), "libtiff round trip")) return;
  // Opened once, as our decoders are set up once: the timed part is decoding
  // the strip from memory, not parsing the directory.
  TIFF *tif = m.open("r");
  for (auto _ : state) {
    TIFFReadEncodedStrip(tif, 0, out.data(), static_cast<tmsize_t>(out.size()));
    benchmark::DoNotOptimize(out.data());
  }
  TIFFClose(tif);
  report(state, in.size(), coded);
}
#endif

// ---- Registration ---------------------------------------------------------------------

constexpr uint32_t kAll =
    ZT_COMPRESS_LZ4 | ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZJB | ZT_COMPRESS_LZW | ZT_COMPRESS_DEFLATE;

void register_all() {
  const std::pair<Data, const char *> sets[] = {{kCmyk, "cmyk"}, {kScreened, "screened"}};
  auto add = [](const std::string &name, std::function<void(benchmark::State &)> fn) {
    benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State &s) {
      fn(s);
    })->Unit(benchmark::kMillisecond);
  };
  for (const auto &[d, n] : sets) {
    const std::string tag = std::string("/") + n;
    add("BM_PackBits_Encode" + tag, [d = d](benchmark::State &s) { BM_PackBits_Encode(s, d); });
    add("BM_PackBits_Decode" + tag, [d = d](benchmark::State &s) { BM_PackBits_Decode(s, d); });
    add("BM_LZW_Encode" + tag, [d = d](benchmark::State &s) { BM_LZW_Encode(s, d); });
    add("BM_LZW_Decode" + tag, [d = d](benchmark::State &s) { BM_LZW_Decode(s, d); });
    add("BM_LZJB_Encode" + tag, [d = d](benchmark::State &s) { BM_LZJB_Encode(s, d); });
    add("BM_LZJB_Decode" + tag, [d = d](benchmark::State &s) { BM_LZJB_Decode(s, d); });
    add("BM_Delta_Encode" + tag, [d = d](benchmark::State &s) { BM_Delta_Encode(s, d); });
    const std::pair<uint32_t, const char *> drivers[] = {{ZT_COMPRESS_LZ4, "lz4"},
                                                         {ZT_COMPRESS_DEFLATE, "deflate"},
                                                         {kAll, "all"},
                                                         {kAll | ZT_COMPRESS_DELTA, "all_delta"}};
    for (const auto &[f, fname] : drivers) {
      const std::string suffix = std::string("/") + fname + tag;
      add("BM_ZTCompress_Encode" + suffix,
          [d = d, f = f](benchmark::State &s) { BM_ZTCompress_Encode(s, d, f); });
      add("BM_ZTCompress_Decode" + suffix,
          [d = d, f = f](benchmark::State &s) { BM_ZTCompress_Decode(s, d, f); });
    }
#ifdef ZT_HAVE_ZLIB
    add("BM_Zlib_Encode" + tag, [d = d](benchmark::State &s) { BM_Zlib_Encode(s, d); });
    add("BM_Zlib_Decode" + tag, [d = d](benchmark::State &s) { BM_Zlib_Decode(s, d); });
#endif
#ifdef ZT_HAVE_LZ4
    add("BM_LZ4_Encode" + tag, [d = d](benchmark::State &s) { BM_LZ4_Encode(s, d); });
    add("BM_LZ4_Decode" + tag, [d = d](benchmark::State &s) { BM_LZ4_Decode(s, d); });
#endif
#ifdef ZT_HAVE_TIFF
    add("BM_Tiff_PackBits_Encode" + tag,
        [d = d](benchmark::State &s) { BM_Tiff_Encode(s, d, COMPRESSION_PACKBITS); });
    add("BM_Tiff_PackBits_Decode" + tag,
        [d = d](benchmark::State &s) { BM_Tiff_Decode(s, d, COMPRESSION_PACKBITS); });
    add("BM_Tiff_LZW_Encode" + tag, [d = d](benchmark::State &s) { BM_Tiff_Encode(s, d, COMPRESSION_LZW); });
    add("BM_Tiff_LZW_Decode" + tag, [d = d](benchmark::State &s) { BM_Tiff_Decode(s, d, COMPRESSION_LZW); });
#endif
  }
  add("BM_G4_Encode/screened", [](benchmark::State &s) { BM_G4_Encode(s); });
  add("BM_G4_Decode/screened", [](benchmark::State &s) { BM_G4_Decode(s); });
#ifdef ZT_HAVE_TIFF
  add("BM_Tiff_G4_Encode/screened",
      [](benchmark::State &s) { BM_Tiff_Encode(s, kScreened, COMPRESSION_CCITTFAX4); });
  add("BM_Tiff_G4_Decode/screened",
      [](benchmark::State &s) { BM_Tiff_Decode(s, kScreened, COMPRESSION_CCITTFAX4); });
#endif
}

// ---- The comparison table ---------------------------------------------------------------

int print_table(const zt::bench::Results &results) {
  struct Pair {
    const char *ours, *peer;
    double goal;  // the least speed ratio asked for, 0 for none
  };
  const Pair pairs[] = {
      {"BM_PackBits_Encode", "BM_Tiff_PackBits_Encode", 1.0},
      {"BM_PackBits_Decode", "BM_Tiff_PackBits_Decode", 1.0},
      {"BM_LZW_Encode", "BM_Tiff_LZW_Encode", 1.0},
      {"BM_LZW_Decode", "BM_Tiff_LZW_Decode", 1.0},
      {"BM_G4_Encode", "BM_Tiff_G4_Encode", 1.0},
      {"BM_G4_Decode", "BM_Tiff_G4_Decode", 1.2},
      {"BM_ZTCompress_Encode/lz4", "BM_LZ4_Encode", 0.9},
      {"BM_ZTCompress_Decode/lz4", "BM_LZ4_Decode", 0.9},
      {"BM_ZTCompress_Encode/deflate", "BM_Zlib_Encode", 0.0},
      {"BM_ZTCompress_Decode/deflate", "BM_Zlib_Decode", 0.0},
      {"BM_LZJB_Encode", "BM_LZ4_Encode", 0.0},
      {"BM_LZJB_Decode", "BM_LZ4_Decode", 0.0},
      {"BM_ZTCompress_Encode/all", "BM_Zlib_Encode", 0.0},
      {"BM_ZTCompress_Decode/all", "BM_Zlib_Decode", 0.0},
      {"BM_ZTCompress_Encode/all_delta", "BM_Zlib_Encode", 0.0},
      {"BM_ZTCompress_Decode/all_delta", "BM_Zlib_Decode", 0.0},
  };
  char title[200];
  std::snprintf(title, sizeof title,
                "Codecs on a %u x %u CMYK page (%.1f MB) and its screened %u x %u 1-bit planes (%.1f MB): MB/s of "
                "raw data, medians; note: compression ratios",
                g_width, g_height, g_width * g_height * 4 / 1e6, g_width, g_height * 4,
                g_width * g_height * 4 / 8 / 1e6);
  zt::bench::Table table(title, "MB/s");
  for (const char *set : {"/cmyk", "/screened"}) {
    for (const Pair &p : pairs) {
      const std::string ours = std::string(p.ours) + set, peer = std::string(p.peer) + set;
      const double a = results.value(ours, "MB/s"), b = results.value(peer, "MB/s");
      if (a <= 0 && b <= 0) continue;
      char note[64];
      std::snprintf(note, sizeof note, "vs %s; ratio %.2f / %.2f", p.peer + 3, results.value(ours, "ratio"),
                    results.value(peer, "ratio"));
      table.row(ours.substr(3), a, b, p.goal > 0 ? zt::bench::Goal::ratio(p.goal) : zt::bench::Goal::none(), note);
    }
  }
  return table.print();
}

}  // namespace

int main(int argc, char **argv) {
  bool small = false;
  if (const char *env = std::getenv("ZT_BENCH_SMALL_PAGE")) small = std::atoi(env) != 0;
  for (int i = 1; i < argc; ++i) {
    const char *prefix = "--benchmark_min_time=";
    if (std::strncmp(argv[i], prefix, std::strlen(prefix)) == 0 &&
        std::atof(argv[i] + std::strlen(prefix)) < 0.1)
      small = true;
  }
  if (small) {
    g_width = 1024;
    g_height = 1024;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  register_all();
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  print_table(results);
  return zt::bench::exit_code();
}
