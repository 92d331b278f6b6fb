// The library-wide tile cache and the tile stores of image buffers: slots and
// their three lists, eviction with write-back to swap files, read-back, and
// the rectangle copies every access is built on.
#include "raster/imagebuf_internal.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "foundation/internal.h"
#include "raster/interleave_internal.h"

namespace zt::raster {
namespace {

enum ListId { kInUse = 0, kIdleClean = 1, kIdleDirty = 2 };

// The codec bits of compressor flags: a stored tile without any is raw.
constexpr uint32_t kCodecBits =
    ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZW | ZT_COMPRESS_DEFLATE | ZT_COMPRESS_LZJB | ZT_COMPRESS_LZ4;

struct SlotList {
  Slot *head = nullptr;
  Slot *tail = nullptr;
};

// Plain data only: the cache outlives every static destructor, so that an
// atexit handler may still walk it.
struct Cache {
  AtomicSpinLock lock;
  bool running = false;
  bool exit_handler = false;
  int64_t limit = ZT_IMAGEBUF_DEFAULT_CACHE_SIZE;
  int64_t used = 0;
  uint64_t epoch = 0;
  SlotList lists[3];
  Store *live = nullptr;
};

constinit Cache g_cache;
constinit std::atomic<int32_t> g_swap_counter{0};
constinit std::atomic<uint64_t> g_store_ids{0};
constinit std::atomic<ZT_ImageBufSwapWriteFn> g_write_hook{nullptr};

void list_remove(Slot *slot) {
  SlotList &list = g_cache.lists[slot->list];
  (slot->prev ? slot->prev->next : list.head) = slot->next;
  (slot->next ? slot->next->prev : list.tail) = slot->prev;
  slot->prev = slot->next = nullptr;
  slot->list = -1;
}

void list_push_back(int id, Slot *slot) {
  SlotList &list = g_cache.lists[id];
  slot->list = id;
  slot->next = nullptr;
  slot->prev = list.tail;
  (list.tail ? list.tail->next : list.head) = slot;
  list.tail = slot;
}

void list_push_front(int id, Slot *slot) {
  SlotList &list = g_cache.lists[id];
  slot->list = id;
  slot->prev = nullptr;
  slot->next = list.head;
  (list.head ? list.head->prev : list.tail) = slot;
  list.head = slot;
}

// Slot memory. A column, a rotation or a fill walks down whole columns of
// tiles a row at a time, so with 4 KiB pages nearly every row of every tile is
// another TLB miss. Slots of kHugeFrom bytes or more are therefore carved from
// 2 MiB-aligned blocks that the kernel is asked to back with huge pages;
// smaller ones would waste too much of a block. A block is returned as soon
// as none of its pieces is in use. Under the cache lock.
constexpr size_t kHugeBlock = size_t{2} << 20;
constexpr size_t kHugeFrom = size_t{64} << 10;

struct SlotBlock {
  SlotBlock *next;
  uint8_t *base;
  size_t piece;    // bytes of each piece, a multiple of 4 KiB
  uint32_t count;  // pieces in the block, at most 32
  uint32_t free;   // bit i set: piece i is free
};
constinit SlotBlock *g_blocks = nullptr;

size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }
uint32_t all_pieces(uint32_t count) { return count >= 32 ? UINT32_MAX : (uint32_t{1} << count) - 1; }

uint8_t *large_alloc(size_t bytes) {
  void *mem = nullptr;
  if (::posix_memalign(&mem, kHugeBlock, std::max<size_t>(bytes, 1)) != 0) return nullptr;
  // Only advice: without huge pages the memory works as any other.
  if (bytes >= kHugeBlock) (void)::madvise(mem, bytes, MADV_HUGEPAGE);
  return static_cast<uint8_t *>(mem);
}

uint8_t *slot_memory_get(size_t bytes) {
  if (bytes < kHugeFrom) {
    void *mem = nullptr;
    return ::posix_memalign(&mem, 64, std::max<size_t>(bytes, 1)) == 0 ? static_cast<uint8_t *>(mem) : nullptr;
  }
  const size_t piece = round_up(bytes, 4096);
  for (SlotBlock *b = g_blocks; b != nullptr; b = b->next)
    if (b->piece == piece && b->free != 0) {
      const int i = std::countr_zero(b->free);
      b->free &= b->free - 1;
      return b->base + static_cast<size_t>(i) * piece;
    }
  const size_t block_bytes = std::max(kHugeBlock, round_up(piece, kHugeBlock));
  auto *b = new (std::nothrow) SlotBlock{g_blocks, nullptr, piece, static_cast<uint32_t>(block_bytes / piece), 0};
  uint8_t *mem = b != nullptr ? large_alloc(block_bytes) : nullptr;
  if (mem == nullptr) {
    delete b;
    return nullptr;
  }
  b->base = mem;
  b->free = all_pieces(b->count) & ~uint32_t{1};
  g_blocks = b;
  return b->base;
}

void slot_memory_put(uint8_t *mem, size_t bytes) {
  if (bytes < kHugeFrom) {
    std::free(mem);
    return;
  }
  for (SlotBlock **at = &g_blocks; *at != nullptr; at = &(*at)->next) {
    SlotBlock *b = *at;
    if (mem < b->base || mem >= b->base + size_t{b->count} * b->piece) continue;
    b->free |= uint32_t{1} << ((mem - b->base) / b->piece);
    if (b->free == all_pieces(b->count)) {
      *at = b->next;
      std::free(b->base);
      delete b;
    }
    return;
  }
}

}  // namespace

LargeBuffer::~LargeBuffer() { std::free(data_); }

bool LargeBuffer::reserve(size_t bytes) {
  if (bytes <= capacity_) return true;
  std::free(data_);
  capacity_ = 0;
  data_ = large_alloc(bytes);
  if (data_ == nullptr) return false;
  capacity_ = bytes;
  return true;
}

namespace {

void slot_free(Slot *slot) {
  g_cache.used -= static_cast<int64_t>(slot->size);
  slot_memory_put(slot->mem, slot->size);
  delete slot;
}

// A slot of `bytes` bytes counted in the cache's usage; null when memory runs out.
Slot *slot_new(size_t bytes) {
  uint8_t *mem = slot_memory_get(bytes);
  if (mem == nullptr) return nullptr;
  auto *slot = new (std::nothrow) Slot;
  if (slot == nullptr) {
    slot_memory_put(mem, bytes);
    return nullptr;
  }
  slot->mem = mem;
  slot->size = bytes;
  g_cache.used += static_cast<int64_t>(bytes);
  return slot;
}

// Takes a slot off its list and its tile, and gives it `bytes` bytes. False
// when a new size cannot be had; the slot is then freed.
bool slot_take(Slot *slot, size_t bytes) {
  list_remove(slot);
  if (slot->tile != nullptr) slot->tile->slot = nullptr;
  slot->owner = nullptr;
  slot->tile = nullptr;
  slot->dirty = false;
  if (slot->size == bytes) return true;
  uint8_t *mem = slot_memory_get(bytes);
  if (mem == nullptr) {
    slot_free(slot);
    return false;
  }
  slot_memory_put(slot->mem, slot->size);
  g_cache.used += static_cast<int64_t>(bytes) - static_cast<int64_t>(slot->size);
  slot->mem = mem;
  slot->size = bytes;
  return true;
}

bool write_all(int fd, const uint8_t *data, size_t length, int64_t offset) {
  ZT_ImageBufSwapWriteFn hook = g_write_hook.load(std::memory_order_acquire);
  while (length > 0) {
    ssize_t n = hook != nullptr ? hook(fd, data, length, offset) : ::pwrite(fd, data, length, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ENOSPC;
      return false;
    }
    data += n;
    length -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

// Reads exactly `length` bytes; a file that ends early fails with errno 0.
bool read_all(int fd, uint8_t *data, size_t length, int64_t offset) {
  while (length > 0) {
    ssize_t n = ::pread(fd, data, length, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = 0;
      return false;
    }
    data += n;
    length -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

uint32_t tile_number(const Store &store, const TileDesc &tile) {
  return static_cast<uint32_t>(&tile - store.tiles.data());
}

// Opens the swap file made at creation; under the store's lock.
bool open_swap(Store &store, const char *function) {
  if (store.fd >= 0) return true;
  store.fd = ::open(store.swap_name.c_str(), O_RDWR | O_CLOEXEC);
  if (store.fd >= 0) return true;
  ZT_LOG(kImageBufModule, function, "Cannot open swap file %s", store.swap_name.c_str());
  store.error.store(-1);
  return false;
}

// Writes a slot's tile to its owner's swap file: compressed when that pays,
// at the tile's old place when it fits there, else at the end. Under the cache
// lock; takes the owner's lock. False (the owner then in its error state) on
// failure.
bool write_back(Slot *slot, const char *function) {
  Store &store = *slot->owner;
  TileDesc &tile = *slot->tile;
  std::lock_guard<SpinLock> guard(store.lock);
  if (store.error.load() != 0) return false;
  if (!open_swap(store, function)) return false;
  const uint8_t *data = slot->mem;
  uint32_t length = static_cast<uint32_t>(store.tile_bytes);
  uint32_t flags = store.compression & ~(kCodecBits | ZT_COMPRESS_DELTA);
  if (store.compressor != nullptr) {
    uint32_t block_flags = 0;
    uint32_t size = ZT_Compress(store.compressor, slot->mem, store.compressed.data(), length,
                                static_cast<uint32_t>(store.compressed.size()), &block_flags);
    if (size == ZT_COMPRESS_ERROR) {
      ZT_LOG(kImageBufModule, function, "Could not compress tile %u of swap file %s",
             tile_number(store, tile), store.swap_name.c_str());
      store.error.store(-1);
      return false;
    }
    // A block that did not shrink is kept raw, so reading it back costs a copy only.
    if (size != 0 && size < length && (block_flags & kCodecBits) != 0) {
      data = store.compressed.data();
      length = size;
      flags = block_flags;
    }
  }
  const bool in_place = !tile.never_written && tile.offset >= 0 && length <= tile.room;
  const int64_t offset = in_place ? tile.offset : store.swap_end;
  if (!write_all(store.fd, data, length, offset)) {
    ZT_LOG(kImageBufModule, function, "Cannot write tile %u (%u bytes at %lld) to swap file %s: %s",
           tile_number(store, tile), length, static_cast<long long>(offset), store.swap_name.c_str(),
           std::strerror(errno));
    store.error.store(-1);
    return false;
  }
  if (!in_place) {
    store.swap_end += length;
    tile.room = length;
  }
  tile.offset = offset;
  tile.length = length;
  tile.flags = flags;
  tile.never_written = false;
  slot->dirty = false;
  return true;
}

// Reads a tile back from the swap file into its slot. Under the cache lock;
// takes the store's lock.
bool read_back(Store &store, TileDesc &tile, Slot *slot, const char *function) {
  std::lock_guard<SpinLock> guard(store.lock);
  if (!open_swap(store, function)) return false;
  const bool coded = (tile.flags & kCodecBits) != 0;
  const uint32_t number = tile_number(store, tile);
  if ((coded && tile.length > store.compressed.size()) || (!coded && tile.length != store.tile_bytes)) {
    ZT_LOG(kImageBufModule, function, "Corrupt tile %u in swap file %s", number, store.swap_name.c_str());
    store.error.store(-1);
    return false;
  }
  uint8_t *target = coded ? store.compressed.data() : slot->mem;
  if (!read_all(store.fd, target, tile.length, tile.offset)) {
    ZT_LOG(kImageBufModule, function, "Cannot read tile %u (%u bytes at %lld) from swap file %s: %s", number,
           tile.length, static_cast<long long>(tile.offset), store.swap_name.c_str(),
           errno != 0 ? std::strerror(errno) : "the file is too short");
    store.error.store(-1);
    return false;
  }
  if (coded) {
    uint32_t size = ZT_Decompress(store.decompressor, target, slot->mem, tile.length,
                                  static_cast<uint32_t>(store.tile_bytes), tile.flags);
    if (size != store.tile_bytes) {
      if (size != ZT_COMPRESS_ERROR)
        ZT_LOG(kImageBufModule, function, "Tile %u of swap file %s decompressed to %u bytes instead of %zu",
               number, store.swap_name.c_str(), size, store.tile_bytes);
      store.error.store(-1);
      return false;
    }
  }
  return true;
}

// Reads a tile from the source file into its slot. Under the cache lock;
// takes the store's lock. The file's tiles are interleaved by pixel.
bool read_source(Store &store, TileDesc &tile, Slot *slot) {
  std::lock_guard<SpinLock> guard(store.lock);
  const uint32_t number = tile_number(store, tile);
  const uint32_t stride = store.tile_w * store.bytes_per_pixel;
  const bool by_line = store.interleave == ZT_INTERLEAVE_BY_LINE;
  if (by_line) store.staging.resize(store.tile_bytes);
  uint8_t *target = by_line ? store.staging.data() : slot->mem;
  if (VLIMG_ReadTile(store.source, number, target, stride) != 0) {
    store.error.store(-1);
    return false;
  }
  if (by_line) {
    const uint32_t x0 = (number % store.tiles_x) * store.tile_w, y0 = (number / store.tiles_x) * store.tile_h;
    const uint32_t w = std::min(store.tile_w, store.width - x0), h = std::min(store.tile_h, store.height - y0);
    for (uint32_t y = 0; y < h; ++y)
      pixel_to_line(slot->mem + size_t{y} * stride, target + size_t{y} * stride, w, store.channels,
                    store.bytes_per_sample, store.tile_w);
  }
  return true;
}

// A slot for a tile of `bytes` bytes, under the cache lock: a new one while
// the limit allows, else the least recently released clean slot, else the
// least recently released dirty one after writing it back, else (nothing
// idle, or the write-back failed) a new one beyond the limit.
Slot *find_slot(size_t bytes, const char *function) {
  if (g_cache.used + static_cast<int64_t>(bytes) <= g_cache.limit) {
    if (Slot *slot = slot_new(bytes)) return slot;
  }
  if (Slot *slot = g_cache.lists[kIdleClean].head) {
    if (slot_take(slot, bytes)) return slot;
  } else if (Slot *dirty = g_cache.lists[kIdleDirty].head) {
    // A buffer in its error state never shows its tiles again: no write-back.
    if (dirty->owner->error.load() != 0 || write_back(dirty, function)) {
      if (slot_take(dirty, bytes)) return dirty;
    }
  }
  Slot *slot = slot_new(bytes);
  if (slot == nullptr) ZT_LOG(kImageBufModule, function, "No room left in tile cache?");
  return slot;
}

void registry_add(Store *store) {
  store->live_prev = nullptr;
  store->live_next = g_cache.live;
  if (g_cache.live != nullptr) g_cache.live->live_prev = store;
  g_cache.live = store;
  store->registered = true;
}

void registry_remove(Store *store) {
  if (!store->registered) return;
  (store->live_prev ? store->live_prev->live_next : g_cache.live) = store->live_next;
  if (store->live_next != nullptr) store->live_next->live_prev = store->live_prev;
  store->registered = false;
}

// Detaches a store's resident slots, under the cache lock. With `keep`, each
// goes to the head of the idle clean list for reuse while the cache is within
// its limit; the others are released.
void detach_slots(Store &store, bool keep) {
  for (TileDesc &tile : store.tiles) {
    Slot *slot = tile.slot;
    if (slot == nullptr) continue;
    tile.slot = nullptr;
    list_remove(slot);
    slot->owner = nullptr;
    slot->tile = nullptr;
    slot->use = 0;
    slot->dirty = false;
    if (keep && g_cache.used <= g_cache.limit)
      list_push_front(kIdleClean, slot);
    else
      slot_free(slot);
  }
}

// Removes every swap file still on disk; for shut-down and process exit.
void remove_live_swap_files() {
  for (Store *store = g_cache.live; store != nullptr; store = store->live_next) {
    if (store->swap_name.empty()) continue;
    ::unlink(store->swap_name.c_str());
    store->swap_name.clear();
  }
}

void exit_handler() {
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  remove_live_swap_files();
}

std::string temp_directory() {
  const char *dir = std::getenv("TMPDIR");
  if (dir != nullptr && dir[0] != '\0') return dir;
#ifdef P_tmpdir
  return P_tmpdir;
#else
  return {};
#endif
}

// Creates "<dir>/ztswap_<n>" with the next free n.
bool create_swap_file(Store &store, const char *function) {
  for (;;) {
    const int32_t n = g_swap_counter.fetch_add(1) + 1;
    std::string name = store.swap_dir + "/ztswap_" + std::to_string(n);
    int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0664);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) {
      ZT_LOG(kImageBufModule, function, "Cannot open swap file %s", name.c_str());
      return false;
    }
    // The mode is the system's, whatever the process umask.
    ::fchmod(fd, 0664);
    ::close(fd);
    store.swap_name = std::move(name);
    return true;
  }
}

}  // namespace

Layout Store::tile_layout(uint8_t *mem, uint32_t x, uint32_t y) const {
  Layout layout{mem, 0, static_cast<ptrdiff_t>(tile_w) * bytes_per_pixel, 0};
  if (interleave == ZT_INTERLEAVE_BY_PIXEL) {
    layout.pixel = bytes_per_pixel;
    layout.channel = bytes_per_sample;
  } else {
    layout.pixel = bytes_per_sample;
    layout.channel = static_cast<ptrdiff_t>(tile_w) * bytes_per_sample;
  }
  layout.base = layout.at(x, y);
  return layout;
}

Layout Store::packed_layout(uint8_t *mem, uint32_t w) const {
  Layout layout{mem, 0, static_cast<ptrdiff_t>(w) * bytes_per_pixel, 0};
  if (interleave == ZT_INTERLEAVE_BY_PIXEL) {
    layout.pixel = bytes_per_pixel;
    layout.channel = bytes_per_sample;
  } else {
    layout.pixel = bytes_per_sample;
    layout.channel = static_cast<ptrdiff_t>(w) * bytes_per_sample;
  }
  return layout;
}

void StoreDeleter::operator()(Store *store) const noexcept {
  if (store == nullptr) return;
  {
    std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
    detach_slots(*store, true);
    registry_remove(store);
  }
  if (store->fd >= 0) ::close(store->fd);
  if (!store->swap_name.empty()) ::unlink(store->swap_name.c_str());
  ZT_CompressFree(store->compressor);
  ZT_DecompressFree(store->decompressor);
  VLIMG_Close(store->source);
  delete store;
}

int32_t store_set_tiles(Store &store, uint32_t tile_w, uint32_t tile_h, const char *function) {
  if (store.source != nullptr) {
    ZT_LOG(kImageBufModule, function, "The tiles of this imagebuf come from a file and keep its tile size");
    return -1;
  }
  if (tile_w == 0 || tile_h == 0) {
    ZT_LOG(kImageBufModule, function, "Bad tile width or height");
    return -1;
  }
  if (store.width == 0 || store.height == 0) {
    ZT_LOG(kImageBufModule, function, "You must set the ZTIMAGEBUF width and height first");
    return -1;
  }
  const uint32_t across = static_cast<uint32_t>((uint64_t{store.width} + tile_w - 1) / tile_w);
  const uint32_t down = static_cast<uint32_t>((uint64_t{store.height} + tile_h - 1) / tile_h);
  uint64_t count = 0, tile_bytes = 0;
  size_t compressed = 0;
  // Tile numbers are 32-bit and codec lengths are 32-bit, twice the tile at most.
  if (!checked_mul(across, down, &count) || count >= UINT32_MAX ||
      !checked_mul(tile_w, tile_h, store.bytes_per_pixel, &tile_bytes) || tile_bytes > UINT32_MAX / 2) {
    ZT_LOG(kImageBufModule, function, "Tile table of %u x %u tiles of %u x %u pixels is too large", across, down,
           tile_w, tile_h);
    return -1;
  }
  if (store.compressor != nullptr)
    compressed = (store.compression & ZT_COMPRESS_SCRATCH) != 0 ? tile_bytes : 2 * tile_bytes;
  std::vector<TileDesc> tiles(count);
  std::vector<uint8_t> buffer(compressed);
  {
    std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
    detach_slots(store, true);
  }
  store.tile_w = tile_w;
  store.tile_h = tile_h;
  store.tiles_x = across;
  store.tiles_y = down;
  store.tile_bytes = tile_bytes;
  store.tiles = std::move(tiles);
  store.compressed = std::move(buffer);
  return 0;
}

StorePtr store_create(uint32_t interleave, uint32_t bits, uint32_t width, uint32_t height, uint32_t channels,
                      uint32_t compression, const char *swap_dir, const char *function) {
  if (interleave > 1) {
    ZT_LOG(kImageBufModule, function, "Unsupported interleave type %d", static_cast<int>(interleave));
    return nullptr;
  }
  if (bits != 8 && bits != 16) {
    ZT_LOG(kImageBufModule, function, "Unsupported bpp %u", bits);
    return nullptr;
  }
  if (channels == 0 || channels > 0xFFFF) {
    ZT_LOG(kImageBufModule, function, "Unsupported number of channels %u", channels);
    return nullptr;
  }
  {
    std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
    if (!g_cache.running) {
      ZT_LOG(kImageBufModule, function, "The image buffer subsystem is not initialised");
      return nullptr;
    }
  }
  StorePtr store(new Store);
  store->id = g_store_ids.fetch_add(1) + 1;
  if (swap_dir != nullptr) {
    store->swap_dir = swap_dir;
  } else {
    store->swap_dir = temp_directory();
    if (store->swap_dir.empty()) {
      ZT_LOG(kImageBufModule, function, "Cannot retrieve OS temp directory");
      return nullptr;
    }
  }
  while (store->swap_dir.size() > 1 && store->swap_dir.back() == '/') store->swap_dir.pop_back();
  struct stat st {};
  if (::stat(store->swap_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    ZT_LOG(kImageBufModule, function, "swapfilepath %s does not exist", store->swap_dir.c_str());
    return nullptr;
  }
  if (!create_swap_file(*store, function)) return nullptr;
  {
    std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
    registry_add(store.get());
  }
  store->interleave = interleave;
  store->bits = bits;
  store->bytes_per_sample = bits / 8;
  store->channels = channels;
  store->bytes_per_pixel = store->bytes_per_sample * channels;
  store->width = width;
  store->height = height;
  if ((compression & ZT_COMPRESS_ON) != 0 && (compression & kCodecBits) == 0) compression |= ZT_COMPRESS_SCRATCH;
  store->compression = compression;
  if ((compression & ZT_COMPRESS_ON) != 0) {
    store->compressor = ZT_CompressInit(compression, bits);
    store->decompressor = ZT_DecompressInit(compression, bits);
    if (store->compressor == nullptr || store->decompressor == nullptr) {
      ZT_LOG(kImageBufModule, function, "Could not create compression / decompression object");
      return nullptr;
    }
  }
  if (store_set_tiles(*store, kDefaultTileSide, kDefaultTileSide, function) != 0) return nullptr;
  return store;
}

StorePtr store_create_like(const Store &like, uint32_t width, uint32_t height, uint32_t bits,
                           const char *function) {
  return store_create(like.interleave, bits, width, height, like.channels, like.compression,
                      like.swap_dir.c_str(), function);
}

uint64_t cache_epoch() {
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  return g_cache.epoch;
}

int32_t store_check_usable(const Store &store, const char *function) {
  if (store.error.load() == 0) return 0;
  ZT_LOG(kImageBufModule, function, "ZTIMAGEBUF %s is in an error state", store.swap_name.c_str());
  return -1;
}

int32_t tile_acquire(Store &store, uint32_t index, bool for_write, Slot **out, const char *function) {
  *out = nullptr;
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  if (!g_cache.running) {
    ZT_LOG(kImageBufModule, function, "The image buffer subsystem is not initialised");
    return -1;
  }
  if (store_check_usable(store, function) != 0) return -1;
  TileDesc &tile = store.tiles[index];
  if (Slot *slot = tile.slot) {
    if (slot->use++ == 0) {
      list_remove(slot);
      list_push_back(kInUse, slot);
    }
    *out = slot;
    return 0;
  }
  if (store.source != nullptr && !store.source_ready) {
    ZT_LOG(kImageBufModule, function, "ZT_ImageBufSetTilesFromFileProperties() must be called before fetching any data");
    return -1;
  }
  if (!for_write && tile.offset < 0 && !tile.in_source) return 0;
  Slot *slot = find_slot(store.tile_bytes, function);
  if (slot == nullptr) return -1;
  slot->owner = &store;
  slot->tile = &tile;
  slot->use = 1;
  slot->dirty = false;
  tile.slot = slot;
  list_push_back(kInUse, slot);
  if (tile.offset >= 0 || tile.in_source) {
    if (!(tile.offset >= 0 ? read_back(store, tile, slot, function) : read_source(store, tile, slot))) {
      tile.slot = nullptr;
      list_remove(slot);
      slot->owner = nullptr;
      slot->tile = nullptr;
      slot->use = 0;
      list_push_front(kIdleClean, slot);
      return -1;
    }
  } else {
    std::memset(slot->mem, 0, store.tile_bytes);
  }
  *out = slot;
  return 0;
}

void tile_release(Slot *slot, bool written) { tiles_release(&slot, 1, written); }

void tiles_release(Slot *const *slots, size_t count, bool written) {
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  Store *counted = nullptr;
  for (size_t i = 0; i < count; ++i) {
    Slot *slot = slots[i];
    if (slot == nullptr) continue;
    if (written) {
      slot->dirty = true;
      // Counted once the pixels are in, so a copy made after it sees them.
      if (slot->owner != counted) slot->owner->generation.fetch_add(1, std::memory_order_release);
      counted = slot->owner;
    }
    if (--slot->use == 0) {
      list_remove(slot);
      list_push_back(slot->dirty ? kIdleDirty : kIdleClean, slot);
    }
  }
}

bool store_check_rect(const Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h,
                      const char *function) {
  if (x < store.width && y < store.height && uint64_t{x} + w <= store.width && uint64_t{y} + h <= store.height)
    return true;
  ZT_LOG(kImageBufModule, function, "Bad rectangle %u, %u : %u x %u for an imagebuf of %u x %u", x, y, w, h,
         store.width, store.height);
  return false;
}

namespace {

// Rows of N bytes: a column of pixels is copied a few bytes per row, where a
// call to memcpy of an unknown size would cost more than the copy.
template <size_t N>
void copy_rows(const uint8_t *src, ptrdiff_t src_row, uint8_t *dst, ptrdiff_t dst_row, uint32_t h) {
  for (uint32_t y = 0; y < h; ++y, src += src_row, dst += dst_row) std::memcpy(dst, src, N);
}

bool copy_narrow(const Layout &from, const Layout &to, size_t bytes, uint32_t h) {
  switch (bytes) {
    case 1: copy_rows<1>(from.base, from.row, to.base, to.row, h); return true;
    case 2: copy_rows<2>(from.base, from.row, to.base, to.row, h); return true;
    case 3: copy_rows<3>(from.base, from.row, to.base, to.row, h); return true;
    case 4: copy_rows<4>(from.base, from.row, to.base, to.row, h); return true;
    case 6: copy_rows<6>(from.base, from.row, to.base, to.row, h); return true;
    case 8: copy_rows<8>(from.base, from.row, to.base, to.row, h); return true;
    default: return false;
  }
}

// Whole pixels of N bytes at any distance from one another on both sides: a
// band of columns is gathered this way, each column one run of memory, and
// the rotations turn tiles this way. Rows go sixteen at a time, each column of
// the block before the next: the sixteen source lines stay in the first-level
// cache while every destination run gets a whole cache line at once, where a
// row at a time would scatter single pixels over as many lines as columns.
#ifdef __SSE2__
// Four-byte pixels from rows to columns (a tile into a column band, or a
// quarter turn), four by four through registers: a block of sixteen rows
// takes four loads and four stores for every four columns instead of
// sixty-four single-pixel copies. Returns the columns done (a multiple of 4).
uint32_t transpose4(const Layout &from, const Layout &to, uint32_t w, uint32_t y0, uint32_t rows) {
  if (from.pixel != 4 || to.row != 4 || rows % 4 != 0) return 0;
  const uint32_t wide = w / 4 * 4;
  for (uint32_t x = 0; x < wide; x += 4) {
    const uint8_t *src = from.base + static_cast<ptrdiff_t>(y0) * from.row + static_cast<ptrdiff_t>(x) * 4;
    uint8_t *dst = to.base + static_cast<ptrdiff_t>(y0) * 4 + static_cast<ptrdiff_t>(x) * to.pixel;
    for (uint32_t j = 0; j < rows; j += 4, src += 4 * from.row, dst += 16) {
      const __m128i r0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
      const __m128i r1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + from.row));
      const __m128i r2 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 2 * from.row));
      const __m128i r3 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 3 * from.row));
      const __m128i a = _mm_unpacklo_epi32(r0, r1), b = _mm_unpackhi_epi32(r0, r1);
      const __m128i c = _mm_unpacklo_epi32(r2, r3), d = _mm_unpackhi_epi32(r2, r3);
      _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_unpacklo_epi64(a, c));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + to.pixel), _mm_unpackhi_epi64(a, c));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 2 * to.pixel), _mm_unpacklo_epi64(b, d));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 3 * to.pixel), _mm_unpackhi_epi64(b, d));
    }
  }
  return wide;
}
#endif

template <size_t N>
void copy_pixels(const Layout &from, const Layout &to, uint32_t w, uint32_t h) {
  constexpr uint32_t kBlock = 16;
  for (uint32_t y0 = 0; y0 < h; y0 += kBlock) {
    const uint32_t rows = std::min(kBlock, h - y0);
    uint32_t x = 0;
#ifdef __SSE2__
    if constexpr (N == 4) x = transpose4(from, to, w, y0, rows);
#endif
    const uint8_t *src_row = from.base + static_cast<ptrdiff_t>(y0) * from.row + static_cast<ptrdiff_t>(x) * from.pixel;
    uint8_t *dst_row = to.base + static_cast<ptrdiff_t>(y0) * to.row + static_cast<ptrdiff_t>(x) * to.pixel;
    for (; x < w; ++x, src_row += from.pixel, dst_row += to.pixel) {
      const uint8_t *src = src_row;
      uint8_t *dst = dst_row;
      for (uint32_t j = 0; j < rows; ++j, src += from.row, dst += to.row) std::memcpy(dst, src, N);
    }
  }
}

bool copy_spread(const Layout &from, const Layout &to, size_t bpp, uint32_t w, uint32_t h) {
  switch (bpp) {
    case 1: copy_pixels<1>(from, to, w, h); return true;
    case 2: copy_pixels<2>(from, to, w, h); return true;
    case 3: copy_pixels<3>(from, to, w, h); return true;
    case 4: copy_pixels<4>(from, to, w, h); return true;
    case 6: copy_pixels<6>(from, to, w, h); return true;
    case 8: copy_pixels<8>(from, to, w, h); return true;
    default: return false;
  }
}

}  // namespace

void copy_block(const Layout &from, const Layout &to, uint32_t w, uint32_t h, uint32_t channels,
                uint32_t bps) {
  const ptrdiff_t bpp = static_cast<ptrdiff_t>(bps) * channels;
  const bool whole_pixels = from.pixel == bpp && to.pixel == bpp && from.channel == bps && to.channel == bps;
  const bool planes = from.pixel == bps && to.pixel == bps;
  // One row of whole pixels, the commonest case (a line through a tile).
  if (whole_pixels && h == 1) {
    std::memcpy(to.base, from.base, static_cast<size_t>(w) * bpp);
    return;
  }
  if (whole_pixels && copy_narrow(from, to, static_cast<size_t>(w) * bpp, h)) return;
  if (!whole_pixels && from.channel == bps && to.channel == bps && copy_spread(from, to, bpp, w, h)) return;
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t *src = from.base + static_cast<ptrdiff_t>(y) * from.row;
    uint8_t *dst = to.base + static_cast<ptrdiff_t>(y) * to.row;
    if (whole_pixels) {
      std::memcpy(dst, src, static_cast<size_t>(w) * bpp);
    } else if (planes) {
      for (uint32_t c = 0; c < channels; ++c)
        std::memcpy(dst + c * to.channel, src + c * from.channel, static_cast<size_t>(w) * bps);
    } else {
      for (uint32_t x = 0; x < w; ++x)
        for (uint32_t c = 0; c < channels; ++c)
          std::memcpy(dst + x * to.pixel + c * to.channel, src + x * from.pixel + c * from.channel, bps);
    }
  }
}

void zero_block(const Layout &to, uint32_t w, uint32_t h, uint32_t channels, uint32_t bps) {
  for (uint32_t y = 0; y < h; ++y) {
    uint8_t *dst = to.base + static_cast<ptrdiff_t>(y) * to.row;
    if (to.pixel == static_cast<ptrdiff_t>(bps) * channels && to.channel == bps) {
      std::memset(dst, 0, static_cast<size_t>(w) * bps * channels);
    } else {
      for (uint32_t x = 0; x < w; ++x)
        for (uint32_t c = 0; c < channels; ++c) std::memset(dst + x * to.pixel + c * to.channel, 0, bps);
    }
  }
}

namespace {

// Tiles taken at once by one access: enough that the copies of a line across
// a page overlap in memory instead of each waiting behind a lock for the last
// to land, few enough that a small cache is not filled with tiles in use.
uint32_t tiles_per_batch(const Store &store) {
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  const int64_t fit = g_cache.limit / 4 / static_cast<int64_t>(std::max<size_t>(store.tile_bytes, 1));
  return static_cast<uint32_t>(std::clamp<int64_t>(fit, 1, 64));
}

}  // namespace

int32_t store_access(Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h, const Layout &ext,
                     bool write, const char *function) {
  if (w == 0 || h == 0) return 0;
  if (!store_check_rect(store, x, y, w, h, function)) return -1;
  const uint32_t x_end = x + w, y_end = y + h;
  const uint32_t first_tx = x / store.tile_w, last_tx = (x_end - 1) / store.tile_w;
  const uint32_t batch = tiles_per_batch(store);
  Slot *slots[64];
  for (uint32_t ty = y / store.tile_h; ty <= (y_end - 1) / store.tile_h; ++ty) {
    const uint32_t top = std::max(y, ty * store.tile_h);
    const uint32_t bottom = static_cast<uint32_t>(std::min<uint64_t>(y_end, (uint64_t{ty} + 1) * store.tile_h));
    for (uint32_t tx0 = first_tx; tx0 <= last_tx; tx0 += batch) {
      const uint32_t n = std::min(batch, last_tx - tx0 + 1);
      for (uint32_t i = 0; i < n; ++i) {
        if (tile_acquire(store, ty * store.tiles_x + tx0 + i, write, &slots[i], function) != 0) {
          tiles_release(slots, i, false);
          return -1;
        }
      }
      {
        std::lock_guard<SpinLock> guard(store.lock);
        for (uint32_t i = 0; i < n; ++i) {
          const uint32_t tx = tx0 + i;
          const uint32_t left = std::max(x, tx * store.tile_w);
          const uint32_t right =
              static_cast<uint32_t>(std::min<uint64_t>(x_end, (uint64_t{tx} + 1) * store.tile_w));
          Layout outside = ext;
          outside.base = ext.at(left - x, top - y);
          if (slots[i] == nullptr) {
            zero_block(outside, right - left, bottom - top, store.channels, store.bytes_per_sample);
            continue;
          }
          const Layout inside =
              store.tile_layout(slots[i]->mem, left - tx * store.tile_w, top - ty * store.tile_h);
          if (write)
            copy_block(outside, inside, right - left, bottom - top, store.channels, store.bytes_per_sample);
          else
            copy_block(inside, outside, right - left, bottom - top, store.channels, store.bytes_per_sample);
        }
      }
      tiles_release(slots, n, write);
    }
  }
  return 0;
}

bool store_any_exists(const Store &store, uint32_t x, uint32_t y, uint32_t w, uint32_t h) {
  if (w == 0 || h == 0) return false;
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  for (uint32_t ty = y / store.tile_h; ty <= (y + h - 1) / store.tile_h; ++ty)
    for (uint32_t tx = x / store.tile_w; tx <= (x + w - 1) / store.tile_w; ++tx) {
      const TileDesc &tile = store.tiles[ty * store.tiles_x + tx];
      if (tile.slot != nullptr || tile.offset >= 0 || tile.in_source) return true;
    }
  return false;
}

int32_t store_flush(Store &store, const char *function) {
  std::lock_guard<AtomicSpinLock> guard(g_cache.lock);
  if (store_check_usable(store, function) != 0) return -1;
  for (TileDesc &tile : store.tiles) {
    Slot *slot = tile.slot;
    // A tile in use is being changed now; it is written when it is next evicted.
    if (slot == nullptr || !slot->dirty || slot->use != 0) continue;
    if (!write_back(slot, function)) return -1;
    list_remove(slot);
    list_push_back(kIdleClean, slot);
  }
  return 0;
}

}  // namespace zt::raster

using namespace zt::raster;

extern "C" {

ZT_API int32_t ZT_ImageBufInitSubSystem(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  if (g_cache.running) return 0;
  g_cache.limit = ZT_IMAGEBUF_DEFAULT_CACHE_SIZE;
  g_cache.running = true;
  if (!g_cache.exit_handler) g_cache.exit_handler = std::atexit(exit_handler) == 0;
  return 0;
}

ZT_API void ZT_ImageBufDeinitSubSystem(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  if (!g_cache.running) return;
  for (SlotList &list : g_cache.lists) {
    while (Slot *slot = list.head) {
      list_remove(slot);
      if (slot->tile != nullptr) slot->tile->slot = nullptr;
      slot_free(slot);
    }
  }
  // Buffers still alive lose their tiles: they may only be freed from now on.
  for (Store *store = g_cache.live; store != nullptr; store = store->live_next) {
    store->error.store(-1);
  }
  remove_live_swap_files();
  ++g_cache.epoch;
  g_cache.running = false;
}

ZT_API void ZT_ImageBufSetCacheSize(int64_t bytes) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  g_cache.limit = bytes <= ZT_IMAGEBUF_MIN_CACHE_SIZE ? ZT_IMAGEBUF_DEFAULT_CACHE_SIZE : bytes;
}

ZT_API int64_t ZT_ImageBufGetCacheSize(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  return g_cache.limit;
}

ZT_API int64_t ZT_ImageBufGetCacheUsage(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  return g_cache.used;
}

ZT_API void ZT_ImageBufSetSwapWriteHook(ZT_ImageBufSwapWriteFn hook) {
  g_write_hook.store(hook, std::memory_order_release);
}

ZT_API int32_t ZT_ImageBufGetTileState(const ZT_ImageBuf *buf, uint32_t tile, ZT_ImageBufTileState *state) {
  if (buf == nullptr || state == nullptr || tile >= buf->store->tiles.size()) return -1;
  const Store &store = *buf->store;
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  const TileDesc &desc = store.tiles[tile];
  state->resident = desc.slot != nullptr;
  state->dirty = desc.slot != nullptr && desc.slot->dirty;
  state->neverWritten = desc.never_written;
  state->length = desc.length;
  state->offset = desc.offset;
  state->flags = desc.flags;
  return 0;
}

ZT_API const char *ZT_ImageBufGetSwapName(const ZT_ImageBuf *buf) {
  return buf == nullptr ? nullptr : buf->store->swap_name.c_str();
}

ZT_API int64_t ZT_ImageBufGetSwapEnd(const ZT_ImageBuf *buf) {
  if (buf == nullptr) return -1;
  std::lock_guard<zt::AtomicSpinLock> guard(g_cache.lock);
  return buf->store->swap_end;
}

}  // extern "C"
