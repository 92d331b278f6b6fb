/*
 * Scanline buffers: one or more scanlines of a fixed width, channel count and
 * sample depth (1, 8 or 16 bits), in which rows pass between files, image
 * buffers, compressors, screening and colour code. Samples are unsigned;
 * 1-bit rows are MSB first; 16-bit samples are in native order.
 *
 * Results are 0 on success and -1 (all ones) on failure, logged once under
 * the module "scanlinebuf" and the function's name. Operations on a record
 * without pixel memory fail without a message. A buffer belongs to one thread
 * at a time.
 */
#ifndef ZT_SCANLINEBUF_H
#define ZT_SCANLINEBUF_H

#include <stdint.h>
#include <zt/dither_context.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

#define ZT_INTERLEAVE_BY_PIXEL 0u
#define ZT_INTERLEAVE_BY_LINE 1u

/* Set-up flags. */
#define ZT_SLB_ZERO 1u     /* zero the record first (argument only) */
#define ZT_SLB_ALLOCATE 2u /* allocate the pixel memory (argument only) */
#define ZT_SLB_ALIGNED 4u  /* 16-byte aligned, plane rows rounded up to 16 plus 16 */
#define ZT_SLB_FILL 8u     /* fill the new memory with the fill value */
#define ZT_SLB_PAD32 16u   /* 32 extra bytes per plane row */
#define ZT_SLB_DITHER 32u  /* dither 16-to-8 copies into this buffer (with the switch on) */
#define ZT_SLB_OWNED 64u   /* made by scanlinebufAlloc; owns its memory */

/* Converts `count` samples (pixels times channels) of a row to another depth. */
typedef int32_t (*ZT_SampleConverter)(void *dst, const void *src, uint32_t count);

typedef struct ScanlineBuf {
  uint32_t interleave;
  uint32_t bitsPerPixel;
  uint32_t channels;
  uint32_t fill;
  uint32_t width;
  uint32_t lines;
  uint32_t bytesPerLine;
  uint32_t bytesPerPlaneRow;
  uint32_t bytesPerPixel;
  uint32_t bytesPerSample;
  uint32_t flags;
  uint8_t *data;
  uint8_t *backgroundColour;
  ZT_SampleConverter to8bit;
  ZT_SampleConverter to16bit;
  DitherContext dither;
} ScanlineBuf;

/* A new buffer with its own pixel memory (flags | 2 | 64, lines 0 taken as 1).
 * Null on failure, with nothing left behind. Release with scanlinebufFree. */
ZT_API ScanlineBuf *scanlinebufAlloc(uint32_t interleave, uint32_t bitsPerPixel, uint32_t channels,
                                     uint32_t fill, uint32_t width, uint32_t lines, uint32_t flags);
/* Fills in a caller's record; with flag 2 allocates the pixel memory. */
ZT_API int32_t scanlinebufSetup(ScanlineBuf *rec, uint32_t interleave, uint32_t bitsPerPixel,
                                uint32_t channels, uint32_t fill, uint32_t width, uint32_t lines,
                                uint32_t flags);
/* A new buffer of the same shape and flags; contents not copied. */
ZT_API ScanlineBuf *scanlinebufDuplicate(const ScanlineBuf *rec);
/* Releases a record made by scanlinebufAlloc and all it owns; others and null
 * are left alone. */
ZT_API void scanlinebufFree(ScanlineBuf *rec);

ZT_API int32_t scanlinebufSetColourspace(ScanlineBuf *rec, int32_t colourSpace);
/* Keeps a copy of bytesPerPixel bytes of `colour` (null drops it). */
ZT_API int32_t scanlinebufSetBackgroundColour(ScanlineBuf *rec, const uint8_t *colour);
ZT_API int32_t scanlinebufClear(ScanlineBuf *rec);
ZT_API int32_t scanlinebufClearRect(ScanlineBuf *rec, uint32_t x, uint32_t y, uint32_t w, uint32_t h);
/* `colour` holds one 16-bit value per channel; an 8-bit buffer takes v / 257
 * rounded by the 16-to-8 table. */
ZT_API int32_t scanlinebufFillRect(ScanlineBuf *rec, uint32_t x, uint32_t y, uint32_t w, uint32_t h,
                                   const uint16_t *colour);
ZT_API int32_t scanlinebufCopyRect(ScanlineBuf *dst, const ScanlineBuf *src, uint32_t sx, uint32_t sy,
                                   uint32_t w, uint32_t h, uint32_t dx, uint32_t dy);
ZT_API int32_t scanlinebufCopy(ScanlineBuf *dst, const ScanlineBuf *src);
/* Whole buffer out to (in from) a plain array of lines * width * channels
 * samples laid out as the buffer interleaves them. */
ZT_API int32_t scanlinebufCopyTo8bit(const ScanlineBuf *rec, uint8_t *out);
ZT_API int32_t scanlinebufCopyTo16bit(const ScanlineBuf *rec, uint16_t *out);
ZT_API int32_t scanlinebufCopyFrom8bit(ScanlineBuf *rec, const uint8_t *in);
ZT_API int32_t scanlinebufCopyFrom16bit(ScanlineBuf *rec, const uint16_t *in);
ZT_API int32_t scanlinebufMirror(ScanlineBuf *rec);
ZT_API int32_t scanlinebufMirrorTo(ScanlineBuf *dst, const ScanlineBuf *src);
ZT_API int32_t scanlinebufNegative(ScanlineBuf *rec);
ZT_API int32_t scanlinebufNegativeTo(ScanlineBuf *dst, const ScanlineBuf *src);

ZT_EXTERN_C_END

#endif
