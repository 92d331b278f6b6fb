// Screening speed per channel on an 8192-pixel page line: error diffusion
// (2 and 4 levels) beside a plain serial Floyd-Steinberg, the threshold,
// mask, 16-bit and pattern modes beside a plain C threshold loop, four
// channels on the default queue beside one, and object creation with and
// without the weight cache. Before timing, error diffusion is checked against
// a straightforward transcription of its steps, and every other mode's output
// at the best dispatch level against the baseline form's (same bytes, 16
// lines).
// The closing table gives Mpix/s (medians) against absolute goals, the peer's
// speed beside.
#include <benchmark/benchmark.h>
#include <zt/cpu.h>
#include <zt/init.h>
#include <zt/random.h>
#include <zt/screening.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

constexpr uint32_t kWidth = 8192;
uint32_t g_lines = 64;  // lines a run screens (fewer in a smoke run)

// Page-aligned buffers, one allocation each, for ours and the peers alike.
struct Buffer {
  explicit Buffer(size_t n) : size(n) {
    if (posix_memalign(&p, 4096, n == 0 ? 1 : n) != 0) std::abort();
    std::memset(p, 0, n);
  }
  ~Buffer() { std::free(p); }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  uint8_t *u8() const { return static_cast<uint8_t *>(p); }
  void *p = nullptr;
  size_t size;
};

// A smooth page: a ramp across with a gentle wave down, both depths.
const Buffer &page8() {
  static Buffer b(size_t(kWidth) * 256);
  static bool made = false;
  if (!made) {
    for (uint32_t y = 0; y < 256; ++y)
      for (uint32_t x = 0; x < kWidth; ++x)
        b.u8()[size_t(y) * kWidth + x] = static_cast<uint8_t>((x * 255 / kWidth + y) % 256);
    made = true;
  }
  return b;
}

const Buffer &page16() {
  static Buffer b(size_t(kWidth) * 256 * 2);
  static bool made = false;
  if (!made) {
    uint16_t *p = static_cast<uint16_t *>(b.p);
    for (size_t i = 0; i < size_t(kWidth) * 256; ++i)
      p[i] = static_cast<uint16_t>(page8().u8()[i] * 257 + (i % 97));
    made = true;
  }
  return b;
}

struct ObjectDeleter {
  void operator()(ScreeningObject *o) const { DestroyScreeningObject(o); }
};
using Object = std::unique_ptr<ScreeningObject, ObjectDeleter>;

Object make(uint32_t mode, uint32_t levels, uint32_t bits, uint32_t input_bits = 8, uint32_t channel = 0) {
  ScreeningSettings s{};
  s.mode = mode;
  s.levels = levels;
  s.outputBits = bits;
  s.linesPerInch = 150;
  s.angle = 15;
  s.resolutionX = s.resolutionY = 600;
  s.channel = channel;
  return Object(CreateScreeningObject(&s, kWidth, input_bits));
}

// The stated error diffusion, step by step, for the check.
void reference_ed(ScreeningObject *o, const uint8_t *in, uint8_t *out, std::vector<int32_t> &cur,
                  std::vector<int32_t> &next, const int32_t *&w, bool &rtl) {
  std::memset(out, 0, o->outputBytes);
  const int dir = rtl ? -1 : 1;
  long x = rtl ? kWidth - 1 : 0;
  next[4 + x] = 0;
  next[4 + x - dir] = 0;
  int32_t c = 0;
  for (uint32_t i = 0; i < kWidth; ++i, x += dir) {
    next[4 + x + dir] = 0;
    if (in[x] == 0) continue;
    const int32_t value = in[x] + int32_t((int64_t(c) + cur[4 + x]) / 8192);
    if (value == 0) continue;
    uint32_t level = 0;
    for (uint32_t l = o->levels - 1; l >= 1; --l)
      if (value > o->thresholds[l]) {
        level = l;
        break;
      }
    const int32_t e = value - o->densities[level];
    for (uint32_t p = 0; p < o->outputPlanes; ++p)
      if ((o->dotCodes[level] >> p) & 1u) out[p * o->bytesPerPlane + x / 8] |= uint8_t(0x80u >> (x & 7));
    if (e != 0) {
      next[4 + x - dir] += w[0] * e;
      next[4 + x + dir] = w[1] * e;
      next[4 + x] += w[3] * e;
      c = w[2] * e;
      w += 4;
      if (w == o->weightTableEnd) w = o->weightTable;
    }
  }
  std::swap(cur, next);
  rtl = !rtl;
}

bool check_ed(uint32_t levels, uint32_t planes) {
  Object o = make(ZT_SCREEN_STOCHASTIC, levels, planes);
  std::vector<int32_t> cur(kWidth + 8, 0), next(kWidth + 8, 0);
  const int32_t *w = o->weightCursor;
  bool rtl = false;
  Buffer line(kWidth), a(o->outputBytes), b(o->outputBytes);
  for (uint32_t y = 0; y < 64; ++y) {
    std::memcpy(line.p, page8().u8() + size_t(y) * kWidth, kWidth);
    reference_ed(o.get(), line.u8(), b.u8(), cur, next, w, rtl);
    o->screenScanline(o.get(), line.p, a.u8(), kWidth, y);
    if (std::memcmp(a.p, b.p, o->outputBytes) != 0) return false;
  }
  return true;
}

// Peer: serial Floyd-Steinberg, 7/3/5/1 sixteenths, raster order, 1 bit.
void BM_Peer_FloydSteinberg(benchmark::State &state) {
  std::vector<int32_t> rows(2 * (kWidth + 2), 0);
  Buffer out(kWidth / 8);
  const uint8_t *page = page8().u8();
  for (auto _ : state) {
    for (uint32_t y = 0; y < g_lines; ++y) {
      int32_t *cur = &rows[(y & 1) * (kWidth + 2) + 1], *next = &rows[((y + 1) & 1) * (kWidth + 2) + 1];
      std::memset(next - 1, 0, (kWidth + 2) * sizeof(int32_t));
      std::memset(out.p, 0, kWidth / 8);
      const uint8_t *in = page + size_t(y % 256) * kWidth;
      for (int x = 0; x < int(kWidth); ++x) {
        const int32_t v = in[x] * 16 + cur[x];
        const int32_t q = v >= 128 * 16 ? 255 * 16 : 0;
        if (q != 0) out.u8()[x >> 3] |= uint8_t(0x80u >> (x & 7));
        const int32_t e = v - q;
        cur[x + 1] += e * 7 / 16;
        next[x - 1] += e * 3 / 16;
        next[x] += e * 5 / 16;
        next[x + 1] += e / 16;
      }
    }
    benchmark::DoNotOptimize(out.p);
  }
  state.counters["Mpix/s"] =
      benchmark::Counter(double(kWidth) * g_lines * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

// Peer: a plain C threshold loop against a 16 x 16 matrix, 1 bit a pixel.
void BM_Peer_Threshold(benchmark::State &state) {
  uint8_t matrix[256];
  for (int i = 0; i < 256; ++i) matrix[i] = uint8_t((i * 97) & 0xFF);
  Buffer out(kWidth / 8);
  const uint8_t *page = page8().u8();
  for (auto _ : state) {
    for (uint32_t y = 0; y < g_lines; ++y) {
      const uint8_t *in = page + size_t(y % 256) * kWidth;
      const uint8_t *row = matrix + (y & 15) * 16;
      std::memset(out.p, 0, kWidth / 8);
      for (uint32_t x = 0; x < kWidth; ++x)
        if (in[x] > row[x & 15]) out.u8()[x >> 3] |= uint8_t(0x80u >> (x & 7));
    }
    benchmark::DoNotOptimize(out.p);
  }
  state.counters["Mpix/s"] =
      benchmark::Counter(double(kWidth) * g_lines * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

// The first 16 lines through a fresh object at `level`, outputs end to end.
std::vector<uint8_t> screened(int32_t level, uint32_t mode, uint32_t levels, uint32_t planes, uint32_t bits) {
  const int32_t saved = ZT_SimdLevel();
  ZT_SetSimdLevel(level);
  Object o = make(mode, levels, planes, bits);
  std::vector<uint8_t> all;
  if (o != nullptr) {
    const size_t sample = bits == 16 ? 2 : 1;
    Buffer line(kWidth * sample), out(o->outputBytes);
    const uint8_t *page = bits == 16 ? page16().u8() : page8().u8();
    for (uint32_t y = 0; y < 16; ++y) {
      std::memcpy(line.p, page + size_t(y) * kWidth * sample, kWidth * sample);
      o->screenScanline(o.get(), line.p, out.u8(), kWidth, y);
      all.insert(all.end(), out.u8(), out.u8() + o->outputBytes);
    }
  }
  ZT_SetSimdLevel(saved);
  return all;
}

// Ours: mode, levels, planes, input bits.
void BM_Ours(benchmark::State &state) {
  const uint32_t mode = uint32_t(state.range(0)), levels = uint32_t(state.range(1)),
                 planes = uint32_t(state.range(2)), bits = uint32_t(state.range(3));
  Object o = make(mode, levels, planes, bits);
  if (o == nullptr) {
    state.SkipWithError("object not created");
    return;
  }
  // Error diffusion draws its weights afresh for every object, so two objects
  // never agree; it is checked against its steps instead (check_ed).
  if (mode != ZT_SCREEN_STOCHASTIC) {
    const std::vector<uint8_t> best = screened(ZT_SimdBestLevel(), mode, levels, planes, bits);
    if (!zt::bench::check(state, !best.empty() && best == screened(ZT_SIMD_BASELINE, mode, levels, planes, bits),
                          "mode " + std::to_string(mode) + ": the vector form differs from the baseline"))
      return;
  }
  const size_t sample = bits == 16 ? 2 : 1;
  Buffer line(kWidth * sample), out(o->outputBytes);
  const uint8_t *page = bits == 16 ? page16().u8() : page8().u8();
  for (auto _ : state) {
    for (uint32_t y = 0; y < g_lines; ++y) {
      // The object may change its input in place (input table): a fresh copy.
      std::memcpy(line.p, page + size_t(y % 256) * kWidth * sample, kWidth * sample);
      o->screenScanline(o.get(), line.p, out.u8(), kWidth, y);
    }
    benchmark::DoNotOptimize(out.p);
  }
  state.counters["Mpix/s"] =
      benchmark::Counter(double(kWidth) * g_lines * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

// Four error-diffusion channels: on the default queue (arg 1) or one after
// another (arg 0). Pixels counted per page line of four channels.
void BM_FourChannels(benchmark::State &state) {
  const bool parallel = state.range(0) != 0;
  std::vector<Object> objects;
  std::vector<ScreeningObject *> raw;
  std::vector<std::unique_ptr<Buffer>> in, out;
  std::vector<void *> ins;
  std::vector<uint8_t *> outs;
  for (uint32_t c = 0; c < 4; ++c) {
    objects.push_back(make(ZT_SCREEN_STOCHASTIC, 2, 1, 8, c));
    raw.push_back(objects.back().get());
    in.push_back(std::make_unique<Buffer>(size_t(kWidth) * g_lines));
    out.push_back(std::make_unique<Buffer>(size_t(kWidth / 8) * g_lines));
    ins.push_back(in.back()->p);
    outs.push_back(out.back()->u8());
  }
  for (auto _ : state) {
    for (uint32_t c = 0; c < 4; ++c) std::memcpy(in[c]->p, page8().p, size_t(kWidth) * g_lines);
    if (parallel) {
      screeningScreenChannelLines(raw.data(), 4, ins.data(), kWidth, outs.data(), kWidth / 8, kWidth, 0,
                                  g_lines);
    } else {
      for (uint32_t c = 0; c < 4; ++c)
        for (uint32_t y = 0; y < g_lines; ++y)
          raw[c]->screenScanline(raw[c], in[c]->u8() + size_t(y) * kWidth, outs[c] + size_t(y) * (kWidth / 8),
                                 kWidth, y);
    }
  }
  state.counters["Mpix/s"] =
      benchmark::Counter(4.0 * kWidth * g_lines * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

int64_t far_future() { return int64_t(1) << 40; }

// Object creation (read the time column): arg 1 finds the table in the cache, arg 0
// draws it afresh (the cache emptied first, outside the timing).
void BM_Create(benchmark::State &state) {
  const bool hit = state.range(0) != 0;
  Object keep = make(ZT_SCREEN_STOCHASTIC, 2, 1);
  if (!hit) keep.reset();
  for (auto _ : state) {
    if (!hit) {
      state.PauseTiming();
      screeningCacheSetClock(far_future);
      screeningCachePurge();
      screeningCacheSetClock(nullptr);
      state.ResumeTiming();
    }
    Object o = make(ZT_SCREEN_STOCHASTIC, 2, 1);
    benchmark::DoNotOptimize(o.get());
  }
}

bool smoke_run(int argc, char **argv) {
  if (const char *env = std::getenv("ZT_BENCH_SMOKE"); env != nullptr && std::strcmp(env, "1") == 0)
    return true;
  const std::string flag = "--benchmark_min_time=";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.compare(0, flag.size(), flag) == 0) return std::atof(arg.c_str() + flag.size()) < 0.5;
  }
  return false;
}

}  // namespace

BENCHMARK(BM_Peer_FloydSteinberg);
BENCHMARK(BM_Peer_Threshold);
BENCHMARK(BM_Ours)
    ->ArgNames({"mode", "levels", "planes", "bits"})
    ->Args({3, 2, 1, 8})
    ->Args({3, 4, 2, 8})
    ->Args({3, 2, 1, 16})
    ->Args({11, 2, 1, 8})
    ->Args({8, 2, 1, 8})
    ->Args({2, 2, 1, 8})
    ->Args({2, 2, 1, 16})
    ->Args({2, 4, 2, 8})
    ->Args({9, 2, 1, 8});
BENCHMARK(BM_FourChannels)->ArgName("parallel")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_Create)->ArgName("hit")->Arg(1)->Arg(0);

int main(int argc, char **argv) {
  if (smoke_run(argc, argv)) g_lines = 8;
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const bool ed2 = check_ed(2, 1), ed4 = check_ed(4, 2);
  zt::bench::check(ed2, "error diffusion, 2 levels, differs from its stated steps");
  zt::bench::check(ed4, "error diffusion, 4 levels, differs from its stated steps");
  std::fflush(stdout);
  zt::bench::Results reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  struct Row {
    const char *name;
    std::string ours, peer;
    double goal;
  };
  const Row rows[] = {
      {"ED 2 levels 1 plane", "BM_Ours/mode:3/levels:2/planes:1/bits:8", "BM_Peer_FloydSteinberg", 180},
      {"ED 4 levels 2 planes", "BM_Ours/mode:3/levels:4/planes:2/bits:8", "BM_Peer_FloydSteinberg", 150},
      {"ED 16-bit 2 levels", "BM_Ours/mode:3/levels:2/planes:1/bits:16", "BM_Peer_FloydSteinberg", 0},
      {"4x4 cell", "BM_Ours/mode:11/levels:2/planes:1/bits:8", "BM_Peer_Threshold", 2500},
      {"super-cell", "BM_Ours/mode:8/levels:2/planes:1/bits:8", "BM_Peer_Threshold", 2500},
      {"mask", "BM_Ours/mode:2/levels:2/planes:1/bits:8", "BM_Peer_Threshold", 2500},
      {"mask 16-bit", "BM_Ours/mode:2/levels:2/planes:1/bits:16", "BM_Peer_Threshold", 800},
      {"mask 4 levels", "BM_Ours/mode:2/levels:4/planes:2/bits:8", "BM_Peer_Threshold", 1200},
      {"pattern", "BM_Ours/mode:9/levels:2/planes:1/bits:8", "BM_Peer_Threshold", 1500},
  };
  zt::bench::Table table("Screening an 8192-pixel line (Mpix/s, medians; goals in Mpix/s)", "Mpix/s");
  for (const Row &r : rows)
    table.row(r.name, reporter.value(r.ours, "Mpix/s"), reporter.value(r.peer, "Mpix/s"),
              r.goal > 0 ? zt::bench::Goal::at_least(r.goal) : zt::bench::Goal::none(),
              "vs " + r.peer.substr(3));
  table.row("4 channels, queue vs one after another", reporter.value("BM_FourChannels/parallel:1", "Mpix/s"),
            reporter.value("BM_FourChannels/parallel:0", "Mpix/s"), zt::bench::Goal::ratio(1.8));
  table.print();
  return zt::bench::exit_code();
}
