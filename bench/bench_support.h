// What the benchmark programs share: a console reporter that also keeps one
// counter of every run, so that a program can print its ratio to a peer
// library after the runs.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace zt::bench {

class CounterReporter : public benchmark::ConsoleReporter {
 public:
  explicit CounterReporter(std::string counter) : counter_(std::move(counter)) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      auto counter = run.counters.find(counter_);
      if (counter == run.counters.end()) continue;
      std::string key = run.run_name.function_name;
      if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") medians_[key] = counter->second.value;
      } else {
        last_[key] = counter->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The counter of the run named "function" or "function/args": the median of
  // repetitions when there were any, else the last run; 0 when it did not run.
  double value(const std::string &key) const {
    if (auto it = medians_.find(key); it != medians_.end()) return it->second;
    if (auto it = last_.find(key); it != last_.end()) return it->second;
    return 0;
  }

 private:
  std::string counter_;
  std::map<std::string, double> medians_, last_;
};

}  // namespace zt::bench
