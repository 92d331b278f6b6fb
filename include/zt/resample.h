/*
 * Resampling: an image's width and height changed by arbitrary factors, one
 * output scanline at a time. The consumer pulls output lines with
 * resampleGetNextScanline; the resampler reads each input line exactly once,
 * in order, through the caller's read callback.
 *
 * The engine is separable. Every input line is first filtered along the row
 * into a ring of intermediate lines at the output width; each output line is
 * then the weighted sum of the ring lines its vertical window covers. Weights
 * are built once per geometry and filter (and shared between contexts of the
 * same geometry through a cache):
 *
 *  - Sample i of a row of n covers [i, i + 1); output sample j of m maps its
 *    centre to input position (j + 0.5) * n / m - 0.5.
 *  - When shrinking (m < n) the filter is stretched by n / m: it is evaluated
 *    at (i - centre) * m / n and its support grows by the same factor, so a
 *    reduction never aliases. When enlarging it is evaluated at i - centre.
 *  - Taps that fall outside the image take the weight of the nearest edge
 *    sample (the edge is repeated); taps whose weight is zero at the ends of a
 *    window are dropped.
 *  - 8-bit to 8-bit: weights are 16-bit integers with 14 fraction bits that
 *    sum to exactly 16384 (the rounding left over goes to the largest weight);
 *    the intermediate lines hold 16-bit values with 6 fraction bits; each
 *    stage rounds half up. Every other depth pair works in single precision
 *    with weights that are multiples of 2^-20 summing to exactly one (held
 *    exactly in a float), samples taken in the output's units (8 to 16 bits
 *    times 257, 16 to 8 bits divided by 257), output rounded to nearest, ties
 *    to even.
 *  - Results are clamped to the output's range.
 *  - The input may be at most ZT_RESAMPLE_MAX_REDUCTION times the output in
 *    either direction: beyond that a window would hold hundreds of taps whose
 *    16-bit weights lose their precision ("Requested scale factor is beyond
 *    algorithm's ability"). Enlargement is limited by the memory its
 *    weights take (ZT_RESAMPLE_MAX_WEIGHT_BYTES), planes by
 *    ZT_RESAMPLE_MAX_PLANES.
 *
 * Wide lines are split by columns over the default task queue, several output
 * lines at a time; the output does not depend on how the work was split or on
 * the processor form that ran it.
 *
 * Failures are logged once from module "resample" (or "scale") with the
 * function's name; the caller sees -1 or NULL.
 */
#ifndef ZT_RESAMPLE_H
#define ZT_RESAMPLE_H

#include <stdint.h>
#include <zt/scanlinebuf.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Filter ids. The support is the radius beyond which the weight is zero. */
#define ZT_FILTER_HERMITE 1      /* support 1.0 */
#define ZT_FILTER_BOX 2          /* 0.5: 1 on (-0.5, 0.5] */
#define ZT_FILTER_TRIANGLE 3     /* 1.0 */
#define ZT_FILTER_BELL 4         /* 1.5: quadratic bell */
#define ZT_FILTER_BSPLINE 5      /* 2.0: cubic B-spline */
#define ZT_FILTER_LANCZOS3 6     /* 3.0 */
#define ZT_FILTER_MITCHELL 7     /* 2.0: b = c = 1/3 */
#define ZT_FILTER_CUBIC_B15 8    /* 2.0: b = 1.5, c = -0.25 */
#define ZT_FILTER_QUADRATIC 9    /* 1.3712: two-piece quadratic */
#define ZT_FILTER_GAUSSIAN 10    /* 2.0 */
#define ZT_FILTER_11 11          /* 2.0, cut at the support */
#define ZT_FILTER_12 12          /* 1.0, cut at the support */
#define ZT_FILTER_BUTTERWORTH 13 /* 4.5: 1 / (1 + (a / 1.5)^10) */
#define ZT_FILTER_BESSEL 14      /* 2.703395061 */
#define ZT_FILTER_KEYS_05 15     /* 2.0: Keys cubic, a = -0.5 (Catmull-Rom) */
#define ZT_FILTER_KEYS_075 16    /* 2.0: Keys cubic, a = -0.75 */
#define ZT_FILTER_CATMULL_ROM 17 /* 2.0: b = 0, c = 0.5; the curve of 15 */
#define ZT_FILTER_FIRST 1
#define ZT_FILTER_LAST 17

/* The filter resampleInit and ScaleInit use. */
#define ZT_RESAMPLE_DEFAULT_FILTER ZT_FILTER_HERMITE

/* Resampling types. Only the filtered one exists; others are refused. */
#define ZT_RESAMPLE_FILTERED 0u

/* Largest reduction (input over output size) in either direction. */
#define ZT_RESAMPLE_MAX_REDUCTION 32u
/* At most this many planes in one context (refused beyond: "%u planes are
 * more than the %u a resampler takes"). */
#define ZT_RESAMPLE_MAX_PLANES 64u
/* A context whose filter weights could take more than this is refused ("Filter
 * weights for WxH to WxH would take N MiB, more than 512 MiB"): it only
 * arises from absurd enlargements (a page needs a few megabytes). */
#define ZT_RESAMPLE_MAX_WEIGHT_BYTES (512u * 1024u * 1024u)

/* A reconstruction filter: the weight at offset x (in output samples). */
typedef double (*ResampleFilterFn)(double x);

/* Reads input line `line` into `dst` (one line, the input's width, planes and
 * depth, interleaved by line). With resampleSetCanSkipScanlines on, `dst` may
 * be NULL: the line is to be consumed without being delivered. 0, or any
 * other value for an error. */
typedef int32_t (*ResampleReadFn)(void *userData, ScanlineBuf *dst, uint32_t line);
/* Consumes input line `line` that the output does not need; `scratch` is a
 * buffer of the input's shape it may use. 0, or any other value for an error. */
typedef int32_t (*ResampleSkipFn)(void *userData, ScanlineBuf *scratch, uint32_t line);
/* Fills output line `line` in place of the engine. 0, or an error. */
typedef int32_t (*ResampleProducerFn)(void *userData, ScanlineBuf *dst, uint32_t line);

struct ResampleEngine;

/* A resampling context: fill it with resampleInit or
 * resampleInitUsingFilter; the caller may read every field and may set the
 * three callbacks and userData before the first line. */
typedef struct ResampleContext {
  uint32_t inWidth;
  uint32_t inHeight;
  uint32_t outWidth;
  uint32_t outHeight;
  uint32_t planes;
  uint32_t bppIn; /* 8 or 16 */
  uint32_t bppOut;
  uint32_t type;
  uint32_t filterId;
  uint32_t linesRead;    /* input lines consumed so far */
  uint32_t linesWritten; /* output lines delivered so far */
  uint32_t canSkipScanlines;
  uint32_t ioBoundTask; /* set: all work stays on the caller's thread */
  uint32_t threads;     /* parts a wide line is split into */
  ResampleReadFn readScanline;
  ResampleSkipFn skipScanline; /* optional */
  ResampleProducerFn producer; /* optional */
  void *userData;
  ResampleFilterFn filter;
  double support;
  struct ResampleEngine *engine; /* weights, ring and buffers: private */
} ResampleContext;

/* The function and support of filter `id` (1 ... 17). Both outputs are first
 * set to filter 1 and 1.0; -1 with "Uknown filter type requested" for another
 * id or a NULL output. */
ZT_API int32_t resampleFilteredGetFilter(uint32_t id, ResampleFilterFn *function, double *support);
/* Gives a filtered context another filter; its weights are rebuilt. Only
 * before the first output line. 0 or -1. */
ZT_API int32_t resampleFilteredSetFilter(ResampleContext *context, uint32_t id);

/* A context that scales inWidth x inHeight to outWidth x outHeight with
 * `planes` planes of bppIn-bit samples in and bppOut-bit samples out (8 or
 * 16), reading through `readScanline`. `skipScanline` and `producer` may be
 * NULL. The work is split over the processor count (resampleSetupThreads).
 * NULL on failure, logged, with nothing left behind. */
ZT_API ResampleContext *resampleInit(uint32_t type, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                     uint32_t outHeight, uint32_t planes, uint32_t bppIn, uint32_t bppOut,
                                     ResampleReadFn readScanline, ResampleSkipFn skipScanline,
                                     ResampleProducerFn producer, void *userData);
ZT_API ResampleContext *resampleInitUsingFilter(uint32_t type, uint32_t inWidth, uint32_t inHeight,
                                                uint32_t outWidth, uint32_t outHeight, uint32_t planes,
                                                uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                                                ResampleSkipFn skipScanline, ResampleProducerFn producer,
                                                void *userData, uint32_t filterId);
/* The next output line into `scanline` (interleaved by line, the output's
 * planes and depth, at least the output width). Past the last line: a cleared
 * line and 0. After the last line every input line not yet read is consumed:
 * through the skip callback, else a NULL-buffer read (with skipping allowed),
 * else a read into a scratch buffer. 0, or -1 (a failed read leaves the
 * context refusing further lines). */
ZT_API int32_t resampleGetNextScanline(ResampleContext *context, ScanlineBuf *scanline);
ZT_API int32_t resampleSetCanSkipScanlines(ResampleContext *context, uint32_t flag);
ZT_API int32_t resampleSetIOBoundTask(ResampleContext *context, uint32_t flag);
/* Splits wide lines (output width times planes at least 4,096 samples) into
 * `threads` parts (0: the processor count, 1: none, at most 256; never
 * narrower than 64 columns) run on the default task
 * queue; narrower lines are not worth the hand-over. 0, or -1 with "Cannot
 * allocate memory for threads". */
ZT_API int32_t resampleSetupThreads(ResampleContext *context, uint32_t threads);
/* NULL is accepted. */
ZT_API void resampleFree(ResampleContext *context);

/* The weight cache. Contexts of the same geometry (sizes, planes, depths,
 * type and filter) share one set of weights, found by a text key of those
 * nine numbers. InitFromCache gives the context the weights of its key and
 * takes a reference (0), or -1 when there are none; AddToCache enters the
 * context's own weights with one reference (0, or -1 when the key is taken or
 * memory runs out); RemoveReference drops the context's reference. An entry
 * nobody references stays for reuse until eight newer ones have been
 * dropped, or until shut-down. */
ZT_API int32_t resampleFilteredInitFromCache(ResampleContext *context);
ZT_API int32_t resampleFilteredAddToCache(ResampleContext *context);
ZT_API int32_t resampleFilteredCacheRemoveReference(ResampleContext *context);

/* ------------------------------------------------------------------------ */
/* The older scaling entry: the same pull model and engine over a cache of  */
/* its own. ScaleInit uses the triangle filter (bilinear), the older        */
/* default; it takes no resampling type.                                    */
/* ------------------------------------------------------------------------ */

typedef ResampleContext ScaleContext;

#define ZT_SCALE_DEFAULT_FILTER ZT_FILTER_TRIANGLE

ZT_API ScaleContext *ScaleInit(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth, uint32_t outHeight,
                               uint32_t planes, uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                               ResampleSkipFn skipScanline, void *userData);
ZT_API ScaleContext *ScaleInitUsingFilter(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                          uint32_t outHeight, uint32_t planes, uint32_t bppIn,
                                          uint32_t bppOut, ResampleReadFn readScanline,
                                          ResampleSkipFn skipScanline, void *userData, uint32_t filterId);
ZT_API int32_t FilteredScaleSetFilter(ScaleContext *context, uint32_t id);
ZT_API int32_t ScaleGetNextScanline(ScaleContext *context, ScanlineBuf *scanline);
ZT_API int32_t ScaleSetCanSkipScanlines(ScaleContext *context, uint32_t flag);
ZT_API void ScaleFree(ScaleContext *context);
ZT_API int32_t scaleFilteredInitFromCache(ScaleContext *context);
ZT_API int32_t scaleFilteredAddToCache(ScaleContext *context);
ZT_API int32_t scaleFilteredCacheRemoveReference(ScaleContext *context);

/* Start-up and shut-down of the module (the weight caches). */
ZT_API int32_t resampleStaticInit(void);
ZT_API void resampleStaticFree(void);

/* ------------------------------------------------------------------------ */
/* One-dimensional interpolators between y1 (mu = 0) and y2 (mu = 1).        */
/* ------------------------------------------------------------------------ */

ZT_API double LinearInterpolate(double y1, double y2, double mu);
/* Uses pi as 3.14159, so mu = 1 does not give y2 exactly. */
ZT_API double CosineInterpolate(double y1, double y2, double mu);
ZT_API double CubicInterpolate(double y0, double y1, double y2, double y3, double mu);
/* tension 1 flattens the tangents to zero, -1 doubles them; bias shifts them
 * towards the first (positive) or second (negative) segment. */
ZT_API double HermiteInterpolate(double y0, double y1, double y2, double y3, double mu, double tension,
                                 double bias);
ZT_API double CatmullRomInterpolate(double y0, double y1, double y2, double y3, double t);
ZT_API double CatmullRomInterpolate3(double y0, double y1, double y2, double y3, double t, double t2,
                                     double t3);

ZT_EXTERN_C_END

#endif
