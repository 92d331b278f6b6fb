// The exported dither family. The engine itself (noise tables, kernels) is in
// raster, where scanline buffers convert through it; these are its shims.
#include <zt/dither.h>
#include <zt/random.h>
#include <zt/screening.h>

#include <cmath>
#include <cstdlib>

#include "foundation/internal.h"
#include "raster/buf_internal.h"
#include "raster/row_dither.h"

namespace {
constexpr const char *kDitherModule = "dither";
}

extern "C" {

ZT_API int32_t ditherStaticInit(void) {
  return zt::api_guard<int32_t>(kDitherModule, "ditherStaticInit", -1, [] {
    return zt::raster::dither_tables_init(kDitherModule, "ditherStaticInit");
  });
}

ZT_API void ditherStaticFree(void) { zt::raster::dither_tables_free(); }

ZT_API int32_t ditherSetup(DitherContext *context, uint32_t method, uint32_t noiseKind) {
  if (context == nullptr) return -1;
  zt::raster::dither_setup(context, method, noiseKind);
  return 0;
}

ZT_API void ditherBuf16To8(DitherContext *context, uint8_t *out, const uint16_t *in, uint32_t width) {
  if (context == nullptr || out == nullptr || in == nullptr) return;
  zt::raster::dither_16to8(context, out, in, width);
}

ZT_API void ditherBuf24To8(DitherContext *context, uint8_t *out, const uint32_t *in, uint32_t width) {
  if (context == nullptr || out == nullptr || in == nullptr) return;
  zt::raster::dither_24to8(context, out, in, width);
}

ZT_API void ditherCleanup(DitherContext *context, int32_t freeContext) {
  if (context == nullptr) return;
  // Only whole-image contexts hold screening objects, one a channel.
  if (context->channelScreens != nullptr)
    for (uint32_t c = 0; c < context->channelCount; ++c)
      DestroyScreeningObject(static_cast<ScreeningObject *>(context->channelScreens[c]));
  std::free(context->channelScreens);
  context->channelScreens = nullptr;
  context->channelCount = 0;
  if (freeContext != 0) std::free(context);
}

ZT_API double TPDF(double low, double mode, double high) {
  const double u = static_cast<double>(ZT_random32()) / 4294967295.0;
  const double span = high - low;
  if (span <= 0.0) return low;
  if ((mode - low) / span >= u) return low + std::sqrt(u * span * (mode - low));
  return high - std::sqrt((1.0 - u) * span * (high - mode));
}

}  // extern "C"
