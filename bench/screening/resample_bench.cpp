// Output megapixels per second of the filtered resampler on a four-plane
// 8-bit image held in memory, at 0.5x, 0.37x and 2x with Lanczos3 (filter 6)
// and Mitchell (filter 7, b = c = 1/3), on one and two threads, beside libvips
// on the same pixels (interleaved RGBA) with the same kernel. Each iteration
// resamples the whole image into a whole output image in fresh memory:
//   ours     a fresh context pulls every output line and copies it into a
//            newly allocated image (each line its four plane rows)
//   libvips  vips_reduce (shrinking) or vips_resize (2x) evaluated in full into
//            memory (vips_image_write_to_memory allocates it), with the
//            operation cache off so nothing is reused
// Mpix/s counts output pixels. The full run works on 8192 x 8192 (64 Mpixel);
// ZT_BENCH_SMOKE=1 or a --benchmark_min_time below half a second (CI's smoke
// run) shrinks the image to 1024 x 1024 so the program finishes in seconds.
// Before the runs, untimed, each case is checked: one and two threads give the
// same bytes, and a shrinking case stays within a mean of half a code of
// libvips per sample (a few hundredths means both map pixel centres the same
// way); the mean and largest difference are printed for every case. The
// closing table gives our speed over libvips' (medians; goal: at least 1).
#include <benchmark/benchmark.h>
#include <zt/init.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"

#if defined(ZT_HAVE_VIPS)
#include <vips/vips.h>
#endif

namespace {

constexpr uint32_t kPlanes = 4;
constexpr int kFactorsPct[] = {50, 37, 200};
constexpr int kFilters[] = {ZT_FILTER_LANCZOS3, ZT_FILTER_MITCHELL};
constexpr int kThreads[] = {1, 2};

uint32_t g_side = 8192;

// The same pixels twice: by line (each line four plane rows, what the
// resampler reads) and by pixel (RGBA, what libvips takes).
struct Image {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> by_line, by_pixel;
};

// Diagonal triangle waves of different periods per plane (smooth, the kind of
// content a page image has) plus a little noise, so that no filter sees flat
// runs it could shortcut.
const Image &image() {
  static const Image img = [] {
    Image im;
    im.width = im.height = g_side;
    const size_t w = im.width, h = im.height;
    im.by_line.resize(w * h * kPlanes);
    im.by_pixel.resize(w * h * kPlanes);
    uint64_t rng = 0x9E3779B97F4A7C15ull;
    static constexpr uint32_t kx[kPlanes] = {3, 5, 2, 7}, ky[kPlanes] = {2, 1, 5, 3},
                              shift[kPlanes] = {4, 5, 3, 6};
    for (size_t y = 0; y < h; ++y) {
      uint8_t *line = im.by_line.data() + y * w * kPlanes;
      uint8_t *pixel = im.by_pixel.data() + y * w * kPlanes;
      for (size_t x = 0; x < w; ++x) {
        rng ^= rng << 13;
        rng ^= rng >> 7;
        rng ^= rng << 17;
        for (uint32_t c = 0; c < kPlanes; ++c) {
          const int phase = static_cast<int>(((x * kx[c] + y * ky[c]) >> shift[c]) % 510);
          const int noise = static_cast<int>((rng >> (c * 8)) & 15) - 8;
          const auto v = static_cast<uint8_t>(std::clamp(std::abs(phase - 255) + noise, 0, 255));
          line[c * w + x] = v;
          pixel[x * kPlanes + c] = v;
        }
      }
    }
    return im;
  }();
  return img;
}

uint32_t out_size(uint32_t in, int pct) { return static_cast<uint32_t>(std::lround(in * (pct / 100.0))); }

int32_t read_line(void *user, ScanlineBuf *dst, uint32_t line) {
  const Image &img = *static_cast<const Image *>(user);
  const uint8_t *src = img.by_line.data() + static_cast<size_t>(line) * img.width * kPlanes;
  for (uint32_t c = 0; c < kPlanes; ++c) {
    std::memcpy(dst->data + static_cast<size_t>(c) * dst->bytesPerPlaneRow, src + c * img.width, img.width);
  }
  return 0;
}

// Resamples the whole image once; each output line goes to `sink` (line
// number, the scanline buffer). False when the engine refused or failed.
template <typename Sink>
bool resample_ours(const Image &img, uint32_t out_w, uint32_t out_h, uint32_t filter, uint32_t threads,
                   ScanlineBuf *line, Sink sink) {
  ResampleContext *ctx =
      resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, img.width, img.height, out_w, out_h, kPlanes, 8, 8,
                              read_line, nullptr, nullptr, const_cast<Image *>(&img), filter);
  if (ctx == nullptr) return false;
  bool ok = resampleSetupThreads(ctx, threads) == 0;
  for (uint32_t y = 0; ok && y < out_h; ++y) {
    ok = resampleGetNextScanline(ctx, line) == 0;
    if (ok) sink(y, line);
  }
  resampleFree(ctx);
  return ok;
}

void set_counters(benchmark::State &state, uint32_t out_w, uint32_t out_h) {
  const double mpix = static_cast<double>(out_w) * out_h / 1e6;
  state.counters["Mpix/s"] =
      benchmark::Counter(mpix * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// The whole image resampled by ours into fresh memory (std::free it), by line
// (each line its plane rows one after another), or null.
uint8_t *resample_ours_whole(const Image &img, uint32_t out_w, uint32_t out_h, uint32_t filter, uint32_t threads,
                             ScanlineBuf *line) {
  auto *out = static_cast<uint8_t *>(std::malloc(size_t{out_w} * out_h * kPlanes));
  if (out == nullptr) return nullptr;
  const bool ok = resample_ours(img, out_w, out_h, filter, threads, line, [&](uint32_t y, ScanlineBuf *l) {
    uint8_t *row = out + size_t{y} * out_w * kPlanes;
    for (uint32_t c = 0; c < kPlanes; ++c)
      std::memcpy(row + size_t{c} * out_w, l->data + size_t{c} * l->bytesPerPlaneRow, out_w);
  });
  if (!ok) {
    std::free(out);
    return nullptr;
  }
  return out;
}

void BM_Ours(benchmark::State &state) {
  const Image &img = image();
  const auto pct = static_cast<int>(state.range(0));
  const auto filter = static_cast<uint32_t>(state.range(1));
  const auto threads = static_cast<uint32_t>(state.range(2));
  const uint32_t out_w = out_size(img.width, pct), out_h = out_size(img.height, pct);
  ScanlineBuf *line = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, kPlanes, 0, out_w, 1, 0);
  if (line == nullptr) {
    state.SkipWithError("scanlinebufAlloc failed");
    return;
  }
  for (auto _ : state) {
    uint8_t *out = resample_ours_whole(img, out_w, out_h, filter, threads, line);
    if (out == nullptr) {
      state.SkipWithError("resampler failed");
      break;
    }
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  scanlinebufFree(line);
  set_counters(state, out_w, out_h);
}

void case_args(benchmark::internal::Benchmark *b) {
  b->ArgNames({"pct", "filter", "thr"});
  for (int pct : kFactorsPct) {
    for (int filter : kFilters) {
      for (int threads : kThreads) b->Args({pct, filter, threads});
    }
  }
}

#if defined(ZT_HAVE_VIPS)
VipsKernel vips_kernel(int filter) {
  return filter == ZT_FILTER_LANCZOS3 ? VIPS_KERNEL_LANCZOS3 : VIPS_KERNEL_MITCHELL;
}

// The whole image resampled by libvips into a new memory buffer (g_free it),
// or null. vips_reduce refuses factors below 1 ("reduce factor should be >=
// 1.0"), so 2x goes through vips_resize, which enlarges with vips_affine and
// its bicubic (Catmull-Rom) interpolator whichever kernel it is given: the 2x
// rows compare against a different curve from ours. Shrinking passes the
// exact ratio of the sizes so both libraries produce the same geometry.
uint8_t *resample_vips(const Image &img, uint32_t out_w, uint32_t out_h, int pct, int filter, size_t *size) {
  VipsImage *in =
      vips_image_new_from_memory(img.by_pixel.data(), img.by_pixel.size(), static_cast<int>(img.width),
                                 static_cast<int>(img.height), kPlanes, VIPS_FORMAT_UCHAR);
  if (in == nullptr) return nullptr;
  VipsImage *out = nullptr;
  int rc;
  if (pct < 100) {
    rc = vips_reduce(in, &out, static_cast<double>(img.width) / out_w,
                     static_cast<double>(img.height) / out_h, "kernel", vips_kernel(filter), nullptr);
  } else {
    rc = vips_resize(in, &out, pct / 100.0, "kernel", vips_kernel(filter), nullptr);
  }
  uint8_t *pixels = nullptr;
  if (rc == 0 && static_cast<uint32_t>(out->Xsize) == out_w && static_cast<uint32_t>(out->Ysize) == out_h) {
    pixels = static_cast<uint8_t *>(vips_image_write_to_memory(out, size));
  }
  if (out != nullptr) g_object_unref(out);
  g_object_unref(in);
  return pixels;
}

void BM_Vips(benchmark::State &state) {
  const Image &img = image();
  const auto pct = static_cast<int>(state.range(0));
  const auto filter = static_cast<int>(state.range(1));
  vips_concurrency_set(static_cast<int>(state.range(2)));
  const uint32_t out_w = out_size(img.width, pct), out_h = out_size(img.height, pct);
  for (auto _ : state) {
    size_t size = 0;
    uint8_t *pixels = resample_vips(img, out_w, out_h, pct, filter, &size);
    if (pixels == nullptr) {
      state.SkipWithError(vips_error_buffer());
      vips_error_clear();
      break;
    }
    benchmark::DoNotOptimize(pixels);
    g_free(pixels);
  }
  set_counters(state, out_w, out_h);
}

#endif

// Untimed, before the runs: one and two threads give the same bytes, and
// the difference from libvips per sample is printed (and, shrinking, bound).
bool check_case(int pct, int filter) {
  const Image &img = image();
  const uint32_t out_w = out_size(img.width, pct), out_h = out_size(img.height, pct);
  ScanlineBuf *line = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, kPlanes, 0, out_w, 1, 0);
  uint8_t *one = line ? resample_ours_whole(img, out_w, out_h, static_cast<uint32_t>(filter), 1, line) : nullptr;
  uint8_t *two = line ? resample_ours_whole(img, out_w, out_h, static_cast<uint32_t>(filter), 2, line) : nullptr;
  scanlinebufFree(line);
  const size_t bytes = size_t{out_w} * out_h * kPlanes;
  char what[96];
  std::snprintf(what, sizeof what, "%.2fx filter %d", pct / 100.0, filter);
  bool ok = zt::bench::check(one != nullptr && two != nullptr, std::string(what) + ": our resampler failed") &&
            zt::bench::check(std::memcmp(one, two, bytes) == 0,
                             std::string(what) + ": two threads give other bytes than one");
#if defined(ZT_HAVE_VIPS)
  vips_concurrency_set(2);
  size_t size = 0;
  uint8_t *peer = ok ? resample_vips(img, out_w, out_h, pct, filter, &size) : nullptr;
  if (ok && (peer == nullptr || size != bytes)) {
    std::printf("check %s: libvips failed\n", what);
    vips_error_clear();
  } else if (ok) {
    uint64_t sum = 0;
    int largest = 0;
    for (uint32_t y = 0; y < out_h; ++y)
      for (uint32_t x = 0; x < out_w; ++x)
        for (uint32_t c = 0; c < kPlanes; ++c) {
          const int d = std::abs(static_cast<int>(one[(size_t{y} * kPlanes + c) * out_w + x]) -
                                 static_cast<int>(peer[(size_t{y} * out_w + x) * kPlanes + c]));
          sum += static_cast<uint64_t>(d);
          largest = std::max(largest, d);
        }
    const double mean = static_cast<double>(sum) / static_cast<double>(bytes);
    std::printf("check %s (%ux%u -> %ux%u): mean |ours - libvips| %.4f, largest %d%s\n", what, img.width,
                img.height, out_w, out_h, mean, largest, pct > 100 ? " (libvips enlarges with its bicubic)" : "");
    if (pct < 100) ok = zt::bench::check(mean < 0.5, std::string(what) + ": more than half a code from libvips");
  }
  if (peer != nullptr) g_free(peer);
#endif
  std::free(one);
  std::free(two);
  return ok;
}

#if defined(ZT_HAVE_VIPS)
BENCHMARK(BM_Vips)->Apply(case_args)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
#endif

BENCHMARK(BM_Ours)->Apply(case_args)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

// CI's smoke run passes --benchmark_min_time=0.01 (seconds; a trailing "s" as
// newer releases write it is accepted too).
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

int main(int argc, char **argv) {
  if (smoke_run(argc, argv)) g_side = 1024;
  ZT_InitSubSystems();
#if defined(ZT_HAVE_VIPS)
  if (VIPS_INIT(argv[0]) != 0) {
    std::fprintf(stderr, "libvips did not start: %s\n", vips_error_buffer());
    return 1;
  }
  vips_cache_set_max(0);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("image %ux%u, %u planes of 8 bits\n", g_side, g_side, kPlanes);
  for (int pct : kFactorsPct)
    for (int filter : kFilters) check_case(pct, filter);
  std::fflush(stdout);
  zt::bench::Results reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  char title[128];
  std::snprintf(title, sizeof title, "Resampling a %u x %u four-plane image against libvips (output Mpix/s, medians)",
                g_side, g_side);
  zt::bench::Table table(title, "Mpix/s");
  for (int pct : kFactorsPct) {
    for (int filter : kFilters) {
      for (int threads : kThreads) {
        const std::string args = "/pct:" + std::to_string(pct) + "/filter:" + std::to_string(filter) +
                                 "/thr:" + std::to_string(threads);
        const double ours = reporter.value("BM_Ours" + args, "Mpix/s");
        const double peer = reporter.value("BM_Vips" + args, "Mpix/s");
        char name[64];
        std::snprintf(name, sizeof name, "%.2fx %s %d thread%s", pct / 100.0,
                      filter == ZT_FILTER_LANCZOS3 ? "lanczos3" : "mitchell", threads, threads > 1 ? "s" : "");
        table.row(name, ours, peer, zt::bench::Goal::ratio(1.0), pct > 100 ? "libvips: its bicubic" : "");
      }
    }
  }
  table.print();
#if defined(ZT_HAVE_VIPS)
  vips_shutdown();
#endif
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
