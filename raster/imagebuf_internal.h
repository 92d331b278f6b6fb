// The image buffer's inside, shared by the raster files that implement it and
// by the scaling transforms in screening/ (which need the resampler).
//
// A buffer (the exported handle) owns one tile store. The store holds the
// geometry, the tile table, the swap file and the codec states; the transforms
// build a new store and put it in place of the old one, so a cache slot names
// the store it belongs to, never the handle.
//
// Locks: the library-wide cache lock guards the three slot lists, the limit,
// the usage, every slot's list place, use count and dirty mark, and every tile
// descriptor's slot pointer. A store's own lock guards its swap file, codec
// states, compression buffer, the swap fields of its tile descriptors and the
// pixels of its resident tiles while they are copied. The cache lock is taken
// first; a thread holding a store's lock never takes the cache lock.
#pragma once

#include <zt/compress.h>
#include <zt/imagebuf.h>
#include <zt/scanlinebuf.h>
#include <zt/vlimg.h>

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/locks.h"

extern "C" {

/* Test hooks, exported for the test programs only (not in the public header). */

/* Replaces the call that writes tiles to swap files (pwrite's arguments and
 * result); NULL puts pwrite back. */
typedef ssize_t (*ZT_ImageBufSwapWriteFn)(int fd, const void *data, size_t length, off_t offset);
ZT_API void ZT_ImageBufSetSwapWriteHook(ZT_ImageBufSwapWriteFn hook);

typedef struct ZT_ImageBufTileState {
  int32_t resident;     /* a cache slot holds the tile */
  int32_t dirty;        /* ... and it differs from the swap file */
  int32_t neverWritten; /* the tile has no place in the swap file yet */
  uint32_t length;      /* bytes stored in the swap file */
  int64_t offset;       /* -1 when never written */
  uint32_t flags;       /* the stored tile's compressor flags */
} ZT_ImageBufTileState;
ZT_API int32_t ZT_ImageBufGetTileState(const ZT_ImageBuf *buf, uint32_t tile, ZT_ImageBufTileState *state);
/* The swap file's name and the end of what was written to it. */
ZT_API const char *ZT_ImageBufGetSwapName(const ZT_ImageBuf *buf);
ZT_API int64_t ZT_ImageBufGetSwapEnd(const ZT_ImageBuf *buf);
}

namespace zt::raster {

inline constexpr const char *kImageBufModule = "ztimagebuf";
inline constexpr uint32_t kDefaultTileSide = 256;

struct Store;
struct Slot;

struct TileDesc {
  Slot *slot = nullptr;  // resident slot, under the cache lock
  int64_t offset = -1;   // place in the swap file, -1 when never written
  uint32_t length = 0;   // bytes stored there
  uint32_t room = 0;     // bytes that fit at `offset` (the first length written there)
  uint32_t flags = 0;    // compressor flags of the stored bytes; no codec bit when raw
  bool never_written = true;
  bool in_source = false;  // until written back, the tile's pixels are those of the source file
};

struct Slot {
  Slot *prev = nullptr;
  Slot *next = nullptr;
  int list = -1;  // which cache list holds the slot
  Store *owner = nullptr;
  TileDesc *tile = nullptr;
  uint8_t *mem = nullptr;
  size_t size = 0;
  int32_t use = 0;
  bool dirty = false;
};

// Where pixel data lies: the byte steps from one pixel to the next along a
// row, from one row to the next, and from one channel of a pixel to the next.
struct Layout {
  uint8_t *base;
  ptrdiff_t pixel;
  ptrdiff_t row;
  ptrdiff_t channel;
  uint8_t *at(uint32_t x, uint32_t y) const {
    return base + static_cast<ptrdiff_t>(x) * pixel + static_cast<ptrdiff_t>(y) * row;
  }
};

struct Store {
  uint32_t interleave = 0;
  uint32_t bits = 8;
  uint32_t bytes_per_sample = 1;
  uint32_t channels = 1;
  uint32_t bytes_per_pixel = 1;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t tile_w = kDefaultTileSide;
  uint32_t tile_h = kDefaultTileSide;
  uint32_t tiles_x = 0;
  uint32_t tiles_y = 0;
  size_t tile_bytes = 0;
  std::vector<TileDesc> tiles;

  std::string swap_dir;
  std::string swap_name;
  int fd = -1;
  int64_t swap_end = 0;

  uint32_t compression = 0;
  ZT_Compressor *compressor = nullptr;
  ZT_Decompressor *decompressor = nullptr;
  std::vector<uint8_t> compressed;

  // Tiles taken straight from a tiled VLIMG page instead of the swap file;
  // read under the store's lock. `source_ready` once the geometry follows it.
  VLIMG_File *source = nullptr;
  bool source_ready = false;
  std::vector<uint8_t> staging;

  std::atomic<int32_t> error{0};
  SpinLock lock;

  // A number no other store of the process has, and the count of completed
  // writes into the store's tiles: what a copy kept outside the cache checks.
  uint64_t id = 0;
  std::atomic<uint64_t> generation{0};

  // The registry of live stores, under the cache lock, so that shut-down can
  // remove every swap file.
  Store *live_prev = nullptr;
  Store *live_next = nullptr;
  bool registered = false;

  // The layout of a tile's pixels in `mem`, at pixel (x, y) of the tile.
  Layout tile_layout(uint8_t *mem, uint32_t x = 0, uint32_t y = 0) const;
  // The layout of a packed block of w x h pixels in `mem`, interleaved as the
  // store is (by line: each row holds w samples of every channel in turn).
  Layout packed_layout(uint8_t *mem, uint32_t w) const;
  uint32_t tile_index(uint32_t x, uint32_t y) const { return (y / tile_h) * tiles_x + x / tile_w; }
};

struct StoreDeleter {
  void operator()(Store *store) const noexcept;
};
using StorePtr = std::unique_ptr<Store, StoreDeleter>;

// A new store and its swap file (created at once); null on failure, logged
// under `function`, with nothing left behind.
StorePtr store_create(uint32_t interleave, uint32_t bits, uint32_t width, uint32_t height, uint32_t channels,
                      uint32_t compression, const char *swap_dir, const char *function);
// A new empty store shaped like `like` but for the given size and depth, in
// the same swap directory with the same compression.
StorePtr store_create_like(const Store &like, uint32_t width, uint32_t height, uint32_t bits,
                           const char *function);
// Sets the tile size; the store's tiles are dropped.
int32_t store_set_tiles(Store &store, uint32_t tile_w, uint32_t tile_h, const char *function);

// Puts a tile in use: its slot in *slot, or null for a read of a tile that
// holds no data (it reads as zeros). A tile taken for writing is created
// zeroed when it holds no data. Every 0 must be matched by tile_release of a
// non-null slot.
int32_t tile_acquire(Store &store, uint32_t index, bool for_write, Slot **slot, const char *function);
void tile_release(Slot *slot, bool written);
// Releases several at once under one lock; null entries are skipped.
void tiles_release(Slot *const *slots, size_t count, bool written);

// Logs and returns false when the rectangle starts or reaches outside.
bool store_check_rect(const Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h,
                      const char *function);
// Copies the rectangle out of (write false) or into the store; `ext` lays out
// the caller's side, with (x, y) at ext.base. The rectangle is checked.
int32_t store_access(Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h, const Layout &ext,
                     bool write, const char *function);
// True when a tile under the rectangle holds data.
bool store_any_exists(const Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h);
int32_t store_flush(Store &store, const char *function);
// Counts the shut-downs of the cache: slots held across one are gone.
uint64_t cache_epoch();
// Logs and returns -1 when the store is in its error state.
int32_t store_check_usable(const Store &store, const char *function);

// Memory that is walked across rather than along (tile slots, column bands):
// 2 MiB-aligned and offered huge pages, so that a walk down a page costs no
// TLB miss per row. Contents are undefined after reserve.
class LargeBuffer {
 public:
  LargeBuffer() = default;
  ~LargeBuffer();
  LargeBuffer(const LargeBuffer &) = delete;
  LargeBuffer &operator=(const LargeBuffer &) = delete;
  // Room for at least `bytes`; false when memory runs out (the old contents are gone).
  bool reserve(size_t bytes);
  uint8_t *data() const { return data_; }

 private:
  uint8_t *data_ = nullptr;
  size_t capacity_ = 0;
};

// Writes zeros over a block of w x h pixels.
void zero_block(const Layout &to, uint32_t w, uint32_t h, uint32_t channels, uint32_t bytes_per_sample);

// Copies a block of w x h pixels between two layouts.
void copy_block(const Layout &from, const Layout &to, uint32_t w, uint32_t h, uint32_t channels,
                uint32_t bytes_per_sample);

}  // namespace zt::raster

struct ZT_ImageBuf {
  std::atomic<int32_t> references{1};
  void *value = nullptr;
  zt::raster::StorePtr store;
  std::vector<uint32_t> channel_map;

  // Sequential reading: the next line expected and, for the fast form, the
  // tiles of the current tile row held in use.
  std::mutex sequence_mutex;
  uint32_t next_line = 0;
  uint32_t held_row = UINT32_MAX;
  uint64_t held_epoch = 0;
  std::vector<zt::raster::Slot *> held;

  // Column reading: a band of columns read from the tiles at once, column by
  // column, and kept while the store sees no write.
  std::mutex column_mutex;
  uint64_t band_store = 0;
  uint64_t band_generation = 0;
  uint32_t band_x = 0;
  uint32_t band_width = 0;
  zt::raster::LargeBuffer band;
};

namespace zt::raster {

// Lets go of the tiles the fast sequential reader holds.
void buffer_release_held(ZT_ImageBuf &buf);
// Puts `store` in place of the buffer's store (the old one is released).
void buffer_replace_store(ZT_ImageBuf &buf, StorePtr store);
// Logs "NULL imagebuf passed" and returns false for a null buffer.
bool buffer_check(const ZT_ImageBuf *buf, const char *function);

}  // namespace zt::raster
