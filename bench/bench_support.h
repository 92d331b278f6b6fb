// What every benchmark program shares, so that each ratio it prints means the
// same thing:
//   Buffer        page-aligned memory in its own allocation. Ours and the
//                 peer get theirs alike: glibc's string copies pick their path
//                 from the distance between source and destination within a
//                 page, so two vectors that happen to sit 16 bytes apart can
//                 run a peer 25 times slower than it should.
//   memcpy_seconds  the memcpy peer, timed on such buffers.
//   check         one verification of a case against its reference before it
//                 is timed; a failure skips the case and makes the program
//                 exit non-zero, so a fast wrong kernel cannot pass.
//   Results       a console reporter that keeps, per run name and counter,
//                 the median of the repetitions (the median aggregate when
//                 the library reports only aggregates).
//   Table         the closing table: case | ours | peer | ratio | goal |
//                 holds, the ratio always a speed ratio (above 1: ours is
//                 faster) whatever the unit.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zt::bench {

class Buffer {
 public:
  Buffer() = default;
  // `offset` bytes past a page boundary; ours and the peer pass the same one.
  explicit Buffer(size_t bytes, size_t offset = 0) : size_(bytes) {
    if (posix_memalign(&base_, 4096, std::max<size_t>(bytes + offset, 1)) != 0) std::abort();
    data_ = static_cast<uint8_t *>(base_) + offset;
    std::memset(data_, 0, bytes);
  }
  ~Buffer() { std::free(base_); }
  Buffer(Buffer &&o) noexcept { *this = std::move(o); }
  Buffer &operator=(Buffer &&o) noexcept {
    std::swap(base_, o.base_);
    std::swap(data_, o.data_);
    std::swap(size_, o.size_);
    return *this;
  }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;

  uint8_t *data() const { return data_; }
  size_t size() const { return size_; }
  template <typename T>
  T *as() const {
    return reinterpret_cast<T *>(data_);
  }

 private:
  void *base_ = nullptr;
  uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

// Median of the values (0 for none); the vector is reordered.
inline double median(std::vector<double> v) {
  if (v.empty()) return 0;
  const size_t mid = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(mid), v.end());
  if (v.size() % 2 == 1) return v[mid];
  const double upper = v[mid];
  return (*std::max_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(mid)) + upper) / 2;
}

// Median seconds per call of `f` over `blocks` blocks of `reps` calls.
template <typename F>
double seconds_per_call(F &&f, int reps, int blocks = 7) {
  std::vector<double> times;
  for (int b = 0; b < blocks; ++b) {
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < reps; ++i) f();
    const auto t1 = std::chrono::steady_clock::now();
    times.push_back(std::chrono::duration<double>(t1 - t0).count() / reps);
  }
  return median(std::move(times));
}

// The memcpy peer: `bytes` copied between two buffers allocated as ours are.
inline double memcpy_seconds(size_t bytes, int reps, size_t offset = 0, int blocks = 7) {
  static std::map<std::pair<size_t, size_t>, std::pair<Buffer, Buffer>> buffers;
  auto &pair = buffers[{bytes, offset}];
  if (pair.first.data() == nullptr) {
    pair.first = Buffer(bytes, offset);
    pair.second = Buffer(bytes, offset);
    std::memset(pair.first.data(), 0x5A, bytes);
  }
  return seconds_per_call(
      [&] {
        std::memcpy(pair.second.data(), pair.first.data(), bytes);
        benchmark::ClobberMemory();
      },
      reps, blocks);
}

inline bool &verification_failed() {
  static bool failed = false;
  return failed;
}

// Checks a case once before it is timed: false (and the case skipped, the
// program bound to exit non-zero) when `ok` is false.
inline bool check(benchmark::State &state, bool ok, const std::string &what) {
  if (ok) return true;
  verification_failed() = true;
  const std::string message = "output differs from its reference: " + what;
  std::fprintf(stderr, "VERIFY FAILED %s\n", message.c_str());
  state.SkipWithError(message.c_str());
  return false;
}
// The same outside a benchmark run (checks made before the runs).
inline bool check(bool ok, const std::string &what) {
  if (ok) return true;
  verification_failed() = true;
  std::fprintf(stderr, "VERIFY FAILED output differs from its reference: %s\n", what.c_str());
  return false;
}

inline int exit_code() { return verification_failed() ? 1 : 0; }

// Keeps every counter of every run; value(name, counter) is the median over
// repetitions. "name" is "function" or "function/args" as the console shows.
class Results : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.error_occurred) continue;
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name != "median") continue;
        for (const auto &[counter, value] : run.counters) medians_[name][counter] = value.value;
        medians_[name]["real_time"] = run.GetAdjustedRealTime();
        medians_[name]["cpu_time"] = run.GetAdjustedCPUTime();
      } else {
        for (const auto &[counter, value] : run.counters) samples_[name][counter].push_back(value.value);
        samples_[name]["real_time"].push_back(run.GetAdjustedRealTime());
        samples_[name]["cpu_time"].push_back(run.GetAdjustedCPUTime());
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The median of the counter (or "real_time", "cpu_time" in the run's time
  // unit) over the repetitions of the run; 0 when it did not run or failed.
  double value(const std::string &name, const std::string &counter) const {
    if (auto it = medians_.find(name); it != medians_.end())
      if (auto c = it->second.find(counter); c != it->second.end()) return c->second;
    if (auto it = samples_.find(name); it != samples_.end())
      if (auto c = it->second.find(counter); c != it->second.end()) return median(c->second);
    return 0;
  }

 private:
  std::map<std::string, std::map<std::string, double>> medians_;
  std::map<std::string, std::map<std::string, std::vector<double>>> samples_;
};

// What a row must reach. The ratio is ours' speed over the peer's.
struct Goal {
  enum Kind { kNone, kRatioAtLeast, kValueAtLeast, kValueAtMost } kind = kNone;
  double bound = 0;
  static Goal none() { return {}; }
  static Goal ratio(double at_least) { return {kRatioAtLeast, at_least}; }
  static Goal at_least(double value) { return {kValueAtLeast, value}; }
  static Goal at_most(double value) { return {kValueAtMost, value}; }
};

class Table {
 public:
  // `unit` names what ours and peer hold; `lower_is_better` for times and
  // sizes, so that the ratio stays a speed ratio.
  explicit Table(std::string title, std::string unit = "", bool lower_is_better = false)
      : title_(std::move(title)), unit_(std::move(unit)), lower_(lower_is_better) {}

  // ours or peer <= 0: not measured (shown as "-"; a goal on it does not hold).
  void row(const std::string &name, double ours, double peer, Goal goal, const std::string &note = "") {
    rows_.push_back({name, ours, peer, goal, note, lower_});
  }
  // A row whose values run the other way from the table's unit.
  void row_lower_is_better(const std::string &name, double ours, double peer, Goal goal,
                           const std::string &note = "") {
    rows_.push_back({name, ours, peer, goal, note, true});
  }

  // Prints the table; returns the number of goals that did not hold.
  int print() const {
    size_t width = 4;
    for (const Row &r : rows_) width = std::max(width, r.name.size());
    std::printf("\n%s\n", title_.c_str());
    std::printf("%-*s | %12s | %12s | %7s | %-10s | %s\n", static_cast<int>(width), "case",
                ("ours" + (unit_.empty() ? "" : " " + unit_)).c_str(),
                ("peer" + (unit_.empty() ? "" : " " + unit_)).c_str(), "ratio", "goal", "holds");
    int missed = 0;
    for (const Row &r : rows_) {
      char ours[32] = "-", peer[32] = "-", ratio[32] = "-", goal[32] = "-";
      const char *holds = "-";
      if (r.ours > 0) std::snprintf(ours, sizeof ours, "%.4g", r.ours);
      if (r.peer > 0) std::snprintf(peer, sizeof peer, "%.4g", r.peer);
      const double speed = r.ours > 0 && r.peer > 0 ? (r.lower ? r.peer / r.ours : r.ours / r.peer) : 0;
      if (speed > 0) std::snprintf(ratio, sizeof ratio, "%.2f", speed);
      bool ok = true;
      switch (r.goal.kind) {
        case Goal::kNone:
          break;
        case Goal::kRatioAtLeast:
          std::snprintf(goal, sizeof goal, ">= %.2fx", r.goal.bound);
          ok = speed >= r.goal.bound;
          break;
        case Goal::kValueAtLeast:
          std::snprintf(goal, sizeof goal, ">= %.4g", r.goal.bound);
          ok = r.ours > 0 && r.ours >= r.goal.bound;
          break;
        case Goal::kValueAtMost:
          std::snprintf(goal, sizeof goal, "<= %.4g", r.goal.bound);
          ok = r.ours > 0 && r.ours <= r.goal.bound;
          break;
      }
      if (r.goal.kind != Goal::kNone) holds = ok ? "yes" : "NO";
      if (!ok) ++missed;
      std::printf("%-*s | %12s | %12s | %7s | %-10s | %s%s%s\n", static_cast<int>(width), r.name.c_str(), ours,
                  peer, ratio, goal, holds, r.note.empty() ? "" : "  ", r.note.c_str());
    }
    std::fflush(stdout);
    return missed;
  }

 private:
  struct Row {
    std::string name;
    double ours, peer;
    Goal goal;
    std::string note;
    bool lower;
  };
  std::string title_, unit_;
  bool lower_;
  std::vector<Row> rows_;
};

// True for CI's smoke run (--benchmark_min_time below `below` seconds; a
// trailing "s", as newer releases write it, is accepted) or ZT_BENCH_SMOKE=1.
inline bool smoke_run(int argc, char **argv, double below = 0.1) {
  if (const char *env = std::getenv("ZT_BENCH_SMOKE"); env != nullptr && std::strcmp(env, "1") == 0) return true;
  const char *flag = "--benchmark_min_time=";
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], flag, std::strlen(flag)) == 0) return std::atof(argv[i] + std::strlen(flag)) < below;
  return false;
}

}  // namespace zt::bench
