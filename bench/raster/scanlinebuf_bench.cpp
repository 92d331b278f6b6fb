// Row converters, dithering and the scanline buffer's converting copy, each at
// the baseline and AVX2 levels (argument 0 / 1). The peer, in the same run, is
// memcpy of the same number of output bytes between buffers allocated as ours
// are (page-aligned, separate, same offsets). Each repetition times both with
// the same clock (median of alternating blocks); the closing table sets the
// medians over repetitions against each other:
//   x_memcpy  our speed over memcpy's (goal: >= 0.5 for the table and
//             expansion converters and the copies, >= 0.25 for dithering)
// Before timing, every case's output is compared once with its reference:
// the baseline form's bytes for the AVX2 level (dithering from the same noise
// position), and a direct formula where one is short (8 to 16, 1 to 8, the
// interleave changes). Each case runs on a scanline of 16,384 samples
// (level-1 resident, where memcpy is at its fastest), on one wide-format line
// (368,640 samples) and on a strip of 4 Mi samples (beyond the level-2 cache).
#include <benchmark/benchmark.h>
#include <zt/buf.h>
#include <zt/cpu.h>
#include <zt/dither.h>
#include <zt/init.h>
#include <zt/interleave.h>
#include <zt/scanlinebuf.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

using zt::bench::Buffer;

bool g_smoke = false;  // CI's smoke run: fewer timed calls, the checks as always

// Runs `op` under the benchmark loop and sets the counters against memcpy of
// `out_bytes`. `rewind` puts back whatever state `op` advances (the dither's
// noise position) so that the check can run it twice from one start; the
// output at `out` must equal the baseline form's and satisfy `expect` (may be
// empty) at every level.
void run_case(benchmark::State &state, const std::string &name, size_t out_bytes, const std::function<void()> &op,
              const uint8_t *out, const std::function<void()> &rewind = {},
              const std::function<bool()> &expect = {}) {
  const auto level = static_cast<int32_t>(state.range(0));
  if (ZT_SetSimdLevel(level) != level) {
    state.SkipWithError("level not available");
    return;
  }
  ZT_SetSimdLevel(ZT_SIMD_BASELINE);
  if (rewind) rewind();
  op();
  std::vector<uint8_t> reference(out, out + out_bytes);
  ZT_SetSimdLevel(level);
  if (rewind) rewind();
  std::memset(const_cast<uint8_t *>(out), 0xA5, out_bytes);
  op();
  if (!zt::bench::check(state, std::memcmp(reference.data(), out, out_bytes) == 0,
                        name + ": level " + std::to_string(level) + " differs from the baseline form"))
    return;
  if (expect && !zt::bench::check(state, expect(), name + ": not the stated result"))
    return;
  for (auto _ : state) {
    op();
    benchmark::ClobberMemory();
  }
  // Blocks of ours and of the peer take turns, so that both see the same
  // spells of a busy machine; each block writes at least 4 MiB (two calls at
  // the least), and the medians of 15 blocks agree from run to run.
  const size_t mib = g_smoke ? 1 : 4;
  const int reps = static_cast<int>(std::max<size_t>(2, (mib << 20) / out_bytes));
  const int blocks = g_smoke ? 3 : 15;
  std::vector<double> ours_blocks, peer_blocks;
  for (int b = 0; b < blocks; ++b) {
    ours_blocks.push_back(zt::bench::seconds_per_call(op, reps, 1));
    peer_blocks.push_back(zt::bench::memcpy_seconds(out_bytes, reps, 0, 1));
  }
  const double ours = zt::bench::median(ours_blocks);
  const double peer = zt::bench::median(peer_blocks);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out_bytes));
  state.counters["GB/s"] = static_cast<double>(out_bytes) / ours / 1e9;
  state.counters["memcpy_GB/s"] = static_cast<double>(out_bytes) / peer / 1e9;
  state.counters["x_memcpy"] = peer / ours;
  ZT_SetSimdLevel(ZT_SimdBestLevel());
}

Buffer ramp16(size_t n) {
  Buffer b(n * 2);
  uint32_t x = 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    b.as<uint16_t>()[i] = static_cast<uint16_t>(x >> 16);
  }
  return b;
}

Buffer ramp8(size_t n) {
  Buffer b(n);
  for (size_t i = 0; i < n; ++i) b.data()[i] = static_cast<uint8_t>(i * 7 + (i >> 5));
  return b;
}

void BM_Scanlinebuf_Copy8To16(benchmark::State &state) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const Buffer in = ramp8(samples), out(size_t{samples} * 2);
  run_case(
      state, "Copy8To16", size_t{samples} * 2, [&] { bufCopy8To16(out.data(), in.data(), samples); }, out.data(),
      {}, [&] {
        for (uint32_t i = 0; i < samples; ++i)
          if (out.as<uint16_t>()[i] != in.data()[i] * 257) return false;
        return true;
      });
}

void BM_Scanlinebuf_Copy16To8Table(benchmark::State &state) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const Buffer in = ramp16(samples), out(samples);
  run_case(
      state, "Copy16To8Table", samples, [&] { bufCopy16To8(out.data(), in.as<uint16_t>(), samples, nullptr); },
      out.data(), {}, [&] {
        // Whatever the rounding, the table lands within one code of v / 257.
        for (uint32_t i = 0; i < samples; ++i)
          if (std::abs(out.data()[i] - in.as<uint16_t>()[i] / 257) > 1) return false;
        return true;
      });
}

void dither_case(benchmark::State &state, const char *name, uint32_t kind) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const Buffer in = ramp16(samples), out(samples);
  DitherContext ctx{};
  ditherSetup(&ctx, 2, kind);
  const DitherContext start = ctx;
  run_case(
      state, name, samples, [&] { ditherBuf16To8(&ctx, out.data(), in.as<uint16_t>(), samples); }, out.data(),
      [&] { ctx = start; },
      [&] {
        // Noise moves a sample by at most one code from its rounding.
        for (uint32_t i = 0; i < samples; ++i)
          if (std::abs(out.data()[i] - in.as<uint16_t>()[i] / 257) > 2) return false;
        return true;
      });
}
void BM_Scanlinebuf_Dither16To8Wide(benchmark::State &state) { dither_case(state, "Dither16To8Wide", 2); }
void BM_Scanlinebuf_Dither16To8Narrow(benchmark::State &state) { dither_case(state, "Dither16To8Narrow", 3); }
void BM_Scanlinebuf_Dither16To8Real(benchmark::State &state) { dither_case(state, "Dither16To8Real", 1); }

void BM_Scanlinebuf_Copy1To8(benchmark::State &state) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const Buffer in = ramp8(samples / 8), out(samples);
  run_case(
      state, "Copy1To8", samples, [&] { bufCopy1To8(out.data(), in.data(), samples / 8); }, out.data(), {}, [&] {
        for (uint32_t i = 0; i < samples; ++i)
          if (out.data()[i] != ((in.data()[i / 8] >> (7 - i % 8)) & 1 ? 255 : 0)) return false;
        return true;
      });
}

// Four channels of `bps` bytes: sample c of pixel p sits at c * pixels + p by
// line and at p * 4 + c by pixel.
bool interleaved_as_stated(const uint8_t *by_line, const uint8_t *by_pixel, uint32_t pixels, uint32_t bps) {
  for (uint32_t p = 0; p < pixels; ++p)
    for (uint32_t c = 0; c < 4; ++c)
      if (std::memcmp(by_line + (size_t{c} * pixels + p) * bps, by_pixel + (size_t{p} * 4 + c) * bps, bps) != 0)
        return false;
  return true;
}

void BM_Scanlinebuf_LineToPixel4(benchmark::State &state, uint32_t bps) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const char *name = bps == 1 ? "LineToPixel4x8" : "LineToPixel4x16";
  const Buffer in = ramp8(size_t{samples} * bps), out(in.size());
  run_case(
      state, name, in.size(), [&] { ZT_interleavedLineToPixel(out.data(), in.data(), samples / 4, 4, bps); },
      out.data(), {}, [&] { return interleaved_as_stated(in.data(), out.data(), samples / 4, bps); });
}
void BM_Scanlinebuf_LineToPixel4x8(benchmark::State &state) { BM_Scanlinebuf_LineToPixel4(state, 1); }
void BM_Scanlinebuf_LineToPixel4x16(benchmark::State &state) { BM_Scanlinebuf_LineToPixel4(state, 2); }

void BM_Scanlinebuf_PixelToLine4(benchmark::State &state, uint32_t bps) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const char *name = bps == 1 ? "PixelToLine4x8" : "PixelToLine4x16";
  const Buffer in = ramp8(size_t{samples} * bps), out(in.size());
  run_case(
      state, name, in.size(), [&] { ZT_interleavedPixelToLine(out.data(), in.data(), samples / 4, 4, bps); },
      out.data(), {}, [&] { return interleaved_as_stated(out.data(), in.data(), samples / 4, bps); });
}
void BM_Scanlinebuf_PixelToLine4x8(benchmark::State &state) { BM_Scanlinebuf_PixelToLine4(state, 1); }
void BM_Scanlinebuf_PixelToLine4x16(benchmark::State &state) { BM_Scanlinebuf_PixelToLine4(state, 2); }

// A CMYK rectangle from a 16-bit by-line buffer into an 8-bit by-pixel one.
void BM_Scanlinebuf_CopyRectInterleave(benchmark::State &state) {
  const auto samples = static_cast<uint32_t>(state.range(1));
  const uint32_t w = 1024, h = samples / 4096;
  ScanlineBuf *src = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 16, 4, 0, w, h, 0);
  ScanlineBuf *dst = scanlinebufAlloc(ZT_INTERLEAVE_BY_PIXEL, 8, 4, 0, w, h, 0);
  const Buffer fill = ramp16(size_t{w} * h * 4);
  std::memcpy(src->data, fill.data(), fill.size());
  run_case(
      state, "CopyRectInterleave", size_t{w} * h * 4, [&] { scanlinebufCopyRect(dst, src, 0, 0, w, h, 0, 0); },
      dst->data, {}, [&] {
        // Pixel x of row y: channel c from plane row c of the source row.
        for (uint32_t y = 0; y < h; ++y)
          for (uint32_t x = 0; x < w; ++x)
            for (uint32_t c = 0; c < 4; ++c) {
              const auto *row = reinterpret_cast<const uint16_t *>(src->data + size_t{y} * src->bytesPerLine +
                                                                   size_t{c} * src->bytesPerPlaneRow);
              const int got = dst->data[size_t{y} * dst->bytesPerLine + size_t{x} * 4 + c];
              if (std::abs(got - row[x] / 257) > 1) return false;
            }
        return true;
      });
  scanlinebufFree(src);
  scanlinebufFree(dst);
}

// Level, then samples: a short scanline (16,384 samples, resident in the
// level-1 cache, where memcpy runs at its fastest), one line of a 64-inch
// page at 1,440 dpi in four channels (368,640 samples, level-2 resident) and
// a strip of a page (4 Mi samples).
void levels(benchmark::internal::Benchmark *b) {
  for (int64_t samples : {int64_t{16384}, int64_t{368640}, int64_t{4} << 20}) {
    b->Args({ZT_SIMD_BASELINE, samples});
    if (ZT_SimdBestLevel() >= ZT_SIMD_AVX2) b->Args({ZT_SIMD_AVX2, samples});
  }
}

BENCHMARK(BM_Scanlinebuf_Copy8To16)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_Copy16To8Table)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_Dither16To8Wide)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_Dither16To8Narrow)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_Dither16To8Real)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_Copy1To8)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_LineToPixel4x8)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_LineToPixel4x16)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_PixelToLine4x8)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_PixelToLine4x16)->Apply(levels);
BENCHMARK(BM_Scanlinebuf_CopyRectInterleave)->Apply(levels);

}  // namespace

int main(int argc, char **argv) {
  g_smoke = zt::bench::smoke_run(argc, argv);
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  // The goals are for the form start-up picks; the baseline rows are shown
  // for reference, as are the plain interleave changes (no goal of their own).
  zt::bench::Table table("Row converters against memcpy of the same output bytes (GB/s, medians)", "GB/s");
  const char *cases[] = {"Copy8To16",      "Copy16To8Table", "Dither16To8Wide", "Dither16To8Narrow",
                         "Dither16To8Real", "Copy1To8",       "LineToPixel4x8",  "LineToPixel4x16",
                         "PixelToLine4x8",  "PixelToLine4x16", "CopyRectInterleave"};
  for (const char *c : cases)
    for (int32_t level : {ZT_SIMD_BASELINE, ZT_SIMD_AVX2})
      for (int64_t samples : {int64_t{16384}, int64_t{368640}, int64_t{4} << 20}) {
        const std::string run =
            std::string("BM_Scanlinebuf_") + c + "/" + std::to_string(level) + "/" + std::to_string(samples);
        const double ours = results.value(run, "GB/s"), peer = results.value(run, "memcpy_GB/s");
        if (ours <= 0) continue;
        const std::string name(c);
        const bool dither = name.find("Dither") != std::string::npos;
        const bool judged = level == ZT_SimdBestLevel() && name.find("ToPixel") == std::string::npos &&
                            name.find("ToLine") == std::string::npos;
        table.row(name + (level == ZT_SIMD_AVX2 ? " avx2 " : " baseline ") + std::to_string(samples), ours, peer,
                  judged ? zt::bench::Goal::ratio(dither ? 0.25 : 0.5) : zt::bench::Goal::none());
      }
  table.print();
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
