// The exported resample and scale families: thin shims over one engine, each
// logging under its own module.
#include "foundation/internal.h"
#include "screening/resample_internal.h"

using zt::screening::Family;
namespace rs = zt::screening;

namespace {

// The flag setters of both families: 0, or -1 for a NULL context.
int32_t set_flag(ResampleContext *context, uint32_t ResampleContext::*field, uint32_t flag,
                 const char *module, const char *function) {
  if (context == nullptr) {
    ZT_LOG(module, function, "NULL pointer caught");
    return -1;
  }
  context->*field = flag != 0;
  return 0;
}

}  // namespace

extern "C" {

ZT_API int32_t resampleStaticInit(void) {
  rs::cache_start();
  return rs::resample_kernels_init();
}

ZT_API void resampleStaticFree(void) { rs::cache_stop(); }

ZT_API ResampleContext *resampleInit(uint32_t type, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                     uint32_t outHeight, uint32_t planes, uint32_t bppIn, uint32_t bppOut,
                                     ResampleReadFn readScanline, ResampleSkipFn skipScanline,
                                     ResampleProducerFn producer, void *userData) {
  return rs::context_create(Family::kResample, "resampleInit", type, inWidth, inHeight, outWidth, outHeight,
                            planes, bppIn, bppOut, readScanline, skipScanline, producer, userData,
                            ZT_RESAMPLE_DEFAULT_FILTER);
}

ZT_API ResampleContext *resampleInitUsingFilter(uint32_t type, uint32_t inWidth, uint32_t inHeight,
                                                uint32_t outWidth, uint32_t outHeight, uint32_t planes,
                                                uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                                                ResampleSkipFn skipScanline, ResampleProducerFn producer,
                                                void *userData, uint32_t filterId) {
  return rs::context_create(Family::kResample, "resampleInitUsingFilter", type, inWidth, inHeight, outWidth,
                            outHeight, planes, bppIn, bppOut, readScanline, skipScanline, producer, userData,
                            filterId);
}

ZT_API int32_t resampleFilteredSetFilter(ResampleContext *context, uint32_t id) {
  return rs::context_set_filter(context, id, Family::kResample, "resampleFilteredSetFilter");
}

ZT_API int32_t resampleGetNextScanline(ResampleContext *context, ScanlineBuf *scanline) {
  return rs::context_next_scanline(context, scanline, Family::kResample, "resampleGetNextScanline");
}

ZT_API int32_t resampleSetCanSkipScanlines(ResampleContext *context, uint32_t flag) {
  return set_flag(context, &ResampleContext::canSkipScanlines, flag, "resample",
                  "resampleSetCanSkipScanlines");
}

ZT_API int32_t resampleSetIOBoundTask(ResampleContext *context, uint32_t flag) {
  return set_flag(context, &ResampleContext::ioBoundTask, flag, "resample", "resampleSetIOBoundTask");
}

ZT_API int32_t resampleSetupThreads(ResampleContext *context, uint32_t threads) {
  return rs::context_setup_threads(context, threads, Family::kResample, "resampleSetupThreads");
}

ZT_API void resampleFree(ResampleContext *context) { rs::context_free(context); }

ZT_API int32_t resampleFilteredInitFromCache(ResampleContext *context) {
  return rs::context_cache_init(context, Family::kResample, "resampleFilteredInitFromCache");
}
ZT_API int32_t resampleFilteredAddToCache(ResampleContext *context) {
  return rs::context_cache_add(context, Family::kResample, "resampleFilteredAddToCache");
}
ZT_API int32_t resampleFilteredCacheRemoveReference(ResampleContext *context) {
  return rs::context_cache_remove(context, Family::kResample, "resampleFilteredCacheRemoveReference");
}

ZT_API ScaleContext *ScaleInit(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth, uint32_t outHeight,
                               uint32_t planes, uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                               ResampleSkipFn skipScanline, void *userData) {
  return rs::context_create(Family::kScale, "ScaleInit", ZT_RESAMPLE_FILTERED, inWidth, inHeight, outWidth,
                            outHeight, planes, bppIn, bppOut, readScanline, skipScanline, nullptr, userData,
                            ZT_SCALE_DEFAULT_FILTER);
}

ZT_API ScaleContext *ScaleInitUsingFilter(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                          uint32_t outHeight, uint32_t planes, uint32_t bppIn,
                                          uint32_t bppOut, ResampleReadFn readScanline,
                                          ResampleSkipFn skipScanline, void *userData, uint32_t filterId) {
  return rs::context_create(Family::kScale, "ScaleInitUsingFilter", ZT_RESAMPLE_FILTERED, inWidth, inHeight,
                            outWidth, outHeight, planes, bppIn, bppOut, readScanline, skipScanline, nullptr,
                            userData, filterId);
}

ZT_API int32_t FilteredScaleSetFilter(ScaleContext *context, uint32_t id) {
  return rs::context_set_filter(context, id, Family::kScale, "FilteredScaleSetFilter");
}

ZT_API int32_t ScaleGetNextScanline(ScaleContext *context, ScanlineBuf *scanline) {
  return rs::context_next_scanline(context, scanline, Family::kScale, "ScaleGetNextScanline");
}

ZT_API int32_t ScaleSetCanSkipScanlines(ScaleContext *context, uint32_t flag) {
  return set_flag(context, &ResampleContext::canSkipScanlines, flag, "scale", "ScaleSetCanSkipScanlines");
}

ZT_API void ScaleFree(ScaleContext *context) { rs::context_free(context); }

ZT_API int32_t scaleFilteredInitFromCache(ScaleContext *context) {
  return rs::context_cache_init(context, Family::kScale, "scaleFilteredInitFromCache");
}
ZT_API int32_t scaleFilteredAddToCache(ScaleContext *context) {
  return rs::context_cache_add(context, Family::kScale, "scaleFilteredAddToCache");
}
ZT_API int32_t scaleFilteredCacheRemoveReference(ScaleContext *context) {
  return rs::context_cache_remove(context, Family::kScale, "scaleFilteredCacheRemoveReference");
}

}  // extern "C"
