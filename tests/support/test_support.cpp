#include "support/test_support.h"

#include <zt/init.h>

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

ChdirGuard::ChdirGuard(const std::string &dir) : old_(std::filesystem::current_path().string()) {
  std::filesystem::current_path(dir);
}

ChdirGuard::~ChdirGuard() {
  std::error_code ec;
  std::filesystem::current_path(old_, ec);
}

LibraryScope::LibraryScope() { ZT_InitSubSystems(); }
LibraryScope::~LibraryScope() { ZT_DeInitSubSystems(); }

LogCapture::LogCapture() { id_ = LogErrorAddClient(&LogCapture::on_message, this); }

LogCapture::~LogCapture() {
  if (id_ > 0) LogErrorRemoveClient(id_);
}

void LogCapture::on_message(void *self, const char *module, const char *function, const char *message,
                            int64_t, uint32_t) {
  auto *capture = static_cast<LogCapture *>(self);
  std::lock_guard<std::mutex> lock(capture->mutex_);
  capture->lines_.push_back({module ? module : "", function ? function : "", message ? message : ""});
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
