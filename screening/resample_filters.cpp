// The reconstruction filters and the one-dimensional interpolators. The odd
// constants (pi as 3.14159, the cut points of filters 9 and 11, the supports)
// are the system's own and stay as written: stored weights and curves depend
// on them.
#include <zt/resample.h>

#include <cmath>

#include "foundation/internal.h"

namespace {

constexpr double kPi = 3.14159;

double hermite(double x) {
  const double a = std::fabs(x);
  return a < 1.0 ? (2.0 * a - 3.0) * a * a + 1.0 : 0.0;
}

// Open on the left, closed on the right, so that a sample exactly between two
// outputs belongs to one of them only.
double box(double x) { return x > -0.5 && x <= 0.5 ? 1.0 : 0.0; }

double triangle(double x) {
  const double a = std::fabs(x);
  return a < 1.0 ? 1.0 - a : 0.0;
}

double bell(double x) {
  const double a = std::fabs(x);
  if (a < 0.5) return 0.75 - a * a;
  if (a < 1.5) return 0.5 * (a - 1.5) * (a - 1.5);
  return 0.0;
}

double bspline(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return 0.5 * a * a * a - a * a + 2.0 / 3.0;
  if (a < 2.0) return (2.0 - a) * (2.0 - a) * (2.0 - a) / 6.0;
  return 0.0;
}

double sinc(double t) { return t == 0.0 ? 1.0 : std::sin(t) / t; }

double lanczos3(double x) {
  const double a = std::fabs(x);
  return a < 3.0 ? sinc(kPi * a) * sinc(kPi * a / 3.0) : 0.0;
}

double mitchell(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return (7.0 * a * a * a - 12.0 * a * a + 16.0 / 3.0) / 6.0;
  if (a < 2.0) return (-(7.0 / 3.0) * a * a * a + 12.0 * a * a - 20.0 * a + 32.0 / 3.0) / 6.0;
  return 0.0;
}

double cubic_b15(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return (3.0 - 1.5 * a * a) / 6.0;
  if (a < 2.0) return (6.0 - 6.0 * a + 1.5 * a * a) / 6.0;
  return 0.0;
}

double quadratic(double x) {
  const double a = std::fabs(x);
  if (a <= 0.481) return 1.0 - a * a / 0.6595472;
  if (a < 1.3712) return (1.3712 - a) * (1.3712 - a) / 1.22064224;
  return 0.0;
}

double gaussian(double x) {
  const double a = std::fabs(x);
  return a < 2.0 ? std::pow(2.0, -2.0 * a * a) : 0.0;
}

double filter11(double x) {
  const double a = std::fabs(x);
  if (a >= 2.0) return 0.0;
  const double v = 20.0 * a;
  if (v < 6.52851) return 1.0;
  return (0.192 + 0.114 * v) * 2.2 * std::exp(-std::pow(0.114 * v, 1.1));
}

double filter12(double x) {
  const double a = std::fabs(x);
  return a < 1.0 ? 0.918 * (1.0 - (1.0 - std::exp(-1.953 * a * a)) / 0.8581521110346773) : 0.0;
}

double butterworth(double x) {
  const double a = std::fabs(x);
  return a < 4.5 ? 1.0 / (1.0 + std::pow(a / 1.5, 10.0)) : 0.0;
}

double bessel(double x) {
  const double a = std::fabs(x);
  if (a >= 2.703395061) return 0.0;
  const double a2 = a * a;
  const double a4 = a2 * a2;
  const double a6 = a4 * a2;
  const double a8 = a4 * a4;
  const double a10 = a8 * a2;
  const double a12 = a6 * a6;
  return 10395.0 / std::sqrt(a12 + 21.0 * a10 + 630.0 * a8 + 18900.0 * a6 + 496125.0 * a4 + 9823275.0 * a2 +
                             108056025.0);
}

double keys05(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return 1.5 * a * a * a - 2.5 * a * a + 1.0;
  if (a < 2.0) return -0.5 * a * a * a + 2.5 * a * a - 4.0 * a + 2.0;
  return 0.0;
}

double keys075(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return 1.25 * a * a * a - 2.25 * a * a + 1.0;
  if (a < 2.0) return -0.75 * a * a * a + 3.75 * a * a - 6.0 * a + 3.0;
  return 0.0;
}

double catmull_rom(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) return (9.0 * a * a * a - 15.0 * a * a + 6.0) / 6.0;
  if (a < 2.0) return (-3.0 * a * a * a + 15.0 * a * a - 24.0 * a + 12.0) / 6.0;
  return 0.0;
}

struct FilterEntry {
  ResampleFilterFn function;
  double support;
};

constexpr FilterEntry kFilters[ZT_FILTER_LAST] = {
    {hermite, 1.0},  {box, 0.5},         {triangle, 1.0},    {bell, 1.5},           {bspline, 2.0},
    {lanczos3, 3.0}, {mitchell, 2.0},    {cubic_b15, 2.0},   {quadratic, 1.3712},   {gaussian, 2.0},
    {filter11, 2.0}, {filter12, 1.0},    {butterworth, 4.5}, {bessel, 2.703395061}, {keys05, 2.0},
    {keys075, 2.0},  {catmull_rom, 2.0},
};

}  // namespace

extern "C" {

ZT_API int32_t resampleFilteredGetFilter(uint32_t id, ResampleFilterFn *function, double *support) {
  if (function != nullptr) *function = kFilters[0].function;
  if (support != nullptr) *support = kFilters[0].support;
  if (function == nullptr || support == nullptr || id < ZT_FILTER_FIRST || id > ZT_FILTER_LAST) {
    ZT_LOG("resample", "resampleFilteredGetFilter", "Uknown filter type requested");
    return -1;
  }
  *function = kFilters[id - 1].function;
  *support = kFilters[id - 1].support;
  return 0;
}

ZT_API double LinearInterpolate(double y1, double y2, double mu) { return y1 + (y2 - y1) * mu; }

ZT_API double CosineInterpolate(double y1, double y2, double mu) {
  const double m = (1.0 - std::cos(mu * kPi)) / 2.0;
  return y1 * (1.0 - m) + y2 * m;
}

ZT_API double CubicInterpolate(double y0, double y1, double y2, double y3, double mu) {
  const double a0 = y3 - y2 - y0 + y1;
  const double a1 = y0 - y1 - a0;
  const double a2 = y2 - y0;
  const double mu2 = mu * mu;
  return a0 * mu * mu2 + a1 * mu2 + a2 * mu + y1;
}

ZT_API double HermiteInterpolate(double y0, double y1, double y2, double y3, double mu, double tension,
                                 double bias) {
  const double mu2 = mu * mu;
  const double mu3 = mu2 * mu;
  const double m0 = ((y1 - y0) * (1.0 + bias) + (y2 - y1) * (1.0 - bias)) * (1.0 - tension) / 2.0;
  const double m1 = ((y2 - y1) * (1.0 + bias) + (y3 - y2) * (1.0 - bias)) * (1.0 - tension) / 2.0;
  return (2.0 * mu3 - 3.0 * mu2 + 1.0) * y1 + (mu3 - 2.0 * mu2 + mu) * m0 + (mu3 - mu2) * m1 +
         (3.0 * mu2 - 2.0 * mu3) * y2;
}

ZT_API double CatmullRomInterpolate3(double y0, double y1, double y2, double y3, double t, double t2,
                                     double t3) {
  return 0.5 * (2.0 * y1 + (y2 - y0) * t + (2.0 * y0 - 5.0 * y1 + 4.0 * y2 - y3) * t2 +
                (3.0 * (y1 - y2) + y3 - y0) * t3);
}

ZT_API double CatmullRomInterpolate(double y0, double y1, double y2, double y3, double t) {
  return CatmullRomInterpolate3(y0, y1, y2, y3, t, t * t, t * t * t);
}

}  // extern "C"
