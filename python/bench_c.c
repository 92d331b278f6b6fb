/*
 * The C side of bench/python/overhead.py: runs one case on a 4,096 x 4,096
 * image the way a C host would, with the same data the Python side makes, and
 * prints the median seconds of `reps` runs.
 *
 * usage: ztlib_bench_c CASE [REPS]   CASE: screen8 ed8 dither interp resample lz4
 */
#include <zt/compress.h>
#include <zt/dither.h>
#include <zt/init.h>
#include <zt/log.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>
#include <zt/screening.h>
#include <zt/table_interpolator.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kSide = 4096 };

static double now(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

static int cmp_double(const void *a, const void *b) {
  const double x = *(const double *)a, y = *(const double *)b;
  return x < y ? -1 : x > y;
}

/* The Python side builds the same values with numpy (overhead.py: pattern). */
static uint32_t pattern(uint32_t x, uint32_t y) { return (x * 7u + y * 13u + ((x ^ y) & 63u)) & 0xFFFFu; }

static uint8_t *img8, *out8, *scratch;
static uint16_t *img16, *out16;
static float *table;

static int run_screen(uint32_t mode) {
  ScreeningSettings s;
  memset(&s, 0, sizeof s);
  s.mode = mode;
  s.levels = 2;
  s.outputBits = 1;
  ScreeningObject *o = CreateScreeningObject(&s, kSide, 8);
  if (!o) return -1;
  const size_t bpp = kSide / 8;
  for (uint32_t y = 0; y < kSide; ++y) {
    memcpy(scratch, img8 + (size_t)y * kSide, kSide);
    if (o->screenScanline(o, scratch, out8 + y * bpp, kSide, y) != 0) return -1;
  }
  DestroyScreeningObject(o);
  return 0;
}

static int run_dither(void) {
  DitherContext ctx;
  memset(&ctx, 0, sizeof ctx);
  if (ditherSetup(&ctx, ZT_DITHER_NOISE, 0) != 0) return -1;
  for (uint32_t y = 0; y < kSide; ++y) ditherBuf16To8(&ctx, out8 + (size_t)y * kSide, img16 + (size_t)y * kSide, kSide);
  ditherCleanup(&ctx, 0);
  return 0;
}

/* 1,398,101 pixels of three channels: the 4,096 x 4,096 samples as RGB. */
static int run_interp(void) {
  const uint32_t pixels = kSide * kSide / 3;
  ZT_TableInterpolator *t = TableInterpolatorInit_ushort(3, 17, 3, table, ZT_INTERP_TRILINEAR, 1, NULL);
  if (!t) return -1;
  int rc = TableInterpolatorConvertRect(t, img16, pixels * 6, out16, pixels * 6, pixels, 1, 0);
  TableInterpolatorDestroy(t);
  return rc;
}

static int read_row(void *user, ScanlineBuf *dst, uint32_t line) {
  (void)user;
  if (!dst) return 0;
  memcpy(dst->data, img8 + (size_t)line * kSide, kSide);
  return 0;
}

static int run_resample(void) {
  ResampleContext *c = resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, kSide, kSide, kSide / 2, kSide / 2, 1, 8, 8,
                                               read_row, NULL, NULL, NULL, ZT_FILTER_TRIANGLE);
  ScanlineBuf *line = scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, 1, 0, kSide / 2, 1, 0);
  if (!c || !line) return -1;
  for (uint32_t y = 0; y < kSide / 2; ++y) {
    if (resampleGetNextScanline(c, line) != 0) return -1;
    memcpy(out8 + (size_t)y * (kSide / 2), line->data, kSide / 2);
  }
  scanlinebufFree(line);
  resampleFree(c);
  return 0;
}

static int run_lz4(void) {
  ZT_Compressor *c = ZT_CompressInit(ZT_COMPRESS_ON | ZT_COMPRESS_LZ4, 8);
  if (!c) return -1;
  uint32_t flags = 0;
  const uint32_t n = ZT_Compress(c, img8, out8, (uint32_t)kSide * kSide, (uint32_t)kSide * kSide, &flags);
  ZT_CompressFree(c);
  /* Python hands back a bytes object: the same copy here. */
  if (n != ZT_COMPRESS_ERROR && n != 0) memcpy(scratch, out8, n);
  return n == ZT_COMPRESS_ERROR ? -1 : 0;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s screen8|ed8|dither|interp|resample|lz4 [reps]\n", argv[0]);
    return 2;
  }
  const int reps = argc > 2 ? atoi(argv[2]) : 5;
  ZT_InitSubSystems();
  LogErrorLogtofile(0, NULL);
  const size_t n = (size_t)kSide * kSide;
  img8 = malloc(n);
  out8 = malloc(n);
  scratch = malloc(n);
  img16 = malloc(n * 2);
  out16 = malloc(n * 2);
  table = malloc(sizeof(float) * 17 * 17 * 17 * 3);
  for (uint32_t y = 0; y < kSide; ++y) {
    for (uint32_t x = 0; x < kSide; ++x) {
      const uint32_t v = pattern(x, y);
      img16[(size_t)y * kSide + x] = (uint16_t)(v * 16u + (v >> 12));
      img8[(size_t)y * kSide + x] = (uint8_t)(v & 255u);
    }
  }
  for (uint32_t i = 0; i < 17 * 17 * 17 * 3; ++i) table[i] = (float)((i * 2654435761u) % 65536u);
  double times[64];
  int count = reps < 64 ? reps : 64;
  /* One untimed run first: the output buffers' pages are then mapped, as
   * the Python side's are after its warm-up call. */
  for (int r = -1; r < count; ++r) {
    const double t0 = now();
    int rc = -1;
    if (!strcmp(argv[1], "screen8")) rc = run_screen(ZT_SCREEN_ORDERED_4X4);
    else if (!strcmp(argv[1], "ed8")) rc = run_screen(ZT_SCREEN_STOCHASTIC);
    else if (!strcmp(argv[1], "dither")) rc = run_dither();
    else if (!strcmp(argv[1], "interp")) rc = run_interp();
    else if (!strcmp(argv[1], "resample")) rc = run_resample();
    else if (!strcmp(argv[1], "lz4")) rc = run_lz4();
    if (rc != 0) {
      fprintf(stderr, "case %s failed\n", argv[1]);
      return 1;
    }
    if (r >= 0) times[r] = now() - t0;
  }
  qsort(times, (size_t)count, sizeof(double), cmp_double);
  printf("%.6f\n", times[count / 2]);
  ZT_DeInitSubSystems();
  return 0;
}
