// Dot percentage from densities and reflectances, and the standard tone value
// increase: a measured step wedge becomes a curve of printed against nominal
// tone for printer calibration.
#include <zt/dotpercent.h>

#include <cmath>
#include <cstddef>
#include <cstring>

#include "foundation/internal.h"

namespace {

constexpr const char *kModule = "dotpercent";

constexpr size_t kRows = 21;
constexpr size_t kLastInterval = kRows - 2;

// Nominal tone and the increase of the four curves at that tone, in
// percentage points.
struct TviRow {
  double tone;
  double increase[4];
};

constexpr TviRow kTvi[kRows] = {
    {0, {0.0, 0.0, 0.0, 0.0}},      {2, {1.0, 0.7, 0.7, 1.2}},      {3, {1.5, 1.2, 1.2, 1.8}},
    {5, {2.6, 2.0, 2.0, 3.0}},      {7, {3.5, 2.8, 2.8, 4.2}},      {10, {4.9, 3.9, 4.0, 5.8}},
    {15, {6.9, 5.6, 5.9, 8.2}},     {20, {8.7, 7.2, 7.6, 10.2}},    {25, {10.2, 8.8, 9.3, 12.3}},
    {30, {11.5, 10.2, 10.8, 13.9}}, {40, {14.0, 12.3, 13.1, 16.0}}, {50, {15.0, 13.7, 14.4, 17.2}},
    {60, {15.0, 13.8, 14.6, 16.6}}, {70, {13.8, 12.7, 13.5, 15.0}}, {75, {12.5, 11.6, 12.3, 13.5}},
    {80, {11.0, 10.2, 10.8, 11.5}}, {85, {8.9, 8.3, 8.7, 9.3}},     {90, {6.3, 5.9, 6.1, 6.6}},
    {95, {3.4, 3.1, 3.2, 3.5}},     {98, {1.4, 1.3, 1.3, 1.5}},     {100, {0.0, 0.0, 0.0, 0.0}},
};

// The printed tone of each row (nominal plus increase), per curve, for the
// inverse direction.
struct PrintedTable {
  double printed[4][kRows];
};

constexpr PrintedTable make_printed() {
  PrintedTable t{};
  for (size_t c = 0; c < 4; ++c) {
    for (size_t i = 0; i < kRows; ++i) t.printed[c][i] = kTvi[i].tone + kTvi[i].increase[c];
  }
  return t;
}
constexpr PrintedTable kPrinted = make_printed();

inline double clamp(double v, double lo, double hi) {
  if (v < lo) return lo;
  if (v > hi) return hi;
  return v;
}

// Curve index 0 ... 3 for a band type.
size_t curve_of(int32_t band_type) {
  switch (band_type) {
    case 4:
    case 5:
    case 11:
      return 0;
    case 3:
    case 10:
    case 12:
      return 1;
    case 13:
      return 2;
    default:
      return 3;
  }
}

// First interval i with tone_i <= tone <= tone_i+1; the last one when none
// holds (only a NaN gets there).
size_t nominal_interval(double tone) {
  for (size_t i = 0; i < kLastInterval; ++i) {
    if (kTvi[i].tone <= tone && tone <= kTvi[i + 1].tone) return i;
  }
  return kLastInterval;
}

size_t printed_interval(const double *printed, double p) {
  for (size_t i = 0; i < kLastInterval; ++i) {
    if (printed[i] <= p && p <= printed[i + 1]) return i;
  }
  return kLastInterval;
}

double iso_tvi(double tone, int32_t band_type) {
  const double t = clamp(tone, 0.0, 100.0);
  const size_t c = curve_of(band_type);
  const size_t i = nominal_interval(t);
  const double t0 = kTvi[i].tone, t1 = kTvi[i + 1].tone;
  const double g0 = kTvi[i].increase[c], g1 = kTvi[i + 1].increase[c];
  return g0 + (g1 - g0) * (t - t0) / (t1 - t0);
}

// The nominal tone that prints as p (already within 0 ... 100).
double nominal_from_printed(double p, int32_t band_type) {
  const double *printed = kPrinted.printed[curve_of(band_type)];
  const size_t i = printed_interval(printed, p);
  return kTvi[i].tone + (kTvi[i + 1].tone - kTvi[i].tone) * (p - printed[i]) / (printed[i + 1] - printed[i]);
}

double yule_nielsen(double d, double dp, double ds, double n) {
  if (dp > ds || dp > d || n <= 0) return 0.0;
  return 100.0 * (1.0 - std::pow(10.0, -(d - dp) / n)) / (1.0 - std::pow(10.0, -(ds - dp) / n));
}

double murray_davies(double r, double rp, double rs) {
  if (r <= 0 || rp <= 0 || rs <= 0) return 100.0;
  return 100.0 * (rp - r) / (rp - rs);
}

double parabolic_gain(double t, double g) {
  const double tc = clamp(t, 0.0, 1.0);
  const double u = 2.0 * tc - 1.0;
  return (1.0 - u * u) * g;
}

double murray_davies_minus_gain(double r, double rp, double rs, double g) {
  if (r <= 0 || rp <= 0 || rs <= 0) return 100.0;
  const double a = (rp - r) / (rp - rs);
  return 100.0 * clamp(a - parabolic_gain(a, g), 0.0, 1.0);
}

inline double reflectance_of(double density) { return std::pow(10.0, -density); }

bool known_method(int32_t method) {
  return method >= ZT_DOTPERCENT_YULE_NIELSEN && method <= ZT_DOTPERCENT_MINUS_DOTGAIN;
}

// The measurement by the record's method, then the increase by its mode. The
// method must be known.
double from_value(const ZTDotPercentSetup &s, double value) {
  double percent = 0.0;
  switch (s.method) {
    case ZT_DOTPERCENT_YULE_NIELSEN:
      percent = yule_nielsen(value, s.paper_density, s.solid_density, s.factor);
      break;
    case ZT_DOTPERCENT_MURRAY_DAVIES:
      percent = murray_davies(value, reflectance_of(s.paper_density), reflectance_of(s.solid_density));
      break;
    case ZT_DOTPERCENT_MURRAY_DAVIES_DENSITY:
      percent = murray_davies(reflectance_of(value), reflectance_of(s.paper_density),
                              reflectance_of(s.solid_density));
      break;
    default:
      percent = murray_davies_minus_gain(value, reflectance_of(s.paper_density),
                                         reflectance_of(s.solid_density), s.factor);
      break;
  }
  const double v = clamp(percent, 0.0, 100.0);
  switch (s.tvi_mode) {
    case ZT_TVI_ADD:
      return clamp(percent + iso_tvi(v, s.band_type), 0.0, 100.0);
    case ZT_TVI_REMOVE:
      // A percentage beyond 0 ... 100 keeps its excess on top of the nominal tone.
      return clamp(nominal_from_printed(v, s.band_type) + (percent - v), 0.0, 100.0);
    default:
      return v;
  }
}

// Logs and returns false when the record cannot be used.
bool usable(const char *function, const ZTDotPercentSetup *setup, const void *values) {
  if (setup == nullptr || values == nullptr) {
    ZT_LOG(kModule, function, "NULL argument");
    return false;
  }
  if (!known_method(setup->method)) {
    ZT_LOG(kModule, function, "Unknown measurement method %d", setup->method);
    return false;
  }
  return true;
}

}  // namespace

extern "C" {

ZT_API double dotPercentFromDensity(double density, double paper_density, double solid_density, double n) {
  return yule_nielsen(density, paper_density, solid_density, n);
}

ZT_API double dotPercentFromReflectance(double reflectance, double paper_reflectance,
                                        double solid_reflectance) {
  return murray_davies(reflectance, paper_reflectance, solid_reflectance);
}

ZT_API double dotPercentFromReflectanceMinusDotgain(double reflectance, double paper_reflectance,
                                                    double solid_reflectance, double peak_gain) {
  return murray_davies_minus_gain(reflectance, paper_reflectance, solid_reflectance, peak_gain);
}

ZT_API double calculateTVI(double tone, double peak_gain) { return parabolic_gain(tone, peak_gain); }

ZT_API double calculateISOTVI(double tone, int32_t band_type) { return iso_tvi(tone, band_type); }

ZT_API double calculateISOTVIReverse(double printed, int32_t band_type) {
  const double p = clamp(printed, 0.0, 100.0);
  return p - nominal_from_printed(p, band_type);
}

ZT_API int32_t dotpercentSetup(ZTDotPercentSetup *setup, int32_t method, int32_t tvi_mode, int32_t band_type,
                               double factor) {
  static constexpr const char *kFunction = "dotpercentSetup";
  if (setup == nullptr) {
    ZT_LOG(kModule, kFunction, "NULL setup record");
    return -1;
  }
  if (!known_method(method)) {
    ZT_LOG(kModule, kFunction, "Unknown measurement method %d", method);
    return -1;
  }
  std::memset(setup, 0, sizeof *setup);
  setup->method = method;
  setup->tvi_mode = tvi_mode;
  setup->band_type = band_type;
  setup->factor = factor;
  return 0;
}

ZT_API int32_t dotpercentSetupUsingPaperAndSolid(ZTDotPercentSetup *setup, double paper_density,
                                                 double solid_density) {
  if (setup == nullptr) {
    ZT_LOG(kModule, "dotpercentSetupUsingPaperAndSolid", "NULL setup record");
    return -1;
  }
  setup->paper_density = paper_density;
  setup->solid_density = solid_density;
  return 0;
}

ZT_API int32_t dotpercetSetYuleNielsen(ZTDotPercentSetup *setup, double n) {
  if (setup == nullptr) {
    ZT_LOG(kModule, "dotpercetSetYuleNielsen", "NULL setup record");
    return -1;
  }
  setup->factor = n;
  return 0;
}

ZT_API double dotpercentFromValue(const ZTDotPercentSetup *setup, const double *value) {
  if (!usable("dotpercentFromValue", setup, value)) return 0.0;
  return from_value(*setup, *value);
}

ZT_API double dotpercentFromValues(const ZTDotPercentSetup *setup, const double *values, uint32_t count) {
  static constexpr const char *kFunction = "dotpercentFromValues";
  if (!usable(kFunction, setup, values)) return 0.0;
  if (count == 0) {
    ZT_LOG(kModule, kFunction, "No readings");
    return 0.0;
  }
  double sum = 0.0;
  for (uint32_t i = 0; i < count; ++i) sum += values[i];
  return from_value(*setup, sum / count);
}

ZT_API int32_t dotpercentFromArray(const ZTDotPercentSetup *setup, const double *values, double *percents,
                                   uint32_t count) {
  static constexpr const char *kFunction = "dotpercentFromArray";
  if (!usable(kFunction, setup, values)) return -1;
  if (percents == nullptr) {
    ZT_LOG(kModule, kFunction, "NULL argument");
    return -1;
  }
  for (uint32_t i = 0; i < count; ++i) percents[i] = from_value(*setup, values[i]);
  return 0;
}

}  // extern "C"
