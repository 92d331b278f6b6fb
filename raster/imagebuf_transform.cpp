// The whole-buffer transforms. Each builds its result in a new tile store,
// one destination tile at a time: the source pixels under the tile are read
// through the cache into a tile-sized block and mapped into the destination
// tile, so a page of any size is transformed in a bounded amount of memory.
// The new store replaces the old one only when it is complete.
#include <zt/imagebuf.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "foundation/internal.h"
#include "raster/buf_internal.h"
#include "raster/imagebuf_internal.h"

using zt::api_guard;
using namespace zt::raster;

namespace {

// Where a destination pixel (x', y') comes from: x = cx + ax x' + bx y',
// y = cy + ay x' + by y', each coefficient -1, 0 or 1.
struct Map {
  int64_t cx, cy;
  int ax, bx, ay, by;
};

struct Rect {
  uint32_t x, y, w, h;
};

// The source rectangle under a destination rectangle.
Rect source_of(const Map &m, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h) {
  const int64_t xs[2] = {x0, int64_t{x0} + w - 1}, ys[2] = {y0, int64_t{y0} + h - 1};
  int64_t min_x = INT64_MAX, max_x = INT64_MIN, min_y = INT64_MAX, max_y = INT64_MIN;
  for (int64_t dx : xs)
    for (int64_t dy : ys) {
      const int64_t sx = m.cx + m.ax * dx + m.bx * dy, sy = m.cy + m.ay * dx + m.by * dy;
      min_x = std::min(min_x, sx);
      max_x = std::max(max_x, sx);
      min_y = std::min(min_y, sy);
      max_y = std::max(max_y, sy);
    }
  return {static_cast<uint32_t>(min_x), static_cast<uint32_t>(min_y), static_cast<uint32_t>(max_x - min_x + 1),
          static_cast<uint32_t>(max_y - min_y + 1)};
}

// Gathers w x h elements of E bytes: destination element (i, j) is the source
// element at origin + i * step_i + j * step_j. Blocks of 16 x 16 keep the
// source lines of a quarter turn in the first-level cache.
template <size_t E>
void gather(uint8_t *dst, ptrdiff_t dst_row, const uint8_t *origin, ptrdiff_t step_i, ptrdiff_t step_j,
            uint32_t w, uint32_t h, size_t element) {
  constexpr uint32_t kBlock = 16;
  for (uint32_t j0 = 0; j0 < h; j0 += kBlock) {
    const uint32_t j1 = std::min(h, j0 + kBlock);
    for (uint32_t i0 = 0; i0 < w; i0 += kBlock) {
      const uint32_t i1 = std::min(w, i0 + kBlock);
      for (uint32_t j = j0; j < j1; ++j) {
        uint8_t *d = dst + static_cast<ptrdiff_t>(j) * dst_row + static_cast<ptrdiff_t>(i0) * element;
        const uint8_t *s = origin + static_cast<ptrdiff_t>(j) * step_j + static_cast<ptrdiff_t>(i0) * step_i;
        for (uint32_t i = i0; i < i1; ++i, d += element, s += step_i) {
          if constexpr (E != 0)
            std::memcpy(d, s, E);
          else
            std::memcpy(d, s, element);
        }
      }
    }
  }
}

void gather_any(uint8_t *dst, ptrdiff_t dst_row, const uint8_t *origin, ptrdiff_t step_i, ptrdiff_t step_j,
                uint32_t w, uint32_t h, size_t element) {
  switch (element) {
    case 1: return gather<1>(dst, dst_row, origin, step_i, step_j, w, h, element);
    case 2: return gather<2>(dst, dst_row, origin, step_i, step_j, w, h, element);
    case 3: return gather<3>(dst, dst_row, origin, step_i, step_j, w, h, element);
    case 4: return gather<4>(dst, dst_row, origin, step_i, step_j, w, h, element);
    case 6: return gather<6>(dst, dst_row, origin, step_i, step_j, w, h, element);
    case 8: return gather<8>(dst, dst_row, origin, step_i, step_j, w, h, element);
    default: return gather<0>(dst, dst_row, origin, step_i, step_j, w, h, element);
  }
}

// Fills the destination block (x0, y0, w, h) at `out` from the source store
// through the map, reading the source area into `block` first.
int32_t map_block(Store &src, const Map &m, const Layout &out, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h,
                  std::vector<uint8_t> &block, const char *fn) {
  const Rect r = source_of(m, x0, y0, w, h);
  block.resize(static_cast<size_t>(r.w) * r.h * src.bytes_per_pixel);
  const Layout in = src.packed_layout(block.data(), r.w);
  // By line, the block holds whole planes one after another.
  Layout read = in;
  if (src.interleave == ZT_INTERLEAVE_BY_LINE) {
    read.row = static_cast<ptrdiff_t>(r.w) * src.bytes_per_sample;
    read.channel = read.row * r.h;
  }
  if (store_access(src, r.x, r.y, r.w, r.h, read, false, fn) != 0) return -1;
  const int64_t ox = m.cx + m.ax * int64_t{x0} + m.bx * int64_t{y0} - r.x;
  const int64_t oy = m.cy + m.ay * int64_t{x0} + m.by * int64_t{y0} - r.y;
  const uint32_t planes = src.interleave == ZT_INTERLEAVE_BY_LINE ? src.channels : 1;
  const size_t element = src.interleave == ZT_INTERLEAVE_BY_LINE ? src.bytes_per_sample : src.bytes_per_pixel;
  const ptrdiff_t step_i = m.ax * read.pixel + m.ay * read.row;
  const ptrdiff_t step_j = m.bx * read.pixel + m.by * read.row;
  for (uint32_t p = 0; p < planes; ++p) {
    const uint8_t *origin = read.base + p * read.channel + ox * read.pixel + oy * read.row;
    gather_any(out.base + p * out.channel, out.row, origin, step_i, step_j, w, h, element);
  }
  return 0;
}

// Builds a new store of width x height from `src` through the map; tiles
// whose source holds no data are left without data.
StorePtr build_mapped(Store &src, uint32_t width, uint32_t height, const Map &m, const char *fn) {
  StorePtr dst = store_create_like(src, width, height, src.bits, fn);
  if (!dst) return nullptr;
  std::vector<uint8_t> block;
  for (uint32_t ty = 0; ty < dst->tiles_y; ++ty)
    for (uint32_t tx = 0; tx < dst->tiles_x; ++tx) {
      const uint32_t x0 = tx * dst->tile_w, y0 = ty * dst->tile_h;
      const uint32_t w = std::min(dst->tile_w, width - x0), h = std::min(dst->tile_h, height - y0);
      const Rect r = source_of(m, x0, y0, w, h);
      if (!store_any_exists(src, r.x, r.y, r.w, r.h)) continue;
      Slot *slot = nullptr;
      if (tile_acquire(*dst, ty * dst->tiles_x + tx, true, &slot, fn) != 0) return nullptr;
      // The new store is ours alone until it is put in place: no lock for its pixels.
      const int32_t status = map_block(src, m, dst->tile_layout(slot->mem), x0, y0, w, h, block, fn);
      tile_release(slot, true);
      if (status != 0) return nullptr;
    }
  return dst;
}

int32_t apply_map(ZT_ImageBuf *buf, bool swap_sides, Map (*make)(const Store &), const char *fn) {
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &src = *buf->store;
    if (store_check_usable(src, fn) != 0) return -1;
    const uint32_t w = swap_sides ? src.height : src.width, h = swap_sides ? src.width : src.height;
    StorePtr dst = build_mapped(src, w, h, make(src), fn);
    if (!dst) return -1;
    buffer_replace_store(*buf, std::move(dst));
    return 0;
  });
}

Map quarter_clockwise(const Store &s) { return {0, int64_t{s.height} - 1, 0, 1, -1, 0}; }
Map quarter_counter(const Store &s) { return {int64_t{s.width} - 1, 0, 0, -1, 1, 0}; }
Map half_turn(const Store &s) { return {int64_t{s.width} - 1, int64_t{s.height} - 1, -1, 0, 0, -1}; }
Map mirror_x(const Store &s) { return {int64_t{s.width} - 1, 0, -1, 0, 0, 1}; }
Map mirror_y(const Store &s) { return {0, int64_t{s.height} - 1, 1, 0, 0, -1}; }

// The rectangle of the buffer turned into caller memory, block by block.
int32_t rotate_rectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t w, uint32_t h, void *data,
                         uint32_t stride, bool clockwise, const char *fn) {
  if (!buffer_check(buf, fn)) return -1;
  if (w == 0 || h == 0) return 0;
  if (data == nullptr) {
    ZT_LOG(kImageBufModule, fn, "NULL data passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &src = *buf->store;
    if (!store_check_rect(src, x, y, w, h, fn)) return -1;
    // The output is h pixels wide and w rows high.
    Layout out = src.packed_layout(static_cast<uint8_t *>(data), h);
    if (stride != 0) {
      if (stride < uint64_t{h} * src.bytes_per_pixel) {
        ZT_LOG(kImageBufModule, fn, "Stride %u is shorter than a row of %u pixels", stride, h);
        return -1;
      }
      out.row = stride;
    }
    const Map m = clockwise ? Map{x, int64_t{y} + h - 1, 0, 1, -1, 0} : Map{int64_t{x} + w - 1, y, 0, -1, 1, 0};
    std::vector<uint8_t> block;
    for (uint32_t y0 = 0; y0 < w; y0 += src.tile_h)
      for (uint32_t x0 = 0; x0 < h; x0 += src.tile_w) {
        Layout part = out;
        part.base = out.at(x0, y0);
        if (map_block(src, m, part, x0, y0, std::min(src.tile_w, h - x0), std::min(src.tile_h, w - y0), block,
                      fn) != 0)
          return -1;
      }
    return 0;
  });
}

// Reverses the pixels of a row block in place.
void reverse_row(const Store &s, uint8_t *row, uint32_t w) {
  const Layout l = s.packed_layout(row, w);
  const uint32_t planes = s.interleave == ZT_INTERLEAVE_BY_LINE ? s.channels : 1;
  const size_t element = s.interleave == ZT_INTERLEAVE_BY_LINE ? s.bytes_per_sample : s.bytes_per_pixel;
  uint8_t tmp[64 * 1024];
  for (uint32_t p = 0; p < planes; ++p) {
    uint8_t *base = row + p * l.channel;
    for (uint32_t i = 0, j = w - 1; i < j; ++i, --j) {
      if (element <= sizeof tmp) {
        std::memcpy(tmp, base + i * element, element);
        std::memcpy(base + i * element, base + j * element, element);
        std::memcpy(base + j * element, tmp, element);
      } else {
        std::swap_ranges(base + i * element, base + (i + 1) * element, base + j * element);
      }
    }
  }
}

// Converts a tile's worth of samples between 8 and 16 bits.
void convert_samples(uint8_t *dst, uint32_t dst_bits, const uint8_t *src, size_t count) {
  const BufKernels &k = buf_kernels();
  if (dst_bits == 16)
    k.copy8to16(reinterpret_cast<uint16_t *>(dst), src, count);
  else
    k.copy16to8(dst, reinterpret_cast<const uint16_t *>(src), count, table16to8());
}

bool pixel_differs(const uint8_t *p, const uint8_t *bg, size_t bpp) { return std::memcmp(p, bg, bpp) != 0; }

}  // namespace

extern "C" {

ZT_API int32_t ZT_ImageBufRotate90(ZT_ImageBuf *buf) {
  return apply_map(buf, true, quarter_clockwise, "ZT_ImageBufRotate90");
}

ZT_API int32_t ZT_ImageBufRotate180(ZT_ImageBuf *buf) {
  return apply_map(buf, false, half_turn, "ZT_ImageBufRotate180");
}

ZT_API int32_t ZT_ImageBufRotate270(ZT_ImageBuf *buf) {
  return apply_map(buf, true, quarter_counter, "ZT_ImageBufRotate270");
}

ZT_API int32_t ZT_ImageBufRotateRectangle90(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                            uint32_t height, void *data, uint32_t stride) {
  return rotate_rectangle(buf, x, y, width, height, data, stride, true, "ZT_ImageBufRotateRectangle90");
}

ZT_API int32_t ZT_ImageBufRotateRectangle270(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                             uint32_t height, void *data, uint32_t stride) {
  return rotate_rectangle(buf, x, y, width, height, data, stride, false, "ZT_ImageBufRotateRectangle270");
}

ZT_API int32_t ZT_ImageBufMirror(ZT_ImageBuf *buf, int32_t mirrorX, int32_t mirrorY) {
  const char *fn = "ZT_ImageBufMirror";
  if (mirrorX != 0 && mirrorY != 0) return apply_map(buf, false, half_turn, fn);
  if (mirrorX != 0) return apply_map(buf, false, mirror_x, fn);
  if (mirrorY != 0) return apply_map(buf, false, mirror_y, fn);
  return buffer_check(buf, fn) ? 0 : -1;
}

ZT_API int32_t ZT_ImageBufXMirror(ZT_ImageBuf *buf) { return apply_map(buf, false, mirror_x, "ZT_ImageBufXMirror"); }

ZT_API int32_t ZT_ImageBufYMirror(ZT_ImageBuf *buf) { return apply_map(buf, false, mirror_y, "ZT_ImageBufYMirror"); }

ZT_API int32_t ZT_ImageBufMirrorRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                          uint32_t height, int32_t mirrorX, int32_t mirrorY) {
  const char *fn = "ZT_ImageBufMirrorRectangle";
  if (!buffer_check(buf, fn)) return -1;
  if (width == 0 || height == 0) return 0;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    if (!store_check_rect(s, x, y, width, height, fn)) return -1;
    if (mirrorX == 0 && mirrorY == 0) return 0;
    const size_t row_bytes = static_cast<size_t>(width) * s.bytes_per_pixel;
    std::vector<uint8_t> a(row_bytes), b(row_bytes);
    const Layout la = s.packed_layout(a.data(), width), lb = s.packed_layout(b.data(), width);
    if (mirrorY == 0) {
      for (uint32_t r = 0; r < height; ++r) {
        if (store_access(s, x, y + r, width, 1, la, false, fn) != 0) return -1;
        reverse_row(s, a.data(), width);
        if (store_access(s, x, y + r, width, 1, la, true, fn) != 0) return -1;
      }
      return 0;
    }
    // Rows are swapped in pairs from both ends; the middle row of an odd height is its own pair.
    for (uint32_t top = 0; top < height - top; ++top) {
      const uint32_t bottom = height - 1 - top;
      if (store_access(s, x, y + top, width, 1, la, false, fn) != 0) return -1;
      if (mirrorX != 0) reverse_row(s, a.data(), width);
      if (bottom != top) {
        if (store_access(s, x, y + bottom, width, 1, lb, false, fn) != 0) return -1;
        if (mirrorX != 0) reverse_row(s, b.data(), width);
        if (store_access(s, x, y + top, width, 1, lb, true, fn) != 0) return -1;
      }
      if (store_access(s, x, y + bottom, width, 1, la, true, fn) != 0) return -1;
    }
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufNegative(ZT_ImageBuf *buf) {
  const char *fn = "ZT_ImageBufNegative";
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    for (uint32_t t = 0; t < s.tiles.size(); ++t) {
      Slot *slot = nullptr;
      if (tile_acquire(s, t, true, &slot, fn) != 0) return -1;
      {
        std::lock_guard<zt::SpinLock> guard(s.lock);
        uint64_t *words = reinterpret_cast<uint64_t *>(slot->mem);
        size_t n = s.tile_bytes / 8, i = 0;
        for (; i < n; ++i) words[i] = ~words[i];
        for (i *= 8; i < s.tile_bytes; ++i) slot->mem[i] = static_cast<uint8_t>(~slot->mem[i]);
      }
      tile_release(slot, true);
    }
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufChangeBPP(ZT_ImageBuf *buf, uint32_t bits) {
  const char *fn = "ZT_ImageBufChangeBPP";
  if (!buffer_check(buf, fn)) return -1;
  if (bits != 8 && bits != 16) {
    ZT_LOG(kImageBufModule, fn, "Unsupported bpp %u", bits);
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &src = *buf->store;
    if (store_check_usable(src, fn) != 0) return -1;
    if (bits == src.bits) return 0;
    StorePtr dst = store_create_like(src, src.width, src.height, bits, fn);
    if (!dst || store_set_tiles(*dst, src.tile_w, src.tile_h, fn) != 0) return -1;
    std::vector<uint8_t> block(src.tile_bytes);
    const size_t samples = static_cast<size_t>(src.tile_w) * src.tile_h * src.channels;
    for (uint32_t t = 0; t < src.tiles.size(); ++t) {
      const uint32_t x0 = (t % src.tiles_x) * src.tile_w, y0 = (t / src.tiles_x) * src.tile_h;
      const uint32_t w = std::min(src.tile_w, src.width - x0), h = std::min(src.tile_h, src.height - y0);
      if (!store_any_exists(src, x0, y0, 1, 1)) continue;
      std::fill(block.begin(), block.end(), 0);
      if (store_access(src, x0, y0, w, h, src.tile_layout(block.data()), false, fn) != 0) return -1;
      Slot *slot = nullptr;
      if (tile_acquire(*dst, t, true, &slot, fn) != 0) return -1;
      convert_samples(slot->mem, bits, block.data(), samples);
      tile_release(slot, true);
    }
    buffer_replace_store(*buf, std::move(dst));
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufCrop(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
  const char *fn = "ZT_ImageBufCrop";
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &src = *buf->store;
    if (store_check_usable(src, fn) != 0) return -1;
    if (width == 0 || height == 0 || !store_check_rect(src, x, y, width, height, fn)) {
      if (width == 0 || height == 0) ZT_LOG(kImageBufModule, fn, "Cannot crop to an empty rectangle");
      return -1;
    }
    StorePtr dst = build_mapped(src, width, height, Map{x, y, 1, 0, 0, 1}, fn);
    if (!dst) return -1;
    buffer_replace_store(*buf, std::move(dst));
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufAutoCrop(ZT_ImageBuf *buf, const void *background, ZT_Rect *kept) {
  const char *fn = "ZT_ImageBufAutoCrop";
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    if (store_check_usable(s, fn) != 0) return -1;
    const size_t bpp = s.bytes_per_pixel;
    std::vector<uint8_t> bg(bpp);
    const Layout one{bg.data(), static_cast<ptrdiff_t>(bpp), static_cast<ptrdiff_t>(bpp), s.bytes_per_sample};
    if (background != nullptr)
      std::memcpy(bg.data(), background, bpp);
    else if (store_access(s, 0, 0, 1, 1, one, false, fn) != 0)
      return -1;
    // Every tile is read with its pixels side by side, whatever the interleave.
    std::vector<uint8_t> block(static_cast<size_t>(s.tile_w) * s.tile_h * bpp);
    uint32_t min_x = UINT32_MAX, min_y = UINT32_MAX, max_x = 0, max_y = 0;
    for (uint32_t t = 0; t < s.tiles.size(); ++t) {
      const uint32_t x0 = (t % s.tiles_x) * s.tile_w, y0 = (t / s.tiles_x) * s.tile_h;
      const uint32_t w = std::min(s.tile_w, s.width - x0), h = std::min(s.tile_h, s.height - y0);
      const Layout l{block.data(), static_cast<ptrdiff_t>(bpp), static_cast<ptrdiff_t>(w * bpp),
                     s.bytes_per_sample};
      if (store_access(s, x0, y0, w, h, l, false, fn) != 0) return -1;
      for (uint32_t j = 0; j < h; ++j) {
        const uint8_t *row = block.data() + static_cast<size_t>(j) * w * bpp;
        uint32_t first = 0;
        while (first < w && !pixel_differs(row + first * bpp, bg.data(), bpp)) ++first;
        if (first == w) continue;
        uint32_t last = w - 1;
        while (last > first && !pixel_differs(row + last * bpp, bg.data(), bpp)) --last;
        min_x = std::min(min_x, x0 + first);
        max_x = std::max(max_x, x0 + last);
        min_y = std::min(min_y, y0 + j);
        max_y = std::max(max_y, y0 + j);
      }
    }
    if (min_x == UINT32_MAX) {
      if (kept != nullptr) ztrectInit(kept, 0, 0, s.width, s.height);
      return 0;
    }
    const uint32_t w = max_x - min_x + 1, h = max_y - min_y + 1;
    if (kept != nullptr) ztrectInit(kept, min_x, min_y, w, h);
    if (min_x == 0 && min_y == 0 && w == s.width && h == s.height) return 0;
    StorePtr dst = build_mapped(s, w, h, Map{min_x, min_y, 1, 0, 0, 1}, fn);
    if (!dst) return -1;
    buffer_replace_store(*buf, std::move(dst));
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufCopy(ZT_ImageBuf *dst, ZT_ImageBuf *src) {
  const char *fn = "ZT_ImageBufCopy";
  if (!buffer_check(dst, fn) || !buffer_check(src, fn)) return -1;
  if (dst == src) return 0;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &from = *src->store;
    Store &to = *dst->store;
    if (from.compression != to.compression) {
      ZT_LOG(kImageBufModule, fn, "source imagebuf uses different compression algorithm src = %x, this = %x",
             from.compression, to.compression);
      return -1;
    }
    if (store_check_usable(from, fn) != 0 || store_check_usable(to, fn) != 0) return -1;
    StorePtr made = store_create(from.interleave, from.bits, from.width, from.height, from.channels,
                                 to.compression, to.swap_dir.c_str(), fn);
    if (!made || store_set_tiles(*made, from.tile_w, from.tile_h, fn) != 0) return -1;
    for (uint32_t t = 0; t < from.tiles.size(); ++t) {
      const uint32_t x0 = (t % from.tiles_x) * from.tile_w, y0 = (t / from.tiles_x) * from.tile_h;
      const uint32_t w = std::min(from.tile_w, from.width - x0), h = std::min(from.tile_h, from.height - y0);
      if (!store_any_exists(from, x0, y0, 1, 1)) continue;
      Slot *slot = nullptr;
      if (tile_acquire(*made, t, true, &slot, fn) != 0) return -1;
      const int32_t status = store_access(from, x0, y0, w, h, made->tile_layout(slot->mem), false, fn);
      tile_release(slot, true);
      if (status != 0) return -1;
    }
    buffer_replace_store(*dst, std::move(made));
    return 0;
  });
}

}  // extern "C"
