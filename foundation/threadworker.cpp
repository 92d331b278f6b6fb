// The thread worker: one dedicated thread for one function.
//
// Start handshake: threadworkerLaunch waits until the new thread has installed
// its waker and is about to call the function, so that a stop sent right
// after the launch always reaches the function's sleeps. Stop handshake:
// threadworkerStop sets the stop word and wakes the waker; threadworkerDestroy
// then joins the thread, which ends when the function returns.
#include <pthread.h>
#include <zt/threadpool.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>

#include "foundation/internal.h"
#include "foundation/waker.h"

struct ZT_ThreadWorker {
  ZT_ThreadWorker() = default;
  ZT_ThreadWorker(const ZT_ThreadWorker &) = delete;
  ZT_ThreadWorker &operator=(const ZT_ThreadWorker &) = delete;
  ~ZT_ThreadWorker() {
    if (waker != nullptr) waker->unref();
  }

  pthread_t thread{};
  threadpool_function_t function = nullptr;
  void *argument = nullptr;
  uint32_t stop = 0;     // handed to the function; written atomically
  uint32_t running = 0;  // 1 from the launch until the function returns
  zt::foundation::Waker *waker = nullptr;
  std::mutex mutex;  // with `cv`, the start handshake
  std::condition_variable cv;
  bool started = false;
  char name[16] = "zt-worker";
};

namespace zt::foundation {
namespace {

constexpr const char *kModule = "zt_threadpool";

void *worker_main(void *argument) {
  auto *worker = static_cast<ZT_ThreadWorker *>(argument);
  install_waker(worker->waker);
  set_thread_name(worker->name);
  {
    std::lock_guard<std::mutex> lock(worker->mutex);
    worker->started = true;
  }
  worker->cv.notify_all();
  worker->function(worker->argument, &worker->stop);
  std::atomic_ref<uint32_t>(worker->running).store(0, std::memory_order_release);
  return nullptr;
}

}  // namespace
}  // namespace zt::foundation

using namespace zt;
using namespace zt::foundation;

extern "C" ZT_API ZT_ThreadWorker *threadworkerLaunch(threadpool_function_t function, void *argument,
                                                      const char *name) {
  if (function == nullptr) {
    ZT_LOG(kModule, "threadworkerLaunch", "NULL callback passed");
    return nullptr;
  }
  std::unique_ptr<ZT_ThreadWorker> worker(new (std::nothrow) ZT_ThreadWorker);
  if (worker) worker->waker = Waker::create();
  if (!worker || worker->waker == nullptr) {
    ZT_LOG(kModule, "threadworkerLaunch", "Cannot allocate memory");
    return nullptr;
  }
  worker->function = function;
  worker->argument = argument;
  worker->running = 1;
  if (name != nullptr) std::snprintf(worker->name, sizeof worker->name, "%s", name);
  if (pthread_create(&worker->thread, nullptr, &worker_main, worker.get()) != 0) {
    ZT_LOG(kModule, "threadworkerLaunch", "Cannot start thread");
    return nullptr;
  }
  std::unique_lock<std::mutex> lock(worker->mutex);
  worker->cv.wait(lock, [&] { return worker->started; });
  lock.unlock();
  return worker.release();
}

extern "C" ZT_API int32_t threadworkerWake(ZT_ThreadWorker *worker) {
  if (worker == nullptr) return -1;
  worker->waker->wake();
  return 0;
}

extern "C" ZT_API int32_t threadworkerStop(ZT_ThreadWorker *worker) {
  if (worker == nullptr) return -1;
  std::atomic_ref<uint32_t>(worker->stop).store(ZT_STOP_REQUESTED, std::memory_order_release);
  worker->waker->wake();
  return 0;
}

extern "C" ZT_API int32_t threadworkerRunning(ZT_ThreadWorker *worker) {
  if (worker == nullptr) return -1;
  return std::atomic_ref<uint32_t>(worker->running).load(std::memory_order_acquire) != 0 ? 1 : 0;
}

extern "C" ZT_API void threadworkerDestroy(ZT_ThreadWorker *worker) {
  if (worker == nullptr) return;
  threadworkerStop(worker);
  pthread_join(worker->thread, nullptr);
  delete worker;
}
