// Shared pieces of the zt program.
#include "tool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <zt/init.h>
#include <zt/log.h>
#include <zt/vlimg.h>

namespace zt::tool {

Verbosity g_verbosity = Verbosity::kNormal;

void fail(const std::string &message) { throw Failure(kRuntime, message); }
void usage_error(const std::string &message) { throw Failure(kUsage, message); }

namespace {

std::mutex g_message_lock;
std::string g_last_message;
int32_t g_client = -1;

void remember(void *, const char *module, const char *function, const char *message, int64_t, uint32_t) {
  std::lock_guard<std::mutex> hold(g_message_lock);
  // The first reason is where the fault was found; later ones are consequences.
  if (g_last_message.empty()) g_last_message = message ? message : "";
  if (g_verbosity == Verbosity::kVerbose)
    std::fprintf(stderr, "zt: [%s:%s] %s\n", module ? module : "", function ? function : "", message ? message : "");
}

std::mutex g_pending_lock;
std::vector<std::string> g_pending;

}  // namespace

Library::Library(uint32_t threads) {
  // The log stays in memory: a command-line run must not leave errors.log in
  // whatever folder it was started from.
  ZT_InitSubSystems();
  LogErrorLogtofile(0, nullptr);
  g_client = LogErrorAddClient(remember, nullptr);
  VLIMGSetupThreads(threads);
}

Library::~Library() {
  if (g_client >= 0) LogErrorRemoveClient(g_client);
  g_client = -1;
  LogErrorDisable(1);
  ZT_DeInitSubSystems();
  LogErrorDisable(0);
}

std::string Library::last_message() {
  std::lock_guard<std::mutex> hold(g_message_lock);
  return g_last_message;
}
void Library::clear_message() {
  std::lock_guard<std::mutex> hold(g_message_lock);
  g_last_message.clear();
}

void fail_lib(const std::string &what) {
  const std::string reason = Library::last_message();
  fail(reason.empty() ? what : what + ": " + reason);
}

Args::Args(int argc, char **argv, int first) {
  for (int i = first; i < argc; ++i) args_.emplace_back(argv[i]);
}

bool Args::flag(const char *name) {
  if (done() || args_[pos_] != name) return false;
  ++pos_;
  return true;
}

bool Args::option(const char *name, std::string &value) {
  if (done()) return false;
  const std::string &a = args_[pos_];
  const size_t n = std::strlen(name);
  if (a == name) {
    if (pos_ + 1 >= args_.size()) usage_error(std::string("option ") + name + " needs a value");
    value = args_[pos_ + 1];
    pos_ += 2;
    return true;
  }
  if (a.size() > n && a.compare(0, n, name) == 0 && a[n] == '=') {
    value = a.substr(n + 1);
    ++pos_;
    return true;
  }
  return false;
}

uint32_t parse_u32(const std::string &option, const std::string &text, uint32_t lo, uint32_t hi) {
  char *end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || text[0] == '-' || v < lo || v > hi)
    usage_error(option + ": '" + text + "' is not a whole number from " + std::to_string(lo) + " to " +
                std::to_string(hi));
  return static_cast<uint32_t>(v);
}

double parse_double(const std::string &option, const std::string &text, double lo, double hi) {
  char *end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v < lo || v > hi) {
    char range[96];
    std::snprintf(range, sizeof range, " from %g to %g", lo, hi);
    usage_error(option + ": '" + text + "' is not a number" + range);
  }
  return v;
}

OutputFile::OutputFile(const std::string &target) : target_(target) {
  const size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : target.substr(0, slash));
  const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  if (base.empty()) fail(target + ": not a file name");
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) fail(target + ": output folder " + dir + ": " + std::strerror(errno));
  if (!S_ISDIR(st.st_mode)) fail(target + ": " + dir + " is not a folder");
  std::string templ = (slash == std::string::npos ? std::string() : dir + "/") + "." + base + ".XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  const int fd = mkstemp(buf.data());
  if (fd < 0) fail(target + ": cannot create a file in " + dir + ": " + std::strerror(errno));
  fchmod(fd, 0644);
  close(fd);
  temp_ = buf.data();
  std::lock_guard<std::mutex> hold(g_pending_lock);
  g_pending.push_back(temp_);
}

OutputFile::~OutputFile() {
  if (!committed_) unlink(temp_.c_str());
  std::lock_guard<std::mutex> hold(g_pending_lock);
  for (auto it = g_pending.begin(); it != g_pending.end(); ++it)
    if (*it == temp_) {
      g_pending.erase(it);
      break;
    }
}

void OutputFile::commit() {
  // No fsync: like cp, tiffcp or gs, a finished command means the data are
  // with the kernel; a rename is what keeps readers from seeing half a file.
  if (rename(temp_.c_str(), target_.c_str()) != 0) fail(target_ + ": " + std::strerror(errno));
  committed_ = true;
}

void drop_pending_outputs() {
  // Called from a signal handler: no locks, only unlink.
  for (const std::string &p : g_pending) unlink(p.c_str());
}

double now_seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

Progress::Progress(const char *what, uint64_t total)
    : on_(g_verbosity == Verbosity::kVerbose || (g_verbosity == Verbosity::kNormal && isatty(2))),
      what_(what),
      total_(total ? total : 1),
      start_(now_seconds()) {}

void Progress::update(uint64_t done, const char *detail) {
  if (!on_) return;
  const double t = now_seconds();
  if (t - last_ < 0.2 && done < total_) return;
  last_ = t;
  const double rate = done / std::max(t - start_, 1e-6);
  std::fprintf(stderr, "\r%s %s%s%llu/%llu rows %3.0f%% %.0f rows/s   ", what_, detail ? detail : "",
               detail ? " " : "", static_cast<unsigned long long>(done), static_cast<unsigned long long>(total_),
               100.0 * done / total_, rate);
  std::fflush(stderr);
}

void Progress::finish() {
  if (!on_) return;
  std::fprintf(stderr, "\r%s done in %.2f s%40s\n", what_, now_seconds() - start_, "");
}

void verbose(const char *format, ...) {
  if (g_verbosity != Verbosity::kVerbose) return;
  va_list ap;
  va_start(ap, format);
  std::fputs("zt: ", stderr);
  std::vfprintf(stderr, format, ap);
  std::fputc('\n', stderr);
  va_end(ap);
}

uint32_t processor_count() {
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
}

}  // namespace zt::tool
