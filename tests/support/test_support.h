// Fixtures shared by every test folder.
#pragma once

#include <zt/log.h>

#include <mutex>
#include <string>
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

// ZT_InitSubSystems for the guard's lifetime.
class LibraryScope {
 public:
  LibraryScope();
  ~LibraryScope();
  LibraryScope(const LibraryScope &) = delete;
  LibraryScope &operator=(const LibraryScope &) = delete;
};

struct LogLine {
  std::string module, function, message;
};

// Collects every logged message through a log client while it lives (the log
// must be initialised). Tests use it to check that exactly the expected lines
// were logged, and none when none were expected.
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

 private:
  static void on_message(void *self, const char *module, const char *function, const char *message,
                         int64_t time, uint32_t reserved);
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  int32_t id_ = -1;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

}  // namespace zt::test
