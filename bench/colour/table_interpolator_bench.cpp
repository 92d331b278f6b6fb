// TableInterpolatorConvertRect on 16-bit rectangles: RGB to CMYK (3 to 4) and
// CMYK to CMYK (4 to 4) through grids of 17 and 33 points, trilinear, prism
// and tetrahedral, on 1 and 2 workers, at the best dispatch level and (1
// worker) the baseline. The peer is what a user of Little CMS 2 calls: a
// device link holding the same grid, turned into a transform with
// cmsFLAGS_GRIDPOINTS(n) so that it keeps that grid, and cmsDoTransform over
// the whole buffer in one call on one thread. The closing table sets the
// medians over repetitions against each other (goals: 2x Little CMS on one
// worker, 3.5x on two) and gives the mean and largest difference from Little
// CMS's output per sample. Before timing, each case's output is checked: the
// AVX2 form must give the baseline form's bytes, and three-input tetrahedral
// (Little CMS's own scheme there) must stay within rounding of Little CMS.
//
// The rectangle is 4096 x 4096 pixels; ZT_BENCH_SMALL=1 or the smoke run
// (--benchmark_min_time below 0.1 s) makes it 1024 x 1024. Pixels are a
// smooth synthetic image with noise, made once per program.
#include <benchmark/benchmark.h>
#include <zt/cpu.h>
#include <zt/init.h>
#include <zt/table_interpolator.h>

#include "bench_support.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#if defined(ZT_HAVE_LCMS2)
#include <lcms2.h>
#endif

namespace {

enum Kind : int64_t { kRgbToCmyk = 0, kCmykToCmyk = 2 };

uint32_t inputs_of(int64_t kind) { return kind == kRgbToCmyk ? 3 : 4; }
uint32_t outputs_of(int64_t) { return 4; }
const char *kind_name(int64_t kind) { return kind == kRgbToCmyk ? "RGB->CMYK" : "CMYK->CMYK"; }
const char *scheme_name(int64_t scheme) {
  return scheme == ZT_INTERP_PRISM ? "prism" : scheme == ZT_INTERP_TETRAHEDRAL ? "tetrahedral" : "trilinear";
}

bool g_small = false;  // set from the command line and ZT_BENCH_SMALL before the runs

uint32_t side() { return g_small ? 1024u : 4096u; }
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

// Page-aligned, separately allocated, one for ours and one for the peer.
zt::bench::Buffer &destination(bool peer) {
  static zt::bench::Buffer ours, theirs;
  zt::bench::Buffer &d = peer ? theirs : ours;
  if (d.size() < pixel_count() * 4 * 2) d = zt::bench::Buffer(pixel_count() * 4 * 2);
  return d;
}
// The source pixels, copied into a page-aligned buffer of their own.
const uint16_t *source(int64_t kind) {
  static std::map<uint32_t, zt::bench::Buffer> sources;
  auto &b = sources[inputs_of(kind)];
  if (b.data() == nullptr) {
    const std::vector<uint16_t> &img = image(kind);
    b = zt::bench::Buffer(img.size() * 2);
    std::memcpy(b.data(), img.data(), img.size() * 2);
  }
  return b.as<uint16_t>();
}

#if defined(ZT_HAVE_LCMS2)
// A device link profile whose only content is the grid, and the transform
// Little CMS makes of it when asked to keep n points. Without
// cmsFLAGS_NOWHITEONWHITEFIXUP it would move the grid's white node to the
// output's white, and its output would no longer be the grid's.
struct LcmsLink {
  cmsHTRANSFORM transform = nullptr;
  LcmsLink(int64_t kind, uint32_t points) {
    const std::vector<float> &t = table(kind, points);
    std::vector<uint16_t> t16(t.begin(), t.end());
    const uint32_t in = inputs_of(kind), out = outputs_of(kind);
    cmsHPROFILE link = cmsCreateProfilePlaceholder(nullptr);
    cmsPipeline *lut = cmsPipelineAlloc(nullptr, in, out);
    cmsStage *stage = cmsStageAllocCLut16bit(nullptr, points, in, out, t16.data());
    if (link == nullptr || lut == nullptr || stage == nullptr || !cmsPipelineInsertStage(lut, cmsAT_BEGIN, stage))
      std::abort();
    cmsSetProfileVersion(link, 4.3);
    cmsSetDeviceClass(link, cmsSigLinkClass);
    cmsSetColorSpace(link, in == 3 ? cmsSigRgbData : cmsSigCmykData);
    cmsSetPCS(link, cmsSigCmykData);
    if (!cmsWriteTag(link, cmsSigAToB0Tag, lut)) std::abort();
    cmsPipelineFree(lut);
    transform = cmsCreateTransform(link, in == 3 ? TYPE_RGB_16 : TYPE_CMYK_16, nullptr, TYPE_CMYK_16,
                                   INTENT_PERCEPTUAL, cmsFLAGS_GRIDPOINTS(points) | cmsFLAGS_NOCACHE | cmsFLAGS_NOWHITEONWHITEFIXUP);
    cmsCloseProfile(link);
    if (transform == nullptr) std::abort();
  }
  ~LcmsLink() { cmsDeleteTransform(transform); }
  void run(const uint16_t *src, uint16_t *dst, size_t pixels) const {
    cmsDoTransform(transform, src, dst, static_cast<cmsUInt32Number>(pixels));
  }
};

void BM_LittleCMS_DoTransform(benchmark::State &state) {
  const int64_t kind = state.range(0);
  const auto points = static_cast<uint32_t>(state.range(1));
  LcmsLink link(kind, points);
  const uint16_t *src = source(kind);
  uint16_t *dst = destination(true).as<uint16_t>();
  for (auto _ : state) {
    link.run(src, dst, pixel_count());
    benchmark::ClobberMemory();
  }
  const double pixels = static_cast<double>(pixel_count()) * state.iterations();
  state.counters["Mpixel_s"] = benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate);
  state.SetLabel(kind_name(kind));
}
#endif

struct Difference {
  double mean = -1;
  int32_t largest = -1;
};
std::map<std::string, Difference> g_difference;  // per case, from Little CMS

// Before timing: the rows a check covers (a quarter of a million pixels at
// the full size).
uint32_t checked_rows() { return 64; }

// The AVX2 form must give the baseline's bytes; the difference from Little
// CMS is kept for the table. Three-input tetrahedral is Little CMS's own
// scheme, so there the two may part only by rounding: Little CMS weighs in
// 16-bit fixed point, we in float, which over a million pixels reaches two
// codes now and then (mean below half a code). Little CMS's
// four-input scheme (linear across the first input) and the other schemes
// differ from it by design: the tests check those.
bool verified(benchmark::State &state, const std::string &name, int64_t kind, uint32_t points, int32_t scheme,
              int32_t workers, int32_t level) {
  const uint32_t in = inputs_of(kind), out = outputs_of(kind), n = side(), rows = checked_rows();
  const size_t pixels = size_t{n} * rows;
  const uint16_t *src = source(kind);
  std::vector<uint16_t> ours(pixels * out), baseline(pixels * out);
  auto convert = [&](int32_t at, uint16_t *dst) {
    ZT_SetSimdLevel(at);
    ZT_TableInterpolator *interp =
        TableInterpolatorInit_ushort(in, points, out, table(kind, points).data(), scheme, workers, nullptr);
    const bool ok = interp != nullptr &&
                    TableInterpolatorConvertRect(interp, src, n * in * 2, dst, n * out * 2, n, rows, 0) == 0;
    TableInterpolatorDestroy(interp);
    return ok;
  };
  const bool converted = convert(ZT_SIMD_BASELINE, baseline.data()) && convert(level, ours.data());
  if (!zt::bench::check(state, converted, name + ": conversion failed")) return false;
  if (!zt::bench::check(state, ours == baseline, name + ": the vector form differs from the baseline"))
    return false;
#if defined(ZT_HAVE_LCMS2)
  std::vector<uint16_t> theirs(pixels * out);
  LcmsLink(kind, points).run(src, theirs.data(), pixels);
  Difference d{0, 0};
  for (size_t i = 0; i < ours.size(); ++i) {
    const int32_t diff = std::abs(static_cast<int32_t>(ours[i]) - static_cast<int32_t>(theirs[i]));
    d.mean += diff;
    d.largest = std::max(d.largest, diff);
  }
  d.mean /= static_cast<double>(ours.size());
  g_difference[name] = d;
  if (scheme == ZT_INTERP_TETRAHEDRAL && in == 3)
    return zt::bench::check(state, d.largest <= 2 && d.mean < 0.5,
                            name + ": " + std::to_string(d.largest) + " codes from Little CMS at most");
#endif
  return true;
}

std::string case_name(int64_t kind, uint32_t points, int32_t scheme, int32_t workers, int32_t level) {
  return std::string(kind_name(kind)) + " " + std::to_string(points) + " " + scheme_name(scheme) + " " +
         std::to_string(workers) + "w " + (level == ZT_SIMD_AVX2 ? "avx2" : "baseline");
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
  const std::string name = case_name(kind, points, scheme, workers, level);
  static std::map<std::string, bool> checked;
  if (!checked.count(name)) checked[name] = verified(state, name, kind, points, scheme, workers, level);
  if (!checked[name]) {
    ZT_SetSimdLevel(saved);
    if (!state.error_occurred()) state.SkipWithError("failed its check");
    return;
  }
  ZT_SetSimdLevel(level);
  ZT_TableInterpolator *interp =
      TableInterpolatorInit_ushort(in, points, out, table(kind, points).data(), scheme, workers, nullptr);
  const uint16_t *src = source(kind);
  uint16_t *dst = destination(false).as<uint16_t>();
  const uint32_t n = side();
  for (auto _ : state) {
    if (TableInterpolatorConvertRect(interp, src, n * in * 2, dst, n * out * 2, n, n, 0) != 0) {
      state.SkipWithError("conversion failed");
      break;
    }
    benchmark::ClobberMemory();
  }
  TableInterpolatorDestroy(interp);
  ZT_SetSimdLevel(saved);
  const double pixels = static_cast<double>(pixel_count()) * state.iterations();
  state.counters["Mpixel_s"] = benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate);
  state.SetLabel(name);
}

const int64_t kKinds[] = {kRgbToCmyk, kCmykToCmyk};
const int64_t kPoints[] = {17, 33};
const int64_t kSchemes[] = {ZT_INTERP_TRILINEAR, ZT_INTERP_PRISM, ZT_INTERP_TETRAHEDRAL};

void peer_args(benchmark::internal::Benchmark *b) {
  for (int64_t kind : kKinds)
    for (int64_t points : kPoints) b->Args({kind, points});
}

void our_args(benchmark::internal::Benchmark *b) {
  for (int64_t kind : kKinds)
    for (int64_t points : kPoints)
      for (int64_t scheme : kSchemes) {
        b->Args({kind, points, scheme, 1, ZT_SIMD_AVX2});
        b->Args({kind, points, scheme, 2, ZT_SIMD_AVX2});
        b->Args({kind, points, scheme, 1, ZT_SIMD_BASELINE});
      }
}

#if defined(ZT_HAVE_LCMS2)
BENCHMARK(BM_LittleCMS_DoTransform)->Apply(peer_args)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK(BM_TableInterpolator_ConvertRect)->Apply(our_args)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  const char *small = std::getenv("ZT_BENCH_SMALL");
  g_small = zt::bench::smoke_run(argc, argv) || (small != nullptr && small[0] != '\0' && small[0] != '0');
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  char title[256];
  std::snprintf(title, sizeof title,
                "Table interpolators, %u x %u 16-bit pixels, against cmsDoTransform on one thread (Mpixel/s, "
                "medians); difference to Little CMS per sample over the first 64 rows",
                side(), side());
  zt::bench::Table t(title, "Mpx/s");
  for (int64_t kind : kKinds)
    for (int64_t points : kPoints) {
      const double peer = results.value(
          "BM_LittleCMS_DoTransform/" + std::to_string(kind) + "/" + std::to_string(points), "Mpixel_s");
      for (int64_t scheme : kSchemes)
        for (auto [workers, level] : {std::pair{1, ZT_SIMD_AVX2}, std::pair{2, ZT_SIMD_AVX2},
                                      std::pair{1, ZT_SIMD_BASELINE}}) {
          char args[96];
          std::snprintf(args, sizeof args, "%ld/%ld/%ld/%d/%d", static_cast<long>(kind), static_cast<long>(points),
                        static_cast<long>(scheme), workers, level);
          const double ours = results.value(std::string("BM_TableInterpolator_ConvertRect/") + args, "Mpixel_s");
          if (ours <= 0) continue;
          const std::string name =
              case_name(kind, static_cast<uint32_t>(points), static_cast<int32_t>(scheme), workers, level);
          char note[64] = "";
          if (auto d = g_difference.find(name); d != g_difference.end())
            std::snprintf(note, sizeof note, "diff mean %.3f largest %d", d->second.mean, d->second.largest);
          const bool judged = level == ZT_SimdBestLevel();
          t.row(name, ours, peer,
                judged ? zt::bench::Goal::ratio(workers >= 2 ? 3.5 : 2.0) : zt::bench::Goal::none(), note);
        }
    }
  t.print();
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
