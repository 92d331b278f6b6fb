// The packet readers that take bytes from outside the process: the framing on
// a socket and the packet file. Shared by the targets that run them under
// small limits (fast runs) and under the library's default ones (so that a
// fault that needs a large announced size can show).
#pragma once

#include <zt/init.h>
#include <zt/log.h>
#include <zt/packets.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "codec_fuzz_support.h"
#include "support/packet_test_classes.h"

namespace zt::fuzz {

// The library, quiet, with the test storage classes the seeds are written in.
inline void start_packet_library() {
  start_quiet_library();
  if (zt::test::register_packet_test_classes() != 0) std::abort();
}

const uint32_t kPacketClasses[] = {ZT_CLASS_TEST_CHILD, ZT_CLASS_TEST_ALL, ZT_CLASS_TEST_RECORD,
                                   ZT_CLASS_REQUEST};

// A header as the writer lays it out: the magic, then four fields of eight
// lower-case hex digits, each ended by LF.
inline bool canonical_header(const uint8_t *bytes, size_t available) {
  if (available < ZT_PACKET_HEADER_SIZE || std::memcmp(bytes, ZT_PACKET_MAGIC, 8) != 0) return false;
  for (size_t field = 0; field < 4; ++field) {
    const uint8_t *p = bytes + 8 + field * 9;
    for (size_t i = 0; i < 8; ++i)
      if (!((p[i] >= '0' && p[i] <= '9') || (p[i] >= 'a' && p[i] <= 'f'))) return false;
    if (p[8] != '\n') return false;
  }
  return true;
}

// Writes the input into one end of a socket pair, closes that end and reads
// packets back to back from the other until one fails. The peer has closed,
// so nothing may ever wait for the time-out.
inline void run_socket_framing(const uint8_t *data, size_t size) {
  // The whole input must fit the socket's buffer, or the write would block.
  if (size > 65536) return;
  int fds[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
  if (size != 0 && send(fds[1], data, size, MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(size)) {
    close(fds[0]);
    close(fds[1]);
    return;
  }
  close(fds[1]);
  const uint64_t limit = ZTPacketGetMaxBodyLength();
  size_t pos = 0;
  for (int packet = 0; packet < 16; ++packet) {
    // The stream reader takes every header the writer makes, and what it
    // takes, the buffer reader reads alike from the same 44 bytes (the buffer
    // reader is the more lenient: it skips bytes before the magic and takes
    // shorter fields).
    ZTPacketHeader expected{}, header{};
    const int32_t rc = ReadPacketHeaderFromSocket(fds[0], &header, 1);
    check(rc == 0 || rc == -1);
    if (canonical_header(data + pos, size - pos)) check(rc == 0);
    if (rc != 0) break;
    check(size - pos >= ZT_PACKET_HEADER_SIZE &&
          ReadPacketHeaderFromBuffer(data + pos, ZT_PACKET_HEADER_SIZE, &expected) == 0);
    check(header.field1 == expected.field1 && header.field2 == expected.field2 &&
          header.field3 == expected.field3 && header.field4 == expected.field4 &&
          header.header_bytes == ZT_PACKET_HEADER_SIZE);
    pos += ZT_PACKET_HEADER_SIZE;
    const uint64_t length = header.field4;
    ZTPacketMemory *pm = nullptr;
    const int32_t body_rc = ReadPacketBodyFromSocket(fds[0], &header, &pm, 1);
    const bool body_ok = length <= limit && length <= size - pos;
    check(body_rc == (body_ok ? 0 : -1));
    if (body_rc != 0) {
      check(pm == nullptr);
      break;
    }
    check(pm != nullptr && pm->body_length == length && pm->data[length] == '\0' &&
          (length == 0 || std::memcmp(pm->data, data + pos, length) == 0));
    FreePacketMemory(&pm);
    pos += length;
  }
  close(fds[0]);
}

struct ListFree {
  uint32_t cls;
  ZTListNode *list = nullptr;
  ~ListFree() { ZTPacketFreeList(&list, cls); }
};

inline std::string file_bytes(const std::string &path) {
  std::string out;
  std::FILE *in = std::fopen(path.c_str(), "rb");
  check(in != nullptr);
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, in)) > 0;) out.append(buf, n);
  std::fclose(in);
  return out;
}

// The first byte picks the class and the limit (`default_limit`: always 0,
// the library's own); the rest is the file. The file reader must return the
// file exactly when it is within the limit, the list reader must decode what
// the body decoder decodes from the same bytes, and a decoded list must go
// out through the file writers and come back equal.
inline void run_packet_file(const uint8_t *data, size_t size, const std::string &dir, bool default_limit) {
  if (size < 1) return;
  const uint32_t cls = kPacketClasses[data[0] % 4];
  const uint64_t body = size - 1;
  uint64_t limit = 0;
  if (!default_limit) {
    switch ((data[0] >> 2) % 4) {
      case 0: limit = body; break;
      case 1: limit = body - 1; break;  // refused (0 for an empty file is the default)
      case 2: limit = 64; break;
      default: limit = 1u << 20; break;
    }
  }
  const std::string path = dir + "/body.pkt";
  std::FILE *out = std::fopen(path.c_str(), "wb");
  check(out != nullptr);
  check(body == 0 || std::fwrite(data + 1, 1, body, out) == body);
  check(std::fclose(out) == 0);

  ZTPacketMemory *pm = ReadPacketFromFileSizeLimited(path.c_str(), limit);
  const uint64_t effective = limit == 0 ? ZT_PACKET_DEFAULT_FILE_LIMIT : limit;
  check((pm != nullptr) == (body <= effective));
  if (pm == nullptr) {
    pm = InitAllocPacketMemory(0);
    check(pm != nullptr && AppendPacketMemory(pm, data + 1, body) == 0);
  } else {
    check(pm->body_length == body && pm->data[body] == '\0' &&
          (body == 0 || std::memcmp(pm->data, data + 1, body) == 0));
  }
  ListFree expected{cls, MakeListFromPacket(pm, cls)};
  FreePacketMemory(&pm);
  ListFree read{cls, ReadListFromPacketDataFile(path.c_str(), cls)};
  check((read.list == nullptr) == (expected.list == nullptr));
  if (read.list == nullptr) return;
  check(ComparePacketList(read.list, expected.list, cls) == 1);

  // Doubles pass through "%.14g", so the first copy may round; the second
  // must equal the first, and the first must be kept as the safety copy.
  const std::string copy = dir + "/copy.pkt", safety = copy + "_dss";
  std::remove(copy.c_str());
  check(WritePacketDataFileFromList(copy.c_str(), read.list, cls) == 0);
  const std::string first_text = file_bytes(copy);
  ListFree first{cls, ReadListFromPacketDataFile(copy.c_str(), cls)};
  check(first.list != nullptr && WritePacketDataFileFromList(copy.c_str(), first.list, cls) == 0);
  check(file_bytes(safety) == first_text && file_bytes(copy) == first_text);
  ListFree second{cls, ReadListFromPacketDataFile(copy.c_str(), cls)};
  check(second.list != nullptr && ComparePacketList(first.list, second.list, cls) == 1);
}

}  // namespace zt::fuzz
