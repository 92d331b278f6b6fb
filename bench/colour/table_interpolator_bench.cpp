// TableInterpolatorConvertRect on 16-bit rectangles: RGB to CMYK (3 to 4)
// and CMYK to a Lab-like space (4 to 3) through grids of 17 and 33 points,
// trilinear, prism and tetrahedral, and CMYK to CMYK (4 to 4, 17 points,
// tetrahedral), on 1 and 2 workers, at the best dispatch level and (1 worker)
// the baseline. The peer is Little CMS 2 evaluating the same grid, entered as
// a 16-bit CLUT stage of a pipeline, with cmsPipelineEval16 over
// the same pixels in one thread; every run prints its ratio to it (vs_lcms)
// and the program ends with a table of the ratios against the goals.
//
// The rectangle is 4096 x 4096 pixels; ZT_BENCH_SMALL=1 makes it 1024 x 1024.
// Pixels are a smooth synthetic image with noise, made once per program.
#include <benchmark/benchmark.h>
#include <zt/cpu.h>
#include <zt/init.h>
#include <zt/table_interpolator.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#if defined(ZT_HAVE_LCMS2)
#include <lcms2.h>
#endif

namespace {

enum Kind : int64_t { kRgbToCmyk = 0, kCmykToLab = 1, kCmykToCmyk = 2 };

uint32_t inputs_of(int64_t kind) { return kind == kRgbToCmyk ? 3 : 4; }
uint32_t outputs_of(int64_t kind) { return kind == kCmykToLab ? 3 : 4; }
const char *kind_name(int64_t kind) {
  return kind == kRgbToCmyk ? "RGB->CMYK" : kind == kCmykToLab ? "CMYK->Lab" : "CMYK->CMYK";
}
const char *scheme_name(int64_t scheme) {
  return scheme == ZT_INTERP_PRISM ? "prism" : scheme == ZT_INTERP_TETRAHEDRAL ? "tetrahedral" : "trilinear";
}

uint32_t side() {
  static const uint32_t s = [] {
    const char *small = std::getenv("ZT_BENCH_SMALL");
    return small != nullptr && small[0] != '\0' && small[0] != '0' ? 1024u : 4096u;
  }();
  return s;
}
size_t pixel_count() { return size_t{side()} * side(); }

// Smooth gradients across and down, plus noise, per channel; one image per
// input count.
const std::vector<uint16_t> &image(int64_t kind) {
  static std::map<uint32_t, std::vector<uint16_t>> images;
  const uint32_t channels = inputs_of(kind), n = side();
  auto &img = images[channels];
  if (!img.empty()) return img;
  std::vector<float> across(size_t{n} * channels), down(size_t{n} * channels);
  for (uint32_t i = 0; i < n; ++i)
    for (uint32_t c = 0; c < channels; ++c) {
      across[i * channels + c] = 16000.0f * std::sin(i * 0.0031f * (c + 1));
      down[i * channels + c] = 14000.0f * std::cos(i * 0.0023f * (channels - c));
    }
  uint32_t noise = 42;  // a xorshift: the standard engines would dominate the set-up
  img.resize(pixel_count() * channels);
  for (uint32_t y = 0; y < n; ++y)
    for (uint32_t x = 0; x < n; ++x)
      for (uint32_t c = 0; c < channels; ++c) {
        const float v = 32768.0f + across[x * channels + c] + down[y * channels + c] +
                        static_cast<float>(noise & 2047) - 1024.0f;
        noise ^= noise << 13;
        noise ^= noise >> 17;
        noise ^= noise << 5;
        img[(size_t{y} * n + x) * channels + c] = static_cast<uint16_t>(v < 0 ? 0 : v > 65535 ? 65535 : v);
      }
  return img;
}

// A smooth table of whole numbers, so that Little CMS's 16-bit copy holds the
// same grid as our floats.
const std::vector<float> &table(int64_t kind, uint32_t points) {
  static std::map<std::pair<int64_t, uint32_t>, std::vector<float>> tables;
  auto &t = tables[{kind, points}];
  if (!t.empty()) return t;
  const uint32_t in = inputs_of(kind), out = outputs_of(kind);
  size_t grid_points = 1;
  for (uint32_t a = 0; a < in; ++a) grid_points *= points;
  t.resize(grid_points * out);
  for (size_t p = 0; p < grid_points; ++p) {
    double x[4];
    size_t rest = p;
    for (uint32_t a = in; a-- > 0;) {
      x[a] = static_cast<double>(rest % points) / (points - 1);
      rest /= points;
    }
    for (uint32_t o = 0; o < out; ++o) {
      double s = 0.3 * o;
      for (uint32_t a = 0; a < in; ++a) s += (0.7 + 0.2 * ((a + o) % 3)) * x[a];
      t[p * out + o] = static_cast<float>(std::floor(32767.5 + 32000.0 * std::sin(1.3 * s)));
    }
  }
  return t;
}

std::vector<uint16_t> &destination() {
  static std::vector<uint16_t> d;
  d.resize(pixel_count() * 4);
  return d;
}

#if defined(ZT_HAVE_LCMS2)
struct LcmsPipeline {
  cmsPipeline *lut = nullptr;
  LcmsPipeline(int64_t kind, uint32_t points) {
    const std::vector<float> &t = table(kind, points);
    std::vector<uint16_t> t16(t.begin(), t.end());
    cmsStage *stage = cmsStageAllocCLut16bit(nullptr, points, inputs_of(kind), outputs_of(kind), t16.data());
    lut = cmsPipelineAlloc(nullptr, inputs_of(kind), outputs_of(kind));
    if (stage == nullptr || lut == nullptr || !cmsPipelineInsertStage(lut, cmsAT_BEGIN, stage)) std::abort();
  }
  ~LcmsPipeline() { cmsPipelineFree(lut); }
  void run(const uint16_t *src, uint16_t *dst, size_t pixels, uint32_t in, uint32_t out) const {
    for (size_t i = 0; i < pixels; ++i) cmsPipelineEval16(src + i * in, dst + i * out, lut);
  }
};
#endif

// Little CMS's pixel rate per (kind, points): from its benchmark when that ran
// first in this program, else from one timed pass made here.
std::map<std::pair<int64_t, uint32_t>, double> g_peer_rate;

double peer_rate(int64_t kind, uint32_t points) {
#if defined(ZT_HAVE_LCMS2)
  auto it = g_peer_rate.find({kind, points});
  if (it != g_peer_rate.end()) return it->second;
  LcmsPipeline pipeline(kind, points);
  const auto start = std::chrono::steady_clock::now();
  pipeline.run(image(kind).data(), destination().data(), pixel_count(), inputs_of(kind), outputs_of(kind));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return g_peer_rate[{kind, points}] = pixel_count() / seconds;
#else
  (void)kind;
  (void)points;
  return 0;
#endif
}

#if defined(ZT_HAVE_LCMS2)
void BM_LittleCMS_CLut16Eval(benchmark::State &state) {
  const int64_t kind = state.range(0);
  const auto points = static_cast<uint32_t>(state.range(1));
  LcmsPipeline pipeline(kind, points);
  const std::vector<uint16_t> &src = image(kind);
  std::vector<uint16_t> &dst = destination();
  for (auto _ : state) {
    pipeline.run(src.data(), dst.data(), pixel_count(), inputs_of(kind), outputs_of(kind));
    benchmark::DoNotOptimize(dst.data());
  }
  const double pixels = static_cast<double>(pixel_count()) * state.iterations();
  state.counters["Mpixel_s"] = benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate);
  state.SetLabel(kind_name(kind));
}
#endif

// Little CMS interpolates three-input 16-bit tables tetrahedrally, so our
// tetrahedral output on the first rows must agree with it within one code.
// Other schemes (and Little CMS's four-input scheme, linear on the first
// input) differ from it by design and are checked by the tests instead.
bool verified(ZT_TableInterpolator *interp, int64_t kind, uint32_t points, int32_t scheme) {
  if (interp == nullptr) return false;
#if defined(ZT_HAVE_LCMS2)
  if (scheme != ZT_INTERP_TETRAHEDRAL || inputs_of(kind) != 3) return true;
  const uint32_t in = inputs_of(kind), out = outputs_of(kind), pixels = side() * 4;
  const uint16_t *src = image(kind).data();
  std::vector<uint16_t> ours(size_t{pixels} * out), theirs(size_t{pixels} * out);
  if (TableInterpolatorConvertRect(interp, src, pixels * in * 2, ours.data(), pixels * out * 2, pixels, 1,
                                   0) != 0)
    return false;
  LcmsPipeline(kind, points).run(src, theirs.data(), pixels, in, out);
  for (size_t i = 0; i < ours.size(); ++i)
    if (std::abs(static_cast<int32_t>(ours[i]) - static_cast<int32_t>(theirs[i])) > 1) return false;
#else
  (void)kind;
  (void)points;
  (void)scheme;
#endif
  return true;
}

// Args: kind, grid points, scheme, workers, dispatch level.
void BM_TableInterpolator_ConvertRect(benchmark::State &state) {
  const int64_t kind = state.range(0);
  const auto points = static_cast<uint32_t>(state.range(1));
  const auto scheme = static_cast<int32_t>(state.range(2));
  const auto workers = static_cast<int32_t>(state.range(3));
  const auto level = static_cast<int32_t>(state.range(4));
  const uint32_t in = inputs_of(kind), out = outputs_of(kind);
  if (level > ZT_SimdBestLevel()) {
    state.SkipWithError("dispatch level not available");
    return;
  }
  const int32_t saved = ZT_SimdLevel();
  ZT_SetSimdLevel(level);
  ZT_TableInterpolator *interp =
      TableInterpolatorInit_ushort(in, points, out, table(kind, points).data(), scheme, workers, nullptr);
  const std::vector<uint16_t> &src = image(kind);
  std::vector<uint16_t> &dst = destination();
  const uint32_t n = side();
  if (!verified(interp, kind, points, scheme)) {
    TableInterpolatorDestroy(interp);
    ZT_SetSimdLevel(saved);
    state.SkipWithError("output differs from Little CMS by more than one code");
    return;
  }
  for (auto _ : state) {
    if (TableInterpolatorConvertRect(interp, src.data(), n * in * 2, dst.data(), n * out * 2, n, n, 0) != 0) {
      state.SkipWithError("conversion failed");
      break;
    }
    benchmark::DoNotOptimize(dst.data());
  }
  TableInterpolatorDestroy(interp);
  ZT_SetSimdLevel(saved);
  const double pixels = static_cast<double>(pixel_count()) * state.iterations();
  state.counters["Mpixel_s"] = benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate);
  state.SetLabel(std::string(kind_name(kind)) + " " + scheme_name(scheme) +
                 (level == ZT_SIMD_AVX2 ? " avx2" : " baseline"));
}

// CMYK to CMYK runs on 17 points only, tetrahedral only: every further case
// costs the smoke run a second or more, most of it in the peer.
bool wanted(int64_t kind, int64_t points, int64_t scheme) {
  return kind != kCmykToCmyk || (points == 17 && scheme == ZT_INTERP_TETRAHEDRAL);
}

void peer_args(benchmark::internal::Benchmark *b) {
  for (int64_t kind : {kRgbToCmyk, kCmykToLab, kCmykToCmyk})
    for (int64_t points : {17, 33})
      if (wanted(kind, points, ZT_INTERP_TETRAHEDRAL)) b->Args({kind, points});
}

void our_args(benchmark::internal::Benchmark *b) {
  for (int64_t kind : {kRgbToCmyk, kCmykToLab, kCmykToCmyk})
    for (int64_t points : {17, 33})
      for (int64_t scheme : {ZT_INTERP_TRILINEAR, ZT_INTERP_PRISM, ZT_INTERP_TETRAHEDRAL}) {
        if (!wanted(kind, points, scheme)) continue;
        b->Args({kind, points, scheme, 1, ZT_SIMD_AVX2});
        b->Args({kind, points, scheme, 2, ZT_SIMD_AVX2});
        b->Args({kind, points, scheme, 1, ZT_SIMD_BASELINE});
      }
}

#if defined(ZT_HAVE_LCMS2)
BENCHMARK(BM_LittleCMS_CLut16Eval)->Apply(peer_args)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK(BM_TableInterpolator_ConvertRect)->Apply(our_args)->Unit(benchmark::kMillisecond)->UseRealTime();

// Prints as usual, adding each of our runs' ratio to the peer, and keeps the
// rates for the closing table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  struct Row {
    int64_t kind, points, scheme, workers, level;
    double rate;
  };

  void ReportRuns(const std::vector<Run> &runs) override {
    std::vector<Run> shown = runs;
    for (Run &run : shown) {
      auto rate = run.counters.find("Mpixel_s");
      if (run.error_occurred || rate == run.counters.end()) continue;
      // With repetitions only the median stands for a case: the mean is
      // pulled by outliers and the spread is no rate at all.
      const bool counted =
          run.run_type == Run::RT_Aggregate ? run.aggregate_name == "median" : run.repetitions <= 1;
      if (!counted) continue;
      if (run.run_name.function_name == "BM_LittleCMS_CLut16Eval") {
        int64_t kind = 0, points = 0;
        if (std::sscanf(run.run_name.args.c_str(), "%ld/%ld", &kind, &points) == 2)
          g_peer_rate[{kind, points}] = rate->second.value * 1e6;
        continue;
      }
      Row row{};
      if (std::sscanf(run.run_name.args.c_str(), "%ld/%ld/%ld/%ld/%ld", &row.kind, &row.points, &row.scheme,
                      &row.workers, &row.level) != 5)
        continue;
      row.rate = rate->second.value * 1e6;
      const double peer = peer_rate(row.kind, static_cast<uint32_t>(row.points));
      if (peer > 0) run.counters["vs_lcms"] = benchmark::Counter(row.rate / peer);
      rows_.push_back(row);
    }
    ConsoleReporter::ReportRuns(shown);
  }

  void print_summary() const {
    std::printf("\n%-10s %5s %-11s %7s %-8s %12s %12s %7s  %s\n", "table", "grid", "scheme", "workers",
                "level", "Mpixel/s", "lcms Mpix/s", "ratio", "goal");
    for (const Row &r : rows_) {
      const double peer = peer_rate(r.kind, static_cast<uint32_t>(r.points));
      const double ratio = peer > 0 ? r.rate / peer : 0;
      const double goal = r.workers >= 2 ? 3.5 : 2.0;
      const bool judged = r.level == ZT_SimdBestLevel() && peer > 0;
      std::printf("%-10s %5ld %-11s %7ld %-8s %12.1f %12.1f %7.2f  %s\n", kind_name(r.kind), r.points,
                  scheme_name(r.scheme), r.workers, r.level == ZT_SIMD_AVX2 ? "avx2" : "baseline",
                  r.rate / 1e6, peer / 1e6, ratio,
                  !judged         ? "-"
                  : ratio >= goal ? (r.workers >= 2 ? ">=3.5x met" : ">=2x met")
                                  : (r.workers >= 2 ? ">=3.5x MISSED" : ">=2x MISSED"));
    }
  }

 private:
  std::vector<Row> rows_;
};

}  // namespace

int main(int argc, char **argv) {
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  reporter.print_summary();
  ZT_DeInitSubSystems();
  return 0;
}
