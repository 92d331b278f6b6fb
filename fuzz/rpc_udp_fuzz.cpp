// The RPC value stream over UDP: a datagram server on 127.0.0.1 receives the
// input (in one or two datagrams, then an empty one that ends the stream) and
// reads it with a sequence of typed readers chosen by the input's first bytes.
// Nothing may crash or wait out a time-out, and as long as only the
// fixed-size readers and the item skipper have run, every result must be what
// the stream's own items say: a value where type and length match, else -1
// with the item skipped, so the stream stays in step. Limits are small.
#include <zt/init.h>
#include <zt/log.h>
#include <zt/membuf.h>
#include <zt/packets.h>
#include <zt/ztrpc.h>

#include <filesystem>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "codec_fuzz_support.h"
#include "scratch_dir.h"

namespace {

using zt::fuzz::check;

constexpr uint64_t kItemLimit = 1u << 16;
constexpr size_t kMaxReaders = 24;

std::string g_dir;
int g_client = -1;

uint32_t get32(const uint8_t *p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
uint64_t get64(const uint8_t *p) { return uint64_t{get32(p)} << 32 | get32(p + 4); }

// The stream as its items describe it, for the readers whose results follow
// from the items alone.
class Model {
 public:
  explicit Model(const std::vector<uint8_t> &stream) : s_(stream) {}
  bool valid() const { return valid_; }
  void invalidate() { valid_ = false; }

  // Expected status of a fixed-size reader, and its data on success.
  int32_t read_fixed(uint32_t type, uint64_t length, const uint8_t **value) {
    uint32_t t;
    uint64_t l;
    if (!header(&t, &l)) return -1;
    if (t == type && l == length) {
      if (!take(l, value)) return -1;
      return 0;
    }
    if (l > kItemLimit) {
      valid_ = false;  // out of step: the channel is no longer usable
      return -1;
    }
    take(l, nullptr);
    return -1;
  }

  // Expected result of ReadSkipItem: the type, or -1.
  int64_t skip() {
    uint32_t t;
    uint64_t l;
    if (!header(&t, &l)) return -1;
    if (l > kItemLimit) {
      valid_ = false;
      return -1;
    }
    return take(l, nullptr) ? static_cast<int64_t>(t) : -1;
  }

 private:
  bool header(uint32_t *type, uint64_t *length) {
    if (s_.size() - pos_ < ZT_RPC_ITEM_HEADER) return end();
    *type = get32(&s_[pos_]);
    *length = get64(&s_[pos_ + 4]);
    pos_ += ZT_RPC_ITEM_HEADER;
    return true;
  }
  bool take(uint64_t n, const uint8_t **value) {
    if (s_.size() - pos_ < n) return end();
    if (value) *value = &s_[pos_];
    pos_ += n;
    return true;
  }
  // The stream ended inside an item: what the reader consumed is unknown.
  bool end() {
    valid_ = false;
    return false;
  }

  const std::vector<uint8_t> &s_;
  size_t pos_ = 0;
  bool valid_ = true;
};

bool queue_empty(int fd) {
  char probe;
  return recv(fd, &probe, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

void send_datagram(int port, const uint8_t *data, size_t n) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  check(sendto(g_client, data, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) == static_cast<ssize_t>(n));
}

// Runs reader `kind` once; returns its status and checks it against the model.
int32_t read_one(ZTRPC *ch, uint32_t kind, Model &model, bool &wrote_file) {
  const uint8_t *v = nullptr;
  int32_t rc = -1;
  switch (kind) {
    case 0: {
      uint32_t u = 0;
      rc = ZTRPC_ReadULong(ch, &u);
      if (model.valid()) {
        const int32_t want = model.read_fixed(ZT_RPC_ULONG, 4, &v);
        if (model.valid()) check(rc == want && (rc != 0 || u == get32(v)));
      }
      return rc;
    }
    case 1: {
      int32_t l = 0;
      rc = ZTRPC_ReadLong(ch, &l);
      if (model.valid()) {
        const int32_t want = model.read_fixed(ZT_RPC_LONG, 4, &v);
        if (model.valid()) check(rc == want && (rc != 0 || static_cast<uint32_t>(l) == get32(v)));
      }
      return rc;
    }
    case 2: {
      uint64_t off = 0;
      rc = ZTRPC_Read_ZT_off_t(ch, &off);
      if (model.valid()) {
        const int32_t want = model.read_fixed(ZT_RPC_OFF_T, 8, &v);
        if (model.valid()) check(rc == want && (rc != 0 || off == get64(v)));
      }
      return rc;
    }
    case 3: {
      ZTKEY key{};
      rc = ZTRPC_ReadZTKEY(ch, &key);
      if (model.valid()) {
        const int32_t want = model.read_fixed(ZT_RPC_ZTKEY, 8, &v);
        if (model.valid()) check(rc == want);
      }
      return rc;
    }
    case 4: {
      uint32_t code = 0;
      rc = ZTRPC_ReadRPC(ch, &code);
      if (model.valid()) {
        const int32_t want = model.read_fixed(ZT_RPC_REQUEST, 4, &v);
        if (model.valid()) check(rc == want && (rc != 0 || code == get32(v)));
      }
      return rc;
    }
    case 5: {
      const int32_t type = ZTRPC_ReadSkipItem(ch);
      if (model.valid()) {
        // The type comes back as a signed status: one with the top bit set
        // reads as negative.
        const int64_t want = model.skip();
        if (model.valid()) check(type == static_cast<int32_t>(static_cast<uint32_t>(want)));
      }
      return type >= 0 ? 0 : -1;
    }
    case 6: {
      char buf[64];
      model.invalidate();
      return ZTRPC_ReadString(ch, buf, sizeof buf);
    }
    case 7: {
      void *rec = nullptr;
      uint32_t cls = 0, flags = 0;
      model.invalidate();
      rc = ZTRPC_ReadPacketable(ch, &rec, &cls, &flags);
      if (rc == 0) {
        if (flags & 1u) {
          auto *list = static_cast<ZTListNode *>(rec);
          ZTPacketFreeList(&list, cls);
        } else {
          ZTPacketFreeItem(rec, cls);
        }
      }
      return rc;
    }
    default: {
      char name[256];
      model.invalidate();
      rc = ZTRPC_GetFile(ch, g_dir.c_str(), name, sizeof name);
      wrote_file = true;
      return rc;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_dir = zt::fuzz::ScratchDir::enter("rpc_udp");
  zt::fuzz::start_quiet_library();
  ZTRPC_SetLimits(kItemLimit, kItemLimit);
  g_client = socket(AF_INET, SOCK_DGRAM, 0);
  check(g_client >= 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  std::vector<uint32_t> readers(1 + in.byte() % kMaxReaders);
  for (auto &r : readers) r = in.byte() % 9;
  const uint32_t cut_byte = in.byte();
  const std::vector<uint8_t> stream = in.rest();
  // Loopback datagrams stay below 64 KiB.
  if (stream.size() > 60000) return 0;

  ZTRPC *server = ZTRPC_ServerCreateAt("127.0.0.1", 0, 0, "udp");
  check(server != nullptr);
  ZTRPC_SetTimeout(server, 1);
  const int port = ZTRPC_GetPort(server);
  check(port > 0);
  // An empty datagram reads as the end of the stream, so only the last is empty.
  const size_t cut = stream.empty() ? 0 : cut_byte * stream.size() / 255;
  if (cut > 0) send_datagram(port, stream.data(), cut);
  if (cut < stream.size()) send_datagram(port, stream.data() + cut, stream.size() - cut);
  send_datagram(port, nullptr, 0);

  Model model(stream);
  bool wrote_file = false;
  for (const uint32_t kind : readers) {
    // Once the end has been read, nothing more can come: the abort makes a
    // reader that wants more fail at once instead of waiting.
    if (server->abort_flag == 0 && queue_empty(server->socket)) ZTRPC_Abort(server);
    const int32_t rc = read_one(server, kind, model, wrote_file);
    if (rc != 0 && server->abort_flag != 0 && ZT_MemBufSize(server->input) == server->input_offset) break;
  }
  ZTRPC_Destroy(server);
  if (wrote_file) {
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(g_dir, ignored))
      std::filesystem::remove_all(entry.path(), ignored);
  }
  return 0;
}
