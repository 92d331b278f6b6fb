// The exported VLIMG family: opening in every mode, header values by tag,
// scanlines through scanline buffers, the page chain and the mipmap links.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "foundation/internal.h"
#include "raster/vlimg_internal.h"

using zt::api_guard;
using namespace zt::raster::vlimg;

namespace zt::raster::vlimg {

namespace {

bool is_reader(const VLIMG_File *f) {
  return f->mode == VLIMG_MODE_READ || f->mode == VLIMG_MODE_READ_GROWING;
}

// Follows the chain from `start` to the page whose tag 32 says 0; false
// (logged) on a loop or a damaged page.
bool last_page(VLIMG_File *f, PageLink *last, const char *fn) {
  std::unordered_set<uint64_t> seen;
  uint64_t at = 0;
  for (;;) {
    if (!scan_page(f, at, last, fn)) return false;
    if (last->next == 0 || last->next == kNoNextPage) return true;
    seen.insert(at);
    if (seen.count(last->next) != 0) {
      ZT_LOG(kModule, fn, "The page chain loops back to offset %llu",
             static_cast<unsigned long long>(last->next));
      return false;
    }
    at = last->next;
  }
}

}  // namespace

VLIMG_File *open_file(const char *name, int32_t mode, const char *fn) {
  if (name == nullptr) {
    ZT_LOG(kModule, fn, "NULL filename passed");
    return nullptr;
  }
  if (mode == VLIMG_MODE_NONE) return nullptr;
  if (mode != VLIMG_MODE_READ && mode != VLIMG_MODE_READ_GROWING && mode != VLIMG_MODE_CREATE &&
      mode != VLIMG_MODE_APPEND) {
    ZT_LOG(kModule, fn, "Unknown open mode %d", mode);
    return nullptr;
  }
  auto f = std::make_unique<VLIMG_File>();
  f->name = name;
  f->mode = mode;
  f->threads = configured_threads();
  if (is_reader(f.get())) {
    if (!f->io.open(name, O_RDONLY, mode == VLIMG_MODE_READ_GROWING)) {
      ZT_LOG(kModule, fn, "Cannot open %s for read", name);
      return nullptr;
    }
    if (read_header(f.get(), fn) != 0) return nullptr;
    return f.release();
  }
  f->writing = true;
  if (mode == VLIMG_MODE_APPEND && ::access(name, F_OK) == 0) {
    if (!f->io.open(name, O_RDWR, false)) {
      ZT_LOG(kModule, fn, "Cannot open %s for write", name);
      return nullptr;
    }
    const uint64_t size = f->io.size();
    if (size > 0) {
      PageLink last;
      if (!last_page(f.get(), &last, fn)) return nullptr;
      if (last.value_pos == 0) {
        ZT_LOG(kModule, fn, "Cannot append to %s: its last page has no next-page item", name);
        return nullptr;
      }
      f->link_pos = last.value_pos;
      f->io.seek(size);
      if (!write_prologue(f.get(), false, 0)) {
        ZT_LOG(kModule, fn, "Failed to write to disk");
        return nullptr;
      }
      return f.release();
    }
  } else if (!f->io.open(name, O_RDWR | O_CREAT | O_TRUNC, false)) {
    ZT_LOG(kModule, fn, "Cannot open %s for write", name);
    return nullptr;
  }
  f->new_file = true;
  if (!write_prologue(f.get(), true, 0)) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return nullptr;
  }
  return f.release();
}

VLIMG_File *open_page_writer(const std::string &name, uint64_t link_pos, uint64_t next_value,
                             const char *fn) {
  auto f = std::make_unique<VLIMG_File>();
  f->name = name;
  f->mode = VLIMG_MODE_APPEND;
  f->writing = true;
  f->threads = configured_threads();
  if (!f->io.open(name, O_RDWR, false)) {
    ZT_LOG(kModule, fn, "Cannot open %s for write", name.c_str());
    return nullptr;
  }
  f->io.seek(f->io.size());
  f->link_pos = link_pos;
  if (!write_prologue(f.get(), false, next_value)) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return nullptr;
  }
  return f.release();
}

bool finish_page(VLIMG_File *f, const char *fn) {
  if (!f->header_written && write_header(f, fn) != 0) return false;
  const Header &h = f->h;
  if (h.tiled()) {
    if (!drain_tiles(f, fn)) return false;
    if (f->tiles_done < h.tiles.size()) {
      ZT_LOG(kModule, fn, "Page is incomplete: %u of %u tiles written", f->tiles_done,
             static_cast<uint32_t>(h.tiles.size()));
      return false;
    }
    if (!finish_tile_table(f, fn)) return false;
  } else if (f->line < h.height) {
    ZT_LOG(kModule, fn, "Page is incomplete: %u of %u lines written", f->line, h.height);
    return false;
  }
  if (!f->io.flush()) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return false;
  }
  if (f->link_pos != 0) {
    // The page joins the chain only now that all of it is on disk.
    uint8_t b[8];
    zt::store_be64(b, f->page_start);
    if (!f->io.pwrite_at(b, 8, f->link_pos)) {
      ZT_LOG(kModule, fn, "Failed to write to disk");
      return false;
    }
  }
  return true;
}

void copy_header_fields(VLIMG_File *to, const Header &from) {
  Header &h = to->h;
  constexpr uint32_t kTags[] = {3, 5, 6, 7, 8, 9, 11, 15, 17, 19, 20, 21, 22, 26, 27, 28, 29, 33};
  h.compression = from.compression;
  h.image_type = from.image_type;
  h.xres = from.xres;
  h.yres = from.yres;
  h.res_unit = from.res_unit;
  h.orientation = from.orientation;
  h.colourspace = from.colourspace;
  h.description = from.description;
  h.software = from.software;
  h.bpp = from.bpp;
  h.bpp_tag = from.bpp_tag == 20 ? 20 : 19;
  h.sepnames = from.sepnames;
  h.numseps = from.numseps;
  h.icc = from.icc;
  h.tile_flags = from.tile_flags;
  h.blob1 = from.blob1;
  h.blob2 = from.blob2;
  h.page_number = from.page_number;
  for (uint32_t t : kTags)
    if (from.has(t)) h.mark(t);
}

// ---- Rows in order, whatever the layout -------------------------------------------

void copy_bits(uint8_t *dst, const uint8_t *src, uint64_t from, uint64_t bits) {
  if (from % 8 == 0) {
    const size_t whole = static_cast<size_t>(bits / 8);
    std::memcpy(dst, src + from / 8, whole);
    if (bits % 8) {
      const uint8_t mask = static_cast<uint8_t>(0xFF00u >> (bits % 8));
      dst[whole] = static_cast<uint8_t>((dst[whole] & ~mask) | (src[from / 8 + whole] & mask));
    }
    return;
  }
  for (uint64_t i = 0; i < bits; ++i) {
    const uint64_t s = from + i;
    const int bit = (src[s / 8] >> (7 - s % 8)) & 1;
    uint8_t &d = dst[i / 8];
    const uint8_t m = static_cast<uint8_t>(0x80u >> (i % 8));
    d = bit ? static_cast<uint8_t>(d | m) : static_cast<uint8_t>(d & ~m);
  }
}

const uint8_t *RowReader::row(uint32_t y, const char *fn) {
  const Header &h = f_->h;
  const size_t line = static_cast<size_t>(line_bytes(h));
  if (y >= h.height) {
    ZT_LOG(kModule, fn, "Cannot read line %u", y);
    return nullptr;
  }
  if (!h.tiled()) {
    if (band_.size() != line) band_.resize(line);
    if (next_line_ > y + 1) {
      ZT_LOG(kModule, fn, "Cannot read line %u", y);
      return nullptr;
    }
    while (next_line_ <= y) {
      if (read_line(f_, band_.data(), fn) != 0) return nullptr;
      ++next_line_;
    }
    return band_.data();
  }
  const uint32_t top = y - y % h.tile_height;
  if (band_y_ != top) {
    const uint32_t rows = std::min(h.tile_height, h.height - top);
    band_.resize(line * h.tile_height);
    const uint32_t across = static_cast<uint32_t>((uint64_t{h.width} + h.tile_width - 1) / h.tile_width);
    const uint32_t first = (top / h.tile_height) * across;
    const bool aligned = (uint64_t{h.tile_width} * h.bits_per_pixel) % 8 == 0;
    std::vector<uint32_t> indices(across), strides(across);
    std::vector<uint8_t *> dsts(across);
    std::vector<std::vector<uint8_t>> temps(aligned ? 0 : across);
    for (uint32_t c = 0; c < across; ++c) {
      indices[c] = first + c;
      if (aligned) {
        dsts[c] = band_.data() + uint64_t{c} * h.tile_width * h.bits_per_pixel / 8;
        strides[c] = static_cast<uint32_t>(line);
      } else {
        const uint32_t w = std::min(h.tile_width, h.width - c * h.tile_width);
        strides[c] = static_cast<uint32_t>(tile_line_bytes(h, w));
        temps[c].resize(size_t{strides[c]} * rows);
        dsts[c] = temps[c].data();
      }
    }
    if (read_tiles(f_, indices.data(), across, dsts.data(), strides.data(), fn) != 0) return nullptr;
    if (!aligned) {
      for (uint32_t c = 0; c < across; ++c) {
        const uint32_t w = std::min(h.tile_width, h.width - c * h.tile_width);
        for (uint32_t r = 0; r < rows; ++r) {
          // Unaligned tiles are placed bit by bit after the ones on their left.
          uint8_t *out = band_.data() + size_t{r} * line;
          const uint64_t at = uint64_t{c} * h.tile_width * h.bits_per_pixel;
          const uint64_t bits = uint64_t{w} * h.bits_per_pixel;
          std::vector<uint8_t> shifted((at % 8 + bits + 7) / 8 + 1, 0);
          for (uint64_t i = 0; i < bits; ++i) {
            const int bit = (temps[c][size_t{r} * strides[c] + i / 8] >> (7 - i % 8)) & 1;
            const uint64_t d = at + i;
            const uint8_t m = static_cast<uint8_t>(0x80u >> (d % 8));
            out[d / 8] = bit ? static_cast<uint8_t>(out[d / 8] | m) : static_cast<uint8_t>(out[d / 8] & ~m);
          }
        }
      }
    }
    band_y_ = top;
  }
  return band_.data() + size_t{y - top} * line;
}

bool RowWriter::put(const uint8_t *row, const char *fn) {
  if (!f_->header_written && write_header(f_, fn) != 0) return false;
  const Header &h = f_->h;
  if (!h.tiled()) return write_line(f_, row, fn) == 0;
  const size_t line = static_cast<size_t>(line_bytes(h));
  if (band_.empty()) band_.resize(line * h.tile_height);
  const uint32_t in_band = rows_ % h.tile_height;
  std::memcpy(band_.data() + size_t{in_band} * line, row, line);
  ++rows_;
  if (in_band + 1 < h.tile_height && rows_ < h.height) return true;
  const uint32_t top = rows_ - in_band - 1;
  const uint32_t across = static_cast<uint32_t>((uint64_t{h.width} + h.tile_width - 1) / h.tile_width);
  std::vector<uint8_t> tile;
  for (uint32_t c = 0; c < across; ++c) {
    const uint32_t index = (top / h.tile_height) * across + c;
    const uint64_t at = uint64_t{c} * h.tile_width * h.bits_per_pixel;
    int32_t r;
    if (at % 8 == 0) {
      r = write_tile(f_, index, band_.data() + at / 8, static_cast<uint32_t>(line), fn);
    } else {
      const uint32_t w = std::min(h.tile_width, h.width - c * h.tile_width);
      const size_t tl = static_cast<size_t>(tile_line_bytes(h, w));
      tile.assign(tl * (in_band + 1), 0);
      for (uint32_t y = 0; y <= in_band; ++y)
        copy_bits(tile.data() + y * tl, band_.data() + y * line, at, uint64_t{w} * h.bits_per_pixel);
      r = write_tile(f_, index, tile.data(), static_cast<uint32_t>(tl), fn);
    }
    if (r != 0) return false;
  }
  return true;
}

}  // namespace zt::raster::vlimg

namespace {

constexpr const char *kNotWriter = "File is not open for writing";

bool check_file(const VLIMG_File *f, const char *fn) {
  if (f != nullptr) return true;
  ZT_LOG(kModule, fn, "NULL file passed");
  return false;
}

bool set_text(std::string *to, const void *value) {
  *to = static_cast<const char *>(value);
  return true;
}

bool set_blob(std::vector<uint8_t> *to, const void *value) {
  const auto *b = static_cast<const VLIMG_Blob *>(value);
  if (b->data == nullptr && b->length != 0) return false;
  const auto *p = static_cast<const uint8_t *>(b->data);
  to->assign(p, p + b->length);
  return true;
}

void get_blob(const std::vector<uint8_t> &from, void *out) {
  auto *b = static_cast<VLIMG_Blob *>(out);
  b->data = from.data();
  b->length = static_cast<uint32_t>(from.size());
}

// Separated images and the plane-wise formats: interleaving a scanline
// buffer's rows to and from the file's pixel order.
bool sb_matches(const VLIMG_File *f, const ScanlineBuf *sb, const char *fn) {
  const Header &h = f->h;
  bool ok = sb != nullptr && sb->data != nullptr && sb->width == h.width && sb->channels == h.planes;
  for (uint32_t b : h.bpp) ok = ok && b == sb->bitsPerPixel;
  if (ok && sb->interleave == ZT_INTERLEAVE_BY_PIXEL && sb->bitsPerPixel == 1 && sb->channels != 1)
    ok = false;
  if (!ok) ZT_LOG(kModule, fn, "Scanline buffer does not match the page's width, planes and depth");
  return ok;
}

void pixel_to_planes(const Header &h, const uint8_t *src, ScanlineBuf *sb) {
  const uint32_t planes = h.planes;
  if (sb->bitsPerPixel == 1) {
    for (uint32_t c = 0; c < planes; ++c) {
      uint8_t *dst = sb->data + size_t{c} * sb->bytesPerPlaneRow;
      std::memset(dst, 0, sb->bytesPerPlaneRow);
      for (uint32_t x = 0; x < h.width; ++x) {
        const uint64_t s = uint64_t{x} * planes + c;
        if ((src[s / 8] >> (7 - s % 8)) & 1) dst[x / 8] |= static_cast<uint8_t>(0x80u >> (x % 8));
      }
    }
    return;
  }
  const uint32_t bps = sb->bytesPerSample;
  for (uint32_t c = 0; c < planes; ++c) {
    uint8_t *dst = sb->data + size_t{c} * sb->bytesPerPlaneRow;
    for (uint32_t x = 0; x < h.width; ++x)
      std::memcpy(dst + size_t{x} * bps, src + (size_t{x} * planes + c) * bps, bps);
  }
}

void planes_to_pixel(const Header &h, const ScanlineBuf *sb, uint8_t *dst) {
  const uint32_t planes = h.planes;
  if (sb->bitsPerPixel == 1) {
    std::memset(dst, 0, static_cast<size_t>(line_bytes(h)));
    for (uint32_t c = 0; c < planes; ++c) {
      const uint8_t *src = sb->data + size_t{c} * sb->bytesPerPlaneRow;
      for (uint32_t x = 0; x < h.width; ++x) {
        const uint64_t d = uint64_t{x} * planes + c;
        if ((src[x / 8] >> (7 - x % 8)) & 1) dst[d / 8] |= static_cast<uint8_t>(0x80u >> (d % 8));
      }
    }
    return;
  }
  const uint32_t bps = sb->bytesPerSample;
  for (uint32_t c = 0; c < planes; ++c) {
    const uint8_t *src = sb->data + size_t{c} * sb->bytesPerPlaneRow;
    for (uint32_t x = 0; x < h.width; ++x)
      std::memcpy(dst + (size_t{x} * planes + c) * bps, src + size_t{x} * bps, bps);
  }
}

// Walks the mipmap pages behind the current base page: calls `visit` with
// each one's offset and level until it returns false or the mipmaps end.
// Returns the offset of the first page after them (0: none), or false (logged).
template <typename Visit>
bool walk_mipmaps(VLIMG_File *f, uint64_t *after, const char *fn, Visit &&visit) {
  PageLink base;
  if (!scan_page(f, f->base_page_start, &base, fn)) return false;
  std::unordered_set<uint64_t> seen{f->base_page_start};
  uint64_t at = base.next;
  uint32_t level = base.level;
  for (;;) {
    if (at == 0 || at == kNoNextPage) {
      *after = 0;
      return true;
    }
    if (seen.count(at) != 0) {
      ZT_LOG(kModule, fn, "The page chain loops back to offset %llu", static_cast<unsigned long long>(at));
      return false;
    }
    seen.insert(at);
    PageLink link;
    if (!scan_page(f, at, &link, fn)) return false;
    if (link.level <= level) {
      *after = at;
      return true;
    }
    if (!visit(at, link)) {
      *after = at;
      return true;
    }
    at = link.next;
  }
}

}  // namespace

extern "C" {

ZT_API VLIMG_File *VLIMG_Open(const char *name, int32_t mode) {
  return api_guard<VLIMG_File *>(kModule, "VLIMG_Open", nullptr,
                                 [&] { return open_file(name, mode, "VLIMG_Open"); });
}

ZT_API VLIMG_File *VLIMG_OpenAtPage(const char *name, uint32_t page) {
  return api_guard<VLIMG_File *>(kModule, "VLIMG_OpenAtPage", nullptr, [&]() -> VLIMG_File * {
    VLIMG_File *f = open_file(name, VLIMG_MODE_READ, "VLIMG_OpenAtPage");
    if (f == nullptr) return nullptr;
    if (page != 0 && VLIMG_SeekToPage(f, page) != 0) {
      ZT_LOG(kModule, "VLIMG_OpenAtPage", "Cannot open %s at page %d", name, static_cast<int>(page));
      delete f;
      return nullptr;
    }
    return f;
  });
}

ZT_API int32_t VLIMG_SeekToPage(VLIMG_File *file, uint32_t page) {
  constexpr const char *fn = "VLIMG_SeekToPage";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (!is_reader(file)) {
      ZT_LOG(kModule, fn, "Only read mode is supported");
      return -1;
    }
    file->header_ok = false;
    file->slots.clear();
    uint64_t offset = 0;
    if (!find_page(file, page, &offset, fn)) return -1;
    if (enter_page(file, offset, fn) != 0) return -1;
    file->base_page_start = offset;
    return 0;
  });
}

ZT_API int32_t VLIMG_Close(VLIMG_File *file) {
  if (file == nullptr) return 0;
  const int32_t r = api_guard<int32_t>(kModule, "VLIMG_Close", -1, [&]() -> int32_t {
    if (file->writing && !finish_page(file, "VLIMG_Close")) return -1;
    return 0;
  });
  delete file;
  return r;
}

ZT_API int32_t VLIMG_ReadHeader(VLIMG_File *file) {
  return api_guard<int32_t>(kModule, "VLIMG_ReadHeader", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_ReadHeader")) return -1;
    if (!is_reader(file)) {
      ZT_LOG(kModule, "VLIMG_ReadHeader", "Only read mode is supported");
      return -1;
    }
    return read_header(file, "VLIMG_ReadHeader");
  });
}

ZT_API int32_t VLIMG_GetField(VLIMG_File *file, uint32_t tag, void *out) {
  constexpr const char *fn = "VLIMG_GetField";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (out == nullptr) {
      ZT_LOG(kModule, fn, "NULL value passed");
      return -1;
    }
    const Header &h = file->h;
    const bool has_default = tag == 8 || tag == 11;
    if (tag > VLIMG_TAG_LAST ||
        (!h.has(tag) && !has_default && !(tag == 10 && h.has(9)) && !(tag == 30 && file->header_ok))) {
      ZT_LOG(kModule, fn, "Tag %u is not set", tag);
      return -1;
    }
    auto u32 = [&](uint32_t v) {
      *static_cast<uint32_t *>(out) = v;
      return 0;
    };
    switch (tag) {
      case 1:
        return u32(h.width);
      case 2:
        return u32(h.height);
      case 3:
        return u32(h.compression);
      case 5:
        return u32(h.image_type);
      case 6:
        *static_cast<float *>(out) = h.xres;
        return 0;
      case 7:
        *static_cast<float *>(out) = h.yres;
        return 0;
      case 8:
        return u32(h.res_unit);
      case 9:
        return u32(h.colourspace);
      case 10:
        *static_cast<double *>(out) = h.colourspace;
        return 0;
      case 11:
        return u32(h.orientation);
      case 14:
        *static_cast<double *>(out) = h.version;
        return 0;
      case 15:
        *static_cast<const char **>(out) = h.description.c_str();
        return 0;
      case 17:
        *static_cast<const char **>(out) = h.software.c_str();
        return 0;
      case 19:
      case 20:
        std::copy(h.bpp.begin(), h.bpp.end(), static_cast<uint32_t *>(out));
        return 0;
      case 21:
        *static_cast<const char **>(out) = h.sepnames.c_str();
        return 0;
      case 22:
        return u32(h.numseps);
      case 23:
        return u32(h.tile_width);
      case 24:
        return u32(h.tile_height);
      case 25:
        std::copy(h.tiles.begin(), h.tiles.end(), static_cast<VLIMG_TileEntry *>(out));
        return 0;
      case 26:
        get_blob(h.icc, out);
        return 0;
      case 27:
        return u32(h.tile_flags);
      case 28:
        get_blob(h.blob1, out);
        return 0;
      case 29:
        get_blob(h.blob2, out);
        return 0;
      case 30:
        return u32(h.mipmap_level);
      case 31:
        return u32(h.new_file);
      case 32:
        *static_cast<uint64_t *>(out) = h.next_page;
        return 0;
      case 33:
        return u32(h.page_number);
      default:
        ZT_LOG(kModule, fn, "Tag %u is not set", tag);
        return -1;
    }
  });
}

ZT_API int32_t VLIMG_SetField(VLIMG_File *file, uint32_t tag, const void *value) {
  constexpr const char *fn = "VLIMG_SetField";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (value == nullptr) {
      ZT_LOG(kModule, fn, "NULL value passed");
      return -1;
    }
    if (!file->writing) {
      ZT_LOG(kModule, fn, "%s", kNotWriter);
      return -1;
    }
    if (file->header_written) {
      ZT_LOG(kModule, fn, "Header has already been written");
      return -1;
    }
    Header &h = file->h;
    const uint32_t v = *static_cast<const uint32_t *>(value);
    bool ok = true;
    switch (tag) {
      case 1:
        h.width = v;
        break;
      case 2:
        h.height = v;
        break;
      case 3:
        if (ZT_CompressFlagsFromVLIMG(v, 0) == 0) return -1;
        h.compression = v;
        break;
      case 5:
        if (v != 4 && planes_of(v, 0) == 0) {
          ZT_LOG(kModule, fn, "Cannot handle imagetype %d", static_cast<int>(v));
          return -1;
        }
        h.image_type = v;
        break;
      case 6:
        h.xres = *static_cast<const float *>(value);
        break;
      case 7:
        h.yres = *static_cast<const float *>(value);
        break;
      case 8:
      case 11:
        ok = v <= 0xFFFF;
        (tag == 8 ? h.res_unit : h.orientation) = v;
        break;
      case 9:
        h.colourspace = v;
        break;
      case 10: {
        const double d = *static_cast<const double *>(value);
        ok = d >= 0 && d <= UINT32_MAX;
        h.colourspace = ok ? static_cast<uint32_t>(d) : 0;
        tag = 9;
        break;
      }
      case 15:
        ok = set_text(&h.description, value);
        break;
      case 17:
        ok = set_text(&h.software, value);
        break;
      case 19:
      case 20: {
        if (!h.has(5)) {
          ZT_LOG(kModule, fn, "Got bpp before colourspace");
          return -1;
        }
        if (h.image_type == 4 && !h.has(22)) {
          ZT_LOG(kModule, fn, "numseps is undefined");
          return -1;
        }
        const uint32_t planes = planes_of(h.image_type, h.numseps);
        const auto *bpp = static_cast<const uint32_t *>(value);
        for (uint32_t i = 0; i < planes; ++i)
          ok = ok && (bpp[i] == 1 || bpp[i] == 2 || bpp[i] == 4 || bpp[i] == 8 || bpp[i] == 16);
        if (ok) {
          h.bpp.assign(bpp, bpp + planes);
          h.bpp_tag = tag;
          h.mark(19);
          h.mark(20);
        }
        break;
      }
      case 21: {
        const char *why = nullptr;
        if (!h.has(22)) {
          ZT_LOG(kModule, fn, "Saw sep definitions before numseps");
          return -1;
        }
        if (count_separations(static_cast<const char *>(value), &why) < 0) {
          ZT_LOG(kModule, fn, "%s", why);
          return -1;
        }
        h.sepnames = static_cast<const char *>(value);
        break;
      }
      case 22:
        ok = v >= 1 && v <= VLIMG_MAX_PLANES;
        h.numseps = v;
        break;
      case 23:
        h.tile_width = v;
        break;
      case 24:
        h.tile_height = v;
        break;
      case 26:
        ok = set_blob(&h.icc, value);
        break;
      case 27:
        h.tile_flags = v;
        break;
      case 28:
        ok = set_blob(&h.blob1, value);
        break;
      case 29:
        ok = set_blob(&h.blob2, value);
        break;
      case 30:
        h.mipmap_level = v;
        break;
      case 33:
        h.page_number = v;
        break;
      default:
        ZT_LOG(kModule, fn, "Tag %u cannot be set", tag);
        return -1;
    }
    if (!ok) {
      ZT_LOG(kModule, fn, "Bad value for tag %u", tag);
      return -1;
    }
    h.mark(tag);
    return 0;
  });
}

ZT_API uint32_t VLIMG_NumPlanes(const VLIMG_File *file) {
  return file != nullptr && (file->header_ok || file->header_written) ? file->h.planes : 0;
}
ZT_API uint32_t VLIMG_BitsPerPixel(const VLIMG_File *file) {
  return file != nullptr && (file->header_ok || file->header_written) ? file->h.bits_per_pixel : 0;
}
ZT_API uint64_t VLIMG_BytesPerLine(const VLIMG_File *file) {
  return file != nullptr && (file->header_ok || file->header_written) ? line_bytes(file->h) : 0;
}

ZT_API int32_t VLIMG_ReadScanline(VLIMG_File *file, uint8_t *line) {
  return api_guard<int32_t>(kModule, "VLIMG_ReadScanline", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_ReadScanline")) return -1;
    return read_line(file, line, "VLIMG_ReadScanline");
  });
}

ZT_API int32_t VLIMG_ReadScanlineSB(VLIMG_File *file, ScanlineBuf *sb) {
  constexpr const char *fn = "VLIMG_ReadScanlineSB";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn) || !file->header_ok || !sb_matches(file, sb, fn)) return -1;
    if (sb->interleave == ZT_INTERLEAVE_BY_PIXEL || file->h.planes == 1) return read_line(file, sb->data, fn);
    file->line_buf.resize(static_cast<size_t>(line_bytes(file->h)));
    if (read_line(file, file->line_buf.data(), fn) != 0) return -1;
    pixel_to_planes(file->h, file->line_buf.data(), sb);
    return 0;
  });
}

ZT_API int32_t VLIMG_WriteScanline(VLIMG_File *file, const uint8_t *line) {
  return api_guard<int32_t>(kModule, "VLIMG_WriteScanline", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_WriteScanline")) return -1;
    return write_line(file, line, "VLIMG_WriteScanline");
  });
}

ZT_API int32_t VLIMG_WriteScanlineSB(VLIMG_File *file, const ScanlineBuf *sb) {
  constexpr const char *fn = "VLIMG_WriteScanlineSB";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (!file->header_written && file->writing && write_header(file, fn) != 0) return -1;
    if (!sb_matches(file, sb, fn)) return -1;
    if (sb->interleave == ZT_INTERLEAVE_BY_PIXEL || file->h.planes == 1)
      return write_line(file, sb->data, fn);
    file->line_buf.resize(static_cast<size_t>(line_bytes(file->h)));
    planes_to_pixel(file->h, sb, file->line_buf.data());
    return write_line(file, file->line_buf.data(), fn);
  });
}

ZT_API int32_t VLIMG_EnableTiling(VLIMG_File *file, uint32_t tileWidth, uint32_t tileHeight) {
  constexpr const char *fn = "VLIMG_EnableTiling";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (file == nullptr || !file->writing || file->header_written || file->wrote_scanlines ||
        tileWidth == 0 || tileHeight == 0) {
      ZT_LOG(kModule, fn, "Cannot enable tiled mode");
      return -1;
    }
    file->h.tile_width = tileWidth;
    file->h.tile_height = tileHeight;
    file->h.mark(23);
    file->h.mark(24);
    return 0;
  });
}

ZT_API int32_t VLIMG_IsTiled(const VLIMG_File *file) { return file != nullptr && file->h.tiled() ? 1 : 0; }

ZT_API uint32_t VLIMG_NumTiles(const VLIMG_File *file) { return file == nullptr ? 0 : tile_count(file->h); }

ZT_API int32_t VLIMG_GetTileSize(const VLIMG_File *file, uint32_t index, uint32_t *width, uint32_t *height) {
  uint32_t x = 0, y = 0;
  if (file == nullptr || width == nullptr || height == nullptr ||
      !tile_rect(file->h, index, &x, &y, width, height)) {
    ZT_LOG(kModule, "VLIMG_GetTileSize", "Tile %u does not exist", index);
    return -1;
  }
  return 0;
}

ZT_API int32_t VLIMG_WriteTile(VLIMG_File *file, uint32_t index, const uint8_t *data, uint32_t stride) {
  return api_guard<int32_t>(kModule, "VLIMG_WriteTile", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_WriteTile")) return -1;
    return write_tile(file, index, data, stride, "VLIMG_WriteTile");
  });
}

ZT_API int32_t VLIMG_ReadTile(VLIMG_File *file, uint32_t index, uint8_t *dst, uint32_t stride) {
  return api_guard<int32_t>(kModule, "VLIMG_ReadTile", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_ReadTile")) return -1;
    return read_tiles(file, &index, 1, &dst, &stride, "VLIMG_ReadTile");
  });
}

ZT_API int32_t VLIMG_ReadTiles(VLIMG_File *file, const uint32_t *indices, uint32_t count,
                               uint8_t *const *dsts, const uint32_t *strides) {
  return api_guard<int32_t>(kModule, "VLIMG_ReadTiles", -1, [&]() -> int32_t {
    if (!check_file(file, "VLIMG_ReadTiles")) return -1;
    return read_tiles(file, indices, count, dsts, strides, "VLIMG_ReadTiles");
  });
}

ZT_API int32_t VLIMGSetupThreads(uint32_t threads) { return setup_threads(threads); }

ZT_API int32_t VLIMG_Flush(VLIMG_File *file) {
  if (!check_file(file, "VLIMG_Flush")) return -1;
  if (file->writing && !file->io.flush()) {
    ZT_LOG(kModule, "VLIMG_Flush", "Failed to write to disk");
    return -1;
  }
  return 0;
}

ZT_API int32_t VLIMG_GoToStartOfData(VLIMG_File *file) {
  if (!check_file(file, "VLIMG_GoToStartOfData")) return -1;
  if (!is_reader(file) || !file->header_ok) {
    ZT_LOG(kModule, "VLIMG_GoToStartOfData", "Only read mode is supported");
    return -1;
  }
  file->io.seek(file->data_start);
  file->line = 0;
  return 0;
}

ZT_API int32_t VLIMG_CropFileToFile(const char *source, const char *target, uint32_t page, uint32_t x,
                                    uint32_t y, uint32_t width, uint32_t height) {
  constexpr const char *fn = "VLIMG_CropFileToFile";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (source == nullptr || target == nullptr) {
      ZT_LOG(kModule, fn, "NULL filename passed");
      return -1;
    }
    std::unique_ptr<VLIMG_File, int32_t (*)(VLIMG_File *)> in(VLIMG_OpenAtPage(source, page), VLIMG_Close);
    if (!in) return -1;
    const Header &h = in->h;
    if (width == 0 || height == 0 || uint64_t{x} + width > h.width || uint64_t{y} + height > h.height) {
      ZT_LOG(kModule, fn, "Ridiculous crop values detected");
      return -1;
    }
    // The copy is made under a temporary name and takes the target's name
    // only when it is complete.
    const std::string part = std::string(target) + ".part";
    VLIMG_File *out = open_file(part.c_str(), VLIMG_MODE_CREATE, fn);
    if (out == nullptr) return -1;
    copy_header_fields(out, h);
    out->h.width = width;
    out->h.height = height;
    out->h.mark(1);
    out->h.mark(2);
    if (h.tiled()) {
      out->h.tile_width = h.tile_width;
      out->h.tile_height = h.tile_height;
      out->h.mark(23);
      out->h.mark(24);
    }
    RowReader rows(in.get());
    RowWriter writer(out);
    std::vector<uint8_t> cut(static_cast<size_t>((uint64_t{width} * h.bits_per_pixel + 7) / 8) + 1);
    bool ok = true;
    for (uint32_t r = 0; ok && r < height; ++r) {
      const uint8_t *row = rows.row(y + r, fn);
      ok = row != nullptr;
      if (ok) {
        copy_bits(cut.data(), row, uint64_t{x} * h.bits_per_pixel, uint64_t{width} * h.bits_per_pixel);
        ok = writer.put(cut.data(), fn);
      }
    }
    ok = ok && finish_page(out, fn);
    delete out;
    if (!ok || ::rename(part.c_str(), target) != 0) {
      if (ok) ZT_LOG(kModule, fn, "Cannot open %s for write", target);
      ::unlink(part.c_str());
      return -1;
    }
    return 0;
  });
}

ZT_API int32_t VLIMG_NumMipmaps(VLIMG_File *file) {
  constexpr const char *fn = "VLIMG_NumMipmaps";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn) || !is_reader(file)) return -1;
    int32_t count = 0;
    uint64_t after = 0;
    if (!walk_mipmaps(file, &after, fn, [&](uint64_t, const PageLink &) {
          ++count;
          return true;
        }))
      return -1;
    return count;
  });
}

ZT_API int32_t VLIMG_SeekToMipmap(VLIMG_File *file, uint32_t level) {
  constexpr const char *fn = "VLIMG_SeekToMipmap";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (!is_reader(file)) {
      ZT_LOG(kModule, fn, "Only read mode is supported");
      return -1;
    }
    uint64_t target = level == 0 ? file->base_page_start : 0, after = 0;
    uint32_t seen = 0;
    if (level > 0 && !walk_mipmaps(file, &after, fn, [&](uint64_t at, const PageLink &) {
          if (++seen == level) target = at;
          return seen < level;
        }))
      return -1;
    if (level > 0 && target == 0) {
      ZT_LOG(kModule, fn, "The page has %u mipmaps, not %u", seen, level);
      return -1;
    }
    file->slots.clear();
    return enter_page(file, target, fn);
  });
}

ZT_API int32_t VLIMG_ClearMipmaps(VLIMG_File *file) {
  constexpr const char *fn = "VLIMG_ClearMipmaps";
  return api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    if (!check_file(file, fn)) return -1;
    if (!is_reader(file)) {
      ZT_LOG(kModule, fn, "Only read mode is supported");
      return -1;
    }
    uint64_t after = 0;
    uint32_t count = 0;
    if (!walk_mipmaps(file, &after, fn, [&](uint64_t, const PageLink &) {
          ++count;
          return true;
        }))
      return -1;
    if (count == 0) return 0;
    PageLink base;
    if (!scan_page(file, file->base_page_start, &base, fn)) return -1;
    FileIo out;
    uint8_t b[8];
    zt::store_be64(b, after);
    if (!out.open(file->name, O_RDWR, false) || !out.pwrite_at(b, 8, base.value_pos)) {
      ZT_LOG(kModule, fn, "Failed to write to disk");
      return -1;
    }
    file->slots.clear();
    return enter_page(file, file->base_page_start, fn);
  });
}

}  // extern "C"
