/*
 * VLIMG page files: one or more pages of raster data, each a header of
 * big-endian tagged items followed by its pixels, stored by scanline or by
 * tile, optionally compressed through the block compressors (zt/compress.h).
 * raster/VLIMG.md describes the bytes completely.
 *
 * Pixels pass in and out of this interface as lines interleaved by pixel:
 * each pixel's planes one after the other, each plane taking the bits per
 * pixel that its entry of the bits-per-pixel array says, packed most
 * significant bit first, every line (of the page or of a tile) starting on a
 * byte. 16-bit samples are in host order in memory (big-endian on disk).
 *
 * A file is written either by scanlines or by tiles, never both. Tiles may be
 * written in any order; each tile of the page exactly once. With
 * VLIMGSetupThreads above 1, tiles are compressed and decompressed on the
 * library's default task queue; the bytes of the file do not depend on the
 * number of threads.
 *
 * Every failure is logged once from module "vlimg" with the function's name;
 * the caller sees -1 or NULL. One open file is used by one thread at a time.
 * Numbers read from a file are checked before they are used: a damaged or
 * hostile file fails with a message, and memory is only committed for data
 * that is asked for.
 */
#ifndef ZT_VLIMG_H
#define ZT_VLIMG_H

#include <stdint.h>
#include <zt/scanlinebuf.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* ---- Open modes ---------------------------------------------------------- */

#define VLIMG_MODE_READ 1         /* read an existing file */
#define VLIMG_MODE_CREATE 2       /* create (truncate), permissions 0664 */
#define VLIMG_MODE_NONE 3         /* yields no file (NULL, nothing logged) */
#define VLIMG_MODE_READ_GROWING 4 /* read a file another writer may still be growing */
#define VLIMG_MODE_APPEND 5       /* add a page at the end of an existing file */

/* ---- Header item tags (the field numbers of VLIMG_GetField/SetField) ------
 * The comment gives the type a value passes as through GetField / SetField. */
#define VLIMG_TAG_INVALID 0
#define VLIMG_TAG_WIDTH 1            /* uint32_t: pixels per line (required) */
#define VLIMG_TAG_HEIGHT 2           /* uint32_t: lines (required) */
#define VLIMG_TAG_COMPRESSION 3      /* uint32_t: VLIMG_COMPRESSION_* (u16 on disk) */
#define VLIMG_TAG_IMAGETYPE 5        /* uint32_t: VLIMG_IMAGETYPE_* (u16 on disk) */
#define VLIMG_TAG_XRESOLUTION 6      /* float: horizontal resolution */
#define VLIMG_TAG_YRESOLUTION 7      /* float: vertical resolution */
#define VLIMG_TAG_RESOLUTIONUNIT 8   /* uint32_t (u16 on disk), default 1 */
#define VLIMG_TAG_COLOURSPACE 9      /* uint32_t: the caller's colour-space id (u32 on disk) */
#define VLIMG_TAG_COLOURSPACE_F64 10 /* double: tag 9 in its 64-bit float form; sets tag 9 */
#define VLIMG_TAG_ORIENTATION 11     /* uint32_t (u16 on disk), default 1 */
#define VLIMG_TAG_VERSION 14         /* double: format version (6.0 written); read only */
#define VLIMG_TAG_DESCRIPTION 15     /* const char *: text */
#define VLIMG_TAG_END 16             /* end of header (no value) */
#define VLIMG_TAG_SOFTWARE 17        /* const char *: text */
#define VLIMG_TAG_BPP_ARRAY 19       /* uint32_t[planes]: bits per plane (u16 entries on disk) */
#define VLIMG_TAG_BPP_ARRAY32 20     /* uint32_t[planes]: the same, u32 entries on disk */
#define VLIMG_TAG_SEPNAMES 21        /* const char *: separation definitions (VLIMG.md) */
#define VLIMG_TAG_NUMSEPS 22         /* uint32_t: separations of a separated image */
#define VLIMG_TAG_TILEWIDTH 23       /* uint32_t */
#define VLIMG_TAG_TILEHEIGHT 24      /* uint32_t */
#define VLIMG_TAG_TILETABLE 25       /* read only: VLIMG_TileEntry[tile count] copied out */
#define VLIMG_TAG_ICCPROFILE 26      /* VLIMG_Blob: embedded ICC profile */
#define VLIMG_TAG_TILEFLAGS 27       /* uint32_t: the caller's tiling property */
#define VLIMG_TAG_TILEBLOB1 28       /* VLIMG_Blob */
#define VLIMG_TAG_TILEBLOB2 29       /* VLIMG_Blob */
#define VLIMG_TAG_MIPMAPLEVEL 30     /* uint32_t: 0 for a page, n for its n-th mipmap */
#define VLIMG_TAG_NEWFILE 31         /* uint32_t: 1 on the first page of a new file; read only */
#define VLIMG_TAG_NEXTPAGE 32        /* uint64_t: offset of the next page, 0 none; read only */
#define VLIMG_TAG_PAGENUMBER 33      /* uint32_t: the caller's page number */
#define VLIMG_TAG_LAST 33

/* ---- Image types (tag 5) and their plane counts -------------------------- */
#define VLIMG_IMAGETYPE_GREY 1       /* 1 plane */
#define VLIMG_IMAGETYPE_RGB 2        /* 3 planes */
#define VLIMG_IMAGETYPE_CMYK 3       /* 4 planes */
#define VLIMG_IMAGETYPE_SEPARATED 4  /* tag 22 planes */
#define VLIMG_IMAGETYPE_HEXACHROME 6 /* 6 planes */
#define VLIMG_IMAGETYPE_CMYKOG 7     /* 6 planes */
#define VLIMG_IMAGETYPE_CMYKOGV 8    /* 7 planes */
#define VLIMG_IMAGETYPE_LAB 9        /* 3 planes */
#define VLIMG_IMAGETYPE_MASK 10      /* 1 plane */

/* ---- Compression types (tag 3) ------------------------------------------- */
#define VLIMG_COMPRESSION_NONE 1
#define VLIMG_COMPRESSION_LZW 5
#define VLIMG_COMPRESSION_DEFLATE 7
#define VLIMG_COMPRESSION_PACKBITS 8
#define VLIMG_COMPRESSION_DEFAULT 10 /* the library default codecs (setCompressDefaultAlgorithm) */
#define VLIMG_COMPRESSION_LZJB 11
#define VLIMG_COMPRESSION_LZ4 13

/* The largest plane count a header may declare. */
#define VLIMG_MAX_PLANES 64u

typedef struct VLIMG_File VLIMG_File;

/* A byte string passed through GetField / SetField (tags 26, 28, 29). On
 * SetField the bytes are copied; on GetField `data` points into the file
 * record and lives until the next header change or close. */
typedef struct VLIMG_Blob {
  const void *data;
  uint32_t length;
} VLIMG_Blob;

/* One entry of the tile table, as stored (24 bytes on disk). `size` is the
 * number of bytes the tile's data take at `offset`; `flags` the block flags
 * of its compression (0: stored raw). */
typedef struct VLIMG_TileEntry {
  uint32_t width;
  uint32_t height;
  uint64_t offset;
  uint32_t size;
  uint32_t flags;
} VLIMG_TileEntry;

/* ---- Open and close ------------------------------------------------------ */

/* Opens `name` in `mode` (VLIMG_MODE_*). Reading parses the first page's
 * header; creating writes the prologue, the version item, the new-file item
 * and the next-page item; appending walks to the last page and starts a new
 * page at the end of the file (a missing or empty file is created). NULL on
 * failure: "NULL filename passed", "Unknown open mode %d", "Cannot open %s for
 * read", "Cannot open %s for write", or the header's message. */
ZT_API VLIMG_File *VLIMG_Open(const char *name, int32_t mode);
/* Opens `name` for reading at page `page` (0 is the first); NULL with
 * "Cannot open %s at page %d". */
ZT_API VLIMG_File *VLIMG_OpenAtPage(const char *name, uint32_t page);
/* Moves a reader to page `page` of the chain (mipmap pages are not counted).
 * 0, or -1: "Only read mode is supported", or a broken or too short chain. */
ZT_API int32_t VLIMG_SeekToPage(VLIMG_File *file, uint32_t page);
/* Finishes a written page (pending tiles, the tile table, the link from the
 * previous page) and frees everything. 0, or -1 when the page could not be
 * completed (its bytes are then not linked into the chain). NULL gives 0. */
ZT_API int32_t VLIMG_Close(VLIMG_File *file);

/* Parses the page header at the current position (after Open or a seek this
 * has been done). 0, or -1 with the header's message. */
ZT_API int32_t VLIMG_ReadHeader(VLIMG_File *file);

/* ---- Header values --------------------------------------------------------- */

/* Copies the value of `tag` to `out` (its type is given with the tag above).
 * -1 for an unknown tag, a NULL argument or a value that was never set
 * ("Tag %u is not set"). */
ZT_API int32_t VLIMG_GetField(VLIMG_File *file, uint32_t tag, void *out);
/* Sets a header value of a file being written, before its first scanline or
 * tile; `value` points to the type given with the tag. Bits-per-pixel arrays
 * need the image type (and for a separated image the separation count) first:
 * "Got bpp before colourspace". -1 for read-only tags, a header already
 * written ("Header has already been written") or a bad value. */
ZT_API int32_t VLIMG_SetField(VLIMG_File *file, uint32_t tag, const void *value);
/* The plane count and total bits per pixel of the current page's header;
 * 0 before a header is known. */
ZT_API uint32_t VLIMG_NumPlanes(const VLIMG_File *file);
ZT_API uint32_t VLIMG_BitsPerPixel(const VLIMG_File *file);
/* Bytes of one line of the page: ceil(width * bits per pixel / 8). */
ZT_API uint64_t VLIMG_BytesPerLine(const VLIMG_File *file);

/* ---- Scanlines ------------------------------------------------------------- */

/* Reads the next line of a scanline page into `line` (VLIMG_BytesPerLine
 * bytes). 0, or -1: "Cannot read line %u" (past the end, short file, damaged
 * block). A reader opened with mode 4 waits for a writer that is still
 * growing the file (8 ms, once per empty read); a failed read leaves the
 * reader at the same line, so it may be tried again later. */
ZT_API int32_t VLIMG_ReadScanline(VLIMG_File *file, uint8_t *line);
/* The same into row 0 of `sb`, whose width and channels must be the page's
 * and whose sample depth (1, 8 or 16) every plane must have; interleaved by
 * pixel or by line. */
ZT_API int32_t VLIMG_ReadScanlineSB(VLIMG_File *file, ScanlineBuf *sb);
/* Writes the next line; the first call writes the header (refused with
 * "width is undefined", "height is undefined", "compression type is
 * undefined", "image type is undefined", "numseps is undefined", "bits per
 * pixel is undefined", "bpp array is undefined", "Not all separation names
 * are defined, sepname array length = %d, numseps = %d"). */
ZT_API int32_t VLIMG_WriteScanline(VLIMG_File *file, const uint8_t *line);
ZT_API int32_t VLIMG_WriteScanlineSB(VLIMG_File *file, const ScanlineBuf *sb);

/* ---- Tiles ----------------------------------------------------------------- */

/* Makes a file being written a tiled file of tiles `tileWidth` x
 * `tileHeight` (both 1 or more); before its header is written. 0, or -1:
 * "Cannot enable tiled mode". */
ZT_API int32_t VLIMG_EnableTiling(VLIMG_File *file, uint32_t tileWidth, uint32_t tileHeight);
/* 1 when the current page is tiled (tile width and height > 0), else 0. */
ZT_API int32_t VLIMG_IsTiled(const VLIMG_File *file);
/* Tiles of the page (row by row, edge tiles narrower or shorter); 0 when not
 * tiled. */
ZT_API uint32_t VLIMG_NumTiles(const VLIMG_File *file);
/* The size of tile `index`; 0 or -1. */
ZT_API int32_t VLIMG_GetTileSize(const VLIMG_File *file, uint32_t index, uint32_t *width, uint32_t *height);
/* Writes tile `index` (row by row from 0): its lines of the tile's width
 * start `stride` bytes apart at `data`. The pixels are copied or coded before
 * the call returns unless threads are set up, in which case they are copied
 * and coded and written while the caller hands over the next ones; a write
 * that fails there fails a later call or the close. 0, or -1 (an index
 * written twice or out of range, a page written by
 * scanlines: "VLIMG_WriteScanline has already been called. You can either use
 * VLIMG_WriteTile or VLIMG_WriteScanline but not both.", a write error). */
ZT_API int32_t VLIMG_WriteTile(VLIMG_File *file, uint32_t index, const uint8_t *data, uint32_t stride);
/* Reads tile `index` of a tiled page into `dst`, its lines `stride` bytes
 * apart (at least the tile's bytes per line). 0, or -1 ("Cannot read tile %u"
 * and the reason). */
ZT_API int32_t VLIMG_ReadTile(VLIMG_File *file, uint32_t index, uint8_t *dst, uint32_t stride);
/* Reads `count` tiles: tile indices[i] into dsts[i] with strides[i]. With
 * threads set up, each worker reads and decodes tiles of the list in turn
 * until none is left. 0, or -1 when any tile fails (the others are still
 * delivered). */
ZT_API int32_t VLIMG_ReadTiles(VLIMG_File *file, const uint32_t *indices, uint32_t count,
                               uint8_t *const *dsts, const uint32_t *strides);
/* Sets the number of worker threads that code tiles for files opened from
 * now on (1: the caller's thread only; 0: the processor count; at most 64).
 * The workers are the default task queue's, so a file with more than one
 * thread must not be written or read from a task of that queue. 0, or -1. */
ZT_API int32_t VLIMGSetupThreads(uint32_t threads);

/* ---- Position and output ---------------------------------------------------- */

/* Writes out what the write buffer holds. 0, or -1 ("Failed to write to
 * disk"). */
ZT_API int32_t VLIMG_Flush(VLIMG_File *file);
/* Positions a reader at the first data byte after the page header, so that
 * the next read returns line 0. 0 or -1. */
ZT_API int32_t VLIMG_GoToStartOfData(VLIMG_File *file);

/* ---- Whole-file operations ---------------------------------------------------- */

/* Writes the rectangle (x, y, width, height) of page `page` of `source` as a
 * one-page file `target` with the same image type, depths, compression and
 * tiling (tiles then cut from the rectangle). "Ridiculous crop values
 * detected" when the rectangle is empty or leaves the page. 0 or -1. */
ZT_API int32_t VLIMG_CropFileToFile(const char *source, const char *target, uint32_t page, uint32_t x,
                                    uint32_t y, uint32_t width, uint32_t height);

/* Mipmaps: reduced copies of a page, each half the size of the one before
 * (rounded up), made with the resampler's default filter and stored as pages
 * of the chain right behind their page (tag 30 = level). Levels stop at 1 x 1
 * or after `levels`. Only 8- and 16-bit pages have mipmaps. */

/* Adds mipmaps to the current page of `file` (open for reading; the file is
 * reopened for writing by name, so no other writer may hold it), replacing
 * any it had. 0 or -1. */
ZT_API int32_t VLIMG_GenerateMipmaps(VLIMG_File *file, uint32_t levels);
/* The same for every page of the file `name`. 0 or -1. */
ZT_API int32_t VLIMG_GenerateMipmapsForFile(const char *name, uint32_t levels);
/* Mipmap levels stored behind the current page (0 when none); -1 on a
 * damaged chain. */
ZT_API int32_t VLIMG_NumMipmaps(VLIMG_File *file);
/* Moves a reader to mipmap `level` of the current page (0: the page itself).
 * 0 or -1. */
ZT_API int32_t VLIMG_SeekToMipmap(VLIMG_File *file, uint32_t level);
/* Unlinks the mipmaps of the current page of a reader from the chain (their
 * bytes stay in the file, unreachable). 0 or -1. */
ZT_API int32_t VLIMG_ClearMipmaps(VLIMG_File *file);

ZT_EXTERN_C_END

#endif
