// The 44-byte packet header and reading packets from sockets and buffers.
// One deadline covers a whole header or body, so a peer that trickles bytes
// is dropped within the caller's time-out.
#include "foundation/internal.h"
#include "packets/packets_internal.h"
#include "packets/socket_io.h"

#include <zt/packets.h>

#include <atomic>
#include <cstdio>
#include <cstring>

using zt::packets::IoStatus;
using zt::packets::kModule;
using zt::packets::recv_exact;
using zt::packets::send_all;
using zt::packets::SocketLog;
using zt::packets::SocketTimer;

namespace {

constexpr const char *kWireModule = "ztlp";
constinit std::atomic<uint64_t> g_max_body{ZT_PACKET_DEFAULT_BODY_LIMIT};

// The words of the wire readers' messages; the loops are shared with the RPC
// stream (packets/socket_io.h).
SocketLog wire_log(const char *function) {
  return SocketLog{kWireModule, function, "Got select but s is not set", "Socket closed on other end"};
}

// A body's buffer starts at this and doubles as bytes arrive.
constexpr uint64_t kFirstBodyBlock = 64 * 1024;

constexpr size_t kMagicSize = sizeof(ZT_PACKET_MAGIC) - 1;
constexpr size_t kFieldSize = 9;  // eight hex digits and LF
static_assert(kMagicSize + 4 * kFieldSize == ZT_PACKET_HEADER_SIZE);

// The four fields after the magic, as the writer makes them ("%08x\n" each);
// both readers take a header by this one rule, so a header is never longer or
// shorter for one than for the other. `n` bytes are there: 0 read, 1 valid so
// far but cut short, -1 bad.
int parse_fields(const uint8_t *p, size_t n, ZTPacketHeader &h) {
  uint32_t fields[4] = {0, 0, 0, 0};
  const size_t have = n < 4 * kFieldSize ? n : 4 * kFieldSize;
  for (size_t i = 0; i < have; ++i) {
    const size_t at = i % kFieldSize;
    if (at == kFieldSize - 1) {
      if (p[i] != '\n') return -1;
      continue;
    }
    if (!zt::packets::g_hex_valid[p[i]]) return -1;
    fields[i / kFieldSize] = fields[i / kFieldSize] * 16 + zt::packets::g_hex_value[p[i]];
  }
  if (have < 4 * kFieldSize) return 1;
  h.field1 = fields[0];
  h.field2 = fields[1];
  h.field3 = fields[2];
  h.field4 = fields[3];
  return 0;
}

}  // namespace

extern "C" {

ZT_API void ZTPacketSetMaxBodyLength(uint64_t bytes) {
  g_max_body.store(bytes == 0 ? ZT_PACKET_DEFAULT_BODY_LIMIT : bytes);
}

ZT_API uint64_t ZTPacketGetMaxBodyLength(void) { return g_max_body.load(); }

ZT_API int32_t AddPacketHeader(ZTPacketMemory *pm, uint32_t field1, uint32_t field3, uint32_t field2) {
  if (pm == nullptr) {
    ZT_LOG(kModule, "AddPacketHeader", "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  if (pm->body_length > 0xffffffffu) {
    ZT_LOG(kModule, "AddPacketHeader", "Packet body of %llu bytes does not fit the header",
           static_cast<unsigned long long>(pm->body_length));
    return -1;
  }
  if (MaintainPacketHeaderMemory(pm, ZT_PACKET_HEADER_SIZE) != 0) return -1;
  char text[ZT_PACKET_HEADER_SIZE + 1];
  std::snprintf(text, sizeof text, "%s%08x\n%08x\n%08x\n%08x\n", ZT_PACKET_MAGIC, field1, field2, field3,
                static_cast<uint32_t>(pm->body_length));
  std::memcpy(pm->header, text, ZT_PACKET_HEADER_SIZE);
  return 0;
}

ZT_API int32_t ReadPacketHeaderFromSocket(int socket, ZTPacketHeader *header, int32_t timeout_seconds) {
  const char *fn = "ReadPacketHeaderFromSocket";
  if (header == nullptr || socket < 0) {
    ZT_LOG(kWireModule, fn, "NULL pointer passed");
    return -1;
  }
  char buf[ZT_PACKET_HEADER_SIZE];
  size_t got = 0;
  switch (recv_exact(socket, buf, sizeof buf, got, SocketTimer::whole(timeout_seconds), wire_log(fn))) {
    case IoStatus::kDone:
      break;
    case IoStatus::kTimeout:
      if (got == 0) return 1;
      ZT_LOG(kWireModule, fn, "Timeout waiting for packet header");
      return -1;
    default:
      return -1;
  }
  if (std::memcmp(buf, ZT_PACKET_MAGIC, 8) != 0) {
    ZT_LOG(kWireModule, fn, "Header packet mismatch, dropping packet");
    return -1;
  }
  ZTPacketHeader h{};
  if (parse_fields(reinterpret_cast<const uint8_t *>(buf) + kMagicSize, sizeof buf - kMagicSize, h) != 0) {
    ZT_LOG(kWireModule, fn, "Header packet mismatch, dropping packet");
    return -1;
  }
  h.header_bytes = ZT_PACKET_HEADER_SIZE;
  *header = h;
  return 0;
}

ZT_API int32_t ReadPacketBodyFromSocket(int socket, const ZTPacketHeader *header, ZTPacketMemory **packet_memory,
                                        int32_t timeout_seconds) {
  const char *fn = "ReadPacketBodyFromSocket";
  if (header == nullptr || packet_memory == nullptr || socket < 0) {
    ZT_LOG(kWireModule, fn, "NULL pointer passed");
    return -1;
  }
  *packet_memory = nullptr;
  const uint64_t length = header->field4;
  if (length > g_max_body.load()) {
    ZT_LOG(kWireModule, fn, "Packet body of %llu bytes is above the limit of %llu bytes",
           static_cast<unsigned long long>(length), static_cast<unsigned long long>(g_max_body.load()));
    return -1;
  }
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  if (pm == nullptr) {
    ZT_LOG(kWireModule, fn, "INITALLOC FAILED");
    return -1;
  }
  // The buffer grows as bytes arrive, doubling up to the announced length,
  // so a peer that announces a large body and stalls costs what it sent.
  uint64_t room = length < kFirstBodyBlock ? length : kFirstBodyBlock;
  if (MaintainPacketMemory(pm, room + 1) != 0) {
    ZT_LOG(kWireModule, fn, "MaintainPacketMemory Failed FAILED");
    FreePacketMemory(&pm);
    return -1;
  }
  const SocketTimer timer = SocketTimer::whole(timeout_seconds);
  uint64_t got = 0;
  while (got < length) {
    if (got == room) {
      room = room > length / 2 ? length : room * 2;
      if (MaintainPacketMemory(pm, room - got + 1) != 0) {
        ZT_LOG(kWireModule, fn, "MaintainPacketMemory Failed FAILED");
        FreePacketMemory(&pm);
        return -1;
      }
    }
    size_t piece = 0;
    const IoStatus status = recv_exact(socket, pm->ptr, static_cast<size_t>(room - got), piece, timer, wire_log(fn));
    // The write position follows the bytes, so growing keeps them.
    pm->ptr += piece;
    got += piece;
    if (status != IoStatus::kDone) {
      if (status == IoStatus::kTimeout) ZT_LOG(kWireModule, fn, "Timeout waiting for packet body");
      FreePacketMemory(&pm);
      return status == IoStatus::kTimeout ? 1 : -1;
    }
  }
  pm->ptr = pm->data + length;
  *pm->ptr = '\0';
  pm->body_length = length;
  pm->total_length = length;
  *packet_memory = pm;
  return 0;
}

ZT_API int32_t ReadPacketHeaderFromBuffer(const void *bytes, uint64_t length, ZTPacketHeader *header) {
  const char *fn = "ReadPacketHeaderFromBuffer";
  if (header == nullptr || (bytes == nullptr && length != 0)) {
    ZT_LOG(kWireModule, fn, "NULL pointer passed");
    return -1;
  }
  const auto *p = static_cast<const uint8_t *>(bytes);
  const char *magic = ZT_PACKET_MAGIC;
  // Bytes before the magic are skipped; a mismatch restarts the match.
  size_t matched = 0;
  for (uint64_t i = 0; i < length; ++i) {
    const uint8_t c = p[i];
    if (c == static_cast<uint8_t>(magic[matched])) {
      if (++matched < kMagicSize) continue;
      ZTPacketHeader h{};
      const uint64_t start = i + 1;
      const int rc = parse_fields(p + start, static_cast<size_t>(length - start), h);
      if (rc < 0) {
        ZT_LOG(kWireModule, fn, "Header packet mismatch, dropping packet");
        return -1;
      }
      if (rc > 0) return 1;
      h.header_bytes = static_cast<uint32_t>(start + 4 * kFieldSize);
      *header = h;
      return 0;
    }
    matched = c == static_cast<uint8_t>(magic[0]) ? 1 : 0;
  }
  return 1;
}

ZT_API int32_t ReadPacketBodyFromBuffer(const void *bytes, uint64_t length, const ZTPacketHeader *header,
                                        ZTPacketMemory **packet_memory) {
  const char *fn = "ReadPacketBodyFromBuffer";
  if (header == nullptr || packet_memory == nullptr || (bytes == nullptr && length != 0)) {
    ZT_LOG(kWireModule, fn, "NULL pointer passed");
    return -1;
  }
  *packet_memory = nullptr;
  if (header->field4 > g_max_body.load()) {
    ZT_LOG(kWireModule, fn, "Packet body of %llu bytes is above the limit of %llu bytes",
           static_cast<unsigned long long>(header->field4), static_cast<unsigned long long>(g_max_body.load()));
    return -1;
  }
  if (length < header->field4) return 1;
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  if (pm == nullptr) {
    ZT_LOG(kWireModule, fn, "INITALLOC FAILED");
    return -1;
  }
  if (AppendPacketMemory(pm, bytes, header->field4) != 0) {
    ZT_LOG(kWireModule, fn, "MaintainPacketMemory Failed FAILED");
    FreePacketMemory(&pm);
    return -1;
  }
  *packet_memory = pm;
  return 0;
}

ZT_API int32_t ZTPacketSendToSocket(int socket, const ZTPacketMemory *pm, int32_t timeout_seconds) {
  const char *fn = "ZTPacketSendToSocket";
  if (pm == nullptr || socket < 0) {
    ZT_LOG(kWireModule, fn, "NULL pointer passed");
    return -1;
  }
  const IoStatus status =
      send_all(socket, pm->header, pm->total_length, SocketTimer::whole(timeout_seconds), wire_log(fn));
  if (status == IoStatus::kTimeout) ZT_LOG(kWireModule, fn, "Timeout waiting to send packet");
  return status == IoStatus::kDone ? 0 : -1;
}

}  // extern "C"
