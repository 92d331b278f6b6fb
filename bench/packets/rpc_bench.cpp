// RPC loopback file transfer: ZTRPC_WriteFile on one side and ZTRPC_GetFile
// on the other, against a plain sendfile/recv loop between two loopback
// sockets writing to a file the same way. Both run in this program; the
// ratio is printed as a counter. The goal is at least 0.8 times the peer.
// ZT_BENCH_FILE_MB sets the file size (1024 by default).
#include <zt/init.h>
#include <zt/log.h>
#include <zt/ztrpc.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

class Setup {
 public:
  Setup() {
    char tmpl[] = "/tmp/zt_rpc_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) std::abort();
    dir_ = tmpl;
    mkdir((dir_ + "/in").c_str(), 0700);
    ZT_InitSubSystems();
    const char *env = std::getenv("ZT_BENCH_FILE_MB");
    size_ = static_cast<uint64_t>(env ? std::atoll(env) : 1024) << 20;
    path_ = dir_ + "/payload.bin";
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    for (uint64_t done = 0; done < size_; done += block.size())
      if (::write(fd, block.data(), block.size()) < 0) std::abort();
    ::close(fd);
  }
  ~Setup() {
    ZT_DeInitSubSystems();
    unlink(path_.c_str());
    unlink((dir_ + "/in/payload.bin").c_str());
    unlink((dir_ + "/in/peer.bin").c_str());
    unlink((dir_ + "/errors.log").c_str());
    rmdir((dir_ + "/in").c_str());
    rmdir(dir_.c_str());
  }
  std::string dir_, path_;
  uint64_t size_ = 0;
};

Setup &setup() {
  static Setup s;
  return s;
}

double g_rpc_seconds = 0, g_peer_seconds = 0;

void BM_Rpc_FileTransfer(benchmark::State &state) {
  Setup &s = setup();
  ZTRPC *server = ZTRPC_ServerCreateAt("127.0.0.1", 0, 4, "tcp");
  ZTRPC *client = ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server), "tcp");
  ZTRPC *conn = ZTRPC_WaitForConnection(server, 5);
  const std::string in = s.dir_ + "/in";
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    std::thread sender([&] { ZTRPC_WriteFile(client, s.path_.c_str()); });
    char name[256];
    if (ZTRPC_GetFile(conn, in.c_str(), name, sizeof name) != 0) state.SkipWithError("transfer failed");
    sender.join();
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(secs);
    total += secs;
  }
  g_rpc_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(s.size_ * state.iterations()));
  state.counters["MB_per_s"] = static_cast<double>(s.size_) / 1e6 / g_rpc_seconds;
  if (g_peer_seconds > 0) state.counters["ratio_to_peer"] = g_peer_seconds / g_rpc_seconds;
  ZTRPC_Destroy(conn);
  ZTRPC_Destroy(client);
  ZTRPC_Destroy(server);
}

// The peer: sendfile on one socket, recv into a 1 MiB block and write on the other.
void BM_Rpc_PlainSendfilePeer(benchmark::State &state) {
  Setup &s = setup();
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  ::listen(listener, 1);
  ::getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len);
  int client = ::socket(AF_INET, SOCK_STREAM, 0);
  ::connect(client, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  int server = ::accept(listener, nullptr, nullptr);
  std::vector<char> block(1 << 20);
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    std::thread sender([&] {
      int fd = ::open(s.path_.c_str(), O_RDONLY);
      off_t off = 0;
      uint64_t left = s.size_;
      while (left > 0) {
        ssize_t n = ::sendfile(client, fd, &off, left);
        if (n <= 0) break;
        left -= static_cast<uint64_t>(n);
      }
      ::close(fd);
    });
    int out = ::open((s.dir_ + "/in/peer.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint64_t left = s.size_;
    while (left > 0) {
      ssize_t n = ::recv(server, block.data(), left < block.size() ? left : block.size(), 0);
      if (n <= 0) break;
      if (::write(out, block.data(), static_cast<size_t>(n)) != n) break;
      left -= static_cast<uint64_t>(n);
    }
    ::close(out);
    sender.join();
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(secs);
    total += secs;
  }
  g_peer_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(s.size_ * state.iterations()));
  state.counters["MB_per_s"] = static_cast<double>(s.size_) / 1e6 / g_peer_seconds;
  ::close(client);
  ::close(server);
  ::close(listener);
}

// The peer runs first so that the RPC run can print its ratio.
BENCHMARK(BM_Rpc_PlainSendfilePeer)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Rpc_FileTransfer)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
