// Memory a packetable list takes on its way through an RPC channel, against
// the size of its encoded body. A list of tens of MiB is a real job ticket
// with its pages; several copies of it at once used to take a server to
// nine times the list's size.
//
// Method: the peak resident set (VmHWM) is reset through /proc/self/clear_refs
// before the operation and read after it; the figure is the peak minus the
// resident set at the start. Large blocks are kept on mmap (fixed threshold),
// and freed heap pages are given back before the start, so a block freed
// earlier cannot hide a new one.
#include "packets/packets_fixture.h"

#include <zt/packets.h>
#include <zt/ztrpc.h>

#include <gtest/gtest.h>

#include <malloc.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>

namespace {

using RpcMemory = zt::test::PacketsTest;

long status_kib(const char *field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(in, line))
    if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':') return std::stol(line.substr(n + 1));
  return -1;
}

// Measures the peak memory `work` adds, in bytes; -1 when the counters are
// not available here.
template <typename Work>
long long peak_added(Work &&work) {
  malloc_trim(0);
  {
    std::ofstream reset("/proc/self/clear_refs");
    reset << "5";
    if (!reset.flush()) return -1;
  }
  const long start = status_kib("VmRSS");
  if (start < 0 || status_kib("VmHWM") > start + 256) return -1;
  work();
  return (status_kib("VmHWM") - start) * 1024ll;
}

ZTListNode *make_list(size_t encoded_bytes_wanted) {
  ZTListNode *list = nullptr;
  const std::string label(200, 'j');
  // Each child encodes to about 235 bytes.
  for (size_t i = 0; i < encoded_bytes_wanted / 235; ++i) {
    auto *c = static_cast<ZTTestChild *>(std::calloc(1, sizeof(ZTTestChild)));
    c->id = static_cast<uint32_t>(i);
    c->label = strdup(label.c_str());
    c->value = 0.5 * static_cast<double>(i);
    AddList(&list, &c->node);
  }
  return list;
}

// Reads and drops everything until the peer closes.
void drain(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL, 0) & ~O_NONBLOCK);
  char buf[65536];
  for (;;) {
    const ssize_t r = ::recv(fd, buf, sizeof buf, 0);
    if (r <= 0) return;
  }
}

TEST_F(RpcMemory, ThirtyTwoMiBListStaysUnderThreeTimesItsSize) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers keep freed memory in quarantine";
#endif
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 20);
  ZTListNode *list = make_list(32u << 20);
  zt::test::PacketMemoryPtr encoded(InitAllocPacketMemory(0));
  ASSERT_EQ(MakePacketDataFromList(encoded.get(), list, ZT_CLASS_TEST_CHILD), 0);
  const double size = static_cast<double>(encoded->body_length);
  ASSERT_GT(size, 30.0 * (1 << 20));

  ZTRPC *server = ZTRPC_ServerCreateAt("127.0.0.1", 0, 4, "tcp");
  ASSERT_NE(server, nullptr);

  // Sending: the list is there before; what the write and the flush add.
  {
    ZTRPC *client = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "tcp");
    ZTRPC *conn = ZTRPC_WaitForConnection(server, 5);
    ASSERT_NE(client, nullptr);
    ASSERT_NE(conn, nullptr);
    std::thread reader([&] { drain(conn->socket); });
    int32_t written = -1, flushed = -1;
    const long long peak = peak_added([&] {
      written = ZTRPC_WritePacketable(client, list, ZT_CLASS_TEST_CHILD, 1);
      flushed = ZTRPC_WriteFlush(client);
    });
    ZTRPC_Destroy(client);
    reader.join();
    ZTRPC_Destroy(conn);
    EXPECT_EQ(written, 0);
    EXPECT_EQ(flushed, 0);
    if (peak < 0) GTEST_SKIP() << "no peak resident-set counter here";
    std::printf("sending a %.1f MiB list: peak %.2f x its size\n", size / (1 << 20), peak / size);
    EXPECT_LT(peak / size, 3.0);
  }

  // Receiving: the wire bytes are there before; what reading and decoding
  // add, the decoded list included.
  {
    ZTRPC *client = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "tcp");
    ZTRPC *conn = ZTRPC_WaitForConnection(server, 5);
    ASSERT_NE(client, nullptr);
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(ZTRPC_WritePacketable(client, list, ZT_CLASS_TEST_CHILD, 1), 0);
    void *back = nullptr;
    uint32_t cls = 0, flags = 0;
    int32_t rc = -1;
    const long long peak = peak_added([&] {
      std::thread sender([&] { ZTRPC_WriteFlush(client); });
      rc = ZTRPC_ReadPacketable(conn, &back, &cls, &flags);
      sender.join();
    });
    ASSERT_EQ(rc, 0);
    auto *decoded = static_cast<ZTListNode *>(back);
    EXPECT_EQ(ComparePacketList(list, decoded, ZT_CLASS_TEST_CHILD), 1);
    ZTPacketFreeList(&decoded, ZT_CLASS_TEST_CHILD);
    ZTRPC_Destroy(client);
    ZTRPC_Destroy(conn);
    if (peak >= 0) {
      std::printf("receiving a %.1f MiB list: peak %.2f x its size\n", size / (1 << 20), peak / size);
      EXPECT_LT(peak / size, 3.0);
    }
  }
  ZTRPC_Destroy(server);
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
}

}  // namespace
