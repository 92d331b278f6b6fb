// VLIMG tiled pages beside libtiff's tiled TIFF: an 8-bit CMYK page (ramps,
// flat tints and text-like strokes) in 256 x 256 tiles, written and read whole
// on tmpfs (/dev/shm) with each codec: raw, LZ4 (raw LZ4 tiles through
// TIFFWriteRawTile on the libtiff side), deflate, PackBits and LZW. Ours runs
// with one and two worker threads; libtiff has one. Raw pages are also set
// against one memcpy of the page.
//
// The page is 16,000 x 16,000 with ZT_BENCH_FULL=1, 1,024 x 1,024 in a short
// run (--benchmark_min_time below 0.1 s, as the CI smoke run uses) and
// 2,048 x 2,048 otherwise. Counters: MB/s of raw page data, and the file's
// compression ratio. A table after the run sets each case against its peer.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include "bench_support.h"
#include <unistd.h>
#include <zt/init.h>
#include <zt/vlimg.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#ifdef ZT_HAVE_LZ4
#include <lz4.h>
#endif
#ifdef ZT_HAVE_TIFF
#include <tiffio.h>
#endif

namespace {

constexpr uint32_t kTile = 256;
uint32_t g_side = 2048;

struct Aligned {
  uint8_t *p = nullptr;
  size_t size = 0;
  void alloc(size_t n) {
    size = n;
    p = static_cast<uint8_t *>(std::aligned_alloc(4096, (n + 4095) / 4096 * 4096));
  }
};

size_t page_bytes() { return size_t{g_side} * g_side * 4; }
size_t line_bytes() { return size_t{g_side} * 4; }

// The source page, made once; the read target, allocated alike.
const Aligned &page() {
  static Aligned p = [] {
    Aligned a;
    a.alloc(page_bytes());
    const uint32_t w = g_side, h = g_side;
    for (uint32_t y = 0; y < h; ++y) {
      uint8_t *row = a.p + size_t{y} * w * 4;
      for (uint32_t x = 0; x < w; ++x) {
        uint8_t *px = row + size_t{x} * 4;
        if (y < h / 3) {
          px[0] = static_cast<uint8_t>(uint64_t{x} * 255 / w);
          px[1] = static_cast<uint8_t>(uint64_t{y} * 255 / (h / 3));
          px[2] = static_cast<uint8_t>(uint64_t{x + y} * 255 / (w + h / 3));
          px[3] = 0;
        } else {
          static const uint8_t kFlats[4][4] = {
              {0, 0, 0, 0}, {200, 40, 0, 0}, {0, 0, 255, 0}, {20, 20, 20, 0}};
          std::memcpy(px, kFlats[(x / 512 + y / 256) % 4], 4);
          const uint32_t ly = y % 24, gx = x % 9;
          if (ly >= 4 && ly < 16 && gx < 6 && ((x / 9 * 7 + y / 24 * 3) % 11) != 0 &&
              (gx == 0 || gx == 5 || ly == 4 || ly == 10 || (x / 9 + ly) % 5 == 0))
            px[3] = 255;
        }
      }
    }
    return a;
  }();
  return p;
}

Aligned &target() {
  static Aligned t = [] {
    Aligned a;
    a.alloc(page_bytes());
    std::memset(a.p, 0, a.size);
    return a;
  }();
  return t;
}

std::string path(const char *who) {
  const char *dir = std::getenv("ZT_BENCH_DIR");
  if (dir == nullptr || *dir == 0) dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(dir) + "/zt_vlimg_bench_" + std::to_string(getpid()) + "_" + who;
}

uint64_t file_size(const std::string &name) {
  struct stat st {};
  return stat(name.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

struct Codec {
  const char *name;
  uint32_t vlimg;
  int tiff;  // libtiff compression, -1 for raw LZ4 tiles
  bool zlib = false;  // libtiff deflates through zlib, not its default libdeflate
};
// The last entry is a second deflate writer on the libtiff side. Our deflate
// blocks are zlib's at level 6, byte for byte; libtiff writes through
// libdeflate unless told otherwise, a different compressor at about twice the
// speed. The same compressor is the peer of our writer; libtiff's default is
// shown beside it.
const Codec kCodecs[] = {{"raw", 1, 1},           {"lz4", 13, -1}, {"deflate", 7, 8},
                         {"packbits", 8, 32773}, {"lzw", 5, 5},   {"deflate", 7, 8, true}};
constexpr int kZlibDeflate = 5;

void set_counters(benchmark::State &state, uint64_t file) {
  state.counters["MB/s"] =
      benchmark::Counter(static_cast<double>(page_bytes()) * static_cast<double>(state.iterations()) / 1e6,
                         benchmark::Counter::kIsRate);
  state.counters["ratio"] = file ? static_cast<double>(page_bytes()) / static_cast<double>(file) : 0.0;
}

// ---- Ours ----------------------------------------------------------------------------

bool ours_write(const Codec &c, const std::string &name) {
  VLIMG_File *f = VLIMG_Open(name.c_str(), VLIMG_MODE_CREATE);
  if (f == nullptr) return false;
  const uint32_t type = VLIMG_IMAGETYPE_CMYK;
  bool ok = VLIMG_SetField(f, VLIMG_TAG_WIDTH, &g_side) == 0 &&
            VLIMG_SetField(f, VLIMG_TAG_HEIGHT, &g_side) == 0 &&
            VLIMG_SetField(f, VLIMG_TAG_COMPRESSION, &c.vlimg) == 0 &&
            VLIMG_SetField(f, VLIMG_TAG_IMAGETYPE, &type) == 0 && VLIMG_EnableTiling(f, kTile, kTile) == 0;
  const uint32_t across = (g_side + kTile - 1) / kTile, n = VLIMG_NumTiles(f);
  for (uint32_t i = 0; ok && i < n; ++i) {
    const size_t x = (i % across) * kTile, y = (i / across) * kTile;
    ok = VLIMG_WriteTile(f, i, page().p + y * line_bytes() + x * 4, static_cast<uint32_t>(line_bytes())) == 0;
  }
  return VLIMG_Close(f) == 0 && ok;
}

bool ours_read(const std::string &name) {
  VLIMG_File *f = VLIMG_Open(name.c_str(), VLIMG_MODE_READ);
  if (f == nullptr) return false;
  const uint32_t across = (g_side + kTile - 1) / kTile, n = VLIMG_NumTiles(f);
  std::vector<uint32_t> indices(n), strides(n, static_cast<uint32_t>(line_bytes()));
  std::vector<uint8_t *> dsts(n);
  for (uint32_t i = 0; i < n; ++i) {
    indices[i] = i;
    dsts[i] = target().p + (i / across) * kTile * line_bytes() + (i % across) * kTile * 4;
  }
  const bool ok = VLIMG_ReadTiles(f, indices.data(), n, dsts.data(), strides.data()) == 0;
  VLIMG_Close(f);
  return ok;
}

void BM_Vlimg_Write(benchmark::State &state) {
  const Codec &c = kCodecs[state.range(0)];
  VLIMGSetupThreads(static_cast<uint32_t>(state.range(1)));
  const std::string name = path("ours_w");
  page();
  std::memset(target().p, 0, page_bytes());
  if (!zt::bench::check(state,
                        ours_write(c, name) && ours_read(name) &&
                            std::memcmp(target().p, page().p, page_bytes()) == 0,
                        "the VLIMG page written does not read back"))
    return;
  for (auto _ : state)
    if (!ours_write(c, name)) state.SkipWithError("VLIMG write failed");
  set_counters(state, file_size(name));
  std::remove(name.c_str());
}

void BM_Vlimg_Read(benchmark::State &state) {
  const Codec &c = kCodecs[state.range(0)];
  VLIMGSetupThreads(static_cast<uint32_t>(state.range(1)));
  const std::string name = path("ours_r");
  if (!ours_write(c, name)) state.SkipWithError("VLIMG write failed");
  std::memset(target().p, 0, page_bytes());
  if (!zt::bench::check(state, ours_read(name) && std::memcmp(target().p, page().p, page_bytes()) == 0,
                        "VLIMG page does not read back"))
    return;
  for (auto _ : state)
    if (!ours_read(name)) state.SkipWithError("VLIMG read failed");
  set_counters(state, file_size(name));
  std::remove(name.c_str());
}

// ---- libtiff ----------------------------------------------------------------------------

#ifdef ZT_HAVE_TIFF
void copy_tile_out(uint8_t *tile, uint32_t i) {
  const uint32_t across = (g_side + kTile - 1) / kTile;
  const uint32_t x = (i % across) * kTile, y = (i / across) * kTile;
  const uint32_t w = std::min(kTile, g_side - x), h = std::min(kTile, g_side - y);
  if (w < kTile || h < kTile) std::memset(tile, 0, size_t{kTile} * kTile * 4);
  for (uint32_t r = 0; r < h; ++r)
    std::memcpy(tile + size_t{r} * kTile * 4, page().p + (y + r) * line_bytes() + size_t{x} * 4,
                size_t{w} * 4);
}

void copy_tile_in(const uint8_t *tile, uint32_t i) {
  const uint32_t across = (g_side + kTile - 1) / kTile;
  const uint32_t x = (i % across) * kTile, y = (i / across) * kTile;
  const uint32_t w = std::min(kTile, g_side - x), h = std::min(kTile, g_side - y);
  for (uint32_t r = 0; r < h; ++r)
    std::memcpy(target().p + (y + r) * line_bytes() + size_t{x} * 4, tile + size_t{r} * kTile * 4,
                size_t{w} * 4);
}

bool tiff_write(const Codec &c, const std::string &name) {
  TIFF *t = TIFFOpen(name.c_str(), "w");
  if (t == nullptr) return false;
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, g_side);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, g_side);
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 4);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_SEPARATED);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(t, TIFFTAG_TILEWIDTH, kTile);
  TIFFSetField(t, TIFFTAG_TILELENGTH, kTile);
  // Raw LZ4 tiles sit under a compressed scheme's tag: libtiff "repairs" the
  // byte counts of uncompressed tiles that look short, and raw tile calls
  // bypass the codec anyway.
  TIFFSetField(t, TIFFTAG_COMPRESSION, c.tiff < 0 ? COMPRESSION_ADOBE_DEFLATE : c.tiff);
  if (c.tiff == COMPRESSION_ADOBE_DEFLATE) TIFFSetField(t, TIFFTAG_ZIPQUALITY, 6);
  if (c.zlib) TIFFSetField(t, TIFFTAG_DEFLATE_SUBCODEC, DEFLATE_SUBCODEC_ZLIB);
  const tmsize_t tile_size = tmsize_t{kTile} * kTile * 4;
  std::vector<uint8_t> tile(static_cast<size_t>(tile_size)), coded;
  const uint32_t n = TIFFNumberOfTiles(t);
  bool ok = true;
  for (uint32_t i = 0; ok && i < n; ++i) {
    copy_tile_out(tile.data(), i);
    if (c.tiff < 0) {
#ifdef ZT_HAVE_LZ4
      coded.resize(static_cast<size_t>(LZ4_compressBound(static_cast<int>(tile_size))));
      const int size = LZ4_compress_default(reinterpret_cast<const char *>(tile.data()),
                                            reinterpret_cast<char *>(coded.data()),
                                            static_cast<int>(tile_size), static_cast<int>(coded.size()));
      ok = size > 0 && TIFFWriteRawTile(t, i, coded.data(), size) == size;
#else
      ok = false;
#endif
    } else {
      ok = TIFFWriteEncodedTile(t, i, tile.data(), tile_size) == tile_size;
    }
  }
  TIFFClose(t);
  return ok;
}

bool tiff_read(const Codec &c, const std::string &name) {
  TIFF *t = TIFFOpen(name.c_str(), "r");
  if (t == nullptr) return false;
  const tmsize_t tile_size = tmsize_t{kTile} * kTile * 4;
  std::vector<uint8_t> tile(static_cast<size_t>(tile_size)), coded;
  const uint32_t n = TIFFNumberOfTiles(t);
  bool ok = true;
  for (uint32_t i = 0; ok && i < n; ++i) {
    if (c.tiff < 0) {
#ifdef ZT_HAVE_LZ4
      coded.resize(static_cast<size_t>(TIFFGetStrileByteCount(t, i)));
      const tmsize_t got = TIFFReadRawTile(t, i, coded.data(), static_cast<tmsize_t>(coded.size()));
      ok = got > 0 && LZ4_decompress_safe(reinterpret_cast<const char *>(coded.data()),
                                          reinterpret_cast<char *>(tile.data()), static_cast<int>(got),
                                          static_cast<int>(tile_size)) == tile_size;
#else
      ok = false;
#endif
    } else {
      ok = TIFFReadEncodedTile(t, i, tile.data(), tile_size) == tile_size;
    }
    if (ok) copy_tile_in(tile.data(), i);
  }
  TIFFClose(t);
  return ok;
}

void BM_Tiff_Write(benchmark::State &state) {
  const Codec &c = kCodecs[state.range(0)];
  const std::string name = path("tiff_w");
  page();
  std::memset(target().p, 0, page_bytes());
  if (!zt::bench::check(state,
                        tiff_write(c, name) && tiff_read(c, name) &&
                            std::memcmp(target().p, page().p, page_bytes()) == 0,
                        "the TIFF page written does not read back"))
    return;
  for (auto _ : state)
    if (!tiff_write(c, name)) state.SkipWithError("TIFF write failed");
  set_counters(state, file_size(name));
  std::remove(name.c_str());
}

void BM_Tiff_Read(benchmark::State &state) {
  const Codec &c = kCodecs[state.range(0)];
  const std::string name = path("tiff_r");
  if (!tiff_write(c, name)) state.SkipWithError("TIFF write failed");
  std::memset(target().p, 0, page_bytes());
  if (!zt::bench::check(state, tiff_read(c, name) && std::memcmp(target().p, page().p, page_bytes()) == 0,
                        "TIFF page does not read back"))
    return;
  for (auto _ : state)
    if (!tiff_read(c, name)) state.SkipWithError("TIFF read failed");
  set_counters(state, file_size(name));
  std::remove(name.c_str());
}
#endif

void BM_Memcpy_Page(benchmark::State &state) {
  page();
  target();
  for (auto _ : state) {
    std::memcpy(target().p, page().p, page_bytes());
    benchmark::ClobberMemory();
  }
  set_counters(state, 0);
}

// ---- The table -------------------------------------------------------------------------

void print_table(const zt::bench::Results &r) {
  char title[128];
  std::snprintf(title, sizeof title, "VLIMG tiled %u x %u CMYK page, %u^2 tiles (MB/s of page data, medians)", g_side,
                g_side, kTile);
  zt::bench::Table table(title, "MB/s");
  for (int c = 0; c < 5; ++c) {
    const std::string n = kCodecs[c].name, idx = std::to_string(c);
    const bool real = c != 0;
    for (const char *op : {"Write", "Read"}) {
      const bool zlib_peer = c == 2 && std::strcmp(op, "Write") == 0;
      const std::string peer =
          std::string("BM_Tiff_") + op + "/" + (zlib_peer ? std::to_string(kZlibDeflate) : idx);
      const std::string ours = std::string("BM_Vlimg_") + op + "/" + idx;
      const std::string vs = zlib_peer ? " vs libtiff (zlib)" : " vs libtiff";
      table.row(n + " " + op + " 1T" + vs, r.value(ours + "/1", "MB/s"), r.value(peer, "MB/s"),
                zt::bench::Goal::ratio(1.0));
      table.row(n + " " + op + " 2T" + vs, r.value(ours + "/2", "MB/s"), r.value(peer, "MB/s"),
                real ? zt::bench::Goal::ratio(1.8) : zt::bench::Goal::none());
      if (zlib_peer) {
        const std::string deflate_peer = std::string("BM_Tiff_Write/") + idx;
        table.row(n + " Write 1T vs libtiff (libdeflate)", r.value(ours + "/1", "MB/s"),
                  r.value(deflate_peer, "MB/s"), zt::bench::Goal::none());
        table.row(n + " Write 2T vs libtiff (libdeflate)", r.value(ours + "/2", "MB/s"),
                  r.value(deflate_peer, "MB/s"), zt::bench::Goal::none());
      }
      if (!real)
        table.row(n + " " + op + " 1T vs memcpy", r.value(ours + "/1", "MB/s"), r.value("BM_Memcpy_Page", "MB/s"),
                  zt::bench::Goal::ratio(0.5));
    }
  }
  table.print();
}

void register_all() {
  for (int c = 0; c < 5; ++c) {
    for (int threads : {1, 2}) {
      benchmark::RegisterBenchmark("BM_Vlimg_Write", BM_Vlimg_Write)
          ->Args({c, threads})
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("BM_Vlimg_Read", BM_Vlimg_Read)
          ->Args({c, threads})
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    }
#ifdef ZT_HAVE_TIFF
    benchmark::RegisterBenchmark("BM_Tiff_Write", BM_Tiff_Write)
        ->Arg(c)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_Tiff_Read", BM_Tiff_Read)
        ->Arg(c)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    if (c == 2)
      benchmark::RegisterBenchmark("BM_Tiff_Write", BM_Tiff_Write)
          ->Arg(kZlibDeflate)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
#endif
  }
  benchmark::RegisterBenchmark("BM_Memcpy_Page", BM_Memcpy_Page)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char **argv) {
  bool small = false;
  for (int i = 1; i < argc; ++i) {
    const char *prefix = "--benchmark_min_time=";
    if (std::strncmp(argv[i], prefix, std::strlen(prefix)) == 0 &&
        std::atof(argv[i] + std::strlen(prefix)) < 0.1)
      small = true;
  }
  if (const char *full = std::getenv("ZT_BENCH_FULL"); full != nullptr && std::atoi(full) != 0)
    g_side = 16000;
  else if (small)
    g_side = 1024;
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  register_all();
  zt::bench::Results reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  print_table(reporter);
  benchmark::Shutdown();
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
