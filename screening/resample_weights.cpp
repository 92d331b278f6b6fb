// Weight tables of the resampler, the caches that share them between
// contexts of one geometry, and the baseline copy of the kernels.
#define ZT_KERNEL_NS baseline
#include "screening/resample_kernels.h"
#undef ZT_KERNEL_NS

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <string>

#include "foundation/locks.h"
#include "foundation/simd_dispatch.h"
#include "foundation/internal.h"
#include "screening/resample_internal.h"

namespace zt::screening {

namespace avx2 {
void hpass_u8(int16_t *, const uint8_t *, const int16_t *, const int16_t *, const int32_t *, uint32_t,
              uint32_t, uint32_t);
void vpass_u8(uint8_t *, const int16_t *const *, const int16_t *, uint32_t, uint32_t, uint32_t);
void hpass_f(float *, const float *, const float *, const int32_t *, uint32_t, uint32_t, uint32_t);
void vpass_f8(uint8_t *, const float *const *, const float *, uint32_t, uint32_t, uint32_t);
void vpass_f16(uint16_t *, const float *const *, const float *, uint32_t, uint32_t, uint32_t);
void to_float_u8(float *, const uint8_t *, size_t, int32_t);
void to_float_u16(float *, const uint16_t *, size_t, int32_t);
}  // namespace avx2

namespace {

constexpr ResampleKernels kBaseline = {baseline::hpass_u8,    baseline::vpass_u8,  baseline::hpass_f,
                                       baseline::vpass_f8,    baseline::vpass_f16, baseline::to_float_u8,
                                       baseline::to_float_u16};
constexpr ResampleKernels kAvx2 = {avx2::hpass_u8,  avx2::vpass_u8,    avx2::hpass_f,     avx2::vpass_f8,
                                   avx2::vpass_f16, avx2::to_float_u8, avx2::to_float_u16};

ResampleKernels g_kernels = kBaseline;

void refill_resample(int32_t level) { g_kernels = level >= ZT_SIMD_AVX2 ? kAvx2 : kBaseline; }

// Fixed point: 14 fraction bits, so that a weight above one still fits in 16
// bits. Single precision: a grid of 2^-20, fine enough for 16-bit samples and
// coarse enough that every sum of weights is exact in a float.
constexpr int64_t kFixedOne = 1 << 14;
constexpr int64_t kFloatOne = 1 << 20;

// Rounds normalised weights to the grid `one` and gives what the rounding
// left over to the largest, so that they sum to exactly `one`.
void quantise(const std::vector<double> &w, int64_t one, std::vector<int64_t> &q) {
  q.resize(w.size());
  int64_t sum = 0;
  size_t largest = 0;
  for (size_t k = 0; k < w.size(); ++k) {
    q[k] = std::llround(w[k] * static_cast<double>(one));
    sum += q[k];
    if (std::fabs(w[k]) > std::fabs(w[largest])) largest = k;
  }
  q[largest] += one - sum;
}

}  // namespace

const ResampleKernels &resample_kernels() { return g_kernels; }
int32_t resample_kernels_init() { return zt::simd_register_table(&refill_resample); }

void build_axis(WeightAxis &axis, uint32_t inSize, uint32_t outSize, bool fixedPoint, ResampleFilterFn filter,
                double support, uint32_t group, bool monotoneStarts) {
  axis = WeightAxis{};
  axis.inSize = inSize;
  axis.outSize = outSize;
  const double ratio = static_cast<double>(inSize) / outSize;
  // Shrinking stretches the filter over ratio input samples.
  const double stretch = ratio > 1.0 ? ratio : 1.0;
  const double radius = support * stretch;
  const int64_t last = int64_t{inSize} - 1;

  std::vector<int32_t> starts(outSize);
  std::vector<std::vector<int64_t>> taps(outSize);
  std::vector<double> bucket;
  std::vector<int64_t> q;
  uint32_t widest = 1;
  for (uint32_t j = 0; j < outSize; ++j) {
    const double centre = (j + 0.5) * ratio - 0.5;
    const int64_t lo = static_cast<int64_t>(std::floor(centre - radius));
    const int64_t hi = static_cast<int64_t>(std::ceil(centre + radius));
    const int64_t blo = std::clamp<int64_t>(lo, 0, last);
    const int64_t bhi = std::clamp<int64_t>(hi, 0, last);
    bucket.assign(static_cast<size_t>(bhi - blo + 1), 0.0);
    // Taps beyond the edges fall on the edge sample: the edge repeats.
    for (int64_t i = lo; i <= hi; ++i)
      bucket[static_cast<size_t>(std::clamp<int64_t>(i, 0, last) - blo)] +=
          filter((static_cast<double>(i) - centre) / stretch);
    double sum = 0.0;
    for (double w : bucket) sum += w;
    if (!(std::fabs(sum) > 1e-12)) {
      // No tap reached: take the nearest sample.
      bucket.assign(bucket.size(), 0.0);
      bucket[static_cast<size_t>(std::clamp<int64_t>(std::llround(centre), blo, bhi) - blo)] = 1.0;
      sum = 1.0;
    }
    for (double &w : bucket) w /= sum;
    quantise(bucket, fixedPoint ? kFixedOne : kFloatOne, q);
    // Zero weights at the ends of the window cost taps and nothing else.
    size_t first = 0;
    size_t end = q.size();
    while (first + 1 < end && q[first] == 0) ++first;
    while (end > first + 1 && q[end - 1] == 0) --end;
    starts[j] = static_cast<int32_t>(blo + static_cast<int64_t>(first));
    taps[j].assign(q.begin() + static_cast<std::ptrdiff_t>(first),
                   q.begin() + static_cast<std::ptrdiff_t>(end));
  }
  // Across rows the ring lets go of lines below a window's start, so starts
  // must never go back: a window that would is widened with zero weights.
  std::vector<uint32_t> offset(outSize, 0);
  if (monotoneStarts) {
    for (uint32_t j = outSize - 1; j-- > 0;) {
      if (starts[j] > starts[j + 1]) {
        offset[j] = static_cast<uint32_t>(starts[j] - starts[j + 1]);
        starts[j] = starts[j + 1];
      }
    }
  }
  for (uint32_t j = 0; j < outSize; ++j)
    widest = std::max(widest, offset[j] + static_cast<uint32_t>(taps[j].size()));
  axis.stride = group > 1 ? (widest + group - 1) / group * group : widest;
  if (group > 1) {
    // Whole groups are read from the start: shift windows left (with leading
    // zero weights) so that no group reads past the row when it can be
    // avoided; rows shorter than a group carry padding of their own.
    const int64_t lastStart = std::max<int64_t>(0, int64_t{inSize} - axis.stride);
    for (uint32_t j = 0; j < outSize; ++j) {
      const int32_t shifted = static_cast<int32_t>(std::min<int64_t>(starts[j], lastStart));
      offset[j] += static_cast<uint32_t>(starts[j] - shifted);
      starts[j] = shifted;
    }
  }
  axis.start = std::move(starts);
  axis.count.resize(outSize);
  if (fixedPoint) {
    axis.wi.assign(size_t{outSize} * axis.stride, 0);
  } else {
    axis.wf.assign(size_t{outSize} * axis.stride, 0.0f);
  }
  for (uint32_t j = 0; j < outSize; ++j) {
    axis.count[j] = offset[j] + static_cast<uint32_t>(taps[j].size());
    const size_t row = size_t{j} * axis.stride + offset[j];
    for (size_t k = 0; k < taps[j].size(); ++k) {
      if (fixedPoint) {
        axis.wi[row + k] = static_cast<int16_t>(taps[j][k]);
      } else {
        axis.wf[row + k] = static_cast<float>(static_cast<double>(taps[j][k]) / kFloatOne);
      }
    }
  }
}

namespace {

void pair_weights(WeightAxis &axis) {
  const uint32_t groups = axis.stride / 16;
  const uint32_t pairs = (axis.outSize + 1) / 2;
  axis.pairedWeights.assign(size_t{pairs} * groups * 32, 0);
  for (uint32_t x = 0; x < axis.outSize; ++x) {
    const int16_t *row = axis.wi.data() + size_t{x} * axis.stride;
    for (uint32_t g = 0; g < groups; ++g) {
      int16_t *block = axis.pairedWeights.data() + (size_t{x / 2} * groups + g) * 32 + (x % 2) * 8;
      for (uint32_t k = 0; k < 8; ++k) {
        block[k] = row[16 * g + 2 * k];
        block[16 + k] = row[16 * g + 2 * k + 1];
      }
    }
  }
}

}  // namespace

std::unique_ptr<Weights> build_weights(uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                       uint32_t outHeight, bool fixedPoint, ResampleFilterFn filter,
                                       double support) {
  auto weights = std::make_unique<Weights>();
  weights->fixedPoint = fixedPoint;
  build_axis(weights->h, inWidth, outWidth, fixedPoint, filter, support, kHorizontalTapGroup, false);
  if (fixedPoint) pair_weights(weights->h);
  build_axis(weights->v, inHeight, outHeight, fixedPoint, filter, support, 1, true);
  return weights;
}

void cache_key(const ResampleContext *c, char *out, size_t size) {
  std::snprintf(out, size, "%x_%x_%x_%x_%x_%x_%x_%x_%x", c->inWidth, c->inHeight, c->outWidth, c->outHeight,
                c->planes, c->bppIn, c->bppOut, c->type, c->filterId);
}

// ---------------------------------------------------------------------------
// The caches.
// ---------------------------------------------------------------------------

struct CacheEntry {
  std::string key;
  std::unique_ptr<Weights> weights;
  uint32_t references = 0;
  uint64_t idleSince = 0;  // when the last reference went
  bool detached = false;   // left behind by shut-down while still in use
  CacheEntry *next = nullptr;
};

namespace {

// Unreferenced entries kept for the next page of the same geometry.
constexpr uint32_t kIdleEntries = 8;

struct Cache {
  AtomicSpinLock lock;
  CacheEntry *head = nullptr;
  uint64_t tick = 0;
  bool running = false;
};

constinit Cache g_caches[2];

Cache &cache_of(Family family) { return g_caches[family == Family::kScale ? 1 : 0]; }

// Unlinks and returns the oldest unreferenced entry when more than the idle
// allowance wait; the caller deletes it outside the lock.
CacheEntry *take_excess_idle(Cache &cache) {
  uint32_t idle = 0;
  CacheEntry **oldest = nullptr;
  for (CacheEntry **link = &cache.head; *link != nullptr; link = &(*link)->next) {
    if ((*link)->references != 0) continue;
    ++idle;
    if (oldest == nullptr || (*link)->idleSince < (*oldest)->idleSince) oldest = link;
  }
  if (idle <= kIdleEntries || oldest == nullptr) return nullptr;
  CacheEntry *victim = *oldest;
  *oldest = victim->next;
  return victim;
}

}  // namespace

const char *family_module(Family family) { return family == Family::kScale ? "scale" : "resample"; }

CacheEntry *cache_acquire(Family family, const char *key) {
  Cache &cache = cache_of(family);
  std::lock_guard<AtomicSpinLock> guard(cache.lock);
  for (CacheEntry *e = cache.head; e != nullptr; e = e->next) {
    if (e->key == key) {
      ++e->references;
      return e;
    }
  }
  return nullptr;
}

CacheEntry *cache_insert(Family family, const char *key, std::unique_ptr<Weights> &weights) {
  // Made before taking the lock: nothing that may throw runs under it.
  auto entry = std::make_unique<CacheEntry>();
  entry->key = key;
  entry->references = 1;
  Cache &cache = cache_of(family);
  std::lock_guard<AtomicSpinLock> guard(cache.lock);
  if (!cache.running) return nullptr;
  for (CacheEntry *e = cache.head; e != nullptr; e = e->next)
    if (e->key == entry->key) return nullptr;
  entry->weights = std::move(weights);
  entry->next = cache.head;
  cache.head = entry.get();
  return entry.release();
}

void cache_release(Family family, CacheEntry *entry) {
  if (entry == nullptr) return;
  Cache &cache = cache_of(family);
  CacheEntry *victim = nullptr;
  {
    std::lock_guard<AtomicSpinLock> guard(cache.lock);
    if (--entry->references == 0) {
      if (entry->detached) {
        victim = entry;
      } else {
        entry->idleSince = ++cache.tick;
        victim = take_excess_idle(cache);
      }
    }
  }
  delete victim;
}

const Weights *cache_weights(const CacheEntry *entry) { return entry->weights.get(); }

void cache_start() {
  for (Cache &cache : g_caches) {
    std::lock_guard<AtomicSpinLock> guard(cache.lock);
    cache.running = true;
  }
}

void cache_stop() {
  for (Cache &cache : g_caches) {
    CacheEntry *idle = nullptr;
    {
      std::lock_guard<AtomicSpinLock> guard(cache.lock);
      cache.running = false;
      // Entries still referenced go with their last context.
      for (CacheEntry *e = cache.head; e != nullptr;) {
        CacheEntry *next = e->next;
        if (e->references == 0) {
          e->next = idle;
          idle = e;
        } else {
          e->detached = true;
        }
        e = next;
      }
      cache.head = nullptr;
    }
    while (idle != nullptr) {
      CacheEntry *next = idle->next;
      delete idle;
      idle = next;
    }
  }
}

}  // namespace zt::screening
