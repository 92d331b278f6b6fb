/*
 * Dot percentage and tone value increase: a measured tint (a density or a
 * reflectance, relative to bare paper and solid ink) turned into an effective
 * dot percentage, and the standard tone value increase (dot gain) added or
 * removed. Tones are percentages 0 ... 100 unless said otherwise. Plain
 * arithmetic; every function may run on any thread at once.
 *
 * The standard increase comes from a fixed 21-row table with four curves,
 * chosen by the channel's band type (1 cyan, 2 magenta, 3 yellow, 4 black,
 * further numbers for extra inks):
 *   band types 4, 5 and 11 -> curve 1; 3, 10 and 12 -> curve 2; 13 -> curve 3;
 *   every other one (1 and 2 included) -> curve 4.
 */
#ifndef ZT_DOTPERCENT_H
#define ZT_DOTPERCENT_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Measurement methods of a setup record. In methods 2 to 4 the paper and
 * solid reflectances are 10^-D of the record's paper and solid densities. */
#define ZT_DOTPERCENT_YULE_NIELSEN 1          /* density; Yule-Nielsen with factor n */
#define ZT_DOTPERCENT_MURRAY_DAVIES 2         /* reflectance; Murray-Davies */
#define ZT_DOTPERCENT_MURRAY_DAVIES_DENSITY 3 /* density D, as reflectance 10^-D; Murray-Davies */
#define ZT_DOTPERCENT_MINUS_DOTGAIN                \
  4 /* reflectance; Murray-Davies less a parabolic \
       gain whose peak is the record's factor */

/* Tone value increase modes. Any value other than 1 and 2 acts as 0. */
#define ZT_TVI_NONE 0
#define ZT_TVI_ADD 1    /* add the standard increase */
#define ZT_TVI_REMOVE 2 /* remove it: printed tone back to the nominal one */

/* Filled by the three setup calls, read by the dotpercentFrom... calls. */
typedef struct ZTDotPercentSetup {
  int32_t reserved;  /* not read by these functions; set to 0 */
  int32_t method;    /* ZT_DOTPERCENT_* */
  int32_t tvi_mode;  /* ZT_TVI_* */
  int32_t band_type; /* selects the increase curve */
  double factor;     /* Yule-Nielsen n (method 1); peak gain g as a fraction
                        (method 4); unused by methods 2 and 3 */
  double paper_density;
  double solid_density;
} ZTDotPercentSetup;

/* ---- Formulas ----------------------------------------------------------- */

/* Yule-Nielsen: 100 (1 - 10^(-(D - Dp)/n)) / (1 - 10^(-(Ds - Dp)/n)); 0 when
 * Dp > Ds, Dp > D or n <= 0. */
ZT_API double dotPercentFromDensity(double density, double paper_density, double solid_density, double n);
/* Murray-Davies: 100 (Rp - R) / (Rp - Rs), not clamped; 100 when any of the
 * three is 0 or less. */
ZT_API double dotPercentFromReflectance(double reflectance, double paper_reflectance,
                                        double solid_reflectance);
/* Murray-Davies less the parabolic gain of peak g (a fraction) at the
 * measured tone, clamped to 0 ... 100; 100 when any reflectance is 0 or less. */
ZT_API double dotPercentFromReflectanceMinusDotgain(double reflectance, double paper_reflectance,
                                                    double solid_reflectance, double peak_gain);
/* The parabolic increase (1 - (2t - 1)^2) g at tone t (a fraction, clamped to
 * 0 ... 1): g at 50 %, 0 at both ends. */
ZT_API double calculateTVI(double tone, double peak_gain);
/* The standard increase, in percentage points, at `tone` (percent, clamped to
 * 0 ... 100) on the curve of `band_type`, interpolated linearly. */
ZT_API double calculateISOTVI(double tone, int32_t band_type);
/* The increase that made a tone print as `printed` (percent): printed minus
 * the nominal tone, found on the curve of printed tones. */
ZT_API double calculateISOTVIReverse(double printed, int32_t band_type);

/* ---- Setup records ------------------------------------------------------ */

/* Fills the whole record: zeroes it, then sets method, mode, band type and the
 * factor (n for method 1, peak gain for method 4). 0, or -1 (logged) for a
 * NULL record or a method other than 1 ... 4. */
ZT_API int32_t dotpercentSetup(ZTDotPercentSetup *setup, int32_t method, int32_t tvi_mode, int32_t band_type,
                               double factor);
/* Sets the paper and solid densities. 0, or -1 for a NULL record (logged). */
ZT_API int32_t dotpercentSetupUsingPaperAndSolid(ZTDotPercentSetup *setup, double paper_density,
                                                 double solid_density);
/* Sets the factor (Yule-Nielsen n). 0, or -1 for a NULL record (logged). */
ZT_API int32_t dotpercetSetYuleNielsen(ZTDotPercentSetup *setup, double n);

/* The dot percentage of one measurement by the record's method, with the
 * increase added or removed as its mode says, clamped to 0 ... 100. 0 when
 * either pointer is NULL or the method is unknown (logged). */
ZT_API double dotpercentFromValue(const ZTDotPercentSetup *setup, const double *value);
/* The same for the mean of `count` readings of one patch. 0 when a pointer is
 * NULL or count is 0 (logged). */
ZT_API double dotpercentFromValues(const ZTDotPercentSetup *setup, const double *values, uint32_t count);
/* Converts `count` measurements (a step wedge) into `percents`, one each.
 * 0, or -1 when a pointer is NULL or the method is unknown (logged once). */
ZT_API int32_t dotpercentFromArray(const ZTDotPercentSetup *setup, const double *values, double *percents,
                                   uint32_t count);

ZT_EXTERN_C_END

#endif
