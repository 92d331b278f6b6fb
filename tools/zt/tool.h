// Shared pieces of the zt program: failures, the library's lifetime, options,
// output through a temporary name, progress.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zt::tool {

// Exit statuses, as tiffcp and friends use them.
inline constexpr int kOk = 0;
inline constexpr int kRuntime = 1;
inline constexpr int kUsage = 2;

// A failure that ends the command: `what` is the one line shown on stderr.
struct Failure : std::runtime_error {
  int status;
  Failure(int s, const std::string &message) : std::runtime_error(message), status(s) {}
};
[[noreturn]] void fail(const std::string &message);       // runtime, exit 1
[[noreturn]] void usage_error(const std::string &message); // usage, exit 2

// Starts the library for the command (log kept in memory, never a file in the
// working directory); the last message the library logged is kept so that a
// failure can name the reason.
class Library {
 public:
  explicit Library(uint32_t threads);
  ~Library();
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;
  static std::string last_message();
  static void clear_message();
};
// `what` plus the library's reason, if it logged one since the last clear.
[[noreturn]] void fail_lib(const std::string &what);

// Command-line arguments, walked one at a time. Options take their value as
// "--opt value" or "--opt=value".
class Args {
 public:
  Args(int argc, char **argv, int first);
  bool done() const { return pos_ >= args_.size(); }
  // The next argument is the option `name` (with or without "=value").
  bool flag(const char *name);
  bool option(const char *name, std::string &value);
  const std::string &peek() const { return args_[pos_]; }
  std::string next() { return args_[pos_++]; }

 private:
  std::vector<std::string> args_;
  size_t pos_ = 0;
};
uint32_t parse_u32(const std::string &option, const std::string &text, uint32_t lo, uint32_t hi);
double parse_double(const std::string &option, const std::string &text, double lo, double hi);

// Output written to "<dir>/.<name>.XXXXXX" and renamed into place by commit();
// dropped (unlinked) otherwise.
class OutputFile {
 public:
  explicit OutputFile(const std::string &target);
  ~OutputFile();
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;
  const std::string &temp() const { return temp_; }
  const std::string &target() const { return target_; }
  void commit();

 private:
  std::string target_, temp_;
  bool committed_ = false;
};
// Unlinks every temporary still pending (signals, fatal paths).
void drop_pending_outputs();

// Progress on stderr when it is a terminal (or forced with --verbose),
// nothing with --quiet.
enum class Verbosity { kQuiet, kNormal, kVerbose };
extern Verbosity g_verbosity;
class Progress {
 public:
  Progress(const char *what, uint64_t total);
  void update(uint64_t done, const char *detail = nullptr);
  void finish();

 private:
  bool on_;
  const char *what_;
  uint64_t total_;
  double start_, last_ = 0;
};
void verbose(const char *format, ...) __attribute__((format(printf, 1, 2)));
double now_seconds();

// One processor count for every part: --threads, default all cores.
uint32_t processor_count();

// Subcommands.
int cmd_rip(int argc, char **argv);
int cmd_info(int argc, char **argv);
int cmd_extract(int argc, char **argv);
int cmd_merge(int argc, char **argv);
int cmd_log(int argc, char **argv);
int cmd_page(int argc, char **argv);
void print_help(const std::string &command, FILE *to);

}  // namespace zt::tool
