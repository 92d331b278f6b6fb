// RPC loopback file transfer: ZTRPC_WriteFile on one side and ZTRPC_GetFile
// on the other, against a plain sendfile/recv loop between two loopback
// sockets writing to a file the same way. Both work on tmpfs (/dev/shm when
// writable) and take turns, peer then ours, round after round, so that
// neither pays for write-back the other left behind; each side's time is the
// median of its rounds (and of repetitions). Before the rounds, one untimed
// transfer each is checked to deliver the file byte for byte. Goal: at least
// 0.8 times the peer's speed. ZT_BENCH_FILE_MB sets the file size (1024 by
// default, 64 in the smoke run), ZT_BENCH_ROUNDS the rounds (5; 1 in the
// smoke run).
#include <zt/init.h>
#include <zt/log.h>
#include <zt/ztrpc.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
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

#include "bench_support.h"

namespace {

bool g_smoke = false;

class Setup {
 public:
  Setup() {
    std::string tmpl = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/zt_rpc_bench_XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr || chdir(tmpl.c_str()) != 0) std::abort();
    dir_ = tmpl;
    mkdir((dir_ + "/in").c_str(), 0700);
    ZT_InitSubSystems();
    const char *env = std::getenv("ZT_BENCH_FILE_MB");
    size_ = static_cast<uint64_t>(env ? std::atoll(env) : g_smoke ? 64 : 1024) << 20;
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

// True when the two files hold the same bytes.
bool same_file(const std::string &a, const std::string &b) {
  const int fa = ::open(a.c_str(), O_RDONLY), fb = ::open(b.c_str(), O_RDONLY);
  struct stat sa {}, sb {};
  bool same = fa >= 0 && fb >= 0 && fstat(fa, &sa) == 0 && fstat(fb, &sb) == 0 && sa.st_size == sb.st_size;
  if (same && sa.st_size > 0) {
    const size_t n = static_cast<size_t>(sa.st_size);
    void *pa = mmap(nullptr, n, PROT_READ, MAP_PRIVATE, fa, 0), *pb = mmap(nullptr, n, PROT_READ, MAP_PRIVATE, fb, 0);
    same = pa != MAP_FAILED && pb != MAP_FAILED && std::memcmp(pa, pb, n) == 0;
    if (pa != MAP_FAILED) munmap(pa, n);
    if (pb != MAP_FAILED) munmap(pb, n);
  }
  if (fa >= 0) ::close(fa);
  if (fb >= 0) ::close(fb);
  return same;
}

// Ours: one connection, one file per call.
class Ours {
 public:
  Ours() {
    server_ = ZTRPC_ServerCreateAt("127.0.0.1", 0, 4, "tcp");
    client_ = server_ ? ZTRPC_ClientCreate("127.0.0.1", ZTRPC_GetPort(server_), "tcp") : nullptr;
    conn_ = client_ ? ZTRPC_WaitForConnection(server_, 5) : nullptr;
  }
  ~Ours() {
    ZTRPC_Destroy(conn_);
    ZTRPC_Destroy(client_);
    ZTRPC_Destroy(server_);
  }
  bool ready() const { return conn_ != nullptr; }
  bool transfer(const Setup &s) {
    bool sent = false;
    std::thread sender([&] { sent = ZTRPC_WriteFile(client_, s.path_.c_str()) == 0; });
    char name[256];
    const bool got = ZTRPC_GetFile(conn_, (s.dir_ + "/in").c_str(), name, sizeof name) == 0;
    sender.join();
    return got && sent;
  }
  static std::string received(const Setup &s) { return s.dir_ + "/in/payload.bin"; }

 private:
  ZTRPC *server_ = nullptr, *client_ = nullptr, *conn_ = nullptr;
};

// The peer: sendfile on one socket, recv into a 1 MiB block and write on the other.
class Peer {
 public:
  Peer() : block_(1 << 20) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    ::listen(listener_, 1);
    ::getsockname(listener_, reinterpret_cast<sockaddr *>(&addr), &len);
    client_ = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(client_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    server_ = ::accept(listener_, nullptr, nullptr);
  }
  ~Peer() {
    ::close(client_);
    ::close(server_);
    ::close(listener_);
  }
  bool transfer(const Setup &s) {
    std::thread sender([&] {
      int fd = ::open(s.path_.c_str(), O_RDONLY);
      off_t off = 0;
      uint64_t left = s.size_;
      while (left > 0) {
        ssize_t n = ::sendfile(client_, fd, &off, left);
        if (n <= 0) break;
        left -= static_cast<uint64_t>(n);
      }
      ::close(fd);
    });
    int out = ::open(received(s).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint64_t left = s.size_;
    while (left > 0) {
      ssize_t n = ::recv(server_, block_.data(), left < block_.size() ? left : block_.size(), 0);
      if (n <= 0) break;
      if (::write(out, block_.data(), static_cast<size_t>(n)) != n) break;
      left -= static_cast<uint64_t>(n);
    }
    ::close(out);
    sender.join();
    return left == 0;
  }
  static std::string received(const Setup &s) { return s.dir_ + "/in/peer.bin"; }

 private:
  std::vector<char> block_;
  int listener_ = -1, client_ = -1, server_ = -1;
};

template <typename Side>
double timed(Side &side, const Setup &s, bool &ok) {
  // The file from the round before goes first, so that neither side frees
  // the other's pages on its own clock.
  ::unlink(Side::received(s).c_str());
  const auto start = std::chrono::steady_clock::now();
  ok &= side.transfer(s);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_Rpc_FileTransfer(benchmark::State &state) {
  Setup &s = setup();
  Ours ours;
  Peer peer;
  if (!ours.ready()) {
    state.SkipWithError("no RPC connection");
    return;
  }
  bool ok = ours.transfer(s) && peer.transfer(s);
  if (!zt::bench::check(state, ok && same_file(s.path_, Ours::received(s)), "the file received over RPC") ||
      !zt::bench::check(state, same_file(s.path_, Peer::received(s)), "the file received by the peer"))
    return;
  const char *env = std::getenv("ZT_BENCH_ROUNDS");
  const int rounds = env ? std::max(1, std::atoi(env)) : g_smoke ? 1 : 5;
  std::vector<double> ours_s, peer_s;
  for (auto _ : state) {
    for (int r = 0; r < rounds; ++r) {
      peer_s.push_back(timed(peer, s, ok));
      ours_s.push_back(timed(ours, s, ok));
    }
    state.SetIterationTime(zt::bench::median(ours_s));
  }
  if (!ok) {
    state.SkipWithError("a transfer failed");
    return;
  }
  const double mb = static_cast<double>(s.size_) / 1e6;
  state.counters["MB_per_s"] = mb / zt::bench::median(ours_s);
  state.counters["peer_MB_per_s"] = mb / zt::bench::median(peer_s);
  state.counters["ratio_to_peer"] = zt::bench::median(peer_s) / zt::bench::median(ours_s);
  state.SetBytesProcessed(static_cast<int64_t>(s.size_ * state.iterations()));
}

BENCHMARK(BM_Rpc_FileTransfer)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char **argv) {
  g_smoke = zt::bench::smoke_run(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  char title[128];
  std::snprintf(title, sizeof title, "A %llu MiB file over loopback on tmpfs, in alternation (MB/s, medians)",
                static_cast<unsigned long long>(setup().size_ >> 20));
  zt::bench::Table table(title, "MB/s");
  table.row("ZTRPC_WriteFile + ZTRPC_GetFile vs sendfile/recv", results.value("BM_Rpc_FileTransfer", "MB_per_s"),
            results.value("BM_Rpc_FileTransfer", "peer_MB_per_s"), zt::bench::Goal::ratio(0.8));
  table.print();
  return zt::bench::exit_code();
}
