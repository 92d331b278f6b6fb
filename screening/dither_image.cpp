// Whole-image dithering (method 5): every channel of a 16-bit image is
// screened to 8-bit tone values by its own error-diffusion object, so that a
// gradient is reduced without bands and without the noise tables.
#include <zt/dither.h>
#include <zt/screening.h>

#include <cstdlib>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace {
constexpr const char *kDitherModule = "dither";
}

extern "C" {

ZT_API int32_t ditherSetupImage16to8(DitherContext *context, uint32_t width, uint32_t channels) {
  const char *function = "ditherSetupImage16to8";
  return zt::api_guard<int32_t>(kDitherModule, function, -1, [&]() -> int32_t {
    if (context == nullptr || channels == 0) {
      ZT_LOG(kDitherModule, function, "Cannot allocate memory");
      return -1;
    }
    void **screens = static_cast<void **>(std::calloc(channels, sizeof(void *)));
    if (screens == nullptr) {
      ZT_LOG(kDitherModule, function, "Cannot allocate memory");
      return -1;
    }
    for (uint32_t c = 0; c < channels; ++c) {
      screens[c] = CreateScreeningObject16To8(ZT_SCREEN_STOCHASTIC, width);
      if (screens[c] == nullptr) {
        for (uint32_t k = 0; k < c; ++k) DestroyScreeningObject(static_cast<ScreeningObject *>(screens[k]));
        std::free(screens);
        ZT_LOG(kDitherModule, function, "Cannot allocate memory");
        return -1;
      }
    }
    context->method = ZT_DITHER_IMAGE;
    context->tableStart = context->tableEnd = context->tableCursor = nullptr;
    context->channelScreens = screens;
    context->channelCount = channels;
    context->lineNumber = 0;
    return 0;
  });
}

ZT_API int32_t ditherSetupImage(DitherContext *context, uint32_t inputBits, uint32_t channels,
                                uint32_t outputBits, uint32_t width) {
  if (inputBits != 16 || outputBits != 8) {
    ZT_LOG(kDitherModule, "ditherSetupImage", "%u bpp to %u bpp transformation not implemented", inputBits,
           outputBits);
    return -1;
  }
  return ditherSetupImage16to8(context, width, channels);
}

ZT_API int32_t ditherImage16To8(DitherContext *context, uint8_t *out, uint16_t *in, uint32_t width,
                                size_t stride) {
  if (context == nullptr || out == nullptr || in == nullptr || context->channelScreens == nullptr ||
      context->method != ZT_DITHER_IMAGE || (context->channelCount > 1 && stride < width)) {
    ZT_LOG(kDitherModule, "ditherImage16To8", "%u bpp to %u bpp transformation not implemented", 16u, 8u);
    return -1;
  }
  for (uint32_t c = 0; c < context->channelCount; ++c) {
    ScreeningObject *screen = static_cast<ScreeningObject *>(context->channelScreens[c]);
    if (screen->screenScanline(screen, in + c * stride, out + c * stride, width, context->lineNumber) != 0)
      return -1;
  }
  ++context->lineNumber;
  return 0;
}

}  // extern "C"
