// The exported image-buffer family: creation, references, geometry, and
// rectangle, scanline, column and pixel access over the tile store.
#include <zt/imagebuf.h>

#include <algorithm>
#include <cstring>

#include "foundation/internal.h"
#include "raster/imagebuf_internal.h"

using zt::api_guard;
using namespace zt::raster;

namespace zt::raster {

bool buffer_check(const ZT_ImageBuf *buf, const char *function) {
  if (buf != nullptr) return true;
  ZT_LOG(kImageBufModule, function, "NULL imagebuf passed");
  return false;
}

void buffer_release_held(ZT_ImageBuf &buf) {
  // A shut-down of the cache in between has released the slots already.
  if (!buf.held.empty() && buf.held_epoch == cache_epoch())
    for (Slot *slot : buf.held)
      if (slot != nullptr) tile_release(slot, false);
  buf.held.clear();
  buf.held_row = UINT32_MAX;
}

void buffer_replace_store(ZT_ImageBuf &buf, StorePtr store) {
  {
    std::lock_guard<std::mutex> guard(buf.sequence_mutex);
    buffer_release_held(buf);
    buf.next_line = 0;
  }
  buf.channel_map.resize(store->channels);
  for (uint32_t c = 0; c < store->channels; ++c) buf.channel_map[c] = c;
  buf.store = std::move(store);
}

}  // namespace zt::raster

namespace {

// The layout of a rectangle of `w` pixels per row as callers pass it.
Layout caller_layout(const Store &store, void *data, uint32_t w, uint32_t stride) {
  Layout layout = store.packed_layout(static_cast<uint8_t *>(data), w);
  if (stride != 0) layout.row = stride;
  return layout;
}

int32_t rectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t w, uint32_t h, void *data,
                  uint32_t stride, bool write, const char *function) {
  if (!buffer_check(buf, function)) return -1;
  if (w == 0 || h == 0) return 0;
  if (data == nullptr) {
    ZT_LOG(kImageBufModule, function, "NULL data passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, function, -1, [&] {
    Store &store = *buf->store;
    uint64_t row_bytes = uint64_t{w} * store.bytes_per_pixel;
    if (stride != 0 && stride < row_bytes) {
      ZT_LOG(kImageBufModule, function, "Stride %u is shorter than a row of %llu bytes", stride,
             static_cast<unsigned long long>(row_bytes));
      return -1;
    }
    return store_access(store, x, y, w, h, caller_layout(store, data, w, stride), write, function);
  });
}

// A column is laid out as a row of `height` pixels.
Layout column_layout(const Store &store, void *data) {
  Layout row = store.packed_layout(static_cast<uint8_t *>(data), store.height);
  return {row.base, row.pixel, row.pixel, row.channel};
}

constexpr size_t kColumnBandBytes = size_t{4} << 20;

// Reading a column touches one cache line in every row of every tile down the
// page; the band keeps the whole line's worth of columns, so the next columns
// cost a copy from it instead of another walk through the tiles. The band is
// kept column by column, so that each later column is one run of memory.
int32_t get_column(ZT_ImageBuf *buf, uint32_t x, void *data, const char *function) {
  Store &store = *buf->store;
  if (store_check_usable(store, function) != 0) return -1;
  if (!store_check_rect(store, x, 0, 1, store.height, function)) return -1;
  std::lock_guard<std::mutex> guard(buf->column_mutex);
  const uint64_t generation = store.generation.load(std::memory_order_acquire);
  const uint32_t bpp = store.bytes_per_pixel;
  const size_t column_bytes = size_t{store.height} * bpp;
  if (buf->band_store != store.id || buf->band_generation != generation || x < buf->band_x ||
      x >= buf->band_x + buf->band_width) {
    // Whole tiles across when the band's budget allows: each tile is then
    // read once, while it is still in the cache after its read from swap.
    // Otherwise an even share of a tile, so that no band reaches into the
    // next column of tiles and the cache never has to hold two.
    const size_t budget = std::max<size_t>(std::max<uint32_t>(1, 64 / bpp), kColumnBandBytes / column_bytes);
    uint32_t across = store.tile_w;
    if (budget < across) {
      const uint32_t parts = static_cast<uint32_t>((across + budget - 1) / budget);
      across = (across + parts - 1) / parts;
    }
    buf->band_store = 0;
    const uint32_t tile_x = x / store.tile_w * store.tile_w;
    const uint32_t tile_end = static_cast<uint32_t>(std::min<uint64_t>(store.width, uint64_t{tile_x} + store.tile_w));
    buf->band_x = tile_x + (x - tile_x) / across * across;
    buf->band_width = std::min(across, tile_end - buf->band_x);
    if (!buf->band.reserve(buf->band_width * column_bytes)) {
      ZT_LOG(kImageBufModule, function, "Out of memory for a band of %u columns", buf->band_width);
      return -1;
    }
    const Layout band{buf->band.data(), static_cast<ptrdiff_t>(column_bytes), static_cast<ptrdiff_t>(bpp),
                      store.bytes_per_sample};
    if (store_access(store, buf->band_x, 0, buf->band_width, store.height, band, false, function) != 0) return -1;
    buf->band_store = store.id;
    buf->band_generation = generation;
  }
  // Whole pixels in the band; the caller's column is a row of `height` pixels
  // interleaved as the store is (one memcpy when that is by pixel).
  const Layout from{buf->band.data() + size_t{x - buf->band_x} * column_bytes, bpp, 0, store.bytes_per_sample};
  copy_block(from, store.packed_layout(static_cast<uint8_t *>(data), store.height), store.height, 1,
             store.channels, store.bytes_per_sample);
  return 0;
}

int32_t column(ZT_ImageBuf *buf, uint32_t x, void *data, bool write, const char *function) {
  if (!buffer_check(buf, function)) return -1;
  if (data == nullptr) {
    ZT_LOG(kImageBufModule, function, "NULL data passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, function, -1, [&] {
    if (!write) return get_column(buf, x, data, function);
    Store &store = *buf->store;
    return store_access(store, x, 0, 1, store.height, column_layout(store, data), true, function);
  });
}

int32_t pixel(ZT_ImageBuf *buf, uint32_t x, uint32_t y, void *data, bool write, const char *function) {
  if (!buffer_check(buf, function)) return -1;
  if (data == nullptr) {
    ZT_LOG(kImageBufModule, function, "NULL data passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, function, -1, [&] {
    Store &store = *buf->store;
    Layout layout{static_cast<uint8_t *>(data), store.bytes_per_pixel, store.bytes_per_pixel,
                  store.bytes_per_sample};
    return store_access(store, x, y, 1, 1, layout, write, function);
  });
}

// Checks and advances the sequence of ReadScanline(Fast); line 0 restarts it.
int32_t next_in_sequence(ZT_ImageBuf &buf, uint32_t y, const char *function) {
  if (y == 0) {
    buffer_release_held(buf);
    buf.next_line = 0;
  }
  if (y != buf.next_line) {
    ZT_LOG(kImageBufModule, function, "Called out of sequence. Expecting line %u but got %u instead",
           buf.next_line, y);
    return -1;
  }
  if (y >= buf.store->height) {
    ZT_LOG(kImageBufModule, function, "Line %u is beyond the last line %u", y, buf.store->height - 1);
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

ZT_API uint32_t ZT_ImageBufDefaultTileWidth(void) { return kDefaultTileSide; }

ZT_API ZT_ImageBuf *ZT_ImageBufInit(uint32_t interleave, uint32_t bits, uint32_t width, uint32_t height,
                                    uint32_t channels, uint32_t compressionFlags, const char *swapDirectory,
                                    void *value) {
  const char *fn = "ZT_ImageBufInit";
  return api_guard<ZT_ImageBuf *>(kImageBufModule, fn, nullptr, [&]() -> ZT_ImageBuf * {
    StorePtr store = store_create(interleave, bits, width, height, channels, compressionFlags, swapDirectory, fn);
    if (!store) return nullptr;
    auto buf = std::make_unique<ZT_ImageBuf>();
    buf->value = value;
    buffer_replace_store(*buf, std::move(store));
    return buf.release();
  });
}

ZT_API int32_t ZT_ImageBufAddReference(ZT_ImageBuf *buf) {
  if (!buffer_check(buf, "ZT_ImageBufAddReference")) return -1;
  buf->references.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

ZT_API void ZT_ImageBufFree(ZT_ImageBuf *buf) {
  if (buf == nullptr) return;
  if (buf->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  {
    std::lock_guard<std::mutex> guard(buf->sequence_mutex);
    buffer_release_held(*buf);
  }
  delete buf;
}

ZT_API int32_t ZT_ImageBufGetInfo(const ZT_ImageBuf *buf, ZT_ImageBufInfo *info) {
  if (!buffer_check(buf, "ZT_ImageBufGetInfo")) return -1;
  if (info == nullptr) {
    ZT_LOG(kImageBufModule, "ZT_ImageBufGetInfo", "NULL info passed");
    return -1;
  }
  const Store &store = *buf->store;
  info->width = store.width;
  info->height = store.height;
  info->channels = store.channels;
  info->bitsPerSample = store.bits;
  info->bytesPerPixel = store.bytes_per_pixel;
  info->interleave = store.interleave;
  info->tileWidth = store.tile_w;
  info->tileHeight = store.tile_h;
  info->tilesAcross = store.tiles_x;
  info->tilesDown = store.tiles_y;
  info->compressionFlags = store.compression;
  info->errorState = store.error.load();
  info->value = buf->value;
  return 0;
}

ZT_API int32_t ZT_ImageBufSetTileSize(ZT_ImageBuf *buf, uint32_t tileWidth, uint32_t tileHeight) {
  const char *fn = "ZT_ImageBufSetTileSize";
  if (!buffer_check(buf, fn)) return -1;
  const int32_t clients = buf->references.load();
  if (clients > 1) {
    ZT_LOG(kImageBufModule, fn, "Attempted to change tile parameters for an imagebuf that is being used by %d clients",
           clients);
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    {
      std::lock_guard<std::mutex> guard(buf->sequence_mutex);
      buffer_release_held(*buf);
      buf->next_line = 0;
    }
    return store_set_tiles(*buf->store, tileWidth, tileHeight, fn);
  });
}

ZT_API uint32_t ZT_ImageBuf_tilenum(const ZT_ImageBuf *buf, uint32_t x, uint32_t y) {
  const char *fn = "ZT_ImageBuf_tilenum";
  if (!buffer_check(buf, fn)) return UINT32_MAX;
  const Store &store = *buf->store;
  if (x >= store.width || y >= store.height) {
    ZT_LOG(kImageBufModule, fn, "Pixel %u, %u is outside an imagebuf of %u x %u", x, y, store.width,
           store.height);
    return UINT32_MAX;
  }
  return store.tile_index(x, y);
}

ZT_API int32_t ZT_ImageBuf_tile_exists(const ZT_ImageBuf *buf, uint32_t tile) {
  if (!buffer_check(buf, "ZT_ImageBuf_tile_exists")) return -1;
  const Store &store = *buf->store;
  if (tile >= store.tiles.size()) return 0;
  const uint32_t tx = tile % store.tiles_x, ty = tile / store.tiles_x;
  return store_any_exists(store, tx * store.tile_w, ty * store.tile_h, 1, 1) ? 1 : 0;
}

ZT_API int32_t ZT_ImageBuf_rectangle_exists(const ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                            uint32_t height) {
  const char *fn = "ZT_ImageBuf_rectangle_exists";
  if (!buffer_check(buf, fn)) return -1;
  const Store &store = *buf->store;
  if (width == 0 || height == 0) return 1;
  if (!store_check_rect(store, x, y, width, height, fn)) return -1;
  for (uint32_t ty = y / store.tile_h; ty <= (y + height - 1) / store.tile_h; ++ty)
    for (uint32_t tx = x / store.tile_w; tx <= (x + width - 1) / store.tile_w; ++tx)
      if (!store_any_exists(store, tx * store.tile_w, ty * store.tile_h, 1, 1)) return 0;
  return 1;
}

ZT_API int32_t ZT_ImageBufGetRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                       uint32_t height, void *data, uint32_t stride) {
  return rectangle(buf, x, y, width, height, data, stride, false, "ZT_ImageBufGetRectangle");
}

ZT_API int32_t ZT_ImageBufPutRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                       uint32_t height, const void *data, uint32_t stride) {
  return rectangle(buf, x, y, width, height, const_cast<void *>(data), stride, true, "ZT_ImageBufPutRectangle");
}

ZT_API int32_t ZT_ImageBufGetScanline(ZT_ImageBuf *buf, uint32_t y, void *data) {
  const char *fn = "ZT_ImageBufGetScanline";
  if (!buffer_check(buf, fn)) return -1;
  return rectangle(buf, 0, y, buf->store->width, 1, data, 0, false, fn);
}

ZT_API int32_t ZT_ImageBufPutScanline(ZT_ImageBuf *buf, uint32_t y, const void *data) {
  const char *fn = "ZT_ImageBufPutScanline";
  if (!buffer_check(buf, fn)) return -1;
  return rectangle(buf, 0, y, buf->store->width, 1, const_cast<void *>(data), 0, true, fn);
}

ZT_API int32_t ZT_ImageBufGetColumn(ZT_ImageBuf *buf, uint32_t x, void *data) {
  return column(buf, x, data, false, "ZT_ImageBufGetColumn");
}

ZT_API int32_t ZT_ImageBufPutColumn(ZT_ImageBuf *buf, uint32_t x, const void *data) {
  return column(buf, x, const_cast<void *>(data), true, "ZT_ImageBufPutColumn");
}

ZT_API int32_t ZT_ImageBufGetPixel(ZT_ImageBuf *buf, uint32_t x, uint32_t y, void *data) {
  return pixel(buf, x, y, data, false, "ZT_ImageBufGetPixel");
}

ZT_API int32_t ZT_ImageBufPutPixel(ZT_ImageBuf *buf, uint32_t x, uint32_t y, const void *data) {
  return pixel(buf, x, y, const_cast<void *>(data), true, "ZT_ImageBufPutPixel");
}

ZT_API int32_t ZT_ImageBufReadScanline(ZT_ImageBuf *buf, uint32_t y, void *data) {
  const char *fn = "ZT_ImageBufReadScanline";
  if (!buffer_check(buf, fn)) return -1;
  std::lock_guard<std::mutex> guard(buf->sequence_mutex);
  if (next_in_sequence(*buf, y, fn) != 0) return -1;
  if (rectangle(buf, 0, y, buf->store->width, 1, data, 0, false, fn) != 0) return -1;
  ++buf->next_line;
  return 0;
}

ZT_API int32_t ZT_ImageBufReadScanlineFast(ZT_ImageBuf *buf, uint32_t y, void *data) {
  const char *fn = "ZT_ImageBufReadScanlineFast";
  if (!buffer_check(buf, fn)) return -1;
  if (data == nullptr) {
    ZT_LOG(kImageBufModule, fn, "NULL data passed");
    return -1;
  }
  std::lock_guard<std::mutex> guard(buf->sequence_mutex);
  if (next_in_sequence(*buf, y, fn) != 0) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &store = *buf->store;
    const uint32_t row = y / store.tile_h;
    if (row != buf->held_row) {
      buffer_release_held(*buf);
      buf->held.reserve(store.tiles_x);
      buf->held_epoch = cache_epoch();
      for (uint32_t tx = 0; tx < store.tiles_x; ++tx) {
        Slot *slot = nullptr;
        if (tile_acquire(store, row * store.tiles_x + tx, false, &slot, fn) != 0) {
          buffer_release_held(*buf);
          return -1;
        }
        buf->held.push_back(slot);
      }
      buf->held_row = row;
    }
    if (store_check_usable(store, fn) != 0) return -1;
    const Layout out = store.packed_layout(static_cast<uint8_t *>(data), store.width);
    const uint32_t line_in_tile = y - row * store.tile_h;
    {
      // One lock for the whole line: a lock per tile costs as much as its copy.
      std::lock_guard<zt::SpinLock> tile_guard(store.lock);
      for (uint32_t tx = 0; tx < store.tiles_x; ++tx) {
        const uint32_t left = tx * store.tile_w;
        const uint32_t w = std::min(store.tile_w, store.width - left);
        Layout part = out;
        part.base = out.at(left, 0);
        if (Slot *slot = buf->held[tx])
          copy_block(store.tile_layout(slot->mem, 0, line_in_tile), part, w, 1, store.channels,
                     store.bytes_per_sample);
        else
          zero_block(part, w, 1, store.channels, store.bytes_per_sample);
      }
    }
    ++buf->next_line;
    if (line_in_tile + 1 == store.tile_h || buf->next_line == store.height) buffer_release_held(*buf);
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufFlush(ZT_ImageBuf *buf) {
  const char *fn = "ZT_ImageBufFlush";
  if (!buffer_check(buf, fn)) return -1;
  return store_flush(*buf->store, fn);
}

}  // extern "C"
