#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zt/packets.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "packets/packets_fixture.h"

namespace {

using zt::test::body_of;
using zt::test::PacketMemoryPtr;
using PacketWire = zt::test::PacketsTest;
using Clock = std::chrono::steady_clock;

// A connected pair of loopback TCP sockets.
struct Loopback {
  int client = -1, server = -1;
  Loopback() {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(listener, 1) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
      std::abort();
    client = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) std::abort();
    server = ::accept(listener, nullptr, nullptr);
    ::close(listener);
  }
  ~Loopback() {
    if (client >= 0) ::close(client);
    if (server >= 0) ::close(server);
  }
  void send_text(const std::string &s) const {
    ASSERT_EQ(::send(client, s.data(), s.size(), MSG_NOSIGNAL), static_cast<ssize_t>(s.size()));
  }
  void close_client() {
    ::close(client);
    client = -1;
  }
};

std::string header_text(uint32_t f1, uint32_t f2, uint32_t f3, uint32_t f4) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "ZT5wapa\n%08x\n%08x\n%08x\n%08x\n", f1, f2, f3, f4);
  return buf;
}

TEST_F(PacketWire, HeaderTakesItsArgumentsInTheSystemsOrder) {
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  ASSERT_EQ(AddPacketHeader(pm.get(), 1, 2, 0xfffffffeu), 0);
  // An empty body still gets a header, with length 0.
  EXPECT_EQ(std::string(pm->header, pm->total_length), "ZT5wapa\n00000001\nfffffffe\n00000002\n00000000\n");
  AppendPacketMemory(pm.get(), "hello", 5);
  ASSERT_EQ(AddPacketHeader(pm.get(), 0x80000000u, 3, 8), 0);
  EXPECT_EQ(pm->data - pm->header, 44);
  EXPECT_EQ(pm->total_length, 49u);
  const std::string wire(pm->header, pm->total_length);
  EXPECT_EQ(wire, header_text(0x80000000u, 8, 3, 5) + "hello");
  ZTPacketHeader h{};
  ASSERT_EQ(ReadPacketHeaderFromBuffer(wire.data(), wire.size(), &h), 0);
  EXPECT_EQ(std::vector<uint32_t>({h.field1, h.field2, h.field3, h.field4, h.header_bytes}),
            std::vector<uint32_t>({0x80000000u, 8, 3, 5, 44}));
  expect_no_log();
}

TEST_F(PacketWire, BufferParserSkipsGarbageAndWaitsForMore) {
  const std::string wire = "ZT5wZ" + header_text(1, 2, 3, 4) + "body";
  ZTPacketHeader h{};
  ASSERT_EQ(ReadPacketHeaderFromBuffer(wire.data(), wire.size(), &h), 0);
  EXPECT_EQ(h.header_bytes, 5u + 44u);
  EXPECT_EQ(h.field3, 3u);
  EXPECT_EQ(ReadPacketHeaderFromBuffer(wire.data(), 30, &h), 1);
  ZTPacketMemory *pm = nullptr;
  EXPECT_EQ(ReadPacketBodyFromBuffer(wire.data() + 49, 3, &h, &pm), 1);
  ASSERT_EQ(ReadPacketBodyFromBuffer(wire.data() + 49, 4, &h, &pm), 0);
  EXPECT_EQ(body_of(pm), "body");
  FreePacketMemory(&pm);
  const std::string bad = "ZT5wapa\n0000000g\n";
  EXPECT_EQ(ReadPacketHeaderFromBuffer(bad.data(), bad.size(), &h), -1);
  expect_one_log("Header packet mismatch, dropping packet");
  const std::string long_field = "ZT5wapa\n000000001\n";
  EXPECT_EQ(ReadPacketHeaderFromBuffer(long_field.data(), long_field.size(), &h), -1);
  expect_one_log("Header packet mismatch, dropping packet");
}

// The socket and buffer readers take a header by one rule, the writer's:
// each field exactly eight hex digits and LF. Short fields would make the
// socket reader take body bytes as header.
TEST_F(PacketWire, SocketAndBufferReadersAgreeOnEveryHeader) {
  const std::string body(44, 'b');
  const std::string cases[] = {
      header_text(1, 8, 0xabcdef12u, 4),
      "ZT5wapa\n1\n8\n0\n4\n",
      "ZT5wapa\n0000000A\n00000008\n0000000B\n00000004\n",
      "ZT5wapa\n000000001\n0000008\n00000000\n00000004\n",
      "ZT5wapa\n00000001 00000008\n00000000\n00000004\n",
      "ZT5wapa\n00000001\n00000008\n00000000\n0000004\n\n",
  };
  for (const std::string &header : cases) {
    SCOPED_TRACE(header);
    const std::string wire = header + body;
    ZTPacketHeader from_buffer{}, from_socket{};
    const int buffer_rc = ReadPacketHeaderFromBuffer(wire.data(), wire.size(), &from_buffer);
    Loopback link;
    link.send_text(wire);
    const int socket_rc = ReadPacketHeaderFromSocket(link.server, &from_socket, 2);
    EXPECT_EQ(buffer_rc, socket_rc);
    if (buffer_rc == 0 && socket_rc == 0) {
      EXPECT_EQ(from_buffer.header_bytes, 44u);
      EXPECT_EQ(std::vector<uint32_t>(
                    {from_buffer.field1, from_buffer.field2, from_buffer.field3, from_buffer.field4}),
                std::vector<uint32_t>(
                    {from_socket.field1, from_socket.field2, from_socket.field3, from_socket.field4}));
    }
    auto lines = log_.lines();
    for (const auto &line : lines) EXPECT_EQ(line.message, "Header packet mismatch, dropping packet");
    EXPECT_EQ(lines.size(), (buffer_rc != 0) + (socket_rc != 0));
    log_.clear();
  }
}

TEST_F(PacketWire, HeaderArrivingInPiecesIsAssembled) {
  Loopback link;
  const std::string wire = header_text(7, 2, 9, 0xffffffffu);
  std::thread sender([&] {
    link.send_text(wire.substr(0, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    link.send_text(wire.substr(10));
  });
  ZTPacketHeader h{};
  EXPECT_EQ(ReadPacketHeaderFromSocket(link.server, &h, 5), 0);
  sender.join();
  EXPECT_EQ(h.field1, 7u);
  EXPECT_EQ(h.field4, 0xffffffffu);
  expect_no_log();
}

TEST_F(PacketWire, SocketReadersTimeOutAndRefuseBadPeers) {
  Loopback link;
  ZTPacketHeader h{};
  auto start = Clock::now();
  EXPECT_EQ(ReadPacketHeaderFromSocket(link.server, &h, 1), 1);
  // Generous: a loaded machine may be late, but a reader that ignored its
  // time-out would wait for ever.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(8));
  expect_no_log();

  // The seventh character of the magic differs.
  link.send_text("ZT5wapA\n" + header_text(1, 2, 3, 4).substr(8));
  EXPECT_EQ(ReadPacketHeaderFromSocket(link.server, &h, 5), -1);
  expect_one_log("ReadPacketHeaderFromSocket", "Header packet mismatch, dropping packet");

  // A body that does not arrive in time.
  h = ZTPacketHeader{1, 2, 3, 10, 44};
  link.send_text("12345");
  ZTPacketMemory *pm = nullptr;
  EXPECT_EQ(ReadPacketBodyFromSocket(link.server, &h, &pm, 1), 1);
  EXPECT_EQ(pm, nullptr);
  expect_one_log("Timeout waiting for packet body");

  EXPECT_EQ(ReadPacketBodyFromSocket(link.server, nullptr, &pm, 1), -1);
  expect_one_log("NULL pointer passed");
}

TEST_F(PacketWire, TricklingPeerIsDroppedWithinTheTimeOut) {
  Loopback link;
  std::atomic<bool> stop{false};
  std::thread trickler([&] {
    const std::string wire = header_text(1, 2, 3, 4);
    for (size_t i = 0; i < wire.size() && !stop; ++i) {
      ::send(link.client, wire.data() + i, 1, MSG_NOSIGNAL);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  ZTPacketHeader h{};
  auto start = Clock::now();
  EXPECT_EQ(ReadPacketHeaderFromSocket(link.server, &h, 1), -1);
  // The whole header takes the trickler about 9 s; a time-out per byte would
  // wait that long, one for the whole header ends near 1 s.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(6));
  stop = true;
  trickler.join();
  expect_one_log("Timeout waiting for packet header");
}

TEST_F(PacketWire, PeerClosingMidBodyFailsCleanly) {
  Loopback link;
  link.send_text(header_text(1, 2, 3, 100) + "only part");
  ZTPacketHeader h{};
  ASSERT_EQ(ReadPacketHeaderFromSocket(link.server, &h, 5), 0);
  link.close_client();
  ZTPacketMemory *pm = nullptr;
  EXPECT_EQ(ReadPacketBodyFromSocket(link.server, &h, &pm, 5), -1);
  EXPECT_EQ(pm, nullptr);
  expect_one_log("Socket closed on other end");
  // Writing to the closed peer fails without a SIGPIPE.
  Loopback other;
  ::close(other.server);
  other.server = -1;
  PacketMemoryPtr out(InitAllocPacketMemory(0));
  const std::string block(1 << 20, 'x');
  AppendPacketMemory(out.get(), block.data(), block.size());
  AddPacketHeader(out.get(), 1, 0, 2);
  int rc = 0;
  for (int i = 0; i < 20 && rc == 0; ++i) rc = ZTPacketSendToSocket(other.client, out.get(), 2);
  EXPECT_EQ(rc, -1);
  expect_one_log("while writing to socket");
}

TEST_F(PacketWire, AnnouncedBodyLengthsAreBounded) {
  ZTPacketSetMaxBodyLength(16);
  struct Case {
    uint32_t length;
    int expected;
  } cases[] = {{0, 0}, {16, 0}, {17, -1}, {0xffffffffu, -1}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.length);
    Loopback link;
    link.send_text(std::string(c.length <= 16 ? c.length : 0, 'b'));
    ZTPacketHeader h{1, 2, 3, c.length, 44};
    ZTPacketMemory *pm = nullptr;
    EXPECT_EQ(ReadPacketBodyFromSocket(link.server, &h, &pm, 2), c.expected);
    if (c.expected == 0) {
      ASSERT_NE(pm, nullptr);
      EXPECT_EQ(pm->body_length, c.length);
      EXPECT_EQ(pm->data[c.length], '\0');
      expect_no_log();
    } else {
      EXPECT_EQ(pm, nullptr);
      expect_one_log("is above the limit of 16 bytes");
    }
    FreePacketMemory(&pm);
    ZTPacketMemory *from_buffer = nullptr;
    EXPECT_EQ(ReadPacketBodyFromBuffer("", 0, &h, &from_buffer), c.length == 0     ? 0
                                                                 : c.expected == 0 ? 1
                                                                                   : -1);
    FreePacketMemory(&from_buffer);
    log_.clear();
  }
  ZTPacketSetMaxBodyLength(0);
  EXPECT_EQ(ZTPacketGetMaxBodyLength(), ZT_PACKET_DEFAULT_BODY_LIMIT);
}

// Bytes of this process that are in memory now.
uint64_t resident_bytes() {
  std::FILE *f = std::fopen("/proc/self/statm", "r");
  unsigned long long pages = 0, resident = 0;
  if (f == nullptr) return 0;
  if (std::fscanf(f, "%llu %llu", &pages, &resident) != 2) resident = 0;
  std::fclose(f);
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// A peer that announces a large body and stalls costs what it sent, not what
// it announced; a body that does arrive in full is whole however it grew.
TEST_F(PacketWire, BodyMemoryFollowsTheBytesThatArrive) {
  Loopback stalled;
  const ZTPacketHeader announced{1, 2, 3, 200u << 20, 44};
  stalled.send_text(std::string(1000, 's'));
  const uint64_t before = resident_bytes();
  std::atomic<int> rc{2};
  std::thread reader([&] {
    ZTPacketMemory *pm = nullptr;
    rc = ReadPacketBodyFromSocket(stalled.server, &announced, &pm, 10);
    FreePacketMemory(&pm);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const uint64_t during = resident_bytes();
  stalled.close_client();
  reader.join();
  EXPECT_EQ(rc.load(), -1);
  EXPECT_LT(during, before + (16u << 20));
  expect_one_log("Socket closed on other end");

  Loopback link;
  std::string body(5 * 1048576 + 7, '\0');
  for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i * 7 % 26);
  std::thread sender([&] {
    for (size_t at = 0; at < body.size(); at += 300000)
      ::send(link.client, body.data() + at, std::min<size_t>(300000, body.size() - at), MSG_NOSIGNAL);
  });
  const ZTPacketHeader whole{1, 2, 3, static_cast<uint32_t>(body.size()), 44};
  ZTPacketMemory *pm = nullptr;
  EXPECT_EQ(ReadPacketBodyFromSocket(link.server, &whole, &pm, 10), 0);
  sender.join();
  ASSERT_NE(pm, nullptr);
  EXPECT_TRUE(body_of(pm) == body);
  EXPECT_EQ(pm->data[pm->body_length], '\0');
  FreePacketMemory(&pm);
  expect_no_log();
}

TEST_F(PacketWire, RequestPacketTravelsOnAHighNumberedSocket) {
  Loopback link;
  // Descriptors above 1,024 must work: poll has no FD_SETSIZE.
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  int server = link.server;
  if (lim.rlim_cur > 1500) {
    server = ::dup2(link.server, 1500);
    ASSERT_EQ(server, 1500);
  }
  ZTListNode *records = nullptr;
  for (uint32_t i = 0; i < 50; ++i) {
    auto *r = static_cast<ZTTestRecord *>(std::calloc(1, sizeof(ZTTestRecord)));
    r->job_number = i;
    r->name = strdup(("job " + std::to_string(i)).c_str());
    r->width_mm = 210.5;
    AddList(&records, &r->node);
  }
  ZTRequestItem request{};
  request.command = 0x42;
  request.flags = 1;
  request.data_class = ZT_CLASS_TEST_RECORD;
  request.user = strdup("operator");
  PacketMemoryPtr out(CreateRequestPacket(&request, records, 0x99));
  ASSERT_TRUE(out);
  ASSERT_EQ(ZTPacketSendToSocket(link.client, out.get(), 5), 0);

  ZTPacketHeader h{};
  ASSERT_EQ(ReadPacketHeaderFromSocket(server, &h, 5), 0);
  EXPECT_EQ(h.field1, 0x42u);
  EXPECT_EQ(h.field2, ZT_REQUEST_PACKET_KIND);
  EXPECT_EQ(h.field3, 0x99u);
  ZTPacketMemory *in = nullptr;
  ASSERT_EQ(ReadPacketBodyFromSocket(server, &h, &in, 5), 0);
  PacketMemoryPtr body(in);
  auto *req = static_cast<ZTRequestItem *>(MakeItemFromPacket(body.get(), ZT_CLASS_REQUEST));
  ASSERT_NE(req, nullptr);
  EXPECT_STREQ(req->user, "operator");
  ZTListNode *back = MakeListFromPacket(body.get(), req->data_class);
  EXPECT_EQ(ComparePacketList(records, back, ZT_CLASS_TEST_RECORD), 1);
  if (server != link.server) ::close(server);

  // The same request as files: with and without the header.
  ASSERT_EQ(WriteRequestPacketToFile("req.pkt", &request, records, 0x99), 0);
  EXPECT_EQ(zt::test::read_file("req.pkt"), std::string(out->header, out->total_length));
  ASSERT_EQ(WriteRequestDataToFile("req.dat", &request, records), 0);
  EXPECT_EQ(zt::test::read_file("req.dat"), body_of(out.get()));

  ZTPacketFreeList(&back, ZT_CLASS_TEST_RECORD);
  ZTPacketFreeItem(req, ZT_CLASS_REQUEST);
  ZTPacketFreeList(&records, ZT_CLASS_TEST_RECORD);
  ZTPacketFreeItemFields(&request, ZT_CLASS_REQUEST);
  expect_no_log();
}

}  // namespace
