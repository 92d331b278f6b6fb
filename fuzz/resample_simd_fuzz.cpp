// The resampler at every level: a small geometry, filter, depth pair and plane
// count from the input, the pixels from the input through the read callback.
// Every output line (and every status) must be the same at each level, the
// callbacks must see each input line once and in order with a buffer of the
// input's shape, and after the last output line every input line must have
// been consumed. Sizes stay small so that an input runs in well under a
// millisecond; the geometry may exceed the largest reduction, which both
// levels must refuse alike.
#include <zt/resample.h>
#include <zt/scanlinebuf.h>

#include "simd_fuzz_support.h"

namespace {

using zt::fuzz::check;

struct Feed {
  const std::vector<uint8_t> *pool;
  uint32_t width, height, planes, bits;
  uint32_t next = 0;          // the line the engine must ask for next
  uint32_t fail_at = UINT32_MAX;
};

void take(Feed &f, uint32_t line) {
  check(line == f.next && line < f.height);
  ++f.next;
}

int32_t read_line(void *user, ScanlineBuf *dst, uint32_t line) {
  Feed &f = *static_cast<Feed *>(user);
  take(f, line);
  if (line == f.fail_at) return 3;
  if (dst == nullptr) return 0;
  check(dst->interleave == ZT_INTERLEAVE_BY_LINE && dst->bitsPerPixel == f.bits && dst->channels == f.planes &&
        dst->width >= f.width && dst->data != nullptr);
  const std::vector<uint8_t> &pool = *f.pool;
  const size_t row = size_t{f.width} * (f.bits / 8);
  for (uint32_t p = 0; p < f.planes; ++p) {
    uint8_t *out = dst->data + size_t{p} * dst->bytesPerPlaneRow;
    const size_t start = (size_t{line} * f.planes + p) * row;
    for (size_t i = 0; i < row; ++i) out[i] = pool.empty() ? 0 : pool[(start + i) % pool.size()];
  }
  return 0;
}

int32_t skip_line(void *user, ScanlineBuf *scratch, uint32_t line) {
  Feed &f = *static_cast<Feed *>(user);
  check(scratch != nullptr && scratch->channels == f.planes && scratch->width >= f.width);
  take(f, line);
  return 0;
}

struct Result {
  bool made = false;
  std::vector<int32_t> status;
  std::vector<uint8_t> pixels;
  bool operator==(const Result &o) const { return made == o.made && status == o.status && pixels == o.pixels; }
};

struct Params {
  uint32_t in_w, in_h, out_w, out_h, planes, bits_in, bits_out, filter;
  bool scale_family, can_skip, with_skip;
  uint32_t buffer_flags;
};

Result run(const Params &p, Feed feed) {
  Result result;
  ResampleContext *ctx =
      p.scale_family ? ScaleInitUsingFilter(p.in_w, p.in_h, p.out_w, p.out_h, p.planes, p.bits_in, p.bits_out,
                                            read_line, p.with_skip ? skip_line : nullptr, &feed, p.filter)
                     : resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, p.in_w, p.in_h, p.out_w, p.out_h, p.planes,
                                               p.bits_in, p.bits_out, read_line,
                                               p.with_skip ? skip_line : nullptr, nullptr, &feed, p.filter);
  if (ctx == nullptr) return result;
  result.made = true;
  check(resampleSetIOBoundTask(ctx, 1) == 0 && resampleSetupThreads(ctx, 1) == 0);
  if (p.can_skip) check(resampleSetCanSkipScanlines(ctx, 1) == 0);
  ScanlineBuf *line = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, p.bits_out, p.planes, 0, p.out_w, 1, p.buffer_flags);
  check(line != nullptr);
  const size_t row = size_t{p.out_w} * (p.bits_out / 8);
  bool failed = false;
  // One line past the end, which must come back cleared and 0.
  for (uint32_t y = 0; y <= p.out_h; ++y) {
    const int32_t rc = resampleGetNextScanline(ctx, line);
    result.status.push_back(rc);
    if (rc != 0) {
      failed = true;
      continue;
    }
    if (y + 1 == p.out_h && !failed) check(feed.next == p.in_h && ctx->linesWritten == p.out_h);
    for (uint32_t c = 0; c < p.planes; ++c) {
      const uint8_t *src = line->data + size_t{c} * line->bytesPerPlaneRow;
      result.pixels.insert(result.pixels.end(), src, src + row);
    }
  }
  // A failed read is the only way to fail here.
  check(failed == (feed.fail_at < p.in_h));
  scanlinebufFree(line);
  resampleFree(ctx);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  Params p{};
  const uint32_t filter_byte = in.byte();
  // Mostly a real filter; now and then an id both levels must refuse.
  p.filter = filter_byte < 240 ? ZT_FILTER_FIRST + filter_byte % ZT_FILTER_LAST : filter_byte % 20;
  const uint32_t mode = in.byte();
  p.bits_in = mode & 1 ? 16 : 8;
  p.bits_out = mode & 2 ? 16 : 8;
  p.planes = 1 + (mode >> 2) % 4;
  p.scale_family = mode & 16;
  p.can_skip = mode & 32;
  p.with_skip = mode & 64;
  const bool fail = mode & 128;
  p.in_w = 1 + in.byte() % 24;
  p.in_h = 1 + in.byte() % 24;
  p.out_w = 1 + in.byte() % 24;
  p.out_h = 1 + in.byte() % 24;
  const uint32_t extra = in.byte();
  if (extra & 0x80) {
    // A wide input onto a narrow output: the reduction may pass the limit.
    p.in_w = 1 + (p.in_w * 37) % 80;
    p.out_w = 1 + p.out_w % 3;
  }
  p.buffer_flags = (extra & 1 ? ZT_SLB_ALIGNED : 0) | (extra & 2 ? ZT_SLB_PAD32 : 0);
  const std::vector<uint8_t> pool = in.rest();

  Feed feed{&pool, p.in_w, p.in_h, p.planes, p.bits_in};
  if (fail) feed.fail_at = (extra >> 2) % p.in_h;
  Result first;
  for (const int32_t level : zt::fuzz::kLevels) {
    zt::fuzz::set_level(level);
    const Result result = run(p, feed);
    if (level == zt::fuzz::kLevels[0])
      first = result;
    else
      check(result == first);
  }
  return 0;
}
