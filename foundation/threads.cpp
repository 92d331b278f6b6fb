// The thread layer: read-write locks, processor counts, the per-thread waker
// behind ZT_sleepCancelAllowed, and per-thread information records.
#include <sched.h>
#include <unistd.h>
#include <zt/threadpool.h>
#include <zt/threads.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "foundation/internal.h"
#include "foundation/waker.h"

namespace zt::foundation {
namespace {

constexpr const char *kModule = "zt_threads";
// What we assume when the system tells us nothing.
constexpr uint32_t kFallbackCpus = 2;

// The calling thread's waker. Pool threads and thread workers install the one
// their record owns, so that others can wake them through the record; any
// other thread gets its own on first use. The slot drops its reference when
// the thread ends, and a waker lives on while a record still refers to it.
struct WakerSlot {
  Waker *waker = nullptr;
  ~WakerSlot() {
    if (waker != nullptr) waker->unref();
  }
};
thread_local WakerSlot tls_waker;

struct CpuCounts {
  uint32_t logical;
  uint32_t physical;
};

bool read_int_file(const std::string &path, long *value) {
  std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "r"), &std::fclose);
  return file && std::fscanf(file.get(), "%ld", value) == 1;
}

// Cores among `usable`, from sysfs; 0 when sysfs says nothing.
uint32_t cores_from_sysfs(const cpu_set_t &usable) {
  std::set<std::pair<long, long>> cores;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &usable)) continue;
    const std::string dir = "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/topology/";
    long package = 0, core = 0;
    if (read_int_file(dir + "physical_package_id", &package) && read_int_file(dir + "core_id", &core))
      cores.emplace(package, core);
  }
  return static_cast<uint32_t>(cores.size());
}

// Cores among `usable`, from the processor blocks of /proc/cpuinfo; 0 when it
// names no cores (some virtual machines and architectures leave them out).
uint32_t cores_from_cpuinfo(const cpu_set_t &usable) {
  std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen("/proc/cpuinfo", "r"), &std::fclose);
  if (!file) return 0;
  std::set<std::pair<long, long>> cores;
  long processor = -1, package = -1, core = -1;
  auto flush = [&] {
    if (processor >= 0 && processor < CPU_SETSIZE && CPU_ISSET(processor, &usable) && core >= 0)
      cores.emplace(package, core);
    processor = package = core = -1;
  };
  char line[512];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    long value = 0;
    if (line[0] == '\n') {
      flush();
    } else if (std::sscanf(line, "processor : %ld", &value) == 1) {
      processor = value;
    } else if (std::sscanf(line, "physical id : %ld", &value) == 1) {
      package = value;
    } else if (std::sscanf(line, "core id : %ld", &value) == 1) {
      core = value;
    }
  }
  flush();
  return static_cast<uint32_t>(cores.size());
}

CpuCounts probe_cpus() {
  CpuCounts counts{0, 0};
  cpu_set_t usable;
  CPU_ZERO(&usable);
  if (sched_getaffinity(0, sizeof usable, &usable) == 0) {
    counts.logical = static_cast<uint32_t>(CPU_COUNT(&usable));
  } else {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    if (online > 0) {
      counts.logical = static_cast<uint32_t>(online);
      for (long cpu = 0; cpu < online && cpu < CPU_SETSIZE; ++cpu) CPU_SET(cpu, &usable);
    }
  }
  if (counts.logical == 0) counts.logical = kFallbackCpus;
  counts.physical = cores_from_sysfs(usable);
  if (counts.physical == 0) counts.physical = cores_from_cpuinfo(usable);
  if (counts.physical == 0 || counts.physical > counts.logical) counts.physical = counts.logical;
  return counts;
}

const CpuCounts &cpu_counts() {
  static const CpuCounts counts = probe_cpus();
  return counts;
}

}  // namespace

bool Waker::sleep(std::chrono::milliseconds duration, const uint32_t *stop) noexcept {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (pending_) {
      pending_ = false;
      return true;
    }
    if (stop != nullptr && __atomic_load_n(stop, __ATOMIC_ACQUIRE) != 0) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    cv_.wait_until(lock, std::min(deadline, now + kStopPoll));
  }
}

Waker *current_waker() noexcept {
  if (tls_waker.waker == nullptr) tls_waker.waker = Waker::create();
  return tls_waker.waker;
}

void install_waker(Waker *waker) noexcept {
  waker->ref();
  if (tls_waker.waker != nullptr) tls_waker.waker->unref();
  tls_waker.waker = waker;
}

void set_thread_name(const char *name) noexcept {
  char shortened[16];
  std::snprintf(shortened, sizeof shortened, "%s", name);
  pthread_setname_np(pthread_self(), shortened);
}

void sem_wait_retry(sem_t *semaphore) noexcept {
  while (sem_wait(semaphore) != 0 && errno == EINTR) {
  }
}

}  // namespace zt::foundation

using namespace zt;
using namespace zt::foundation;

// ---------------------------------------------------------------------------
// Read-write locks
// ---------------------------------------------------------------------------

extern "C" ZT_API int32_t ZT_LOCK_INIT(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_init(lock, nullptr) == 0 ? 0 : -1;
}

extern "C" ZT_API int32_t ZT_LOCK_READ(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_rdlock(lock) == 0 ? 0 : -1;
}

extern "C" ZT_API int32_t ZT_LOCK_WRITE(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_wrlock(lock) == 0 ? 0 : -1;
}

extern "C" ZT_API int32_t ZT_UNLOCK_READ(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_unlock(lock) == 0 ? 0 : -1;
}

extern "C" ZT_API int32_t ZT_UNLOCK_WRITE(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_unlock(lock) == 0 ? 0 : -1;
}

extern "C" ZT_API int32_t ZT_LOCK_DESTROY(pthread_rwlock_t *lock) {
  return lock != nullptr && pthread_rwlock_destroy(lock) == 0 ? 0 : -1;
}

// ---------------------------------------------------------------------------
// Processor counts
// ---------------------------------------------------------------------------

extern "C" ZT_API uint32_t ZT_numberOfCPUS(void) { return cpu_counts().physical; }
extern "C" ZT_API uint32_t ZT_numberOfPhysicalCPUS(void) { return cpu_counts().physical; }
extern "C" ZT_API uint32_t ZT_numberOfLogicalCPUS(void) { return cpu_counts().logical; }

// ---------------------------------------------------------------------------
// Sleeping and per-thread information
// ---------------------------------------------------------------------------

extern "C" ZT_API int32_t ZT_sleepCancelAllowed(uint32_t seconds, uint32_t *stop) {
  if (seconds == 0) {
    sched_yield();
    return 0;
  }
  const std::chrono::milliseconds duration(static_cast<int64_t>(seconds) * 1000);
  Waker *waker = current_waker();
  if (waker != nullptr) return waker->sleep(duration, stop) ? 1 : 0;
  ZT_LOG(kModule, "ZT_sleepCancelAllowed", "Cannot allocate memory");
  // Without a waker nobody can wake us, but the stop word still ends the sleep.
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < deadline) {
    if (stop != nullptr && ZT_StopRequested(stop) != 0) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return 0;
}

extern "C" ZT_API ZT_ThreadInfo *ZT_ThreadInfoCreate(const char *name) {
  Waker *waker = current_waker();
  auto *info = static_cast<ZT_ThreadInfo *>(std::calloc(1, sizeof(ZT_ThreadInfo)));
  if (waker == nullptr || info == nullptr) {
    ZT_LOG(kModule, "ZT_ThreadInfoCreate", "Cannot allocate memory");
    std::free(info);
    return nullptr;
  }
  if (name != nullptr) set_thread_name(name);
  info->number = threadpoolCurrentThreadNumber();
  info->tid = static_cast<int32_t>(gettid());
  info->thread = pthread_self();
  if (pthread_getname_np(info->thread, info->name, sizeof info->name) != 0) info->name[0] = '\0';
  waker->ref();
  info->waker = waker;
  return info;
}

extern "C" ZT_API void ZT_ThreadInfoDestroy(ZT_ThreadInfo *info) {
  if (info == nullptr) return;
  if (info->waker != nullptr) static_cast<Waker *>(info->waker)->unref();
  std::free(info);
}

extern "C" ZT_API int32_t ZT_ThreadInfoWake(const ZT_ThreadInfo *info) {
  if (info == nullptr || info->waker == nullptr) return -1;
  static_cast<Waker *>(info->waker)->wake();
  return 0;
}
