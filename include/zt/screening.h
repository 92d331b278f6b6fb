/*
 * Screening objects: one channel of continuous-tone scanlines (8 or 16 bits a
 * sample) turned into the printer's dot codes, one to six bit-planes a pixel.
 * One object a channel and a job; it screens the page's scanlines in order,
 * carries state from line to line (error rows, weight position, serpentine
 * direction) and belongs to one thread at a time. The process-wide cache of
 * stochastic weight tables is the only shared state (one spin lock).
 *
 * Modes (ScreeningSettings.mode):
 *   1   clustered dot, one rational-tangent cell (SuperCellCreate_rational)
 *   8   clustered dot, a super-cell accurate in angle and frequency within a
 *       tile budget (SuperCellCreate)
 *   2   blue-noise threshold mask (stacked void-and-cluster, built at creation
 *       and kept for the process), aspect-aware, one rotation/shift a channel
 *   3, 10  error diffusion with random weights, bit for bit as fixed by the
 *       system (see "Error diffusion" below)
 *   5   a threshold matrix read from "lib/screens/vrfs/<screenName>" below the
 *       installation root (layout below)
 *   9   pattern mode: 256 nested tiles cut from the mode-2 mask; 8-bit only
 *       (screened by comparing with that mask, which gives the tiles' bits)
 *   11  the fixed 4 x 4 ordered cell (entries 238 102 204 68 / 34 170 0 136 /
 *       187 51 221 85 / 239 119 17 153; the 239 is the intended wrap)
 *   7   refused: "Screening mode 7 is not supported, use mode 2 or 3"
 *   4, 6, others: refused with "Uknown screening mode requested"
 *
 * Multi-level output (levels > 2) is supported by error diffusion (3, 10) and
 * by every threshold mode (1, 2, 5, 8, 11): those dither between the two
 * levels whose densities enclose the value, the matrix deciding which, so the
 * mean density follows the input; the blue-noise mask overlaps neighbouring
 * ranges around each inner drop density, so the texture does not jump as a
 * drop comes in, and takes the pixels it trades there from one end of its
 * ranks, so that they stay one blue-noise set. Pattern mode is two-level.
 *
 * Error diffusion, readings of the text we settled:
 *  - Every line starts with the next-row entry under its first pixel and the
 *    slack entry behind it cleared. Only the entry ahead of each pixel is
 *    cleared by the walk itself, so without this the first column gathers the
 *    error of every other line and overflows 32 bits on a long flat patch.
 *  - A zero input pixel and a value of 0 after the error is added both give
 *    no dot and no error: the weight cursor does not move and the carry is
 *    not reassigned (as for any pixel whose error is 0).
 *  - The carry plus the row entry is summed in 64 bits before the truncating
 *    division by 8192; with 32-bit sums the result is the same wherever the
 *    32-bit sum exists.
 *  - The default modulation matrix is zero (none): a modulated default did not
 *    pass our quality A/B, so error diffusion is exactly the stated algorithm.
 *
 * Evenly spaced levels are evaluated in double precision as written, left to
 * right, never fused, so every build gives the same integers.
 *
 * VRFS screen files (mode 5), plain text:
 *   line 1:  "<Mx> <My>"  two decimal integers, 1 ... 4096 each
 *   then:    Mx * My thresholds, row by row, each two hexadecimal digits
 *            (00 ... ff); spaces, tabs and line ends between them are ignored.
 *   A pixel prints where its 8-bit value exceeds its threshold and is not 0.
 */
#ifndef ZT_SCREENING_H
#define ZT_SCREENING_H

#include <stddef.h>
#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Modes. */
#define ZT_SCREEN_HALFTONE_RATIONAL 1
#define ZT_SCREEN_BLUE_NOISE 2
#define ZT_SCREEN_STOCHASTIC 3
#define ZT_SCREEN_VRFS 5
#define ZT_SCREEN_HALFTONE_SUPERCELL 8
#define ZT_SCREEN_PATTERN 9
#define ZT_SCREEN_STOCHASTIC_B 10
#define ZT_SCREEN_ORDERED_4X4 11

/* Flags. */
#define ZT_SCREEN_FLAG_CMYK_SET 1 /* mode 8: the default CMYK set for `channel` */

/* Where the levels come from (ScreeningSettings.levelSource). */
#define ZT_LEVELS_EVEN 0    /* evenly spaced, no paper profile */
#define ZT_LEVELS_LAB_V1 1  /* measured colour, density, Yule-Nielsen */
#define ZT_LEVELS_LAB_V2 2  /* measured colour, reflectance less gain */
#define ZT_LEVELS_DENSITY 3 /* measured density, Yule-Nielsen */

/* Reflectance selectors of getXYZChannelToUseAsReflectance. */
#define ZT_REFLECTANCE_AUTO 0 /* the column with the widest range of the drops */
#define ZT_REFLECTANCE_X 1
#define ZT_REFLECTANCE_Y 2
#define ZT_REFLECTANCE_Z 3

/* One drop size of the paper profile, lightest first. */
typedef struct ScreeningDrop {
  uint32_t dotCode; /* bit pattern written for this drop; bit k -> plane k */
  double xyz[3];    /* measured colour, Y = 1.0 for a perfect white */
  double lab[3];    /* the same measurement as Lab (informative) */
  double density;   /* measured density (ZT_LEVELS_DENSITY) */
} ScreeningDrop;

/* How a channel is to be screened. Zero-filled means: mode 0 (refused), so
 * set at least mode, levels and outputBits. */
typedef struct ScreeningSettings {
  uint32_t mode;                 /* ZT_SCREEN_* */
  uint32_t levels;               /* levels including the empty pixel, 2 ... 1 << outputBits */
  uint32_t outputBits;           /* output bit-planes a pixel, 1 ... 16 */
  double linesPerInch;           /* halftone modes 1 and 8: must exceed 1.0 */
  double angle;                  /* halftone angle in degrees, counter-clockwise from x */
  uint32_t spotShape;            /* 0 ... 6, see screeningSpotValue */
  uint32_t resolutionX;          /* device dpi across; 0 is taken as 600 */
  uint32_t resolutionY;          /* device dpi down; 0 is taken as resolutionX */
  uint32_t flags;                /* ZT_SCREEN_FLAG_* */
  uint32_t levelSource;          /* ZT_LEVELS_*: how thresholds and densities are made */
  uint32_t dropCount;            /* drops in the profile; must equal levels when used */
  const ScreeningDrop *drops;    /* the profile's drops, lightest (paper) first */
  double yuleNielsen;            /* the profile's Yule-Nielsen factor n (0 -> 1.0) */
  int32_t bandType;              /* the channel's band type (1 C, 2 M, 3 Y, 4 K, ...) */
  int32_t separationType;        /* 11 X, 12/14 Y, 13 Z, other: automatic (LabV2) */
  uint32_t linearisationPoints;  /* samples in `linearisation`, 0 = identity */
  const uint16_t *linearisation; /* output tone 0 ... 65535 at evenly spaced inputs */
  double inkLimit;               /* percent of full ink allowed; 0 or 100 = none */
  uint32_t channel;              /* channel index: decorrelates stochastic masks */
  uint32_t maxTileSide;          /* mode 8: largest matrix side; 0 = 1024 */
  const char *screenName;        /* mode 5: file name below lib/screens/vrfs */
} ScreeningSettings;

typedef struct ScreeningObject ScreeningObject;

/* Screens one scanline: `input` is `width` samples of the object's input
 * bits (modified in place by the object's input table when it has one);
 * `output` receives outputPlanes bit-planes of bytesPerPlane bytes, most
 * significant bit first (16-to-8 objects: `width` bytes). `y` is the line's
 * number on the page. 0, or -1 (logged) for a null argument or a width above
 * the object's. */
typedef int32_t (*ZTScreenScanlineFn)(ScreeningObject *object, void *input, uint8_t *output, uint32_t width,
                                      uint32_t y);

/* The fields up to `cached` are in the system's order; ours follow. */
struct ScreeningObject {
  uint32_t mode;
  uint32_t inputBits;
  ZTScreenScanlineFn screenScanline;
  uint32_t cellWidth;
  uint32_t cellHeight;
  uint8_t *matrix;     /* cellWidth x cellHeight thresholds (threshold modes) */
  int16_t *modulation; /* error diffusion: null (no modulation) by default */
  int32_t *errorRowA;  /* width + 8 entries; the row starts 4 entries in */
  int32_t *errorRowB;
  int32_t *weightTable; /* 24,604 entries, groups of w0 w1 w2 w3, sum 8192 */
  int32_t *weightTableEnd;
  int32_t *weightCursor;
  uint32_t serpentine; /* set: the next line runs right to left */
  uint32_t bytesPerPlane;
  uint32_t outputBytes;
  uint32_t outputPlanes;
  uint32_t levels;
  uint16_t *thresholds;
  uint16_t *densities;
  uint16_t *dotCodes;
  uint16_t *channelLinearisation; /* tables of the input's size, or null */
  uint16_t *channelInkLimit;
  uint16_t *blackLut;
  void (*freeUserData)(void *userData);
  void *userData;
  uint8_t *ditherScreens[256]; /* pattern mode: tile of tone v (bit rows); entry 0 null */
  void *inputLut;              /* 256 bytes or 65,536 u16, or null (identity) */
  uint64_t cached;             /* non-zero: weightTable belongs to the cache */
  /* ours */
  uint32_t width;         /* widest scanline the object accepts */
  uint32_t patternStride; /* bytes a tile row in pattern mode */
  uint32_t byteOutput;    /* 16-to-8 objects: one byte a pixel, outputBytes = width */
  double effectiveLpi;    /* halftone modes: what the cell achieves */
  double effectiveAngle;  /* degrees */
  uint8_t *levelTable;    /* multi-level: level of each (8-bit value, matrix entry) pair,
                             256 x 256, value major */
  uint8_t *matrixRows;    /* matrix rows of cellWidth + 16, wrapped: for the loops */
  uint8_t *levelRows;     /* multi-level: for each level k >= 1, rows like matrixRows
                             holding the largest value that stays below level k */
};

/* ---- Levels --------------------------------------------------------------- */

/* Evenly spaced defaults; bits 16 -> full scale 65535, else 255. The arrays
 * hold `levels` entries (levels >= 2). 0, or -1 (logged) for null or levels < 2. */
ZT_API int32_t GeneratePixelThresholds(uint32_t levels, uint16_t *thresholds, uint32_t bits);
ZT_API int32_t GeneratePixelDensities(uint32_t levels, uint16_t *densities, uint32_t bits);
ZT_API int32_t GeneratePixelDotsizes(uint32_t levels, uint16_t *dotCodes);

/* Levels from the paper profile: allocates the three arrays (malloc, `levels`
 * entries each, freed by the caller with free()). Dispatches on
 * settings->levelSource (ZT_LEVELS_EVEN gives the evenly spaced ones). On -1
 * (logged) the three pointers are null. */
ZT_API int32_t GeneratePixelThresholdsAndDensities(const ScreeningSettings *settings, uint32_t levels,
                                                   uint16_t **thresholds, uint16_t **densities,
                                                   uint16_t **dotCodes, uint32_t bits);
ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromLabV1(const ScreeningSettings *settings,
                                                            uint32_t levels, uint16_t **thresholds,
                                                            uint16_t **densities, uint16_t **dotCodes,
                                                            uint32_t bits);
ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromLabV2(const ScreeningSettings *settings,
                                                            uint32_t levels, uint16_t **thresholds,
                                                            uint16_t **densities, uint16_t **dotCodes,
                                                            uint32_t bits);
ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromDensity(const ScreeningSettings *settings,
                                                              uint32_t levels, uint16_t **thresholds,
                                                              uint16_t **densities, uint16_t **dotCodes,
                                                              uint32_t bits);
/* Copies into `out` (count entries) the column of the drops' X, Y and Z
 * (each `count` entries) to use as reflectance. ZT_REFLECTANCE_X/Y/Z pick
 * that column; any other selector picks the column whose largest and smallest
 * values differ by the largest ratio (the one in which the ink absorbs),
 * preferring Y, then X, then Z on ties. Returns the column taken (1 ... 3),
 * or -1 for null arrays or count 0 (logged). */
ZT_API int32_t getXYZChannelToUseAsReflectance(const double *x, const double *y, const double *z,
                                               uint32_t count, int32_t selector, double *out);

/* ---- Objects -------------------------------------------------------------- */

/* A screening object for `width`-pixel scanlines of `inputBits` (8 or 16).
 * Null (logged) on any bad setting; the caller owns the object. */
ZT_API ScreeningObject *CreateScreeningObject(const ScreeningSettings *settings, uint32_t width,
                                              uint32_t inputBits);
/* 16-bit samples screened to 8-bit tone values (one byte a pixel), by error
 * diffusion; `mode` must be 3. Null (logged) otherwise. */
ZT_API ScreeningObject *CreateScreeningObject16To8(uint32_t mode, uint32_t width);
/* Frees the object and releases its cached table. Null is ignored. */
ZT_API void DestroyScreeningObject(ScreeningObject *object);

/* ---- Halftone cells ------------------------------------------------------- */

/* The spot function of `shape` at cell coordinates x, y in [-1, 1]. */
ZT_API double screeningSpotValue(uint32_t shape, double x, double y);

/* A clustered-dot threshold matrix (malloc'ed, *width x *height bytes, freed
 * with free()) for the settings' lines per inch, angle, spot shape and
 * resolution. The rational form uses one cell with integer corners; the
 * super-cell form searches cells of R x R dots whose side is at most
 * `maxTileSide` (0 = 1024) for the closest frequency and angle, preferring
 * tiles of 1,000 pixels or more (all 256 tones, each within 0.05 %). Both report the lpi and angle
 * achieved. With a null `matrix` only the geometry (sizes, lpi, angle) is
 * worked out. Resolutions must be equal or integer multiples of each other
 * (up to 16). 0, or -1 (logged). */
ZT_API int32_t SuperCellCreate_rational(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *width,
                                        uint32_t *height, double *effectiveLpi, double *effectiveAngle);
ZT_API int32_t SuperCellCreate(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *width,
                               uint32_t *height, double *effectiveLpi, double *effectiveAngle);

/* The default CMYK screen set of mode 8 (flag ZT_SCREEN_FLAG_CMYK_SET): for
 * channel 0 ... 3 (C, M, Y, K) the settings' angle is replaced by a set whose
 * three-screen moire residual (C, M, K) is zero by construction: C on the
 * cell (3, 1), M on (1, 3), K on (5, 5) in two-dot super-cells, Y on (3, 0).
 * Every vector is then multiplied by one k and every R by one r, (r, k)
 * chosen for the requested lines per inch within the tile budget (tiles of
 * 10 k pixels), which keeps the residual at zero. Writes the base vector
 * (M, N, R) to `cell`. 0, or -1 for a bad channel (logged). */
ZT_API int32_t screeningDefaultCMYKCell(uint32_t channel, int32_t *cell);

/* ---- VRFS files ----------------------------------------------------------- */

/* Parses a VRFS screen held in memory (`name` is used in messages). On 0 the
 * matrix (malloc'ed, *mx x *my bytes) is the caller's; -1 is logged. */
ZT_API int32_t screeningVRFSParse(const char *data, size_t size, const char *name, uint8_t **matrix,
                                  uint32_t *mx, uint32_t *my);

/* ---- The stochastic cache ------------------------------------------------- */

/* Start-up and shut-down hooks (called by ZT_InitSubSystems and
 * ZT_DeInitSubSystems). Init is idempotent; free unregisters the purge task,
 * frees unreferenced entries and leaves referenced ones. */
ZT_API void screeningCacheInit(void);
ZT_API void screeningCacheFree(void);
/* One purge: frees every entry without references when the cache holds more
 * than 8 entries or the entry was last used 121 seconds ago or more. The
 * periodic task calls it every 30 seconds. */
ZT_API void screeningCachePurge(void);
/* Entries in the cache. */
ZT_API uint32_t screeningCacheCount(void);
/* Replaces the clock the cache reads (seconds since the epoch); null restores
 * the wall clock. For tests. */
ZT_API void screeningCacheSetClock(int64_t (*clock)(void));

/* ---- Whole pages ------------------------------------------------------------ */

/* Screens `channels` scanlines of one page line at once, one object a
 * channel, the channels in parallel on the default task queue (each channel
 * stays on one thread for the call). inputs[c] and outputs[c] are channel c's
 * scanline and output. 0, or -1 when a channel failed (logged there). */
ZT_API int32_t screeningScreenChannels(ScreeningObject **objects, uint32_t channels, void **inputs,
                                       uint8_t **outputs, uint32_t width, uint32_t y);
/* The same for `lines` consecutive lines starting at `y`: input line l of
 * channel c is at inputs[c] + l * inputStride bytes, output at outputs[c] +
 * l * outputStride. Each channel's lines run in order on one worker, so the
 * objects' line-to-line state stays serial. */
ZT_API int32_t screeningScreenChannelLines(ScreeningObject **objects, uint32_t channels, void **inputs,
                                           size_t inputStride, uint8_t **outputs, size_t outputStride,
                                           uint32_t width, uint32_t y, uint32_t lines);

ZT_EXTERN_C_END

#endif
