// Pixel data: scanlines and tiles, each compressed block prefixed by its block
// flags and stored length so that a reader can check it before decoding.
// Tiles are coded by worker slots on the task queue; the writer puts them in
// the file in the order they were handed over, so the bytes do not depend on
// the number of threads.
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>

#include "foundation/internal.h"
#include "raster/vlimg_internal.h"

namespace zt::raster::vlimg {

namespace {

std::atomic<uint32_t> g_threads{1};
std::atomic<ZT_TaskQueue *> g_queue{nullptr};
std::atomic<ZT_TaskQueue *> g_io_queue{nullptr};

void swap16(uint8_t *dst, const uint8_t *src, size_t n) {
  for (size_t i = 0; i + 1 < n; i += 2) {
    const uint8_t a = src[i], b = src[i + 1];
    dst[i] = b;
    dst[i + 1] = a;
  }
  if (n & 1) dst[n - 1] = src[n - 1];
}

constexpr uint32_t kCodecBits =
    ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZW | ZT_COMPRESS_DEFLATE | ZT_COMPRESS_LZJB | ZT_COMPRESS_LZ4;

}  // namespace

uint32_t configured_threads() { return g_threads.load(); }
void vlimg_static_init() {
  g_queue.store(pthread_taskq_get_default());
  g_io_queue.store(pthread_taskq_get_iobound_default());
}
void vlimg_static_free() {
  g_queue.store(nullptr);
  g_io_queue.store(nullptr);
}
ZT_TaskQueue *tile_queue() { return g_queue.load(); }

int32_t setup_threads(uint32_t threads) {
  if (threads == 0) threads = ZT_numberOfLogicalCPUS();
  g_threads.store(std::clamp<uint32_t>(threads, 1, 64));
  return 0;
}

uint64_t line_bytes(const Header &h) { return (uint64_t{h.width} * h.bits_per_pixel + 7) / 8; }
uint64_t tile_line_bytes(const Header &h, uint32_t width) {
  return (uint64_t{width} * h.bits_per_pixel + 7) / 8;
}

uint32_t tile_count(const Header &h) {
  if (!h.tiled()) return 0;
  const uint64_t across = (uint64_t{h.width} + h.tile_width - 1) / h.tile_width;
  const uint64_t down = (uint64_t{h.height} + h.tile_height - 1) / h.tile_height;
  uint64_t n = 0;
  if (!checked_mul(across, down, &n) || n > UINT32_MAX / kTileEntrySize) return 0;
  return static_cast<uint32_t>(n);
}

bool tile_rect(const Header &h, uint32_t index, uint32_t *x, uint32_t *y, uint32_t *w, uint32_t *hh) {
  if (!h.tiled() || index >= tile_count(h)) return false;
  const uint32_t across = static_cast<uint32_t>((uint64_t{h.width} + h.tile_width - 1) / h.tile_width);
  *x = (index % across) * h.tile_width;
  *y = (index / across) * h.tile_height;
  *w = std::min(h.tile_width, h.width - *x);
  *hh = std::min(h.tile_height, h.height - *y);
  return true;
}

bool prepare_codec(VLIMG_File *f, const char *fn) {
  Codec &c = f->codec;
  const Header &h = f->h;
  c = Codec{};
  c.compression = h.compression;
  c.swap16 = std::all_of(h.bpp.begin(), h.bpp.end(), [](uint32_t b) { return b == 16; });
  c.sample_bits = c.swap16 ? 16 : 8;
  if (c.compression != 1) {
    // Tiled pages are written for tile streaming: their blocks are what an
    // image buffer caches, whose tiles are not differenced. Scanline pages
    // take the delta filter. Readers follow each block's own flags either way.
    c.flags = ZT_CompressFlagsFromVLIMG(c.compression, h.tiled() ? 1 : 0);
    if (c.flags == 0) return false;
  }
  // Several tiles per worker and batch keep the hand-overs few.
  if (!settle_batch(f)) return false;
  // A writer waits for the group in flight only when it has filled the
  // other; at least sixteen tiles a group keep the share left over at that
  // wait (the last tile each worker is still coding) small.
  f->group_size = !h.tiled() || f->threads < 2 ? 1 : f->writing ? std::max(16u, f->threads * 4) : f->threads * 4;
  const uint32_t n = f->writing && f->group_size > 1 ? 2 * f->group_size : f->group_size;
  f->slots.clear();
  f->group = 0;
  f->pending = 0;
  for (uint32_t i = 0; i < n; ++i) {
    auto s = std::make_unique<Slot>();
    if (c.compression != 1) {
      // 16-bit samples are differenced here in host order, before they are
      // put in file order; the compressor only sees the result.
      const uint32_t flags = c.swap16 ? c.flags & ~ZT_COMPRESS_DELTA : c.flags;
      if (f->writing) {
        s->compressor.reset(ZT_CompressInit(flags, 8));
        if (!s->compressor) return false;
      } else {
        s->decompressor.reset(ZT_DecompressInit(flags, 8));
        if (!s->decompressor) return false;
      }
    }
    s->file = f;
    s->function = fn;
    f->slots.push_back(std::move(s));
  }
  return true;
}

bool encode_block(const Codec &c, Slot &s, const uint8_t *src, uint32_t n) {
  if (c.compression == 1) {
    s.stored.resize(n);
    if (c.swap16)
      swap16(s.stored.data(), src, n);
    else
      std::memcpy(s.stored.data(), src, n);
    s.stored_size = n;
    s.block_flags = 0;
    return true;
  }
  s.stored.resize(size_t{n} + kBlockHeaderSize);
  uint8_t *payload = s.stored.data() + kBlockHeaderSize;
  uint32_t flags = 0, size = 0;
  const bool delta16 = c.swap16 && (c.flags & ZT_COMPRESS_DELTA);
  if (c.swap16) {
    s.scratch.resize(n);
    if (delta16)
      deltaEncodeToBuffer(src, s.scratch.data(), n, 16);
    else
      std::memcpy(s.scratch.data(), src, n);
    swap16(s.scratch.data(), s.scratch.data(), n);
    size = ZT_Compress(s.compressor.get(), s.scratch.data(), payload, n, n, &flags);
  } else {
    size = ZT_Compress(s.compressor.get(), src, payload, n, n, &flags);
  }
  if (size == ZT_COMPRESS_ERROR) return false;
  if (size == 0 || size >= n) {
    // Nothing shrank the block: it is stored as it is, in file order.
    if (c.swap16)
      swap16(payload, src, n);
    else
      std::memcpy(payload, src, n);
    flags = 0;
    size = n;
  } else if (delta16) {
    flags |= ZT_COMPRESS_DELTA;
  }
  zt::store_be32(s.stored.data(), flags);
  zt::store_be32(s.stored.data() + 4, size);
  s.stored_size = size + kBlockHeaderSize;
  s.block_flags = flags;
  return true;
}

bool decode_block(const Codec &c, Slot &s, const uint8_t *stored, uint32_t stored_size, uint8_t *dst,
                  uint32_t n, const char *fn) {
  if (c.compression == 1) {
    if (stored_size != n) return false;
    if (c.swap16)
      swap16(dst, stored, n);
    else
      std::memcpy(dst, stored, n);
    return true;
  }
  if (stored_size < kBlockHeaderSize) return false;
  const uint32_t flags = zt::load_be32(stored), size = zt::load_be32(stored + 4);
  const uint8_t *payload = stored + kBlockHeaderSize;
  if (size != stored_size - kBlockHeaderSize || size > n) {
    ZT_LOG(kModule, fn, "A block announces %u bytes where %u are stored and at most %u are allowed", size,
           stored_size - kBlockHeaderSize, n);
    return false;
  }
  if (flags == 0) {
    if (size != n) {
      ZT_LOG(kModule, fn, "A raw block of %u bytes should hold %u", size, n);
      return false;
    }
    if (c.swap16)
      swap16(dst, payload, n);
    else
      std::memcpy(dst, payload, n);
    return true;
  }
  const uint32_t codec = flags & kCodecBits;
  if ((flags & ~(kCodecBits | ZT_COMPRESS_ON | ZT_COMPRESS_DELTA)) != 0 || !(flags & ZT_COMPRESS_ON) ||
      codec == 0 || (codec & (codec - 1)) != 0) {
    ZT_LOG(kModule, fn, "Unknown block flags %#x", flags);
    return false;
  }
  const uint32_t mode = c.swap16 ? flags & ~ZT_COMPRESS_DELTA : flags;
  const uint32_t out = ZT_Decompress(s.decompressor.get(), payload, dst, size, n, mode);
  if (out != n) {
    if (out != ZT_COMPRESS_ERROR) ZT_LOG(kModule, fn, "A block decodes to %u bytes, not %u", out, n);
    return false;
  }
  if (c.swap16) {
    swap16(dst, dst, n);
    if (flags & ZT_COMPRESS_DELTA) deltaDecodeBuffer(dst, n, 16);
  }
  return true;
}

// ---- Worker slots --------------------------------------------------------------

namespace {

bool put_slot(VLIMG_File *f, const Slot &s) {
  VLIMG_TileEntry &e = f->h.tiles[s.index];
  e.offset = f->io.tell();
  e.size = s.stored_size;
  e.flags = s.block_flags;
  if (!f->io.write(s.stored.data(), s.stored_size)) {
    ZT_LOG(kModule, s.function, "Failed to write to disk");
    return false;
  }
  return true;
}

// One thread writes at a time. After letting go the writer looks once more:
// a tile finished while it was letting go found the flag still taken, and
// would otherwise wait for the end of the batch.
void write_in_order(TileBatch &b) {
  for (;;) {
    if (b.writer.exchange(true)) return;
    uint32_t w = b.written.load();
    while (w < b.count && !b.failed.load() && b.coded[w].load()) {
      const Slot &s = *b.slots[w];
      if (!s.ok || !put_slot(b.file, s)) {
        b.failed.store(true);
        break;
      }
      b.written.store(++w);
    }
    b.writer.store(false);
    w = b.written.load();
    if (b.failed.load() || w >= b.count || !b.coded[w].load()) return;
  }
}

void encode_slot(VLIMG_File *f, Slot &s) {
  uint32_t x = 0, y = 0, w = 0, hh = 0;
  tile_rect(f->h, s.index, &x, &y, &w, &hh);
  const uint32_t n = static_cast<uint32_t>(tile_line_bytes(f->h, w)) * hh;
  s.ok = encode_block(f->codec, s, s.raw.data(), n);
  if (!s.ok) ZT_LOG(kModule, s.function, "Cannot compress tile %u", s.index);
}

// Each worker reads its own tiles, so reading overlaps decoding.
void read_slot(VLIMG_File *f, Slot &s) {
  uint32_t x = 0, y = 0, w = 0, hh = 0;
  tile_rect(f->h, s.index, &x, &y, &w, &hh);
  const uint32_t row = static_cast<uint32_t>(tile_line_bytes(f->h, w));
  const uint32_t n = row * hh;
  // Raw tiles of 8-bit planes are stored as their pixels: nothing to undo.
  const bool stored_as_pixels = f->codec.compression == 1 && !f->codec.swap16 && s.stored_size == n;
  uint8_t *landing = s.dst;
  if (!stored_as_pixels || s.dst_stride != row) {
    s.stored.resize(s.stored_size);
    landing = s.stored.data();
  }
  s.ok = f->io.pread_at(landing, s.stored_size, s.offset);
  const uint8_t *pixels = landing;
  if (s.ok && !stored_as_pixels) {
    uint8_t *target = s.dst;
    if (s.dst_stride != row) {
      s.raw.resize(n);
      target = s.raw.data();
    }
    s.ok = decode_block(f->codec, s, landing, s.stored_size, target, n, s.function);
    pixels = target;
  }
  if (s.ok && pixels != s.dst)
    for (uint32_t r = 0; r < hh; ++r) std::memcpy(s.dst + size_t{r} * s.dst_stride, pixels + size_t{r} * row, row);
  if (!s.ok) ZT_LOG(kModule, s.function, "Cannot read tile %u", s.index);
}

// The slots of one batch are shared out as workers ask for them, so a worker
// that starts late (the machine is busy) leaves its share to the others
// instead of holding everyone up.
void run_batch(void *arg) {
  auto *b = static_cast<TileBatch *>(arg);
  for (uint32_t i = b->next.fetch_add(1); i < b->count; i = b->next.fetch_add(1)) {
    if (b->failed.load()) continue;
    encode_slot(b->file, *b->slots[i]);
    b->coded[i].store(true);
    write_in_order(*b);
  }
}

// Hands `count` slots from `first` to the task queue (without waiting);
// with one thread, or no queue, the caller codes them all in finish_batch.
void start_batch(VLIMG_File *f, TileBatch &b, const std::unique_ptr<Slot> *first, uint32_t count) {
  b.file = f;
  b.slots = first;
  b.count = count;
  b.coded = std::make_unique<std::atomic<bool>[]>(count);
  for (uint32_t i = 0; i < count; ++i) b.coded[i].store(false);
  const uint32_t workers = std::min(f->threads, count);
  ZT_TaskQueue *queue = tile_queue();
  if (workers < 2 || queue == nullptr || pthread_taskq_completion_init(&b.done) != 0) return;
  // Whatever could not be queued is picked up by the caller's own share.
  pthread_taskq_enqueue_multiple(queue, &b.done, workers - 1, run_batch, &b, 0);
  b.queued = true;
}

// The caller takes its share, waits for the workers and writes what is left;
// false when a tile of the batch could not be coded or written.
bool finish_batch(TileBatch &b) {
  run_batch(&b);
  if (b.queued) {
    pthread_taskq_completion_wait(&b.done);
    pthread_taskq_completion_destroy(&b.done);
    b.queued = false;
  }
  write_in_order(b);
  return !b.failed.load() && b.written.load() == b.count;
}

// Codes (and, when writing, writes) the group being filled; with `wait`
// false and workers to hand, it goes on in the background while the caller
// fills the other group.
bool submit_group(VLIMG_File *f, bool wait) {
  if (!settle_batch(f)) {
    // The page has failed; the tiles waiting in this group go nowhere.
    f->pending = 0;
    return false;
  }
  const uint32_t count = f->pending;
  if (count == 0) return true;
  f->pending = 0;
  auto b = std::make_unique<TileBatch>();
  start_batch(f, *b, &f->slots[f->group], count);
  if (wait || !b->queued) return finish_batch(*b);
  f->in_flight = std::move(b);
  f->group = f->group == 0 ? f->group_size : 0;
  return true;
}

// One tile to read: where it is stored and where it goes.
struct TileRead {
  uint32_t index;
  uint8_t *dst;
  uint32_t stride;
  uint64_t offset;
  uint32_t size;
};

struct ReadJob {
  VLIMG_File *file = nullptr;
  const TileRead *tiles = nullptr;
  uint32_t count = 0;
  const char *function = "";
  std::atomic<uint32_t> next{0};    // next tile to read
  std::atomic<uint32_t> worker{0};  // next worker slot to hand out
  std::atomic<bool> failed{false};
};

void run_reads(void *arg) {
  auto *job = static_cast<ReadJob *>(arg);
  Slot &s = *job->file->slots[job->worker.fetch_add(1)];
  for (uint32_t i = job->next.fetch_add(1); i < job->count; i = job->next.fetch_add(1)) {
    const TileRead &t = job->tiles[i];
    s.index = t.index;
    s.function = job->function;
    s.dst = t.dst;
    s.dst_stride = t.stride;
    s.offset = t.offset;
    s.stored_size = t.size;
    read_slot(job->file, s);
    if (!s.ok) job->failed.store(true);
  }
}

}  // namespace

bool settle_batch(VLIMG_File *f) {
  if (!f->in_flight) return true;
  const bool ok = finish_batch(*f->in_flight);
  f->in_flight.reset();
  return ok;
}

bool drain_tiles(VLIMG_File *f, const char *) { return submit_group(f, true); }

int32_t write_tile(VLIMG_File *f, uint32_t index, const uint8_t *data, uint32_t stride, const char *fn) {
  if (!f->writing) {
    ZT_LOG(kModule, fn, "File is not open for writing");
    return -1;
  }
  if (f->wrote_scanlines) {
    ZT_LOG(kModule, fn,
           "VLIMG_WriteScanline has already been called. You can either use VLIMG_WriteTile or "
           "VLIMG_WriteScanline but not both.");
    return -1;
  }
  if (!f->h.tiled()) {
    ZT_LOG(kModule, fn, "Page is not tiled");
    return -1;
  }
  if (!f->header_written && write_header(f, fn) != 0) return -1;
  const Header &h = f->h;
  uint32_t x = 0, y = 0, w = 0, hh = 0;
  if (!tile_rect(h, index, &x, &y, &w, &hh)) {
    ZT_LOG(kModule, fn, "Tile %u does not exist; the page has %u", index, tile_count(h));
    return -1;
  }
  if (f->tile_done[index]) {
    ZT_LOG(kModule, fn, "Tile %u has already been written", index);
    return -1;
  }
  const uint32_t row = static_cast<uint32_t>(tile_line_bytes(h, w));
  if (data == nullptr || stride < row) {
    ZT_LOG(kModule, fn, "Tile %u needs %u bytes per line, got %u", index, row, stride);
    return -1;
  }
  f->wrote_tiles = true;
  if (f->codec.compression == 1 && !f->codec.swap16) {
    VLIMG_TileEntry &e = f->h.tiles[index];
    e.offset = f->io.tell();
    e.size = row * hh;
    e.flags = 0;
    if (!f->io.write_rows(data, row, hh, stride)) {
      ZT_LOG(kModule, fn, "Failed to write to disk");
      return -1;
    }
  } else {
    Slot &s = *f->slots[f->group + f->pending++];
    s.index = index;
    s.function = fn;
    s.raw.resize(size_t{row} * hh);
    for (uint32_t r = 0; r < hh; ++r)
      std::memcpy(s.raw.data() + size_t{r} * row, data + size_t{r} * stride, row);
    if (f->pending == f->group_size && !submit_group(f, false)) return -1;
  }
  f->tile_done[index] = 1;
  ++f->tiles_done;
  return 0;
}

int32_t read_tiles(VLIMG_File *f, const uint32_t *indices, uint32_t count, uint8_t *const *dsts,
                   const uint32_t *strides, const char *fn) {
  if (f->writing || !f->header_ok) {
    ZT_LOG(kModule, fn, "File is not open for reading or its header is unusable");
    return -1;
  }
  const Header &h = f->h;
  if (!h.tiled()) {
    ZT_LOG(kModule, fn, "Page is not tiled");
    return -1;
  }
  if (count > 0 && (indices == nullptr || dsts == nullptr || strides == nullptr)) {
    ZT_LOG(kModule, fn, "NULL tile list passed");
    return -1;
  }
  int32_t result = 0;
  const bool plain = f->codec.compression == 1 && !f->codec.swap16;
  std::vector<TileRead> reads;
  reads.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = indices[i];
    uint32_t x = 0, y = 0, w = 0, hh = 0;
    if (!tile_rect(h, index, &x, &y, &w, &hh)) {
      ZT_LOG(kModule, fn, "Cannot read tile %u: the page has %u", index, tile_count(h));
      result = -1;
      continue;
    }
    const uint32_t row = static_cast<uint32_t>(tile_line_bytes(h, w));
    if (dsts[i] == nullptr || strides[i] < row) {
      ZT_LOG(kModule, fn, "Cannot read tile %u: it needs %u bytes per line, got %u", index, row, strides[i]);
      result = -1;
      continue;
    }
    const VLIMG_TileEntry &e = h.tiles[index];
    if (plain && f->threads < 2) {
      // One thread and nothing to undo: the file goes straight into the caller's rows.
      const bool ok = e.size == size_t{row} * hh && (strides[i] == row
                                                        ? f->io.pread_at(dsts[i], e.size, e.offset)
                                                        : f->io.pread_rows(dsts[i], row, hh, strides[i], e.offset));
      if (!ok) {
        ZT_LOG(kModule, fn, "Cannot read tile %u", index);
        result = -1;
      }
      continue;
    }
    reads.push_back({index, dsts[i], strides[i], e.offset, e.size});
  }
  if (reads.empty()) return result;
  // One pass over the whole list, each worker with a slot of its own: no
  // worker waits for another until the last tile.
  ReadJob job;
  job.file = f;
  job.tiles = reads.data();
  job.count = static_cast<uint32_t>(reads.size());
  job.function = fn;
  const uint32_t workers = std::min({f->threads, job.count, static_cast<uint32_t>(f->slots.size())});
  ZT_TaskQueue *queue = tile_queue();
  ZT_TaskCompletion done;
  if (workers >= 2 && queue != nullptr && pthread_taskq_completion_init(&done) == 0) {
    // Whatever could not be queued is picked up by the caller's own share.
    pthread_taskq_enqueue_multiple(queue, &done, workers - 1, run_reads, &job, 0);
    run_reads(&job);
    pthread_taskq_completion_wait(&done);
    pthread_taskq_completion_destroy(&done);
  } else {
    run_reads(&job);
  }
  return job.failed.load() ? -1 : result;
}

// ---- Scanlines -------------------------------------------------------------------

int32_t read_line(VLIMG_File *f, uint8_t *line, const char *fn) {
  if (f->writing || !f->header_ok || line == nullptr) {
    ZT_LOG(kModule, fn, "Cannot read line %u", f->line);
    return -1;
  }
  const Header &h = f->h;
  if (h.tiled()) {
    ZT_LOG(kModule, fn, "Cannot read line %u: the page is tiled", f->line);
    return -1;
  }
  if (f->line >= h.height) {
    ZT_LOG(kModule, fn, "Cannot read line %u", f->line);
    return -1;
  }
  const uint32_t n = static_cast<uint32_t>(line_bytes(h));
  Slot &s = *f->slots[0];
  bool ok = false;
  // A line that is not all there yet leaves the reader where it was, so the
  // reader of a growing file can ask for it again.
  const uint64_t at = f->io.tell();
  if (f->codec.compression == 1) {
    ok = f->io.read(line, n);
    if (ok && f->codec.swap16) swap16(line, line, n);
  } else {
    uint8_t head[kBlockHeaderSize];
    if (f->io.read(head, kBlockHeaderSize)) {
      const uint32_t size = zt::load_be32(head + 4);
      if (size <= n) {
        s.stored.resize(size_t{size} + kBlockHeaderSize);
        std::memcpy(s.stored.data(), head, kBlockHeaderSize);
        ok = f->io.read(s.stored.data() + kBlockHeaderSize, size) &&
             decode_block(f->codec, s, s.stored.data(), size + kBlockHeaderSize, line, n, fn);
      } else {
        ZT_LOG(kModule, fn, "A block announces %u bytes, more than the line's %u", size, n);
      }
    }
  }
  if (!ok) {
    f->io.seek(at);
    ZT_LOG(kModule, fn, "Cannot read line %u", f->line);
    return -1;
  }
  ++f->line;
  return 0;
}

int32_t write_line(VLIMG_File *f, const uint8_t *line, const char *fn) {
  if (!f->writing) {
    ZT_LOG(kModule, fn, "File is not open for writing");
    return -1;
  }
  if (f->wrote_tiles || f->h.tiled()) {
    ZT_LOG(kModule, fn, "Page is tiled: write it with VLIMG_WriteTile");
    return -1;
  }
  if (line == nullptr) {
    ZT_LOG(kModule, fn, "NULL line passed");
    return -1;
  }
  if (!f->header_written && write_header(f, fn) != 0) return -1;
  if (f->line >= f->h.height) {
    ZT_LOG(kModule, fn, "All %u lines have already been written", f->h.height);
    return -1;
  }
  f->wrote_scanlines = true;
  const uint32_t n = static_cast<uint32_t>(line_bytes(f->h));
  bool ok;
  if (f->codec.compression == 1 && !f->codec.swap16) {
    ok = f->io.write(line, n);
  } else {
    Slot &s = *f->slots[0];
    ok = encode_block(f->codec, s, line, n) && f->io.write(s.stored.data(), s.stored_size);
  }
  if (!ok) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return -1;
  }
  ++f->line;
  return 0;
}

}  // namespace zt::raster::vlimg

VLIMG_File::~VLIMG_File() { zt::raster::vlimg::settle_batch(this); }
