// The log's start-up and shut-down, and its record scanner, shared with the
// start-up code and the fuzz target.
#pragma once

#include <cstdint>
#include <cstdio>

namespace zt {

// Enables the log: writing to "errors.log" on, not suppressed. Idempotent.
void log_static_init();
// Flushes, frees the buffer, the path and the clients, and disables the log.
void log_static_free();

// One record found by log_scan_records; the strings live until the callback returns.
struct LogRecordView {
  uint64_t time;
  const char *module;
  const char *function;
  const char *message;
};

// Reads five-line records from `in`, dropping stray lines between them and
// records older than `now - max_age` (max_age 0 keeps all). Calls `sink` for
// each kept record; a sink returning false stops the scan.
void log_scan_records(std::FILE *in, int64_t max_age, int64_t now,
                      bool (*sink)(void *context, const LogRecordView &record), void *context);

}  // namespace zt
