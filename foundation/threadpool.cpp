// The thread pool: long-running functions get a thread of their own; finished
// threads wait on an idle list, most recently idle first, and a periodic
// garbage collection retires those idle for longer than the pool's age.
//
// Every thread has its own record: a dispatch semaphore it waits on while
// idle, and a waker that ends the function's ZT_sleepCancelAllowed. The pool's
// spin lock guards the lists and each record's function and argument; it is
// never held while a function runs, a thread starts or a thread is joined.
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>
#include <zt/periodic.h>
#include <zt/threadpool.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>

#include "foundation/locks.h"
#include "foundation/internal.h"
#include "foundation/waker.h"

namespace zt::foundation {
namespace {

constexpr const char *kModule = "zt_threadpool";
constexpr uint32_t kDefaultMaxAge = 180;
// Garbage collection runs at most this often, however it is called.
constexpr int64_t kCollectSpacingMs = 60 * 1000;
constexpr uint32_t kMinCollectInterval = 60;

int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

enum class Where : uint8_t { kNone, kIdle, kBusy, kExited };

struct PoolThread {
  PoolThread() = default;
  PoolThread(const PoolThread &) = delete;
  PoolThread &operator=(const PoolThread &) = delete;
  ~PoolThread() {
    if (semaphore_ready) sem_destroy(&wakeup);
    if (waker != nullptr) waker->unref();
  }

  PoolThread *previous = nullptr;
  PoolThread *next = nullptr;
  uint32_t number = 0;
  pthread_t handle{};
  uint32_t started = 0;
  int64_t idle_since_ms = 0;
  uint32_t stop = 0;  // handed to the function; written atomically
  threadpool_function_t function = nullptr;
  void *argument = nullptr;
  sem_t wakeup{};
  ZT_ThreadPool *pool = nullptr;
  Waker *waker = nullptr;
  Where where = Where::kNone;
  bool semaphore_ready = false;
  bool finalise = false;  // touched by the thread itself only
};

// An intrusive list of pool threads; the pool's lock guards it.
class ThreadList {
 public:
  PoolThread *front() const { return head_; }
  PoolThread *back() const { return tail_; }
  uint32_t size() const { return size_; }

  void push_front(PoolThread *thread) {
    thread->previous = nullptr;
    thread->next = head_;
    if (head_ != nullptr) head_->previous = thread;
    head_ = thread;
    if (tail_ == nullptr) tail_ = thread;
    ++size_;
  }

  void remove(PoolThread *thread) {
    (thread->previous != nullptr ? thread->previous->next : head_) = thread->next;
    (thread->next != nullptr ? thread->next->previous : tail_) = thread->previous;
    thread->previous = thread->next = nullptr;
    --size_;
  }

 private:
  PoolThread *head_ = nullptr;
  PoolThread *tail_ = nullptr;
  uint32_t size_ = 0;
};

}  // namespace
}  // namespace zt::foundation

struct ZT_ThreadPool {
  pthread_spinlock_t lock;
  zt::foundation::ThreadList idle;  // most recently idle first
  zt::foundation::ThreadList busy;
  zt::foundation::ThreadList exited;  // ended by themselves, waiting to be joined
  uint32_t next_number = 0;
  int64_t last_collect_ms = 0;
  bool collected = false;
  uint32_t min_threads = 0;
  uint32_t max_age = zt::foundation::kDefaultMaxAge;
  uint32_t max_threads = ZT_THREADPOOL_DEFAULT_MAX_THREADS;
  uint32_t starting = 0;  // threads being started outside the lock
  bool collect_registered = false;
  bool destroying = false;
  ZT_ThreadPool *next_live = nullptr;
};

namespace zt::foundation {
namespace {

thread_local PoolThread *tls_pool_thread = nullptr;

std::mutex g_shared_mutex;
std::atomic<ZT_ThreadPool *> g_shared_pool{nullptr};

// Pools that exist. The periodic collection looks its pool up here, under the
// mutex, so that a pool being destroyed is never collected: destroy takes the
// pool out under the same mutex, after any collection already running.
std::mutex g_live_mutex;
ZT_ThreadPool *g_live_pools = nullptr;

void live_add(ZT_ThreadPool *pool) {
  std::lock_guard<std::mutex> lock(g_live_mutex);
  pool->next_live = g_live_pools;
  g_live_pools = pool;
}

void live_remove(ZT_ThreadPool *pool) {
  std::lock_guard<std::mutex> lock(g_live_mutex);
  for (ZT_ThreadPool **link = &g_live_pools; *link != nullptr; link = &(*link)->next_live) {
    if (*link == pool) {
      *link = pool->next_live;
      return;
    }
  }
}

ZT_ThreadPool *resolve(ZT_ThreadPool *pool) { return pool != nullptr ? pool : g_shared_pool.load(); }

void request_stop(PoolThread *thread) {
  std::atomic_ref<uint32_t>(thread->stop).store(ZT_STOP_REQUESTED, std::memory_order_release);
  thread->waker->wake();
}

bool stop_requested(PoolThread *thread) {
  return std::atomic_ref<uint32_t>(thread->stop).load(std::memory_order_acquire) != 0;
}

void *pool_thread_main(void *argument) {
  auto *thread = static_cast<PoolThread *>(argument);
  if (thread == nullptr) {
    ZT_LOG(kModule, "threadpoolWorkerThread", "NULL data passed exiting");
    return nullptr;
  }
  ZT_ThreadPool *pool = thread->pool;
  if (pool == nullptr) {
    ZT_LOG(kModule, "threadpoolWorkerThread", "NULL threadpool data for thread id = %u. Exiting",
           static_cast<unsigned>(gettid()));
    return nullptr;
  }
  install_waker(thread->waker);
  tls_pool_thread = thread;
  char name[16];
  std::snprintf(name, sizeof name, "zt-pool-%u", thread->number);
  set_thread_name(name);
  std::atomic_ref<uint32_t>(thread->started).store(1, std::memory_order_release);

  for (;;) {
    sem_wait_retry(&thread->wakeup);
    if (stop_requested(thread)) break;
    // The dispatcher stored these before its post.
    if (thread->function != nullptr) thread->function(thread->argument, &thread->stop);
    bool leave = false;
    {
      SpinGuard guard(&pool->lock);
      thread->function = nullptr;
      thread->argument = nullptr;
      leave = stop_requested(thread) || thread->finalise || pool->destroying;
      if (!leave) {
        pool->busy.remove(thread);
        thread->idle_since_ms = now_ms();
        thread->where = Where::kIdle;
        pool->idle.push_front(thread);
      }
    }
    if (leave) break;
  }

  // A thread that leaves while busy waits on the exited list to be joined; one
  // stopped from the idle list has been unlisted by whoever stops it.
  {
    SpinGuard guard(&pool->lock);
    if (thread->where == Where::kBusy) {
      pool->busy.remove(thread);
      thread->where = Where::kExited;
      pool->exited.push_front(thread);
    }
  }
  tls_pool_thread = nullptr;
  return nullptr;
}

// Makes a record and starts its thread, which waits for its first dispatch.
// NULL when memory or threads run out; nothing is left behind then.
PoolThread *spawn(ZT_ThreadPool *pool) {
  std::unique_ptr<PoolThread> thread(new (std::nothrow) PoolThread);
  if (!thread) return nullptr;
  thread->waker = Waker::create();
  if (thread->waker == nullptr || sem_init(&thread->wakeup, 0, 0) != 0) return nullptr;
  thread->semaphore_ready = true;
  thread->pool = pool;
  {
    SpinGuard guard(&pool->lock);
    thread->number = ++pool->next_number;
  }
  if (pthread_create(&thread->handle, nullptr, &pool_thread_main, thread.get()) != 0) return nullptr;
  return thread.release();
}

// Stops a thread nobody else can reach any more (unlisted), joins and frees it.
void retire(PoolThread *thread) {
  request_stop(thread);
  sem_post(&thread->wakeup);
  pthread_join(thread->handle, nullptr);
  delete thread;
}

// Hands a function to `thread` (taken off the idle list or new); lock held.
void dispatch_locked(ZT_ThreadPool *pool, PoolThread *thread, threadpool_function_t function,
                     void *argument) {
  std::atomic_ref<uint32_t>(thread->stop).store(0, std::memory_order_relaxed);
  thread->function = function;
  thread->argument = argument;
  // A wake-up sent to the thread's previous function must not cut short the
  // first sleep of this one.
  thread->waker->clear();
  thread->where = Where::kBusy;
  pool->busy.push_front(thread);
}

int32_t reap_exited(ZT_ThreadPool *pool);

// Threads the pool holds or is starting; lock held.
uint32_t thread_count_locked(const ZT_ThreadPool *pool) {
  return pool->idle.size() + pool->busy.size() + pool->exited.size() + pool->starting;
}

int32_t execute(ZT_ThreadPool *pool, threadpool_function_t function, void *argument) {
  PoolThread *thread = nullptr;
  enum class Outcome { kDispatched, kStart, kDestroying, kFull } outcome = Outcome::kStart;
  // Threads that ended by themselves still count until joined, so one round
  // of joining them comes before a refusal.
  for (int round = 0; round < 2; ++round) {
    bool ended_waiting = false;
    {
      SpinGuard guard(&pool->lock);
      thread = pool->idle.front();
      if (pool->destroying) {
        outcome = Outcome::kDestroying;
      } else if (thread != nullptr) {
        pool->idle.remove(thread);
        dispatch_locked(pool, thread, function, argument);
        outcome = Outcome::kDispatched;
      } else if (thread_count_locked(pool) >= pool->max_threads) {
        outcome = Outcome::kFull;
        ended_waiting = pool->exited.size() != 0;
      } else {
        ++pool->starting;
        outcome = Outcome::kStart;
      }
    }
    if (outcome != Outcome::kFull || !ended_waiting) break;
    reap_exited(pool);
  }
  switch (outcome) {
    case Outcome::kDestroying:
      ZT_LOG(kModule, "threadpoolExecute", "Thread pool is being destroyed");
      return -1;
    case Outcome::kFull: {
      uint32_t cap = 0;
      {
        SpinGuard guard(&pool->lock);
        cap = pool->max_threads;
      }
      ZT_LOG(kModule, "threadpoolExecute", "Thread pool is at its limit of %u threads", cap);
      return -1;
    }
    case Outcome::kDispatched:
      sem_post(&thread->wakeup);
      return 0;
    case Outcome::kStart:
      break;
  }
  // Starting a thread is slow, so we do it outside the lock; the slot it
  // takes was counted above.
  thread = spawn(pool);
  bool refused = false;
  {
    SpinGuard guard(&pool->lock);
    --pool->starting;
    refused = pool->destroying;
    if (thread != nullptr && !refused) dispatch_locked(pool, thread, function, argument);
  }
  if (thread == nullptr) {
    ZT_LOG(kModule, "threadpoolExecute", "Cannot start thread");
    return -1;
  }
  if (refused) {
    retire(thread);
    ZT_LOG(kModule, "threadpoolExecute", "Thread pool is being destroyed");
    return -1;
  }
  sem_post(&thread->wakeup);
  return 0;
}

int32_t reap_exited(ZT_ThreadPool *pool) {
  int32_t reaped = 0;
  for (;;) {
    PoolThread *thread = nullptr;
    {
      SpinGuard guard(&pool->lock);
      thread = pool->exited.front();
      if (thread == nullptr) break;
      pool->exited.remove(thread);
      thread->where = Where::kNone;
    }
    pthread_join(thread->handle, nullptr);
    delete thread;
    ++reaped;
  }
  return reaped;
}

int32_t collect(ZT_ThreadPool *pool) {
  reap_exited(pool);
  const int64_t now = now_ms();
  {
    SpinGuard guard(&pool->lock);
    if (pool->collected && now - pool->last_collect_ms < kCollectSpacingMs) return 0;
    pool->collected = true;
    pool->last_collect_ms = now;
  }
  int32_t retired = 0;
  for (;;) {
    PoolThread *victim = nullptr;
    {
      SpinGuard guard(&pool->lock);
      // The idle list runs from the most recently idle to the longest idle,
      // so only its end can be old enough.
      PoolThread *oldest = pool->idle.back();
      if (pool->idle.size() <= pool->min_threads || oldest == nullptr || oldest->function != nullptr ||
          now - oldest->idle_since_ms <= static_cast<int64_t>(pool->max_age) * 1000)
        break;
      victim = oldest;
      pool->idle.remove(victim);
      victim->where = Where::kNone;
    }
    retire(victim);
    ++retired;
  }
  return retired;
}

void collect_task(void *argument) {
  std::lock_guard<std::mutex> lock(g_live_mutex);
  for (ZT_ThreadPool *pool = g_live_pools; pool != nullptr; pool = pool->next_live)
    if (pool == argument) collect(pool);
}

int32_t set_min_threads(ZT_ThreadPool *pool, uint32_t min_threads) {
  {
    SpinGuard guard(&pool->lock);
    pool->min_threads = min_threads;
  }
  for (;;) {
    {
      SpinGuard guard(&pool->lock);
      if (pool->destroying || pool->idle.size() >= pool->min_threads ||
          thread_count_locked(pool) >= pool->max_threads)
        break;
      ++pool->starting;
    }
    PoolThread *thread = spawn(pool);
    if (thread == nullptr) {
      SpinGuard guard(&pool->lock);
      --pool->starting;
      break;
    }
    bool refused = false;
    {
      SpinGuard guard(&pool->lock);
      --pool->starting;
      refused = pool->destroying;
      if (!refused) {
        thread->idle_since_ms = now_ms();
        thread->where = Where::kIdle;
        pool->idle.push_front(thread);
      }
    }
    if (refused) retire(thread);
  }
  return 0;
}

int32_t set_max_age(ZT_ThreadPool *pool, uint32_t max_age_seconds) {
  const uint32_t age = max_age_seconds != 0 ? max_age_seconds : kDefaultMaxAge;
  const auto interval =
      static_cast<uint32_t>(std::max<uint64_t>(kMinCollectInterval, static_cast<uint64_t>(age) * 2 / 3));
  bool registered = false;
  {
    SpinGuard guard(&pool->lock);
    pool->max_age = age;
    registered = pool->collect_registered;
  }
  // The periodic tasks may wake their own thread on this or the shared pool,
  // so we call them without the lock.
  if (registered && updatePeriodicTask(&collect_task, pool, interval) == 0) return 0;
  if (registerPeriodicTask(&collect_task, pool, interval) != 0) return -1;
  SpinGuard guard(&pool->lock);
  pool->collect_registered = true;
  return 0;
}

// `collect` registers the garbage collection; the shared pool does that once
// it is published, since registering may already ask it for a thread.
ZT_ThreadPool *create(uint32_t min_threads, uint32_t max_age_seconds, bool collect) {
  auto *pool = new (std::nothrow) ZT_ThreadPool;
  if (pool == nullptr) {
    ZT_LOG(kModule, "threadpoolCreate", "Cannot allocate memory");
    return nullptr;
  }
  if (pthread_spin_init(&pool->lock, PTHREAD_PROCESS_PRIVATE) != 0) {
    ZT_LOG(kModule, "threadpoolCreate", "Cannot create mutex");
    delete pool;
    return nullptr;
  }
  live_add(pool);
  // Without its collection the pool still works; it only keeps idle threads.
  if (collect) set_max_age(pool, max_age_seconds);
  set_min_threads(pool, min_threads);
  return pool;
}

void destroy(ZT_ThreadPool *pool) {
  bool registered = false;
  {
    SpinGuard guard(&pool->lock);
    pool->destroying = true;
    registered = pool->collect_registered;
    for (PoolThread *thread = pool->busy.front(); thread != nullptr; thread = thread->next)
      request_stop(thread);
  }
  if (registered) unregisterPeriodicTask(&collect_task, pool);
  live_remove(pool);

  for (;;) {
    PoolThread *thread = nullptr;
    {
      SpinGuard guard(&pool->lock);
      thread = pool->idle.front();
      if (thread == nullptr) break;
      pool->idle.remove(thread);
      thread->where = Where::kNone;
    }
    retire(thread);
  }
  // Busy threads leave by themselves once their functions return; each moves
  // to the exited list on its way out, so we unlist it only after the join.
  for (;;) {
    PoolThread *thread = nullptr;
    {
      SpinGuard guard(&pool->lock);
      thread = pool->busy.front() != nullptr ? pool->busy.front() : pool->exited.front();
      if (thread == nullptr) break;
    }
    pthread_join(thread->handle, nullptr);
    {
      SpinGuard guard(&pool->lock);
      if (thread->where == Where::kBusy) pool->busy.remove(thread);
      if (thread->where == Where::kExited) pool->exited.remove(thread);
    }
    delete thread;
  }
  pthread_spin_destroy(&pool->lock);
  delete pool;
}

PoolThread *find_busy(ZT_ThreadPool *pool, threadpool_function_t function, void *argument) {
  for (PoolThread *thread = pool->busy.front(); thread != nullptr; thread = thread->next)
    if (thread->function == function && thread->argument == argument) return thread;
  return nullptr;
}

}  // namespace
}  // namespace zt::foundation

using namespace zt;
using namespace zt::foundation;

extern "C" ZT_API int32_t threadpoolStaticInit(void) {
  std::lock_guard<std::mutex> lock(g_shared_mutex);
  if (g_shared_pool.load() != nullptr) return 0;
  ZT_ThreadPool *pool = create(0, kDefaultMaxAge, false);
  if (pool == nullptr) {
    ZT_LOG(kModule, "threadpoolStaticInit", "Cannot initialise threadpool internals");
    return -1;
  }
  g_shared_pool.store(pool);
  set_max_age(pool, kDefaultMaxAge);
  return 0;
}

extern "C" ZT_API void threadpoolStaticFree(void) {
  std::lock_guard<std::mutex> lock(g_shared_mutex);
  ZT_ThreadPool *pool = g_shared_pool.exchange(nullptr);
  if (pool != nullptr) destroy(pool);
}

extern "C" ZT_API ZT_ThreadPool *threadpoolCreate(uint32_t min_threads, uint32_t max_age_seconds) {
  return create(min_threads, max_age_seconds, true);
}

extern "C" ZT_API void threadpoolDestroy(ZT_ThreadPool *pool) {
  if (pool != nullptr) destroy(pool);
}

extern "C" ZT_API int32_t threadpoolExecute(ZT_ThreadPool *pool, threadpool_function_t function,
                                            void *argument) {
  if (function == nullptr) {
    ZT_LOG(kModule, "threadpoolExecute", "NULL callback passed");
    return -1;
  }
  pool = resolve(pool);
  if (pool == nullptr) {
    ZT_LOG(kModule, "threadpoolExecute", "NULL thread pool passed");
    return -1;
  }
  return execute(pool, function, argument);
}

extern "C" ZT_API int32_t threadpoolBreakThread(ZT_ThreadPool *pool, threadpool_function_t function,
                                                void *argument) {
  pool = resolve(pool);
  if (pool == nullptr) return -1;
  SpinGuard guard(&pool->lock);
  PoolThread *thread = find_busy(pool, function, argument);
  if (thread == nullptr) return -1;
  thread->waker->wake();
  return 0;
}

extern "C" ZT_API int32_t threadpoolThreadRunning(ZT_ThreadPool *pool, threadpool_function_t function,
                                                  void *argument) {
  pool = resolve(pool);
  if (pool == nullptr) return -1;
  SpinGuard guard(&pool->lock);
  return find_busy(pool, function, argument) != nullptr ? 1 : 0;
}

extern "C" ZT_API int32_t threadpoolAbort(ZT_ThreadPool *pool) {
  pool = resolve(pool);
  if (pool == nullptr) return -1;
  SpinGuard guard(&pool->lock);
  for (PoolThread *thread = pool->busy.front(); thread != nullptr; thread = thread->next)
    request_stop(thread);
  return static_cast<int32_t>(pool->busy.size());
}

extern "C" ZT_API int32_t threadpoolWorkerThreadFinalise(void) {
  if (tls_pool_thread == nullptr) return -1;
  tls_pool_thread->finalise = true;
  return 0;
}

extern "C" ZT_API int32_t threadpoolThreadExited(ZT_ThreadPool *pool) {
  pool = resolve(pool);
  return pool == nullptr ? -1 : reap_exited(pool);
}

extern "C" ZT_API int32_t threadpoolSetMinNumThreads(ZT_ThreadPool *pool, uint32_t min_threads) {
  pool = resolve(pool);
  return pool == nullptr ? -1 : set_min_threads(pool, min_threads);
}

extern "C" ZT_API int32_t threadpoolSetMaxNumThreads(ZT_ThreadPool *pool, uint32_t max_threads) {
  pool = resolve(pool);
  if (pool == nullptr) return -1;
  SpinGuard guard(&pool->lock);
  pool->max_threads = max_threads != 0 ? max_threads : ZT_THREADPOOL_DEFAULT_MAX_THREADS;
  return 0;
}

extern "C" ZT_API int32_t threadpoolSetMaxThreadAge(ZT_ThreadPool *pool, uint32_t max_age_seconds) {
  pool = resolve(pool);
  return pool == nullptr ? -1 : set_max_age(pool, max_age_seconds);
}

extern "C" ZT_API int32_t threadpoolGarbageCollect(ZT_ThreadPool *pool) {
  pool = resolve(pool);
  if (pool == nullptr) return -1;
  std::lock_guard<std::mutex> lock(g_live_mutex);
  return collect(pool);
}

extern "C" ZT_API uint32_t threadpoolIdleCount(ZT_ThreadPool *pool) {
  pool = resolve(pool);
  if (pool == nullptr) return 0;
  SpinGuard guard(&pool->lock);
  return pool->idle.size();
}

extern "C" ZT_API uint32_t threadpoolBusyCount(ZT_ThreadPool *pool) {
  pool = resolve(pool);
  if (pool == nullptr) return 0;
  SpinGuard guard(&pool->lock);
  return pool->busy.size();
}

extern "C" ZT_API uint32_t threadpoolCurrentThreadNumber(void) {
  return tls_pool_thread != nullptr ? tls_pool_thread->number : 0;
}
