/*
 * Tiled image buffers: a whole page raster, cut into tiles, that may be far
 * larger than memory. Resident tiles live in one library-wide tile cache of
 * bounded size shared by every buffer of the process; tiles pushed out of the
 * cache are (optionally) compressed and written to the buffer's own swap file
 * "<dir>/ztswap_<n>", and read back on demand. The swap file is removed when
 * the buffer is freed, when its creation fails and at shut-down.
 *
 * Samples are 8 or 16 bits (native order), `channels` per pixel, interleaved
 * by pixel (0) or by line (1) as in scanline buffers. Pixel data passed in and
 * out is laid out as the buffer interleaves:
 *  - a rectangle of w x h pixels is h rows `stride` bytes apart (0: packed,
 *    w x bytes per pixel); a row interleaved by pixel holds each pixel's
 *    channels side by side, a row interleaved by line holds the w samples of
 *    channel 0, then of channel 1 and so on;
 *  - a scanline is the rectangle (0, y, width, 1);
 *  - a column is laid out like a row of `height` pixels (by line: the height
 *    samples of channel 0, then of channel 1, ...);
 *  - a pixel is its channels side by side, whatever the interleave.
 * A tile that was never written reads as zero samples.
 *
 * Any thread may use any buffer; each tile is copied in or out under the
 * buffer's lock, so a reader sees a tile either before or after a writer's
 * copy into it. The whole-buffer transforms (rotations, mirrors, negative,
 * depth change, crop, auto-crop, copy, scale) replace the buffer's contents
 * and geometry in place and must not run while another thread uses the same
 * buffer. They work tile by tile through the cache, so a page larger than the
 * cache can be transformed; the result is built in a new tile store (with its
 * own swap file) that replaces the old one when complete, so a failed
 * transform leaves the buffer as it was.
 *
 * Results are 0 on success and -1 on failure, logged once from module
 * "ztimagebuf" with the function's name; constructors return NULL. A buffer
 * whose swap file could not be written, read or compressed enters its error
 * state: every later access fails with a logged message; other buffers keep
 * working.
 */
#ifndef ZT_IMAGEBUF_H
#define ZT_IMAGEBUF_H

#include <stdint.h>
#include <zt/vlimg.h>
#include <zt/ztrect.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* The default cache limit, 32 MB. */
#define ZT_IMAGEBUF_DEFAULT_CACHE_SIZE 0x2000000
/* Cache limits at or below this are taken as "use the default". */
#define ZT_IMAGEBUF_MIN_CACHE_SIZE 0x80000

typedef struct ZT_ImageBuf ZT_ImageBuf;

/* What a caller may read about a buffer. */
typedef struct ZT_ImageBufInfo {
  uint32_t width;
  uint32_t height;
  uint32_t channels;
  uint32_t bitsPerSample; /* 8 or 16 */
  uint32_t bytesPerPixel;
  uint32_t interleave; /* 0 by pixel, 1 by line */
  uint32_t tileWidth;
  uint32_t tileHeight;
  uint32_t tilesAcross;
  uint32_t tilesDown;
  uint32_t compressionFlags; /* as stored: 0x20 added when no codec is named */
  int32_t errorState;        /* 0, or -1 once a swap write, read or compression failed */
  void *value;               /* the value given to ZT_ImageBufInit */
} ZT_ImageBufInfo;

/* ---- The library-wide cache ----------------------------------------------- */

/* Sets up the cache (lock, 32 MB limit, empty lists); called by
 * ZT_InitSubSystems. Idempotent. 0, or -1 when the lock cannot be made. */
ZT_API int32_t ZT_ImageBufInitSubSystem(void);
/* Releases every cache slot and removes the swap files of buffers still
 * alive, which fail every access afterwards (they may still be freed).
 * Called by ZT_DeInitSubSystems. */
ZT_API void ZT_ImageBufDeinitSubSystem(void);
/* Sets the cache limit in bytes. Any value <= 0x80000 (512 KB) sets the
 * default 32 MB instead: a tiny limit is taken as a mistake, not clamped. A
 * smaller limit than the bytes in use takes effect as tiles are evicted. */
ZT_API void ZT_ImageBufSetCacheSize(int64_t bytes);
/* The cache limit, and the bytes the cache's slots hold now. */
ZT_API int64_t ZT_ImageBufGetCacheSize(void);
ZT_API int64_t ZT_ImageBufGetCacheUsage(void);

/* ---- Buffers --------------------------------------------------------------- */

/* 256: the tile width and height of new buffers. */
ZT_API uint32_t ZT_ImageBufDefaultTileWidth(void);

/* A buffer of width x height pixels of `channels` samples of `bits` bits (8 or
 * 16), interleaved by pixel (0) or line (1), all samples 0. With
 * compressionFlags holding ZT_COMPRESS_ON (compress.h), tiles are compressed
 * with those codecs on their way to the swap file (0x20 is added when no codec
 * is named). The swap file is created at once in `swapDirectory`, or in the
 * system's temporary directory ($TMPDIR, else /tmp) when it is NULL. `value`
 * is kept for the caller. The reference count is 1. NULL on failure (logged:
 * "Unsupported interleave type %d", "Unsupported bpp %u", "swapfilepath %s
 * does not exist", "Cannot open swap file %s", a size whose tile table would
 * overflow, no memory), with nothing left behind. */
ZT_API ZT_ImageBuf *ZT_ImageBufInit(uint32_t interleave, uint32_t bits, uint32_t width, uint32_t height,
                                    uint32_t channels, uint32_t compressionFlags, const char *swapDirectory,
                                    void *value);
/* One more reference; 0, or -1 for NULL. */
ZT_API int32_t ZT_ImageBufAddReference(ZT_ImageBuf *buf);
/* Drops a reference; the last releases the buffer, its cache slots and its
 * swap file. NULL is accepted. */
ZT_API void ZT_ImageBufFree(ZT_ImageBuf *buf);
/* Fills *info; 0, or -1 for NULL arguments. */
ZT_API int32_t ZT_ImageBufGetInfo(const ZT_ImageBuf *buf, ZT_ImageBufInfo *info);
/* Changes the tile size; every tile's contents are dropped (the buffer reads
 * as zero afterwards). -1 with "Bad tile width or height" for a zero side or
 * "Attempted to change tile parameters for an imagebuf that is being used by
 * %d clients" while more than one reference is held. */
ZT_API int32_t ZT_ImageBufSetTileSize(ZT_ImageBuf *buf, uint32_t tileWidth, uint32_t tileHeight);

/* The number of the tile holding pixel (x, y): (y / tile height) x tiles
 * across + x / tile width. ZT_FAIL as unsigned for NULL or a pixel outside. */
ZT_API uint32_t ZT_ImageBuf_tilenum(const ZT_ImageBuf *buf, uint32_t x, uint32_t y);
/* 1 when the tile holds data (resident or swapped), 0 when not (or when the
 * number is out of range), -1 for NULL. */
ZT_API int32_t ZT_ImageBuf_tile_exists(const ZT_ImageBuf *buf, uint32_t tile);
/* 1 when every tile under the rectangle holds data, else 0; -1 for NULL or a
 * rectangle reaching outside the buffer (logged). */
ZT_API int32_t ZT_ImageBuf_rectangle_exists(const ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                            uint32_t height);

/* ---- Access ------------------------------------------------------------------
 * A zero width or height succeeds with nothing done. A NULL buffer, NULL data
 * or an area that starts or reaches outside the buffer fails ("Bad rectangle
 * %u, %u : %u x %u for an imagebuf of %u x %u"). */

ZT_API int32_t ZT_ImageBufGetRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                       uint32_t height, void *data, uint32_t stride);
ZT_API int32_t ZT_ImageBufPutRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                       uint32_t height, const void *data, uint32_t stride);
ZT_API int32_t ZT_ImageBufGetScanline(ZT_ImageBuf *buf, uint32_t y, void *data);
ZT_API int32_t ZT_ImageBufPutScanline(ZT_ImageBuf *buf, uint32_t y, const void *data);
/* Reading a column keeps a band of columns in memory, as long as nothing is
 * written to the buffer, so that reading the next columns does not walk the
 * tiles again: a tile wide when that takes at most 4 MiB (height x tile width
 * x bytes a pixel), else narrower, down to 64 bytes of pixels. The band is
 * memory beyond the cache, held until the buffer is freed. */
ZT_API int32_t ZT_ImageBufGetColumn(ZT_ImageBuf *buf, uint32_t x, void *data);
ZT_API int32_t ZT_ImageBufPutColumn(ZT_ImageBuf *buf, uint32_t x, const void *data);
ZT_API int32_t ZT_ImageBufGetPixel(ZT_ImageBuf *buf, uint32_t x, uint32_t y, void *data);
ZT_API int32_t ZT_ImageBufPutPixel(ZT_ImageBuf *buf, uint32_t x, uint32_t y, const void *data);

/* Sequential reading of whole lines from line 0 (line 0 may always be asked
 * for again, which restarts the sequence). Any other line than the next fails
 * with "Called out of sequence. Expecting line %u but got %u instead".
 * ZT_ImageBufReadScanlineFast holds the tiles of the current tile row in the
 * cache between calls, so each tile is fetched once per tile row instead of
 * once per line; they are let go after the last line of the row, when the
 * sequence restarts, or when the buffer is freed. */
ZT_API int32_t ZT_ImageBufReadScanline(ZT_ImageBuf *buf, uint32_t y, void *data);
ZT_API int32_t ZT_ImageBufReadScanlineFast(ZT_ImageBuf *buf, uint32_t y, void *data);

/* Writes every dirty resident tile of the buffer that is not in use to its
 * swap file. The cache evicts clean tiles before dirty ones: a page that is
 * read back after it was written is best flushed first, or the reader cycles
 * through the few clean slots while the dirty ones stay. */
ZT_API int32_t ZT_ImageBufFlush(ZT_ImageBuf *buf);

/* ---- VLIMG files ----------------------------------------------------------------
 * Pages pass as 8- or 16-bit samples, every plane of the same depth. */

/* Takes the buffer's tiles straight from the tiled page `page` (0 first) of
 * the VLIMG file `filename` instead of the swap file: a tile is read from the
 * file when first needed, and goes to the swap file like any other once it
 * has been written to. The file stays open until the buffer is freed or its
 * contents are replaced. ZT_ImageBufSetTilesFromFileProperties must follow
 * before any pixel is read ("ZT_ImageBufSetTilesFromFileProperties() must be
 * called before fetching any data"). -1 with "Src handle has already been set
 * previously" on a second call, or when the file cannot be opened or is not
 * tiled. */
ZT_API int32_t ZT_ImageBufSetTilesFromFilename(ZT_ImageBuf *buf, const char *filename, uint32_t page);
/* Gives the buffer the geometry of the file named before (size, planes,
 * depth, tile size; the buffer keeps its interleave and compression, which
 * must be the file's: "source tiles use different compression algorithm tile
 * = %x, imagebuf = %x"). -1 with "Please call
 * ZT_ImageBufSetTilesFromFilename() first", for planes of different or
 * unsupported depths, or for a tile table whose entries do not have the sizes
 * the tile grid gives. */
ZT_API int32_t ZT_ImageBufSetTilesFromFileProperties(ZT_ImageBuf *buf);
/* Reads page `page` of the VLIMG file `filename` (tiled or not) into the
 * buffer, which takes the page's size, planes and depth (and tile size when
 * the page is tiled) and keeps its interleave and compression. */
ZT_API int32_t ZT_ImageBufLoadFromVLIMG(ZT_ImageBuf *buf, const char *filename, uint32_t page);
/* Writes the buffer as a tiled page (its tile size) to `file`, open for
 * writing (VLIMG_MODE_CREATE or VLIMG_MODE_APPEND) with its header not yet
 * written: width, height, image type `imageType`, compression type
 * `compressionType` and the bits-per-pixel array are set here; a separated
 * type needs its separation count and names set by the caller first. The
 * caller closes the file. */
ZT_API int32_t ZT_ImageBufSaveToVLIMGUsingHandle(ZT_ImageBuf *buf, VLIMG_File *file, uint32_t imageType,
                                                 uint32_t compressionType);

/* ---- Whole-buffer transforms --------------------------------------------------
 * Each keeps the buffer's handle, references, depth (but ChangeBPP),
 * interleave, compression and value; width and height change as stated. */

/* Turns the page a quarter clockwise (90), half (180) or a quarter
 * counter-clockwise (270): the result is height x width, and the pixel at
 * (x, y) goes to (height - 1 - y, x) for 90 and to (y, width - 1 - x) for
 * 270. */
ZT_API int32_t ZT_ImageBufRotate90(ZT_ImageBuf *buf);
ZT_API int32_t ZT_ImageBufRotate180(ZT_ImageBuf *buf);
ZT_API int32_t ZT_ImageBufRotate270(ZT_ImageBuf *buf);
/* The rectangle (x, y, width, height) of the buffer, turned as above, into
 * caller memory: `height` pixels wide and `width` rows high, `stride` bytes
 * apart (0: packed), laid out as the buffer interleaves. The buffer is left
 * as it is. */
ZT_API int32_t ZT_ImageBufRotateRectangle90(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                            uint32_t height, void *data, uint32_t stride);
ZT_API int32_t ZT_ImageBufRotateRectangle270(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                             uint32_t height, void *data, uint32_t stride);
/* Mirrors left to right (mirrorX non-zero), top to bottom (mirrorY), or both. */
ZT_API int32_t ZT_ImageBufMirror(ZT_ImageBuf *buf, int32_t mirrorX, int32_t mirrorY);
/* Left to right: pixel (x, y) goes to (width - 1 - x, y). */
ZT_API int32_t ZT_ImageBufXMirror(ZT_ImageBuf *buf);
/* Top to bottom: pixel (x, y) goes to (x, height - 1 - y). */
ZT_API int32_t ZT_ImageBufYMirror(ZT_ImageBuf *buf);
/* Mirrors the pixels inside a rectangle of the buffer, in place. */
ZT_API int32_t ZT_ImageBufMirrorRectangle(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width,
                                          uint32_t height, int32_t mirrorX, int32_t mirrorY);
/* Every sample by its complement (also in tiles never written). */
ZT_API int32_t ZT_ImageBufNegative(ZT_ImageBuf *buf);
/* Converts the samples to `bits` (8 or 16): 8 to 16 is v x 257, 16 to 8
 * rounds through the library's 16-to-8 table. The same depth does nothing. */
ZT_API int32_t ZT_ImageBufChangeBPP(ZT_ImageBuf *buf, uint32_t bits);
/* Keeps the rectangle (x, y, width, height), which must lie inside the buffer
 * and be at least 1 x 1; it becomes the whole buffer. */
ZT_API int32_t ZT_ImageBufCrop(ZT_ImageBuf *buf, uint32_t x, uint32_t y, uint32_t width, uint32_t height);
/* Crops away the margins in which every pixel equals the background pixel
 * (`background`: one pixel, channels side by side; NULL: the colour of pixel
 * (0, 0)). The kept area is the smallest rectangle holding every pixel of
 * another colour; a page that is background throughout is left whole. The
 * kept area goes to *kept when `kept` is not NULL. */
ZT_API int32_t ZT_ImageBufAutoCrop(ZT_ImageBuf *buf, const void *background, ZT_Rect *kept);
/* Makes `dst` a copy of `src` (geometry and pixels); `dst` keeps its swap
 * directory. The two must use the same compression ("source imagebuf uses
 * different compression algorithm src = %x, this = %x") and be different
 * buffers. */
ZT_API int32_t ZT_ImageBufCopy(ZT_ImageBuf *dst, ZT_ImageBuf *src);
/* Scales the page to width x height through the library's resampler (its
 * default filter, or filter `filterId` of resample.h). */
ZT_API int32_t ZT_ImageBufScale(ZT_ImageBuf *buf, uint32_t width, uint32_t height);
ZT_API int32_t ZT_ImageBufScaleUsingFilter(ZT_ImageBuf *buf, uint32_t width, uint32_t height,
                                           uint32_t filterId);

ZT_EXTERN_C_END

#endif
