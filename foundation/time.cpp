// Time: the epoch clock, the library's start time and a work counter, and
// calendar conversion serialised across threads.
#include "foundation/locks.h"

#include <zt/zttime.h>

#include <atomic>
#include <ctime>
#include <mutex>

namespace zt {
namespace {

// tzset and the time-zone tables behind localtime are shared by the process;
// one lock keeps concurrent conversions from seeing a half-loaded zone.
constinit AtomicSpinLock g_time_lock;
constinit std::atomic<int64_t> g_start_time{0};
constinit std::atomic<uint64_t> g_work_units{0};

}  // namespace

void timing_static_init() {
  int64_t expected = 0;
  g_start_time.compare_exchange_strong(expected, static_cast<int64_t>(std::time(nullptr)));
  g_work_units.store(0);
}

void timing_static_free() { g_start_time.store(0); }

}  // namespace zt

extern "C" {

ZT_API void ZT_InitTimeSubSystem(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_time_lock);
  tzset();
}

ZT_API void deinitTimeSubSystem(void) {}

ZT_API int64_t ZT_Time(void) { return static_cast<int64_t>(std::time(nullptr)); }

ZT_API int64_t ZT_TimeMonotonicMs(void) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

ZT_API int32_t ZT_LocalTime(int64_t seconds, struct tm *out) {
  if (out == nullptr) return -1;
  time_t t = static_cast<time_t>(seconds);
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_time_lock);
  return localtime_r(&t, out) != nullptr ? 0 : -1;
}

ZT_API int64_t ZT_ProcessStartTime(void) { return zt::g_start_time.load(); }

ZT_API int64_t ZT_ProcessUptime(void) {
  int64_t start = zt::g_start_time.load();
  return start == 0 ? 0 : static_cast<int64_t>(std::time(nullptr)) - start;
}

ZT_API uint64_t ZT_ProcessCountWork(uint64_t units) { return zt::g_work_units.fetch_add(units) + units; }

}  // extern "C"
