// Levels: the tone value each drop size reproduces (densities), the values
// above which it is chosen (thresholds) and the code it is written with.
// Evenly spaced by default, or from the measured drops of a paper profile.
#include <zt/dotpercent.h>

#include <cmath>
#include <cstdlib>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

double full_scale(uint32_t bits) { return bits == 16 ? 65535.0 : 255.0; }

// Each expression is evaluated as written, left to right in doubles; the
// build uses -ffp-contract=off, so no fused multiply-add moves a threshold.
uint16_t even_density(uint32_t i, double s) { return static_cast<uint16_t>(std::floor(i * s + 0.5)); }

uint16_t midpoint(double a, double b) { return static_cast<uint16_t>(std::floor(0.5 + a + (b - a) * 0.5)); }

struct LevelArrays {
  uint16_t *thresholds = nullptr, *densities = nullptr, *codes = nullptr;
  ~LevelArrays() {
    std::free(thresholds);
    std::free(densities);
    std::free(codes);
  }
  bool allocate(uint32_t levels) {
    thresholds = static_cast<uint16_t *>(std::calloc(levels, sizeof(uint16_t)));
    densities = static_cast<uint16_t *>(std::calloc(levels, sizeof(uint16_t)));
    codes = static_cast<uint16_t *>(std::calloc(levels, sizeof(uint16_t)));
    return thresholds != nullptr && densities != nullptr && codes != nullptr;
  }
  void hand_over(uint16_t **t, uint16_t **d, uint16_t **c) {
    *t = thresholds;
    *d = densities;
    *c = codes;
    thresholds = densities = codes = nullptr;
  }
};

void clear_outputs(uint16_t **t, uint16_t **d, uint16_t **c) {
  if (t != nullptr) *t = nullptr;
  if (d != nullptr) *d = nullptr;
  if (c != nullptr) *c = nullptr;
}

// Checks shared by every profile variant; logs under `function`.
bool profile_usable(const ScreeningSettings *settings, uint32_t levels, uint16_t **t, uint16_t **d,
                    uint16_t **c, const char *function) {
  if (settings == nullptr || t == nullptr || d == nullptr || c == nullptr) {
    ZT_LOG(kModule, function, "Cannot create variable dot screening arrays");
    return false;
  }
  if (levels < 2 || settings->drops == nullptr || settings->dropCount != levels) {
    ZT_LOG(kModule, function, "Unsupported number of levels %d and bpp %d", static_cast<int>(levels),
           static_cast<int>(settings->outputBits));
    return false;
  }
  for (uint32_t i = 0; i < levels; ++i) {
    if (settings->drops[i].dotCode > 0xFFFF)
      ZT_LOG(kModule, function,
             "warning: Paper profile cotains a dot size of %d, which does not fit into 16 bits",
             static_cast<int>(settings->drops[i].dotCode));
  }
  return true;
}

// Steps 3 to 6 shared by the variants: `percent[i]` is each drop's dot
// percentage. Fills the arrays and checks that they rise strictly.
int32_t finish_profile(const ScreeningSettings *settings, uint32_t levels, const double *percent,
                       uint16_t **t, uint16_t **d, uint16_t **c, uint32_t bits, const char *function) {
  LevelArrays arrays;
  if (!arrays.allocate(levels)) {
    ZT_LOG(kModule, function, "Cannot allocate memory for thresholds");
    return -1;
  }
  const double m = full_scale(bits);
  for (uint32_t i = 0; i < levels; ++i) {
    const double p = percent[i];
    // NaN and out-of-range percentages fail the ordering check below rather
    // than wrap in the conversion.
    const double v = std::isfinite(p) ? std::floor(m * p / 100.0 + 0.5) : -1.0;
    arrays.densities[i] = v < 0.0 ? 0 : v > m ? static_cast<uint16_t>(m) : static_cast<uint16_t>(v);
    arrays.codes[i] = static_cast<uint16_t>(settings->drops[i].dotCode);
  }
  arrays.thresholds[0] = 0;
  for (uint32_t i = 1; i < levels; ++i)
    arrays.thresholds[i] = midpoint(arrays.densities[i - 1], arrays.densities[i]);
  bool rising = true;
  for (uint32_t i = 0; i < levels; ++i) {
    if (!std::isfinite(percent[i])) rising = false;
    if (i > 0 &&
        (arrays.densities[i] <= arrays.densities[i - 1] || arrays.thresholds[i] <= arrays.thresholds[i - 1]))
      rising = false;
  }
  if (!rising) {
    ZT_LOG(kModule, function,
           "Inconsistent data in paperprofile, some pixels are lighter or the same density. Please fix and "
           "try again");
    return -1;
  }
  arrays.hand_over(t, d, c);
  return 0;
}

int32_t from_lab(const ScreeningSettings *settings, uint32_t levels, uint16_t **t, uint16_t **d, uint16_t **c,
                 uint32_t bits, bool v2, const char *function) {
  clear_outputs(t, d, c);
  if (!profile_usable(settings, levels, t, d, c, function)) return -1;
  double x[16], y[16], z[16], r[16], percent[16];
  if (levels > 16) {
    ZT_LOG(kModule, function, "Unsupported number of levels %d and bpp %d", static_cast<int>(levels),
           static_cast<int>(settings->outputBits));
    return -1;
  }
  for (uint32_t i = 0; i < levels; ++i) {
    x[i] = settings->drops[i].xyz[0];
    y[i] = settings->drops[i].xyz[1];
    z[i] = settings->drops[i].xyz[2];
  }
  int32_t selector = ZT_REFLECTANCE_AUTO;
  if (v2) {
    switch (settings->separationType) {
      case 11:
        selector = ZT_REFLECTANCE_X;
        break;
      case 12:
      case 14:
        selector = ZT_REFLECTANCE_Y;
        break;
      case 13:
        selector = ZT_REFLECTANCE_Z;
        break;
      default:
        break;
    }
  }
  getXYZChannelToUseAsReflectance(x, y, z, levels, selector, r);
  double r_max = r[0], r_min = r[0];
  for (uint32_t i = 1; i < levels; ++i) {
    r_max = std::fmax(r_max, r[i]);
    r_min = std::fmin(r_min, r[i]);
  }
  if (v2) {
    for (uint32_t i = 0; i < levels; ++i)
      percent[i] = dotPercentFromReflectanceMinusDotgain(r[i], r_max, r_min, 0.15);
  } else {
    const double n = settings->yuleNielsen > 0.0 ? settings->yuleNielsen : 1.0;
    const double d_min = -std::log10(r_max), d_max = -std::log10(r_min);
    for (uint32_t i = 0; i < levels; ++i)
      percent[i] = dotPercentFromDensity(-std::log10(r[i]), d_min, d_max, n);
  }
  return finish_profile(settings, levels, percent, t, d, c, bits, function);
}

}  // namespace
}  // namespace zt::screening

using namespace zt::screening;

extern "C" {

ZT_API int32_t GeneratePixelThresholds(uint32_t levels, uint16_t *thresholds, uint32_t bits) {
  if (thresholds == nullptr || levels < 2) {
    ZT_LOG(kModule, "GeneratePixelThresholds", "Unsupported number of levels %d and bpp %d",
           static_cast<int>(levels), static_cast<int>(bits));
    return -1;
  }
  const double s = full_scale(bits) / (levels - 1);
  thresholds[0] = 0;
  for (uint32_t i = 1; i < levels; ++i) thresholds[i] = midpoint((i - 1) * s, i * s);
  return 0;
}

ZT_API int32_t GeneratePixelDensities(uint32_t levels, uint16_t *densities, uint32_t bits) {
  if (densities == nullptr || levels < 2) {
    ZT_LOG(kModule, "GeneratePixelDensities", "Unsupported number of levels %d and bpp %d",
           static_cast<int>(levels), static_cast<int>(bits));
    return -1;
  }
  const double s = full_scale(bits) / (levels - 1);
  for (uint32_t i = 0; i < levels; ++i) densities[i] = even_density(i, s);
  return 0;
}

ZT_API int32_t GeneratePixelDotsizes(uint32_t levels, uint16_t *dotCodes) {
  if (dotCodes == nullptr || levels < 2) {
    ZT_LOG(kModule, "GeneratePixelDotsizes", "Unsupported number of levels %d and bpp %d",
           static_cast<int>(levels), 0);
    return -1;
  }
  for (uint32_t i = 0; i < levels; ++i) dotCodes[i] = static_cast<uint16_t>(i);
  return 0;
}

ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromLabV1(const ScreeningSettings *settings,
                                                            uint32_t levels, uint16_t **thresholds,
                                                            uint16_t **densities, uint16_t **dotCodes,
                                                            uint32_t bits) {
  return zt::api_guard<int32_t>(kModule, "GeneratePixelThresholdsAndDensitiesFromLabV1", -1, [&] {
    return from_lab(settings, levels, thresholds, densities, dotCodes, bits, false,
                    "GeneratePixelThresholdsAndDensitiesFromLabV1");
  });
}

ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromLabV2(const ScreeningSettings *settings,
                                                            uint32_t levels, uint16_t **thresholds,
                                                            uint16_t **densities, uint16_t **dotCodes,
                                                            uint32_t bits) {
  return zt::api_guard<int32_t>(kModule, "GeneratePixelThresholdsAndDensitiesFromLabV2", -1, [&] {
    return from_lab(settings, levels, thresholds, densities, dotCodes, bits, true,
                    "GeneratePixelThresholdsAndDensitiesFromLabV2");
  });
}

// Measured densities, paper first: the same Yule-Nielsen rule as V1, with the
// lightest and darkest drop as the two ends. The drops must already be in
// order of density; a profile saved out of order is refused.
ZT_API int32_t GeneratePixelThresholdsAndDensitiesFromDensity(const ScreeningSettings *settings,
                                                              uint32_t levels, uint16_t **thresholds,
                                                              uint16_t **densities, uint16_t **dotCodes,
                                                              uint32_t bits) {
  const char *function = "GeneratePixelThresholdsAndDensitiesFromDensity";
  return zt::api_guard<int32_t>(kModule, function, -1, [&]() -> int32_t {
    clear_outputs(thresholds, densities, dotCodes);
    if (!profile_usable(settings, levels, thresholds, densities, dotCodes, function)) return -1;
    if (levels > 16) {
      ZT_LOG(kModule, function, "Unsupported number of levels %d and bpp %d", static_cast<int>(levels),
             static_cast<int>(settings->outputBits));
      return -1;
    }
    for (uint32_t i = 1; i < levels; ++i) {
      if (!(settings->drops[i].density >= settings->drops[i - 1].density)) {
        ZT_LOG(kModule, function,
               "Dots must be ordered by density in the paperprofile, please resave and try again");
        return -1;
      }
    }
    const double n = settings->yuleNielsen > 0.0 ? settings->yuleNielsen : 1.0;
    double percent[16];
    const double d_min = settings->drops[0].density, d_max = settings->drops[levels - 1].density;
    for (uint32_t i = 0; i < levels; ++i)
      percent[i] = dotPercentFromDensity(settings->drops[i].density, d_min, d_max, n);
    return finish_profile(settings, levels, percent, thresholds, densities, dotCodes, bits, function);
  });
}

ZT_API int32_t GeneratePixelThresholdsAndDensities(const ScreeningSettings *settings, uint32_t levels,
                                                   uint16_t **thresholds, uint16_t **densities,
                                                   uint16_t **dotCodes, uint32_t bits) {
  if (settings != nullptr && settings->levelSource == ZT_LEVELS_LAB_V1)
    return GeneratePixelThresholdsAndDensitiesFromLabV1(settings, levels, thresholds, densities, dotCodes,
                                                        bits);
  if (settings != nullptr && settings->levelSource == ZT_LEVELS_LAB_V2)
    return GeneratePixelThresholdsAndDensitiesFromLabV2(settings, levels, thresholds, densities, dotCodes,
                                                        bits);
  if (settings != nullptr && settings->levelSource == ZT_LEVELS_DENSITY)
    return GeneratePixelThresholdsAndDensitiesFromDensity(settings, levels, thresholds, densities, dotCodes,
                                                          bits);
  return zt::api_guard<int32_t>(kModule, "GeneratePixelThresholdsAndDensities", -1, [&]() -> int32_t {
    clear_outputs(thresholds, densities, dotCodes);
    if (thresholds == nullptr || densities == nullptr || dotCodes == nullptr) {
      ZT_LOG(kModule, "GeneratePixelThresholdsAndDensities", "Cannot create variable dot screening arrays");
      return -1;
    }
    LevelArrays arrays;
    if (levels < 2 || !arrays.allocate(levels)) {
      ZT_LOG(kModule, "GeneratePixelThresholdsAndDensities", "Cannot allocate memory for thresholds");
      return -1;
    }
    GeneratePixelThresholds(levels, arrays.thresholds, bits);
    GeneratePixelDensities(levels, arrays.densities, bits);
    GeneratePixelDotsizes(levels, arrays.codes);
    arrays.hand_over(thresholds, densities, dotCodes);
    return 0;
  });
}

ZT_API int32_t getXYZChannelToUseAsReflectance(const double *x, const double *y, const double *z,
                                               uint32_t count, int32_t selector, double *out) {
  if (x == nullptr || y == nullptr || z == nullptr || out == nullptr || count == 0) {
    ZT_LOG(kModule, "getXYZChannelToUseAsReflectance", "Cannot create variable dot screening arrays");
    return -1;
  }
  const double *columns[3] = {x, y, z};
  int32_t pick = selector;
  if (pick < ZT_REFLECTANCE_X || pick > ZT_REFLECTANCE_Z) {
    // The ink absorbs most where its drops spread widest on a log scale:
    // that column gives the densities the best resolution. Y wins ties.
    const int32_t order[3] = {ZT_REFLECTANCE_Y, ZT_REFLECTANCE_X, ZT_REFLECTANCE_Z};
    double best = -1.0;
    pick = ZT_REFLECTANCE_Y;
    for (int32_t column : order) {
      const double *v = columns[column - 1];
      double hi = v[0], lo = v[0];
      for (uint32_t i = 1; i < count; ++i) {
        hi = std::fmax(hi, v[i]);
        lo = std::fmin(lo, v[i]);
      }
      const double range = lo > 0.0 ? hi / lo : (hi > 0.0 ? 1e300 : 0.0);
      if (range > best) {
        best = range;
        pick = column;
      }
    }
  }
  for (uint32_t i = 0; i < count; ++i) out[i] = columns[pick - 1][i];
  return pick;
}

}  // extern "C"
