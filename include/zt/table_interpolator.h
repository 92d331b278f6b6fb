/*
 * Table interpolators: evaluation of a multidimensional colour lookup table
 * (a regular grid of output values indexed by three or four input channels)
 * at 16-bit input colours, one pixel at a time or over whole rectangles.
 *
 * Three schemes exist for every input count: trilinear interpolation, which
 * blends every corner of the grid cell around the input; prism
 * interpolation, which cuts the cell into two triangular prisms along the
 * plane where the first two fractions are equal and blends the six (three
 * inputs) or twelve (four inputs) corners of the prism the input lies in;
 * and tetrahedral interpolation, which blends the inputs + 1 corners of the
 * simplex around the input (four of eight corners, or five of sixteen).
 * All arithmetic is single precision; each output is rounded half up to 16
 * bits. The kernels give the same bits whichever processor form runs them.
 *
 * Failures are logged once from module "table_interpolator"; the caller only
 * sees -1 or NULL.
 */
#ifndef ZT_TABLE_INTERPOLATOR_H
#define ZT_TABLE_INTERPOLATOR_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

/* Interpolation schemes.
 *
 * ZT_INTERP_TETRAHEDRAL: with three inputs the cell is split into six
 * tetrahedra that share its main diagonal (corner 0 to corner 7), the scheme
 * of Sakamoto and Kasson that ICC colour engines use for 3-input tables;
 * with four inputs the same walk runs in four dimensions. The cell's
 * fractions are sorted in decreasing order f1 >= f2 >= ... >= fn, and the
 * walk starts at the cell's origin corner and steps along one input at a
 * time, the input of the largest fraction first, to the far corner. The
 * corners visited are weighted (1 - f1), (f1 - f2), ..., (fn-1 - fn), fn.
 * Equal fractions walk the later input first (as prism takes its second
 * triangle when the first two are equal); the corner between them has
 * weight 0. A table that is linear in its inputs comes out exactly (up to
 * rounding) under every scheme. */
#define ZT_INTERP_TRILINEAR 0
#define ZT_INTERP_PRISM 1
#define ZT_INTERP_TETRAHEDRAL 2

/* Limits of the tables an interpolator takes. */
#define ZT_INTERP_MAX_POINTS 256        /* grid points per axis */
#define ZT_INTERP_MAX_OUTPUTS 16        /* outputs per grid point */
#define ZT_INTERP_MAX_VALUES (1u << 28) /* floats in one grid */

/* The grid as the kernels read it. Fill it with TableInterpolatorGridSetup.
 *
 * Grid points lie in row-major order with the first input varying slowest,
 * `outputs` consecutive floats per point, on the 0 ... 65535 scale of the
 * outputs. Corner k of a cell lies at (k bit 2, k bit 1, k bit 0) steps along
 * the (first, second, third) input; with four inputs bit 3 is the first input
 * and bit 0 the fourth. */
typedef struct ZT_InterpGrid {
  uint32_t points;      /* n: grid points on every axis, at least 2 */
  uint16_t outputs;     /* m: outputs per grid point */
  uint16_t inputs;      /* 3 or 4 */
  uint32_t strides[4];  /* axis strides in grid points, first input first:
                           n^2, n, 1 (three inputs); n^3, n^2, n, 1 (four) */
  float scale;          /* (n - 1) / 65535 in single precision */
  const float *values;  /* not owned: n^inputs * m floats */
  uint32_t corners[16]; /* offset in floats (already times m) from a cell's
                           base point to corner k; 8 used for three inputs */
} ZT_InterpGrid;

/* An interpolator: a private copy of a grid, a scheme, a sample size (8 or 16
 * bits) and the number of worker threads rectangles are spread over. */
typedef struct ZT_TableInterpolator ZT_TableInterpolator;

/* ------------------------------------------------------------------------ */
/* Grid set-up                                                               */
/* ------------------------------------------------------------------------ */

/* Fills `grid` for `values` (borrowed, not copied: it must outlive every use
 * of the grid) with `inputs` (3 or 4) inputs, `points` (2 ...
 * ZT_INTERP_MAX_POINTS) grid points per axis and `outputs` (at least 1)
 * outputs per point, at most ZT_INTERP_MAX_VALUES floats in all: strides,
 * scale and the corner offsets are computed here, once. 0, or -1 (logged)
 * for a NULL argument or a size out of range. */
ZT_API int32_t TableInterpolatorGridSetup(ZT_InterpGrid *grid, uint32_t inputs, uint32_t points,
                                          uint32_t outputs, const float *values);

/* ------------------------------------------------------------------------ */
/* Interpolators: create and free                                            */
/* ------------------------------------------------------------------------ */

/* Creates an interpolator over a copy of `values` (n^inputs * outputs floats
 * laid out as in ZT_InterpGrid) for rectangles of 16-bit (_ushort) or 8-bit
 * (_uchar) samples. 8-bit samples are widened to 16 bits as v * 257 and the
 * 16-bit results narrowed as floor(v * 255 / 65535 + 0.5).
 *
 *   inputs     3 or 4
 *   points     grid points per axis, 2 ... ZT_INTERP_MAX_POINTS
 *   outputs    1 ... ZT_INTERP_MAX_OUTPUTS
 *   scheme     ZT_INTERP_TRILINEAR, ZT_INTERP_PRISM or ZT_INTERP_TETRAHEDRAL
 *   threads    workers for TableInterpolatorConvertRect (as in
 *              TableInterpolatorAllocateThreadsAndCaches): 0 for one per
 *              logical processor, 1 to convert in the calling thread
 *   cache_key  NULL or "" for a private interpolator. Otherwise the
 *              interpolator comes from the process-wide cache: an entry with
 *              this key, the same sample size, scheme, inputs, points and
 *              outputs is shared (one more reference; its table and thread
 *              count stay as they are), else a new one is built and entered.
 *
 * NULL (logged) for arguments out of range or when memory runs out ("Cannot
 * allocate memory"). Release with TableInterpolatorDestroy. */
ZT_API ZT_TableInterpolator *TableInterpolatorInit_ushort(uint32_t inputs, uint32_t points, uint32_t outputs,
                                                          const float *values, int32_t scheme,
                                                          int32_t threads, const char *cache_key);
ZT_API ZT_TableInterpolator *TableInterpolatorInit_uchar(uint32_t inputs, uint32_t points, uint32_t outputs,
                                                         const float *values, int32_t scheme, int32_t threads,
                                                         const char *cache_key);

/* Gives up the caller's reference: a private interpolator is freed; a cached
 * one loses one reference and is freed, and leaves the cache, with the last.
 * NULL is accepted. */
ZT_API void TableInterpolatorDestroy(ZT_TableInterpolator *interpolator);

/* One more (or one fewer) reference to a cached interpolator; the last
 * removal frees it. 0, or -1 with "TABLEINTERPOLATOR was not found in cache"
 * logged when the interpolator is not in the cache (private, NULL, or the
 * cache was torn down since). */
ZT_API int32_t TableInterpolatorCacheAddReference(ZT_TableInterpolator *interpolator);
ZT_API int32_t TableInterpolatorCacheRemoveReference(ZT_TableInterpolator *interpolator);

/* Sets the number of workers TableInterpolatorConvertRect spreads a
 * rectangle over on the library's default task queue: 0 (or less) for one
 * per logical processor, at most 64. Each call's per-worker state lives on
 * the converting thread's stack, so one interpolator may convert several
 * rectangles at once from different threads and nothing is allocated here.
 * 0, or -1 (logged) for NULL. */
ZT_API int32_t TableInterpolatorAllocateThreadsAndCaches(ZT_TableInterpolator *interpolator, int32_t threads);
/* Back to converting in the calling thread. NULL is accepted. */
ZT_API void TableInterpolatorDestroyThreadsAndCaches(ZT_TableInterpolator *interpolator);

/* Start-up and shut-down of the module (ZT_InitSubSystems and
 * ZT_DeInitSubSystems call them): the choice of kernel form and the cache.
 * Shut-down takes every interpolator out of the cache; the ones still held
 * stay usable and are freed by their holders' TableInterpolatorDestroy.
 * Both are idempotent. */
ZT_API int32_t TableInterpolatorStaticInit(void);
ZT_API void TableInterpolatorStaticFree(void);

/* ------------------------------------------------------------------------ */
/* Operations                                                                */
/* ------------------------------------------------------------------------ */

/* Converts `lines` lines of `pixels` pixels each: source samples (the
 * interpolator's inputs per pixel) to destination samples (its outputs per
 * pixel), both of the interpolator's sample size. Line steps are in bytes
 * and must hold a whole line when there is more than one line.
 *
 * `interleave` 0: a pixel's channels lie side by side. 1: each line holds the
 * whole row of channel 0, then the whole row of channel 1, and so on, each
 * row `pixels` samples long. Source and destination must not overlap.
 *
 * With fewer than 2 workers, or lines of fewer than 64 pixels, the calling
 * thread converts; otherwise each worker converts one band of columns on
 * every line, all queued on the default task queue in one call that waits.
 * 0; -1 (logged) for a NULL interpolator or pointer, an unknown sample size or
 * interleave, or a short line step; the task queue's -1 when it fails. */
ZT_API int32_t TableInterpolatorConvertRect(ZT_TableInterpolator *interpolator, const void *source,
                                            uint32_t source_line_step, void *destination,
                                            uint32_t destination_line_step, uint32_t pixels, uint32_t lines,
                                            uint32_t interleave);

/* ------------------------------------------------------------------------ */
/* Kernels: one pixel of 16-bit inputs through a grid from                   */
/* TableInterpolatorGridSetup. They are the inner loop and check nothing:     */
/* the grid must have the kernel's input count (and output count for the     */
/* fixed forms) and no pointer may be NULL. Re-entrant.                       */
/* ------------------------------------------------------------------------ */

/* Three inputs, three outputs through separate pointers. */
ZT_API void TriLinear_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out0, uint16_t *out1, uint16_t *out2);
ZT_API void Prism_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out0,
                       uint16_t *out1, uint16_t *out2);
ZT_API void Tetrahedral_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out0, uint16_t *out1, uint16_t *out2);
/* Three inputs, four outputs to out[0 ... 3]. */
ZT_API void TriLinear_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out);
ZT_API void Prism_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out);
ZT_API void Tetrahedral_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out);
/* Three inputs, grid->outputs outputs to out[0 ... m - 1]. */
ZT_API void TriLinear_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out);
ZT_API void Prism_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out);
ZT_API void Tetrahedral_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out);
/* Four inputs, three outputs through separate pointers. */
ZT_API void TriLinear4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t in3,
                            uint16_t *out0, uint16_t *out1, uint16_t *out2);
ZT_API void Prism4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t in3,
                        uint16_t *out0, uint16_t *out1, uint16_t *out2);
ZT_API void Tetrahedral4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                              uint16_t in3, uint16_t *out0, uint16_t *out1, uint16_t *out2);
/* Four inputs, grid->outputs outputs to out[0 ... m - 1]. */
ZT_API void TriLinear4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                                 uint16_t in3, uint16_t *out);
ZT_API void Prism4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t in3, uint16_t *out);
ZT_API void Tetrahedral4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                                   uint16_t in3, uint16_t *out);

ZT_EXTERN_C_END

#endif
