// The colour-difference formulas. The first colour is always the reference
// (the standard) and the second the sample: CIE94 and CMC weight by the
// reference's chroma and hue, so swapping the two changes the result, as it
// does in the instruments these numbers are compared with.
#include <zt/ztcms.h>

#include <cmath>

#include "colour/cms_internal.h"
#include "foundation/internal.h"

namespace zt::colour {
namespace {

constexpr double kPow25To7 = 6103515625.0;  // 25^7

inline double sq(double v) { return v * v; }

inline double pow7(double v) {
  const double v3 = v * v * v;
  return v3 * v3 * v;
}

inline double chroma(const double *lab) { return std::sqrt(lab[1] * lab[1] + lab[2] * lab[2]); }

// The terms the 1976-based formulas share. Only squares of dL and dC are used,
// so their sign does not matter.
struct Terms {
  double dl, dc, dh, c1;
};

inline double delta_e76(const double *ref, const double *smp) {
  return std::sqrt(sq(ref[0] - smp[0]) + sq(ref[1] - smp[1]) + sq(ref[2] - smp[2]));
}

inline Terms terms(const double *ref, const double *smp) {
  Terms t;
  t.c1 = chroma(ref);
  t.dl = ref[0] - smp[0];
  t.dc = t.c1 - chroma(smp);
  const double de = delta_e76(ref, smp);
  // Rounding can leave dE^2 a little below dL^2 + dC^2 for colours of nearly
  // the same hue; the hue difference is then 0, never the root of a negative.
  const double de2 = de * de;
  const double rest = sq(t.dl) + sq(t.dc);
  t.dh = de2 > rest ? std::sqrt(de2 - rest) : 0.0;
  return t;
}

double cmc(const double *ref, const double *smp, double l, double c) {
  const Terms t = terms(ref, smp);
  const double l1 = ref[0];
  const double h1 = hue_degrees(ref[1], ref[2]);
  const double sl = l1 < 16.0 ? 0.511 : 0.040975 * l1 / (1.0 + 0.01765 * l1);
  const double sc = 0.0638 * t.c1 / (1.0 + 0.0131 * t.c1) + 0.638;
  const double c4 = sq(sq(t.c1));
  const double f = std::sqrt(c4 / (c4 + 1900.0));
  const double tt = (h1 >= 164.0 && h1 <= 345.0)
                        ? 0.56 + std::fabs(0.2 * std::cos((h1 + 168.0) * kRadiansPerDegree))
                        : 0.36 + std::fabs(0.4 * std::cos((h1 + 35.0) * kRadiansPerDegree));
  const double sh = sc * (f * tt + 1.0 - f);
  return std::sqrt(sq(t.dl / (l * sl)) + sq(t.dc / (c * sc)) + sq(t.dh / sh));
}

double ciede2000(const double *ref, const double *smp) {
  const double l1 = ref[0], a1 = ref[1], b1 = ref[2];
  const double l2 = smp[0], a2 = smp[1], b2 = smp[2];

  // 1. Chroma-dependent stretch of a*, then C' and h'.
  const double c_bar = (std::sqrt(a1 * a1 + b1 * b1) + std::sqrt(a2 * a2 + b2 * b2)) / 2.0;
  const double c_bar7 = pow7(c_bar);
  const double g = 0.5 * (1.0 - std::sqrt(c_bar7 / (c_bar7 + kPow25To7)));
  const double a1p = a1 * (1.0 + g);
  const double a2p = a2 * (1.0 + g);
  const double c1p = std::sqrt(a1p * a1p + b1 * b1);
  const double c2p = std::sqrt(a2p * a2p + b2 * b2);
  const double h1p = hue_degrees(a1p, b1);
  const double h2p = hue_degrees(a2p, b2);

  // 2. Differences. A neutral colour has no hue, so it contributes no hue
  // difference.
  const double c_prod = c1p * c2p;
  double dhp = h2p - h1p;
  if (dhp > 180.0) {
    dhp -= 360.0;
  } else if (dhp < -180.0) {
    dhp += 360.0;
  }
  if (c_prod == 0) dhp = 0;
  const double d_hp = 2.0 * std::sqrt(c_prod) * std::sin(dhp / 2.0 * kRadiansPerDegree);
  const double d_lp = l2 - l1;
  const double d_cp = c2p - c1p;

  // 3. Means; the mean hue goes the short way round the circle.
  const double l_barp = (l1 + l2) / 2.0;
  const double c_barp = (c1p + c2p) / 2.0;
  const double h_sum = h1p + h2p;
  double h_barp;
  if (c_prod == 0) {
    h_barp = h_sum;
  } else if (std::fabs(h2p - h1p) > 180.0) {
    h_barp = h_sum < 360.0 ? h_sum / 2.0 + 180.0 : h_sum / 2.0 - 180.0;
  } else {
    h_barp = h_sum / 2.0;
  }

  // 4.-6. Weights and the blue-region rotation.
  const double t = 1.0 - 0.17 * std::cos((h_barp - 30.0) * kRadiansPerDegree) +
                   0.24 * std::cos(2.0 * h_barp * kRadiansPerDegree) +
                   0.32 * std::cos((3.0 * h_barp + 6.0) * kRadiansPerDegree) -
                   0.20 * std::cos((4.0 * h_barp - 63.0) * kRadiansPerDegree);
  const double l50 = sq(l_barp - 50.0);
  const double s_l = 1.0 + 0.015 * l50 / std::sqrt(20.0 + l50);
  const double s_c = 1.0 + 0.045 * c_barp;
  const double s_h = 1.0 + 0.015 * c_barp * t;
  const double d_theta = 30.0 * std::exp(-sq((h_barp - 275.0) / 25.0));
  const double c_barp7 = pow7(c_barp);
  const double r_c = 2.0 * std::sqrt(c_barp7 / (c_barp7 + kPow25To7));
  const double r_t = -std::sin(2.0 * d_theta * kRadiansPerDegree) * r_c;

  // 7.
  const double tl = d_lp / s_l, tc = d_cp / s_c, th = d_hp / s_h;
  return std::sqrt(tl * tl + tc * tc + th * th + r_t * tc * th);
}

bool null_pair(const char *function, const double *ref, const double *smp) {
  if (ref != nullptr && smp != nullptr) return false;
  ZT_LOG(kCmsModule, function, "NULL argument");
  return true;
}

}  // namespace
}  // namespace zt::colour

using namespace zt::colour;

extern "C" {

ZT_API double ZTCMS_ColourDiff_DeltaE(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_DeltaE", reference, sample)) return 0.0;
  return delta_e76(reference, sample);
}

ZT_API double ZTCMS_ColourDiff_dH(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_dH", reference, sample)) return 0.0;
  return terms(reference, sample).dh;
}

ZT_API double ZTCMS_ColourDiff_CIE94(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_CIE94", reference, sample)) return 0.0;
  const Terms t = terms(reference, sample);
  const double s_c = 1.0 + 0.045 * t.c1;
  const double s_h = 1.0 + 0.015 * t.c1;
  return std::sqrt(sq(t.dl) + sq(t.dc / s_c) + sq(t.dh / s_h));
}

ZT_API double ZTCMS_ColourDiff_CMC1(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_CMC1", reference, sample)) return 0.0;
  return cmc(reference, sample, 1.0, 1.0);
}

ZT_API double ZTCMS_ColourDiff_CMC2(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_CMC2", reference, sample)) return 0.0;
  return cmc(reference, sample, 2.0, 1.0);
}

ZT_API double ZTCMS_ColourDiff_CIE2000(const double *reference, const double *sample) {
  if (null_pair("ZTCMS_ColourDiff_CIE2000", reference, sample)) return 0.0;
  return ciede2000(reference, sample);
}

}  // extern "C"
