// Shared by every module of the library: logging shortcuts and the guard that
// keeps exceptions from crossing the C interface.
#pragma once

#include <zt/log.h>

#include <cstdint>
#include <exception>
#include <new>
#include <utility>

namespace zt {

// Never called: lets the compiler check ZT_LOG's format against its arguments
// (ZTLogMessage itself cannot carry the check, its kinds 2 to 4 take "" as format).
[[gnu::format(printf, 1, 2)]] inline void check_log_format(const char *, ...) {}

// Logs a formatted message (kind 1) from `module`/`function`.
#define ZT_LOG(module, function, ...)                                   \
  do {                                                                  \
    if (false) ::zt::check_log_format(__VA_ARGS__);                     \
    ::ZTLogMessage((module), (function), 0, 1, 1, __VA_ARGS__);         \
  } while (0)
// Logs the allocation failure of `bytes` (kind 2).
#define ZT_LOG_NOMEM(module, function, bytes) \
  ::ZTLogMessage((module), (function), 0, 2, 1, "", static_cast<int>(bytes))

// Runs `body` and turns any escaping exception into one log line and `fail`.
// Exported shims wrap their work in this so that nothing throws across the
// interface; std::bad_alloc is the case we expect.
template <typename R, typename F>
R api_guard(const char *module, const char *function, R fail, F &&body) noexcept {
  try {
    return std::forward<F>(body)();
  } catch (const std::bad_alloc &) {
    ::ZTLogMessage(module, function, 0, 1, 1, "Cannot allocate memory");
  } catch (const std::exception &e) {
    ::ZTLogMessage(module, function, 0, 1, 1, "Internal error: %s", e.what());
  } catch (...) {
    ::ZTLogMessage(module, function, 0, 1, 1, "Internal error");
  }
  return fail;
}

// The product of sizes that come from a caller, a file or a peer, refused on
// overflow: every such size goes through here before it is allocated or used
// to index memory. False (and *out untouched) when the product does not fit.
template <typename T, typename... Rest>
[[nodiscard]] bool checked_mul(T *out, uint64_t first, Rest... rest) noexcept {
  uint64_t product = first;
  bool fits = true;
  ((fits = fits && !__builtin_mul_overflow(product, static_cast<uint64_t>(rest), &product)), ...);
  if (!fits) return false;
  T narrowed;
  if (__builtin_add_overflow(product, uint64_t{0}, &narrowed)) return false;
  *out = narrowed;
  return true;
}

template <typename F>
void api_guard_void(const char *module, const char *function, F &&body) noexcept {
  api_guard<int>(module, function, 0, [&] {
    std::forward<F>(body)();
    return 0;
  });
}

}  // namespace zt
