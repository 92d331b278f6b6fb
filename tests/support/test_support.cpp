#include "support/test_support.h"

#include <zt/init.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

namespace zt::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "zt_test_XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

EnvScope::EnvScope(const char *name, const char *value) : name_(name) {
  if (const char *old = std::getenv(name)) old_ = old, had_ = true;
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
}

EnvScope::~EnvScope() {
  if (had_)
    setenv(name_.c_str(), old_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}

ChdirGuard::ChdirGuard(const std::string &dir) : old_(std::filesystem::current_path().string()) {
  std::filesystem::current_path(dir);
}

ChdirGuard::~ChdirGuard() {
  std::error_code ec;
  std::filesystem::current_path(old_, ec);
}

namespace {

// The trap: records logged while no capture lives, per test. Captures count
// themselves in; the trap's log client drops what they claim.
std::mutex g_trap_mutex;
int g_captures = 0;
std::vector<LogLine> g_unclaimed;

void trap_on_message(void *, const char *module, const char *function, const char *message, int64_t,
                     uint32_t) {
  std::lock_guard<std::mutex> lock(g_trap_mutex);
  if (g_captures > 0) return;
  g_unclaimed.push_back({module ? module : "", function ? function : "", message ? message : ""});
}

std::string describe(const std::vector<LogLine> &lines) {
  std::string text;
  for (const auto &line : lines) text += "\n  " + line.module + ":" + line.function + " " + line.message;
  return text;
}

// Reports at the end of each test what the trap caught during it. Listeners
// hear the end of a test in reverse order, so one appended after the result
// printer reports before the printer writes the verdict.
class LogTrapListener : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo &) override {
    std::lock_guard<std::mutex> lock(g_trap_mutex);
    g_unclaimed.clear();
  }
  void OnTestEnd(const ::testing::TestInfo &) override {
    std::vector<LogLine> caught;
    {
      std::lock_guard<std::mutex> lock(g_trap_mutex);
      caught.swap(g_unclaimed);
    }
    if (!caught.empty())
      ADD_FAILURE() << caught.size() << " log record(s) logged while no LogCapture was listening:"
                    << describe(caught);
  }
};

}  // namespace

void install_log_trap() {
  ::testing::UnitTest::GetInstance()->listeners().Append(new LogTrapListener);
}

LibraryScope::LibraryScope() {
  ZT_InitSubSystems();
  trap_id_ = LogErrorAddClient(&trap_on_message, nullptr);
}

LibraryScope::~LibraryScope() {
  if (trap_id_ > 0) LogErrorRemoveClient(trap_id_);
  ZT_DeInitSubSystems();
}

LogCapture::LogCapture() {
  {
    std::lock_guard<std::mutex> lock(g_trap_mutex);
    ++g_captures;
  }
  id_ = LogErrorAddClient(&LogCapture::on_message, this);
}

LogCapture::~LogCapture() {
  if (id_ > 0) LogErrorRemoveClient(id_);
  std::lock_guard<std::mutex> lock(g_trap_mutex);
  --g_captures;
}

void LogCapture::on_message(void *self, const char *module, const char *function, const char *message,
                            int64_t, uint32_t) {
  auto *capture = static_cast<LogCapture *>(self);
  std::lock_guard<std::mutex> lock(capture->mutex_);
  capture->lines_.push_back({module ? module : "", function ? function : "", message ? message : ""});
}

void LogCapture::expect_one(const std::string &text, const std::string &function) {
  std::vector<LogLine> got;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    got.swap(lines_);
  }
  ASSERT_EQ(got.size(), 1u) << "expected one record holding \"" << text << "\", got" << describe(got);
  if (!function.empty()) {
    EXPECT_EQ(got[0].function, function);
  }
  EXPECT_NE(got[0].message.find(text), std::string::npos) << got[0].message;
}

void LogCapture::expect_none() {
  std::vector<LogLine> got;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    got.swap(lines_);
  }
  EXPECT_TRUE(got.empty()) << got.size() << " log record(s) the test did not expect:" << describe(got);
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

size_t LogCapture::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_.size();
}

bool LogCapture::contains(const std::string &text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto &line : lines_)
    if (line.message.find(text) != std::string::npos) return true;
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

}  // namespace zt::test
