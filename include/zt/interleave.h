/*
 * Interleave converters on rows of 8- or 16-bit samples (`bytesPerSample` 1
 * or 2; any other value does nothing and returns -1). A row "by line" holds
 * the whole row of channel 0, then of channel 1 and so on, `width` samples
 * each; a row "by pixel" holds each pixel's channels side by side. Source and
 * destination do not overlap, except for the in-place alpha functions.
 * Status results are 0 or -1 (null pointers, bad sample size).
 */
#ifndef ZT_INTERLEAVE_H
#define ZT_INTERLEAVE_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* By line to by pixel. */
ZT_API int32_t ZT_interleavedLineToPixel(void *dst, const void *src, uint32_t width, uint32_t channels,
                                         uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToPixelThreeChannels(void *dst, const void *src, uint32_t width,
                                                      uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToPixelFourChannels(void *dst, const void *src, uint32_t width,
                                                     uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToPixelAnyChannels(void *dst, const void *src, uint32_t width,
                                                    uint32_t channels, uint32_t bytesPerSample);

/* By pixel to by line. */
ZT_API int32_t ZT_interleavedPixelToLine(void *dst, const void *src, uint32_t width, uint32_t channels,
                                         uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedPixelToLineThreeChannels(void *dst, const void *src, uint32_t width,
                                                      uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedPixelToLineFourChannels(void *dst, const void *src, uint32_t width,
                                                     uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedPixelToLineAnyChannels(void *dst, const void *src, uint32_t width,
                                                    uint32_t channels, uint32_t bytesPerSample);

/* A four-channel RGBA row by line to a row by pixel in the named order. */
ZT_API int32_t ZT_interleavedLineRGBAToARGB(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineRGBAToBGRA(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineRGBAToABGR(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineRGBAToRGBA(void *dst, const void *src, uint32_t width,
                                            uint32_t bytesPerSample);
/* The same from four separate planes r, g, b, a (each `width` samples). */
ZT_API int32_t ZT_interleavedLineToARGB(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToABGR(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToBGRA(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample);
ZT_API int32_t ZT_interleavedLineToRGBA(void *dst, const void *r, const void *g, const void *b, const void *a,
                                        uint32_t width, uint32_t bytesPerSample);

/* RGBA by line to RGB by pixel (alpha dropped). */
ZT_API int32_t ZT_interleavedLineRGBAToRGB(void *dst, const void *src, uint32_t width,
                                           uint32_t bytesPerSample);
/* RGBA by line to RGB by line (the alpha plane dropped). */
ZT_API int32_t ZT_interleavedLineRGBAToLineRGB(void *dst, const void *src, uint32_t width,
                                               uint32_t bytesPerSample);
/* RGB by line to RGBA by line, the alpha plane set to full scale (opaque). */
ZT_API int32_t ZT_interleavedLineRGBToLineRGBA(void *dst, const void *src, uint32_t width,
                                               uint32_t bytesPerSample);
/* RGB by line to RGB by pixel. */
ZT_API int32_t ZT_interleavedLineRGBToInterleave(void *dst, const void *src, uint32_t width,
                                                 uint32_t bytesPerSample);
/* RGBA by pixel to RGB by pixel; grey + alpha by pixel to grey. */
ZT_API int32_t ZT_RGBAToRGB(void *dst, const void *src, uint32_t width, uint32_t bytesPerSample);
ZT_API int32_t ZT_GrayAToGray(void *dst, const void *src, uint32_t width, uint32_t bytesPerSample);
/* In place on a row by pixel of `channels` samples whose last is alpha: drops
 * the alpha sample, leaving `width` pixels of channels - 1 samples. */
ZT_API int32_t ZT_discardAlphaChannel(void *buf, uint32_t width, uint32_t channels, uint32_t bytesPerSample);
/* In place on a row by pixel whose last sample is alpha: composes every colour
 * sample over `background` (an 8- or 16-bit level) by the alpha,
 * c = (c * a + background * (max - a) + max / 2) / max, and sets alpha opaque. */
ZT_API int32_t ZT_applyAlphaChannel(void *buf, uint32_t width, uint32_t channels, uint32_t bytesPerSample,
                                    uint32_t background);

ZT_EXTERN_C_END

#endif
