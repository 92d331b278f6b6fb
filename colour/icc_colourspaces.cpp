// Conversions between the CIE spaces, colour temperature, reference whites,
// chromatic adaptation and spectral integration.
//
// Every function here is plain arithmetic on caller-owned arrays. A colour is
// read into locals before its result is stored, so the output may be the same
// array as the colour input.
#include <zt/ztcms.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "colour/cie_tables.h"
#include "colour/cms_internal.h"
#include "foundation/internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zt::colour {
namespace {

// Forward direction: the exact CIE values.
constexpr double kEpsilon = 0.008856451586;
constexpr double kSlope = 7.787036979;
constexpr double kKappa = 903.2963058;
constexpr double kOffset = 16.0 / 116.0;

// Backward direction: the older rounded values, kept on purpose, so that the
// two directions are not exact inverses near black.
constexpr double kEpsilonBack = 0.008856;
constexpr double kKappaBack = 903.3;
constexpr double kLThreshold = 7.9996248;  // 0.008856 * 903.3

// The same in single precision.
constexpr float kEpsilonF = 0.008856451f;
constexpr float kSlopeF = 7.787037f;
constexpr float kOffsetF = 0.13793103f;
constexpr float kKappaF = 903.2963f;
constexpr float kEpsilonBackF = 0.008856f;
constexpr float kLThresholdF = 7.999625f;
constexpr float kInv116F = 0.00862069f;
constexpr float kInvKappaBackF = 0.001107052f;

constexpr double kD50[3] = {0.9642, 1.0, 0.8249};
constexpr double kD65[3] = {0.9505, 1.0, 1.0888};

// Below this every component of a colour or white counts as black.
constexpr double kBlack = 1e-20;

// XYZ-to-LMS matrices by table index: CAT02, von Kries (Hunt-Pointer-Estevez),
// Bradford, and the fourth matrix of method 3.
constexpr double kXyzToLms[4][9] = {
    {0.7328, 0.4296, -0.1624, -0.7036, 1.6975, 0.0061, 0.0030, 0.0136, 0.9834},
    {0.40024, 0.7076, -0.08081, -0.2263, 1.16532, 0.0457, 0.0, 0.0, 0.91822},
    {0.8951, 0.2664, -0.1614, -0.7502, 1.7135, 0.0367, 0.0389, -0.0685, 1.0296},
    {0.8562, 0.3372, -0.1934, -0.8360, 1.8327, 0.0033, 0.0357, -0.0469, 1.0112},
};

// Written by ZTCMSStaticInit before any caller runs, read-only afterwards.
double g_lms_to_xyz[4][9];
std::atomic<bool> g_cms_ready{false};

// Codes 0 and 4 both mean CAT02 and every unknown code means Bradford: callers
// have always relied on that mapping.
size_t method_index(int32_t method) {
  switch (method) {
    case 0:
    case 4:
      return 0;
    case 1:
      return 1;
    case 3:
      return 3;
    default:
      return 2;
  }
}

inline void mat_vec(const double *m, const double *v, double *out) {
  const double x = v[0], y = v[1], z = v[2];
  out[0] = m[0] * x + m[1] * y + m[2] * z;
  out[1] = m[3] * x + m[4] * y + m[5] * z;
  out[2] = m[6] * x + m[7] * y + m[8] * z;
}

// The cube root of t > 0. The C library's cbrt costs as much as the whole
// rest of a Lab conversion; a first guess from the exponent bits, two Halley
// steps and one Newton step land within one unit in the last place of the
// correctly rounded root. Infinity, NaN and values so large that y^3 would
// overflow go to the library.
inline double cube_root(double t) {
  if (!(t < 1e300)) return std::cbrt(t);
  uint64_t bits;
  std::memcpy(&bits, &t, sizeof bits);
  bits = bits / 3 + 0x2A9F7893782DA1CEull;
  double y;
  std::memcpy(&y, &bits, sizeof y);
  for (int i = 0; i < 2; ++i) {
    const double y3 = y * y * y;
    y = y * (y3 + 2.0 * t) / (2.0 * y3 + t);
  }
  return y + (t / (y * y) - y) / 3.0;
}

inline double lab_f(double t) { return t > kEpsilon ? cube_root(t) : kSlope * t + kOffset; }

// Clamps that keep a NaN and a negative zero as they are, like the plain
// comparisons they stand for, but without a branch: colours near the limits
// come in any order and would defeat the branch predictor.
inline double at_least(double lo, double v) {
#if defined(__SSE2__)
  return _mm_cvtsd_f64(_mm_max_sd(_mm_set_sd(lo), _mm_set_sd(v)));  // lo > v ? lo : v
#else
  return lo > v ? lo : v;
#endif
}

inline double at_most(double hi, double v) {
#if defined(__SSE2__)
  return _mm_cvtsd_f64(_mm_min_sd(_mm_set_sd(hi), _mm_set_sd(v)));  // hi < v ? hi : v
#else
  return hi < v ? hi : v;
#endif
}

inline double clamp(double v, double lo, double hi) { return at_most(hi, at_least(lo, v)); }

inline float clampf(float v, float lo, float hi) {
  if (v < lo) return lo;
  if (v > hi) return hi;
  return v;
}

// L from Y/Yw with the exact constants, unclamped (CIELUV shares it).
inline double lightness(double yr, double fy) { return yr > kEpsilon ? 116.0 * fy - 16.0 : kKappa * yr; }

void xyz_to_lab(const double *xyz, const double *white, double *lab) {
  const double yr = xyz[1] / white[1];
  const double fx = lab_f(xyz[0] / white[0]);
  const double fy = lab_f(yr);
  const double fz = lab_f(xyz[2] / white[2]);
  const double l = lightness(yr, fy);
  lab[0] = clamp(l, 0.0, 100.0);
  lab[1] = clamp(500.0 * (fx - fy), -128.0, 127.0);
  lab[2] = clamp(200.0 * (fy - fz), -128.0, 127.0);
}

// Y/Yw from L with the rounded constants (CIELUV shares it, unclamped).
inline double lab_yr(double l) {
  const double fy = (l + 16.0) / 116.0;
  return l > kLThreshold ? fy * fy * fy : l / kKappaBack;
}

// The largest f whose cube, as computed in double, is not above `limit`.
// f * f * f never decreases as f grows, so "f^3 > limit" is exactly
// "f > this". We test f itself: the test then settles as soon as f is known,
// before the two multiplications, which matters when colours on both sides of
// the threshold come in random order.
constexpr double cube_threshold(double limit) {
  uint64_t lo = 0, hi = std::bit_cast<uint64_t>(1.0);  // cube(lo) <= limit < cube(hi)
  while (hi - lo > 1) {
    const uint64_t mid = lo + (hi - lo) / 2;
    const double f = std::bit_cast<double>(mid);
    if (f * f * f <= limit) {
      lo = mid;
    } else {
      hi = mid;
    }
  }
  return std::bit_cast<double>(lo);
}
constexpr double kCubeThresholdBack = cube_threshold(kEpsilonBack);
static_assert(kCubeThresholdBack * kCubeThresholdBack * kCubeThresholdBack <= kEpsilonBack);
static_assert([] {
  const double next = std::bit_cast<double>(std::bit_cast<uint64_t>(kCubeThresholdBack) + 1);
  return next * next * next > kEpsilonBack;
}());

// Clamped at 0. Above the threshold the cube is positive, so only the linear
// segment needs the clamp, and the common path does without it.
inline double lab_f_inverse(double f) {
  return f > kCubeThresholdBack ? f * f * f : at_least(0.0, (116.0 * f - 16.0) / kKappaBack);
}

void lab_to_xyz(const double *lab, const double *white, double *xyz) {
  const double l = lab[0];
  const double fy = (l + 16.0) / 116.0;
  const double yr = l > kLThreshold ? fy * fy * fy : at_least(0.0, l / kKappaBack);
#if defined(__SSE2__)
  // X and Z side by side: the same operations lane by lane (fy - b * 0.005
  // is fy + b * -0.005 exactly), one test for the common case that both lie
  // on the cube.
  const __m128d f =
      _mm_add_pd(_mm_set1_pd(fy), _mm_mul_pd(_mm_set_pd(lab[2], lab[1]), _mm_set_pd(-0.005, 0.002)));
  __m128d r = _mm_mul_pd(_mm_mul_pd(f, f), f);
  if (_mm_movemask_pd(_mm_cmpgt_pd(f, _mm_set1_pd(kCubeThresholdBack))) != 3) [[unlikely]] {
    r = _mm_set_pd(lab_f_inverse(_mm_cvtsd_f64(_mm_unpackhi_pd(f, f))), lab_f_inverse(_mm_cvtsd_f64(f)));
  }
  r = _mm_mul_pd(r, _mm_set_pd(white[2], white[0]));
  _mm_storel_pd(xyz, r);
  xyz[1] = yr * white[1];
  _mm_storeh_pd(xyz + 2, r);
#else
  const double xr = lab_f_inverse(fy + lab[1] * 0.002);
  const double zr = lab_f_inverse(fy - lab[2] * 0.005);
  xyz[0] = xr * white[0];
  xyz[1] = yr * white[1];
  xyz[2] = zr * white[2];
#endif
}

inline float lab_ff(float t) { return t > kEpsilonF ? std::cbrt(t) : kSlopeF * t + kOffsetF; }

inline float lab_f_inversef(float f) {
  const float cube = f * f * f;
  return cube > kEpsilonBackF ? cube : (116.0f * f - 16.0f) * kInvKappaBackF;
}

bool all_below(const double *v, double limit) { return v[0] < limit && v[1] < limit && v[2] < limit; }

// The weighted sums of one spectrum; false when no sample matched a row.
bool spectral_to_xyz(const double *reflectance, uint32_t count, double first_nm, double step_nm,
                     double *xyz) {
  double n = 0, x = 0, y = 0, z = 0;
  double wavelength = first_nm;
  for (uint32_t i = 0; i < count; ++i) {
    // Wavelengths are matched exactly: a spectrum sampled between the table's
    // rows is not interpolated, its samples simply do not count.
    for (size_t row = 0; row < kSpectralRows; ++row) {
      if (kObserver[row].wavelength != wavelength) continue;
      const double s = kIlluminantWeight[row];
      const double r = reflectance[i];
      n += kObserver[row].ybar * s;
      x += kObserver[row].xbar * s * r;
      y += kObserver[row].ybar * s * r;
      z += kObserver[row].zbar * s * r;
      break;
    }
    wavelength += step_nm;
  }
  if (!(n > 0)) return false;
  xyz[0] = x / n;
  xyz[1] = y / n;
  xyz[2] = z / n;
  return true;
}

[[gnu::cold, gnu::noinline]] void log_null(const char *function) {
  ZT_LOG(kCmsModule, function, "NULL argument");
}

// True (and logged) when any pointer is NULL. A fold rather than a loop over
// a list: the check sits in functions that take a few nanoseconds.
template <typename... P>
inline bool null_args(const char *function, const P *...pointers) {
  if (!((pointers != nullptr) && ...)) [[unlikely]] {
    log_null(function);
    return true;
  }
  return false;
}

}  // namespace
}  // namespace zt::colour

using namespace zt::colour;

extern "C" {

void ZTCMSStaticInit(void) {
  if (g_cms_ready.load(std::memory_order_acquire)) return;
  for (size_t i = 0; i < 4; ++i) InvertMatrix(kXyzToLms[i], g_lms_to_xyz[i], Determinant(kXyzToLms[i]));
  g_cms_ready.store(true, std::memory_order_release);
}

// The tables are plain statics; releasing only marks them for recomputation
// at the next start-up.
void ZTCMSStaticFree(void) { g_cms_ready.store(false, std::memory_order_release); }

ZT_API void ZTCMS_XYZToLab(const double *xyz, const double *white, double *lab) {
  if (null_args("ZTCMS_XYZToLab", xyz, white, lab)) return;
  xyz_to_lab(xyz, white, lab);
}

ZT_API void ZTCMS_LabToXYZ(const double *lab, const double *white, double *xyz) {
  if (null_args("ZTCMS_LabToXYZ", lab, white, xyz)) return;
  lab_to_xyz(lab, white, xyz);
}

ZT_API void ZTCMS_XYZToLabf(const float *xyz, const float *white, float *lab) {
  if (null_args("ZTCMS_XYZToLabf", xyz, white, lab)) return;
  const float yr = xyz[1] / white[1];
  const float fx = lab_ff(xyz[0] / white[0]);
  const float fy = lab_ff(yr);
  const float fz = lab_ff(xyz[2] / white[2]);
  const float l = yr > kEpsilonF ? 116.0f * fy - 16.0f : kKappaF * yr;
  lab[0] = clampf(l, 0.0f, 100.0f);
  lab[1] = clampf(500.0f * (fx - fy), -128.0f, 127.0f);
  lab[2] = clampf(200.0f * (fy - fz), -128.0f, 127.0f);
}

ZT_API void ZTCMS_LabToXYZf(const float *lab, const float *white, float *xyz) {
  if (null_args("ZTCMS_LabToXYZf", lab, white, xyz)) return;
  const float l = lab[0];
  const float fy = (l + 16.0f) * kInv116F;
  float yr = l > kLThresholdF ? fy * fy * fy : l * kInvKappaBackF;
  float xr = lab_f_inversef(fy + lab[1] * 0.002f);
  float zr = lab_f_inversef(fy - lab[2] * 0.005f);
  if (xr < 0) xr = 0;
  if (yr < 0) yr = 0;
  if (zr < 0) zr = 0;
  xyz[0] = xr * white[0];
  xyz[1] = yr * white[1];
  xyz[2] = zr * white[2];
}

ZT_API void ZTCMS_LabToLch(const double *lab, double *lch) {
  if (null_args("ZTCMS_LabToLch", lab, lch)) return;
  const double l = lab[0], a = lab[1], b = lab[2];
  lch[0] = l;
  lch[1] = std::sqrt(a * a + b * b);
  lch[2] = hue_degrees(a, b);
}

ZT_API void ZTCMS_XYZToLUV(const double *xyz, const double *white, double *luv) {
  if (null_args("ZTCMS_XYZToLUV", xyz, white, luv)) return;
  const double x = xyz[0], y = xyz[1], z = xyz[2];
  const double d = x + 15.0 * y + 3.0 * z;
  const double dw = white[0] + 15.0 * white[1] + 3.0 * white[2];
  const double yr = y / white[1];
  const double l = lightness(yr, yr > kEpsilon ? cube_root(yr) : 0.0);
  luv[0] = l;
  luv[1] = 13.0 * l * (4.0 * x / d - 4.0 * white[0] / dw);
  luv[2] = 13.0 * l * (9.0 * y / d - 9.0 * white[1] / dw);
}

ZT_API void ZTCMS_LUVToXYZ(const double *luv, const double *white, double *xyz) {
  if (null_args("ZTCMS_LUVToXYZ", luv, white, xyz)) return;
  const double l = luv[0];
  const double dw = white[0] + 15.0 * white[1] + 3.0 * white[2];
  const double up = luv[1] / (13.0 * l) + 4.0 * white[0] / dw;
  const double vp = luv[2] / (13.0 * l) + 9.0 * white[1] / dw;
  const double y = lab_yr(l);
  xyz[0] = y * 9.0 * up / (4.0 * vp);
  xyz[1] = y;
  xyz[2] = y * (12.0 - 3.0 * up - 20.0 * vp) / (4.0 * vp);
}

ZT_API void ZTCMS_XYZToxy(const double *xyz, double *xyz_out) {
  if (null_args("ZTCMS_XYZToxy", xyz, xyz_out)) return;
  const double x = xyz[0], y = xyz[1], z = xyz[2];
  const double s = x + y + z;
  if (s > 0) {
    xyz_out[0] = x / s;
    xyz_out[1] = y / s;
    xyz_out[2] = z / s;
  } else {
    xyz_out[0] = xyz_out[1] = xyz_out[2] = 0.0;
  }
}

ZT_API void ZTCMS_xyToXYZ(const double *xy, double luminance, double *xyz) {
  if (null_args("ZTCMS_xyToXYZ", xy, xyz)) return;
  const double x = xy[0], y = xy[1];
  if (y > 0) {
    xyz[0] = x * luminance / y;
    xyz[1] = luminance;
    xyz[2] = (1.0 - x - y) * luminance / y;
  } else {
    xyz[0] = xyz[1] = xyz[2] = 0.0;
  }
}

ZT_API int32_t ZTCMS_XYZtoCorColourTemp(const double *xyz, double *kelvin) {
  static constexpr const char *kFunction = "ZTCMS_XYZtoCorColourTemp";
  if (null_args(kFunction, xyz, kelvin)) return -1;
  if (all_below(xyz, kBlack)) {
    ZT_LOG(kCmsModule, kFunction, "No colour temperature for black");
    return -1;
  }
  const double d = xyz[0] + 15.0 * xyz[1] + 3.0 * xyz[2];
  const double u = 4.0 * xyz[0] / d;
  const double v = 6.0 * xyz[1] / d;
  // Distances to the isotemperature lines; the point lies between the first
  // two consecutive lines whose distances differ in sign (zero counts as
  // non-negative).
  double d_prev = 0;
  for (size_t i = 0; i < kIsotemperatureRows; ++i) {
    const IsotemperatureRow &row = kIsotemperature[i];
    const double di = (v - row.v) - row.t * (u - row.u);
    if (i > 0 && ((d_prev < 0) != (di < 0))) {
      const IsotemperatureRow &prev = kIsotemperature[i - 1];
      const double a = d_prev / std::sqrt(1.0 + prev.t * prev.t);
      const double b = di / std::sqrt(1.0 + row.t * row.t);
      const double f = a / (a - b);
      *kelvin = 1.0 / (prev.r + (row.r - prev.r) * f);
      return 0;
    }
    d_prev = di;
  }
  ZT_LOG(kCmsModule, kFunction, "Colour temperature of XYZ %g %g %g is outside the isotemperature lines",
         xyz[0], xyz[1], xyz[2]);
  return -1;
}

ZT_API void ZTCMS_CorColourTempToxy(double kelvin, double *xyz) {
  if (null_args("ZTCMS_CorColourTempToxy", xyz)) return;
  const double t = kelvin;
  double x;
  if (t >= 4000.0 && t <= 7000.0) {
    x = -4.607e9 / (t * t * t) + 2.9678e6 / (t * t) + 99.11 / t + 0.244063;
  } else if (t > 7000.0 && t <= 25000.0) {
    x = -2.0064e9 / (t * t * t) + 1.9018e6 / (t * t) + 247.48 / t + 0.23704;
  } else {
    xyz[0] = xyz[1] = 0.0;
    return;
  }
  const double y = -3.0 * x * x + 2.87 * x - 0.275;
  xyz[0] = x;
  xyz[1] = y;
  xyz[2] = 1.0 - x - y;
}

ZT_API void getIlluminant(int32_t code, double *white) {
  if (null_args("getIlluminant", white)) return;
  // Codes 3 to 8 name illuminants this function has never filled in; callers
  // rely on their triple coming back untouched.
  if (code >= 3 && code <= 8) return;
  const double *src = code == 2 ? kD65 : kD50;
  white[0] = src[0];
  white[1] = src[1];
  white[2] = src[2];
}

ZT_API void ZTCMS_Get_XYZ_To_LMS_Matrix(int32_t method, double *matrix) {
  if (null_args("ZTCMS_Get_XYZ_To_LMS_Matrix", matrix)) return;
  std::memcpy(matrix, kXyzToLms[method_index(method)], sizeof(double) * 9);
}

ZT_API void ZTCMS_Get_LMS_To_XYZ_Matrix(int32_t method, double *matrix) {
  if (null_args("ZTCMS_Get_LMS_To_XYZ_Matrix", matrix)) return;
  std::memcpy(matrix, g_lms_to_xyz[method_index(method)], sizeof(double) * 9);
}

ZT_API double *ZTCMS_Chromatic_Adaptation(const double *xyz, const double *src_white, const double *dst_white,
                                          int32_t method, double *out) {
  if (null_args("ZTCMS_Chromatic_Adaptation", xyz, src_white, dst_white, out)) return nullptr;
  if (all_below(src_white, kBlack)) {
    const double x = xyz[0], y = xyz[1], z = xyz[2];
    out[0] = x;
    out[1] = y;
    out[2] = z;
    return out;
  }
  const size_t index = method_index(method);
  const double *m = kXyzToLms[index];
  double rho[3], rho_s[3], rho_d[3];
  mat_vec(m, xyz, rho);
  mat_vec(m, src_white, rho_s);
  mat_vec(m, dst_white, rho_d);
  for (size_t k = 0; k < 3; ++k) rho[k] = rho[k] * rho_d[k] / rho_s[k];
  double result[3];
  mat_vec(g_lms_to_xyz[index], rho, result);
  for (size_t k = 0; k < 3; ++k) out[k] = at_least(0.0, result[k]);
  return out;
}

ZT_API int32_t ZTCMS_spectralToXYZ(const double *reflectance, uint32_t count, double first_nm, double step_nm,
                                   double *xyz) {
  static constexpr const char *kFunction = "ZTCMS_spectralToXYZ";
  if (null_args(kFunction, reflectance, xyz)) return -1;
  if (!spectral_to_xyz(reflectance, count, first_nm, step_nm, xyz)) {
    ZT_LOG(kCmsModule, kFunction, "No sample of %u from %g nm in steps of %g nm matches the table", count,
           first_nm, step_nm);
    return -1;
  }
  return 0;
}

ZT_API int32_t ZTCMS_spectralToLab(const double *reflectance, uint32_t count, double first_nm, double step_nm,
                                   double *lab) {
  static constexpr const char *kFunction = "ZTCMS_spectralToLab";
  if (null_args(kFunction, reflectance, lab)) return -1;
  double xyz[3];
  if (!spectral_to_xyz(reflectance, count, first_nm, step_nm, xyz)) {
    ZT_LOG(kCmsModule, kFunction, "No sample of %u from %g nm in steps of %g nm matches the table", count,
           first_nm, step_nm);
    return -1;
  }
  xyz_to_lab(xyz, kD50, lab);
  return 0;
}

}  // extern "C"
