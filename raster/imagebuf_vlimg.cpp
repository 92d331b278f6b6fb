// Image buffers and VLIMG page files: tiles taken straight from a tiled page,
// and whole pages loaded into and saved from a buffer.
#include <zt/imagebuf.h>
#include <zt/vlimg.h>

#include <algorithm>
#include <vector>

#include "foundation/internal.h"
#include "raster/imagebuf_internal.h"

using zt::api_guard;
using namespace zt::raster;

namespace {

struct FileCloser {
  void operator()(VLIMG_File *file) const { VLIMG_Close(file); }
};
using FilePtr = std::unique_ptr<VLIMG_File, FileCloser>;

// Pixels side by side, rows of `w` pixels: the layout of VLIMG lines and tiles.
Layout by_pixel(const Store &s, uint8_t *base, uint32_t w) {
  return {base, static_cast<ptrdiff_t>(s.bytes_per_pixel), static_cast<ptrdiff_t>(w) * s.bytes_per_pixel,
          static_cast<ptrdiff_t>(s.bytes_per_sample)};
}

struct PageShape {
  uint32_t width = 0, height = 0, planes = 0, bits = 0, tile_w = 0, tile_h = 0, compression = 0;
  bool tiled = false;
};

// The page's geometry; every plane must be 8 or 16 bits, all alike.
bool page_shape(VLIMG_File *file, const char *name, PageShape *shape, const char *fn) {
  if (VLIMG_GetField(file, VLIMG_TAG_WIDTH, &shape->width) != 0 ||
      VLIMG_GetField(file, VLIMG_TAG_HEIGHT, &shape->height) != 0 ||
      VLIMG_GetField(file, VLIMG_TAG_COMPRESSION, &shape->compression) != 0)
    return false;
  shape->planes = VLIMG_NumPlanes(file);
  const uint32_t total = VLIMG_BitsPerPixel(file);
  shape->bits = shape->planes == 0 ? 0 : total / shape->planes;
  if ((shape->bits != 8 && shape->bits != 16) || shape->bits * shape->planes != total) {
    ZT_LOG(kImageBufModule, fn, "%s has %u planes of %u bits per pixel in all; only 8 or 16 bits per plane are supported",
           name, shape->planes, total);
    return false;
  }
  shape->tiled = VLIMG_IsTiled(file) == 1;
  if (shape->tiled &&
      (VLIMG_GetField(file, VLIMG_TAG_TILEWIDTH, &shape->tile_w) != 0 ||
       VLIMG_GetField(file, VLIMG_TAG_TILEHEIGHT, &shape->tile_h) != 0))
    return false;
  return true;
}

// The tile table must describe the grid the tile size gives: a file that
// claims other sizes would have us read too little or too much per tile.
bool tile_table_honest(VLIMG_File *file, const Store &s, const char *name, const char *fn) {
  const uint32_t count = VLIMG_NumTiles(file);
  if (count != s.tiles.size()) {
    ZT_LOG(kImageBufModule, fn, "%s holds %u tiles instead of %zu", name, count, s.tiles.size());
    return false;
  }
  std::vector<VLIMG_TileEntry> entries(count);
  if (VLIMG_GetField(file, VLIMG_TAG_TILETABLE, entries.data()) != 0) return false;
  for (uint32_t t = 0; t < count; ++t) {
    const uint32_t x0 = (t % s.tiles_x) * s.tile_w, y0 = (t / s.tiles_x) * s.tile_h;
    const uint32_t w = std::min(s.tile_w, s.width - x0), h = std::min(s.tile_h, s.height - y0);
    if (entries[t].width != w || entries[t].height != h) {
      ZT_LOG(kImageBufModule, fn, "Tile %u of %s claims %u x %u pixels instead of %u x %u", t, name,
             entries[t].width, entries[t].height, w, h);
      return false;
    }
  }
  return true;
}

uint32_t planes_of_type(uint32_t type) {
  switch (type) {
    case VLIMG_IMAGETYPE_GREY:
    case VLIMG_IMAGETYPE_MASK: return 1;
    case VLIMG_IMAGETYPE_RGB:
    case VLIMG_IMAGETYPE_LAB: return 3;
    case VLIMG_IMAGETYPE_CMYK: return 4;
    case VLIMG_IMAGETYPE_HEXACHROME:
    case VLIMG_IMAGETYPE_CMYKOG: return 6;
    case VLIMG_IMAGETYPE_CMYKOGV: return 7;
    default: return 0;
  }
}

// Compressor flags compared without the delta pre-filter, which the block
// flags of each tile carry on their own.
uint32_t codec_of(uint32_t flags) { return flags & ~ZT_COMPRESS_DELTA; }

}  // namespace

extern "C" {

ZT_API int32_t ZT_ImageBufSetTilesFromFilename(ZT_ImageBuf *buf, const char *filename, uint32_t page) {
  const char *fn = "ZT_ImageBufSetTilesFromFilename";
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    if (s.source != nullptr) {
      ZT_LOG(kImageBufModule, fn, "Src handle has already been set previously");
      return -1;
    }
    if (filename == nullptr) {
      ZT_LOG(kImageBufModule, fn, "NULL filename passed");
      return -1;
    }
    FilePtr file(VLIMG_OpenAtPage(filename, page));
    if (!file) return -1;
    if (VLIMG_IsTiled(file.get()) != 1) {
      ZT_LOG(kImageBufModule, fn, "%s is not a tiled VLIMG file", filename);
      return -1;
    }
    std::lock_guard<zt::SpinLock> guard(s.lock);
    s.source = file.release();
    s.source_ready = false;
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufSetTilesFromFileProperties(ZT_ImageBuf *buf) {
  const char *fn = "ZT_ImageBufSetTilesFromFileProperties";
  if (!buffer_check(buf, fn)) return -1;
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &old = *buf->store;
    if (old.source == nullptr) {
      ZT_LOG(kImageBufModule, fn, "Please call ZT_ImageBufSetTilesFromFilename() first");
      return -1;
    }
    if (old.source_ready) return 0;
    const char *name = "the source file";
    PageShape shape;
    if (!page_shape(old.source, name, &shape, fn)) return -1;
    const uint32_t file_flags = ZT_ImageBufFlagsFromVLIMG(shape.compression, 1);
    uint32_t buf_flags = old.compression;
    if (codec_of(file_flags) != codec_of(buf_flags)) {
      ZT_LOG(kImageBufModule, fn, "source tiles use different compression algorithm tile = %x, imagebuf = %x",
             file_flags, buf_flags);
      return -1;
    }
    StorePtr made = store_create(old.interleave, shape.bits, shape.width, shape.height, shape.planes,
                                 old.compression, old.swap_dir.c_str(), fn);
    if (!made || store_set_tiles(*made, shape.tile_w, shape.tile_h, fn) != 0) return -1;
    if (!tile_table_honest(old.source, *made, name, fn)) return -1;
    for (TileDesc &tile : made->tiles) tile.in_source = true;
    made->source = old.source;
    old.source = nullptr;
    made->source_ready = true;
    buffer_replace_store(*buf, std::move(made));
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufLoadFromVLIMG(ZT_ImageBuf *buf, const char *filename, uint32_t page) {
  const char *fn = "ZT_ImageBufLoadFromVLIMG";
  if (!buffer_check(buf, fn)) return -1;
  if (filename == nullptr) {
    ZT_LOG(kImageBufModule, fn, "NULL filename passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    FilePtr file(VLIMG_OpenAtPage(filename, page));
    if (!file) return -1;
    PageShape shape;
    if (!page_shape(file.get(), filename, &shape, fn)) return -1;
    const Store &old = *buf->store;
    StorePtr made = store_create(old.interleave, shape.bits, shape.width, shape.height, shape.planes,
                                 old.compression, old.swap_dir.c_str(), fn);
    if (!made) return -1;
    Store &s = *made;
    if (shape.tiled) {
      if (store_set_tiles(s, shape.tile_w, shape.tile_h, fn) != 0) return -1;
      if (!tile_table_honest(file.get(), s, filename, fn)) return -1;
      std::vector<uint8_t> block(s.tile_bytes);
      for (uint32_t t = 0; t < s.tiles.size(); ++t) {
        const uint32_t x0 = (t % s.tiles_x) * s.tile_w, y0 = (t / s.tiles_x) * s.tile_h;
        const uint32_t w = std::min(s.tile_w, s.width - x0), h = std::min(s.tile_h, s.height - y0);
        if (VLIMG_ReadTile(file.get(), t, block.data(), w * s.bytes_per_pixel) != 0) return -1;
        if (store_access(s, x0, y0, w, h, by_pixel(s, block.data(), w), true, fn) != 0) return -1;
      }
    } else {
      // A page of lines keeps the buffer's own tile size.
      if (store_set_tiles(s, old.tile_w, old.tile_h, fn) != 0) return -1;
      std::vector<uint8_t> line(static_cast<size_t>(s.width) * s.bytes_per_pixel);
      for (uint32_t y = 0; y < s.height; ++y) {
        if (VLIMG_ReadScanline(file.get(), line.data()) != 0) return -1;
        if (store_access(s, 0, y, s.width, 1, by_pixel(s, line.data(), s.width), true, fn) != 0) return -1;
      }
    }
    buffer_replace_store(*buf, std::move(made));
    return 0;
  });
}

ZT_API int32_t ZT_ImageBufSaveToVLIMGUsingHandle(ZT_ImageBuf *buf, VLIMG_File *file, uint32_t imageType,
                                                 uint32_t compressionType) {
  const char *fn = "ZT_ImageBufSaveToVLIMGUsingHandle";
  if (!buffer_check(buf, fn)) return -1;
  if (file == nullptr) {
    ZT_LOG(kImageBufModule, fn, "NULL VLIMG file passed");
    return -1;
  }
  return api_guard<int32_t>(kImageBufModule, fn, -1, [&] {
    Store &s = *buf->store;
    if (store_check_usable(s, fn) != 0) return -1;
    // The bits-per-pixel array holds one entry per plane of the image type:
    // the type must have the buffer's channel count before the array is given.
    uint32_t planes = planes_of_type(imageType);
    if (imageType == VLIMG_IMAGETYPE_SEPARATED && VLIMG_GetField(file, VLIMG_TAG_NUMSEPS, &planes) != 0) return -1;
    if (planes != s.channels) {
      ZT_LOG(kImageBufModule, fn, "Image type %u does not have the %u planes of the imagebuf", imageType,
             s.channels);
      return -1;
    }
    const std::vector<uint32_t> bpp(s.channels, s.bits);
    if (VLIMG_SetField(file, VLIMG_TAG_WIDTH, &s.width) != 0 || VLIMG_SetField(file, VLIMG_TAG_HEIGHT, &s.height) != 0 ||
        VLIMG_SetField(file, VLIMG_TAG_IMAGETYPE, &imageType) != 0 ||
        VLIMG_SetField(file, VLIMG_TAG_COMPRESSION, &compressionType) != 0 ||
        VLIMG_SetField(file, VLIMG_TAG_BPP_ARRAY, bpp.data()) != 0)
      return -1;
    if (VLIMG_EnableTiling(file, s.tile_w, s.tile_h) != 0) return -1;
    std::vector<uint8_t> block(s.tile_bytes);
    for (uint32_t t = 0; t < s.tiles.size(); ++t) {
      const uint32_t x0 = (t % s.tiles_x) * s.tile_w, y0 = (t / s.tiles_x) * s.tile_h;
      const uint32_t w = std::min(s.tile_w, s.width - x0), h = std::min(s.tile_h, s.height - y0);
      if (store_access(s, x0, y0, w, h, by_pixel(s, block.data(), w), false, fn) != 0) return -1;
      if (VLIMG_WriteTile(file, t, block.data(), w * s.bytes_per_pixel) != 0) return -1;
    }
    return 0;
  });
}

}  // extern "C"
