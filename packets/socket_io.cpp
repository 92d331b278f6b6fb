// The shared socket loops. Each call tries the socket first and waits only
// when it would block, so a socket with bytes waiting costs no poll, and each
// wait re-reads the deadline, so a peer that trickles bytes cannot stretch an
// operation past it.
#include "packets/socket_io.h"

#include "foundation/internal.h"

#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace zt::packets {

IoStatus wait_ready(int fd, short events, const SocketTimer &timer, const SocketLog &log) {
  const auto deadline = timer.deadline();
  // Abortable waits come back every second to look at the flag.
  const long long slice = timer.abortable() ? 1000 : 1000000;
  for (;;) {
    if (timer.aborted()) return IoStatus::kAborted;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SocketTimer::Clock::now()).count();
    if (left <= 0) return IoStatus::kTimeout;
    pollfd p{fd, events, 0};
    const int rc = ::poll(&p, 1, static_cast<int>(left > slice ? slice : left));
    if (rc == 0) continue;
    if (rc < 0) {
      if (errno == EINTR) continue;
      ZT_LOG(log.module, log.function, "socket select error %d", errno);
      return IoStatus::kError;
    }
    if (p.revents & (events | POLLHUP | POLLERR)) return IoStatus::kDone;
    ZT_LOG(log.module, log.function, "%s", log.not_ready);
    return IoStatus::kError;
  }
}

IoStatus recv_some(int fd, void *buffer, size_t n, size_t &got, const SocketTimer &timer, const SocketLog &log,
                   PeerAddress *from) {
  got = 0;
  for (;;) {
    if (timer.aborted()) return IoStatus::kAborted;
    ssize_t r;
    if (from != nullptr) {
      from->length = sizeof from->address;
      r = ::recvfrom(fd, buffer, n, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from->address), &from->length);
    } else {
      r = ::recv(fd, buffer, n, MSG_DONTWAIT);
    }
    if (r > 0) {
      if (static_cast<size_t>(r) > n) {
        ZT_LOG(log.module, log.function,
               "Requested %d bytes of data but read %d bytes from socket: %d. Memory might be corrupted",
               static_cast<int>(n), static_cast<int>(r), fd);
        return IoStatus::kError;
      }
      got = static_cast<size_t>(r);
      return IoStatus::kDone;
    }
    if (r == 0) {
      if (timer.aborted()) return IoStatus::kAborted;
      ZT_LOG(log.module, log.function, "%s", log.closed);
      return IoStatus::kClosed;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      const IoStatus ready = wait_ready(fd, POLLIN, timer, log);
      if (ready != IoStatus::kDone) return ready;
      continue;
    }
    ZT_LOG(log.module, log.function, "Error %d reading from socket", errno);
    return IoStatus::kError;
  }
}

IoStatus recv_exact(int fd, void *buffer, size_t n, size_t &got, const SocketTimer &timer, const SocketLog &log) {
  got = 0;
  while (got < n) {
    size_t piece = 0;
    const IoStatus status = recv_some(fd, static_cast<char *>(buffer) + got, n - got, piece, timer, log);
    got += piece;
    if (status != IoStatus::kDone) return status;
  }
  return IoStatus::kDone;
}

IoStatus send_all(int fd, const void *data, size_t n, const SocketTimer &timer, const SocketLog &log,
                  const PeerAddress *to) {
  const char *p = static_cast<const char *>(data);
  while (n > 0) {
    if (timer.aborted()) return IoStatus::kAborted;
    const ssize_t sent =
        to != nullptr ? ::sendto(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr *>(&to->address), to->length)
                      : ::send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      p += sent;
      n -= static_cast<size_t>(sent);
      continue;
    }
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      const IoStatus ready = wait_ready(fd, POLLOUT, timer, log);
      if (ready != IoStatus::kDone) return ready;
      continue;
    }
    ZT_LOG(log.module, log.function, "Error %d while writing to socket", errno);
    return IoStatus::kError;
  }
  return IoStatus::kDone;
}

}  // namespace zt::packets
