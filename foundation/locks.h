// RAII guards over the POSIX locks the library's records embed, so that every
// early return releases what it took.
#pragma once

#include <pthread.h>

#include <atomic>

namespace zt {

// A spin lock that needs no set-up, for state that must be usable before
// start-up (periodic tasks may be registered before ZT_InitSubSystems).
class AtomicSpinLock {
 public:
  constexpr AtomicSpinLock() noexcept = default;
  AtomicSpinLock(const AtomicSpinLock &) = delete;
  AtomicSpinLock &operator=(const AtomicSpinLock &) = delete;
  void lock() noexcept {
    while (flag_.exchange(true, std::memory_order_acquire))
      while (flag_.load(std::memory_order_relaxed)) __builtin_ia32_pause();
  }
  void unlock() noexcept { flag_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> flag_{false};
};

// A spin lock usable with std::lock_guard / std::scoped_lock.
class SpinLock {
 public:
  SpinLock() noexcept { pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE); }
  ~SpinLock() { pthread_spin_destroy(&lock_); }
  SpinLock(const SpinLock &) = delete;
  SpinLock &operator=(const SpinLock &) = delete;
  void lock() noexcept { pthread_spin_lock(&lock_); }
  void unlock() noexcept { pthread_spin_unlock(&lock_); }
  bool try_lock() noexcept { return pthread_spin_trylock(&lock_) == 0; }

 private:
  pthread_spinlock_t lock_;
};

// Holds a spin lock that lives in a C record.
class SpinGuard {
 public:
  explicit SpinGuard(pthread_spinlock_t *lock) noexcept : lock_(lock) { pthread_spin_lock(lock_); }
  ~SpinGuard() { pthread_spin_unlock(lock_); }
  SpinGuard(const SpinGuard &) = delete;
  SpinGuard &operator=(const SpinGuard &) = delete;

 private:
  pthread_spinlock_t *lock_;
};

class ReadGuard {
 public:
  explicit ReadGuard(pthread_rwlock_t *lock) noexcept : lock_(lock) { pthread_rwlock_rdlock(lock_); }
  ~ReadGuard() { pthread_rwlock_unlock(lock_); }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;

 private:
  pthread_rwlock_t *lock_;
};

class WriteGuard {
 public:
  explicit WriteGuard(pthread_rwlock_t *lock) noexcept : lock_(lock) { pthread_rwlock_wrlock(lock_); }
  ~WriteGuard() { pthread_rwlock_unlock(lock_); }
  WriteGuard(const WriteGuard &) = delete;
  WriteGuard &operator=(const WriteGuard &) = delete;

 private:
  pthread_rwlock_t *lock_;
};

}  // namespace zt
