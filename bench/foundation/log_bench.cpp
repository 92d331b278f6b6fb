// LogError with the file on: records per second through the memory buffer,
// including the flushes it triggers every 64 KiB.
#include <zt/init.h>
#include <zt/log.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

class LibraryInTempDir {
 public:
  LibraryInTempDir() {
    char tmpl[] = "/tmp/zt_log_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) std::abort();
    dir_ = tmpl;
    ZT_InitSubSystems();
  }
  ~LibraryInTempDir() {
    ZT_DeInitSubSystems();
    std::string log = dir_ + "/errors.log";
    unlink(log.c_str());
    rmdir(dir_.c_str());
  }

 private:
  std::string dir_;
};

void BM_Log_LogError(benchmark::State &state) {
  static LibraryInTempDir library;
  std::string message(static_cast<size_t>(state.range(0)), 'm');
  for (auto _ : state) LogError("bench", "BM_Log_LogError", message.c_str());
  LogErrorFlush();
  state.SetItemsProcessed(state.iterations());
  state.counters["records_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Log_LogError)->Arg(40)->Arg(400);

void BM_Log_ZTLogMessage(benchmark::State &state) {
  static LibraryInTempDir library;
  int i = 0;
  for (auto _ : state) ZTLogMessage("bench", "BM_Log_ZTLogMessage", 0, 1, 1, "tile %d of page %s", ++i, "p1");
  LogErrorFlush();
  state.counters["records_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Log_ZTLogMessage);

}  // namespace

BENCHMARK_MAIN();
