#include <gtest/gtest.h>
#include <unistd.h>
#include <zt/threadpool.h>
#include <zt/threads.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using zt::test::wait_for;
using Clock = std::chrono::steady_clock;

// What a pool function saw, and a switch that lets it return.
struct Job {
  std::mutex mutex;
  std::condition_variable cv;
  bool release = false;
  std::atomic<bool> entered{false};
  std::atomic<bool> done{false};
  std::atomic<uint32_t> thread_number{0};
  std::atomic<int32_t> sleep_result{-2};
  std::atomic<uint32_t> stop_seen{0};

  void let_go() {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
    cv.notify_all();
  }
};

// Waits for its release (or the stop word).
void held(void *argument, uint32_t *stop) {
  auto *job = static_cast<Job *>(argument);
  job->thread_number = threadpoolCurrentThreadNumber();
  job->entered = true;
  std::unique_lock<std::mutex> lock(job->mutex);
  while (!job->release && !ZT_StopRequested(stop)) job->cv.wait_for(lock, std::chrono::milliseconds(5));
  job->done = true;
}

// Sleeps once for up to 30 s once released, recording how the sleep ended.
void sleeper(void *argument, uint32_t *stop) {
  auto *job = static_cast<Job *>(argument);
  job->entered = true;
  {
    std::unique_lock<std::mutex> lock(job->mutex);
    job->cv.wait(lock, [&] { return job->release; });
  }
  job->sleep_result = ZT_sleepCancelAllowed(30, stop);
  job->done = true;
}

// Sleeps until told to stop, as long-running pool functions do.
void until_stopped(void *argument, uint32_t *stop) {
  auto *job = static_cast<Job *>(argument);
  job->entered = true;
  while (!ZT_StopRequested(stop)) ZT_sleepCancelAllowed(30, stop);
  job->stop_seen = ZT_StopRequested(stop);
  job->done = true;
}

void finalising(void *argument, uint32_t *) {
  auto *job = static_cast<Job *>(argument);
  job->sleep_result = threadpoolWorkerThreadFinalise();
  job->done = true;
}

TEST(ThreadPoolMT, ReusesTheMostRecentlyIdleThreadFirst) {
  ZT_ThreadPool *pool = threadpoolCreate(0, 0);
  ASSERT_NE(pool, nullptr);
  std::vector<Job> jobs(3);
  for (auto &job : jobs) ASSERT_EQ(threadpoolExecute(pool, held, &job), 0);
  ASSERT_TRUE(wait_for([&] { return threadpoolBusyCount(pool) == 3; }));
  ASSERT_TRUE(wait_for(
      [&] { return std::all_of(jobs.begin(), jobs.end(), [](Job &j) { return j.entered.load(); }); }));
  // Release in the order 2, 0, 1, each once the one before is idle.
  for (uint32_t k : {2u, 0u, 1u}) {
    const uint32_t idle = threadpoolIdleCount(pool);
    jobs[k].let_go();
    ASSERT_TRUE(wait_for([&] { return threadpoolIdleCount(pool) == idle + 1; }));
  }
  Job next;
  ASSERT_EQ(threadpoolExecute(pool, held, &next), 0);
  ASSERT_TRUE(wait_for([&] { return next.entered.load(); }));
  EXPECT_EQ(next.thread_number.load(), jobs[1].thread_number.load());
  next.let_go();
  ASSERT_TRUE(wait_for([&] { return threadpoolIdleCount(pool) == 3; }));
  EXPECT_EQ(threadpoolBusyCount(pool), 0u);
  threadpoolDestroy(pool);
}

// A pool at its cap starts no thread: idle ones are still reused, threads
// that ended by themselves are joined to make room, and only a call that
// finds every slot taken is refused. The minimum never goes past the cap.
TEST(ThreadPoolMT, CapBoundsThreadsButIdleAndEndedOnesMakeRoom) {
  zt::test::TempDir dir;
  zt::test::ChdirGuard in_dir(dir.path());
  zt::test::LibraryScope library;
  zt::test::LogCapture log;
  ZT_ThreadPool *pool = threadpoolCreate(0, 0);
  ASSERT_NE(pool, nullptr);
  ASSERT_EQ(threadpoolSetMaxNumThreads(pool, 2), 0);
  EXPECT_EQ(threadpoolSetMinNumThreads(pool, 5), 0);
  EXPECT_EQ(threadpoolIdleCount(pool), 2u);
  std::vector<Job> jobs(2);
  for (auto &job : jobs) ASSERT_EQ(threadpoolExecute(pool, held, &job), 0);
  Job over;
  EXPECT_EQ(threadpoolExecute(pool, held, &over), -1);
  log.expect_one("Thread pool is at its limit of 2 threads");
  EXPECT_EQ(threadpoolBusyCount(pool) + threadpoolIdleCount(pool), 2u);

  // A thread that ends instead of going idle still holds its slot until it
  // is joined; the next call joins it rather than refusing.
  Job ending;
  jobs[0].let_go();
  ASSERT_TRUE(wait_for([&] { return threadpoolIdleCount(pool) == 1; }));
  ASSERT_EQ(threadpoolSetMinNumThreads(pool, 0), 0);
  ASSERT_EQ(threadpoolExecute(pool, finalising, &ending), 0);
  ASSERT_TRUE(wait_for([&] { return ending.done.load() && threadpoolBusyCount(pool) == 1; }));
  ASSERT_EQ(threadpoolExecute(pool, held, &over), 0);
  ASSERT_TRUE(wait_for([&] { return over.entered.load(); }));
  EXPECT_EQ(threadpoolBusyCount(pool), 2u);
  log.expect_none();

  ASSERT_EQ(threadpoolSetMaxNumThreads(pool, 0), 0);  // back to the default
  std::vector<Job> more(3);
  for (auto &job : more) EXPECT_EQ(threadpoolExecute(pool, held, &job), 0);
  for (auto &job : more) job.let_go();
  jobs[1].let_go();
  over.let_go();
  threadpoolDestroy(pool);
  log.expect_none();
}

// Two pools idle alike; one is collected at once, so its next collection
// within the minute is skipped, while the other's first collection retires
// the threads idle for longer than the one-second age, down to the minimum.
TEST(ThreadPoolMT, GarbageCollectionRetiresIdleThreadsDownToTheMinimum) {
  ZT_ThreadPool *collected = threadpoolCreate(1, 1);
  ZT_ThreadPool *skipped = threadpoolCreate(1, 1);
  ASSERT_NE(collected, nullptr);
  ASSERT_NE(skipped, nullptr);
  EXPECT_EQ(threadpoolIdleCount(collected), 1u);  // the minimum starts at once
  std::vector<Job> jobs(6);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(threadpoolExecute(collected, held, &jobs[i]), 0);
  for (int i = 3; i < 6; ++i) ASSERT_EQ(threadpoolExecute(skipped, held, &jobs[i]), 0);
  for (auto &job : jobs) job.let_go();
  ASSERT_TRUE(
      wait_for([&] { return threadpoolIdleCount(collected) == 3 && threadpoolIdleCount(skipped) == 3; }));
  EXPECT_EQ(threadpoolGarbageCollect(skipped), 0);  // nothing old enough yet
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(threadpoolGarbageCollect(skipped), 0);
  EXPECT_EQ(threadpoolIdleCount(skipped), 3u);
  EXPECT_EQ(threadpoolGarbageCollect(collected), 2);
  EXPECT_EQ(threadpoolIdleCount(collected), 1u);
  threadpoolDestroy(collected);
  threadpoolDestroy(skipped);
}

TEST(ThreadPoolMT, BreakThreadEndsASleepEarlyAndIsNotLostBeforeIt) {
  ZT_ThreadPool *pool = threadpoolCreate(0, 0);
  ASSERT_NE(pool, nullptr);
  Job early, late;
  ASSERT_EQ(threadpoolExecute(pool, sleeper, &early), 0);
  ASSERT_EQ(threadpoolExecute(pool, sleeper, &late), 0);
  ASSERT_TRUE(wait_for([&] { return early.entered && late.entered; }));
  EXPECT_EQ(threadpoolThreadRunning(pool, sleeper, &early), 1);
  EXPECT_EQ(threadpoolThreadRunning(pool, sleeper, nullptr), 0);
  EXPECT_EQ(threadpoolBreakThread(pool, sleeper, nullptr), -1);

  // The break reaches `early` before it sleeps: its sleep returns at once.
  const auto start = Clock::now();
  ASSERT_EQ(threadpoolBreakThread(pool, sleeper, &early), 0);
  early.let_go();
  ASSERT_TRUE(wait_for([&] { return early.done.load(); }, std::chrono::seconds(2)));
  EXPECT_EQ(early.sleep_result.load(), 1);

  // `late` is asleep when the break comes.
  late.let_go();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(threadpoolBreakThread(pool, sleeper, &late), 0);
  ASSERT_TRUE(wait_for([&] { return late.done.load(); }, std::chrono::seconds(2)));
  EXPECT_EQ(late.sleep_result.load(), 1);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(wait_for([&] { return threadpoolThreadRunning(pool, sleeper, &late) == 0; }));
  threadpoolDestroy(pool);
}

// Abort and destroy both set the stop word that long-running functions watch.
TEST(ThreadPoolMT, AbortedAndFinalisedThreadsEndAndAreCollected) {
  ZT_ThreadPool *pool = threadpoolCreate(0, 0);
  ASSERT_NE(pool, nullptr);
  Job first, second, last;
  ASSERT_EQ(threadpoolExecute(pool, until_stopped, &first), 0);
  ASSERT_EQ(threadpoolExecute(pool, until_stopped, &second), 0);
  ASSERT_TRUE(wait_for([&] { return first.entered && second.entered; }));
  EXPECT_EQ(threadpoolAbort(pool), 2);
  ASSERT_TRUE(wait_for([&] { return threadpoolBusyCount(pool) == 0; }));
  EXPECT_EQ(threadpoolIdleCount(pool), 0u);
  EXPECT_EQ(threadpoolThreadExited(pool), 2);
  EXPECT_TRUE(first.stop_seen == ZT_STOP_REQUESTED && second.stop_seen == ZT_STOP_REQUESTED);

  ASSERT_EQ(threadpoolExecute(pool, finalising, &last), 0);
  ASSERT_TRUE(wait_for([&] { return threadpoolBusyCount(pool) == 0 && last.done; }));
  EXPECT_EQ(last.sleep_result.load(), 0);
  EXPECT_EQ(threadpoolIdleCount(pool), 0u);
  EXPECT_EQ(threadpoolGarbageCollect(pool), 0);  // collects the ended thread, retires none
  EXPECT_EQ(threadpoolThreadExited(pool), 0);
  EXPECT_EQ(threadpoolWorkerThreadFinalise(), -1);

  // Destroy sets the stop word of what still runs and waits for it.
  Job running;
  ASSERT_EQ(threadpoolExecute(pool, until_stopped, &running), 0);
  ASSERT_TRUE(wait_for([&] { return running.entered.load(); }));
  const auto start = Clock::now();
  threadpoolDestroy(pool);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(running.done);
  EXPECT_EQ(running.stop_seen.load(), ZT_STOP_REQUESTED);
  threadpoolDestroy(nullptr);
}

TEST(ThreadPoolMT, SharedPoolRunsFunctionsAndRefusalsLogOnce) {
  zt::test::TempDir dir;
  zt::test::ChdirGuard cwd(dir.path());
  zt::test::LibraryScope library;
  zt::test::LogCapture log;
  Job job;
  ASSERT_EQ(threadpoolExecute(nullptr, held, &job), 0);
  ASSERT_TRUE(wait_for([&] { return job.entered.load(); }));
  EXPECT_GE(job.thread_number.load(), 1u);
  EXPECT_EQ(threadpoolThreadRunning(nullptr, held, &job), 1);
  job.let_go();
  ASSERT_TRUE(wait_for([&] { return threadpoolThreadRunning(nullptr, held, &job) == 0; }));

  EXPECT_EQ(threadpoolExecute(nullptr, nullptr, nullptr), -1);
  log.expect_one("NULL callback passed", "threadpoolExecute");
  threadpoolStaticFree();
  EXPECT_EQ(threadpoolExecute(nullptr, held, &job), -1);
  log.expect_one("NULL thread pool passed", "threadpoolExecute");
  EXPECT_EQ(threadpoolStaticInit(), 0);
}

TEST(SleepMT, EndsOnTimeWakeOrStopWord) {
  EXPECT_EQ(ZT_sleepCancelAllowed(0, nullptr), 0);
  uint32_t stop = ZT_STOP_REQUESTED;
  EXPECT_EQ(ZT_sleepCancelAllowed(30, &stop), 1);

  // A wake sent before the sleep is kept for it.
  ZT_ThreadInfo *self = ZT_ThreadInfoCreate(nullptr);
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(ZT_ThreadInfoWake(self), 0);
  EXPECT_EQ(ZT_sleepCancelAllowed(30, nullptr), 1);
  ZT_ThreadInfoDestroy(self);
  EXPECT_EQ(ZT_ThreadInfoWake(nullptr), -1);

  // A stop word set without a wake still ends the sleep.
  stop = 0;
  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    __atomic_store_n(&stop, ZT_STOP_REQUESTED, __ATOMIC_RELEASE);
  });
  const auto start = Clock::now();
  EXPECT_EQ(ZT_sleepCancelAllowed(30, &stop), 1);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  setter.join();
  EXPECT_EQ(ZT_sleepCancelAllowed(1, nullptr), 0);
}

TEST(SleepMT, ThreadInfoDescribesAndWakesItsThread) {
  ZT_ThreadInfo *info = nullptr;
  std::atomic<int32_t> result{-2};
  std::atomic<pid_t> tid{0};
  std::mutex mutex;
  std::condition_variable cv;
  std::thread sleeper([&] {
    {
      std::lock_guard<std::mutex> lock(mutex);
      info = ZT_ThreadInfoCreate("zt-test-sleeper-long-name");
      tid = gettid();
    }
    cv.notify_all();
    result = ZT_sleepCancelAllowed(30, nullptr);
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return tid.load() != 0; }));
  }
  ASSERT_NE(info, nullptr);
  EXPECT_STREQ(info->name, "zt-test-sleeper");
  EXPECT_EQ(info->tid, tid.load());
  EXPECT_EQ(info->number, 0u);
  EXPECT_EQ(ZT_ThreadInfoWake(info), 0);
  sleeper.join();
  EXPECT_EQ(result.load(), 1);
  EXPECT_EQ(ZT_ThreadInfoWake(info), 0);  // harmless after the thread ended
  ZT_ThreadInfoDestroy(info);
}

struct WorkerState {
  std::atomic<int> wakes{0};
  std::atomic<bool> stopped{false};
};

void worker_loop(void *argument, uint32_t *stop) {
  auto *state = static_cast<WorkerState *>(argument);
  while (!ZT_StopRequested(stop))
    if (ZT_sleepCancelAllowed(30, stop) == 1 && !ZT_StopRequested(stop)) ++state->wakes;
  state->stopped = true;
}

TEST(ThreadWorkerMT, StartsAndStopsWithHandshakes) {
  // Destroyed right after its launch, a worker still sees the stop.
  WorkerState quick;
  const auto start = Clock::now();
  ZT_ThreadWorker *worker = threadworkerLaunch(worker_loop, &quick, "zt-test-worker");
  ASSERT_NE(worker, nullptr);
  threadworkerDestroy(worker);
  EXPECT_TRUE(quick.stopped.load());
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));

  WorkerState state;
  worker = threadworkerLaunch(worker_loop, &state, nullptr);
  ASSERT_NE(worker, nullptr);
  EXPECT_EQ(threadworkerRunning(worker), 1);
  EXPECT_EQ(threadworkerWake(worker), 0);
  ASSERT_TRUE(wait_for([&] { return state.wakes.load() >= 1; }, std::chrono::seconds(2)));
  EXPECT_EQ(threadworkerStop(worker), 0);
  ASSERT_TRUE(wait_for([&] { return threadworkerRunning(worker) == 0; }, std::chrono::seconds(2)));
  EXPECT_TRUE(state.stopped.load());
  threadworkerDestroy(worker);
  threadworkerDestroy(nullptr);
  EXPECT_EQ(threadworkerRunning(nullptr), -1);
}

}  // namespace
