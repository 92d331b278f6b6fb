// Table interpolators: the grid set-up, the one-pixel kernels, the
// interpolator object with its process-wide keyed cache, and the conversion
// of whole rectangles spread over the default task queue.
#define ZT_KERNEL_NS baseline
#include "colour/table_interpolator_kernels.h"
#undef ZT_KERNEL_NS

#include <zt/table_interpolator.h>
#include <zt/threads.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/locks.h"
#include "foundation/simd_dispatch.h"
#include "foundation/internal.h"

namespace zt::colour {

namespace avx2 {
void convert_line(const InterpLine &line);
}

namespace {

constexpr const char *kModule = "table_interpolator";
constexpr uint32_t kMaxWorkers = 64;
// Below this many pixels a line is not worth a trip through the task queue.
constexpr uint32_t kMinParallelPixels = 64;

struct InterpolatorKernels {
  ConvertLineFn convert_line;
};
InterpolatorKernels g_kernels = {baseline::convert_line};

void refill_kernels(int32_t level) {
  g_kernels.convert_line = level >= ZT_SIMD_AVX2 ? avx2::convert_line : baseline::convert_line;
}

struct FreeDeleter {
  void operator()(float *p) const { std::free(p); }
};
using AlignedFloats = std::unique_ptr<float[], FreeDeleter>;

// Checks a table's shape; logs under `function` and returns false when it is
// out of range. The value count is returned through `count`.
bool check_shape(const char *function, uint32_t inputs, uint32_t points, uint32_t outputs,
                 uint32_t max_outputs, const float *values, uint64_t *count) {
  if (values == nullptr) {
    ZT_LOG(kModule, function, "NULL table");
    return false;
  }
  if (inputs != 3 && inputs != 4) {
    ZT_LOG(kModule, function, "Unsupported number of inputs %u", inputs);
    return false;
  }
  if (points < 2 || points > ZT_INTERP_MAX_POINTS) {
    ZT_LOG(kModule, function, "Unsupported number of grid points %u", points);
    return false;
  }
  if (outputs < 1 || outputs > max_outputs) {
    ZT_LOG(kModule, function, "Unsupported number of outputs %u", outputs);
    return false;
  }
  uint64_t total = outputs;
  bool fits = true;
  for (uint32_t a = 0; a < inputs && fits; ++a) fits = zt::checked_mul(total, points, &total);
  // Gathers index the grid with signed 32-bit float offsets.
  if (!fits || total > ZT_INTERP_MAX_VALUES) {
    ZT_LOG(kModule, function, "Table of %llu values is too large", static_cast<unsigned long long>(total));
    return false;
  }
  *count = total;
  return true;
}

void fill_grid(ZT_InterpGrid *grid, uint32_t inputs, uint32_t points, uint32_t outputs, const float *values) {
  std::memset(static_cast<void *>(grid), 0, sizeof *grid);
  grid->points = points;
  grid->outputs = static_cast<uint16_t>(outputs);
  grid->inputs = static_cast<uint16_t>(inputs);
  uint32_t stride = 1;
  for (uint32_t a = inputs; a-- > 0;) {
    grid->strides[a] = stride;
    stride *= points;
  }
  grid->scale = static_cast<float>(points - 1) / 65535.0f;
  grid->values = values;
  // Bit (inputs - 1 - a) of a corner's number steps along input a.
  for (uint32_t k = 0; k < (1u << inputs); ++k) {
    uint32_t offset = 0;
    for (uint32_t a = 0; a < inputs; ++a)
      if ((k >> (inputs - 1 - a)) & 1u) offset += grid->strides[a];
    grid->corners[k] = offset * outputs;
  }
}

uint32_t worker_count(int32_t threads) {
  uint32_t count = threads > 0 ? static_cast<uint32_t>(threads) : ZT_numberOfLogicalCPUS();
  if (count < 1) count = 1;
  return count > kMaxWorkers ? kMaxWorkers : count;
}

}  // namespace
}  // namespace zt::colour

// The record behind the C handle. Cache fields are read and written under
// the cache lock only.
struct ZT_TableInterpolator {
  ZT_InterpGrid grid{};
  zt::colour::AlignedFloats values;
  uint32_t sample_bytes = 2;
  int32_t scheme = ZT_INTERP_TRILINEAR;
  std::atomic<uint32_t> threads{1};
  std::string key;
  uint32_t references = 1;
  bool cached = false;
  ZT_TableInterpolator *prev = nullptr;
  ZT_TableInterpolator *next = nullptr;
};

namespace zt::colour {
namespace {

// The process-wide cache: a doubly linked list threaded through the
// interpolators, so that entering and leaving never allocates under the spin
// lock. The lock comes into being with the first keyed interpolator.
struct InterpolatorCache {
  SpinLock lock;
  ZT_TableInterpolator *head = nullptr;
};

InterpolatorCache &cache() {
  static InterpolatorCache instance;
  return instance;
}

// Under the cache lock.
ZT_TableInterpolator *cache_find(const InterpolatorCache &c, const std::string &key, uint32_t sample_bytes,
                                 int32_t scheme, uint32_t inputs, uint32_t points, uint32_t outputs) {
  for (ZT_TableInterpolator *p = c.head; p != nullptr; p = p->next) {
    if (p->sample_bytes == sample_bytes && p->scheme == scheme && p->grid.inputs == inputs &&
        p->grid.points == points && p->grid.outputs == outputs && p->key == key)
      return p;
  }
  return nullptr;
}

// Under the cache lock; compares addresses only, so a stale handle is never
// read.
bool cache_holds(const InterpolatorCache &c, const ZT_TableInterpolator *interpolator) {
  for (const ZT_TableInterpolator *p = c.head; p != nullptr; p = p->next)
    if (p == interpolator) return true;
  return false;
}

void cache_link(InterpolatorCache &c, ZT_TableInterpolator *p) {
  p->prev = nullptr;
  p->next = c.head;
  if (c.head != nullptr) c.head->prev = p;
  c.head = p;
  p->cached = true;
}

void cache_unlink(InterpolatorCache &c, ZT_TableInterpolator *p) {
  if (p->prev != nullptr)
    p->prev->next = p->next;
  else
    c.head = p->next;
  if (p->next != nullptr) p->next->prev = p->prev;
  p->prev = p->next = nullptr;
  p->cached = false;
}

std::unique_ptr<ZT_TableInterpolator> build(const char *function, uint32_t inputs, uint32_t points,
                                            uint32_t outputs, const float *values, int32_t scheme,
                                            int32_t threads, uint32_t sample_bytes) {
  uint64_t count = 0;
  if (!check_shape(function, inputs, points, outputs, ZT_INTERP_MAX_OUTPUTS, values, &count)) return nullptr;
  if (scheme != ZT_INTERP_TRILINEAR && scheme != ZT_INTERP_PRISM && scheme != ZT_INTERP_TETRAHEDRAL) {
    ZT_LOG(kModule, function, "Unknown interpolation scheme %d", scheme);
    return nullptr;
  }
  auto interpolator = std::make_unique<ZT_TableInterpolator>();
  // Vector code reads the grid, so it gets the vector width's alignment.
  const size_t bytes = (static_cast<size_t>(count) * sizeof(float) + 31) & ~size_t{31};
  interpolator->values.reset(static_cast<float *>(std::aligned_alloc(32, bytes)));
  if (!interpolator->values) {
    ZT_LOG(kModule, function, "Cannot allocate memory");
    return nullptr;
  }
  std::memcpy(interpolator->values.get(), values, static_cast<size_t>(count) * sizeof(float));
  fill_grid(&interpolator->grid, inputs, points, outputs, interpolator->values.get());
  interpolator->sample_bytes = sample_bytes;
  interpolator->scheme = scheme;
  interpolator->threads.store(worker_count(threads), std::memory_order_relaxed);
  return interpolator;
}

ZT_TableInterpolator *init_interpolator(const char *function, uint32_t inputs, uint32_t points,
                                        uint32_t outputs, const float *values, int32_t scheme,
                                        int32_t threads, const char *cache_key, uint32_t sample_bytes) {
  return api_guard<ZT_TableInterpolator *>(kModule, function, nullptr, [&]() -> ZT_TableInterpolator * {
    if (cache_key == nullptr || cache_key[0] == '\0')
      return build(function, inputs, points, outputs, values, scheme, threads, sample_bytes).release();

    std::string key(cache_key);
    InterpolatorCache &c = cache();
    {
      std::lock_guard<SpinLock> guard(c.lock);
      if (ZT_TableInterpolator *hit = cache_find(c, key, sample_bytes, scheme, inputs, points, outputs)) {
        ++hit->references;
        return hit;
      }
    }
    // Built outside the lock: copying a large grid would keep every other
    // thread spinning. Whoever enters the key first wins; a loser's copy goes.
    auto fresh = build(function, inputs, points, outputs, values, scheme, threads, sample_bytes);
    if (!fresh) return nullptr;
    fresh->key = std::move(key);
    std::lock_guard<SpinLock> guard(c.lock);
    if (ZT_TableInterpolator *hit =
            cache_find(c, fresh->key, sample_bytes, scheme, inputs, points, outputs)) {
      ++hit->references;
      return hit;
    }
    cache_link(c, fresh.get());
    return fresh.release();
  });
}

// One worker's band of columns, over every line of the rectangle.
struct alignas(ZT_CACHE_LINE) Band {
  ConvertLineFn convert_line;
  InterpLine line;
  uint32_t lines;
  uint32_t source_step;
  uint32_t destination_step;
  int32_t status;
};

void convert_band(const Band &band) {
  InterpLine line = band.line;
  const auto *source = static_cast<const unsigned char *>(band.line.source);
  auto *destination = static_cast<unsigned char *>(band.line.destination);
  for (uint32_t y = 0; y < band.lines; ++y) {
    line.source = source + static_cast<size_t>(y) * band.source_step;
    line.destination = destination + static_cast<size_t>(y) * band.destination_step;
    band.convert_line(line);
  }
}

void band_task(void *argument) {
  auto *band = static_cast<Band *>(argument);
  convert_band(*band);
  band->status = 0;
}

int32_t convert_rect(ZT_TableInterpolator *interpolator, const void *source, uint32_t source_step,
                     void *destination, uint32_t destination_step, uint32_t pixels, uint32_t lines,
                     uint32_t interleave) {
  constexpr const char *kFunction = "TableInterpolatorConvertRect";
  if (interpolator == nullptr) {
    ZT_LOG(kModule, kFunction, "NULL interpolator");
    return -1;
  }
  const uint32_t bytes = interpolator->sample_bytes;
  if (bytes != 1 && bytes != 2) {
    ZT_LOG(kModule, kFunction, "Unsupported sample size of %u bits", bytes * 8);
    return -1;
  }
  if (interleave > 1) {
    ZT_LOG(kModule, kFunction, "Unsupported interleave of %u", interleave);
    return -1;
  }
  if (pixels == 0 || lines == 0) return 0;
  if (source == nullptr || destination == nullptr) {
    ZT_LOG(kModule, kFunction, "NULL pointer caught");
    return -1;
  }
  const ZT_InterpGrid &grid = interpolator->grid;
  const uint64_t source_line = uint64_t{pixels} * grid.inputs * bytes;
  const uint64_t destination_line = uint64_t{pixels} * grid.outputs * bytes;
  if (lines > 1 && (source_step < source_line || destination_step < destination_line)) {
    ZT_LOG(kModule, kFunction, "Line steps %u and %u do not hold lines of %llu and %llu bytes", source_step,
           destination_step, static_cast<unsigned long long>(source_line),
           static_cast<unsigned long long>(destination_line));
    return -1;
  }

  Band whole{};
  whole.convert_line = g_kernels.convert_line;
  whole.line = {&grid, source, destination, pixels, pixels, pixels, interleave, bytes, interpolator->scheme};
  whole.lines = lines;
  whole.source_step = source_step;
  whole.destination_step = destination_step;
  whole.status = -1;

  const uint32_t workers = interpolator->threads.load(std::memory_order_relaxed);
  if (workers < 2 || pixels < kMinParallelPixels) {
    convert_band(whole);
    return 0;
  }

  // Columns, not lines, are split, so every worker streams through the same
  // rows and the first (pixels mod workers) workers take one column more.
  Band bands[kMaxWorkers];
  const uint32_t share = pixels / workers;
  const uint32_t extra = pixels % workers;
  const size_t source_pixel = size_t{bytes} * (interleave != 0 ? 1 : grid.inputs);
  const size_t destination_pixel = size_t{bytes} * (interleave != 0 ? 1 : grid.outputs);
  const auto *next_source = static_cast<const unsigned char *>(source);
  auto *next_destination = static_cast<unsigned char *>(destination);
  for (uint32_t w = 0; w < workers; ++w) {
    bands[w] = whole;
    bands[w].line.pixels = share + (w < extra ? 1 : 0);
    bands[w].line.source = next_source;
    bands[w].line.destination = next_destination;
    next_source += bands[w].line.pixels * source_pixel;
    next_destination += bands[w].line.pixels * destination_pixel;
  }

  ZT_TaskCompletion completion;
  if (pthread_taskq_completion_init(&completion) != 0) return -1;
  const int32_t queued = pthread_taskq_enqueue_multiple_and_wait(pthread_taskq_get_default(), &completion,
                                                                 workers, band_task, bands, sizeof(Band));
  pthread_taskq_completion_destroy(&completion);
  if (queued != 0) return queued;
  for (uint32_t w = 0; w < workers; ++w) {
    // A band the queue dropped (it was aborted) never ran.
    if (bands[w].status < 0) {
      ZT_LOG(kModule, kFunction, "Worker %u of %u did not convert its columns", w + 1, workers);
      return -1;
    }
  }
  return 0;
}

// The one-pixel kernels, always the baseline form: a single pixel leaves
// nothing to run side by side.
template <int32_t kScheme, uint32_t kOut>
void pixel3(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out) {
  const uint32_t in[3] = {in0, in1, in2};
  baseline::pixel<3, kScheme, kOut>(*grid, in, out, 1);
}

template <int32_t kScheme, uint32_t kOut>
void pixel4(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t in3,
            uint16_t *out) {
  const uint32_t in[4] = {in0, in1, in2, in3};
  baseline::pixel<4, kScheme, kOut>(*grid, in, out, 1);
}

}  // namespace
}  // namespace zt::colour

using zt::colour::kModule;

extern "C" {

ZT_API int32_t TableInterpolatorGridSetup(ZT_InterpGrid *grid, uint32_t inputs, uint32_t points,
                                          uint32_t outputs, const float *values) {
  constexpr const char *kFunction = "TableInterpolatorGridSetup";
  if (grid == nullptr) {
    ZT_LOG(kModule, kFunction, "NULL grid");
    return -1;
  }
  uint64_t count = 0;
  if (!zt::colour::check_shape(kFunction, inputs, points, outputs, UINT16_MAX, values, &count)) return -1;
  zt::colour::fill_grid(grid, inputs, points, outputs, values);
  return 0;
}

ZT_API ZT_TableInterpolator *TableInterpolatorInit_ushort(uint32_t inputs, uint32_t points, uint32_t outputs,
                                                          const float *values, int32_t scheme,
                                                          int32_t threads, const char *cache_key) {
  return zt::colour::init_interpolator("TableInterpolatorInit_ushort", inputs, points, outputs, values,
                                       scheme, threads, cache_key, 2);
}

ZT_API ZT_TableInterpolator *TableInterpolatorInit_uchar(uint32_t inputs, uint32_t points, uint32_t outputs,
                                                         const float *values, int32_t scheme, int32_t threads,
                                                         const char *cache_key) {
  return zt::colour::init_interpolator("TableInterpolatorInit_uchar", inputs, points, outputs, values, scheme,
                                       threads, cache_key, 1);
}

ZT_API void TableInterpolatorDestroy(ZT_TableInterpolator *interpolator) {
  if (interpolator == nullptr) return;
  auto &c = zt::colour::cache();
  bool last = false;
  {
    // Held also for private interpolators: one the cache let go of at
    // shut-down may still be shared.
    std::lock_guard<zt::SpinLock> guard(c.lock);
    last = --interpolator->references == 0;
    if (last && interpolator->cached) zt::colour::cache_unlink(c, interpolator);
  }
  if (last) delete interpolator;
}

ZT_API int32_t TableInterpolatorCacheAddReference(ZT_TableInterpolator *interpolator) {
  auto &c = zt::colour::cache();
  {
    std::lock_guard<zt::SpinLock> guard(c.lock);
    if (zt::colour::cache_holds(c, interpolator)) {
      ++interpolator->references;
      return 0;
    }
  }
  ZT_LOG(kModule, "TableInterpolatorCacheAddReference", "TABLEINTERPOLATOR was not found in cache");
  return -1;
}

ZT_API int32_t TableInterpolatorCacheRemoveReference(ZT_TableInterpolator *interpolator) {
  auto &c = zt::colour::cache();
  bool found = false;
  bool last = false;
  {
    std::lock_guard<zt::SpinLock> guard(c.lock);
    found = zt::colour::cache_holds(c, interpolator);
    if (found) {
      last = --interpolator->references == 0;
      if (last) zt::colour::cache_unlink(c, interpolator);
    }
  }
  if (!found) {
    ZT_LOG(kModule, "TableInterpolatorCacheRemoveReference", "TABLEINTERPOLATOR was not found in cache");
    return -1;
  }
  if (last) delete interpolator;
  return 0;
}

ZT_API int32_t TableInterpolatorAllocateThreadsAndCaches(ZT_TableInterpolator *interpolator,
                                                         int32_t threads) {
  if (interpolator == nullptr) {
    ZT_LOG(kModule, "TableInterpolatorAllocateThreadsAndCaches", "NULL interpolator");
    return -1;
  }
  interpolator->threads.store(zt::colour::worker_count(threads), std::memory_order_relaxed);
  return 0;
}

ZT_API void TableInterpolatorDestroyThreadsAndCaches(ZT_TableInterpolator *interpolator) {
  if (interpolator != nullptr) interpolator->threads.store(1, std::memory_order_relaxed);
}

ZT_API int32_t TableInterpolatorStaticInit(void) {
  zt::colour::cache();
  return zt::simd_register_table(&zt::colour::refill_kernels);
}

ZT_API void TableInterpolatorStaticFree(void) {
  auto &c = zt::colour::cache();
  {
    std::lock_guard<zt::SpinLock> guard(c.lock);
    while (c.head != nullptr) zt::colour::cache_unlink(c, c.head);
  }
  zt::simd_unregister_table(&zt::colour::refill_kernels);
}

ZT_API int32_t TableInterpolatorConvertRect(ZT_TableInterpolator *interpolator, const void *source,
                                            uint32_t source_line_step, void *destination,
                                            uint32_t destination_line_step, uint32_t pixels, uint32_t lines,
                                            uint32_t interleave) {
  return zt::colour::convert_rect(interpolator, source, source_line_step, destination, destination_line_step,
                                  pixels, lines, interleave);
}

ZT_API void TriLinear_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out0, uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel3<ZT_INTERP_TRILINEAR, 3>(grid, in0, in1, in2, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void Prism_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out0,
                       uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel3<ZT_INTERP_PRISM, 3>(grid, in0, in1, in2, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void Tetrahedral_3Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out0, uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel3<ZT_INTERP_TETRAHEDRAL, 3>(grid, in0, in1, in2, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void TriLinear_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_TRILINEAR, 4>(grid, in0, in1, in2, out);
}

ZT_API void Prism_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_PRISM, 4>(grid, in0, in1, in2, out);
}

ZT_API void Tetrahedral_4Out(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_TETRAHEDRAL, 4>(grid, in0, in1, in2, out);
}

ZT_API void TriLinear_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                           uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_TRILINEAR, 0>(grid, in0, in1, in2, out);
}

ZT_API void Prism_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_PRISM, 0>(grid, in0, in1, in2, out);
}

ZT_API void Tetrahedral_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t *out) {
  zt::colour::pixel3<ZT_INTERP_TETRAHEDRAL, 0>(grid, in0, in1, in2, out);
}

ZT_API void TriLinear4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t in3,
                            uint16_t *out0, uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel4<ZT_INTERP_TRILINEAR, 3>(grid, in0, in1, in2, in3, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void Prism4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2, uint16_t in3,
                        uint16_t *out0, uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel4<ZT_INTERP_PRISM, 3>(grid, in0, in1, in2, in3, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void Tetrahedral4Input(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                              uint16_t in3, uint16_t *out0, uint16_t *out1, uint16_t *out2) {
  uint16_t out[3];
  zt::colour::pixel4<ZT_INTERP_TETRAHEDRAL, 3>(grid, in0, in1, in2, in3, out);
  *out0 = out[0];
  *out1 = out[1];
  *out2 = out[2];
}

ZT_API void TriLinear4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                                 uint16_t in3, uint16_t *out) {
  zt::colour::pixel4<ZT_INTERP_TRILINEAR, 0>(grid, in0, in1, in2, in3, out);
}

ZT_API void Prism4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                             uint16_t in3, uint16_t *out) {
  zt::colour::pixel4<ZT_INTERP_PRISM, 0>(grid, in0, in1, in2, in3, out);
}

ZT_API void Tetrahedral4Input_NOut(const ZT_InterpGrid *grid, uint16_t in0, uint16_t in1, uint16_t in2,
                                   uint16_t in3, uint16_t *out) {
  zt::colour::pixel4<ZT_INTERP_TETRAHEDRAL, 0>(grid, in0, in1, in2, in3, out);
}

}  // extern "C"
