// Task-queue and thread-pool overheads: empty tasks through the default queue
// against oneTBB's task_group running the same empty tasks, and the round
// trip of one function through a warm pool. The program ends by printing the
// cost of our queue relative to TBB at 100,000 tasks per call.
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

#if defined(ZT_HAVE_TBB)
#include <oneapi/tbb/task_group.h>
#endif

namespace {

constexpr int64_t kRatioCount = 100000;

void empty_task(void *argument) { benchmark::DoNotOptimize(argument); }

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
  // The ring grows on the first large call; later calls find it grown.
  pthread_taskq_enqueue_multiple_and_wait(queue, &completion, static_cast<uint32_t>(state.range(0)),
                                          empty_task, nullptr, 0);
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
  zt::bench::CounterReporter reporter("ns_per_task");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  const std::string args = std::to_string(kRatioCount);
  const double ours = reporter.value("BM_TaskQ_EnqueueMultipleAndWait/" + args);
  const double tbb = reporter.value("BM_TBB_TaskGroup/" + args);
  if (ours > 0 && tbb > 0)
    std::printf("ratio taskq/tbb at %lld tasks: %.2f\n", static_cast<long long>(kRatioCount), ours / tbb);
  else
    std::printf("ratio taskq/tbb at %lld tasks: not measured\n", static_cast<long long>(kRatioCount));
  ZT_DeInitSubSystems();
  return 0;
}
