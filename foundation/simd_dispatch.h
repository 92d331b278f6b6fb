// The level the per-pixel kernels run at, and the one place that fills every
// kernel module's function table from it.
//
// A kernel module keeps a table of function pointers and registers a refill
// callback from its initialiser. The registry calls it with the current level
// at once, and again with the new level whenever ZT_SetSimdLevel changes it,
// so the whole library switches together and tests can run every level.
//
// A kernel is written once for both levels; raster/buf_kernels.h, buf.cpp and
// buf_avx2.cpp are the model. The kernels header holds the one body inside a
// namespace named by the macro ZT_KERNEL_NS, which the including file sets
// (baseline in buf.cpp, avx2 in buf_avx2.cpp, built with -mavx2 -mfma by its
// name), so each level's copies get their own mangled names and the linker can
// never merge an AVX2 instance into the baseline path. Kernel bodies call
// nothing outside that namespace that could be inlined (no STL, not even
// std::min): an inline function shared with the baseline file is emitted once
// per object file, and the linker keeps whichever copy it sees first. The
// baseline file owns the function table and its refill callback, registered
// with simd_register_table from the module's initialiser.
//
// The AVX2 copy must give the same bits as the baseline: the tree builds with
// -ffp-contract=off, so the compiler fuses no a*b+c on its own, and a kernel
// uses FMA only where the baseline calls std::fma.
//
// The tables are plain pointers read without a lock: ZT_SetSimdLevel is for
// start-up, tests and benchmarks, called while no kernel runs.
#pragma once

#include <zt/cpu.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace zt {

using SimdRefillFn = void (*)(int32_t level);

// The level that ZT_SIMD asks for: "baseline" forces the scalar forms; any
// other value, or none, leaves the best level the processor runs.
inline int32_t simd_level_from_env(const char *value, int32_t best) {
  if (value != nullptr && std::strcmp(value, "baseline") == 0) return ZT_SIMD_BASELINE;
  return best;
}

// The level and the refill callbacks. The library holds one, made on first
// use, which probes the processor and reads ZT_SIMD then, once per process;
// tests may make their own.
class SimdRegistry {
 public:
  // More than the kernel modules there are: a fixed array needs no allocation,
  // so registering cannot fail for want of memory.
  static constexpr size_t kMaxTables = 64;

  SimdRegistry(int32_t best, int32_t level) : best_(best), level_(clamp(level)) {}
  SimdRegistry(const SimdRegistry &) = delete;
  SimdRegistry &operator=(const SimdRegistry &) = delete;

  int32_t best() const { return best_; }
  int32_t level() const { return level_.load(std::memory_order_acquire); }

  // Calls `fn` with the current level and keeps it for every later change.
  // Registering the same callback again only refills it, so module
  // initialisers may run more than once. False when the registry is full.
  bool add(SimdRefillFn fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    bool known = false;
    for (size_t i = 0; i < used_; ++i) known = known || tables_[i] == fn;
    if (!known) {
      if (used_ == kMaxTables) return false;
      tables_[used_++] = fn;
    }
    fn(level_.load(std::memory_order_relaxed));
    return true;
  }

  void remove(SimdRefillFn fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < used_; ++i) {
      if (tables_[i] == fn) {
        tables_[i] = tables_[--used_];
        return;
      }
    }
  }

  // Lowers `level` to what the processor runs (negative levels to the
  // baseline) and refills every table when the level changes. Returns the
  // level in force.
  int32_t set_level(int32_t level) {
    std::lock_guard<std::mutex> lock(mutex_);
    const int32_t clamped = clamp(level);
    if (clamped != level_.load(std::memory_order_relaxed)) {
      level_.store(clamped, std::memory_order_release);
      for (size_t i = 0; i < used_; ++i) tables_[i](clamped);
    }
    return clamped;
  }

 private:
  int32_t clamp(int32_t level) const {
    if (level < ZT_SIMD_BASELINE) return ZT_SIMD_BASELINE;
    return level > best_ ? best_ : level;
  }

  // Refills run under the mutex, so a table registered while the level
  // changes is filled with the level that ends up in force. A refill callback
  // therefore must not call back into the registry.
  std::mutex mutex_;
  std::array<SimdRefillFn, kMaxTables> tables_{};
  size_t used_ = 0;
  const int32_t best_;
  std::atomic<int32_t> level_;
};

// Start-up's hook: makes the probe happen now rather than on a kernel's first
// use. Idempotent.
void simd_static_init();

// Registers a module's refill callback (see SimdRegistry::add). 0, or -1 when
// the registry is full (logged).
int32_t simd_register_table(SimdRefillFn fn);
void simd_unregister_table(SimdRefillFn fn);

}  // namespace zt
