// Scaling of whole image buffers through the resampler. It lives here, not in
// raster/, because the resampler is part of screening; it reaches the tile
// store through the raster's internal header.
#include <zt/imagebuf.h>
#include <zt/interleave.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>

#include <memory>
#include <vector>

#include "foundation/internal.h"
#include "raster/imagebuf_internal.h"

using zt::api_guard;
using namespace zt::raster;

namespace {

struct ScanlineDeleter {
  void operator()(ScanlineBuf *b) const { scanlinebufFree(b); }
};
struct ResampleDeleter {
  void operator()(ResampleContext *c) const { resampleFree(c); }
};

// Moves one line between a store and a row interleaved by line (the
// resampler's form), through `staging` when the store is interleaved by pixel.
int32_t line_io(Store &s, uint32_t y, uint32_t width, uint8_t *row, std::vector<uint8_t> &staging, bool write,
                const char *fn) {
  const ptrdiff_t bps = s.bytes_per_sample;
  if (s.interleave == ZT_INTERLEAVE_BY_LINE) {
    const Layout l{row, bps, static_cast<ptrdiff_t>(width) * s.bytes_per_pixel, bps * width};
    return store_access(s, 0, y, width, 1, l, write, fn);
  }
  staging.resize(static_cast<size_t>(width) * s.bytes_per_pixel);
  const Layout l = s.packed_layout(staging.data(), width);
  if (write) {
    ZT_interleavedLineToPixel(staging.data(), row, width, s.channels, s.bytes_per_sample);
    return store_access(s, 0, y, width, 1, l, true, fn);
  }
  if (store_access(s, 0, y, width, 1, l, false, fn) != 0) return -1;
  ZT_interleavedPixelToLine(row, staging.data(), width, s.channels, s.bytes_per_sample);
  return 0;
}

struct Source {
  Store *store;
  std::vector<uint8_t> staging;
  const char *fn;
};

int32_t read_line(void *user, ScanlineBuf *dst, uint32_t line) {
  auto *src = static_cast<Source *>(user);
  if (dst == nullptr) return 0;
  return line_io(*src->store, line, src->store->width, dst->data, src->staging, false, src->fn);
}

int32_t scale(ZT_ImageBuf *buf, uint32_t width, uint32_t height, bool with_filter, uint32_t filter,
              const char *fn) {
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    if (store_check_usable(s, fn) != 0) return -1;
    if (width == 0 || height == 0) {
      ZT_LOG(kImageBufModule, fn, "Cannot scale to %u x %u pixels", width, height);
      return -1;
    }
    StorePtr made = store_create_like(s, width, height, s.bits, fn);
    if (!made) return -1;
    Source source{&s, {}, fn};
    std::unique_ptr<ResampleContext, ResampleDeleter> context(
        with_filter ? resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, s.width, s.height, width, height, s.channels,
                                              s.bits, s.bits, read_line, nullptr, nullptr, &source, filter)
                    : resampleInit(ZT_RESAMPLE_FILTERED, s.width, s.height, width, height, s.channels, s.bits,
                                   s.bits, read_line, nullptr, nullptr, &source));
    if (!context) return -1;
    std::unique_ptr<ScanlineBuf, ScanlineDeleter> out(
        scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, s.bits, s.channels, 0, width, 1, 0));
    if (!out) return -1;
    std::vector<uint8_t> staging;
    for (uint32_t y = 0; y < height; ++y) {
      if (resampleGetNextScanline(context.get(), out.get()) != 0) return -1;
      if (line_io(*made, y, width, out->data, staging, true, fn) != 0) return -1;
    }
    context.reset();
    buffer_replace_store(*buf, std::move(made));
    return 0;
  });
}

}  // namespace

extern "C" {

ZT_API int32_t ZT_ImageBufScale(ZT_ImageBuf *buf, uint32_t width, uint32_t height) {
  return scale(buf, width, height, false, 0, "ZT_ImageBufScale");
}

ZT_API int32_t ZT_ImageBufScaleUsingFilter(ZT_ImageBuf *buf, uint32_t width, uint32_t height,
                                           uint32_t filterId) {
  return scale(buf, width, height, true, filterId, "ZT_ImageBufScaleUsingFilter");
}

}  // extern "C"
