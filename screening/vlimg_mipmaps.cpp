// Mipmaps of VLIMG pages: each level half the one before (rounded up), made by
// the resampler from the level above it and stored as a page of the chain
// right behind its page, marked by its level in tag 30. The file lives in
// raster; this part sits here because it needs the resampler.
#include <fcntl.h>
#include <zt/resample.h>
#include <zt/vlimg.h>

#include <cstring>
#include <memory>
#include <unordered_set>

#include "foundation/internal.h"
#include "raster/vlimg_internal.h"

using namespace zt::raster::vlimg;

namespace {

struct FileClose {
  void operator()(VLIMG_File *f) const { delete f; }
};
using FilePtr = std::unique_ptr<VLIMG_File, FileClose>;

struct ResampleFree {
  void operator()(ResampleContext *c) const { resampleFree(c); }
};
struct BufFree {
  void operator()(ScanlineBuf *b) const { scanlinebufFree(b); }
};

// What the resampler's read callback needs: the level being reduced.
struct Source {
  RowReader *rows;
  uint32_t width, planes, bytes_per_sample;
  const char *fn;
};

int32_t read_source_line(void *user, ScanlineBuf *dst, uint32_t line) {
  auto *s = static_cast<Source *>(user);
  const uint8_t *row = s->rows->row(line, s->fn);
  if (row == nullptr) return -1;
  if (dst == nullptr) return 0;
  const uint32_t bps = s->bytes_per_sample;
  for (uint32_t c = 0; c < s->planes; ++c) {
    uint8_t *plane = dst->data + size_t{c} * dst->bytesPerPlaneRow;
    for (uint32_t x = 0; x < s->width; ++x)
      std::memcpy(plane + size_t{x} * bps, row + (size_t{x} * s->planes + c) * bps, bps);
  }
  return 0;
}

// Writes one level from the page at `from` as a new page at the end of the
// file; its closing links it behind the page whose tag 32 value is at
// `link_pos`. Returns the new page's offset and where its own tag 32 sits.
bool write_level(VLIMG_File *base, uint64_t from, uint32_t level, uint64_t link_pos, uint64_t next,
                 uint64_t *page, uint64_t *value_pos, const char *fn) {
  FilePtr src(new VLIMG_File);
  src->name = base->name;
  src->mode = VLIMG_MODE_READ;
  src->threads = configured_threads();
  if (!src->io.open(base->name, O_RDONLY, false)) {
    ZT_LOG(kModule, fn, "Cannot open %s for read", base->name.c_str());
    return false;
  }
  if (enter_page(src.get(), from, fn) != 0) return false;
  const Header &in = src->h;
  const uint32_t out_w = (in.width + 1) / 2, out_h = (in.height + 1) / 2;
  const uint32_t bits = in.bpp[0];
  FilePtr out(open_page_writer(base->name, link_pos, next, fn));
  if (!out) return false;
  copy_header_fields(out.get(), base->h);
  Header &h = out->h;
  h.width = out_w;
  h.height = out_h;
  h.mipmap_level = level;
  h.mark(1);
  h.mark(2);
  h.mark(30);
  if (base->h.tiled()) {
    h.tile_width = base->h.tile_width;
    h.tile_height = base->h.tile_height;
    h.mark(23);
    h.mark(24);
  }
  RowReader rows(src.get());
  Source source{&rows, in.width, in.planes, bits / 8, fn};
  std::unique_ptr<ResampleContext, ResampleFree> ctx(
      resampleInit(ZT_RESAMPLE_FILTERED, in.width, in.height, out_w, out_h, in.planes, bits, bits,
                   read_source_line, nullptr, nullptr, &source));
  std::unique_ptr<ScanlineBuf, BufFree> line(
      scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, bits, in.planes, 0, out_w, 1, 0));
  if (!ctx || !line) return false;
  std::vector<uint8_t> pixel(size_t{out_w} * in.planes * (bits / 8));
  RowWriter writer(out.get());
  const uint32_t bps = bits / 8;
  for (uint32_t y = 0; y < out_h; ++y) {
    if (resampleGetNextScanline(ctx.get(), line.get()) != 0) return false;
    for (uint32_t c = 0; c < in.planes; ++c) {
      const uint8_t *plane = line->data + size_t{c} * line->bytesPerPlaneRow;
      for (uint32_t x = 0; x < out_w; ++x)
        std::memcpy(pixel.data() + (size_t{x} * in.planes + c) * bps, plane + size_t{x} * bps, bps);
    }
    if (!writer.put(pixel.data(), fn)) return false;
  }
  *page = out->page_start;
  *value_pos = out->next_value_pos;
  return finish_page(out.get(), fn);
}

int32_t generate(VLIMG_File *file, uint32_t levels, const char *fn) {
  if (file == nullptr || file->writing || !file->header_ok) {
    ZT_LOG(kModule, fn, "Mipmaps need a file open for reading");
    return -1;
  }
  const Header &h = file->h;
  if (h.mipmap_level != 0) {
    ZT_LOG(kModule, fn, "Mipmaps are made from a page, not from a mipmap");
    return -1;
  }
  const uint32_t bits = h.bpp.empty() ? 0 : h.bpp[0];
  for (uint32_t b : h.bpp)
    if (b != bits || (b != 8 && b != 16)) {
      ZT_LOG(kModule, fn, "Only 8- and 16-bit pages have mipmaps");
      return -1;
    }
  if (VLIMG_ClearMipmaps(file) != 0) return -1;
  PageLink base;
  if (!scan_page(file, file->base_page_start, &base, fn)) return -1;
  if (base.value_pos == 0) {
    ZT_LOG(kModule, fn, "The page has no next-page item to link mipmaps from");
    return -1;
  }
  uint64_t from = file->base_page_start, link_pos = base.value_pos;
  const uint64_t next = base.next == kNoNextPage ? 0 : base.next;
  uint32_t w = h.width, hh = h.height;
  for (uint32_t level = 1; level <= levels && (w > 1 || hh > 1); ++level) {
    uint64_t page = 0, value_pos = 0;
    if (!write_level(file, from, level, link_pos, next, &page, &value_pos, fn)) return -1;
    from = page;
    link_pos = value_pos;
    w = (w + 1) / 2;
    hh = (hh + 1) / 2;
  }
  file->slots.clear();
  return enter_page(file, file->base_page_start, fn);
}

}  // namespace

extern "C" {

ZT_API int32_t VLIMG_GenerateMipmaps(VLIMG_File *file, uint32_t levels) {
  return zt::api_guard<int32_t>(kModule, "VLIMG_GenerateMipmaps", -1,
                                [&] { return generate(file, levels, "VLIMG_GenerateMipmaps"); });
}

ZT_API int32_t VLIMG_GenerateMipmapsForFile(const char *name, uint32_t levels) {
  constexpr const char *fn = "VLIMG_GenerateMipmapsForFile";
  return zt::api_guard<int32_t>(kModule, fn, -1, [&]() -> int32_t {
    FilePtr file(open_file(name, VLIMG_MODE_READ, fn));
    if (!file) return -1;
    for (uint32_t page = 0;; ++page) {
      if (page > 0) {
        uint64_t offset = 0;
        // The end of the chain ends the work; it is not an error here.
        PageLink link;
        if (!scan_page(file.get(), file->base_page_start, &link, fn)) return -1;
        uint64_t at = link.next;
        bool found = false;
        std::unordered_set<uint64_t> seen{file->base_page_start};
        while (at != 0 && at != kNoNextPage) {
          if (!seen.insert(at).second) {
            ZT_LOG(kModule, fn, "The page chain loops back to offset %llu",
                   static_cast<unsigned long long>(at));
            return -1;
          }
          if (!scan_page(file.get(), at, &link, fn)) return -1;
          if (link.level == 0) {
            found = true;
            offset = at;
            break;
          }
          at = link.next;
        }
        if (!found) return 0;
        file->slots.clear();
        if (enter_page(file.get(), offset, fn) != 0) return -1;
        file->base_page_start = offset;
      }
      if (generate(file.get(), levels, fn) != 0) return -1;
    }
  });
}

}  // extern "C"
