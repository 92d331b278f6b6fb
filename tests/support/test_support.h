// Fixtures shared by every test folder.
#pragma once

#include <zt/log.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zt::test {

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Makes a directory the working directory for the guard's lifetime.
class ChdirGuard {
 public:
  explicit ChdirGuard(const std::string &dir);
  ~ChdirGuard();
  ChdirGuard(const ChdirGuard &) = delete;
  ChdirGuard &operator=(const ChdirGuard &) = delete;

 private:
  std::string old_;
};

// ZT_InitSubSystems for the guard's lifetime. While it lives, the log trap
// watches the log: a record that no LogCapture claims fails the running test.
class LibraryScope {
 public:
  LibraryScope();
  ~LibraryScope();
  LibraryScope(const LibraryScope &) = delete;
  LibraryScope &operator=(const LibraryScope &) = delete;

 private:
  int32_t trap_id_ = -1;
};

struct LogLine {
  std::string module, function, message;
};

// Claims every record logged while it lives (in any thread), so the log trap
// lets them pass; the test then says which records it expected. The log must
// be initialised.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;
  std::vector<LogLine> lines() const;
  size_t count() const;
  // True when some line's message contains `text`.
  bool contains(const std::string &text) const;
  void clear();
  // Exactly one record since the last check, holding `text` (and from
  // `function` when one is named); the records are then forgotten.
  void expect_one(const std::string &text, const std::string &function = {});
  void expect_none();

 private:
  static void on_message(void *self, const char *module, const char *function, const char *message,
                         int64_t time, uint32_t reserved);
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  int32_t id_ = -1;
};

// A test that runs the library in a scratch directory and holds one capture
// for its whole length: every record must be claimed by expect_one_log (or
// cleared) before the test ends, or the test fails.
class LibraryTest : public ::testing::Test {
 protected:
  void expect_one_log(const std::string &text) { log_.expect_one(text); }
  void expect_one_log(const std::string &function, const std::string &text) {
    log_.expect_one(text, function);
  }
  void expect_no_log() { log_.expect_none(); }
  void TearDown() override { log_.expect_none(); }

  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  LogCapture log_;
};

// Sets an environment variable (removes it, given NULL) for the scope's
// lifetime, then puts back what was there.
class EnvScope {
 public:
  EnvScope(const char *name, const char *value);
  ~EnvScope();
  EnvScope(const EnvScope &) = delete;
  EnvScope &operator=(const EnvScope &) = delete;

 private:
  std::string name_, old_;
  bool had_ = false;
};

// Installs the log trap's reporter as a test event listener; test_main calls it.
void install_log_trap();

// Polls `done` every millisecond until it holds (true) or `limit` passes (false).
template <typename Predicate>
bool wait_for(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
}

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

}  // namespace zt::test
