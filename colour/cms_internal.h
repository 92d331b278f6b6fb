// Shared by the colour-arithmetic modules: the library's angle constants, the
// hue helper built on them, and the start-up hooks of the adaptation tables.
#pragma once

#include <cmath>

namespace zt::colour {

inline constexpr const char *kCmsModule = "icc_colourspaces";

// The library has always measured hues with these truncated values rather than
// the full-precision pi. Stored colour differences and hue angles depend on
// them in the sixth digit, so they stay as they are.
inline constexpr double kPi = 3.14159;
inline constexpr double kTwoPi = 6.28318;
inline constexpr double kDegreesPerRadian = 180.0 / kPi;
inline constexpr double kRadiansPerDegree = kPi / 180.0;

// Hue angle of (a, b) in degrees, in [0, 360). Because 6.28318 * 180 / 3.14159
// is exactly 360, an angle a hair below zero would come out as 360; we fold
// that one case back to the start of the circle.
inline double hue_degrees(double a, double b) {
  double h = std::atan2(b, a);
  if (h < 0) h += kTwoPi;
  h *= kDegreesPerRadian;
  if (h >= 360.0) h -= 360.0;
  return h;
}

}  // namespace zt::colour

// Start-up hooks (composition root only): the inverse cone matrices are
// computed once before any caller can adapt a colour. Both are idempotent.
extern "C" {
void ZTCMSStaticInit(void);
void ZTCMSStaticFree(void);
}
