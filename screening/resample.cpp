// The resampler's pull model: contexts, the ring of filtered input lines,
// batches of output lines split by columns over the default task queue, and
// the consumption of the input that the output does not need.
//
// Output lines are made a batch at a time (enough lines for a few hundred
// kilobytes of output), so that the split over the task queue pays for its
// wake-ups. Every part filters its columns of the batch's new input lines
// along the row into the ring, then combines the ring lines into its columns
// of the batch. Meanwhile the caller's thread reads, in order, the input
// lines of the next batch: reading is the one step that cannot be split, and
// this way it overlaps the work instead of adding to it. Raw lines therefore
// have twice the ring's slots. The arithmetic of a column does not depend on
// the part that made it, so the output is the same for any split.
#include <zt/threads.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "foundation/internal.h"
#include "screening/resample_internal.h"

namespace zt::screening {
namespace {

// Output bytes a batch aims at, and its bounds in lines.
constexpr uint64_t kBatchBytes = 128 * 1024;
constexpr uint32_t kMaxBatchLines = 32;
// Narrower lines are not worth splitting.
constexpr uint64_t kSplitSamples = 4096;
constexpr uint32_t kColumnAlign = 16;
constexpr uint32_t kMaxSide = 0x7FFFFFFFu;
// More parts than this only add hand-overs.
constexpr uint32_t kMaxParts = 256;

template <typename T>
struct FreeDeleter {
  void operator()(T *p) const { std::free(p); }
};
template <typename T>
using AlignedArray = std::unique_ptr<T[], FreeDeleter<T>>;

// Zeroed, 64-byte aligned room for a * b * c elements; the product goes
// through the checked multiply and a size that does not fit is a failed
// allocation.
template <typename T>
AlignedArray<T> aligned_zeroed(uint64_t a, uint64_t b, uint64_t c) {
  uint64_t count = 0;
  if (!zt::checked_mul(a, b, c, &count) || count > (SIZE_MAX - 63) / sizeof(T)) throw std::bad_alloc();
  const size_t bytes = (static_cast<size_t>(count) * sizeof(T) + 63) / 64 * 64;
  void *p = std::aligned_alloc(64, bytes == 0 ? 64 : bytes);
  if (p == nullptr) throw std::bad_alloc();
  std::memset(p, 0, bytes == 0 ? 64 : bytes);
  return AlignedArray<T>(static_cast<T *>(p));
}

struct ScanlineBufDeleter {
  void operator()(ScanlineBuf *p) const { scanlinebufFree(p); }
};
using ScanlinePtr = std::unique_ptr<ScanlineBuf, ScanlineBufDeleter>;

}  // namespace

struct TaskPart {
  struct ResampleEngine *engine = nullptr;
  uint32_t x0 = 0, x1 = 0;
  // Ring rows of one output line, in the engine's number format.
  std::vector<const int16_t *> rowsI;
  std::vector<const float *> rowsF;
};

}  // namespace zt::screening

using zt::screening::Family;

struct ResampleEngine {
  Family family = Family::kResample;
  // Weights: the cache's (entry set) or the context's own.
  zt::screening::CacheEntry *entry = nullptr;
  std::unique_ptr<zt::screening::Weights> own;
  const zt::screening::Weights *weights = nullptr;

  uint32_t batch = 1;  // output lines a batch
  uint32_t ring = 1;   // input lines the ring holds
  // Raw input lines, slot = line % (2 * ring): read in place (8-bit to 8-bit)
  // or through `readLine` and turned into floats.
  zt::screening::ScanlinePtr raw;
  std::vector<ScanlineBuf> rawViews;
  zt::screening::ScanlinePtr readLine;
  zt::screening::AlignedArray<float> rawF;
  size_t rawFStride = 0;  // floats a plane row
  int32_t floatMode = 0;
  // Filtered lines at the output width, slot = line % ring, plane-major.
  zt::screening::AlignedArray<int16_t> midI;
  zt::screening::AlignedArray<float> midF;
  size_t midStride = 0;  // samples a plane row
  // The batch's output lines, plane-major.
  zt::screening::AlignedArray<uint8_t> out;
  size_t outRowBytes = 0;
  uint32_t batchFirst = 0, batchEnd = 0;
  // Input lines of the running batch that still need filtering along the row.
  uint32_t newFirst = 0, newEnd = 0;
  uint32_t filtered = 0;         // input lines below this are in the ring
  bool readAheadFailed = false;  // reported by the next batch

  zt::screening::ScanlinePtr scratch;  // for lines consumed unseen
  std::vector<zt::screening::TaskPart> parts;
  ZT_TaskCompletion completion{};
  bool completionReady = false;
  bool failed = false;
  uint32_t planes = 1;
  uint32_t outBits = 8;
  uint32_t running = 0;  // parts of the running batch

  ~ResampleEngine() {
    if (completionReady) pthread_taskq_completion_destroy(&completion);
  }
};

namespace zt::screening {
namespace {

const char *module_of(const ResampleContext *c) {
  return c != nullptr && c->engine != nullptr ? family_module(c->engine->family) : "resample";
}

void drop_weights(ResampleEngine *e) {
  if (e->entry != nullptr) cache_release(e->family, e->entry);
  e->entry = nullptr;
  e->own.reset();
  e->weights = nullptr;
}

// Finds the context's weights in the cache or builds and enters them.
void acquire_weights(ResampleContext *c) {
  ResampleEngine *e = c->engine;
  char key[128];
  cache_key(c, key, sizeof key);
  if ((e->entry = cache_acquire(e->family, key)) != nullptr) {
    e->weights = cache_weights(e->entry);
    return;
  }
  std::unique_ptr<Weights> built = build_weights(c->inWidth, c->inHeight, c->outWidth, c->outHeight,
                                                 c->bppIn == 8 && c->bppOut == 8, c->filter, c->support);
  if ((e->entry = cache_insert(e->family, key, built)) != nullptr) {
    e->weights = cache_weights(e->entry);
  } else {
    e->own = std::move(built);
    e->weights = e->own.get();
  }
}

void size_rows(TaskPart &part, const Weights &w) {
  part.rowsI.assign(w.fixedPoint ? w.v.stride : 0, nullptr);
  part.rowsF.assign(w.fixedPoint ? 0 : w.v.stride, nullptr);
}

// Buffers for the weights in place: batch, ring, raw lines, filtered lines,
// output lines. Throws std::bad_alloc; "false" when a scanline buffer could
// not be made (logged by it).
bool prepare_buffers(ResampleContext *c) {
  ResampleEngine *e = c->engine;
  const Weights &w = *e->weights;
  const uint64_t lineBytes = uint64_t{c->outWidth} * c->planes * (c->bppOut / 8);
  e->batch = static_cast<uint32_t>(std::clamp<uint64_t>(kBatchBytes / std::max<uint64_t>(lineBytes, 1), 1,
                                                        std::min(kMaxBatchLines, c->outHeight)));
  uint32_t ring = 1;
  for (uint32_t first = 0; first < c->outHeight; first += e->batch) {
    const uint32_t end = std::min(c->outHeight, first + e->batch);
    int64_t hi = 0;
    for (uint32_t j = first; j < end; ++j) hi = std::max<int64_t>(hi, int64_t{w.v.start[j]} + w.v.count[j]);
    ring = std::max(ring, static_cast<uint32_t>(hi - w.v.start[first]));
  }
  e->ring = ring;
  e->batchFirst = e->batchEnd = 0;
  e->filtered = 0;
  const uint32_t rawSlots = 2 * ring;

  const bool fixed = w.fixedPoint;
  e->rawViews.clear();
  e->raw.reset();
  e->readLine.reset();
  e->rawF.reset();
  e->midI.reset();
  e->midF.reset();
  if (fixed) {
    // Filled with zeros once, padding included: the row filter reads whole
    // groups of taps, up to 15 samples past a short row.
    e->raw.reset(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, 8, c->planes, 0, c->inWidth, rawSlots,
                                  ZT_SLB_PAD32 | ZT_SLB_FILL));
    if (!e->raw) return false;
    e->rawViews.assign(rawSlots, *e->raw);
    for (uint32_t s = 0; s < rawSlots; ++s) {
      e->rawViews[s].lines = 1;
      e->rawViews[s].flags &= ~ZT_SLB_OWNED;
      e->rawViews[s].data = e->raw->data + size_t{s} * e->raw->bytesPerLine;
    }
  } else {
    e->readLine.reset(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, c->bppIn, c->planes, 0, c->inWidth, 1, 0));
    if (!e->readLine) return false;
    e->rawFStride = (std::max<size_t>(c->inWidth, w.h.stride) + 8 + 15) / 16 * 16;
    e->rawF = aligned_zeroed<float>(e->rawFStride, c->planes, rawSlots);
    e->floatMode = c->bppIn == c->bppOut ? 0 : (c->bppOut == 16 ? 1 : 2);
  }
  e->midStride = (size_t{c->outWidth} + 31) / 32 * 32;
  if (fixed) {
    e->midI = aligned_zeroed<int16_t>(e->midStride, c->planes, ring);
  } else {
    e->midF = aligned_zeroed<float>(e->midStride, c->planes, ring);
  }
  e->outRowBytes = (size_t{c->outWidth} * (c->bppOut / 8) + 63) / 64 * 64;
  e->out = aligned_zeroed<uint8_t>(e->outRowBytes, c->planes, e->batch);
  for (TaskPart &p : e->parts) size_rows(p, w);
  return true;
}

// Weights and buffers for the context's current filter; 0 or -1 (logged).
int32_t prepare(ResampleContext *c, const char *function) {
  const char *module = module_of(c);
  return api_guard<int32_t>(module, function, -1, [&]() -> int32_t {
    drop_weights(c->engine);
    acquire_weights(c);
    return prepare_buffers(c) ? 0 : -1;
  });
}

// ---------------------------------------------------------------------------
// The work of one part: its columns of the batch.
// ---------------------------------------------------------------------------

void run_part(void *argument) {
  TaskPart &part = *static_cast<TaskPart *>(argument);
  ResampleEngine *e = part.engine;
  const Weights &w = *e->weights;
  const ResampleKernels &k = resample_kernels();
  const uint32_t planes = e->planes;
  const uint32_t x0 = part.x0, x1 = part.x1;

  for (uint32_t line = e->newFirst; line < e->newEnd; ++line) {
    const uint32_t slot = line % e->ring;
    const uint32_t rawSlot = line % (2 * e->ring);
    for (uint32_t p = 0; p < planes; ++p) {
      const size_t mid = (size_t{slot} * planes + p) * e->midStride;
      if (w.fixedPoint) {
        const uint8_t *in = e->rawViews[rawSlot].data + size_t{p} * e->raw->bytesPerPlaneRow;
        k.hpass_u8(e->midI.get() + mid, in, w.h.wi.data(), w.h.pairedWeights.data(), w.h.start.data(),
                   w.h.stride, x0, x1);
      } else {
        const float *in = e->rawF.get() + (size_t{rawSlot} * planes + p) * e->rawFStride;
        k.hpass_f(e->midF.get() + mid, in, w.h.wf.data(), w.h.start.data(), w.h.stride, x0, x1);
      }
    }
  }
  for (uint32_t j = e->batchFirst; j < e->batchEnd; ++j) {
    const uint32_t count = w.v.count[j];
    const uint32_t start = static_cast<uint32_t>(w.v.start[j]);
    for (uint32_t p = 0; p < planes; ++p) {
      uint8_t *out = e->out.get() + (size_t{j - e->batchFirst} * planes + p) * e->outRowBytes;
      for (uint32_t t = 0; t < count; ++t) {
        const size_t mid = (size_t{(start + t) % e->ring} * planes + p) * e->midStride;
        if (w.fixedPoint) {
          part.rowsI[t] = e->midI.get() + mid;
        } else {
          part.rowsF[t] = e->midF.get() + mid;
        }
      }
      if (w.fixedPoint) {
        k.vpass_u8(out, part.rowsI.data(), w.v.wi.data() + size_t{j} * w.v.stride, count, x0, x1);
      } else {
        const float *const *rows = part.rowsF.data();
        const float *wv = w.v.wf.data() + size_t{j} * w.v.stride;
        if (e->outBits == 8) {
          k.vpass_f8(out, rows, wv, count, x0, x1);
        } else {
          k.vpass_f16(reinterpret_cast<uint16_t *>(out), rows, wv, count, x0, x1);
        }
      }
    }
  }
}

// Starts the batch's parts: on the default task queue when the line is wide
// and threads are wanted ("true": finish_parts waits for them), else on this
// thread at once.
bool start_parts(ResampleContext *c) {
  ResampleEngine *e = c->engine;
  ZT_TaskQueue *queue = pthread_taskq_get_default();
  uint32_t n = static_cast<uint32_t>(e->parts.size());
  if (c->ioBoundTask != 0 || queue == nullptr || !e->completionReady ||
      uint64_t{c->outWidth} * c->planes < kSplitSamples)
    n = 1;
  n = std::min(n, std::max<uint32_t>(1, c->outWidth / 64));
  const uint32_t chunk = (c->outWidth + n - 1) / n;
  const uint32_t aligned = (chunk + kColumnAlign - 1) / kColumnAlign * kColumnAlign;
  for (uint32_t i = 0; i < n; ++i) {
    e->parts[i].engine = e;
    e->parts[i].x0 = std::min(c->outWidth, i * aligned);
    e->parts[i].x1 = i + 1 == n ? c->outWidth : std::min(c->outWidth, (i + 1) * aligned);
  }
  e->running = n;
  if (n > 1 && pthread_taskq_enqueue_multiple(queue, &e->completion, n, run_part, e->parts.data(),
                                              sizeof(TaskPart)) == 0)
    return true;
  if (n > 1) {
    // Whatever was queued must finish before this thread redoes it all; the
    // parts write only their own columns from unchanged inputs.
    pthread_taskq_completion_wait(&e->completion);
  }
  for (uint32_t i = 0; i < n; ++i) run_part(&e->parts[i]);
  return false;
}

void finish_parts(ResampleContext *c, bool queued) {
  ResampleEngine *e = c->engine;
  if (queued && pthread_taskq_completion_wait(&e->completion) != 0) {
    for (uint32_t i = 0; i < e->running; ++i) run_part(&e->parts[i]);
  }
}

// ---------------------------------------------------------------------------
// Input.
// ---------------------------------------------------------------------------

int32_t fail_read(ResampleContext *c, const char *function, uint32_t line) {
  c->engine->failed = true;
  ZT_LOG(module_of(c), function, "Error reading scanline %u", line);
  return -1;
}

// Consumes input line c->linesRead without keeping it.
int32_t consume_line(ResampleContext *c, const char *function) {
  ResampleEngine *e = c->engine;
  const uint32_t line = c->linesRead;
  if (c->skipScanline == nullptr && c->canSkipScanlines != 0) {
    if (c->readScanline == nullptr || c->readScanline(c->userData, nullptr, line) != 0)
      return fail_read(c, function, line);
  } else {
    if (!e->scratch) {
      e->scratch.reset(scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, c->bppIn, c->planes, 0, c->inWidth, 1, 0));
      if (!e->scratch) {
        e->failed = true;
        ZT_LOG(module_of(c), function, "cannot setup scanlinebuf structure");
        return -1;
      }
    }
    const int32_t rc = c->skipScanline != nullptr   ? c->skipScanline(c->userData, e->scratch.get(), line)
                       : c->readScanline != nullptr ? c->readScanline(c->userData, e->scratch.get(), line)
                                                    : -1;
    if (rc != 0) return fail_read(c, function, line);
  }
  ++c->linesRead;
  return 0;
}

// Reads input line c->linesRead into its ring slot.
int32_t read_line(ResampleContext *c, const char *function) {
  ResampleEngine *e = c->engine;
  const uint32_t line = c->linesRead;
  const uint32_t slot = line % (2 * e->ring);
  if (c->readScanline == nullptr) return fail_read(c, function, line);
  if (e->weights->fixedPoint) {
    if (c->readScanline(c->userData, &e->rawViews[slot], line) != 0) return fail_read(c, function, line);
  } else {
    ScanlineBuf *sb = e->readLine.get();
    if (c->readScanline(c->userData, sb, line) != 0) return fail_read(c, function, line);
    const ResampleKernels &k = resample_kernels();
    for (uint32_t p = 0; p < c->planes; ++p) {
      float *dst = e->rawF.get() + (size_t{slot} * c->planes + p) * e->rawFStride;
      const uint8_t *src = sb->data + size_t{p} * sb->bytesPerPlaneRow;
      if (c->bppIn == 8) {
        k.to_float_u8(dst, src, c->inWidth, e->floatMode);
      } else {
        k.to_float_u16(dst, reinterpret_cast<const uint16_t *>(src), c->inWidth, e->floatMode);
      }
    }
  }
  ++c->linesRead;
  return 0;
}

// The input lines of the batch starting at `first`: [needFirst, needEnd).
void batch_needs(const ResampleEngine *e, uint32_t first, uint32_t outHeight, uint32_t *needFirst,
                 uint32_t *needEnd) {
  const WeightAxis &v = e->weights->v;
  const uint32_t end = std::min(outHeight, first + e->batch);
  *needFirst = static_cast<uint32_t>(v.start[first]);
  *needEnd = 0;
  for (uint32_t j = first; j < end; ++j) *needEnd = std::max(*needEnd, v.start[j] + v.count[j]);
}

// Reads on to the input lines [needFirst, needEnd) of a batch. Lines no
// window covers are consumed unseen; they all come before the lines the
// batch reads.
int32_t read_batch_lines(ResampleContext *c, uint32_t needFirst, uint32_t needEnd, const char *function) {
  while (c->linesRead < needFirst)
    if (consume_line(c, function) != 0) return -1;
  while (c->linesRead < needEnd)
    if (read_line(c, function) != 0) return -1;
  return 0;
}

// Makes the batch of output lines that starts at `first`, reading the next
// batch's input while the parts run.
int32_t make_batch(ResampleContext *c, uint32_t first, const char *function) {
  ResampleEngine *e = c->engine;
  if (e->readAheadFailed) {
    e->failed = true;
    return -1;
  }
  uint32_t needFirst = 0, needEnd = 0;
  batch_needs(e, first, c->outHeight, &needFirst, &needEnd);
  if (read_batch_lines(c, needFirst, needEnd, function) != 0) return -1;
  e->newFirst = std::max(e->filtered, needFirst);
  e->newEnd = std::max(e->newFirst, needEnd);
  e->batchFirst = first;
  e->batchEnd = std::min(c->outHeight, first + e->batch);
  const bool queued = start_parts(c);
  if (e->batchEnd < c->outHeight) {
    batch_needs(e, e->batchEnd, c->outHeight, &needFirst, &needEnd);
    if (read_batch_lines(c, needFirst, needEnd, function) != 0) {
      // This batch is sound; the failure (logged) stops the next one.
      e->failed = false;
      e->readAheadFailed = true;
    }
  }
  finish_parts(c, queued);
  e->filtered = e->newEnd;
  return 0;
}

bool shape_matches(const ResampleContext *c, const ScanlineBuf *sb) {
  return sb->bitsPerPixel == c->bppOut && sb->channels == c->planes && sb->width >= c->outWidth &&
         sb->data != nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// Shared by the resample and scale entry points.
// ---------------------------------------------------------------------------

// An upper bound of the bytes the weights of one direction take: every output
// sample's window (the support stretched when shrinking, one tap of slack at
// each end) stored twice (the vector order) with an index per tap.
uint64_t weight_bytes_bound(uint32_t in, uint32_t out, double support) {
  const double stretch = in > out ? static_cast<double>(in) / out : 1.0;
  const uint64_t taps = static_cast<uint64_t>(std::ceil(2 * support * stretch)) + 2;
  return taps * out * 16;
}

ResampleContext *context_create(Family family, const char *function, uint32_t type, uint32_t inWidth,
                                uint32_t inHeight, uint32_t outWidth, uint32_t outHeight, uint32_t planes,
                                uint32_t bppIn, uint32_t bppOut, ResampleReadFn readScanline,
                                ResampleSkipFn skipScanline, ResampleProducerFn producer, void *userData,
                                uint32_t filterId) {
  const char *module = family_module(family);
  if (inWidth == 0 || inHeight == 0 || outWidth == 0 || outHeight == 0) {
    ZT_LOG(module, function, "zero width/height detected");
    return nullptr;
  }
  if (planes == 0 || bppIn == 0 || bppOut == 0) {
    ZT_LOG(module, function, "zero nplanes/bpp_in/bpp_out detected");
    return nullptr;
  }
  if ((bppIn != 8 && bppIn != 16) || (bppOut != 8 && bppOut != 16)) {
    ZT_LOG(module, function, "unsupported bpp of %u", bppIn != 8 && bppIn != 16 ? bppIn : bppOut);
    return nullptr;
  }
  if (type != ZT_RESAMPLE_FILTERED) {
    ZT_LOG(module, function, "resampling type %u has not yet been implemented", type);
    return nullptr;
  }
  // Window starts are signed 32-bit; rows that long do not fit a scanline
  // buffer anyway.
  if (inWidth > kMaxSide || inHeight > kMaxSide || outWidth > kMaxSide || outHeight > kMaxSide) {
    ZT_LOG(module, function, "Image of %ux%u to %ux%u is too large to resample", inWidth, inHeight, outWidth,
           outHeight);
    return nullptr;
  }
  if (planes > ZT_RESAMPLE_MAX_PLANES) {
    ZT_LOG(module, function, "%u planes are more than the %u a resampler takes", planes, ZT_RESAMPLE_MAX_PLANES);
    return nullptr;
  }
  ResampleFilterFn fn = nullptr;
  double support = 0;
  if (resampleFilteredGetFilter(filterId, &fn, &support) != 0) return nullptr;
  if (uint64_t{inWidth} > uint64_t{outWidth} * ZT_RESAMPLE_MAX_REDUCTION ||
      uint64_t{inHeight} > uint64_t{outHeight} * ZT_RESAMPLE_MAX_REDUCTION) {
    ZT_LOG(module, function, "Requested scale factor is beyond algorithm's ability");
    return nullptr;
  }
  // Weights are made for every output column and row before the first line:
  // a huge enlargement of a tiny image would take gigabytes for nothing a
  // page needs. The estimate is an upper bound of what the weight tables hold.
  const uint64_t weight_bytes = weight_bytes_bound(inWidth, outWidth, support) +
                                weight_bytes_bound(inHeight, outHeight, support);
  if (weight_bytes > ZT_RESAMPLE_MAX_WEIGHT_BYTES) {
    ZT_LOG(module, function, "Filter weights for %ux%u to %ux%u would take %" PRIu64 " MiB, more than %u MiB",
           inWidth, inHeight, outWidth, outHeight, weight_bytes >> 20, ZT_RESAMPLE_MAX_WEIGHT_BYTES >> 20);
    return nullptr;
  }
  return api_guard<ResampleContext *>(module, function, nullptr, [&]() -> ResampleContext * {
    auto context = std::make_unique<ResampleContext>();
    ResampleContext *c = context.get();
    *c = ResampleContext{};
    c->inWidth = inWidth;
    c->inHeight = inHeight;
    c->outWidth = outWidth;
    c->outHeight = outHeight;
    c->planes = planes;
    c->bppIn = bppIn;
    c->bppOut = bppOut;
    c->type = type;
    c->filterId = filterId;
    c->readScanline = readScanline;
    c->skipScanline = skipScanline;
    c->producer = producer;
    c->userData = userData;
    c->filter = fn;
    c->support = support;
    auto engine = std::make_unique<ResampleEngine>();
    engine->family = family;
    engine->planes = planes;
    engine->outBits = bppOut;
    c->engine = engine.get();
    struct Undo {
      ResampleContext *c;
      std::unique_ptr<ResampleEngine> &engine;
      ~Undo() {
        if (engine) drop_weights(engine.get());
      }
    } undo{c, engine};
    engine->completionReady = pthread_taskq_completion_init(&engine->completion) == 0;
    engine->parts.resize(1);
    if (prepare(c, function) != 0) return nullptr;
    if (context_setup_threads(c, 0, family, function) != 0) return nullptr;
    engine.release();
    return context.release();
  });
}

int32_t context_setup_threads(ResampleContext *c, uint32_t threads, Family family, const char *function) {
  if (c == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  const uint32_t n = std::min(kMaxParts, threads == 0 ? std::max<uint32_t>(1, ZT_numberOfCPUS()) : threads);
  try {
    std::vector<TaskPart> parts(n);
    for (TaskPart &p : parts) size_rows(p, *c->engine->weights);
    c->engine->parts = std::move(parts);
  } catch (const std::bad_alloc &) {
    ZT_LOG(module_of(c), function, "Cannot allocate memory for threads");
    return -1;
  }
  c->threads = n;
  return 0;
}

int32_t context_set_filter(ResampleContext *c, uint32_t id, Family family, const char *function) {
  if (c == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  ResampleFilterFn fn = nullptr;
  double support = 0;
  if (resampleFilteredGetFilter(id, &fn, &support) != 0) return -1;
  if (c->type != ZT_RESAMPLE_FILTERED) {
    ZT_LOG(module_of(c), function, "resampling type %u has not yet been implemented", c->type);
    return -1;
  }
  if (c->linesRead != 0 || c->linesWritten != 0) {
    ZT_LOG(module_of(c), function, "Cannot change the filter after the first scanline");
    return -1;
  }
  if (id == c->filterId) return 0;
  const uint32_t oldId = c->filterId;
  const ResampleFilterFn oldFn = c->filter;
  const double oldSupport = c->support;
  c->filterId = id;
  c->filter = fn;
  c->support = support;
  if (prepare(c, function) == 0) return 0;
  // Back to the filter that worked; without its buffers the context refuses lines.
  c->filterId = oldId;
  c->filter = oldFn;
  c->support = oldSupport;
  if (prepare(c, function) != 0) c->engine->failed = true;
  return -1;
}

int32_t context_next_scanline(ResampleContext *c, ScanlineBuf *sb, Family family, const char *function) {
  if (c == nullptr || sb == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  const char *module = module_of(c);
  if (sb->interleave != ZT_INTERLEAVE_BY_LINE) {
    ZT_LOG(module, function, "Only interleaved by line scanlines are currently supported");
    return -1;
  }
  ResampleEngine *e = c->engine;
  if (e->failed) {
    ZT_LOG(module, function, "Resampling stopped after an earlier error");
    return -1;
  }
  if (c->linesWritten >= c->outHeight) {
    if (scanlinebufClear(sb) != 0) return -1;
    ++c->linesWritten;
    return 0;
  }
  if (!shape_matches(c, sb)) {
    ZT_LOG(module, function,
           "Scanline buffer of %u planes, %u bits, width %u cannot take %u planes, %u bits, width %u",
           sb->channels, sb->bitsPerPixel, sb->width, c->planes, c->bppOut, c->outWidth);
    return -1;
  }
  const uint32_t j = c->linesWritten;
  if (c->producer != nullptr) {
    if (c->producer(c->userData, sb, j) != 0) {
      ZT_LOG(module, function, "Producer failed on scanline %u", j);
      return -1;
    }
  } else {
    if (j < e->batchFirst || j >= e->batchEnd) {
      if (make_batch(c, j, function) != 0) return -1;
    }
    const size_t bytes = size_t{c->outWidth} * (c->bppOut / 8);
    for (uint32_t p = 0; p < c->planes; ++p)
      std::memcpy(sb->data + size_t{p} * sb->bytesPerPlaneRow,
                  e->out.get() + (size_t{j - e->batchFirst} * c->planes + p) * e->outRowBytes, bytes);
  }
  ++c->linesWritten;
  if (c->linesWritten == c->outHeight) {
    // The source must reach its end whatever the output needed of it.
    while (c->linesRead < c->inHeight)
      if (consume_line(c, function) != 0) return -1;
  }
  return 0;
}

void context_free(ResampleContext *c) {
  if (c == nullptr) return;
  if (c->engine != nullptr) {
    drop_weights(c->engine);
    delete c->engine;
  }
  delete c;
}

int32_t context_cache_init(ResampleContext *c, Family family, const char *function) {
  if (c == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  ResampleEngine *e = c->engine;
  char key[128];
  cache_key(c, key, sizeof key);
  CacheEntry *found = cache_acquire(e->family, key);
  if (found == nullptr) return -1;
  if (found == e->entry) {
    // Already the context's own: keep one reference.
    cache_release(e->family, found);
    return 0;
  }
  drop_weights(e);
  e->entry = found;
  e->weights = cache_weights(found);
  return 0;
}

int32_t context_cache_add(ResampleContext *c, Family family, const char *function) {
  if (c == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  ResampleEngine *e = c->engine;
  if (e->entry != nullptr) {
    ZT_LOG(module_of(c), function, "Weights of this context are cached already");
    return -1;
  }
  char key[128];
  cache_key(c, key, sizeof key);
  return api_guard<int32_t>(module_of(c), function, -1, [&]() -> int32_t {
    CacheEntry *entry = cache_insert(e->family, key, e->own);
    if (entry == nullptr) {
      ZT_LOG(module_of(c), function, "Cannot cache weights under %s", key);
      return -1;
    }
    e->entry = entry;
    e->weights = cache_weights(entry);
    return 0;
  });
}

int32_t context_cache_remove(ResampleContext *c, Family family, const char *function) {
  if (c == nullptr || c->engine == nullptr) {
    ZT_LOG(family_module(family), function, "NULL pointer caught");
    return -1;
  }
  ResampleEngine *e = c->engine;
  if (e->entry == nullptr) {
    ZT_LOG(module_of(c), function, "Context holds no cached weights");
    return -1;
  }
  // The context keeps working on a private copy.
  return api_guard<int32_t>(module_of(c), function, -1, [&]() -> int32_t {
    auto copy = std::make_unique<Weights>(*e->weights);
    cache_release(e->family, e->entry);
    e->entry = nullptr;
    e->own = std::move(copy);
    e->weights = e->own.get();
    return 0;
  });
}

}  // namespace zt::screening
