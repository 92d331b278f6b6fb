// The tiled image buffer on a CMYK 8-bit page, beside a plain LRU write-back
// tile store written here (one list, fixed slots, raw or LZ4 swap) in the
// same run and under the same cache size, with swap files on tmpfs:
//   Fill       the page written scanline by scanline
//   Columns    read back column by column
//   Scanlines  read back scanline by scanline (ours: the sequential reader)
//   RandomTiles  256 x 256 tiles fetched at random from a tiled VLIMG page
//              (tiles/s, single-threaded; no peer, goal 9,000 tiles/s)
//   Rotate90   the whole page turned a quarter, beside libvips' vips_rot
//              (what `vips rot in.v out.v d90` runs) from an mmapped page to
//              a .v file on the same tmpfs; peak memory of each
// Both fill passes end with the dirty tiles written back (see fill()).
// Counters are Mpixel/s (tiles/s for RandomTiles). Every output is checked
// once before it is timed. By default a 2,048-pixel page in a 4 MiB cache
// keeps the smoke run short; ZT_BENCH_FULL=1 runs the 16,000 x 16,000 page
// (1 GB) in a 32 MiB cache, three repetitions each, medians in the table.
// ZT_BENCH_DIR names the swap directory (default /dev/shm).
#include <benchmark/benchmark.h>
#include <lz4.h>
#include <zt/imagebuf.h>
#include <zt/init.h>
#include <zt/vlimg.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bench_support.h"

#if defined(ZT_HAVE_VIPS)
#include <vips/vips.h>
#endif

namespace {

constexpr uint32_t kChannels = 4, kTile = 256;

struct Config {
  bool full = std::getenv("ZT_BENCH_FULL") != nullptr && std::string(std::getenv("ZT_BENCH_FULL")) == "1";
  uint32_t side = full ? 16000 : 2048;
  int64_t cache = full ? (int64_t{32} << 20) : (int64_t{4} << 20);
  std::string dir = std::getenv("ZT_BENCH_DIR") != nullptr ? std::getenv("ZT_BENCH_DIR") : "/dev/shm";
  int repetitions = full ? 3 : 1;
};
const Config &config() {
  static const Config c;
  return c;
}

// The page, made up as it is needed: runs and gradients, so LZ4 has work to do.
inline uint8_t sample(uint32_t x, uint32_t y, uint32_t c) {
  return static_cast<uint8_t>(((x >> 4) * (c + 1) + (y >> 3) * 3 + ((x ^ y) & 7) * c) & 0xFF);
}
void make_row(uint32_t y, uint32_t x0, uint32_t w, uint8_t *row) {
  for (uint32_t x = 0; x < w; ++x)
    for (uint32_t c = 0; c < kChannels; ++c) row[size_t{x} * kChannels + c] = sample(x0 + x, y, c);
}

// Page-aligned, separately allocated buffers for ours and the peer alike.
struct Aligned {
  explicit Aligned(size_t n) : size(n) {
    void *p = nullptr;
    if (posix_memalign(&p, 4096, std::max<size_t>(n, 1)) != 0) std::abort();
    data = static_cast<uint8_t *>(p);
    std::memset(data, 0, n);
  }
  ~Aligned() { std::free(data); }
  Aligned(const Aligned &) = delete;
  Aligned &operator=(const Aligned &) = delete;
  uint8_t *data;
  size_t size;
};

// ---- The peer: a plain LRU write-back tile store -----------------------------

class PlainStore {
 public:
  PlainStore(uint32_t w, uint32_t h, int64_t cache, const std::string &dir, bool lz4)
      : w_(w), h_(h), across_((w + kTile - 1) / kTile), lz4_(lz4) {
    tile_bytes_ = size_t{kTile} * kTile * kChannels;
    const size_t tiles = size_t{across_} * ((h + kTile - 1) / kTile);
    slot_of_.assign(tiles, -1);
    offset_.assign(tiles, -1);
    length_.assign(tiles, 0);
    const size_t n = std::max<size_t>(1, static_cast<size_t>(cache) / tile_bytes_);
    slots_.resize(n);
    for (auto &s : slots_) s.mem = std::make_unique<Aligned>(tile_bytes_);
    packed_.resize(LZ4_compressBound(static_cast<int>(tile_bytes_)));
    name_ = dir + "/plainstore_" + std::to_string(getpid()) + (lz4 ? "_lz4" : "_raw");
    fd_ = ::open(name_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  }
  ~PlainStore() {
    ::close(fd_);
    ::unlink(name_.c_str());
  }
  void put_row(uint32_t y, const uint8_t *row) {
    for (uint32_t tx = 0; tx < across_; ++tx) {
      const uint32_t x0 = tx * kTile, n = std::min(kTile, w_ - x0);
      uint8_t *t = tile(y / kTile * across_ + tx, true);
      std::memcpy(t + size_t{y % kTile} * kTile * kChannels, row + size_t{x0} * kChannels, size_t{n} * kChannels);
    }
  }
  void get_row(uint32_t y, uint8_t *row) {
    for (uint32_t tx = 0; tx < across_; ++tx) {
      const uint32_t x0 = tx * kTile, n = std::min(kTile, w_ - x0);
      const uint8_t *t = tile(y / kTile * across_ + tx, false);
      std::memcpy(row + size_t{x0} * kChannels, t + size_t{y % kTile} * kTile * kChannels, size_t{n} * kChannels);
    }
  }
  // Writes every dirty slot back and keeps it, clean.
  void flush() {
    for (Slot &s : slots_)
      if (s.tile >= 0 && s.dirty) {
        write_back(static_cast<size_t>(s.tile), s.mem->data);
        s.dirty = false;
      }
  }
  void get_column(uint32_t x, uint8_t *col) {
    for (uint32_t ty = 0; ty * kTile < h_; ++ty) {
      const uint32_t y0 = ty * kTile, n = std::min(kTile, h_ - y0);
      const uint8_t *t = tile(ty * across_ + x / kTile, false) + size_t{x % kTile} * kChannels;
      for (uint32_t j = 0; j < n; ++j)
        std::memcpy(col + size_t{y0 + j} * kChannels, t + size_t{j} * kTile * kChannels, kChannels);
    }
  }

 private:
  struct Slot {
    std::unique_ptr<Aligned> mem;
    int64_t tile = -1;
    bool dirty = false;
    int prev = -1, next = -1;
  };
  void unlink_slot(int i) {
    Slot &s = slots_[i];
    (s.prev >= 0 ? slots_[s.prev].next : head_) = s.next;
    (s.next >= 0 ? slots_[s.next].prev : tail_) = s.prev;
    s.prev = s.next = -1;
  }
  void push_front(int i) {
    slots_[i].next = head_;
    slots_[i].prev = -1;
    (head_ >= 0 ? slots_[head_].prev : tail_) = i;
    head_ = i;
  }
  uint8_t *tile(size_t t, bool write) {
    int i = slot_of_[t];
    if (i >= 0) {
      if (head_ != i) {
        unlink_slot(i);
        push_front(i);
      }
    } else {
      if (used_ < slots_.size()) {
        i = static_cast<int>(used_++);
      } else {
        i = tail_;
        unlink_slot(i);
        Slot &old = slots_[i];
        if (old.dirty) write_back(static_cast<size_t>(old.tile), old.mem->data);
        slot_of_[old.tile] = -1;
      }
      Slot &s = slots_[i];
      s.tile = static_cast<int64_t>(t);
      s.dirty = false;
      slot_of_[t] = i;
      if (offset_[t] >= 0)
        read_back(t, s.mem->data);
      else
        std::memset(s.mem->data, 0, tile_bytes_);
      push_front(i);
    }
    if (write) slots_[i].dirty = true;
    return slots_[i].mem->data;
  }
  void write_back(size_t t, const uint8_t *mem) {
    const uint8_t *data = mem;
    size_t n = tile_bytes_;
    if (lz4_) {
      n = static_cast<size_t>(LZ4_compress_default(reinterpret_cast<const char *>(mem), packed_.data(),
                                                   static_cast<int>(tile_bytes_), static_cast<int>(packed_.size())));
      data = reinterpret_cast<const uint8_t *>(packed_.data());
      if (offset_[t] < 0 || n > length_[t]) {
        offset_[t] = end_;
        end_ += static_cast<int64_t>(n);
      }
    } else if (offset_[t] < 0) {
      offset_[t] = static_cast<int64_t>(t * tile_bytes_);
    }
    length_[t] = n;
    if (::pwrite(fd_, data, n, offset_[t]) != static_cast<ssize_t>(n)) std::abort();
  }
  void read_back(size_t t, uint8_t *mem) {
    if (!lz4_) {
      if (::pread(fd_, mem, tile_bytes_, offset_[t]) != static_cast<ssize_t>(tile_bytes_)) std::abort();
      return;
    }
    if (::pread(fd_, packed_.data(), length_[t], offset_[t]) != static_cast<ssize_t>(length_[t])) std::abort();
    LZ4_decompress_safe(packed_.data(), reinterpret_cast<char *>(mem), static_cast<int>(length_[t]),
                        static_cast<int>(tile_bytes_));
  }

  uint32_t w_, h_, across_;
  bool lz4_;
  size_t tile_bytes_ = 0, used_ = 0;
  std::vector<Slot> slots_;
  std::vector<int> slot_of_;
  std::vector<int64_t> offset_;
  std::vector<size_t> length_;
  std::vector<char> packed_;
  int head_ = -1, tail_ = -1;
  int fd_ = -1;
  int64_t end_ = 0;
  std::string name_;
};

// ---- Ours, the peers, and what the passes share ---------------------------------

struct BufDeleter {
  void operator()(ZT_ImageBuf *b) const { ZT_ImageBufFree(b); }
};
using BufPtr = std::unique_ptr<ZT_ImageBuf, BufDeleter>;

enum Kind { kOurs = 0, kPlainRaw = 1, kPlainLz4 = 2 };
const char *const kKindNames[] = {"ours", "plain_raw", "plain_lz4"};

BufPtr g_ours;
int g_turns = 0;  // quarter turns the page in g_ours has had since it was filled
std::unique_ptr<PlainStore> g_plain[3];

void fill(Kind kind) {
  const Config &c = config();
  Aligned row(size_t{c.side} * kChannels);
  if (kind == kOurs) {
    g_ours.reset(ZT_ImageBufInit(0, 8, c.side, c.side, kChannels, 0, c.dir.c_str(), nullptr));
    g_turns = 0;
    if (!g_ours) std::abort();
  } else {
    g_plain[kind].reset();
    g_plain[kind] = std::make_unique<PlainStore>(c.side, c.side, c.cache, c.dir, kind == kPlainLz4);
  }
  for (uint32_t y = 0; y < c.side; ++y) {
    make_row(y, 0, c.side, row.data);
    if (kind == kOurs)
      ZT_ImageBufPutScanline(g_ours.get(), y, row.data);
    else
      g_plain[kind]->put_row(y, row.data);
  }
  // A finished page is flushed: our cache evicts clean tiles before dirty
  // ones, so a reader that follows a writer would otherwise cycle through the
  // few clean slots while the dirty ones sit. The peer flushes too, so that
  // both passes end with the same bytes written and neither read pass pays
  // for the other's write-back.
  if (kind == kOurs)
    ZT_ImageBufFlush(g_ours.get());
  else
    g_plain[kind]->flush();
}

// Reads the page back by columns or by lines; with `check`, every sample.
bool read_back(Kind kind, bool columns, bool check) {
  const Config &c = config();
  Aligned line(size_t{c.side} * kChannels);
  bool ok = true;
  for (uint32_t i = 0; i < c.side; ++i) {
    if (kind == kOurs) {
      ok &= (columns ? ZT_ImageBufGetColumn(g_ours.get(), i, line.data)
                     : ZT_ImageBufReadScanlineFast(g_ours.get(), i, line.data)) == 0;
    } else if (columns) {
      g_plain[kind]->get_column(i, line.data);
    } else {
      g_plain[kind]->get_row(i, line.data);
    }
    if (check)
      for (uint32_t j = 0; j < c.side; ++j)
        for (uint32_t ch = 0; ch < kChannels; ++ch)
          ok &= line.data[size_t{j} * kChannels + ch] == (columns ? sample(i, j, ch) : sample(j, i, ch));
  }
  return ok;
}

void set_pixels(benchmark::State &state, double pixels_per_iteration) {
  state.counters["Mpx_s"] =
      benchmark::Counter(pixels_per_iteration / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Fill(benchmark::State &state, Kind kind) {
  for (auto _ : state) fill(kind);
  set_pixels(state, double(config().side) * config().side);
}

void BM_Read(benchmark::State &state, Kind kind, bool columns) {
  // Repetitions are interleaved: a turned page is filled again, untimed.
  if (kind == kOurs ? !g_ours || g_turns % 4 != 0 : !g_plain[kind]) fill(kind);
  static bool checked[3][2] = {};
  if (!checked[kind][columns]) {
    checked[kind][columns] = true;
    if (!zt::bench::check(state, read_back(kind, columns, true), "the page read back differs")) return;
  }
  for (auto _ : state) read_back(kind, columns, false);
  set_pixels(state, double(config().side) * config().side);
}

// ---- Random tiles from a tiled VLIMG page ----------------------------------------

std::string g_vlimg_name;

bool write_tiled_vlimg() {
  const Config &c = config();
  g_vlimg_name = c.dir + "/imagebuf_bench_" + std::to_string(getpid()) + ".vlimg";
  VLIMG_File *file = VLIMG_Open(g_vlimg_name.c_str(), VLIMG_MODE_CREATE);
  if (file == nullptr) return false;
  const uint32_t type = VLIMG_IMAGETYPE_CMYK, compression = VLIMG_COMPRESSION_NONE, bpp[4] = {8, 8, 8, 8};
  bool ok = VLIMG_SetField(file, VLIMG_TAG_WIDTH, &c.side) == 0 && VLIMG_SetField(file, VLIMG_TAG_HEIGHT, &c.side) == 0 &&
            VLIMG_SetField(file, VLIMG_TAG_IMAGETYPE, &type) == 0 &&
            VLIMG_SetField(file, VLIMG_TAG_COMPRESSION, &compression) == 0 &&
            VLIMG_SetField(file, VLIMG_TAG_BPP_ARRAY, bpp) == 0 && VLIMG_EnableTiling(file, kTile, kTile) == 0;
  const uint32_t across = (c.side + kTile - 1) / kTile;
  Aligned tile(size_t{kTile} * kTile * kChannels);
  for (uint32_t t = 0; ok && t < across * across; ++t) {
    const uint32_t x0 = t % across * kTile, y0 = t / across * kTile;
    const uint32_t w = std::min(kTile, c.side - x0), h = std::min(kTile, c.side - y0);
    for (uint32_t j = 0; j < h; ++j) make_row(y0 + j, x0, w, tile.data + size_t{j} * w * kChannels);
    ok = VLIMG_WriteTile(file, t, tile.data, w * kChannels) == 0;
  }
  return VLIMG_Close(file) == 0 && ok;
}

void BM_RandomTiles(benchmark::State &state) {
  const Config &c = config();
  g_plain[kPlainRaw].reset();
  g_plain[kPlainLz4].reset();
  if (g_vlimg_name.empty() && !write_tiled_vlimg()) {
    state.SkipWithError("cannot write the tiled page");
    return;
  }
  BufPtr buf(ZT_ImageBufInit(0, 8, 1, 1, 1, 0, c.dir.c_str(), nullptr));
  if (!buf || ZT_ImageBufSetTilesFromFilename(buf.get(), g_vlimg_name.c_str(), 0) != 0 ||
      ZT_ImageBufSetTilesFromFileProperties(buf.get()) != 0) {
    state.SkipWithError("cannot take tiles from the page");
    return;
  }
  const uint32_t across = (c.side + kTile - 1) / kTile, full_tiles = c.side / kTile;
  Aligned out(size_t{kTile} * kTile * kChannels);
  std::mt19937 rng(1);
  // Whole tiles only, so every fetch moves the same bytes.
  auto fetch = [&](uint32_t t) {
    const uint32_t tx = t % full_tiles, ty = t / full_tiles;
    return ZT_ImageBufGetRectangle(buf.get(), tx * kTile, ty * kTile, kTile, kTile, out.data, 0);
  };
  (void)across;
  if (!zt::bench::check(state,
                        fetch(full_tiles + 1) == 0 && out.data[0] == sample(kTile, kTile, 0) &&
                            out.data[(size_t{kTile} * 17 + 5) * kChannels + 2] == sample(kTile + 5, kTile + 17, 2),
                        "tile fetched wrong"))
    return;
  const int fetches = c.full ? 20000 : 500;
  for (auto _ : state)
    for (int i = 0; i < fetches; ++i) fetch(rng() % (full_tiles * full_tiles));
  state.counters["tiles_s"] = benchmark::Counter(fetches, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["Mpx_s"] = benchmark::Counter(double(fetches) * kTile * kTile / 1e6,
                                               benchmark::Counter::kIsIterationInvariantRate);
}

// ---- Rotation ---------------------------------------------------------------------

// The process's peak resident size since the last reset, in MiB.
void reset_peak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}
double peak_mib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0;
}

double g_peak_ours = 0, g_peak_vips = 0;

void BM_Rotate90(benchmark::State &state) {
  const Config &c = config();
  if (!g_ours) fill(kOurs);
  // The peers' slots are not part of the rotation's memory: freed, and handed
  // back to the system, since the allocator keeps freed heap pages resident.
  g_plain[kPlainRaw].reset();
  g_plain[kPlainLz4].reset();
  malloc_trim(0);
  // Quarter turns keep a square page square; the first is checked against
  // the formula, the timed ones follow.
  static bool checked = false;
  if (!checked && g_turns % 4 != 0) fill(kOurs);
  if (!checked && ZT_ImageBufRotate90(g_ours.get()) != 0) {
    state.SkipWithError("rotation failed");
    return;
  }
  uint8_t px[4];
  std::mt19937 rng(3);
  for (int i = 0; !checked && i < 1000; ++i) {
    const uint32_t x = rng() % c.side, y = rng() % c.side;
    // A quarter turn clockwise: pixel (x, y) came from (y, side - 1 - x).
    ZT_ImageBufGetPixel(g_ours.get(), x, y, px);
    if (!zt::bench::check(state, px[1] == sample(y, c.side - 1 - x, 1), "rotated page differs")) return;
  }
  if (!checked) ++g_turns;
  checked = true;
  reset_peak();
  for (auto _ : state) {
    ZT_ImageBufRotate90(g_ours.get());
    ++g_turns;
  }
  g_peak_ours = std::max(g_peak_ours, peak_mib());
  set_pixels(state, double(c.side) * c.side);
}

#if defined(ZT_HAVE_VIPS)
std::string g_raw_name;

void BM_Rotate90_vips(benchmark::State &state) {
  const Config &c = config();
  g_ours.reset();
  malloc_trim(0);  // as for ours: the freed page is not the peer's memory
  if (g_raw_name.empty()) {
    g_raw_name = c.dir + "/imagebuf_bench_" + std::to_string(getpid()) + ".raw";
    FILE *f = std::fopen(g_raw_name.c_str(), "wb");
    Aligned row(size_t{c.side} * kChannels);
    for (uint32_t y = 0; f != nullptr && y < c.side; ++y) {
      make_row(y, 0, c.side, row.data);
      std::fwrite(row.data, 1, row.size, f);
    }
    if (f == nullptr || std::fclose(f) != 0) {
      state.SkipWithError("cannot write the raw page");
      return;
    }
  }
  const std::string out_name = c.dir + "/imagebuf_bench_" + std::to_string(getpid()) + "_rot.v";
  auto rotate = [&]() {
    VipsImage *in = nullptr, *out = nullptr;
    bool ok = vips_rawload(g_raw_name.c_str(), &in, static_cast<int>(c.side), static_cast<int>(c.side),
                           static_cast<int>(kChannels), nullptr) == 0 &&
              vips_rot(in, &out, VIPS_ANGLE_D90, nullptr) == 0 && vips_image_write_to_file(out, out_name.c_str(), nullptr) == 0;
    if (out) g_object_unref(out);
    if (in) g_object_unref(in);
    return ok;
  };
  reset_peak();
  for (auto _ : state)
    if (!rotate()) {
      state.SkipWithError(vips_error_buffer());
      vips_error_clear();
      break;
    }
  g_peak_vips = std::max(g_peak_vips, peak_mib());
  ::unlink(out_name.c_str());
  set_pixels(state, double(c.side) * c.side);
}
#endif

void register_all() {
  const int reps = config().repetitions;
  auto add = [&](const std::string &name, auto fn) {
    auto *b = benchmark::RegisterBenchmark(name.c_str(), fn);
    b->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    if (reps > 1) b->Repetitions(reps)->ReportAggregatesOnly(true);
  };
  for (int k = 0; k < 3; ++k) {
    const Kind kind = static_cast<Kind>(k);
    const std::string n = kKindNames[k];
    add("ImageBuf_Fill/" + n, [kind](benchmark::State &s) { BM_Fill(s, kind); });
    add("ImageBuf_Columns/" + n, [kind](benchmark::State &s) { BM_Read(s, kind, true); });
    add("ImageBuf_Scanlines/" + n, [kind](benchmark::State &s) { BM_Read(s, kind, false); });
  }
  add("ImageBuf_RandomTiles/ours", BM_RandomTiles);
  add("ImageBuf_Rotate90/ours", BM_Rotate90);
#if defined(ZT_HAVE_VIPS)
  add("ImageBuf_Rotate90/vips", BM_Rotate90_vips);
#endif
}

}  // namespace

int main(int argc, char **argv) {
  ZT_InitSubSystems();
  ZT_ImageBufSetCacheSize(config().cache);
#if defined(ZT_HAVE_VIPS)
  if (VIPS_INIT(argv[0]) != 0) return 1;
#endif
  // The full run shares the machine for minutes: repetitions of ours and of
  // the peers are interleaved so that a slow spell does not fall on one side.
  std::vector<char *> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  if (config().full) args.push_back(interleave.data());
  argc = static_cast<int>(args.size());
  argv = args.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  register_all();
  zt::bench::Results reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const Config &c = config();
  char title[160];
  std::snprintf(title, sizeof title, "%u x %u CMYK 8-bit page, cache %lld MiB, swap in %s (Mpixel/s, medians)", c.side,
                c.side, static_cast<long long>(c.cache >> 20), c.dir.c_str());
  zt::bench::Table table(title, "Mpx/s");
  for (const char *pass : {"Fill", "Columns", "Scanlines"}) {
    const double ours = reporter.value(std::string("ImageBuf_") + pass + "/ours", "Mpx_s");
    for (const char *peer : {"plain_raw", "plain_lz4"})
      table.row(std::string(pass) + " vs " + peer, ours,
                reporter.value(std::string("ImageBuf_") + pass + "/" + peer, "Mpx_s"),
                zt::bench::Goal::ratio(std::string(pass) == "Columns" ? 2.0 : 1.0));
  }
  table.row("RandomTiles (tiles/s)", reporter.value("ImageBuf_RandomTiles/ours", "tiles_s"), 0,
            zt::bench::Goal::at_least(9000));
  table.row("Rotate90 vs vips_rot", reporter.value("ImageBuf_Rotate90/ours", "Mpx_s"),
            reporter.value("ImageBuf_Rotate90/vips", "Mpx_s"), zt::bench::Goal::ratio(1.0));
  table.row_lower_is_better("Rotate90 peak MiB", g_peak_ours, g_peak_vips,
                            zt::bench::Goal::at_most(double((c.cache >> 20) + 64)));
  table.print();
  if (!g_vlimg_name.empty()) ::unlink(g_vlimg_name.c_str());
#if defined(ZT_HAVE_VIPS)
  if (!g_raw_name.empty()) ::unlink(g_raw_name.c_str());
  vips_shutdown();
#endif
  g_ours.reset();
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
