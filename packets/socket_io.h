// The socket primitives the packet wire code and the RPC value stream share:
// the wait with a time-out, the receive loop and the send-all loop. Sockets
// are waited on with poll, so descriptors of any number work; receives and
// sends never block past the time-out (MSG_DONTWAIT) and sends never raise
// SIGPIPE (MSG_NOSIGNAL).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <netinet/in.h>
#include <sys/socket.h>

namespace zt::packets {

// How the caller names itself in the log, and the two messages whose words
// differ between the packet wire (module "ztlp") and the RPC stream ("zt_rpc").
struct SocketLog {
  const char *module;
  const char *function;
  const char *not_ready;  // poll woke for something other than what was asked
  const char *closed;     // the peer closed the connection
};

// When waiting gives up. A reader bounds a whole unit (a packet header or
// body, an RPC item) by one deadline, so a peer that trickles bytes cannot
// stretch it; a wait of its own (an accept, an RPC send) gets its time-out
// afresh at every wait. With an abort flag, either also stops when another
// thread sets the flag.
class SocketTimer {
 public:
  using Clock = std::chrono::steady_clock;

  static SocketTimer whole(int32_t seconds, const int32_t *abort_flag = nullptr) {
    return SocketTimer(Clock::now() + std::chrono::seconds(seconds < 0 ? 0 : seconds), 0, abort_flag);
  }
  static SocketTimer per_wait(int32_t seconds, const int32_t *abort_flag) {
    return SocketTimer(Clock::time_point{}, seconds, abort_flag);
  }

  // The deadline of a wait that starts now.
  Clock::time_point deadline() const {
    return per_wait_seconds_ > 0 ? Clock::now() + std::chrono::seconds(per_wait_seconds_) : deadline_;
  }
  bool aborted() const { return abort_flag_ != nullptr && __atomic_load_n(abort_flag_, __ATOMIC_ACQUIRE) != 0; }
  // An aborted wait comes back every second at the latest.
  bool abortable() const { return abort_flag_ != nullptr; }

 private:
  SocketTimer(Clock::time_point deadline, int32_t per_wait_seconds, const int32_t *abort_flag)
      : deadline_(deadline), per_wait_seconds_(per_wait_seconds), abort_flag_(abort_flag) {}
  Clock::time_point deadline_;
  int32_t per_wait_seconds_;
  const int32_t *abort_flag_;
};

// How a socket operation ended. Only kError and kClosed are logged here (with
// the SocketLog's words); a time-out means different things to different
// callers, so they log it.
enum class IoStatus {
  kDone,
  kTimeout,  // the deadline passed
  kAborted,  // the abort flag was set (nothing logged)
  kClosed,   // the peer closed the connection (logged unless aborted)
  kError,    // poll, recv or send failed (logged)
};

// Waits until `fd` is ready for `events`.
IoStatus wait_ready(int fd, short events, const SocketTimer &timer, const SocketLog &log);

// Where a datagram came from, and where a datagram server sends its answer.
struct PeerAddress {
  sockaddr_in address{};
  socklen_t length = sizeof(sockaddr_in);
};

// Receives between 1 and `n` bytes into `buffer` (n > 0), waiting as needed;
// `got` is set to what arrived. With `from`, the sender's address is kept.
IoStatus recv_some(int fd, void *buffer, size_t n, size_t &got, const SocketTimer &timer, const SocketLog &log,
                   PeerAddress *from = nullptr);

// Receives exactly `n` bytes into `buffer`; `got` counts what arrived, also
// when the loop ends early.
IoStatus recv_exact(int fd, void *buffer, size_t n, size_t &got, const SocketTimer &timer, const SocketLog &log);

// Sends all `n` bytes; with `to`, as one datagram to that address.
IoStatus send_all(int fd, const void *data, size_t n, const SocketTimer &timer, const SocketLog &log,
                  const PeerAddress *to = nullptr);

}  // namespace zt::packets
