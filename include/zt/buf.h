/*
 * Buffer primitives on plain memory runs: copies with depth conversion,
 * fills, bit runs and negation. Destination first, then source, then a count;
 * every function returns 0. Depth rules: a set bit is full scale (255, 65535);
 * 8 to 16 bits is v * 257; 16 to 8 bits is floor(v * 255 / 65535 + 0.5)
 * through a 65,536-entry table, or the dither engine where asked for.
 * 1-bit runs are most significant bit first. Source and destination of a copy
 * do not overlap. Null pointers make a function do nothing.
 */
#ifndef ZT_BUF_H
#define ZT_BUF_H

#include <stddef.h>
#include <stdint.h>
#include <zt/dither_context.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Copies (n + 7) / 8 bytes. */
ZT_API int32_t bufCopy1To1(void *dst, const void *src, uint32_t n);
/* Copies n bytes. */
ZT_API int32_t bufCopy8To8(void *dst, const void *src, uint32_t n);
/* Copies n 16-bit samples. */
ZT_API int32_t bufCopy16To16(void *dst, const void *src, uint32_t n);
/* Expands n source bytes (8 pixels each) to 8n samples of 255 or 0. */
ZT_API int32_t bufCopy1To8(void *dst, const void *src, uint32_t n);
/* Expands n source bytes (8 pixels each) to 8n samples of 65535 or 0. */
ZT_API int32_t bufCopy1To16(void *dst, const void *src, uint32_t n);
/* n samples v to v * 257. */
ZT_API int32_t bufCopy8To16(void *dst, const void *src, uint32_t n);
/* n samples through the 16-to-8 table, or through `dither` (may be null) when
 * one is given and the library-wide switch setScanlinebufUseDithering is on. */
ZT_API int32_t bufCopy16To8(void *dst, const void *src, uint32_t n, DitherContext *dither);

/* Sets (clears) `count` bits from bit index `firstBit`, MSB first. */
ZT_API int32_t bufSetBitsOn1(void *buf, uint32_t firstBit, uint32_t count);
ZT_API int32_t bufSetBitsOff1(void *buf, uint32_t firstBit, uint32_t count);

/* Fills n bytes with `value`, or exclusive-ors them with it. */
ZT_API int32_t bufFill(void *buf, uint8_t value, uint32_t n);
ZT_API int32_t bufFillXOR(void *buf, uint8_t value, uint32_t n);
/* Sets (exclusive-ors) n pixel-interleaved pixels of `channels` samples of
 * `bitsPerSample` (8 or 16) to `colour`, one 16-bit value per channel (8-bit
 * samples take the low byte). Other depths are left alone. */
ZT_API int32_t bufFillWithColour(void *buf, const uint16_t *colour, uint32_t channels, uint32_t bitsPerSample,
                                 uint32_t n);
ZT_API int32_t bufFillWithColourXOR(void *buf, const uint16_t *colour, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t n);
/* Zeroes n bytes; bufClearXOR zeroes them by exclusive-or with themselves. */
ZT_API int32_t bufClear(void *buf, uint32_t n);
ZT_API int32_t bufClearXOR(void *buf, uint32_t n);
/* dst = bitwise complement of n bytes of src (src may equal dst). */
ZT_API int32_t bufNegative(void *dst, const void *src, uint32_t n);

/* memset and memcpy under the library's names; return dst. */
ZT_API void *ZTFillMemory(void *dst, uint8_t value, size_t n);
ZT_API void *ZTmemcpy(void *dst, const void *src, size_t n);
/* Reverses the bit order within each of n bytes, in place. */
ZT_API void ZTReverseBits(void *buf, size_t n);

/* The library-wide switch for dithered 16-to-8 conversions in scanline
 * buffers and bufCopy16To8. Set before worker threads start. Off by default. */
ZT_API void setScanlinebufUseDithering(int32_t on);
ZT_API int32_t scanlinebufUseDithering(void);

ZT_EXTERN_C_END

#endif
