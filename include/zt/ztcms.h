/*
 * Colour-space arithmetic: CIE XYZ to and from CIELAB, CIELUV, LCh and xy;
 * correlated colour temperature; reference whites; chromatic adaptation;
 * reflectance spectra to XYZ and Lab; colour differences; RGB conversion
 * records; 3x3 matrices.
 *
 * Conventions shared by every function here:
 * - a colour is three doubles in the order of its space (X Y Z; L a b; L u v;
 *   L C h; x y z); XYZ is relative, a perfect white has Y = 1.0;
 * - a white point is an XYZ triple with Y = 1.0;
 * - a matrix is nine doubles, row-major, and a matrix times a vector is
 *   (row 0 . v, row 1 . v, row 2 . v);
 * - hues are in degrees, 0 <= h < 360, computed with the library's pi of
 *   3.14159 (and 2 pi of 6.28318); results differ from a full-precision pi in
 *   the sixth significant digit, and stored colour differences depend on it;
 * - the caller owns every array; results go through the last pointer, which
 *   may be the same array as the colour input (not as a white).
 *
 * None of these functions allocates (apart from what an RGB record owns) or
 * keeps state; all may run on any thread at once. The chromatic adaptation
 * functions need ZT_InitSubSystems, which computes the inverse cone matrices.
 *
 * The numeric functions do not validate their values: a zero white component,
 * CIELUV of D = X + 15Y + 3Z = 0 or L = 0 gives the infinities or NaN the
 * arithmetic gives. A NULL pointer is logged and the call does nothing (or
 * returns -1 or 0, as each function says).
 */
#ifndef ZT_ZTCMS_H
#define ZT_ZTCMS_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Reference whites for getIlluminant. Codes 3 to 8 leave the caller's triple
 * as it was; every other code (0, 1, 9 and above, negatives) gives D50. */
#define ZTCMS_ILLUMINANT_D50 0
#define ZTCMS_ILLUMINANT_D65 2

/* Chromatic adaptation methods (cone-response matrices). 0 and 4 both select
 * CAT02; any code not listed selects Bradford. */
#define ZTCMS_ADAPT_CAT02 0
#define ZTCMS_ADAPT_VON_KRIES 1
#define ZTCMS_ADAPT_BRADFORD 2
#define ZTCMS_ADAPT_MATRIX3 3 /* 0.8562 0.3372 -0.1934 / -0.8360 1.8327 0.0033 / ... */
#define ZTCMS_ADAPT_CAT02_ALT 4

/* Flag bit of ZTCMS_RGBToXYZ and ZTCMS_XYZToRGB: clamp and apply the tone
 * curves or gammas. Without it the channels are scaled linearly. */
#define ZTCMS_RGB_TONE_CURVES 4

/* One channel's tone curves. `curve` maps a 16-bit encoded value to a 16-bit
 * linear one; `inverse` maps back and shares count, scale and step. A 16-bit
 * input v falls at curve position v * scale; entry i stands at i * step.
 * A NULL table (or a count below 2) means the channel uses its gamma. The
 * tables are owned by the record and allocated with malloc. */
typedef struct ZTCMS_ToneCurve {
  uint32_t count;
  double scale;
  double step;
  uint16_t *curve;
  uint16_t *inverse;
} ZTCMS_ToneCurve;

/* An RGB conversion record, filled by ZTCMS_MakeDefaultRGBConvMatrices. */
typedef struct ZTCMS_RGBConv {
  double rgb_to_xyz[9]; /* linear RGB to XYZ (D50) */
  double xyz_to_rgb[9];
  double white_d50[3];
  double black_point[3];
  double red_d50[3]; /* colourants relative to D50 */
  double green_d50[3];
  double blue_d50[3];
  double media_white[3];
  double black_point2[3];
  double red_d65[3]; /* colourants relative to D65 */
  double green_d65[3];
  double blue_d65[3];
  double gamma[3];         /* red, green, blue */
  ZTCMS_ToneCurve tone[3]; /* red, green, blue */
  uint32_t flags;
} ZTCMS_RGBConv;

/* ---- Lab, LCh, CIELUV, xy ---------------------------------------------- */

/* XYZ to Lab relative to `white`, with the exact CIE constants; L is clamped
 * to 0..100, a and b to -128..127. */
ZT_API void ZTCMS_XYZToLab(const double *xyz, const double *white, double *lab);
/* Lab to XYZ relative to `white`, with the older rounded constants (epsilon
 * 0.008856, kappa 903.3): near black the two directions are deliberately not
 * exact inverses. Negative components become 0. */
ZT_API void ZTCMS_LabToXYZ(const double *lab, const double *white, double *xyz);
/* The same two in single precision, with single-precision constants. */
ZT_API void ZTCMS_XYZToLabf(const float *xyz, const float *white, float *lab);
ZT_API void ZTCMS_LabToXYZf(const float *lab, const float *white, float *xyz);
/* L copied, C = sqrt(a^2 + b^2), h in degrees. */
ZT_API void ZTCMS_LabToLch(const double *lab, double *lch);
/* XYZ to CIELUV relative to `white`; L is not clamped. */
ZT_API void ZTCMS_XYZToLUV(const double *xyz, const double *white, double *luv);
/* CIELUV to XYZ; Y is relative to 1, not scaled by the white's Y. */
ZT_API void ZTCMS_LUVToXYZ(const double *luv, const double *white, double *xyz);
/* x, y, z = X, Y, Z divided by their sum; three zeros when the sum is not
 * positive. */
ZT_API void ZTCMS_XYZToxy(const double *xyz, double *xyz_out);
/* (x Y / y, Y, (1 - x - y) Y / y) from the two values of `xy`; three zeros
 * when y is not positive. */
ZT_API void ZTCMS_xyToXYZ(const double *xy, double luminance, double *xyz);

/* ---- Colour temperature and whites -------------------------------------- */

/* Correlated colour temperature in kelvin by Robertson's isotemperature lines.
 * 0, or -1 (logged) when every component is below 1e-20 or the point lies
 * outside the lines (beyond 1667 K ... infinity). */
ZT_API int32_t ZTCMS_XYZtoCorColourTemp(const double *xyz, double *kelvin);
/* Chromaticity x, y, z = 1 - x - y of the CIE daylight locus at `kelvin`
 * (4000 to 25000 K). Outside that range x = y = 0 and z is left as it was. */
ZT_API void ZTCMS_CorColourTempToxy(double kelvin, double *xyz);
/* Writes the reference white of `code` (see ZTCMS_ILLUMINANT_*). */
ZT_API void getIlluminant(int32_t code, double *white);

/* ---- Chromatic adaptation ----------------------------------------------- */

/* Copies the nine values of the method's XYZ-to-LMS matrix, or of its
 * inverse (computed at start-up). */
ZT_API void ZTCMS_Get_XYZ_To_LMS_Matrix(int32_t method, double *matrix);
ZT_API void ZTCMS_Get_LMS_To_XYZ_Matrix(int32_t method, double *matrix);
/* Adapts `xyz` from `src_white` to `dst_white` by scaling the cone responses
 * of `method`; negative results become 0. A source white with every component
 * below 1e-20 copies the input. Returns `out` (NULL when a pointer is NULL). */
ZT_API double *ZTCMS_Chromatic_Adaptation(const double *xyz, const double *src_white, const double *dst_white,
                                          int32_t method, double *out);

/* ---- Spectra ------------------------------------------------------------ */

/* XYZ of `count` reflectance samples, the first at `first_nm` and each next one
 * `step_nm` further (by repeated addition). Only samples whose wavelength
 * equals one of 360, 370, ..., 750 nm exactly count; they are weighted by the
 * CIE 1931 2-degree observer and the library's illuminant, normalised so that
 * a perfect reflector over the whole range has Y = 1. 0, or -1 (logged, `xyz`
 * untouched) when no sample matched. */
ZT_API int32_t ZTCMS_spectralToXYZ(const double *reflectance, uint32_t count, double first_nm, double step_nm,
                                   double *xyz);
/* The same, converted to Lab relative to D50 (0.9642, 1.0, 0.8249) and clamped
 * as ZTCMS_XYZToLab clamps. */
ZT_API int32_t ZTCMS_spectralToLab(const double *reflectance, uint32_t count, double first_nm, double step_nm,
                                   double *lab);

/* ---- Colour differences ------------------------------------------------- */
/* `reference` is the standard, `sample` the colour judged against it. The
 * formulas that weight by the reference's chroma or hue (CIE94, CMC) are not
 * symmetric. NULL gives 0 (logged). */

/* CIE 1976 Delta E*ab. */
ZT_API double ZTCMS_ColourDiff_DeltaE(const double *reference, const double *sample);
/* CIE94 with kL = kC = kH = 1 (graphic arts weights 0.045 and 0.015). */
ZT_API double ZTCMS_ColourDiff_CIE94(const double *reference, const double *sample);
/* Delta H*ab, never negative (0 when rounding leaves nothing for it). */
ZT_API double ZTCMS_ColourDiff_dH(const double *reference, const double *sample);
/* CMC l:c with 1:1 and 2:1. */
ZT_API double ZTCMS_ColourDiff_CMC1(const double *reference, const double *sample);
ZT_API double ZTCMS_ColourDiff_CMC2(const double *reference, const double *sample);
/* CIEDE2000 with kL = kC = kH = 1. */
ZT_API double ZTCMS_ColourDiff_CIE2000(const double *reference, const double *sample);

/* ---- RGB conversion records --------------------------------------------- */

/* Fills `record` with the library's default RGB (D50 matrices, colourants,
 * gammas of 2.2, no tone curves) and `flags`. The six curve tables are freed
 * first, so the record must be zero-filled or filled before. 0, or -1 for a
 * NULL record (logged). */
ZT_API int32_t ZTCMS_MakeDefaultRGBConvMatrices(ZTCMS_RGBConv *record, uint32_t flags);
/* Frees the curve tables the record owns and sets them to NULL; NULL is
 * accepted. */
ZT_API void ZTCMS_FreeRGBConvMatrices(ZTCMS_RGBConv *record);
/* RGB (0..255) to XYZ. With ZTCMS_RGB_TONE_CURVES in `flags` each channel is
 * clamped to 0..255, written back into `rgb` (the input is modified on
 * purpose), and made linear through its tone curve or gamma; without it the
 * channels are divided by 255. */
ZT_API void ZTCMS_RGBToXYZ(const ZTCMS_RGBConv *record, uint8_t flags, double *rgb, double *xyz);
/* XYZ to RGB (0..255); the linear values are clamped to 0..1 and, with
 * ZTCMS_RGB_TONE_CURVES, encoded through the inverse curves or gammas. */
ZT_API void ZTCMS_XYZToRGB(const ZTCMS_RGBConv *record, uint8_t flags, const double *xyz, double *rgb);

/* ---- Matrices ----------------------------------------------------------- */

/* Expanded along the first row. */
ZT_API double Determinant(const double *matrix);
/* The adjugate divided by `determinant` (from Determinant). When that is
 * exactly 0, logs "Warning: non invertable matrix encountered", writes the
 * identity and returns -1; else 0. */
ZT_API int32_t InvertMatrix(const double *matrix, double *inverse, double determinant);
ZT_API void multiplyMatrix3x3and3x1(const double *matrix, const double *vector, double *out);
/* out = a . b */
ZT_API void multiplyMatrix3x3and3x3(const double *a, const double *b, double *out);
/* Writes the identity; returns 0. */
ZT_API int32_t identityMatrix3x3(double *matrix);
/* 1 when every element equals the identity's exactly (a NaN fails), else 0. */
ZT_API int32_t isIdentityMatrix3x3(const double *matrix);
/* Print "Matrix <title> is" ("Untitled" for a NULL title) and the values to
 * standard output. */
ZT_API void PrintMatrix(const double *matrix, const char *title);
ZT_API void PrintMatrix3x3(const double *matrix, const char *title);
ZT_API void PrintMatrix3x1(const double *vector, const char *title);

ZT_EXTERN_C_END

#endif
