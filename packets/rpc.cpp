// The RPC value stream: typed, length-prefixed items on a socket.
#include "foundation/byte_order.h"
#include "foundation/internal.h"
#include "packets/socket_io.h"

#include <zt/membuf.h>
#include <zt/packets.h>
#include <zt/ztrpc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using zt::packets::IoStatus;
using zt::packets::PeerAddress;
using zt::packets::recv_exact;
using zt::packets::recv_some;
using zt::packets::send_all;
using zt::packets::SocketLog;
using zt::packets::SocketTimer;
using zt::packets::wait_ready;

namespace {

constexpr const char *kModule = "zt_rpc";
constinit std::atomic<uint64_t> g_max_item{ZT_RPC_DEFAULT_ITEM_LIMIT};
constinit std::atomic<uint64_t> g_max_file{ZT_RPC_DEFAULT_FILE_LIMIT};
// File data is received, and skipped, in blocks of this size, each within
// one time-out.
constexpr uint64_t kFileBlock = 1u << 20;

int protocol_of(const char *name) {
  if (name == nullptr) return 0;
  if (std::strcmp(name, "tcp") == 0) return ZT_RPC_TCP;
  if (std::strcmp(name, "udp") == 0) return ZT_RPC_UDP;
  ZT_LOG(kModule, "ZTRPC_Create", "unsupported protocol %s", name);
  return 0;
}

void set_nonblocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL, 0);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// The record callers see, and behind it what only this file needs. The
// channel is allocated and freed here only, so the public record is the
// start of the block.
struct Channel {
  ZTRPC record;
  // A datagram server's answers go to the peer it heard last.
  PeerAddress reply_to;
  bool has_reply_to;
};
static_assert(offsetof(Channel, record) == 0);

Channel *channel_of(ZTRPC *ch) { return reinterpret_cast<Channel *>(ch); }

bool datagram_server(const ZTRPC *ch) { return ch->protocol == ZT_RPC_UDP && ch->state == ZT_RPC_LISTENING; }

// A zero-filled channel with its two buffers, or NULL (logged).
ZTRPC *new_channel(int protocol) {
  auto *box = static_cast<Channel *>(std::calloc(1, sizeof(Channel)));
  ZTRPC *ch = box != nullptr ? &box->record : nullptr;
  if (ch == nullptr) {
    ZT_LOG(kModule, "ZTRPC_Create", "Cannot allocate memory");
    return nullptr;
  }
  ch->socket = -1;
  ch->protocol = protocol;
  ch->timeout = ZT_RPC_DEFAULT_TIMEOUT;
  ch->input = ZT_MemBufCreate(65536);
  ch->output = ZT_MemBufCreate(65536);
  if (ch->input == nullptr || ch->output == nullptr) {
    ZT_LOG(kModule, "ZTRPC_Create", "Cannot allocate memory");
    ZTRPC_Destroy(ch);
    return nullptr;
  }
  return ch;
}

// ZTRPC_Abort may set the flag from another thread.
bool aborted(const ZTRPC *ch) { return __atomic_load_n(&ch->abort_flag, __ATOMIC_ACQUIRE) != 0; }

bool connected(const ZTRPC *ch) {
  return ch != nullptr && ch->socket >= 0 &&
         (ch->state == ZT_RPC_CONNECTED || (ch->protocol == ZT_RPC_UDP && ch->state == ZT_RPC_LISTENING));
}

// The words of the channel's messages; the loops are shared with the packet
// wire code (packets/socket_io.h).
SocketLog rpc_log(const char *function) {
  return SocketLog{kModule, function, "Got select but socket is not set", "socket closed on other end ?"};
}

// A wait that is not part of reading an item (an accept, a send) gets the
// time-out afresh at every wait; both kinds end early when ZTRPC_Abort comes
// from another thread.
SocketTimer timer_of(const ZTRPC *ch, int32_t seconds) { return SocketTimer::per_wait(seconds, &ch->abort_flag); }

// One deadline for a whole item, header and data: a peer that sends a byte
// just inside every time-out would otherwise hold the channel, and the
// thread serving it, for ever.
SocketTimer item_timer(const ZTRPC *ch) { return SocketTimer::whole(ch->timeout, &ch->abort_flag); }

size_t available(const ZTRPC *ch) { return ZT_MemBufSize(ch->input) - ch->input_offset; }
const unsigned char *input_at(const ZTRPC *ch) {
  return static_cast<const unsigned char *>(ZT_MemBufPointer(ch->input)) + ch->input_offset;
}
void consume(ZTRPC *ch, uint64_t n) {
  ch->input_offset += n;
  if (ch->input_offset >= ZT_MemBufSize(ch->input)) {
    ZT_MemBufClear(ch->input);
    ch->input_offset = 0;
  }
}

// Waits for bytes until `timer` gives up and appends them to the input: the
// number appended, or -1 (logged unless aborted).
int32_t read_more(ZTRPC *ch, const SocketTimer &timer, const char *fn) {
  if (!connected(ch)) {
    ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
    return -1;
  }
  char buf[65536];
  size_t got = 0;
  const bool from_anyone = datagram_server(ch);
  PeerAddress peer;
  const IoStatus status =
      recv_some(ch->socket, buf, sizeof buf, got, timer, rpc_log(fn), from_anyone ? &peer : nullptr);
  if (status != IoStatus::kDone) {
    if (status == IoStatus::kTimeout && !aborted(ch))
      ZT_LOG(kModule, fn, "Timeout after %d seconds reading from socket", ch->timeout);
    return -1;
  }
  if (from_anyone) {
    channel_of(ch)->reply_to = peer;
    channel_of(ch)->has_reply_to = true;
  }
  if (ZT_MemBufAppend(ch->input, buf, got) != 0) return -1;
  return static_cast<int32_t>(got);
}

// Receives `n` bytes of item data into `pm`: what the input holds first,
// then, on a stream, straight from the socket, so a large body is held once
// and not also in the input. The memory grows as bytes arrive (doubling up
// to `n`), so a peer that announces much and sends little costs what it
// sent. 0 or -1 (logged).
int receive_into(ZTRPC *ch, ZTPacketMemory *pm, uint64_t n, const SocketTimer &timer) {
  const char *fn = "ZTRPC_read";
  constexpr uint64_t kFirstBlock = 64u << 10;
  uint64_t room = n < kFirstBlock ? n : kFirstBlock;
  if (MaintainPacketMemory(pm, room + 1) != 0) return -1;
  uint64_t got = 0;
  while (got < n) {
    if (got == room) {
      room = room > n / 2 ? n : room * 2;
      if (MaintainPacketMemory(pm, room - got + 1) != 0) return -1;
    }
    const uint64_t want = room - got;
    if (available(ch) > 0) {
      const uint64_t take = available(ch) < want ? available(ch) : want;
      std::memcpy(pm->ptr, input_at(ch), take);
      consume(ch, take);
      pm->ptr += take;
      got += take;
      continue;
    }
    // A datagram must be taken whole, so it goes through the input.
    if (ch->protocol == ZT_RPC_UDP) {
      if (read_more(ch, timer, fn) < 0) return -1;
      continue;
    }
    size_t piece = 0;
    const IoStatus status = recv_some(ch->socket, pm->ptr, static_cast<size_t>(want), piece, timer, rpc_log(fn));
    if (status != IoStatus::kDone) {
      if (status == IoStatus::kTimeout && !aborted(ch))
        ZT_LOG(kModule, fn, "Timeout after %d seconds reading from socket", ch->timeout);
      return -1;
    }
    pm->ptr += piece;
    got += piece;
  }
  pm->ptr = pm->data + n;
  *pm->ptr = '\0';
  pm->body_length = n;
  pm->total_length = n;
  return 0;
}

// Reads until `n` unread bytes are there. 0 or -1 (logged).
int need(ZTRPC *ch, uint64_t n, const SocketTimer &timer) {
  while (available(ch) < n)
    if (read_more(ch, timer, "ZTRPC_read") < 0) return -1;
  return 0;
}

int append_item(ZTRPC *ch, uint32_t type, const void *data, uint64_t length) {
  unsigned char head[ZT_RPC_ITEM_HEADER];
  zt::store_be32(head, type);
  zt::store_be64(head + 4, length);
  if (ch == nullptr || ZT_MemBufAppend(ch->output, head, sizeof head) != 0) return -1;
  if (length != 0 && ZT_MemBufAppend(ch->output, data, length) != 0) return -1;
  return 0;
}

int append_u32(ZTRPC *ch, uint32_t type, uint32_t v) {
  unsigned char b[4];
  zt::store_be32(b, v);
  return append_item(ch, type, b, 4);
}

// Drops `n` bytes of item data, reading as needed.
int skip(ZTRPC *ch, uint64_t n, const SocketTimer &timer) {
  while (n > 0) {
    if (available(ch) == 0 && read_more(ch, timer, "ZTRPC_read") < 0) return -1;
    const uint64_t take = available(ch) < n ? available(ch) : n;
    consume(ch, take);
    n -= take;
  }
  return 0;
}

int read_header(ZTRPC *ch, uint32_t *type, uint64_t *length, const SocketTimer &timer) {
  if (need(ch, ZT_RPC_ITEM_HEADER, timer) != 0) return -1;
  *type = zt::load_be32(input_at(ch));
  *length = zt::load_be64(input_at(ch) + 4);
  consume(ch, ZT_RPC_ITEM_HEADER);
  return 0;
}

// Reads an item header and checks its type and, when `exact` is set, its
// length. On a mismatch the data is skipped when it is within the limit.
int expect_item(ZTRPC *ch, uint32_t type, uint64_t *length, bool exact, uint64_t want, const char *function,
                const SocketTimer &timer) {
  uint32_t got_type = 0;
  uint64_t got_length = 0;
  if (read_header(ch, &got_type, &got_length, timer) != 0) return -1;
  if (got_type != type || (exact && got_length != want) || got_length > g_max_item.load()) {
    ZT_LOG(kModule, function, "Expected item type %d, got type %u with %llu bytes", static_cast<int>(type), got_type,
           static_cast<unsigned long long>(got_length));
    if (got_length <= g_max_item.load()) skip(ch, got_length, timer);
    return -1;
  }
  *length = got_length;
  return 0;
}

int read_fixed(ZTRPC *ch, uint32_t type, unsigned char *out, uint64_t n, const char *function,
               const SocketTimer &timer) {
  uint64_t length = 0;
  if (ch == nullptr || out == nullptr) {
    ZT_LOG(kModule, function, "NULL rpc handle or socket is not connected");
    return -1;
  }
  if (expect_item(ch, type, &length, true, n, function, timer) != 0) return -1;
  if (need(ch, n, timer) != 0) return -1;
  std::memcpy(out, input_at(ch), n);
  consume(ch, n);
  return 0;
}

int read_fixed(ZTRPC *ch, uint32_t type, unsigned char *out, uint64_t n, const char *function) {
  if (ch == nullptr) return read_fixed(ch, type, out, n, function, SocketTimer::whole(0));
  return read_fixed(ch, type, out, n, function, item_timer(ch));
}

// 0 sent, 1 dropped by an abort, -1 failed (logged).
int send_buffer(ZTRPC *ch, const char *p, uint64_t n, const char *function) {
  const Channel *box = channel_of(ch);
  const PeerAddress *to = datagram_server(ch) && box->has_reply_to ? &box->reply_to : nullptr;
  switch (send_all(ch->socket, p, n, timer_of(ch, ch->timeout), rpc_log(function), to)) {
    case IoStatus::kDone:
      return 0;
    case IoStatus::kAborted:
      return 1;
    case IoStatus::kTimeout:
      if (aborted(ch)) return 1;
      ZT_LOG(kModule, function, "Error %d while writing to socket", ETIMEDOUT);
      return -1;
    default:
      return -1;
  }
}

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

namespace {
// Temporary names of files being received, unique within the process.
uint64_t next_part_number() {
  static std::atomic<uint64_t> counter{0};
  return counter.fetch_add(1);
}
}  // namespace

extern "C" {

ZT_API void ZTRPC_SetLimits(uint64_t max_item_length, uint64_t max_file_length) {
  g_max_item.store(max_item_length ? max_item_length : ZT_RPC_DEFAULT_ITEM_LIMIT);
  g_max_file.store(max_file_length ? max_file_length : ZT_RPC_DEFAULT_FILE_LIMIT);
}

ZT_API void ZT_setFastSocketOptions(int socket) {
  int one = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

ZT_API ZTRPC *ZTRPC_ClientCreate(const char *host, int32_t port, const char *protocol) {
  return zt::api_guard<ZTRPC *>(kModule, "ZTRPC_ClientCreate", nullptr, [&]() -> ZTRPC * {
    if (host == nullptr || protocol == nullptr) return nullptr;
    const int proto = protocol_of(protocol);
    if (proto == 0) return nullptr;
    if (port < 1 || port > 65535) {
      ZT_LOG(kModule, "ZTRPC_ClientCreate", "Port %d is outside 1 to 65535", static_cast<int>(port));
      return nullptr;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = proto == ZT_RPC_TCP ? SOCK_STREAM : SOCK_DGRAM;
    addrinfo *found = nullptr;
    const std::string service = std::to_string(port);
    if (::getaddrinfo(host, service.c_str(), &hints, &found) != 0 || found == nullptr) return nullptr;
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> guard(found, &::freeaddrinfo);
    const int fd = ::socket(AF_INET, hints.ai_socktype, 0);
    if (fd < 0) {
      ZT_LOG(kModule, "ZTRPC_ClientCreate", "Cannot allocate socket");
      return nullptr;
    }
    FdCloser closer{fd};
    if (proto == ZT_RPC_TCP) {
      linger l{1, 5};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    if (::connect(fd, found->ai_addr, found->ai_addrlen) != 0) return nullptr;
    ZTRPC *ch = new_channel(proto);
    if (ch == nullptr) return nullptr;
    set_nonblocking(fd);
    ch->socket = fd;
    closer.fd = -1;
    ch->state = ZT_RPC_CONNECTED;
    ch->host = strdup(host);
    return ch;
  });
}

ZT_API ZTRPC *ZTRPC_ServerCreateAt(const char *address, int32_t port, int32_t backlog, const char *protocol) {
  return zt::api_guard<ZTRPC *>(kModule, "ZTRPC_ServerCreate", nullptr, [&]() -> ZTRPC * {
    const char *fn = "ZTRPC_ServerCreate";
    const int proto = protocol_of(protocol);
    if (proto == 0) return nullptr;
    // The port is 16 bits on the wire: a larger number would silently bind
    // another port (70000 is 4464). 0 lets the system choose one.
    if (port < 0 || port > 65535) {
      ZT_LOG(kModule, fn, "Port %d is outside 1 to 65535", static_cast<int>(port));
      return nullptr;
    }
    const int fd = ::socket(AF_INET, proto == ZT_RPC_TCP ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (fd < 0) {
      ZT_LOG(kModule, fn, "Cannot allocate socket");
      return nullptr;
    }
    FdCloser closer{fd};
    int one = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
      ZT_LOG(kModule, fn, "warning: Cannot set reuseaddr option on socket");
      return nullptr;
    }
    if (proto == ZT_RPC_TCP) ZT_setFastSocketOptions(fd);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (address != nullptr && ::inet_pton(AF_INET, address, &addr.sin_addr) != 1) {
      ZT_LOG(kModule, fn, "Cannot bind to given address %d", static_cast<int>(port));
      return nullptr;
    }
    if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
      ZT_LOG(kModule, fn, "Cannot bind to given address %d", static_cast<int>(port));
      return nullptr;
    }
    if (proto == ZT_RPC_TCP && ::listen(fd, backlog > 0 ? backlog : 5) != 0) {
      ZT_LOG(kModule, fn, "Error setting to listen mode");
      return nullptr;
    }
    ZTRPC *ch = new_channel(proto);
    if (ch == nullptr) return nullptr;
    set_nonblocking(fd);
    ch->socket = fd;
    closer.fd = -1;
    ch->state = ZT_RPC_LISTENING;
    return ch;
  });
}

ZT_API ZTRPC *ZTRPC_ServerCreate(int32_t port, int32_t backlog, const char *protocol) {
  return ZTRPC_ServerCreateAt(nullptr, port, backlog, protocol);
}

ZT_API int32_t ZTRPC_GetPort(const ZTRPC *channel) {
  if (channel == nullptr || channel->socket < 0) return -1;
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  if (::getsockname(channel->socket, reinterpret_cast<sockaddr *>(&addr), &len) != 0) return -1;
  return ntohs(addr.sin_port);
}

ZT_API ZTRPC *ZTRPC_WaitForConnection(ZTRPC *server, int32_t seconds) {
  return zt::api_guard<ZTRPC *>(kModule, "ZTRPC_WaitForConnection", nullptr, [&]() -> ZTRPC * {
    const char *fn = "ZTRPC_WaitForConnection";
    if (server == nullptr || server->state != ZT_RPC_LISTENING || server->protocol != ZT_RPC_TCP ||
        server->socket < 0) {
      ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
      return nullptr;
    }
    if (wait_ready(server->socket, POLLIN, timer_of(server, seconds < 1 ? 120 : seconds), rpc_log(fn)) !=
        IoStatus::kDone)
      return nullptr;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int fd = ::accept(server->socket, reinterpret_cast<sockaddr *>(&peer), &len);
    if (fd < 0) {
      ZT_LOG(kModule, fn, "Error %d accepting connection", errno);
      return nullptr;
    }
    FdCloser closer{fd};
    ZT_setFastSocketOptions(fd);
    ZTRPC *ch = new_channel(server->protocol);
    if (ch == nullptr) return nullptr;
    set_nonblocking(fd);
    ch->socket = fd;
    closer.fd = -1;
    ch->state = ZT_RPC_CONNECTED;
    char name[NI_MAXHOST];
    if (::getnameinfo(reinterpret_cast<sockaddr *>(&peer), len, name, sizeof name, nullptr, 0, NI_NAMEREQD) != 0)
      ::inet_ntop(AF_INET, &peer.sin_addr, name, sizeof name);
    ch->host = strdup(name);
    return ch;
  });
}

ZT_API void ZTRPC_SetTimeout(ZTRPC *channel, int32_t seconds) {
  if (channel != nullptr && seconds >= 1) channel->timeout = seconds;
}

ZT_API void ZTRPC_Abort(ZTRPC *channel) {
  if (channel == nullptr) return;
  if (channel->socket >= 0) ::shutdown(channel->socket, SHUT_RDWR);
  __atomic_store_n(&channel->abort_flag, -1, __ATOMIC_RELEASE);
}

ZT_API void ZTRPC_Destroy(ZTRPC *channel) {
  if (channel == nullptr) return;
  if (channel->socket >= 0) ::close(channel->socket);
  ZT_MemBufFree(channel->input);
  ZT_MemBufFree(channel->output);
  std::free(channel->host);
  std::free(channel);
}

ZT_API int32_t ZTRPC_WriteLong(ZTRPC *ch, int32_t value) {
  return append_u32(ch, ZT_RPC_LONG, static_cast<uint32_t>(value));
}
ZT_API int32_t ZTRPC_WriteULong(ZTRPC *ch, uint32_t value) { return append_u32(ch, ZT_RPC_ULONG, value); }
ZT_API int32_t ZTRPC_WriteRPC(ZTRPC *ch, uint32_t code) { return append_u32(ch, ZT_RPC_REQUEST, code); }

ZT_API int32_t ZTRPC_WriteString(ZTRPC *ch, const char *string) {
  return append_item(ch, ZT_RPC_STRING, string, string ? std::strlen(string) : 0);
}

ZT_API int32_t ZTRPC_WriteZTKEY(ZTRPC *ch, const ZTKEY *key) {
  if (key == nullptr) return -1;
  unsigned char b[8];
  zt::store_be32(b, key->word2);
  zt::store_be32(b + 4, key->word1);
  return append_item(ch, ZT_RPC_ZTKEY, b, 8);
}

ZT_API int32_t ZTRPC_Write_ZT_off_t(ZTRPC *ch, uint64_t value) {
  unsigned char b[8];
  zt::store_be64(b, value);
  return append_item(ch, ZT_RPC_OFF_T, b, 8);
}

ZT_API int32_t ZTRPC_WritePacketable(ZTRPC *ch, const void *record, uint32_t storage_class, uint32_t flags) {
  return zt::api_guard<int32_t>(kModule, "ZTRPC_WritePacketable", -1, [&]() -> int32_t {
    if (ch == nullptr) return -1;
    if (record == nullptr && !(flags & 1u)) {
      ZT_LOG(kModule, "ZTRPC_WritePacketable", "error; empty packet type %d, flags = %x", static_cast<int>(storage_class),
             flags);
      return -1;
    }
    ZTPacketMemory *pm = InitAllocPacketMemory(0);
    if (pm == nullptr) return -1;
    std::unique_ptr<ZTPacketMemory, void (*)(ZTPacketMemory *)> guard(pm, [](ZTPacketMemory *p) { FreePacketMemory(&p); });
    const int rc = (flags & 1u) ? MakePacketDataFromList(pm, static_cast<const ZTListNode *>(record), storage_class)
                                : MakePacketDataFromItem(pm, record, storage_class);
    if (rc != 0) return -1;
    unsigned char head[ZT_RPC_ITEM_HEADER];
    zt::store_be32(head, ZT_RPC_PACKETABLE);
    zt::store_be64(head + 4, pm->body_length + 48);
    if (ZT_MemBufAppend(ch->output, head, sizeof head) != 0 || append_u32(ch, ZT_RPC_ULONG, storage_class) != 0 ||
        append_u32(ch, ZT_RPC_ULONG, flags) != 0 ||
        append_u32(ch, ZT_RPC_ULONG, static_cast<uint32_t>(pm->body_length)) != 0 ||
        ZT_MemBufAppend(ch->output, pm->data, pm->body_length) != 0)
      return -1;
    return 0;
  });
}

ZT_API int32_t ZTRPC_WriteFlush(ZTRPC *ch) {
  const char *fn = "ZTRPC_WriteFlush";
  if (!connected(ch)) {
    ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
    if (ch != nullptr) ZT_MemBufClear(ch->output);
    return -1;
  }
  const int rc = send_buffer(ch, static_cast<const char *>(ZT_MemBufPointer(ch->output)), ZT_MemBufSize(ch->output), fn);
  ZT_MemBufClear(ch->output);
  return rc < 0 ? -1 : 0;
}

ZT_API int32_t ZTRPC_write(ZTRPC *ch) { return ZTRPC_WriteFlush(ch); }

ZT_API int32_t ZTRPC_WriteFile(ZTRPC *ch, const char *path) {
  const char *fn = "ZTRPC_WriteFile";
  struct stat st;
  if (path == nullptr || ::stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    ZT_LOG(kModule, fn, "file %s does not exist", path ? path : "(null)");
    return -1;
  }
  if (!connected(ch)) {
    ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
    return -1;
  }
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    ZT_LOG(kModule, fn, "file %s does not exist", path);
    return -1;
  }
  FdCloser closer{fd};
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  unsigned char head[ZT_RPC_ITEM_HEADER];
  zt::store_be32(head, ZT_RPC_FILE_DATA);
  zt::store_be64(head + 4, size);
  if (append_item(ch, ZT_RPC_FILE_START, nullptr, 0) != 0 || ZTRPC_WriteString(ch, path) != 0 ||
      ZT_MemBufAppend(ch->output, head, sizeof head) != 0 || ZTRPC_WriteFlush(ch) != 0)
    return -1;
  off_t offset = 0;
  uint64_t left = size;
  while (left > 0) {
    if (aborted(ch)) return 0;
    const ssize_t n = ::sendfile(ch->socket, fd, &offset, left > (1u << 30) ? (1u << 30) : left);
    if (n > 0) {
      left -= static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (wait_ready(ch->socket, POLLOUT, timer_of(ch, ch->timeout), rpc_log(fn)) == IoStatus::kDone) continue;
      if (aborted(ch)) return 0;
    }
    ZT_LOG(kModule, fn, "Error sending file %s", path);
    return -1;
  }
  return 0;
}

ZT_API int32_t ZTRPC_read(ZTRPC *ch) {
  if (ch == nullptr) return read_more(ch, SocketTimer::whole(0), "ZTRPC_read");
  return read_more(ch, item_timer(ch), "ZTRPC_read");
}

ZT_API int32_t ZTRPC_ReadHeader(ZTRPC *ch, uint32_t *type, uint64_t *length) {
  if (ch == nullptr || type == nullptr || length == nullptr) {
    ZT_LOG(kModule, "ZTRPC_ReadHeader", "NULL rpc handle or socket is not connected");
    return -1;
  }
  return read_header(ch, type, length, item_timer(ch));
}

ZT_API int32_t ZTRPC_ReadULong(ZTRPC *ch, uint32_t *value) {
  unsigned char b[4];
  if (read_fixed(ch, ZT_RPC_ULONG, b, 4, "ZTRPC_ReadULong") != 0) return -1;
  *value = zt::load_be32(b);
  return 0;
}

ZT_API int32_t ZTRPC_ReadLong(ZTRPC *ch, int32_t *value) {
  unsigned char b[4];
  if (read_fixed(ch, ZT_RPC_LONG, b, 4, "ZTRPC_ReadLong") != 0) return -1;
  *value = static_cast<int32_t>(zt::load_be32(b));
  return 0;
}

ZT_API int32_t ZTRPC_ReadRPC(ZTRPC *ch, uint32_t *code) {
  unsigned char b[4];
  if (read_fixed(ch, ZT_RPC_REQUEST, b, 4, "ZTRPC_ReadRPC") != 0) return -1;
  *code = zt::load_be32(b);
  return 0;
}

ZT_API int32_t ZTRPC_Read_ZT_off_t(ZTRPC *ch, uint64_t *value) {
  unsigned char b[8];
  if (read_fixed(ch, ZT_RPC_OFF_T, b, 8, "ZTRPC_Read_ZT_off_t") != 0) return -1;
  *value = zt::load_be64(b);
  return 0;
}

ZT_API int32_t ZTRPC_ReadZTKEY(ZTRPC *ch, ZTKEY *key) {
  unsigned char b[8];
  if (read_fixed(ch, ZT_RPC_ZTKEY, b, 8, "ZTRPC_ReadZTKEY") != 0) return -1;
  key->word2 = zt::load_be32(b);
  key->word1 = zt::load_be32(b + 4);
  return 0;
}

ZT_API int32_t ZTRPC_ReadString(ZTRPC *ch, char *buffer, uint64_t size) {
  const char *fn = "ZTRPC_ReadString";
  uint64_t length = 0;
  if (ch == nullptr || buffer == nullptr) {
    ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
    return -1;
  }
  const SocketTimer timer = item_timer(ch);
  if (expect_item(ch, ZT_RPC_STRING, &length, false, 0, fn, timer) != 0) return -1;
  if (length >= size) {
    ZT_LOG(kModule, fn, "Buffer overflow");
    skip(ch, length, timer);
    return -1;
  }
  if (need(ch, length, timer) != 0) return -1;
  std::memcpy(buffer, input_at(ch), length);
  buffer[length] = '\0';
  consume(ch, length);
  return 0;
}

ZT_API int32_t ZTRPC_ReadPacketable(ZTRPC *ch, void **record, uint32_t *storage_class, uint32_t *flags) {
  return zt::api_guard<int32_t>(kModule, "ZTRPC_ReadPacketable", -1, [&]() -> int32_t {
    const char *fn = "ZTRPC_ReadPacketable";
    uint64_t length = 0;
    if (ch == nullptr || record == nullptr || storage_class == nullptr || flags == nullptr) {
      ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
      return -1;
    }
    *record = nullptr;
    const SocketTimer timer = item_timer(ch);
    if (expect_item(ch, ZT_RPC_PACKETABLE, &length, false, 0, fn, timer) != 0) return -1;
    uint32_t third = 0;
    if (length < 48) {
      ZT_LOG(kModule, fn, "Expected item type %d, got type %u with %llu bytes", static_cast<int>(ZT_RPC_PACKETABLE),
             ZT_RPC_PACKETABLE,
             static_cast<unsigned long long>(length));
      skip(ch, length, timer);
      return -1;
    }
    // The three values are inside the item, so they share its deadline.
    unsigned char value[3][4];
    for (auto &v : value)
      if (read_fixed(ch, ZT_RPC_ULONG, v, 4, "ZTRPC_ReadULong", timer) != 0) return -1;
    *storage_class = zt::load_be32(value[0]);
    *flags = zt::load_be32(value[1]);
    third = zt::load_be32(value[2]);
    (void)third;
    const uint64_t body = length - 48;
    ZTPacketMemory *pm = InitAllocPacketMemory(0);
    if (pm == nullptr || receive_into(ch, pm, body, timer) != 0) {
      FreePacketMemory(&pm);
      return -1;
    }
    if (*flags & 1u) {
      // An empty list decodes to NULL too; read_offset tells it from a failure.
      ZTListNode *list = MakeListFromPacket(pm, *storage_class);
      const bool ok = list != nullptr || pm->read_offset != 0;
      *record = list;
      FreePacketMemory(&pm);
      return ok ? 0 : -1;
    }
    *record = MakeItemFromPacket(pm, *storage_class);
    FreePacketMemory(&pm);
    return *record != nullptr ? 0 : -1;
  });
}

ZT_API int32_t ZTRPC_ReadSkipItem(ZTRPC *ch) {
  uint32_t type = 0;
  uint64_t length = 0;
  if (ch == nullptr) {
    ZT_LOG(kModule, "ZTRPC_ReadHeader", "NULL rpc handle or socket is not connected");
    return -1;
  }
  const SocketTimer timer = item_timer(ch);
  if (read_header(ch, &type, &length, timer) != 0) return -1;
  // File data may be far larger than any other item.
  const uint64_t limit = type == ZT_RPC_FILE_DATA ? g_max_file.load() : g_max_item.load();
  if (length > limit) {
    ZT_LOG(kModule, "ZTRPC_ReadSkipItem", "Item type %u of %llu bytes is above the limit of %llu bytes", type,
           static_cast<unsigned long long>(length), static_cast<unsigned long long>(limit));
    return -1;
  }
  // Other items are bound by the header's deadline; file data gets one
  // deadline per block, as in ZTRPC_GetFile.
  if (type != ZT_RPC_FILE_DATA) {
    if (skip(ch, length, timer) != 0) return -1;
  } else {
    while (length > 0) {
      const uint64_t piece = length < kFileBlock ? length : kFileBlock;
      if (skip(ch, piece, item_timer(ch)) != 0) return -1;
      length -= piece;
    }
  }
  return static_cast<int32_t>(type);
}

ZT_API int32_t ZTRPC_GetFile(ZTRPC *ch, const char *directory, char *name, uint64_t name_size) {
  return zt::api_guard<int32_t>(kModule, "ZTRPC_GetFile", -1, [&]() -> int32_t {
    const char *fn = "ZTRPC_GetFile";
    uint64_t length = 0;
    if (ch == nullptr || directory == nullptr) {
      ZT_LOG(kModule, fn, "NULL rpc handle or socket is not connected");
      return -1;
    }
    if (expect_item(ch, ZT_RPC_FILE_START, &length, true, 0, fn, item_timer(ch)) != 0) return -1;
    char path[4096];
    if (ZTRPC_ReadString(ch, path, sizeof path) != 0) return -1;
    uint32_t type = 0;
    if (ZTRPC_ReadHeader(ch, &type, &length) != 0) return -1;
    if (type != ZT_RPC_FILE_DATA || length > g_max_file.load()) {
      ZT_LOG(kModule, fn, "Expected item type %d, got type %u with %llu bytes",
             static_cast<int>(ZT_RPC_FILE_DATA), type,
             static_cast<unsigned long long>(length));
      return -1;
    }
    // Only the last component of the sender's path is used, so the file
    // always lands inside `directory`.
    const char *base = path;
    for (const char *p = path; *p; ++p)
      if (*p == '/' || *p == '\\') base = p + 1;
    const std::string leaf(base);
    const int dir = ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FdCloser dir_closer{dir};
    // The file arrives under a temporary name in the same folder and replaces
    // the target only once it is whole: a sender that stops half-way leaves
    // an existing file as it was. A target that is a link or not a plain
    // file is refused rather than replaced.
    int out = -1;
    std::string part;
    struct stat existing {};
    const bool target_ok =
        dir >= 0 && !leaf.empty() && leaf != "." && leaf != ".." &&
        (::fstatat(dir, leaf.c_str(), &existing, AT_SYMLINK_NOFOLLOW) != 0 ? errno == ENOENT
                                                                           : S_ISREG(existing.st_mode));
    for (uint32_t attempt = 0; target_ok && out < 0 && attempt < 100; ++attempt) {
      part = "." + leaf + ".part" + std::to_string(::getpid()) + "_" + std::to_string(next_part_number());
      out = ::openat(dir, part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
      if (out < 0 && errno != EEXIST) break;
    }
    FdCloser out_closer{out};
    if (out < 0) {
      ZT_LOG(kModule, fn, "Cannot create file %s in %s", leaf.c_str(), directory);
      for (uint64_t left = length; left > 0;) {
        const uint64_t piece = left < kFileBlock ? left : kFileBlock;
        if (skip(ch, piece, item_timer(ch)) != 0) break;
        left -= piece;
      }
      return -1;
    }
    auto fail = [&] {
      ::unlinkat(dir, part.c_str(), 0);
      return -1;
    };
    uint64_t left = length;
    auto write_all = [&](const void *data, size_t n) {
      const char *p = static_cast<const char *>(data);
      while (n > 0) {
        const ssize_t w = ::write(out, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
          ZT_LOG(kModule, fn, "Error %d writing file %s", errno, leaf.c_str());
          return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
      }
      return true;
    };
    // What is already buffered first, then straight from the socket.
    const uint64_t first = available(ch) < left ? available(ch) : left;
    if (first && !write_all(input_at(ch), first)) return fail();
    consume(ch, first);
    left -= first;
    constexpr uint64_t kBlock = kFileBlock;
    std::unique_ptr<char[]> block(new char[kBlock]);
    while (left > 0) {
      size_t got = 0;
      // A file may be far too large for one time-out; each block gets its own.
      const IoStatus status = recv_exact(ch->socket, block.get(), static_cast<size_t>(left < kBlock ? left : kBlock),
                                         got, item_timer(ch), rpc_log(fn));
      if (status != IoStatus::kDone) {
        if (status == IoStatus::kTimeout && !aborted(ch))
          ZT_LOG(kModule, fn, "Timeout after %d seconds reading from socket", ch->timeout);
        return fail();
      }
      if (!write_all(block.get(), got)) return fail();
      left -= got;
    }
    if (::renameat(dir, part.c_str(), dir, leaf.c_str()) != 0) {
      ZT_LOG(kModule, fn, "Error %d writing file %s", errno, leaf.c_str());
      return fail();
    }
    if (name != nullptr && name_size > 0) {
      const size_t n = leaf.size() < name_size - 1 ? leaf.size() : static_cast<size_t>(name_size - 1);
      std::memcpy(name, leaf.data(), n);
      name[n] = '\0';
    }
    return 0;
  });
}

}  // extern "C"
