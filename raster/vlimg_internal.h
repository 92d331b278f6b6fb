// The VLIMG file record and the pieces that the exported shims, the tile
// coder and the mipmap generator (in screening/) share. raster/VLIMG.md is the
// description of the bytes; this header is how we hold them.
#pragma once

#include "foundation/byte_order.h"
#include <zt/compress.h>
#include <zt/threads.h>
#include <zt/vlimg.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zt::raster::vlimg {

constexpr const char *kModule = "vlimg";
constexpr size_t kIoBufferSize = 64 * 1024;
constexpr uint32_t kMagic = 0x0B0A1340;
constexpr double kVersion = 6.0;
// Item type codes we write (the reader ignores them).
constexpr uint16_t kTypeBytes = 0x0001;
constexpr uint16_t kTypeText = 0x0002;
constexpr uint16_t kTypeU16 = 0x0003;
constexpr uint16_t kTypeFloat = 0x0004;
constexpr uint16_t kTypeU64 = 0x000A;
constexpr uint16_t kTypeU32 = 0x000B;
constexpr uint16_t kTypeDouble = 0x000C;
constexpr uint32_t kTileEntrySize = 24;
// Every compressed scanline or tile starts with its block flags and stored
// length (two u32).
constexpr uint32_t kBlockHeaderSize = 8;
constexpr uint64_t kNoNextPage = UINT64_MAX;

// The file underneath: positioned reads and writes through one 64 KB buffer.
// Reads of a file that is still growing wait 8 ms once when they find nothing.
class FileIo {
 public:
  FileIo() = default;
  ~FileIo();
  FileIo(const FileIo &) = delete;
  FileIo &operator=(const FileIo &) = delete;

  // Opens with open(2) flags; false when the file cannot be opened.
  bool open(const std::string &name, int flags, bool growing);
  int fd() const { return fd_; }
  bool failed() const { return error_; }
  // The current size of the file (0 when it cannot be asked).
  uint64_t size() const;

  // Reading: the absolute position of the next byte.
  uint64_t tell() const { return writing_ ? start_ + fill_ : start_ + pos_; }
  bool seek(uint64_t offset);
  // Reads exactly n bytes at the position; false at end of data.
  bool read(void *dst, size_t n);
  bool skip(uint64_t n);
  // Reads exactly n bytes at `offset` without touching the buffer.
  bool pread_at(void *dst, size_t n, uint64_t offset);
  // Reads `rows` rows of `row_bytes` stored back to back at `offset` into
  // rows `stride` bytes apart.
  bool pread_rows(uint8_t *dst, size_t row_bytes, size_t rows, size_t stride, uint64_t offset);

  // Writing: appends at the position through the buffer; a failing write
  // sets the error state, and the operation reports it.
  bool write(const void *src, size_t n);
  bool write_rows(const uint8_t *src, size_t row_bytes, size_t rows, size_t stride);
  bool flush();
  bool pwrite_at(const void *src, size_t n, uint64_t offset);

 private:
  bool fill();
  bool write_direct(const void *src, size_t n, uint64_t offset);
  int fd_ = -1;
  bool growing_ = false;
  bool writing_ = false;
  bool error_ = false;
  std::unique_ptr<uint8_t[]> buf_;
  uint64_t start_ = 0;  // file offset of buf_[0]
  size_t fill_ = 0;     // bytes valid (reading) or pending (writing)
  size_t pos_ = 0;      // next byte to hand out (reading)
};

// The header values of one page.
struct Header {
  uint64_t set = 0;  // bit t: tag t was read or set
  uint32_t width = 0, height = 0, compression = 0, image_type = 0;
  float xres = 0, yres = 0;
  uint32_t res_unit = 1, orientation = 1, colourspace = 0;
  double version = 0;
  std::string description, software, sepnames;
  std::vector<uint32_t> bpp;
  uint32_t bpp_tag = 0;
  uint32_t numseps = 0;
  uint32_t tile_width = 0, tile_height = 0;
  std::vector<VLIMG_TileEntry> tiles;
  std::vector<uint8_t> icc, blob1, blob2;
  uint32_t tile_flags = 0, mipmap_level = 0, new_file = 0, page_number = 0;
  uint64_t next_page = kNoNextPage;
  uint32_t planes = 0, bits_per_pixel = 0;

  bool has(uint32_t tag) const { return (set >> tag) & 1u; }
  void mark(uint32_t tag) { set |= uint64_t{1} << tag; }
  bool tiled() const { return tile_width > 0 && tile_height > 0; }
};

// The plane count of an image type; 0 when the type is unknown.
uint32_t planes_of(uint32_t image_type, uint32_t numseps);
// Checks the separation text (VLIMG.md) and counts its separations; -1 and
// the message in *why when it does not parse.
int64_t count_separations(const std::string &text, const char **why);

// Deleters for the codec objects.
struct CompressorFree {
  void operator()(ZT_Compressor *c) const { ZT_CompressFree(c); }
};
struct DecompressorFree {
  void operator()(ZT_Decompressor *c) const { ZT_DecompressFree(c); }
};

// What a worker needs to code one tile: its own codecs and buffers.
struct Slot {
  std::unique_ptr<ZT_Compressor, CompressorFree> compressor;
  std::unique_ptr<ZT_Decompressor, DecompressorFree> decompressor;
  std::vector<uint8_t> raw;     // the tile's pixels, contiguous, host order
  std::vector<uint8_t> stored;  // block header + payload as on disk
  std::vector<uint8_t> scratch;
  uint32_t index = 0;  // tile number
  uint32_t stored_size = 0;
  uint32_t block_flags = 0;
  uint8_t *dst = nullptr;  // reading: where the tile goes
  uint32_t dst_stride = 0;
  bool ok = false;
  uint64_t offset = 0;  // reading: where the tile's stored bytes are
  const char *function = "";
  struct ::VLIMG_File *file = nullptr;
};

// A group of tiles being written, coded by the caller and the task queue
// together. Whoever finishes the tile that is next in file order puts it (and
// any finished tiles after it) in the file, so writing overlaps coding and
// the bytes never depend on the number of threads.
struct TileBatch {
  VLIMG_File *file = nullptr;
  const std::unique_ptr<Slot> *slots = nullptr;
  uint32_t count = 0;
  bool queued = false;  // tasks went to the queue; `done` must be waited for
  std::atomic<uint32_t> next{0};     // next slot to code
  std::atomic<uint32_t> written{0};  // slots already in the file
  std::atomic<bool> writer{false};   // someone is writing
  std::atomic<bool> failed{false};
  std::unique_ptr<std::atomic<bool>[]> coded;
  ZT_TaskCompletion done{};
};

// The coding parameters of a page: what a block is and how it is coded.
struct Codec {
  uint32_t compression = 1;
  uint32_t flags = 0;        // compressor flags for the type
  uint32_t sample_bits = 8;  // 16 when every plane is 16-bit
  bool swap16 = false;       // 16-bit samples: big-endian on disk
};

// Number of worker threads new files take, and its setter.
uint32_t configured_threads();
int32_t setup_threads(uint32_t threads);
// Start-up and shut-down of the module: the task queues it codes tiles on.
void vlimg_static_init();
void vlimg_static_free();
ZT_TaskQueue *tile_queue();

}  // namespace zt::raster::vlimg

// The open file.
struct VLIMG_File {
  zt::raster::vlimg::FileIo io;
  std::string name;
  int32_t mode = 0;
  bool writing = false;
  zt::raster::vlimg::Header h;
  zt::raster::vlimg::Codec codec;
  bool header_ok = false;        // reading: the header passed every check
  uint64_t page_start = 0;       // offset of the current page's prologue
  uint64_t data_start = 0;       // first byte after tag 16
  uint64_t next_value_pos = 0;   // where the page's tag 32 value sits (0: none)
  uint64_t base_page_start = 0;  // the page whose mipmaps are being looked at
  uint32_t line = 0;             // next line to read or write
  // Writing.
  bool header_written = false;
  bool wrote_scanlines = false;
  bool wrote_tiles = false;
  bool new_file = false;
  uint64_t table_pos = 0;   // offset of the reserved tile table payload
  uint64_t link_pos = 0;    // tag 32 value to point at this page on close (0: none)
  uint64_t next_value = 0;  // what this page's tag 32 says
  std::vector<uint8_t> tile_done;
  uint32_t tiles_done = 0;
  // Coding.
  uint32_t threads = 1;
  // Writers with several threads keep two groups of slots: one is filled by
  // the caller while the other is coded and written.
  std::vector<std::unique_ptr<zt::raster::vlimg::Slot>> slots;
  uint32_t group_size = 1;  // slots in a group
  uint32_t group = 0;       // first slot of the group being filled
  uint32_t pending = 0;     // tiles in that group, not yet coded
  std::unique_ptr<zt::raster::vlimg::TileBatch> in_flight;
  std::vector<uint8_t> line_buf, block_buf;

  VLIMG_File() = default;
  VLIMG_File(const VLIMG_File &) = delete;
  VLIMG_File &operator=(const VLIMG_File &) = delete;
  // Waits for a group still being coded: its workers point into this record.
  ~VLIMG_File();
};

namespace zt::raster::vlimg {

// Header reading and writing (vlimg_header.cpp).
int32_t read_header(VLIMG_File *f, const char *fn);
bool write_prologue(VLIMG_File *f, bool new_file, uint64_t next_value);
int32_t write_header(VLIMG_File *f, const char *fn);
bool finish_tile_table(VLIMG_File *f, const char *fn);
// Walks the page at `offset`: its next-page offset, mipmap level and where
// its tag 32 value sits. False (logged as fn) on a damaged page.
struct PageLink {
  uint64_t next = kNoNextPage;
  uint64_t value_pos = 0;
  uint32_t level = 0;
};
bool scan_page(VLIMG_File *f, uint64_t offset, PageLink *link, const char *fn);
// Moves a reader to the page at `offset` and reads its header.
int32_t enter_page(VLIMG_File *f, uint64_t offset, const char *fn);
// The offset of page `page` (mipmaps not counted); false (logged) when the
// chain is shorter or broken.
bool find_page(VLIMG_File *f, uint32_t page, uint64_t *offset, const char *fn);

// Setting up coding for the current header (vlimg_tiles.cpp).
bool prepare_codec(VLIMG_File *f, const char *fn);
uint64_t line_bytes(const Header &h);
uint64_t tile_line_bytes(const Header &h, uint32_t width);
bool tile_rect(const Header &h, uint32_t index, uint32_t *x, uint32_t *y, uint32_t *w, uint32_t *h2);
uint32_t tile_count(const Header &h);
// Codes `n` bytes of slot.raw into slot.stored (block header included for
// compressed types); decodes slot.stored into `dst`.
bool encode_block(const Codec &c, Slot &s, uint32_t n);
bool decode_block(const Codec &c, Slot &s, const uint8_t *stored, uint32_t stored_size, uint8_t *dst,
                  uint32_t n, const char *fn);
int32_t write_tile(VLIMG_File *f, uint32_t index, const uint8_t *data, uint32_t stride, const char *fn);
// Codes and writes every tile handed over so far.
bool drain_tiles(VLIMG_File *f, const char *fn);
// Waits for the group of tiles still being coded and written, if any; false
// when one of them failed (logged where it failed).
bool settle_batch(VLIMG_File *f);
int32_t read_tiles(VLIMG_File *f, const uint32_t *indices, uint32_t count, uint8_t *const *dsts,
                   const uint32_t *strides, const char *fn);
int32_t read_line(VLIMG_File *f, uint8_t *line, const char *fn);
int32_t write_line(VLIMG_File *f, const uint8_t *line, const char *fn);

// Opening and closing (vlimg_api.cpp).
VLIMG_File *open_file(const char *name, int32_t mode, const char *fn);
// A writer of a new page at the end of `name` whose tag 32 says `next_value`
// and whose closing points the tag 32 value at `link_pos` to it.
VLIMG_File *open_page_writer(const std::string &name, uint64_t link_pos, uint64_t next_value, const char *fn);
// Finishes a written page; false when it is incomplete or a write failed.
bool finish_page(VLIMG_File *f, const char *fn);
// Copies the descriptive header values of `from` into a writer.
void copy_header_fields(VLIMG_File *to, const Header &from);

// Reads the rows of a page in order, whatever its layout; used by crop and
// mipmaps. Rows come as the file's lines (pixel-interleaved, host order).
class RowReader {
 public:
  explicit RowReader(VLIMG_File *f) : f_(f) {}
  // Row y (rows must be asked for in increasing order); NULL (logged) on error.
  const uint8_t *row(uint32_t y, const char *fn);

 private:
  VLIMG_File *f_;
  std::vector<uint8_t> band_;
  uint32_t band_y_ = UINT32_MAX;  // first row of the band held
  uint32_t next_line_ = 0;        // scanline pages: the next line the file gives
};

// Writes rows in order into a page being written, cutting tiles when tiled.
class RowWriter {
 public:
  explicit RowWriter(VLIMG_File *f) : f_(f) {}
  bool put(const uint8_t *row, const char *fn);

 private:
  VLIMG_File *f_;
  std::vector<uint8_t> band_;
  uint32_t rows_ = 0;  // rows written so far
};

// Copies `bits` bits starting at bit `from` of `src` to the start of `dst`.
void copy_bits(uint8_t *dst, const uint8_t *src, uint64_t from, uint64_t bits);

}  // namespace zt::raster::vlimg
