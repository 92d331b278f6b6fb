// Task-queue and thread-pool overheads: empty tasks through the default queue
// against oneTBB running the same empty tasks two ways, one task_group.run per
// task and one batched parallel_for with a grain of 1 (simple partitioner, so
// every index is a task of its own, as every one of ours is), and the round
// trip of one function through a warm pool. Before timing, each of our calls
// is checked to have run every task once. The closing table sets our cost per
// task against each peer's at every count (medians over repetitions; goal: at
// most 1.5 times TBB's cost at 100,000 tasks).
#include <benchmark/benchmark.h>

#include "bench_support.h"
#include <semaphore.h>
#include <zt/init.h>
#include <zt/threadpool.h>
#include <zt/threads.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include <atomic>

#if defined(ZT_HAVE_TBB)
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>
#include <oneapi/tbb/task_group.h>
#endif

namespace {

constexpr int64_t kRatioCount = 100000;

void empty_task(void *argument) { benchmark::DoNotOptimize(argument); }

void counting_task(void *argument) { static_cast<std::atomic<uint32_t> *>(argument)->fetch_add(1); }

const int64_t kCounts[] = {1, 64, 4096, kRatioCount};

// Per-task cost from the wall clock: the caller mostly sleeps while workers
// run, so its CPU time says nothing.
template <typename Body>
void time_per_task(benchmark::State &state, Body body) {
  const int64_t count = state.range(0);
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) body(count);
  const auto elapsed = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start);
  state.counters["ns_per_task"] = elapsed.count() / static_cast<double>(state.iterations() * count);
  state.SetItemsProcessed(state.iterations() * count);
}

void BM_TaskQ_EnqueueMultipleAndWait(benchmark::State &state) {
  ZT_TaskQueue *queue = pthread_taskq_get_default();
  ZT_TaskCompletion completion;
  if (queue == nullptr || pthread_taskq_completion_init(&completion) != 0) {
    state.SkipWithError("no default task queue");
    return;
  }
  // The ring grows on the first large call; later calls find it grown. That
  // call is also the check: every task ran, once.
  std::atomic<uint32_t> ran{0};
  const int32_t rc = pthread_taskq_enqueue_multiple_and_wait(
      queue, &completion, static_cast<uint32_t>(state.range(0)), counting_task, &ran, 0);
  if (!zt::bench::check(state, rc == 0 && ran.load() == state.range(0),
                        "enqueue_multiple_and_wait ran " + std::to_string(ran.load()) + " of " +
                            std::to_string(state.range(0)) + " tasks")) {
    pthread_taskq_completion_destroy(&completion);
    return;
  }
  time_per_task(state, [&](int64_t count) {
    if (pthread_taskq_enqueue_multiple_and_wait(queue, &completion, static_cast<uint32_t>(count), empty_task,
                                                nullptr, 0) != 0)
      state.SkipWithError("enqueue failed");
  });
  pthread_taskq_completion_destroy(&completion);
}
BENCHMARK(BM_TaskQ_EnqueueMultipleAndWait)->Arg(1)->Arg(64)->Arg(4096)->Arg(kRatioCount)->UseRealTime();

#if defined(ZT_HAVE_TBB)
void BM_TBB_TaskGroup(benchmark::State &state) {
  tbb::task_group group;
  time_per_task(state, [&](int64_t count) {
    for (int64_t i = 0; i < count; ++i) group.run([] { empty_task(nullptr); });
    group.wait();
  });
}
BENCHMARK(BM_TBB_TaskGroup)->Arg(1)->Arg(64)->Arg(4096)->Arg(kRatioCount)->UseRealTime();

void BM_TBB_ParallelForGrain1(benchmark::State &state) {
  tbb::simple_partitioner partitioner;
  time_per_task(state, [&](int64_t count) {
    tbb::parallel_for(
        tbb::blocked_range<int64_t>(0, count, 1),
        [](const tbb::blocked_range<int64_t> &r) {
          for (int64_t i = r.begin(); i != r.end(); ++i) empty_task(nullptr);
        },
        partitioner);
  });
}
BENCHMARK(BM_TBB_ParallelForGrain1)->Arg(1)->Arg(64)->Arg(4096)->Arg(kRatioCount)->UseRealTime();
#endif

struct RoundTrip {
  sem_t done;
};

void signal_done(void *argument, uint32_t *) { sem_post(&static_cast<RoundTrip *>(argument)->done); }

void BM_ThreadPool_ExecuteRoundTrip(benchmark::State &state) {
  // Two threads kept warm: the one that just signalled may not be back on
  // the idle list when the next call comes.
  ZT_ThreadPool *pool = threadpoolCreate(2, 0);
  RoundTrip trip;
  if (pool == nullptr || sem_init(&trip.done, 0, 0) != 0) {
    state.SkipWithError("no pool");
    threadpoolDestroy(pool);
    return;
  }
  for (auto _ : state) {
    if (threadpoolExecute(pool, signal_done, &trip) != 0) {
      state.SkipWithError("execute failed");
      break;
    }
    while (sem_wait(&trip.done) != 0) {
    }
  }
  threadpoolDestroy(pool);
  sem_destroy(&trip.done);
}
BENCHMARK(BM_ThreadPool_ExecuteRoundTrip)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  ZT_InitSubSystems();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  zt::bench::Table table("Empty tasks on the default queue against oneTBB (ns per task, medians)", "ns", true);
  for (const char *peer : {"BM_TBB_TaskGroup", "BM_TBB_ParallelForGrain1"})
    for (int64_t count : kCounts) {
      // snprintf, not sums of strings: GCC 12 at -O3 misreads those as overlapping copies.
      char ours_run[96], peer_run[96], name[64];
      std::snprintf(ours_run, sizeof ours_run, "BM_TaskQ_EnqueueMultipleAndWait/%lld", static_cast<long long>(count));
      std::snprintf(peer_run, sizeof peer_run, "%s/%lld", peer, static_cast<long long>(count));
      const double ours = results.value(ours_run, "ns_per_task");
      const double theirs = results.value(peer_run, "ns_per_task");
      // Costs: a ratio of 0.67 is our cost at 1.5 times the peer's.
      std::snprintf(name, sizeof name, "vs %s %lld", peer + 3, static_cast<long long>(count));
      table.row(name, ours, theirs,
                count == kRatioCount ? zt::bench::Goal::ratio(1 / 1.5) : zt::bench::Goal::none());
    }
  table.row("threadpoolExecute round trip (us)",
            results.value("BM_ThreadPool_ExecuteRoundTrip", "real_time") / 1e3, 0,
            zt::bench::Goal::none());
  table.print();
  ZT_DeInitSubSystems();
  return zt::bench::exit_code();
}
