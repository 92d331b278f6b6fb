// The error log: five-line records collected in memory and appended to the log
// file, standard error before start-up, and client callbacks.
#include "foundation/log_internal.h"
#include "foundation/locks.h"
#include "foundation/membuf_internal.h"
#include "foundation/internal.h"

#include <zt/lists.h>
#include <zt/log.h>
#include <zt/membuf.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zt {
namespace {

constexpr const char *kDefaultPath = "errors.log";
constexpr const char *kTrimmedPath = "errors.trimmed";

struct LogClient {
  ZTListNode node;
  void *user_data;
  ZTLogClientFn callback;
  int32_t id;
};

// One instance for the process. The lock is set up statically rather than at
// start-up so that a thread logging while another shuts the log down never
// touches a destroyed lock; `enabled` decides what the lock guards.
struct LogState {
  std::atomic<bool> enabled{false};
  std::atomic<bool> suppressed{false};
  bool to_file = false;
  char *path = nullptr;
  ZT_MemBuf *buffer = nullptr;
  ZTListNode *clients = nullptr;
  int32_t client_ids = 0;
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
};

constinit LogState g_log;

int64_t now_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

void write_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// Opens a log file for `flags` without ever waiting: every thread that logs
// queues behind the log lock while this runs, so a path that names a FIFO
// with no reader (open would wait for one) or a device is refused, and only a
// regular file is used. -1 when there is none to use.
int open_log_file(const char *path, int flags) {
  int fd = ::open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0664);
  if (fd < 0) return -1;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// The same, as a stdio stream for the scans.
std::FILE *open_log_stream(const char *path, int flags, const char *mode) {
  if (path == nullptr) return nullptr;
  int fd = open_log_file(path, flags);
  if (fd < 0) return nullptr;
  std::FILE *f = ::fdopen(fd, mode);
  if (f == nullptr) ::close(fd);
  return f;
}

// Caller holds the write lock.
void flush_locked() {
  if (g_log.buffer == nullptr || g_log.path == nullptr) return;
  size_t size = ZT_MemBufSize(g_log.buffer);
  if (size == 0) return;
  const char *data = static_cast<const char *>(ZT_MemBufPointer(g_log.buffer));
  int fd = open_log_file(g_log.path, O_WRONLY | O_APPEND | O_CREAT);
  if (fd >= 0) {
    write_all(fd, data, size);
    ::close(fd);
  } else {
    // Nowhere else to put them: the records would otherwise be lost.
    write_all(STDERR_FILENO, data, size);
  }
  ZT_MemBufClear(g_log.buffer);
}

// Client ids keep counting across restarts so an old id never names a new client.
void free_clients_locked() { FreeList(&g_log.clients); }

// True when `line` (without its LF) is exactly the record magic.
bool is_magic_line(const char *line, size_t length) {
  if (length == 0 || length > 10) return false;
  uint64_t value = 0;
  for (size_t i = 0; i < length; ++i) {
    if (line[i] < '0' || line[i] > '9') return false;
    value = value * 10 + static_cast<uint64_t>(line[i] - '0');
  }
  return value == ZT_LOG_MAGIC;
}

// Reads one line without its LF, cut to `limit` bytes. False at end of file.
class LineReader {
 public:
  explicit LineReader(std::FILE *in) : in_(in) {}
  ~LineReader() { std::free(line_); }
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  bool next(size_t limit) {
    ssize_t n = ::getline(&line_, &capacity_, in_);
    if (n < 0) return false;
    length_ = static_cast<size_t>(n);
    if (length_ > 0 && line_[length_ - 1] == '\n') --length_;
    if (length_ > limit) length_ = limit;
    line_[length_] = '\0';
    return true;
  }
  const char *text() const { return line_; }
  size_t length() const { return length_; }

 private:
  std::FILE *in_;
  char *line_ = nullptr;
  size_t capacity_ = 0;
  size_t length_ = 0;
};

struct Backlog {
  ZTListNode *list = nullptr;
};

bool backlog_sink(void *context, const LogRecordView &record) {
  auto *backlog = static_cast<Backlog *>(context);
  auto *entry = static_cast<ZTLogBacklog *>(std::calloc(1, sizeof(ZTLogBacklog)));
  if (entry == nullptr) return false;
  entry->module = ::strdup(record.module);
  entry->function = ::strdup(record.function);
  entry->message = ::strdup(record.message);
  entry->time = static_cast<int64_t>(record.time);
  entry->reserved = 0;
  if (entry->module == nullptr || entry->function == nullptr || entry->message == nullptr) {
    std::free(entry->module);
    std::free(entry->function);
    std::free(entry->message);
    std::free(entry);
    return false;
  }
  AddList(&backlog->list, &entry->node);
  return true;
}

bool trim_sink(void *context, const LogRecordView &record) {
  std::fprintf(static_cast<std::FILE *>(context), "%u\n%" PRIu64 "\n%s\n%s\n%s\n", ZT_LOG_MAGIC, record.time,
               record.module, record.function, record.message);
  return true;
}

void format_and_log(const char *module, const char *function, const char *format, va_list args) {
  size_t size = 128;
  char *text = static_cast<char *>(std::malloc(size));
  if (text == nullptr) return;
  for (;;) {
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(text, size, format, copy);
    va_end(copy);
    if (n >= 0 && static_cast<size_t>(n) < size) break;
    size *= 2;
    char *grown = static_cast<char *>(std::realloc(text, size));
    if (grown == nullptr) {
      std::free(text);
      return;
    }
    text = grown;
  }
  LogError(module, function, text);
  std::free(text);
}

}  // namespace

void log_scan_records(std::FILE *in, int64_t max_age, int64_t now,
                      bool (*sink)(void *context, const LogRecordView &record), void *context) {
  LineReader line(in);
  LineReader module(in), function(in), message(in);
  while (line.next(ZT_LOG_MAX_MESSAGE)) {
    if (!is_magic_line(line.text(), line.length())) continue;
    if (!line.next(ZT_LOG_MAX_MESSAGE)) return;
    uint64_t time = std::strtoull(line.text(), nullptr, 10);
    // An old record is skipped by its header only; its text lines are then
    // scanned like stray lines and dropped.
    if (max_age != 0 && static_cast<int64_t>(time) < now - max_age) continue;
    if (!module.next(ZT_LOG_MAX_MESSAGE) || !function.next(ZT_LOG_MAX_MESSAGE) ||
        !message.next(ZT_LOG_MAX_MESSAGE))
      return;
    LogRecordView record{time, module.text(), function.text(), message.text()};
    if (!sink(context, record)) return;
  }
}

void log_static_init() {
  if (g_log.enabled.load(std::memory_order_acquire)) return;
  // Made before the lock is taken: a failure here logs (to standard error,
  // the log not being enabled yet).
  ZT_MemBuf *buffer = ZT_MemBufCreate(ZT_LOG_FLUSH_THRESHOLD + 4096);
  WriteGuard guard(&g_log.lock);
  if (g_log.path == nullptr) g_log.path = ::strdup(kDefaultPath);
  if (g_log.buffer == nullptr) {
    g_log.buffer = buffer;
  } else {
    ZT_MemBufFree(buffer);
  }
  g_log.to_file = true;
  g_log.suppressed.store(false, std::memory_order_release);
  g_log.enabled.store(true, std::memory_order_release);
}

void log_static_free() {
  if (!g_log.enabled.load(std::memory_order_acquire)) return;
  WriteGuard guard(&g_log.lock);
  flush_locked();
  ZT_MemBufFree(g_log.buffer);
  g_log.buffer = nullptr;
  std::free(g_log.path);
  g_log.path = nullptr;
  free_clients_locked();
  g_log.to_file = false;
  g_log.suppressed.store(true, std::memory_order_release);
  g_log.enabled.store(false, std::memory_order_release);
}

}  // namespace zt

using zt::g_log;

extern "C" {

ZT_API void LogError(const char *module, const char *function, const char *message) {
  if (g_log.suppressed.load(std::memory_order_acquire)) return;
  if (module == nullptr) module = "";
  if (function == nullptr) function = "";
  char text[ZT_LOG_MAX_MESSAGE + 1];
  size_t length = message ? ::strnlen(message, ZT_LOG_MAX_MESSAGE) : 0;
  if (length) std::memcpy(text, message, length);
  text[length] = '\0';
  // A record is always exactly five lines.
  for (size_t i = 0; i < length; ++i)
    if (text[i] == '\r' || text[i] == '\n') text[i] = '_';
  int64_t now = zt::now_seconds();

  if (!g_log.enabled.load(std::memory_order_acquire)) {
    std::fprintf(stderr, "%s:%s %s\n", module, function, text);
    return;
  }
  {
    zt::WriteGuard guard(&g_log.lock);
    if (g_log.to_file && g_log.buffer != nullptr) {
      char header[64];
      int n = std::snprintf(header, sizeof header, "%u\n%" PRIu64 "\n", ZT_LOG_MAGIC,
                            static_cast<uint64_t>(now));
      // An append that runs out of memory loses this record only, whole; the
      // appends stay quiet since logging their failure would wait on this lock.
      size_t mark = ZT_MemBufSize(g_log.buffer);
      const void *parts[] = {header, module, "\n", function, "\n", text, "\n"};
      const size_t sizes[] = {static_cast<size_t>(n), std::strlen(module), 1, std::strlen(function), 1, length, 1};
      for (size_t i = 0; i < 7; ++i)
        if (zt::membuf_append(g_log.buffer, parts[i], sizes[i], true) != 0) {
          zt::membuf_truncate(g_log.buffer, mark);
          break;
        }
      if (ZT_MemBufSize(g_log.buffer) > ZT_LOG_FLUSH_THRESHOLD) zt::flush_locked();
    }
  }
  zt::ReadGuard guard(&g_log.lock);
  for (ZTListNode *node = g_log.clients; node != nullptr; node = node->next) {
    auto *client = reinterpret_cast<zt::LogClient *>(node);
    client->callback(client->user_data, module, function, text, now, 0);
  }
}

ZT_API void ZTLogMessage(const char *module, const char *function, int, int kind, int,
                         const char *format, ...) {
  if (format == nullptr) return;
  va_list args;
  va_start(args, format);
  switch (kind) {
    case ZT_LOG_ALLOC_FAILED: {
      char text[80];
      std::snprintf(text, sizeof text, "Failed To allocate %d bytes of memory", va_arg(args, int32_t));
      LogError(module, function, text);
      break;
    }
    case ZT_LOG_GLOBALS_FAILED:
      LogError(module, function, "Failed To initialise global Korvane structure");
      break;
    case ZT_LOG_BAD_STORAGE: {
      char text[80];
      std::snprintf(text, sizeof text, "Specified storage class of %d is invalid", va_arg(args, int32_t));
      LogError(module, function, text);
      break;
    }
    default:
      zt::format_and_log(module, function, format, args);
      break;
  }
  va_end(args);
}

ZT_API int32_t LogErrorAddClient(ZTLogClientFn callback, void *user_data) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return -1;
  auto *client = static_cast<zt::LogClient *>(std::calloc(1, sizeof(zt::LogClient)));
  if (client == nullptr) return -1;
  client->callback = callback;
  client->user_data = user_data;
  zt::WriteGuard guard(&g_log.lock);
  client->id = ++g_log.client_ids;
  AddList(&g_log.clients, &client->node);
  return client->id;
}

ZT_API int32_t LogErrorRemoveClient(int32_t id) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return -1;
  zt::WriteGuard guard(&g_log.lock);
  ZTListNode *node = g_log.clients;
  while (node != nullptr) {
    ZTListNode *next = node->next;
    if (reinterpret_cast<zt::LogClient *>(node)->id == id) RemoveList(&g_log.clients, node);
    node = next;
  }
  return 0;
}

ZT_API void LogErrorDisable(int flag) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return;
  zt::WriteGuard guard(&g_log.lock);
  g_log.suppressed.store(flag != 0, std::memory_order_release);
}

ZT_API void LogErrorLogtofile(int flag, const char *path) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return;
  char *copy = path ? ::strdup(path) : nullptr;
  if (path != nullptr && copy == nullptr) {
    ZT_LOG_NOMEM("log", "LogErrorLogtofile", std::strlen(path) + 1);
    return;
  }
  // The buffer is made and freed outside the lock: its failure logs.
  ZT_MemBuf *spare = flag ? ZT_MemBufCreate(ZT_LOG_FLUSH_THRESHOLD + 4096) : nullptr;
  {
    zt::WriteGuard guard(&g_log.lock);
    g_log.to_file = flag != 0;
    if (copy != nullptr) {
      std::free(g_log.path);
      g_log.path = copy;
    }
    if (g_log.to_file == (g_log.buffer == nullptr)) std::swap(spare, g_log.buffer);
  }
  ZT_MemBufFree(spare);
}

ZT_API void LogErrorFlush(void) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return;
  zt::WriteGuard guard(&g_log.lock);
  zt::flush_locked();
}

ZT_API int32_t LogErrorTrimLogfile(int64_t max_age_seconds) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return -1;
  // Messages logged meanwhile are dropped rather than appended to a file that
  // is about to be replaced.
  g_log.suppressed.store(true, std::memory_order_release);
  {
    zt::WriteGuard guard(&g_log.lock);
    zt::flush_locked();
    std::FILE *in = zt::open_log_stream(g_log.path, O_RDONLY, "r");
    std::FILE *out = in ? zt::open_log_stream(zt::kTrimmedPath, O_WRONLY | O_CREAT | O_TRUNC, "w") : nullptr;
    if (in != nullptr && out != nullptr) {
      zt::log_scan_records(in, max_age_seconds, zt::now_seconds(), zt::trim_sink, out);
      std::fclose(in);
      bool written = std::fclose(out) == 0;
      if (written) {
        ::unlink(g_log.path);
        ::rename(zt::kTrimmedPath, g_log.path);
      } else {
        ::unlink(zt::kTrimmedPath);
      }
    } else if (in != nullptr) {
      std::fclose(in);
    }
  }
  g_log.suppressed.store(false, std::memory_order_release);
  return 0;
}

ZT_API ZTLogBacklog *GetErrorMessagesWithBacklog(int64_t max_age_seconds) {
  if (!g_log.enabled.load(std::memory_order_acquire)) return nullptr;
  {
    zt::WriteGuard guard(&g_log.lock);
    zt::flush_locked();
  }
  zt::Backlog backlog;
  zt::ReadGuard guard(&g_log.lock);
  std::FILE *in = zt::open_log_stream(g_log.path, O_RDONLY, "r");
  if (in == nullptr) return nullptr;
  zt::log_scan_records(in, max_age_seconds, zt::now_seconds(), zt::backlog_sink, &backlog);
  std::fclose(in);
  return reinterpret_cast<ZTLogBacklog *>(backlog.list);
}

ZT_API void ZTLogFreeBacklog(ZTLogBacklog *list) {
  while (list != nullptr) {
    ZTLogBacklog *next = reinterpret_cast<ZTLogBacklog *>(list->node.next);
    std::free(list->module);
    std::free(list->function);
    std::free(list->message);
    std::free(list);
    list = next;
  }
}

ZT_API void ZTLogDestinationProperties(const ZTDestination *destination) {
  if (destination == nullptr) return;
  const char *name = destination->name ? destination->name : "";
  ZTLogMessage("", "", 0, 1, 1, "Properties for Destination %s", name);
  ZTLogMessage("", "", 0, 1, 1, "\tVersion %s", destination->version ? destination->version : "");
  ZTLogMessage("", "", 0, 1, 1, "\tName of DLL: %s", destination->dll_name ? destination->dll_name : "");
  ZTLogMessage("", "", 0, 1, 1, "End of definition for %s", name);
}

}  // extern "C"
