// The ring queue, task queues, completion records and the two shared queues.
//
// A task queue is a ring of 24-byte entries drained by a fixed set of worker
// threads. Producers serialise on the ring's producer lock and consumers on
// its consumer lock; `head` and `tail` change by atomic stores so that each
// side reads the other's counter without taking the other's lock. The ring
// grows only once it has drained: consumers copy entries out under their own
// lock alone, so the storage must not move while any entry is still in it.
#include <sched.h>
#include <zt/threads.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "foundation/internal.h"
#include "foundation/waker.h"

namespace zt::foundation {
namespace {

constexpr const char *kModule = "zt_threads";
// Head and tail are 32-bit, so a ring can hold at most 2^31 entries.
constexpr uint32_t kMaxCapacity = 1u << 31;
// Entries a producer writes before making them visible: the workers start on
// a large batch early while one store of `tail` covers many entries.
constexpr uint32_t kPublishChunk = 64;
// Entries a worker takes per hold of the consumer lock, at most. It takes
// fewer while little work is queued, so that long tasks spread over the workers.
constexpr uint32_t kMaxTake = 32;
// An idle worker polls this long before it sleeps on the semaphore: enqueue
// calls in quick succession then find it awake.
constexpr int kPauseRounds = 128;
constexpr int kYieldRounds = 256;

static_assert(sizeof(ZT_TaskEntry) == 24, "ring entries are three words");
static_assert(offsetof(ZT_RingQueue, tail) - offsetof(ZT_RingQueue, head) >= ZT_CACHE_LINE &&
                  offsetof(ZT_RingQueue, producer_lock) - offsetof(ZT_RingQueue, consumer_lock) >= ZT_CACHE_LINE,
              "the two sides of the ring must not share cache lines");

template <typename T>
std::atomic_ref<T> atomic(T &value) {
  return std::atomic_ref<T>(value);
}

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

uint32_t round_up_pow2(uint64_t n) {
  uint64_t capacity = 1;
  while (capacity < n) capacity <<= 1;
  return static_cast<uint32_t>(std::min<uint64_t>(capacity, kMaxCapacity));
}

bool is_dropped(pthread_taskq_function_t function) {
  return function == nullptr || reinterpret_cast<uintptr_t>(function) == UINTPTR_MAX;
}

// ---------------------------------------------------------------------------
// Ring
// ---------------------------------------------------------------------------

int32_t ring_init(ZT_RingQueue *ring, uint32_t entry_size, uint32_t capacity, const char *function) {
  std::memset(static_cast<void *>(ring), 0, sizeof *ring);
  ring->entries = std::malloc(static_cast<size_t>(capacity) * entry_size);
  if (ring->entries == nullptr) {
    ZT_LOG(kModule, function, "Cannot allocate memory");
    return -1;
  }
  ring->entry_size = entry_size;
  ring->capacity = capacity;
  if (pthread_spin_init(&ring->consumer_lock, PTHREAD_PROCESS_PRIVATE) != 0) {
    ZT_LOG(kModule, "pthread_queue_init", "Error setting up queue spinlock");
    std::free(ring->entries);
    ring->entries = nullptr;
    return -1;
  }
  if (pthread_spin_init(&ring->producer_lock, PTHREAD_PROCESS_PRIVATE) != 0) {
    ZT_LOG(kModule, "pthread_queue_init", "Error setting up queue spinlock");
    pthread_spin_destroy(&ring->consumer_lock);
    std::free(ring->entries);
    ring->entries = nullptr;
    return -1;
  }
  return 0;
}

void ring_destroy(ZT_RingQueue *ring) {
  if (ring->entries == nullptr) return;
  std::free(ring->entries);
  ring->entries = nullptr;
  pthread_spin_destroy(&ring->consumer_lock);
  pthread_spin_destroy(&ring->producer_lock);
}

uint32_t ring_size(const ZT_RingQueue *ring) {
  auto &r = const_cast<ZT_RingQueue &>(*ring);
  return atomic(r.tail).load(std::memory_order_acquire) - atomic(r.head).load(std::memory_order_acquire);
}

// Called with the producer lock held on a full ring: waits until the
// consumers have taken every entry, then doubles the storage. An empty ring
// has nothing to copy, so the new storage simply starts at the current
// indices. `give_up` ends the wait early (a queue shutting down).
template <typename GiveUp>
int32_t ring_grow(ZT_RingQueue *ring, GiveUp give_up) {
  while (atomic(ring->head).load(std::memory_order_acquire) != ring->tail) {
    if (give_up()) return -1;
    sched_yield();
  }
  const uint32_t old_capacity = ring->capacity;
  void *storage = nullptr;
  if (old_capacity < kMaxCapacity)
    storage = std::malloc(static_cast<size_t>(old_capacity) * 2 * ring->entry_size);
  if (storage == nullptr) {
    ZT_LOG(kModule, "pthread_queue_enqueue", "Failed to expand queue size from %d to %d entries",
           static_cast<int>(old_capacity), static_cast<int>(static_cast<int64_t>(old_capacity) * 2));
    return -1;
  }
  std::free(ring->entries);
  ring->entries = storage;
  ring->capacity = old_capacity * 2;
  return 0;
}

// Free slots seen by the producer (lock held).
uint32_t ring_space(ZT_RingQueue *ring) {
  return ring->capacity - (ring->tail - atomic(ring->head).load(std::memory_order_acquire));
}

// ---------------------------------------------------------------------------
// Completion records
// ---------------------------------------------------------------------------

void completion_reset(ZT_TaskCompletion *completion, uint32_t expected) {
  atomic(completion->expected).store(expected, std::memory_order_relaxed);
  atomic(completion->finished).store(0, std::memory_order_relaxed);
  atomic(completion->submitted).store(0, std::memory_order_relaxed);
}

// Counts `count` finished tasks. The waiter may free the record as soon as
// the count is complete, so `expected` is read before the count changes and
// the record is not touched afterwards except for the final post.
void completion_finish(ZT_TaskCompletion *completion, uint32_t count) {
  const uint32_t expected = atomic(completion->expected).load(std::memory_order_relaxed);
  const uint32_t finished = atomic(completion->finished).fetch_add(count, std::memory_order_acq_rel) + count;
  if (finished == expected) sem_post(&completion->semaphore);
}

// ---------------------------------------------------------------------------
// Task queue
// ---------------------------------------------------------------------------

uint32_t state_of(ZT_TaskQueue *taskq) { return atomic(taskq->state).load(std::memory_order_acquire); }

bool has_work(ZT_TaskQueue *taskq) {
  return atomic(taskq->queue.tail).load(std::memory_order_seq_cst) !=
         atomic(taskq->queue.head).load(std::memory_order_seq_cst);
}

// Wakes up to `entries` sleeping workers. Each post is claimed by taking one
// off the sleeper count, so that producers never post twice for one sleeper.
// The seq_cst load pairs with the seq_cst registration in idle_wait: either
// the producer sees the sleeper or the sleeper sees the new tail.
void wake_sleepers(ZT_TaskQueue *taskq, uint32_t entries) {
  auto sleepers = atomic(taskq->sleepers);
  uint32_t seen = sleepers.load(std::memory_order_seq_cst);
  while (seen != 0) {
    const uint32_t wake = std::min(seen, entries);
    if (sleepers.compare_exchange_weak(seen, seen - wake, std::memory_order_seq_cst)) {
      for (uint32_t i = 0; i < wake; ++i) sem_post(&taskq->semaphore);
      return;
    }
  }
}

// Holds one of the ring's spin locks. A holder may be preempted when there
// are more threads than processors, and a producer holds its lock while it
// waits for the ring to drain, so after a short spin we yield instead of
// burning the rest of our time slice.
class RingLock {
 public:
  explicit RingLock(pthread_spinlock_t *lock) noexcept : lock_(lock) {
    for (int round = 0; pthread_spin_trylock(lock_) != 0; ++round) {
      if (round < kPauseRounds)
        cpu_relax();
      else
        sched_yield();
    }
  }
  ~RingLock() { pthread_spin_unlock(lock_); }
  RingLock(const RingLock &) = delete;
  RingLock &operator=(const RingLock &) = delete;

 private:
  pthread_spinlock_t *lock_;
};

// Queues entries make(0) ... make(count - 1) and returns how many were
// queued: fewer when the ring cannot grow or the queue shuts down meanwhile.
// The producer lock is taken once per chunk, so that producers of other
// batches interleave with a long one instead of spinning behind it.
template <typename Make>
uint32_t taskq_publish(ZT_TaskQueue *taskq, uint32_t count, Make make) {
  ZT_RingQueue *ring = &taskq->queue;
  uint32_t done = 0;
  while (done < count) {
    uint32_t n = 0;
    {
      RingLock lock(&ring->producer_lock);
      uint32_t space = ring_space(ring);
      if (space == 0) {
        if (ring_grow(ring, [&] { return state_of(taskq) == ZT_TASKQ_SHUTDOWN; }) != 0) break;
        space = ring->capacity;
      }
      n = std::min({space, count - done, kPublishChunk});
      auto *slots = static_cast<ZT_TaskEntry *>(ring->entries);
      const uint32_t mask = ring->capacity - 1;
      const uint32_t tail = ring->tail;
      for (uint32_t i = 0; i < n; ++i) slots[(tail + i) & mask] = make(done + i);
      // Counted before the workers can see them, so the count never dips below zero.
      atomic(taskq->queued).fetch_add(n, std::memory_order_relaxed);
      atomic(ring->tail).store(tail + n, std::memory_order_seq_cst);
    }
    done += n;
    wake_sleepers(taskq, n);
  }
  return done;
}

// Takes up to `max` entries under the consumer lock. While little is queued a
// worker takes a small share, so that a handful of long tasks still spread
// over every worker; a long queue is taken in larger bites.
uint32_t taskq_take(ZT_TaskQueue *taskq, ZT_TaskEntry *out, uint32_t max) {
  ZT_RingQueue *ring = &taskq->queue;
  // Idle workers look before they lock, so they do not fight over the lock.
  if (atomic(ring->tail).load(std::memory_order_acquire) ==
      atomic(ring->head).load(std::memory_order_relaxed))
    return 0;
  RingLock lock(&ring->consumer_lock);
  const uint32_t head = ring->head;
  const uint32_t available = atomic(ring->tail).load(std::memory_order_acquire) - head;
  if (available == 0) return 0;
  uint32_t n = available / (2 * std::max(taskq->threads, 1u));
  n = std::clamp(n, 1u, std::min(max, available));
  const auto *slots = static_cast<const ZT_TaskEntry *>(ring->entries);
  const uint32_t mask = ring->capacity - 1;
  for (uint32_t i = 0; i < n; ++i) out[i] = slots[(head + i) & mask];
  atomic(ring->head).store(head + n, std::memory_order_release);
  return n;
}

// Runs (or, unless the queue is running, drops) a batch. Consecutive entries
// of one completion record are counted with one update.
void taskq_run(ZT_TaskQueue *taskq, const ZT_TaskEntry *batch, uint32_t n) {
  uint32_t i = 0;
  while (i < n) {
    ZT_TaskCompletion *completion = batch[i].completion;
    uint32_t j = i;
    for (; j < n && batch[j].completion == completion; ++j) {
      const pthread_taskq_function_t function = batch[j].function;
      if (is_dropped(function) || atomic(taskq->state).load(std::memory_order_relaxed) != ZT_TASKQ_RUNNING)
        continue;
      function(batch[j].argument);
    }
    atomic(taskq->queued).fetch_sub(j - i, std::memory_order_release);
    if (completion != nullptr) completion_finish(completion, j - i);
    i = j;
  }
}

// Waits for work once the ring is empty: first polling, then on the
// semaphore. Returns when there may be work or the queue may be shutting down.
void idle_wait(ZT_TaskQueue *taskq) {
  for (int round = 0; round < kPauseRounds + kYieldRounds; ++round) {
    if (has_work(taskq) || state_of(taskq) == ZT_TASKQ_SHUTDOWN) return;
    if (round < kPauseRounds)
      cpu_relax();
    else
      sched_yield();
  }
  auto sleepers = atomic(taskq->sleepers);
  sleepers.fetch_add(1, std::memory_order_seq_cst);
  if (has_work(taskq) || atomic(taskq->state).load(std::memory_order_seq_cst) == ZT_TASKQ_SHUTDOWN) {
    // Withdraw; but when a producer has claimed us already, its post is ours
    // to consume, or it would wake a worker that does not need it.
    uint32_t seen = sleepers.load(std::memory_order_relaxed);
    while (seen != 0)
      if (sleepers.compare_exchange_weak(seen, seen - 1, std::memory_order_seq_cst)) return;
  }
  sem_wait_retry(&taskq->semaphore);
}

void *taskq_worker(void *argument) {
  auto *taskq = static_cast<ZT_TaskQueue *>(argument);
  set_thread_name("zt-taskq");
  if (pthread_taskq_consumer_attach(taskq) != 0) return nullptr;
  ZT_TaskEntry batch[kMaxTake];
  while (state_of(taskq) != ZT_TASKQ_SHUTDOWN) {
    const uint32_t n = taskq_take(taskq, batch, kMaxTake);
    if (n == 0) {
      idle_wait(taskq);
      continue;
    }
    if (state_of(taskq) == ZT_TASKQ_SHUTDOWN) break;
    taskq_run(taskq, batch, n);
  }
  pthread_taskq_consumer_dettach(taskq);
  return nullptr;
}

void taskq_shutdown(ZT_TaskQueue *taskq) {
  atomic(taskq->state).store(ZT_TASKQ_SHUTDOWN, std::memory_order_seq_cst);
  for (uint32_t i = 0; i < taskq->threads; ++i) sem_post(&taskq->semaphore);
}

// Ends the first `started` workers and frees what init made.
void taskq_teardown(ZT_TaskQueue *taskq, uint32_t started) {
  taskq_shutdown(taskq);
  for (uint32_t i = 0; i < started; ++i) pthread_join(taskq->workers[i], nullptr);
  // Consumers of the caller's own may still be attached; we re-check every
  // millisecond, and once none is left, late comers find the count negative.
  auto attached = atomic(taskq->attached);
  for (;;) {
    int32_t none = 0;
    if (attached.compare_exchange_strong(none, INT32_MIN, std::memory_order_acq_rel)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::free(taskq->workers);
  taskq->workers = nullptr;
  ring_destroy(&taskq->queue);
  sem_destroy(&taskq->semaphore);
}

int32_t taskq_init(ZT_TaskQueue *taskq, int32_t queue_size, int32_t threads) {
  const uint32_t workers = std::max<uint32_t>(threads < 1 ? ZT_numberOfLogicalCPUS() : threads, 2);
  const uint64_t wanted = queue_size >= 1 ? static_cast<uint64_t>(queue_size) : 8ull * workers;
  const uint32_t capacity = round_up_pow2(wanted);

  std::memset(static_cast<void *>(taskq), 0, sizeof *taskq);
  if (sem_init(&taskq->semaphore, 0, 0) != 0) {
    ZT_LOG(kModule, "pthread_taskq_init", "Cannot create semaphore");
    return -1;
  }
  if (ring_init(&taskq->queue, sizeof(ZT_TaskEntry), capacity, "pthread_taskq_init") != 0) {
    sem_destroy(&taskq->semaphore);
    return -1;
  }
  taskq->workers = static_cast<pthread_t *>(std::calloc(workers, sizeof(pthread_t)));
  if (taskq->workers == nullptr) {
    ZT_LOG(kModule, "pthread_taskq_init", "Cannot allocate memory");
    ring_destroy(&taskq->queue);
    sem_destroy(&taskq->semaphore);
    return -1;
  }
  taskq->threads = workers;
  for (uint32_t i = 0; i < workers; ++i) {
    if (pthread_create(&taskq->workers[i], nullptr, &taskq_worker, taskq) != 0) {
      ZT_LOG(kModule, "pthread_taskq_init", "Cannot start worker thread %u of %u", i + 1, workers);
      taskq_teardown(taskq, i);
      return -1;
    }
  }
  return 0;
}

bool check_queue(ZT_TaskQueue *taskq, const char *function) {
  if (taskq == nullptr) {
    ZT_LOG(kModule, function, "NULL taskq passed");
    return false;
  }
  if (state_of(taskq) == ZT_TASKQ_SHUTDOWN) {
    ZT_LOG(kModule, function, "Task queue is shut down");
    return false;
  }
  return true;
}

int32_t enqueue_multiple(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion, uint32_t count,
                         pthread_taskq_function_t function, void *first_argument, size_t stride,
                         const char *caller) {
  if (!check_queue(taskq, caller)) return -1;
  if (count == 0) {
    ZT_LOG(kModule, caller, "Cannot enqueue 0 tasks");
    return -1;
  }
  if (completion != nullptr) completion_reset(completion, count);
  const auto base = reinterpret_cast<uintptr_t>(first_argument);
  const uint32_t queued = taskq_publish(taskq, count, [&](uint32_t i) {
    return ZT_TaskEntry{function, reinterpret_cast<void *>(base + static_cast<uintptr_t>(i) * stride),
                        completion};
  });
  if (completion != nullptr) atomic(completion->submitted).store(queued, std::memory_order_release);
  return queued == count ? 0 : -1;
}

std::mutex g_default_mutex;
std::atomic<ZT_TaskQueue *> g_default_queue{nullptr};
std::atomic<ZT_TaskQueue *> g_iobound_queue{nullptr};

struct TaskQueueFree {
  void operator()(ZT_TaskQueue *taskq) const {
    pthread_taskq_destroy(taskq);
    delete taskq;
  }
};
using TaskQueuePtr = std::unique_ptr<ZT_TaskQueue, TaskQueueFree>;

// A queue made with `new`, whose cache-line aligned fields need the aligned
// allocation that a plain malloc does not promise.
TaskQueuePtr make_queue(uint32_t threads) {
  auto *taskq = new ZT_TaskQueue();
  if (pthread_taskq_init(taskq, -1, static_cast<int32_t>(threads)) != 0) {
    delete taskq;
    return nullptr;
  }
  return TaskQueuePtr(taskq);
}

}  // namespace
}  // namespace zt::foundation

using namespace zt;
using namespace zt::foundation;

// ---------------------------------------------------------------------------
// Ring queue
// ---------------------------------------------------------------------------

extern "C" ZT_API int32_t pthread_queue_init(ZT_RingQueue *queue, uint32_t entry_size, int32_t capacity) {
  if (queue == nullptr || entry_size == 0) {
    ZT_LOG(kModule, "pthread_queue_init", "Invalid queue or entry size passed");
    return -1;
  }
  return ring_init(queue, entry_size, round_up_pow2(capacity < 1 ? 32 : capacity), "pthread_queue_init");
}

extern "C" ZT_API int32_t pthread_queue_enqueue(ZT_RingQueue *queue, const void *entry) {
  if (queue == nullptr || entry == nullptr) return -1;
  RingLock lock(&queue->producer_lock);
  if (ring_space(queue) == 0 && ring_grow(queue, [] { return false; }) != 0) return -1;
  const uint32_t tail = queue->tail;
  std::memcpy(static_cast<char *>(queue->entries) +
                  static_cast<size_t>(tail & (queue->capacity - 1)) * queue->entry_size,
              entry, queue->entry_size);
  atomic(queue->tail).store(tail + 1, std::memory_order_release);
  return 0;
}

extern "C" ZT_API int32_t pthread_queue_dequeue(ZT_RingQueue *queue, void *entry) {
  if (queue == nullptr || entry == nullptr) return -1;
  RingLock lock(&queue->consumer_lock);
  const uint32_t head = queue->head;
  if (atomic(queue->tail).load(std::memory_order_acquire) == head) return -1;
  std::memcpy(entry,
              static_cast<const char *>(queue->entries) +
                  static_cast<size_t>(head & (queue->capacity - 1)) * queue->entry_size,
              queue->entry_size);
  atomic(queue->head).store(head + 1, std::memory_order_release);
  return 0;
}

extern "C" ZT_API uint32_t pthread_queue_size(const ZT_RingQueue *queue) {
  return queue == nullptr ? 0 : ring_size(queue);
}

extern "C" ZT_API void pthread_queue_destroy(ZT_RingQueue *queue) {
  if (queue != nullptr) ring_destroy(queue);
}

// ---------------------------------------------------------------------------
// Task queues
// ---------------------------------------------------------------------------

extern "C" ZT_API int32_t pthread_taskq_init(ZT_TaskQueue *taskq, int32_t queue_size, int32_t threads) {
  if (taskq == nullptr) {
    ZT_LOG(kModule, "pthread_taskq_init", "NULL taskq passed");
    return -1;
  }
  return taskq_init(taskq, queue_size, threads);
}

extern "C" ZT_API int32_t pthread_taskq_init_default(void) {
  return api_guard<int32_t>(kModule, "pthread_taskq_init_default", -1, [] {
    std::lock_guard<std::mutex> lock(g_default_mutex);
    if (g_default_queue.load() != nullptr) return 0;
    TaskQueuePtr processor_bound = make_queue(std::max(4u, ZT_numberOfLogicalCPUS()));
    if (!processor_bound) return -1;
    TaskQueuePtr io_bound = make_queue(std::max(4u, ZT_numberOfCPUS()));
    if (!io_bound) return -1;
    g_default_queue.store(processor_bound.release());
    g_iobound_queue.store(io_bound.release());
    return 0;
  });
}

extern "C" ZT_API void pthread_taskq_destroy_default(void) {
  std::lock_guard<std::mutex> lock(g_default_mutex);
  TaskQueuePtr processor_bound(g_default_queue.exchange(nullptr));
  TaskQueuePtr io_bound(g_iobound_queue.exchange(nullptr));
}

extern "C" ZT_API ZT_TaskQueue *pthread_taskq_get_default(void) { return g_default_queue.load(); }
extern "C" ZT_API ZT_TaskQueue *pthread_taskq_get_iobound_default(void) { return g_iobound_queue.load(); }

extern "C" ZT_API int32_t pthread_taskq_enqueue(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                                pthread_taskq_function_t function, void *argument) {
  return enqueue_multiple(taskq, completion, 1, function, argument, 0, "pthread_taskq_enqueue");
}

extern "C" ZT_API int32_t pthread_taskq_enqueue_multiple(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                                         uint32_t count, pthread_taskq_function_t function,
                                                         void *first_argument, size_t stride) {
  return enqueue_multiple(taskq, completion, count, function, first_argument, stride,
                          "pthread_taskq_enqueue_multiple");
}

extern "C" ZT_API int32_t pthread_taskq_enqueue_and_wait(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                                         pthread_taskq_function_t function, void *argument) {
  if (completion == nullptr) {
    ZT_LOG(kModule, "pthread_taskq_enqueue_and_wait", "NULL completion passed");
    return -1;
  }
  const int32_t status =
      enqueue_multiple(taskq, completion, 1, function, argument, 0, "pthread_taskq_enqueue_and_wait");
  const int32_t waited = pthread_taskq_completion_wait(completion);
  return status == 0 ? waited : -1;
}

extern "C" ZT_API int32_t pthread_taskq_enqueue_multiple_and_wait(ZT_TaskQueue *taskq,
                                                                  ZT_TaskCompletion *completion,
                                                                  uint32_t count,
                                                                  pthread_taskq_function_t function,
                                                                  void *first_argument, size_t stride) {
  if (completion == nullptr) {
    ZT_LOG(kModule, "pthread_taskq_enqueue_multiple_and_wait", "NULL completion passed");
    return -1;
  }
  const int32_t status = enqueue_multiple(taskq, completion, count, function, first_argument, stride,
                                          "pthread_taskq_enqueue_multiple_and_wait");
  const int32_t waited = pthread_taskq_completion_wait(completion);
  return status == 0 ? waited : -1;
}

extern "C" ZT_API int32_t pthread_taskq_completion_init(ZT_TaskCompletion *completion) {
  if (completion == nullptr) {
    ZT_LOG(kModule, "pthread_taskq_completion_init", "NULL completion passed");
    return -1;
  }
  std::memset(static_cast<void *>(completion), 0, sizeof *completion);
  if (sem_init(&completion->semaphore, 0, 0) != 0) {
    ZT_LOG(kModule, "pthread_taskq_completion_init", "Cannot create semaphore");
    return -1;
  }
  return 0;
}

extern "C" ZT_API int32_t pthread_taskq_completion_wait(ZT_TaskCompletion *completion) {
  if (completion == nullptr) return -1;
  auto submitted = atomic(completion->submitted);
  const uint32_t count = submitted.load(std::memory_order_acquire);
  if (count == 0) return 0;
  if (count == atomic(completion->expected).load(std::memory_order_relaxed)) {
    // Small batches finish within microseconds; looking a while first lets
    // the post find us awake instead of asleep in the kernel.
    auto finished = atomic(completion->finished);
    for (int round = 0;
         round < kPauseRounds + kYieldRounds && finished.load(std::memory_order_acquire) != count; ++round) {
      if (round < kPauseRounds)
        cpu_relax();
      else
        sched_yield();
    }
    sem_wait_retry(&completion->semaphore);
    submitted.store(0, std::memory_order_relaxed);
    return 0;
  }
  // Part of the work was never queued, so the post will not come: we watch
  // the queued part finish instead and tell the caller.
  while (atomic(completion->finished).load(std::memory_order_acquire) != count)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  submitted.store(0, std::memory_order_relaxed);
  return -1;
}

extern "C" ZT_API void pthread_taskq_completion_task_done(ZT_TaskCompletion *completion) {
  if (completion != nullptr) completion_finish(completion, 1);
}

extern "C" ZT_API void pthread_taskq_completion_destroy(ZT_TaskCompletion *completion) {
  if (completion != nullptr) sem_destroy(&completion->semaphore);
}

extern "C" ZT_API int32_t pthread_taskq_dequeue(ZT_TaskQueue *taskq, ZT_TaskEntry *entry) {
  if (taskq == nullptr || entry == nullptr) return -1;
  while (state_of(taskq) != ZT_TASKQ_SHUTDOWN && taskq_take(taskq, entry, 1) == 1) {
    if (!is_dropped(entry->function) && state_of(taskq) == ZT_TASKQ_RUNNING) {
      atomic(taskq->queued).fetch_sub(1, std::memory_order_release);
      return 0;
    }
    taskq_run(taskq, entry, 1);
  }
  return -1;
}

extern "C" ZT_API uint32_t pthread_taskq_size(const ZT_TaskQueue *taskq) {
  if (taskq == nullptr) return 0;
  return atomic(const_cast<ZT_TaskQueue *>(taskq)->queued).load(std::memory_order_acquire);
}

extern "C" ZT_API int32_t pthread_taskq_consumer_attach(ZT_TaskQueue *taskq) {
  if (taskq == nullptr) return -1;
  auto attached = atomic(taskq->attached);
  int32_t seen = attached.load(std::memory_order_acquire);
  do {
    if (seen < 0) {
      ZT_LOG(kModule, "pthread_taskq_consumer_attach", "Could not attach to taskq");
      return -1;
    }
  } while (!attached.compare_exchange_weak(seen, seen + 1, std::memory_order_acq_rel));
  return 0;
}

extern "C" ZT_API void pthread_taskq_consumer_dettach(ZT_TaskQueue *taskq) {
  if (taskq != nullptr) atomic(taskq->attached).fetch_sub(1, std::memory_order_acq_rel);
}

extern "C" ZT_API int32_t pthread_taskq_abort(ZT_TaskQueue *taskq) {
  if (taskq == nullptr) return -1;
  uint32_t running = ZT_TASKQ_RUNNING;
  atomic(taskq->state).compare_exchange_strong(running, ZT_TASKQ_ABORTING, std::memory_order_acq_rel);
  return 0;
}

extern "C" ZT_API int32_t pthread_taskq_shutdown(ZT_TaskQueue *taskq) {
  if (taskq == nullptr) return -1;
  taskq_shutdown(taskq);
  return 0;
}

extern "C" ZT_API void pthread_taskq_destroy(ZT_TaskQueue *taskq) {
  if (taskq == nullptr || atomic(taskq->attached).load(std::memory_order_acquire) < 0) return;
  taskq_teardown(taskq, taskq->threads);
  taskq->threads = 0;
}
