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

// a * b into *out, or false when the product does not fit. Every size built
// from counts that come from outside (a file, a peer, a caller) goes through
// here, so that a wrapped product never reaches an allocator or a loop bound.
template <typename T>
[[nodiscard]] constexpr bool checked_mul(T a, T b, T *out) noexcept {
  return !__builtin_mul_overflow(a, b, out);
}

template <typename F>
void api_guard_void(const char *module, const char *function, F &&body) noexcept {
  api_guard<int>(module, function, 0, [&] {
    std::forward<F>(body)();
    return 0;
  });
}

}  // namespace zt
