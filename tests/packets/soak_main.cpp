// Soak: a packet server and an RPC server, each built the way a program of
// the system builds one (accept, hand the connection to a pool thread, read
// with a time-out, answer), under 200 concurrent clients on loopback: a
// quarter send random bytes, a quarter announce the largest lengths and
// stall, a quarter trickle a byte a second, a quarter make good requests.
//
// It runs twice: once as it comes, once with 1,100 descriptors opened first
// so that every socket is numbered above 1,024. It passes when at least 99 %
// of good requests are answered within the time-out, the peak resident set
// stays under 256 MiB, descriptors and threads are back to their start
// afterwards, and the destination folder holds only untouched files and
// whole files as good senders sent them.
//
// ZT_SOAK_SECONDS (default 60) is the time under load over both runs.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zt/init.h>
#include <zt/log.h>
#include <zt/packets.h>
#include <zt/threadpool.h>
#include <zt/ztrpc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/packet_test_classes.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int32_t kTimeout = 5;         // seconds, servers and good clients alike
constexpr int kClientsPerServer = 100;  // a quarter of each kind
constexpr uint32_t kAskPacketable = 1;  // RPC request codes of this server
constexpr uint32_t kSendFile = 2;
constexpr int kKeptFiles = 8;  // files the stalling senders name

size_t count_entries(const char *dir) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec))
    ++n;
  return n;
}
size_t open_descriptors() { return count_entries("/proc/self/fd"); }
size_t live_threads() { return count_entries("/proc/self/task"); }

long status_kib(const char *field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(in, line))
    if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':')
      return std::stol(line.substr(n + 1));
  return -1;
}

struct LogTally {
  std::mutex mutex;
  std::map<std::string, uint64_t> by_message;
  static void on_message(void *self, const char *, const char *, const char *message, int64_t, uint32_t) {
    auto *t = static_cast<LogTally *>(self);
    // Numbers vary from record to record; the words say what happened.
    std::string key;
    for (const char *p = message != nullptr ? message : ""; *p; ++p) {
      const bool digit = *p >= '0' && *p <= '9';
      if (!digit)
        key += *p;
      else if (key.empty() || key.back() != '#')
        key += '#';
    }
    std::lock_guard<std::mutex> lock(t->mutex);
    ++t->by_message[key];
  }
};

struct Server;

struct Connection {
  Server *server;
  ZTRPC *channel;
};

struct Server {
  bool rpc = false;
  std::string destination;
  ZTRPC *listener = nullptr;
  ZT_ThreadPool *pool = nullptr;
  std::thread acceptor;
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> refused{0};
  std::atomic<uint64_t> waited{0};  // accepts put off while every thread was busy
  std::atomic<uint32_t> serving{0};
  std::atomic<uint32_t> peak_serving{0};
  std::atomic<int> lowest_socket{1 << 30};
};

// Moves `extreme` to `value` when `value` lies beyond it in the order `beyond`.
template <typename T, typename Beyond = std::greater<T>>
void stretch(std::atomic<T> &extreme, T value, Beyond beyond = {}) {
  T seen = extreme.load();
  while (beyond(value, seen) && !extreme.compare_exchange_weak(seen, value)) {
  }
}
void note_socket(std::atomic<int> &lowest, int fd) { stretch(lowest, fd, std::less<int>()); }

// One packet request: a child item; the answer carries it back with field 1
// one higher.
void serve_packet(Connection *c) {
  const int fd = c->channel->socket;
  ZTPacketHeader header{};
  if (ReadPacketHeaderFromSocket(fd, &header, kTimeout) != 0) return;
  ZTPacketMemory *body = nullptr;
  if (ReadPacketBodyFromSocket(fd, &header, &body, kTimeout) != 0) return;
  void *item = MakeItemFromPacket(body, ZT_CLASS_TEST_CHILD);
  FreePacketMemory(&body);
  if (item == nullptr) return;
  ZTPacketMemory *answer = InitAllocPacketMemory(0);
  if (answer != nullptr && MakePacketDataFromItem(answer, item, ZT_CLASS_TEST_CHILD) == 0 &&
      AddPacketHeader(answer, header.field1 + 1, header.field3, header.field2) == 0)
    ZTPacketSendToSocket(fd, answer, kTimeout);
  FreePacketMemory(&answer);
  ZTPacketFreeItem(item, ZT_CLASS_TEST_CHILD);
}

// An RPC request: a packetable, answered with itself, or a file, answered
// with 0 once it is in place.
void serve_rpc(Connection *c) {
  ZTRPC *ch = c->channel;
  uint32_t code = 0;
  if (ZTRPC_ReadRPC(ch, &code) != 0) return;
  if (code == kAskPacketable) {
    void *record = nullptr;
    uint32_t cls = 0, flags = 0;
    if (ZTRPC_ReadPacketable(ch, &record, &cls, &flags) != 0) return;
    if (cls == ZT_CLASS_TEST_CHILD && ZTRPC_WritePacketable(ch, record, cls, flags) == 0)
      ZTRPC_WriteFlush(ch);
    if (flags & 1u) {
      auto *list = static_cast<ZTListNode *>(record);
      ZTPacketFreeList(&list, cls);
    } else if (record != nullptr) {
      ZTPacketFreeItem(record, cls);
    }
  } else if (code == kSendFile) {
    char name[256];
    const int32_t rc = ZTRPC_GetFile(ch, c->server->destination.c_str(), name, sizeof name);
    ZTRPC_WriteLong(ch, rc);
    ZTRPC_WriteFlush(ch);
  }
}

void serve(void *argument, uint32_t *) {
  auto *c = static_cast<Connection *>(argument);
  Server *s = c->server;
  stretch(s->peak_serving, s->serving.fetch_add(1) + 1);
  s->rpc ? serve_rpc(c) : serve_packet(c);
  ZTRPC_Destroy(c->channel);
  delete c;
  s->serving.fetch_sub(1);
}

// While every thread the pool may have is busy, connections wait in the
// listen queue rather than being taken and refused: a peer held up by
// stalling ones is served late, not turned away. One that still finds the
// pool full is refused (and logged by the pool).
void accept_loop(Server *s) {
  while (!s->stop.load()) {
    bool waited = false;
    while (!s->stop.load() && threadpoolBusyCount(s->pool) >= ZT_THREADPOOL_DEFAULT_MAX_THREADS) {
      waited = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (waited) ++s->waited;
    ZTRPC *ch = ZTRPC_WaitForConnection(s->listener, 1);
    if (ch == nullptr) continue;
    note_socket(s->lowest_socket, ch->socket);
    ZTRPC_SetTimeout(ch, kTimeout);
    auto *c = new Connection{s, ch};
    if (threadpoolExecute(s->pool, serve, c) != 0) {
      ++s->refused;
      ZTRPC_Destroy(ch);
      delete c;
    }
  }
}

bool start_server(Server &s, bool rpc, const std::string &destination) {
  s.rpc = rpc;
  s.destination = destination;
  s.listener = ZTRPC_ServerCreateAt("127.0.0.1", 0, 256, "tcp");
  s.pool = threadpoolCreate(0, 0);
  if (s.listener == nullptr || s.pool == nullptr) return false;
  s.acceptor = std::thread(accept_loop, &s);
  return true;
}

void stop_server(Server &s) {
  s.stop = true;
  if (s.acceptor.joinable()) s.acceptor.join();
  threadpoolDestroy(s.pool);
  ZTRPC_Destroy(s.listener);
  s.pool = nullptr;
  s.listener = nullptr;
}

struct Load {
  int port_packet = 0;
  int port_rpc = 0;
  std::string destination;
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> good_sent{0};
  std::atomic<uint64_t> good_served{0};
  std::atomic<int64_t> slowest_ms{0};
  std::atomic<int> lowest_socket{1 << 30};
  std::mutex files_mutex;
  // Every content each good sender sent in full, by file name: a transfer
  // whose answer came too late may still have landed.
  std::map<std::string, std::set<size_t>> complete;
};

// A plain blocking socket to the port whose waits come back every 200 ms, so
// a client notices the end of the run.
int dial(Load &load, int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  note_socket(load.lowest_socket, fd);
  timeval tv{0, 200000};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void send_bytes(int fd, const std::string &bytes) {
  size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0 && !(n < 0 && (errno == EAGAIN || errno == EINTR))) return;
    if (n > 0) at += static_cast<size_t>(n);
  }
}

// Waits until the server closes the connection, at most `seconds`.
void wait_for_close(Load &load, int fd, int seconds) {
  const auto until = Clock::now() + std::chrono::seconds(seconds);
  char buf[4096];
  while (!load.stop.load() && Clock::now() < until) {
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return;
  }
}

void pause_ms(Load &load, int ms) {
  for (int waited = 0; waited < ms && !load.stop.load(); waited += 20)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

std::string rpc_item(uint32_t type, uint64_t length, const std::string &data) {
  std::string s(12, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(type >> (24 - 8 * i));
  for (int i = 0; i < 8; ++i) s[4 + i] = static_cast<char>(length >> (56 - 8 * i));
  return s + data;
}

std::string rpc_u32(uint32_t type, uint32_t v) {
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                     static_cast<char>(v)};
  return rpc_item(type, 4, std::string(b, 4));
}

ZTTestChild *new_child(uint32_t id, const std::string &label) {
  auto *c = static_cast<ZTTestChild *>(std::calloc(1, sizeof(ZTTestChild)));
  c->id = id;
  c->label = strdup(label.c_str());
  c->value = id * 0.25;
  return c;
}

// A good packet request, as bytes on the wire.
std::string packet_request(uint32_t id) {
  ZTTestChild *child = new_child(id, "soak request " + std::to_string(id));
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  std::string wire;
  if (MakePacketDataFromItem(pm, child, ZT_CLASS_TEST_CHILD) == 0 && AddPacketHeader(pm, id, 0, 1) == 0)
    wire.assign(pm->header, static_cast<size_t>(pm->total_length));
  FreePacketMemory(&pm);
  ZTPacketFreeItem(child, ZT_CLASS_TEST_CHILD);
  return wire;
}

// A good RPC packetable request, as bytes on the wire.
std::string rpc_request(uint32_t id) {
  ZTTestChild *child = new_child(id, "soak rpc " + std::to_string(id));
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  std::string wire;
  if (MakePacketDataFromItem(pm, child, ZT_CLASS_TEST_CHILD) == 0) {
    const std::string body(pm->data, static_cast<size_t>(pm->body_length));
    wire = rpc_u32(ZT_RPC_REQUEST, kAskPacketable) +
           rpc_item(ZT_RPC_PACKETABLE, body.size() + 48,
                    rpc_u32(ZT_RPC_ULONG, ZT_CLASS_TEST_CHILD) + rpc_u32(ZT_RPC_ULONG, 0) +
                        rpc_u32(ZT_RPC_ULONG, static_cast<uint32_t>(body.size())) + body);
  }
  FreePacketMemory(&pm);
  ZTPacketFreeItem(child, ZT_CLASS_TEST_CHILD);
  return wire;
}

void record_good(Load &load, Clock::time_point start, bool ok) {
  const int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  stretch(load.slowest_ms, ms);
  if (ok && ms <= kTimeout * 1000) ++load.good_served;
}

// Good clients use the library's own calls on their side too.
void good_packet_client(Load &load, int index) {
  for (uint32_t n = 0; !load.stop.load(); ++n) {
    const uint32_t id = static_cast<uint32_t>(index) * 1000000u + n;
    const auto start = Clock::now();
    ++load.good_sent;
    bool ok = false;
    ZTRPC *ch = ZTRPC_ClientCreate("127.0.0.1", load.port_packet, "tcp");
    if (ch != nullptr) {
      note_socket(load.lowest_socket, ch->socket);
      ZTTestChild *child = new_child(id, "soak request " + std::to_string(id));
      ZTPacketMemory *pm = InitAllocPacketMemory(0);
      ZTPacketHeader header{};
      ZTPacketMemory *answer = nullptr;
      if (MakePacketDataFromItem(pm, child, ZT_CLASS_TEST_CHILD) == 0 && AddPacketHeader(pm, id, 0, 1) == 0 &&
          ZTPacketSendToSocket(ch->socket, pm, kTimeout) == 0 &&
          ReadPacketHeaderFromSocket(ch->socket, &header, kTimeout) == 0 && header.field1 == id + 1 &&
          ReadPacketBodyFromSocket(ch->socket, &header, &answer, kTimeout) == 0) {
        void *back = MakeItemFromPacket(answer, ZT_CLASS_TEST_CHILD);
        ok = back != nullptr && ComparePacketItem(child, back, ZT_CLASS_TEST_CHILD) == 1;
        if (back != nullptr) ZTPacketFreeItem(back, ZT_CLASS_TEST_CHILD);
      }
      FreePacketMemory(&answer);
      FreePacketMemory(&pm);
      ZTPacketFreeItem(child, ZT_CLASS_TEST_CHILD);
      ZTRPC_Destroy(ch);
    }
    record_good(load, start, ok);
    pause_ms(load, 40);
  }
}

void good_rpc_client(Load &load, int index) {
  std::mt19937 rng(static_cast<uint32_t>(index));
  const std::string name = "good_" + std::to_string(index) + ".bin";
  const std::string source = load.destination + "/../src_" + std::to_string(index) + ".bin";
  for (uint32_t n = 0; !load.stop.load(); ++n) {
    const auto start = Clock::now();
    ++load.good_sent;
    bool ok = false;
    ZTRPC *ch = ZTRPC_ClientCreate("127.0.0.1", load.port_rpc, "tcp");
    if (ch != nullptr) {
      note_socket(load.lowest_socket, ch->socket);
      ZTRPC_SetTimeout(ch, kTimeout);
      if (n % 2 == 0) {
        ZTTestChild *child = new_child(n, "soak rpc " + std::to_string(n));
        void *back = nullptr;
        uint32_t cls = 0, flags = 0;
        if (ZTRPC_WriteRPC(ch, kAskPacketable) == 0 &&
            ZTRPC_WritePacketable(ch, child, ZT_CLASS_TEST_CHILD, 0) == 0 && ZTRPC_WriteFlush(ch) == 0 &&
            ZTRPC_ReadPacketable(ch, &back, &cls, &flags) == 0)
          ok = ComparePacketItem(child, back, ZT_CLASS_TEST_CHILD) == 1;
        if (back != nullptr) ZTPacketFreeItem(back, ZT_CLASS_TEST_CHILD);
        ZTPacketFreeItem(child, ZT_CLASS_TEST_CHILD);
      } else {
        std::string content(1024 + rng() % (63 * 1024), '\0');
        for (char &c : content) c = static_cast<char>(rng());
        {
          std::ofstream out(source, std::ios::binary | std::ios::trunc);
          out << content;
        }
        // The file goes under its own name: only the last component is kept.
        const std::string named = load.destination + "/../" + name;
        fs::rename(source, named);
        int32_t rc = -1;
        if (ZTRPC_WriteRPC(ch, kSendFile) == 0 && ZTRPC_WriteFlush(ch) == 0) {
          {
            std::lock_guard<std::mutex> lock(load.files_mutex);
            load.complete[name].insert(std::hash<std::string>{}(content));
          }
          ok = ZTRPC_WriteFile(ch, named.c_str()) == 0 && ZTRPC_ReadLong(ch, &rc) == 0 && rc == 0;
        }
      }
      ZTRPC_Destroy(ch);
    }
    record_good(load, start, ok);
    pause_ms(load, 40);
  }
}

void random_client(Load &load, int port, int index) {
  std::mt19937 rng(static_cast<uint32_t>(1000 + index));
  while (!load.stop.load()) {
    const int fd = dial(load, port);
    if (fd >= 0) {
      std::string junk(1 + rng() % 4096, '\0');
      for (char &c : junk) c = static_cast<char>(rng());
      send_bytes(fd, junk);
      ::shutdown(fd, SHUT_WR);
      wait_for_close(load, fd, kTimeout + 2);
      ::close(fd);
    }
    pause_ms(load, 100);
  }
}

// Announces the largest length each reader accepts, sends a few bytes of it
// and says nothing more; the RPC ones name a file that already exists.
void stalling_client(Load &load, bool rpc, int port, int index) {
  for (uint32_t n = 0; !load.stop.load(); ++n) {
    const int fd = dial(load, port);
    if (fd >= 0) {
      std::string wire;
      if (!rpc) {
        std::string header = packet_request(n).substr(0, ZT_PACKET_HEADER_SIZE);
        char length[9];
        std::snprintf(length, sizeof length, "%08x", static_cast<uint32_t>(ZTPacketGetMaxBodyLength()));
        header.replace(ZT_PACKET_HEADER_SIZE - 9, 8, length);
        wire = header + "SI 64\n";
      } else if (n % 2 == 0) {
        wire = rpc_u32(ZT_RPC_REQUEST, kAskPacketable) +
               rpc_item(ZT_RPC_PACKETABLE, ZT_RPC_DEFAULT_ITEM_LIMIT,
                        rpc_u32(ZT_RPC_ULONG, ZT_CLASS_TEST_CHILD) + rpc_u32(ZT_RPC_ULONG, 0) +
                            rpc_u32(ZT_RPC_ULONG, 0) + "SI 64\n");
      } else {
        const std::string kept = "kept_" + std::to_string((index + n) % kKeptFiles) + ".dat";
        wire = rpc_u32(ZT_RPC_REQUEST, kSendFile) + rpc_item(ZT_RPC_FILE_START, 0, "") +
               rpc_item(ZT_RPC_STRING, kept.size(), kept) +
               rpc_item(ZT_RPC_FILE_DATA, ZT_RPC_DEFAULT_FILE_LIMIT, "abc");
      }
      send_bytes(fd, wire);
      wait_for_close(load, fd, kTimeout + 3);
      ::close(fd);
    }
  }
}

// Sends a good request one byte a second.
void trickling_client(Load &load, bool rpc, int port) {
  for (uint32_t n = 0; !load.stop.load(); ++n) {
    const int fd = dial(load, port);
    if (fd < 0) {
      pause_ms(load, 100);
      continue;
    }
    const std::string wire = rpc ? rpc_request(n) : packet_request(n);
    for (size_t i = 0; i < wire.size() && !load.stop.load(); ++i) {
      if (::send(fd, wire.data() + i, 1, MSG_NOSIGNAL) != 1) break;
      pause_ms(load, 1000);
      // Dropped by the server: start again.
      char probe;
      if (::recv(fd, &probe, 1, MSG_DONTWAIT) == 0) break;
    }
    ::close(fd);
  }
}

struct RunFigures {
  std::string name;
  uint64_t sent = 0, served = 0;
  int64_t slowest_ms = 0;
  uint64_t refused = 0, waited = 0;
  uint32_t peak_serving = 0;
  size_t peak_threads = 0;
  int lowest_socket = 0;
  bool files_ok = false;
  std::string files_note;
};

// Only the kept files, untouched, and whole files their senders sent.
bool check_destination(const std::string &destination, const std::map<std::string, std::string> &kept,
                       const std::map<std::string, std::set<size_t>> &complete, std::string &note) {
  note = "ok";
  for (const auto &entry : fs::directory_iterator(destination)) {
    const std::string name = entry.path().filename().string();
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    auto k = kept.find(name);
    auto g = complete.find(name);
    if (k != kept.end() && bytes.str() != k->second)
      note = name + " changed";
    else if (k == kept.end() && g == complete.end())
      note = "unexpected file " + name;
    else if (g != complete.end() && g->second.count(std::hash<std::string>{}(bytes.str())) == 0)
      note = name + " is not a file its sender sent";
  }
  for (const auto &k : kept)
    if (!fs::exists(destination + "/" + k.first)) note = k.first + " is gone";
  return note == "ok";
}

RunFigures run(const std::string &name, const std::string &scratch, int seconds) {
  RunFigures f;
  f.name = name;
  const std::string destination = scratch + "/in";
  fs::create_directories(destination);
  std::map<std::string, std::string> kept;
  for (int k = 0; k < kKeptFiles; ++k) {
    const std::string file = "kept_" + std::to_string(k) + ".dat";
    kept[file] = "kept file " + std::to_string(k) + " " + std::string(100 + k, 'k');
    std::ofstream(destination + "/" + file, std::ios::binary) << kept[file];
  }

  Server packet_server, rpc_server;
  if (!start_server(packet_server, false, destination) || !start_server(rpc_server, true, destination)) {
    std::fprintf(stderr, "soak: cannot start the servers\n");
    std::exit(2);
  }
  Load load;
  load.port_packet = ZTRPC_GetPort(packet_server.listener);
  load.port_rpc = ZTRPC_GetPort(rpc_server.listener);
  load.destination = destination;

  std::vector<std::thread> clients;
  for (int server = 0; server < 2; ++server) {
    const bool rpc = server == 1;
    const int port = rpc ? load.port_rpc : load.port_packet;
    for (int i = 0; i < kClientsPerServer / 4; ++i) {
      const int index = server * kClientsPerServer + i;
      clients.emplace_back(random_client, std::ref(load), port, index);
      clients.emplace_back(stalling_client, std::ref(load), rpc, port, index);
      clients.emplace_back(trickling_client, std::ref(load), rpc, port);
      clients.emplace_back(rpc ? good_rpc_client : good_packet_client, std::ref(load), index);
    }
  }
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    f.peak_threads = std::max(f.peak_threads, live_threads());
  }
  load.stop = true;
  for (auto &t : clients) t.join();
  stop_server(packet_server);
  stop_server(rpc_server);

  f.sent = load.good_sent.load();
  f.served = load.good_served.load();
  f.slowest_ms = load.slowest_ms.load();
  f.refused = packet_server.refused.load() + rpc_server.refused.load();
  f.waited = packet_server.waited.load() + rpc_server.waited.load();
  f.peak_serving = std::max(packet_server.peak_serving.load(), rpc_server.peak_serving.load());
  f.lowest_socket = std::min(
      {load.lowest_socket.load(), packet_server.lowest_socket.load(), rpc_server.lowest_socket.load()});
  f.files_ok = check_destination(destination, kept, load.complete, f.files_note);
  fs::remove_all(destination);
  return f;
}

int seconds_from_environment() {
  const char *text = std::getenv("ZT_SOAK_SECONDS");
  return text == nullptr || *text == '\0' ? 60 : std::max(3, std::atoi(text));
}

}  // namespace

int main() {
  const int seconds = seconds_from_environment();
  char scratch_template[] = "/tmp/zt_soak_XXXXXX";
  if (mkdtemp(scratch_template) == nullptr) return 2;
  const std::string scratch = scratch_template;
  const std::string before_dir = fs::current_path().string();
  fs::current_path(scratch);  // the log file lands here

  ZT_InitSubSystems();
  if (zt::test::register_packet_test_classes() != 0) return 2;
  LogTally tally;
  const int32_t client_id = LogErrorAddClient(&LogTally::on_message, &tally);

  const size_t fds_start = open_descriptors();
  const size_t threads_start = live_threads();
  std::vector<RunFigures> runs;
  std::vector<std::pair<size_t, size_t>> after;

  runs.push_back(run("plain", scratch, seconds - seconds / 3));
  after.emplace_back(open_descriptors(), live_threads());

  // Every socket numbered above 1,024: 1,100 descriptors first, under a soft
  // limit raised as far as the hard one allows.
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit saved = limit;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<int> filler;
  for (int i = 0; i < 1100; ++i) {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) break;
    filler.push_back(fd);
  }
  runs.push_back(run("1,100 descriptors first", scratch, seconds / 3));
  for (int fd : filler) ::close(fd);
  setrlimit(RLIMIT_NOFILE, &saved);
  after.emplace_back(open_descriptors(), live_threads());

  LogErrorRemoveClient(client_id);
  const long peak_kib = status_kib("VmHWM");
  ZT_DeInitSubSystems();
  fs::current_path(before_dir);
  fs::remove_all(scratch);

  bool pass = true;
  std::printf(
      "soak: %d s under load, 200 clients per run (per server: 25 random, 25 stalling, 25 trickling, "
      "25 good), time-out %d s, pool cap %u threads per server\n"
      "(waited: accepts put off while the pool was full; refused: connections turned away at the cap;\n"
      " serving: most connections served at once by one server; threads: most in the process)\n",
      seconds, kTimeout, ZT_THREADPOOL_DEFAULT_MAX_THREADS);
  std::printf("%-24s | %9s | %9s | %7s | %7s | %6s | %7s | %7s | %7s | %6s | %s\n", "run", "good sent",
              "served", "served%", "slowest", "waited", "refused", "serving", "threads", "low fd",
              "destination folder");
  for (size_t i = 0; i < runs.size(); ++i) {
    const RunFigures &f = runs[i];
    const double share =
        f.sent != 0 ? 100.0 * static_cast<double>(f.served) / static_cast<double>(f.sent) : 0.0;
    std::printf("%-24s | %9llu | %9llu | %6.2f%% | %5lldms | %6llu | %7llu | %7u | %7zu | %6d | %s\n",
                f.name.c_str(), static_cast<unsigned long long>(f.sent),
                static_cast<unsigned long long>(f.served), share, static_cast<long long>(f.slowest_ms),
                static_cast<unsigned long long>(f.waited), static_cast<unsigned long long>(f.refused),
                f.peak_serving, f.peak_threads, f.lowest_socket, f.files_note.c_str());
    pass = pass && f.peak_serving <= ZT_THREADPOOL_DEFAULT_MAX_THREADS && f.sent != 0 && share >= 99.0 &&
           f.files_ok && (i != 1 || f.lowest_socket > 1024) && after[i].first == fds_start &&
           after[i].second == threads_start;
    std::printf("  after: %zu descriptors (start %zu), %zu threads (start %zu)\n", after[i].first, fds_start,
                after[i].second, threads_start);
  }
  std::printf("peak resident set: %.1f MiB (limit 256 MiB)\n", peak_kib / 1024.0);
  pass = pass && peak_kib >= 0 && peak_kib < 256 * 1024;
  {
    std::lock_guard<std::mutex> lock(tally.mutex);
    uint64_t total = 0;
    for (const auto &m : tally.by_message) total += m.second;
    std::printf("log records: %llu\n", static_cast<unsigned long long>(total));
    for (const auto &m : tally.by_message)
      std::printf("  %8llu  %s\n", static_cast<unsigned long long>(m.second), m.first.c_str());
  }
  std::printf("soak: %s\n", pass ? "PASS" : "FAIL");
  return pass ? 0 : 1;
}
