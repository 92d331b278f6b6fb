// The stochastic cache: weight tables shared by every object of the same mode
// and input depth, so that a job's channels draw their 12,302 random numbers
// once. Entries are kept most recently released first; a periodic task frees
// the unreferenced ones when the cache grows past 8 entries or an entry has
// been idle for 121 seconds.
#include <zt/periodic.h>
#include <zt/zttime.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <string>

#include "foundation/locks.h"
#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

struct CacheEntry {
  int32_t references = 0;
  int64_t lastUsed = 0;
  std::string key;
  int32_t *table = nullptr;
  int32_t *end = nullptr;
};

constexpr uint32_t kPurgeIntervalSeconds = 30;
constexpr size_t kMaxIdleEntries = 8;
constexpr int64_t kIdleSeconds = 121;

// The lock needs no set-up, so objects made before start-up (or after
// shut-down) still find a consistent, empty cache.
AtomicSpinLock g_lock;
std::list<CacheEntry> g_entries;
std::atomic<bool> g_initialised{false};
std::atomic<bool> g_task_registered{false};
std::atomic<int64_t (*)(void)> g_clock{nullptr};

int64_t now() {
  int64_t (*clock)(void) = g_clock.load();
  return clock != nullptr ? clock() : ZT_Time();
}

void purge_task(void *) { screeningCachePurge(); }

// Frees the unreferenced entries the predicate picks; under the lock.
template <typename Pick>
void free_entries(Pick pick) {
  for (auto it = g_entries.begin(); it != g_entries.end();) {
    if (it->references < 1 && pick(*it)) {
      std::free(it->table);
      it = g_entries.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

int32_t *cache_acquire(const char *key, int32_t **end) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
  for (CacheEntry &entry : g_entries) {
    if (entry.key == key) {
      ++entry.references;
      *end = entry.end;
      return entry.table;
    }
  }
  return nullptr;
}

bool cache_add(const char *key, int32_t *table, int32_t *end) {
  try {
    std::list<CacheEntry> node(1);
    node.front().references = 1;
    node.front().lastUsed = now();
    node.front().key = key;
    node.front().table = table;
    node.front().end = end;
    std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
    for (const CacheEntry &entry : g_entries)
      if (entry.key == key) return false;
    g_entries.splice(g_entries.begin(), node);
    return true;
  } catch (const std::bad_alloc &) {
    ZT_LOG(kModule, "screeningCacheInit", "Cannot allocate memory");
    return false;
  }
}

void cache_release(int32_t *table) {
  const int64_t t = now();
  std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
  for (auto it = g_entries.begin(); it != g_entries.end(); ++it) {
    if (it->table == table) {
      --it->references;
      it->lastUsed = t;
      g_entries.splice(g_entries.begin(), g_entries, it);
      return;
    }
  }
}

}  // namespace zt::screening

using namespace zt::screening;

extern "C" {

ZT_API void screeningCacheInit(void) {
  if (g_initialised.exchange(true)) return;
  {
    std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
    free_entries([](const CacheEntry &) { return true; });
  }
  if (registerPeriodicTask(purge_task, nullptr, kPurgeIntervalSeconds) == 0) g_task_registered.store(true);
}

ZT_API void screeningCacheFree(void) {
  if (!g_initialised.load()) return;
  if (g_task_registered.exchange(false)) unregisterPeriodicTask(purge_task, nullptr);
  {
    std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
    free_entries([](const CacheEntry &) { return true; });
  }
  g_initialised.store(false);
}

ZT_API void screeningCachePurge(void) {
  const int64_t t = now();
  std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
  const bool crowded = g_entries.size() > kMaxIdleEntries;
  free_entries([&](const CacheEntry &entry) { return crowded || t - entry.lastUsed >= kIdleSeconds; });
}

ZT_API uint32_t screeningCacheCount(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(g_lock);
  return static_cast<uint32_t>(g_entries.size());
}

ZT_API void screeningCacheSetClock(int64_t (*clock)(void)) { g_clock.store(clock); }

}  // extern "C"
