// What the resampler's files share: the weight tables of one geometry, the
// cache that lends them to contexts, the kernel table and the engine record
// behind a ResampleContext.
#pragma once

#include <zt/resample.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zt::screening {

// Weights along one direction. Output sample j reads `stride` input samples
// from start[j] on (vertical: count[j] of them), weighted by row j of wi
// (8-bit to 8-bit, 14 fraction bits) or wf (every other depth pair).
struct WeightAxis {
  uint32_t inSize = 0;
  uint32_t outSize = 0;
  uint32_t stride = 0;
  std::vector<int32_t> start;
  std::vector<uint32_t> count;
  std::vector<int16_t> wi;
  std::vector<float> wf;
  // The fixed-point row weights again, laid out for the vector row filter:
  // for each pair of outputs (x even, x + 1) and group g of 16 taps, 32
  // values: x's even taps, x + 1's even taps, x's odd taps, x + 1's odd taps.
  std::vector<int16_t> pairedWeights;
};

// The horizontal taps are padded to whole groups of this many, so the vector
// kernel never needs a partial group; zero weights fill the padding.
constexpr uint32_t kHorizontalTapGroup = 16;

struct Weights {
  bool fixedPoint = false;
  WeightAxis h, v;
};

// Builds the weights for a geometry; throws std::bad_alloc.
std::unique_ptr<Weights> build_weights(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                       uint32_t outHeight, bool fixedPoint, ResampleFilterFn filter,
                                       double support);
// Weights along one direction (exposed for the tests of the tables).
void build_axis(WeightAxis &axis, uint32_t inSize, uint32_t outSize, bool fixedPoint, ResampleFilterFn filter,
                double support, uint32_t group, bool monotoneStarts);

// ---------------------------------------------------------------------------
// The cache of weights. One instance serves the resample entry points, one
// the scale entry points.
// ---------------------------------------------------------------------------

struct CacheEntry;

enum class Family { kResample, kScale };

const char *family_module(Family family);
// Weights of `key` with one more reference, or null.
CacheEntry *cache_acquire(Family family, const char *key);
// Enters `weights` under `key` with one reference; null when the key is taken
// or the cache is not running (then the caller keeps its weights).
CacheEntry *cache_insert(Family family, const char *key, std::unique_ptr<Weights> &weights);
void cache_release(Family family, CacheEntry *entry);
const Weights *cache_weights(const CacheEntry *entry);
void cache_start();
void cache_stop();

// ---------------------------------------------------------------------------
// Kernels. Rows are plane rows; columns [x0, x1) of the output are computed.
// ---------------------------------------------------------------------------

struct ResampleKernels {
  // Along the row, 8-bit in, 6-fraction-bit 16-bit out.
  void (*hpass_u8)(int16_t *out, const uint8_t *in, const int16_t *w, const int16_t *paired,
                   const int32_t *start, uint32_t stride, uint32_t x0, uint32_t x1);
  // Across rows, to 8-bit.
  void (*vpass_u8)(uint8_t *out, const int16_t *const *rows, const int16_t *w, uint32_t count, uint32_t x0,
                   uint32_t x1);
  // Single precision.
  void (*hpass_f)(float *out, const float *in, const float *w, const int32_t *start, uint32_t stride,
                  uint32_t x0, uint32_t x1);
  void (*vpass_f8)(uint8_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0,
                   uint32_t x1);
  void (*vpass_f16)(uint16_t *out, const float *const *rows, const float *w, uint32_t count, uint32_t x0,
                    uint32_t x1);
  // An input row in the output's units: 0 as is, 1 times 257, 2 divided by 257.
  void (*to_float_u8)(float *out, const uint8_t *in, size_t n, int32_t mode);
  void (*to_float_u16)(float *out, const uint16_t *in, size_t n, int32_t mode);
};

const ResampleKernels &resample_kernels();
int32_t resample_kernels_init();

// The entry points of both families, logging under the family's module and
// the caller's function name (the family names the module when the context
// is NULL).
ResampleContext *context_create(Family family, const char *function, uint32_t type, uint32_t inWidth,
                                uint32_t inHeight, uint32_t outWidth, uint32_t outHeight, uint32_t planes,
                                uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                                ResampleSkipFn skipScanline, ResampleProducerFn producer, void *userData,
                                uint32_t filterId);
int32_t context_setup_threads(ResampleContext *c, uint32_t threads, Family family, const char *function);
int32_t context_set_filter(ResampleContext *c, uint32_t id, Family family, const char *function);
int32_t context_next_scanline(ResampleContext *c, ScanlineBuf *sb, Family family, const char *function);
void context_free(ResampleContext *c);
int32_t context_cache_init(ResampleContext *c, Family family, const char *function);
int32_t context_cache_add(ResampleContext *c, Family family, const char *function);
int32_t context_cache_remove(ResampleContext *c, Family family, const char *function);

// The context's key in the weight cache: nine numbers in "%x", joined by '_'.
void cache_key(const ResampleContext *context, char *out, size_t size);

}  // namespace zt::screening
