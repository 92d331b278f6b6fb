// LogError with the file on: records per second through the memory buffer,
// including the flushes it triggers every 64 KiB. No peer: the closing table
// gives the medians. Before timing, each case's first record is checked to
// reach the file.
#include <zt/init.h>
#include <zt/log.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "bench_support.h"

namespace {

class LibraryInTempDir {
 public:
  LibraryInTempDir() {
    char tmpl[] = "/tmp/zt_log_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) std::abort();
    dir_ = tmpl;
    ZT_InitSubSystems();
  }
  // True when the file holds `text` once the buffer is flushed.
  bool logged(const std::string &text) const {
    LogErrorFlush();
    std::ifstream in(dir_ + "/errors.log");
    std::stringstream all;
    all << in.rdbuf();
    return all.str().find(text) != std::string::npos;
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
  const std::string first = "first record " + std::to_string(state.range(0)) + " " + message;
  LogError("bench", "BM_Log_LogError", first.c_str());
  if (!zt::bench::check(state, library.logged(first), "LogError's record is not in the file")) return;
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
  ZTLogMessage("bench", "BM_Log_ZTLogMessage", 0, 1, 1, "tile %d of page %s", -7, "check");
  if (!zt::bench::check(state, library.logged("tile -7 of page check"), "ZTLogMessage's record is not in the file"))
    return;
  for (auto _ : state) ZTLogMessage("bench", "BM_Log_ZTLogMessage", 0, 1, 1, "tile %d of page %s", ++i, "p1");
  LogErrorFlush();
  state.counters["records_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Log_ZTLogMessage);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  zt::bench::Table table("Records to the log file (records/s, medians; no peer)", "rec/s");
  table.row("LogError, 40-byte message", results.value("BM_Log_LogError/40", "records_per_s"), 0,
            zt::bench::Goal::none());
  table.row("LogError, 400-byte message", results.value("BM_Log_LogError/400", "records_per_s"), 0,
            zt::bench::Goal::none());
  table.row("ZTLogMessage, formatted", results.value("BM_Log_ZTLogMessage", "records_per_s"), 0,
            zt::bench::Goal::none());
  table.print();
  return zt::bench::exit_code();
}
