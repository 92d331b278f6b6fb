/*
 * The dither state a scanline buffer carries for its dithered 16-to-8 copies,
 * and the method and noise-kind numbers it holds. The functions that set it
 * up and convert through it are the dither family (<zt/dither.h>).
 */
#ifndef ZT_DITHER_CONTEXT_H
#define ZT_DITHER_CONTEXT_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Methods. Any other value truncates. */
#define ZT_DITHER_ROUND 1 /* the 16-to-8 table; 24 bits rounded */
#define ZT_DITHER_NOISE 2 /* noise dithering */
#define ZT_DITHER_ZERO 4  /* every output byte 0 */
#define ZT_DITHER_IMAGE 5 /* whole-image screening */

/* Noise kinds of method 2. Any other value uses the real-valued table. */
#define ZT_DITHER_NOISE_WIDE 2
#define ZT_DITHER_NOISE_NARROW 3

/* Entries of each noise table. */
#define ZT_DITHER_TABLE_SIZE 195659

/* Caller-owned dither state. The table pointers point into the noise table
 * selected by the noise kind (4-byte entries: float for the real table, int32
 * for the others), or are null when no table is attached. */
typedef struct DitherContext {
  uint32_t method;
  uint32_t noiseKind;
  const void *tableStart;
  const void *tableEnd;
  const void *tableCursor;
  void **channelScreens;
  uint32_t channelCount;
  uint32_t lineNumber;
} DitherContext;

ZT_EXTERN_C_END

#endif
