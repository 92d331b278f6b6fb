#include <gtest/gtest.h>
#include <sched.h>
#include <zt/threadpool.h>
#include <zt/threads.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using zt::test::wait_for;

// Holds tasks until opened; counts the tasks that arrived.
class Gate {
 public:
  static void task(void *gate) { static_cast<Gate *>(gate)->pass(); }
  void pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++arrived_;
    cv_.notify_all();
    cv_.wait(lock, [&] { return open_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool wait_arrived(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return arrived_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int arrived_ = 0;
  bool open_ = false;
};

void count_task(void *counter) { static_cast<std::atomic<uint32_t> *>(counter)->fetch_add(1); }

// A queue whose records are freed by the test's end whatever happens.
struct QueueScope {
  QueueScope(int32_t queue_size, int32_t threads) {
    ok = pthread_taskq_init(&queue, queue_size, threads) == 0;
  }
  ~QueueScope() { pthread_taskq_destroy(&queue); }
  ZT_TaskQueue queue;
  bool ok = false;
};

struct CompletionScope {
  CompletionScope() { EXPECT_EQ(pthread_taskq_completion_init(&record), 0); }
  ~CompletionScope() { pthread_taskq_completion_destroy(&record); }
  ZT_TaskCompletion record;
};

// Blocks every worker of `queue` on `gate`, so that later tasks stay queued.
void occupy_workers(ZT_TaskQueue *queue, Gate *gate) {
  for (uint32_t i = 0; i < queue->threads; ++i)
    ASSERT_EQ(pthread_taskq_enqueue(queue, nullptr, Gate::task, gate), 0);
  ASSERT_TRUE(gate->wait_arrived(static_cast<int>(queue->threads)));
}

TEST(ThreadLayer, ProcessorCountsFollowTheAffinityMask) {
  cpu_set_t usable;
  ASSERT_EQ(sched_getaffinity(0, sizeof usable, &usable), 0);
  EXPECT_EQ(ZT_numberOfLogicalCPUS(), static_cast<uint32_t>(CPU_COUNT(&usable)));
  EXPECT_GE(ZT_numberOfPhysicalCPUS(), 1u);
  EXPECT_LE(ZT_numberOfPhysicalCPUS(), ZT_numberOfLogicalCPUS());
  EXPECT_EQ(ZT_numberOfCPUS(), ZT_numberOfPhysicalCPUS());
}

TEST(ThreadLayer, LockCallsRejectNull) {
  for (auto *call :
       {ZT_LOCK_INIT, ZT_LOCK_READ, ZT_LOCK_WRITE, ZT_UNLOCK_READ, ZT_UNLOCK_WRITE, ZT_LOCK_DESTROY})
    EXPECT_EQ(call(nullptr), -1);
}

// The indices are free-running 32-bit counters masked by the capacity: the
// wrap past 2^32 must not lose or reorder an entry.
TEST(RingQueue, RoundsCapacityAndKeepsOrderAcrossTheCounterWrap) {
  ZT_RingQueue ring;
  ASSERT_EQ(pthread_queue_init(&ring, sizeof(uint64_t), 0), 0);
  ASSERT_EQ(ring.capacity, 32u);
  ring.head = ring.tail = 0xFFFFFFF0u;
  uint64_t value = 0;
  EXPECT_EQ(pthread_queue_dequeue(&ring, &value), -1);
  for (uint64_t i = 0; i < 32; ++i) ASSERT_EQ(pthread_queue_enqueue(&ring, &i), 0);
  EXPECT_EQ(pthread_queue_size(&ring), 32u);
  for (uint64_t i = 0; i < 32; ++i) {
    ASSERT_EQ(pthread_queue_dequeue(&ring, &value), 0);
    EXPECT_EQ(value, i);
  }
  EXPECT_EQ(pthread_queue_dequeue(&ring, &value), -1);
  EXPECT_EQ(ring.head, 0x10u);
  pthread_queue_destroy(&ring);
  pthread_queue_destroy(nullptr);
}

TEST(RingQueueMT, GrowsWhileTheCountersWrapAndDeliversInOrder) {
  ZT_RingQueue ring;
  ASSERT_EQ(pthread_queue_init(&ring, sizeof(uint64_t), 4), 0);
  ring.head = ring.tail = 0xFFFFFFFAu;
  constexpr uint64_t kCount = 20000;
  std::thread consumer([&] {
    uint64_t value = 0;
    for (uint64_t expected = 0; expected < kCount;)
      if (pthread_queue_dequeue(&ring, &value) != 0)
        sched_yield();
      else
        ASSERT_EQ(value, expected++);
  });
  for (uint64_t i = 0; i < kCount; ++i) ASSERT_EQ(pthread_queue_enqueue(&ring, &i), 0);
  consumer.join();
  EXPECT_GT(ring.capacity, 4u);
  EXPECT_EQ(pthread_queue_size(&ring), 0u);
  pthread_queue_destroy(&ring);
}

// Every test of the suite runs with the library up: some use its default
// queues, and refusals log.
class TaskQueueMT : public zt::test::LibraryTest {};

// Several producers fill a four-entry ring that must grow while the workers
// drain it; every task runs exactly once.
TEST_F(TaskQueueMT, ProducersGrowASmallRingAndEveryTaskRunsOnce) {
  QueueScope scope(4, 4);
  ASSERT_TRUE(scope.ok);
  constexpr uint32_t kProducers = 4, kPerProducer = 25000, kChunk = 997;
  std::vector<std::atomic<uint32_t>> hits(kProducers * kPerProducer);
  std::atomic<int> failures{0};
  std::vector<std::thread> producers;
  for (uint32_t p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      CompletionScope completion;
      std::atomic<uint32_t> *slice = &hits[p * kPerProducer];
      uint32_t done = 0;
      // Most go in batches that wait; the rest one by one without a record.
      for (; done + kChunk <= kPerProducer; done += kChunk)
        failures += pthread_taskq_enqueue_multiple_and_wait(&scope.queue, &completion.record, kChunk,
                                                            count_task, slice + done, sizeof *slice) != 0;
      for (; done < kPerProducer; ++done)
        failures += pthread_taskq_enqueue(&scope.queue, nullptr, count_task, slice + done) != 0;
    });
  }
  for (auto &producer : producers) producer.join();
  EXPECT_EQ(failures.load(), 0);
  ASSERT_TRUE(wait_for([&] { return pthread_taskq_size(&scope.queue) == 0; }));
  EXPECT_EQ(std::count_if(hits.begin(), hits.end(), [](const auto &hit) { return hit.load() != 1; }), 0);
  EXPECT_GT(scope.queue.queue.capacity, 4u);
}

// The ring must hold every task these tests queue behind blocked workers: a
// full ring would wait for them to drain it.
constexpr int32_t kRoomyRing = 256;

TEST_F(TaskQueueMT, AbortDropsQueuedTasksAndReleasesTheirWaiter) {
  QueueScope scope(kRoomyRing, 2);
  ASSERT_TRUE(scope.ok);
  Gate gate;
  occupy_workers(&scope.queue, &gate);
  CompletionScope completion;
  std::atomic<uint32_t> ran{0};
  ASSERT_EQ(pthread_taskq_enqueue_multiple(&scope.queue, &completion.record, 100, count_task, &ran, 0), 0);
  EXPECT_EQ(pthread_taskq_size(&scope.queue), 102u);
  ASSERT_EQ(pthread_taskq_abort(&scope.queue), 0);
  gate.open();
  EXPECT_EQ(pthread_taskq_completion_wait(&completion.record), 0);
  EXPECT_EQ(ran.load(), 0u);
  ASSERT_TRUE(wait_for([&] { return pthread_taskq_size(&scope.queue) == 0; }));
  // Still aborting: later tasks are dropped too.
  EXPECT_EQ(pthread_taskq_enqueue_and_wait(&scope.queue, &completion.record, count_task, &ran), 0);
  EXPECT_EQ(ran.load(), 0u);
}

TEST_F(TaskQueueMT, DestroyWaitsForRunningTasksAndDropsQueuedOnes) {
  auto queue = std::make_unique<ZT_TaskQueue>();
  ASSERT_EQ(pthread_taskq_init(queue.get(), kRoomyRing, 2), 0);
  Gate gate;
  occupy_workers(queue.get(), &gate);
  std::atomic<uint32_t> ran{0};
  ASSERT_EQ(pthread_taskq_enqueue_multiple(queue.get(), nullptr, 50, count_task, &ran, 0), 0);
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    pthread_taskq_destroy(queue.get());
    destroyed = true;
  });
  ASSERT_TRUE(wait_for([&] { return std::atomic_ref<uint32_t>(queue->state).load() == ZT_TASKQ_SHUTDOWN; }));
  EXPECT_FALSE(destroyed.load());
  gate.open();
  destroyer.join();
  EXPECT_EQ(ran.load(), 0u);
  expect_no_log();
  EXPECT_EQ(pthread_taskq_consumer_attach(queue.get()), -1);
  expect_one_log("pthread_taskq_consumer_attach", "Could not attach to taskq");
  pthread_taskq_destroy(queue.get());  // a second destroy does nothing
}

TEST_F(TaskQueueMT, NullAndAllOnesFunctionsAreDroppedNotRun) {
  QueueScope scope(-1, 2);
  ASSERT_TRUE(scope.ok);
  CompletionScope completion;
  std::atomic<uint32_t> ran{0};
  EXPECT_EQ(pthread_taskq_enqueue_and_wait(&scope.queue, &completion.record, nullptr, &ran), 0);
  auto all_ones = reinterpret_cast<pthread_taskq_function_t>(UINTPTR_MAX);
  EXPECT_EQ(pthread_taskq_enqueue_multiple_and_wait(&scope.queue, &completion.record, 3, all_ones, &ran, 0),
            0);
  EXPECT_EQ(pthread_taskq_enqueue_and_wait(&scope.queue, &completion.record, count_task, &ran), 0);
  EXPECT_EQ(ran.load(), 1u);
  EXPECT_EQ(pthread_taskq_size(&scope.queue), 0u);
}

// Submissions that failed leave `submitted` below `expected`: the waiter then
// cannot expect the post, watches the submitted tasks finish and reports -1.
TEST_F(TaskQueueMT, CompletionWaitReportsFailedSubmissions) {
  CompletionScope completion;
  ZT_TaskCompletion &record = completion.record;
  EXPECT_EQ(pthread_taskq_completion_wait(&record), 0);  // nothing submitted

  record.expected = 3;
  record.submitted = 2;
  std::atomic<bool> finishing{false};
  std::thread worker([&] {
    pthread_taskq_completion_task_done(&record);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    finishing = true;
    pthread_taskq_completion_task_done(&record);
  });
  EXPECT_EQ(pthread_taskq_completion_wait(&record), -1);
  EXPECT_TRUE(finishing.load());
  EXPECT_EQ(record.submitted, 0u);
  worker.join();

  record.expected = record.submitted = 2;
  record.finished = 0;
  std::thread finisher([&] {
    pthread_taskq_completion_task_done(&record);
    pthread_taskq_completion_task_done(&record);
  });
  EXPECT_EQ(pthread_taskq_completion_wait(&record), 0);
  EXPECT_EQ(record.finished, 2u);
  finisher.join();
}

TEST_F(TaskQueueMT, ExternalConsumerTakesTasksWhileWorkersAreBusy) {
  QueueScope scope(-1, 2);
  ASSERT_TRUE(scope.ok);
  Gate gate;
  occupy_workers(&scope.queue, &gate);
  CompletionScope completion;
  std::atomic<uint32_t> ran{0};
  ASSERT_EQ(pthread_taskq_enqueue_multiple(&scope.queue, &completion.record, 5, count_task, &ran, 0), 0);
  ASSERT_EQ(pthread_taskq_consumer_attach(&scope.queue), 0);
  ZT_TaskEntry entry;
  int taken = 0;
  for (; pthread_taskq_dequeue(&scope.queue, &entry) == 0; ++taken) {
    entry.function(entry.argument);
    pthread_taskq_completion_task_done(entry.completion);
  }
  pthread_taskq_consumer_dettach(&scope.queue);
  EXPECT_EQ(taken, 5);
  EXPECT_EQ(pthread_taskq_completion_wait(&completion.record), 0);
  EXPECT_EQ(ran.load(), 5u);
  EXPECT_EQ(pthread_taskq_size(&scope.queue), 2u);  // the two gate tasks
  gate.open();
}

struct Piece {
  uint32_t index;
  uint32_t result;
  char padding[40];
};

TEST_F(TaskQueueMT, DefaultQueuesSplitWorkByStride) {
  ZT_TaskQueue *queue = pthread_taskq_get_default();
  ZT_TaskQueue *io_queue = pthread_taskq_get_iobound_default();
  ASSERT_NE(queue, nullptr);
  ASSERT_NE(io_queue, nullptr);
  EXPECT_EQ(queue->threads, std::max(4u, ZT_numberOfLogicalCPUS()));
  EXPECT_EQ(io_queue->threads, std::max(4u, ZT_numberOfCPUS()));
  EXPECT_EQ(pthread_taskq_init_default(), 0);  // once only
  EXPECT_EQ(pthread_taskq_get_default(), queue);

  std::vector<Piece> pieces(1000);
  for (uint32_t i = 0; i < pieces.size(); ++i) pieces[i].index = i;
  CompletionScope completion;
  auto square = [](void *argument) {
    auto *piece = static_cast<Piece *>(argument);
    piece->result = piece->index * piece->index;
  };
  ASSERT_EQ(pthread_taskq_enqueue_multiple_and_wait(queue, &completion.record, 1000, square, pieces.data(),
                                                    sizeof(Piece)),
            0);
  for (uint32_t i = 0; i < pieces.size(); ++i) ASSERT_EQ(pieces[i].result, i * i);
}

TEST_F(TaskQueueMT, RefusedEnqueuesLogOnce) {
  ZT_TaskQueue *queue = pthread_taskq_get_default();
  std::atomic<uint32_t> ran{0};
  EXPECT_EQ(pthread_taskq_enqueue_multiple(queue, nullptr, 0, count_task, &ran, 0), -1);
  expect_one_log("Cannot enqueue 0 tasks");
  EXPECT_EQ(pthread_taskq_enqueue_and_wait(queue, nullptr, count_task, &ran), -1);
  expect_one_log("NULL completion passed");
  QueueScope scope(-1, 2);
  ASSERT_TRUE(scope.ok);
  ASSERT_EQ(pthread_taskq_shutdown(&scope.queue), 0);
  CompletionScope completion;
  EXPECT_EQ(pthread_taskq_enqueue(&scope.queue, &completion.record, count_task, &ran), -1);
  expect_one_log("Task queue is shut down");
  EXPECT_EQ(ran.load(), 0u);
}

}  // namespace
