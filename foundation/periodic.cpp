// Periodic tasks: one thread on the shared pool sweeps the task list and runs
// every task whose interval has passed, sleeping until the next one is due.
#include "foundation/locks.h"
#include "foundation/periodic_internal.h"
#include "foundation/internal.h"

#include <zt/lists.h>
#include <zt/periodic.h>
#include <zt/threadpool.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace zt {
namespace {

constexpr int64_t kIdleWait = 3600;

struct PeriodicTask {
  ZTListNode node;
  ZTPeriodicTaskFn task;
  void *argument;
  int64_t last_run;   // 0 until the task first runs
  uint32_t interval;  // seconds, never below ZT_PERIODIC_MIN_INTERVAL
};

// Usable before start-up: tasks may be registered first and run once the
// library is up.
constinit AtomicSpinLock g_lock;
constinit ZTListNode *g_tasks = nullptr;
constinit std::atomic<bool> g_running{false};
constinit std::atomic<bool> g_initialised{false};

int64_t now_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

// Caller holds g_lock.
PeriodicTask *find_locked(ZTPeriodicTaskFn task, void *argument) {
  for (ZTListNode *node = g_tasks; node != nullptr; node = node->next) {
    auto *record = reinterpret_cast<PeriodicTask *>(node);
    if (record->task == task && record->argument == argument) return record;
  }
  return nullptr;
}

bool contains_locked(const PeriodicTask *wanted) {
  for (ZTListNode *node = g_tasks; node != nullptr; node = node->next)
    if (reinterpret_cast<PeriodicTask *>(node) == wanted) return true;
  return false;
}

uint32_t clamp_interval(uint32_t seconds) {
  return seconds < ZT_PERIODIC_MIN_INTERVAL ? ZT_PERIODIC_MIN_INTERVAL : seconds;
}

// Runs every due task. False when the stop word ended the thread meanwhile.
bool sweep(int64_t now, uint32_t *stop) {
  std::unique_lock<AtomicSpinLock> guard(g_lock);
  ZTListNode *node = g_tasks;
  while (node != nullptr) {
    auto *record = reinterpret_cast<PeriodicTask *>(node);
    if (now - record->last_run < static_cast<int64_t>(record->interval)) {
      node = node->next;
      continue;
    }
    ZTPeriodicTaskFn task = record->task;
    void *argument = record->argument;
    guard.unlock();
    task(argument);
    if (ZT_StopRequested(stop)) return false;
    guard.lock();
    // The task may have unregistered itself (or others); only a record still
    // listed is stamped, and the walk goes on from the head since `node` may be
    // gone. Tasks already stamped are not due again within this sweep.
    if (contains_locked(record)) {
      record->last_run = now;
      node = record->node.next;
    } else {
      node = g_tasks;
    }
  }
  return true;
}

int64_t next_wait(int64_t now) {
  std::lock_guard<AtomicSpinLock> guard(g_lock);
  bool any = false;
  int64_t earliest = 0;
  for (ZTListNode *node = g_tasks; node != nullptr; node = node->next) {
    auto *record = reinterpret_cast<PeriodicTask *>(node);
    int64_t due = (record->last_run != 0 ? record->last_run : now) + record->interval;
    if (!any || due < earliest) earliest = due;
    any = true;
  }
  // A due time that is not in the future gives a full hour, deliberately: the
  // sweep that missed it ran moments ago, and a wake-up ends the sleep early.
  return (any && earliest > now) ? earliest - now : kIdleWait;
}

void periodic_thread(void *, uint32_t *stop) {
  int64_t last_sweep = 0;
  int64_t wait = kIdleWait;
  while (!ZT_StopRequested(stop)) {
    int64_t now = now_seconds();
    if (now - last_sweep >= wait) {
      if (!sweep(now, stop)) break;
      last_sweep = now;
    }
    wait = next_wait(now_seconds());
    ZT_sleepCancelAllowed(static_cast<uint32_t>(wait), stop);
  }
  g_running.store(false, std::memory_order_release);
}

void launch_thread() {
  {
    std::lock_guard<AtomicSpinLock> guard(g_lock);
    if (g_running.load(std::memory_order_acquire)) return;
    g_running.store(true, std::memory_order_release);
  }
  if (threadpoolExecute(nullptr, periodic_thread, nullptr) != 0) {
    g_running.store(false, std::memory_order_release);
    ZT_LOG("init", "startPeriodicTask", "Warning: could not launch PeriodicTaskThread");
  }
}

// A new or changed interval can make a task due before the thread's sleep ends.
void wake_thread() {
  if (!g_initialised.load(std::memory_order_acquire)) return;
  if (g_running.load(std::memory_order_acquire))
    threadpoolBreakThread(nullptr, periodic_thread, nullptr);
  else
    launch_thread();
}

}  // namespace

void periodic_start() {
  g_initialised.store(true, std::memory_order_release);
  bool waiting;
  {
    std::lock_guard<AtomicSpinLock> guard(g_lock);
    waiting = g_tasks != nullptr;
  }
  if (waiting) launch_thread();
}

void periodic_stop() { g_initialised.store(false, std::memory_order_release); }

void periodic_free_all() {
  std::lock_guard<AtomicSpinLock> guard(g_lock);
  FreeList(&g_tasks);
  // A pool destroyed before its thread picked the function up never ran it,
  // so the thread could not clear the flag itself.
  g_running.store(false, std::memory_order_release);
}

}  // namespace zt

extern "C" {

ZT_API int32_t registerPeriodicTask(ZTPeriodicTaskFn task, void *argument, uint32_t interval_seconds) {
  if (task == nullptr) return -1;
  auto *fresh = static_cast<zt::PeriodicTask *>(std::calloc(1, sizeof(zt::PeriodicTask)));
  if (fresh == nullptr) {
    ZT_LOG("init", "registerPeriodicTask", "Cannot allocate memory");
    return -1;
  }
  fresh->task = task;
  fresh->argument = argument;
  fresh->interval = zt::clamp_interval(interval_seconds);
  {
    std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
    // Registering a known pair again only changes its interval.
    if (zt::PeriodicTask *record = zt::find_locked(task, argument)) {
      record->interval = fresh->interval;
      std::free(fresh);
    } else {
      AddList(&zt::g_tasks, &fresh->node);
    }
  }
  zt::wake_thread();
  return 0;
}

ZT_API int32_t updatePeriodicTask(ZTPeriodicTaskFn task, void *argument, uint32_t interval_seconds) {
  uint32_t interval = zt::clamp_interval(interval_seconds);
  bool changed;
  {
    std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
    zt::PeriodicTask *record = zt::find_locked(task, argument);
    if (record == nullptr) return -1;
    changed = record->interval != interval;
    record->interval = interval;
  }
  if (changed) zt::wake_thread();
  return 0;
}

ZT_API int32_t unregisterPeriodicTask(ZTPeriodicTaskFn task, void *argument) {
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
  zt::PeriodicTask *record = zt::find_locked(task, argument);
  if (record == nullptr) return -1;
  RemoveList(&zt::g_tasks, &record->node);
  return 0;
}

}  // extern "C"
