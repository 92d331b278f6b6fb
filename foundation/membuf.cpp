// A growable byte block. The storage always has one byte beyond the capacity
// for the terminating NUL, so text appended in pieces can be read in place.
#include <zt/membuf.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/membuf_internal.h"
#include "foundation/internal.h"

namespace {

constexpr const char *kModule = "membuf";
constexpr size_t kDefaultCapacity = 256;

void log_nomem(const char *function, size_t bytes) {
  // The log takes an int; a request beyond it is reported as the largest one.
  ZT_LOG_NOMEM(kModule, function, bytes > INT_MAX ? static_cast<size_t>(INT_MAX) : bytes);
}

}  // namespace

struct ZT_MemBuf {
  char *data = nullptr;
  size_t size = 0;
  size_t capacity = 0;  // bytes of content the storage takes, NUL excluded
  bool held = false;    // something was appended once: the pointer is no longer NULL
};

ZT_MemBuf *ZT_MemBufCreate(size_t initial_capacity) {
  const size_t capacity = initial_capacity != 0 ? initial_capacity : kDefaultCapacity;
  auto *buf = new (std::nothrow) ZT_MemBuf;
  if (buf == nullptr) {
    log_nomem("ZT_MemBufCreate", sizeof(ZT_MemBuf));
    return nullptr;
  }
  buf->data = capacity < SIZE_MAX ? static_cast<char *>(std::malloc(capacity + 1)) : nullptr;
  if (buf->data == nullptr) {
    log_nomem("ZT_MemBufCreate", capacity);
    delete buf;
    return nullptr;
  }
  buf->data[0] = '\0';
  buf->capacity = capacity;
  return buf;
}

void ZT_MemBufFree(ZT_MemBuf *buf) {
  if (buf == nullptr) return;
  std::free(buf->data);
  delete buf;
}

namespace zt {

// The body of ZT_MemBufAppend; `quiet` keeps it from logging, for the log's own
// buffer, whose lock is held while it appends.
int32_t membuf_append(ZT_MemBuf *buf, const void *data, size_t size, bool quiet) {
  if (buf == nullptr || (data == nullptr && size != 0)) {
    if (!quiet) ZT_LOG(kModule, "ZT_MemBufAppend", "No buffer or data given");
    return -1;
  }
  if (size == 0) return 0;
  // One byte stays reserved for the NUL, so the content can never reach SIZE_MAX.
  if (size >= SIZE_MAX - buf->size) {
    if (!quiet) log_nomem("ZT_MemBufAppend", SIZE_MAX);
    return -1;
  }
  const size_t needed = buf->size + size;
  if (needed > buf->capacity) {
    // Doubling keeps a long run of small appends linear in the bytes copied.
    size_t capacity = buf->capacity <= (SIZE_MAX - 1) / 2 ? buf->capacity * 2 : SIZE_MAX - 1;
    if (capacity < needed) capacity = needed;
    auto *grown = static_cast<char *>(std::realloc(buf->data, capacity + 1));
    // Near the memory limit a buffer of just the needed size may still fit.
    if (grown == nullptr && capacity > needed) {
      capacity = needed;
      grown = static_cast<char *>(std::realloc(buf->data, capacity + 1));
    }
    if (grown == nullptr) {
      if (!quiet) log_nomem("ZT_MemBufAppend", capacity + 1);
      return -1;
    }
    buf->data = grown;
    buf->capacity = capacity;
  }
  std::memcpy(buf->data + buf->size, data, size);
  buf->size = needed;
  buf->data[needed] = '\0';
  buf->held = true;
  return 0;
}

void membuf_truncate(ZT_MemBuf *buf, size_t size) {
  if (buf == nullptr || size >= buf->size) return;
  buf->size = size;
  buf->data[size] = '\0';
}

}  // namespace zt

int32_t ZT_MemBufAppend(ZT_MemBuf *buf, const void *data, size_t size) {
  return zt::membuf_append(buf, data, size, false);
}

void *ZT_MemBufPointer(const ZT_MemBuf *buf) {
  if (buf == nullptr || !buf->held) return nullptr;
  return buf->data;
}

size_t ZT_MemBufSize(const ZT_MemBuf *buf) { return buf != nullptr ? buf->size : 0; }

void ZT_MemBufClear(ZT_MemBuf *buf) {
  if (buf == nullptr) return;
  buf->size = 0;
  buf->data[0] = '\0';
}
