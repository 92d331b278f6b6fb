// RGB conversion records: the default record, and RGB to and from XYZ through
// its matrices and per-channel tone curves or gammas.
#include <zt/ztcms.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "colour/cms_internal.h"
#include "foundation/internal.h"

namespace zt::colour {
namespace {

constexpr double kDefaultRgbToXyz[9] = {0.4359763, 0.385197,  0.1430267, 0.2224428, 0.7169661,
                                        0.0605911, 0.0139132, 0.097089,  0.7138978};
constexpr double kDefaultXyzToRgb[9] = {3.1347548, -1.6177241, -0.490734,  -0.9786604, 1.9160311,
                                        0.0334504, 0.072003,   -0.2290494, 1.4057754};

// White, black point, colourants relative to D50, media white, black point
// again, colourants relative to D65: the thirty values that follow the
// matrices in the record.
constexpr double kDefaultColourants[30] = {
    0.9642,   1.0,      0.8249,   0.012054, 0.012497, 0.010315, 0.436066, 0.222488, 0.013916, 0.385147,
    0.716873, 0.097076, 0.143066, 0.060608, 0.714096, 0.950398, 0.999996, 1.088919, 0.012054, 0.012497,
    0.010315, 0.4124,   0.212638, 0.019323, 0.357597, 0.715143, 0.1192,   0.180487, 0.072185, 0.950641,
};
static_assert(offsetof(ZTCMS_RGBConv, blue_d65) + 3 * sizeof(double) - offsetof(ZTCMS_RGBConv, white_d50) ==
                  sizeof kDefaultColourants,
              "the colourant triples follow one another without padding");

constexpr double kDefaultGamma = 2.2;

inline double clamp(double v, double lo, double hi) {
  if (v < lo) return lo;
  if (v > hi) return hi;
  return v;
}

bool has_table(const ZTCMS_ToneCurve &tone, const uint16_t *table) {
  return table != nullptr && tone.count >= 2;
}

// Looks the 16-bit value v up in `table`: the entry itself where v falls on an
// entry's position, otherwise the straight line between the two entries
// around it, rounded half up.
double curve_lookup(const ZTCMS_ToneCurve &tone, const uint16_t *table, double v) {
  const double p = v * tone.scale;
  const uint32_t last_cell = tone.count - 2;
  // A scale that does not fit the table must not walk off either end.
  uint32_t i;
  if (!(p >= 0)) {
    i = 0;
  } else if (p >= static_cast<double>(last_cell)) {
    i = last_cell;
  } else {
    i = static_cast<uint32_t>(p);
  }
  const double x0 = i * tone.step;
  const double x1 = (i + 1) * tone.step;
  double r;
  if (v == x0) {
    r = table[i];
  } else if (v == x1) {
    r = table[i + 1];
  } else {
    const double t = x1 == x0 ? 0.0 : (v - x0) / (x1 - x0);
    r = table[i] + (static_cast<double>(table[i + 1]) - table[i]) * t;
  }
  // Rounded half up; a table or scale that yields NaN reads as 0 rather than
  // reaching an undefined conversion.
  r += 0.5;
  if (!(r >= 0.0)) r = 0.0;
  if (r > 65535.0) r = 65535.0;
  return static_cast<double>(static_cast<uint16_t>(r));
}

void free_tables(ZTCMS_RGBConv *record) {
  for (ZTCMS_ToneCurve &tone : record->tone) {
    std::free(tone.curve);
    std::free(tone.inverse);
    tone.curve = nullptr;
    tone.inverse = nullptr;
  }
}

}  // namespace
}  // namespace zt::colour

using namespace zt::colour;

extern "C" {

ZT_API int32_t ZTCMS_MakeDefaultRGBConvMatrices(ZTCMS_RGBConv *record, uint32_t flags) {
  if (record == nullptr) {
    ZT_LOG(kCmsModule, "ZTCMS_MakeDefaultRGBConvMatrices", "NULL record");
    return -1;
  }
  std::memcpy(record->rgb_to_xyz, kDefaultRgbToXyz, sizeof kDefaultRgbToXyz);
  std::memcpy(record->xyz_to_rgb, kDefaultXyzToRgb, sizeof kDefaultXyzToRgb);
  std::memcpy(record->white_d50, kDefaultColourants, sizeof kDefaultColourants);
  for (double &g : record->gamma) g = kDefaultGamma;
  free_tables(record);
  for (ZTCMS_ToneCurve &tone : record->tone) {
    tone.count = 0;
    tone.scale = 0;
    tone.step = 0;
  }
  record->flags = flags;
  return 0;
}

ZT_API void ZTCMS_FreeRGBConvMatrices(ZTCMS_RGBConv *record) {
  if (record != nullptr) free_tables(record);
}

ZT_API void ZTCMS_RGBToXYZ(const ZTCMS_RGBConv *record, uint8_t flags, double *rgb, double *xyz) {
  if (record == nullptr || rgb == nullptr || xyz == nullptr) {
    ZT_LOG(kCmsModule, "ZTCMS_RGBToXYZ", "NULL argument");
    return;
  }
  double linear[3];
  if (flags & ZTCMS_RGB_TONE_CURVES) {
    for (int k = 0; k < 3; ++k) {
      const double c = clamp(rgb[k], 0.0, 255.0);
      rgb[k] = c;  // the caller sees the clamped value, as it always has
      const ZTCMS_ToneCurve &tone = record->tone[k];
      double lin;
      if (has_table(tone, tone.curve)) {
        lin = curve_lookup(tone, tone.curve, std::floor(257.0 * c + 0.5)) / 65535.0;
      } else {
        lin = std::pow(c / 255.0, record->gamma[k]);
      }
      linear[k] = clamp(lin, 0.0, 1.0);
    }
  } else {
    for (int k = 0; k < 3; ++k) linear[k] = rgb[k] / 255.0;
  }
  const double *m = record->rgb_to_xyz;
  xyz[0] = m[0] * linear[0] + m[1] * linear[1] + m[2] * linear[2];
  xyz[1] = m[3] * linear[0] + m[4] * linear[1] + m[5] * linear[2];
  xyz[2] = m[6] * linear[0] + m[7] * linear[1] + m[8] * linear[2];
}

ZT_API void ZTCMS_XYZToRGB(const ZTCMS_RGBConv *record, uint8_t flags, const double *xyz, double *rgb) {
  if (record == nullptr || rgb == nullptr || xyz == nullptr) {
    ZT_LOG(kCmsModule, "ZTCMS_XYZToRGB", "NULL argument");
    return;
  }
  const double *m = record->xyz_to_rgb;
  const double x = xyz[0], y = xyz[1], z = xyz[2];
  const double linear[3] = {
      clamp(m[0] * x + m[1] * y + m[2] * z, 0.0, 1.0),
      clamp(m[3] * x + m[4] * y + m[5] * z, 0.0, 1.0),
      clamp(m[6] * x + m[7] * y + m[8] * z, 0.0, 1.0),
  };
  for (int k = 0; k < 3; ++k) {
    if (!(flags & ZTCMS_RGB_TONE_CURVES)) {
      rgb[k] = 255.0 * linear[k];
      continue;
    }
    const ZTCMS_ToneCurve &tone = record->tone[k];
    double c;
    if (has_table(tone, tone.inverse)) {
      c = curve_lookup(tone, tone.inverse, std::floor(65535.0 * linear[k] + 0.5)) / 257.0;
    } else {
      c = 255.0 * std::pow(linear[k], 1.0 / record->gamma[k]);
    }
    rgb[k] = clamp(c, 0.0, 255.0);
  }
}

}  // extern "C"
