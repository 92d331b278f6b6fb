// The wake-able sleep behind ZT_sleepCancelAllowed. Every thread that sleeps
// through the library has a Waker; whoever wants it to look at its stop word
// (the pool, a thread worker's owner, ZT_ThreadInfoWake) wakes it. A pending
// flag keeps a wake-up that arrives before the sleep, so that the sleeper
// never misses a stop request sent just before it lies down.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>

namespace zt::foundation {

class Waker {
 public:
  // A new waker holds one reference, its creator's. NULL when memory runs out.
  static Waker *create() noexcept { return new (std::nothrow) Waker(); }

  void ref() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void unref() noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  void wake() noexcept {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending_ = true;
    }
    cv_.notify_all();
  }

  // Forgets a wake-up meant for the thread's previous function.
  void clear() noexcept {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_ = false;
  }

  // Sleeps until `duration` passes, a wake-up arrives or *stop is set; true
  // when it ended early. Stop words are not always set together with a
  // wake-up (a caller may pass a word of its own), so we look at it at least
  // every kStopPoll.
  bool sleep(std::chrono::milliseconds duration, const uint32_t *stop) noexcept;

 private:
  static constexpr std::chrono::milliseconds kStopPoll{200};
  Waker() = default;
  ~Waker() = default;

  std::atomic<int> refs_{1};
  std::mutex mutex_;
  std::condition_variable cv_;
  bool pending_ = false;
};

// The calling thread's waker, made on first use; NULL when memory runs out.
Waker *current_waker() noexcept;
// Makes `waker` the calling thread's (taking a reference), as pool threads and
// thread workers do with the waker their record owns.
void install_waker(Waker *waker) noexcept;

// Names the calling thread (cut to 15 bytes).
void set_thread_name(const char *name) noexcept;

// Waits on a semaphore, riding over signal interruptions.
void sem_wait_retry(sem_t *semaphore) noexcept;

}  // namespace zt::foundation
