#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/membuf.h>
#include <zt/packets.h>
#include <zt/threadpool.h>
#include <zt/ztrpc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "packets/packets_fixture.h"

namespace {

using Rpc = zt::test::PacketsTest;
using Clock = std::chrono::steady_clock;

// A loopback server, a client and the server's side of the connection.
struct RpcPair {
  ZTRPC *server = nullptr, *client = nullptr, *conn = nullptr;
  RpcPair() {
    server = ZTRPC_ServerCreateAt("127.0.0.1", 0, 4, "tcp");
    if (server == nullptr) return;
    client = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "tcp");
    conn = ZTRPC_WaitForConnection(server, 5);
  }
  ~RpcPair() {
    ZTRPC_Destroy(conn);
    ZTRPC_Destroy(client);
    ZTRPC_Destroy(server);
  }
  bool ok() const { return server && client && conn; }
};

// Reads until the connection's input holds `n` bytes.
std::string raw_input(ZTRPC *ch, size_t n) {
  while (ZT_MemBufSize(ch->input) < n)
    if (ZTRPC_read(ch) < 0) break;
  return std::string(static_cast<const char *>(ZT_MemBufPointer(ch->input)), ZT_MemBufSize(ch->input));
}

std::string item_bytes(uint32_t type, uint64_t length, const std::string &data) {
  std::string s(12, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(type >> (24 - 8 * i));
  for (int i = 0; i < 8; ++i) s[4 + i] = static_cast<char>(length >> (56 - 8 * i));
  return s + data;
}

TEST_F(Rpc, ItemsAreWrittenByteExactAndReadBack) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  EXPECT_EQ(p.conn->timeout, 60);
  ZTKEY key{1, 2};
  ASSERT_EQ(ZTRPC_WriteULong(p.client, 1), 0);
  ASSERT_EQ(ZTRPC_WriteString(p.client, nullptr), 0);
  ASSERT_EQ(ZTRPC_WriteZTKEY(p.client, &key), 0);
  ASSERT_EQ(ZTRPC_WriteLong(p.client, -2), 0);
  ASSERT_EQ(ZTRPC_Write_ZT_off_t(p.client, 0x0102030405060708ull), 0);
  ASSERT_EQ(ZTRPC_WriteRPC(p.client, 0xabcd), 0);
  ASSERT_EQ(ZTRPC_WriteString(p.client, "name with blanks"), 0);
  ASSERT_EQ(ZTRPC_WriteFlush(p.client), 0);
  EXPECT_EQ(ZT_MemBufSize(p.client->output), 0u);
  const std::string expected =
      item_bytes(2, 4, std::string("\0\0\0\1", 4)) + item_bytes(5, 0, "") +
      item_bytes(10, 8, std::string("\0\0\0\2\0\0\0\1", 8)) + item_bytes(1, 4, "\xff\xff\xff\xfe") +
      item_bytes(11, 8, "\1\2\3\4\5\6\7\x08") + item_bytes(7, 4, std::string("\0\0\xab\xcd", 4)) +
      item_bytes(5, 16, "name with blanks");
  EXPECT_EQ(raw_input(p.conn, expected.size()), expected);

  uint32_t u = 0, code = 0;
  int32_t l = 0;
  uint64_t off = 0;
  char buf[32] = "x";
  ZTKEY back{};
  EXPECT_EQ(ZTRPC_ReadULong(p.conn, &u), 0);
  EXPECT_EQ(u, 1u);
  EXPECT_EQ(ZTRPC_ReadString(p.conn, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(ZTRPC_ReadZTKEY(p.conn, &back), 0);
  EXPECT_EQ(back.word1, 1u);
  EXPECT_EQ(back.word2, 2u);
  EXPECT_EQ(ZTRPC_ReadLong(p.conn, &l), 0);
  EXPECT_EQ(l, -2);
  EXPECT_EQ(ZTRPC_Read_ZT_off_t(p.conn, &off), 0);
  EXPECT_EQ(off, 0x0102030405060708ull);
  EXPECT_EQ(ZTRPC_ReadRPC(p.conn, &code), 0);
  EXPECT_EQ(code, 0xabcdu);
  char small[8];
  EXPECT_EQ(ZTRPC_ReadString(p.conn, small, sizeof small), -1);
  expect_one_log("Buffer overflow");
  EXPECT_EQ(p.conn->input_offset, 0u);
}

TEST_F(Rpc, ReadersCheckTypeAndStayInStep) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  ZTRPC_WriteULong(p.client, 5);
  ZTRPC_WriteLong(p.client, 6);
  ZTRPC_WriteFlush(p.client);
  int32_t l = 0;
  EXPECT_EQ(ZTRPC_ReadLong(p.conn, &l), -1);
  expect_one_log("Expected item type 1, got type 2 with 4 bytes");
  EXPECT_EQ(ZTRPC_ReadLong(p.conn, &l), 0);
  EXPECT_EQ(l, 6);
  ZTRPC_SetTimeout(p.conn, 0);  // no time-out means the default, not waiting for ever
  EXPECT_EQ(p.conn->timeout, 60);
}

TEST_F(Rpc, PacketablesCarryItemsAndLists) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  ZTListNode *list = nullptr;
  for (uint32_t i = 0; i < 20; ++i) {
    auto *c = static_cast<ZTTestChild *>(std::calloc(1, sizeof(ZTTestChild)));
    c->id = i;
    c->label = strdup("child");
    AddList(&list, &c->node);
  }
  ASSERT_EQ(ZTRPC_WritePacketable(p.client, list, ZT_CLASS_TEST_CHILD, 1), 0);
  ASSERT_EQ(ZTRPC_WritePacketable(p.client, list, ZT_CLASS_TEST_CHILD, 0), 0);
  ASSERT_EQ(ZTRPC_WritePacketable(p.client, nullptr, ZT_CLASS_TEST_CHILD, 1), 0);
  EXPECT_EQ(ZTRPC_WritePacketable(p.client, nullptr, ZT_CLASS_TEST_CHILD, 0), -1);
  expect_one_log("error; empty packet type 100, flags = 0");
  ASSERT_EQ(ZTRPC_WriteFlush(p.client), 0);
  void *rec = nullptr;
  uint32_t cls = 0, flags = 0;
  ASSERT_EQ(ZTRPC_ReadPacketable(p.conn, &rec, &cls, &flags), 0);
  EXPECT_EQ(cls, ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(flags, 1u);
  auto *back = static_cast<ZTListNode *>(rec);
  EXPECT_EQ(ComparePacketList(list, back, ZT_CLASS_TEST_CHILD), 1);
  ZTPacketFreeList(&back, ZT_CLASS_TEST_CHILD);
  ASSERT_EQ(ZTRPC_ReadPacketable(p.conn, &rec, &cls, &flags), 0);
  EXPECT_EQ(ComparePacketItem(list, rec, ZT_CLASS_TEST_CHILD), 1);
  ZTPacketFreeItem(rec, ZT_CLASS_TEST_CHILD);
  ASSERT_EQ(ZTRPC_ReadPacketable(p.conn, &rec, &cls, &flags), 0);
  EXPECT_EQ(rec, nullptr);
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
  expect_no_log();
}

TEST_F(Rpc, AnnouncedLengthsAreCheckedBeforeAllocation) {
  ZTRPC_SetLimits(1024, 1024);
  struct Case {
    uint64_t length;
    bool accepted;
  } cases[] = {{0, true}, {1024, true}, {1025, false}, {0xffffffffull, false}, {~0ull, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.length);
    RpcPair p;
    ASSERT_TRUE(p.ok());
    const std::string wire = item_bytes(5, c.length, c.accepted ? std::string(c.length, 's') : "");
    ASSERT_EQ(::send(p.client->socket, wire.data(), wire.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(wire.size()));
    EXPECT_EQ(ZTRPC_ReadSkipItem(p.conn), c.accepted ? 5 : -1);
    if (c.accepted)
      expect_no_log();
    else
      expect_one_log("is above the limit of 1024 bytes");

    // A packetable: exactly the limit decodes, every other length is refused
    // with one message (0 as too short for its three values).
    RpcPair q;
    ASSERT_TRUE(q.ok());
    std::string packet;
    if (c.length == 1024) {
      const std::string body = "SI 64\n2 " + std::string(962, 'L') + "\nTI 0\n";
      packet =
          item_bytes(6, 1024,
                     item_bytes(2, 4, std::string("\0\0\0\x64", 4)) + item_bytes(2, 4, std::string(4, '\0')) +
                         item_bytes(2, 4, std::string("\0\0\3\xd0", 4)) + body);
    } else {
      packet = item_bytes(6, c.length, "");
    }
    ASSERT_EQ(::send(q.client->socket, packet.data(), packet.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(packet.size()));
    void *rec = nullptr;
    uint32_t cls = 0, flags = 0;
    EXPECT_EQ(ZTRPC_ReadPacketable(q.conn, &rec, &cls, &flags), c.length == 1024 ? 0 : -1);
    if (c.length == 1024) {
      ASSERT_NE(rec, nullptr);
      EXPECT_EQ(std::strlen(static_cast<ZTTestChild *>(rec)->label), 962u);
      ZTPacketFreeItem(rec, ZT_CLASS_TEST_CHILD);
      expect_no_log();
    } else {
      EXPECT_EQ(rec, nullptr);
      expect_one_log("Expected item type 6, got type");
    }
  }
  ZTRPC_SetLimits(0, 0);
}

TEST_F(Rpc, FilesArriveWholeAndOnlyInsideTheDirectory) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  const std::string src = dir_.file("source.bin");
  {
    std::ofstream out(src, std::ios::binary);
    std::mt19937 rng(7);
    std::vector<uint32_t> block(1 << 18);
    for (int i = 0; i < 100; ++i) {  // 100 MiB
      for (auto &v : block) v = rng();
      out.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(block.size() * 4));
    }
  }
  ASSERT_EQ(mkdir(dir_.file("in").c_str(), 0700), 0);
  int32_t sent = -2;
  std::thread sender([&] { sent = ZTRPC_WriteFile(p.client, src.c_str()); });
  char name[64] = "";
  EXPECT_EQ(ZTRPC_GetFile(p.conn, dir_.file("in").c_str(), name, sizeof name), 0);
  sender.join();
  EXPECT_EQ(sent, 0);
  EXPECT_STREQ(name, "source.bin");
  EXPECT_TRUE(zt::test::read_file(src) == zt::test::read_file(dir_.file("in/source.bin")));
  expect_no_log();

  // A name that climbs out is cut to its last component; "..", and a
  // symbolic link planted in the directory, are refused.
  auto send_named = [&](const std::string &path, const std::string &data) {
    std::string wire =
        item_bytes(8, 0, "") + item_bytes(5, path.size(), path) + item_bytes(9, data.size(), data);
    ::send(p.client->socket, wire.data(), wire.size(), MSG_NOSIGNAL);
  };
  send_named("../../escape.txt", "abc");
  EXPECT_EQ(ZTRPC_GetFile(p.conn, dir_.file("in").c_str(), name, sizeof name), 0);
  EXPECT_EQ(zt::test::read_file(dir_.file("in/escape.txt")), "abc");
  send_named("..", "abc");
  EXPECT_EQ(ZTRPC_GetFile(p.conn, dir_.file("in").c_str(), name, sizeof name), -1);
  expect_one_log("Cannot create file .. in");
  ASSERT_EQ(symlink(dir_.file("target").c_str(), dir_.file("in/link").c_str()), 0);
  send_named("link", "abc");
  EXPECT_EQ(ZTRPC_GetFile(p.conn, dir_.file("in").c_str(), name, sizeof name), -1);
  expect_one_log("Cannot create file link in");
  EXPECT_NE(access(dir_.file("target").c_str(), F_OK), 0);
  // The refused items were skipped, so the stream is still in step.
  ZTRPC_WriteULong(p.client, 9);
  ZTRPC_WriteFlush(p.client);
  uint32_t v = 0;
  EXPECT_EQ(ZTRPC_ReadULong(p.conn, &v), 0);
  EXPECT_EQ(v, 9u);

  EXPECT_EQ(ZTRPC_WriteFile(p.client, dir_.file("missing").c_str()), -1);
  expect_one_log("does not exist");
}

// A sender that names an existing file, announces 1,000 bytes, sends 3 and
// goes away used to leave that file truncated and then unlinked. It stays as
// it was, and no temporary file is left beside it.
TEST_F(Rpc, AnIncompleteTransferLeavesTheExistingFileAlone) {
  ASSERT_EQ(mkdir(dir_.file("in").c_str(), 0700), 0);
  zt::test::write_file(dir_.file("in/keep.txt"), "precious");
  {
    RpcPair p;
    ASSERT_TRUE(p.ok());
    const std::string wire = item_bytes(8, 0, "") + item_bytes(5, 8, "keep.txt") + item_bytes(9, 1000, "abc");
    ::send(p.client->socket, wire.data(), wire.size(), MSG_NOSIGNAL);
    ZTRPC_Destroy(p.client);
    p.client = nullptr;
    char name[64] = "";
    EXPECT_EQ(ZTRPC_GetFile(p.conn, dir_.file("in").c_str(), name, sizeof name), -1);
    EXPECT_TRUE(log_.contains("socket closed on other end"));
    log_.clear();
  }
  EXPECT_EQ(zt::test::read_file(dir_.file("in/keep.txt")), "precious");
  size_t entries = 0;
  for (const auto &e : std::filesystem::directory_iterator(dir_.file("in"))) {
    EXPECT_EQ(e.path().filename(), "keep.txt");
    ++entries;
  }
  EXPECT_EQ(entries, 1u);
}

TEST_F(Rpc, PortsOutsideSixteenBitsAreRefused) {
  EXPECT_EQ(ZTRPC_ServerCreateAt("127.0.0.1", 70000, 4, "tcp"), nullptr);
  expect_one_log("Port 70000 is outside 1 to 65535");
  EXPECT_EQ(ZTRPC_ServerCreate(-1, 4, "udp"), nullptr);
  expect_one_log("Port -1 is outside 1 to 65535");
  EXPECT_EQ(ZTRPC_ClientCreate("127.0.0.1", 65536, "tcp"), nullptr);
  expect_one_log("Port 65536 is outside 1 to 65535");
}

TEST_F(Rpc, ClosedPeerAndBadArgumentsFailQuietly) {
  EXPECT_EQ(ZTRPC_ClientCreate("127.0.0.1", 1, "sctp"), nullptr);
  expect_one_log("unsupported protocol sctp");
  EXPECT_EQ(ZTRPC_ClientCreate(nullptr, 1, "tcp"), nullptr);
  EXPECT_EQ(ZTRPC_ClientCreate("127.0.0.1", 1, nullptr), nullptr);
  expect_no_log();
  EXPECT_EQ(ZTRPC_WriteFlush(nullptr), -1);
  expect_one_log("NULL rpc handle or socket is not connected");
  ZTRPC_Destroy(nullptr);

  RpcPair p;
  ASSERT_TRUE(p.ok());
  ZTRPC_Destroy(p.conn);
  p.conn = nullptr;
  const std::string big(1 << 20, 'z');
  int rc = 0;
  for (int i = 0; i < 20 && rc == 0; ++i) {
    ZTRPC_WriteString(p.client, big.c_str());
    rc = ZTRPC_WriteFlush(p.client);
  }
  EXPECT_EQ(rc, -1);
  expect_one_log("while writing to socket");
  uint32_t v = 0;
  EXPECT_EQ(ZTRPC_ReadULong(p.client, &v), -1);
  expect_one_log("socket closed on other end");
}

// One byte a second used to keep a channel forever, since every wait got the
// time-out afresh. The whole item now has one deadline: a trickling peer is
// dropped after about the time-out, however slowly its bytes come.
TEST_F(Rpc, TricklingPeerMTIsDroppedWithinOneItemTimeout) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  ZTRPC_SetTimeout(p.conn, 2);
  const std::string wire = item_bytes(2, 4, std::string("\0\0\0\7", 4));
  std::atomic<bool> done{false};
  std::thread trickler([&] {
    for (size_t i = 0; i < wire.size() && !done.load(); ++i) {
      ::send(p.client->socket, wire.data() + i, 1, MSG_NOSIGNAL);
      for (int t = 0; t < 10 && !done.load(); ++t)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  uint32_t v = 0;
  const auto start = Clock::now();
  EXPECT_EQ(ZTRPC_ReadULong(p.conn, &v), -1);
  const auto took = Clock::now() - start;
  done = true;
  trickler.join();
  EXPECT_GE(took, std::chrono::milliseconds(1900));
  EXPECT_LT(took, std::chrono::milliseconds(3500));
  expect_one_log("Timeout after 2 seconds reading from socket");

  // A packetable's header, three values and body are one item too.
  RpcPair q;
  ASSERT_TRUE(q.ok());
  ZTRPC_SetTimeout(q.conn, 2);
  const std::string body = "SI 64\n2 " + std::string(40, 'L') + "\nTI 0\n";
  const std::string packet =
      item_bytes(6, 48 + body.size(),
                 item_bytes(2, 4, std::string("\0\0\0\x64", 4)) + item_bytes(2, 4, std::string(4, '\0')) +
                     item_bytes(2, 4, std::string(4, '\0')) + body);
  done = false;
  std::thread slow_sender([&] {
    // Every piece comes well inside the time-out; together they take longer.
    for (size_t i = 0; i < packet.size() && !done.load(); i += 16) {
      ::send(q.client->socket, packet.data() + i, std::min<size_t>(16, packet.size() - i), MSG_NOSIGNAL);
      for (int t = 0; t < 7 && !done.load(); ++t) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  void *rec = nullptr;
  uint32_t cls = 0, flags = 0;
  const auto start2 = Clock::now();
  EXPECT_EQ(ZTRPC_ReadPacketable(q.conn, &rec, &cls, &flags), -1);
  const auto took2 = Clock::now() - start2;
  done = true;
  slow_sender.join();
  EXPECT_EQ(rec, nullptr);
  EXPECT_LT(took2, std::chrono::milliseconds(3500));
  expect_one_log("Timeout after 2 seconds reading from socket");
}

// A server that hands every connection to a pool thread: peers that connect
// and say nothing hold their threads until the time-out, so the pool's cap is
// what bounds the threads, and a connection over it is refused, not served.
namespace server {
struct Conn {
  ZTRPC *channel;
  std::atomic<int> *finished;
};
void serve(void *argument, uint32_t *) {
  auto *conn = static_cast<Conn *>(argument);
  uint32_t code = 0;
  if (ZTRPC_ReadRPC(conn->channel, &code) == 0) {
    ZTRPC_WriteULong(conn->channel, code + 1);
    ZTRPC_WriteFlush(conn->channel);
  }
  ZTRPC_Destroy(conn->channel);
  conn->finished->fetch_add(1);
  delete conn;
}
size_t task_count() {
  size_t n = 0;
  for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}
}  // namespace server

TEST_F(Rpc, StalledPeersMTOverThePoolCapGetNoMoreThreads) {
  constexpr uint32_t kCap = 4;
  constexpr int kExtra = 6;
  ZT_ThreadPool *pool = threadpoolCreate(0, 0);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(threadpoolSetMaxNumThreads(pool, kCap), 0);
  ZTRPC *listener = ZTRPC_ServerCreateAt("127.0.0.1", 0, 64, "tcp");
  ASSERT_NE(listener, nullptr);
  const size_t tasks_before = server::task_count();
  std::atomic<int> finished{0};
  int refused = 0;
  std::vector<ZTRPC *> stalled;
  for (uint32_t i = 0; i < kCap + kExtra; ++i) {
    stalled.push_back(ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(listener), "tcp"));
    ASSERT_NE(stalled.back(), nullptr);
    ZTRPC *ch = ZTRPC_WaitForConnection(listener, 5);
    ASSERT_NE(ch, nullptr);
    ZTRPC_SetTimeout(ch, 3);
    auto *conn = new server::Conn{ch, &finished};
    if (threadpoolExecute(pool, server::serve, conn) != 0) {
      ++refused;
      ZTRPC_Destroy(ch);
      delete conn;
    }
  }
  EXPECT_EQ(refused, kExtra);
  EXPECT_LE(threadpoolBusyCount(pool) + threadpoolIdleCount(pool), kCap);
  EXPECT_LE(server::task_count(), tasks_before + kCap);
  EXPECT_EQ(log_.lines().size(), static_cast<size_t>(kExtra));
  for (const auto &line : log_.lines()) EXPECT_EQ(line.message, "Thread pool is at its limit of 4 threads");
  log_.clear();

  // Once the stalled ones have timed out, the pool serves again.
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (finished.load() < static_cast<int>(kCap) && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(finished.load(), static_cast<int>(kCap));
  for (const auto &line : log_.lines())
    EXPECT_EQ(line.message, "Timeout after 3 seconds reading from socket");
  log_.clear();
  ZTRPC *good = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(listener), "tcp");
  ASSERT_NE(good, nullptr);
  ZTRPC *ch = ZTRPC_WaitForConnection(listener, 5);
  ASSERT_NE(ch, nullptr);
  ASSERT_EQ(threadpoolExecute(pool, server::serve, new server::Conn{ch, &finished}), 0);
  ZTRPC_WriteRPC(good, 41);
  ASSERT_EQ(ZTRPC_WriteFlush(good), 0);
  uint32_t answer = 0;
  EXPECT_EQ(ZTRPC_ReadULong(good, &answer), 0);
  EXPECT_EQ(answer, 42u);
  ZTRPC_Destroy(good);
  for (ZTRPC *c : stalled) ZTRPC_Destroy(c);
  threadpoolDestroy(pool);
  ZTRPC_Destroy(listener);
  // Peers closed before the server read anything may have been logged.
  for (const auto &line : log_.lines()) EXPECT_EQ(line.message, "socket closed on other end ?");
  log_.clear();
}

// A datagram server hears every peer; its answer goes to the one it heard
// last. It used to fix itself on the first peer and drop everyone else.
// (Datagrams carry a whole flush: a value and a string each way.)
TEST_F(Rpc, DatagramServerServesEveryPeer) {
  ZTRPC *server = ZTRPC_ServerCreateAt("127.0.0.1", 0, 0, "udp");
  ASSERT_NE(server, nullptr);
  ZTRPC_SetTimeout(server, 2);
  ZTRPC *a = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "udp");
  ZTRPC *b = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "udp");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ZTRPC_SetTimeout(a, 2);
  ZTRPC_SetTimeout(b, 2);
  uint32_t v = 0;
  for (int round = 0; round < 2; ++round) {
    for (ZTRPC *peer : {a, b}) {
      const uint32_t sent = peer == a ? 10u + round : 20u + round;
      char text[16];
      ZTRPC_WriteULong(peer, sent);
      ZTRPC_WriteString(peer, "ping");
      ASSERT_EQ(ZTRPC_WriteFlush(peer), 0);
      ASSERT_EQ(ZTRPC_ReadULong(server, &v), 0);
      EXPECT_EQ(v, sent);
      ASSERT_EQ(ZTRPC_ReadString(server, text, sizeof text), 0);
      EXPECT_STREQ(text, "ping");
      ZTRPC_WriteULong(server, sent * 2);
      ZTRPC_WriteString(server, "pong");
      ASSERT_EQ(ZTRPC_WriteFlush(server), 0);
      ASSERT_EQ(ZTRPC_ReadULong(peer, &v), 0);
      EXPECT_EQ(v, sent * 2);
      ASSERT_EQ(ZTRPC_ReadString(peer, text, sizeof text), 0);
      EXPECT_STREQ(text, "pong");
    }
  }
  ZTRPC_Destroy(a);
  ZTRPC_Destroy(b);
  ZTRPC_Destroy(server);
}

TEST_F(Rpc, AbortFromAnotherThreadMTUnblocksReaders) {
  RpcPair p;
  ASSERT_TRUE(p.ok());
  ZTRPC_SetTimeout(p.conn, 30);
  std::thread aborter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ZTRPC_Abort(p.conn);
  });
  uint32_t v = 0;
  auto start = Clock::now();
  EXPECT_EQ(ZTRPC_ReadULong(p.conn, &v), -1);
  aborter.join();
  // Against the 30 s time-out: only the abort can have ended the read.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
  EXPECT_EQ(p.conn->abort_flag, -1);
  // The abort shuts the socket down under the reader; when the reader sees the
  // shutdown before the flag, it reports a closed peer. Either way it ends.
  for (const auto &line : log_.lines()) EXPECT_EQ(line.message, "socket closed on other end ?");
  log_.clear();
  // A server waiting for a connection is released the same way; a wait of 0
  // seconds means 120, so it is still waiting when the abort comes.
  std::thread server_aborter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ZTRPC_Abort(p.server);
  });
  start = Clock::now();
  EXPECT_EQ(ZTRPC_WaitForConnection(p.server, 0), nullptr);
  server_aborter.join();
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1400));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
  expect_one_log("accepting connection");
}

}  // namespace
