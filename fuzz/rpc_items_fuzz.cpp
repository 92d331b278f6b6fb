// The RPC item readers: arbitrary bytes arrive on a channel and are read as a
// sequence of items chosen by the first byte. Nothing may crash or hang, and
// no announced length may cause a large allocation (the limits are small).
#include "support/packet_test_classes.h"

#include <zt/init.h>
#include <zt/log.h>
#include <zt/membuf.h>
#include <zt/packets.h>
#include <zt/ztrpc.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include "scratch_dir.h"

namespace {
std::string g_dir;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_dir = zt::fuzz::ScratchDir::enter("rpc");
  ZT_InitSubSystems();
  if (zt::test::register_packet_test_classes() != 0) std::abort();
  LogErrorDisable(1);
  ZTRPC_SetLimits(1 << 16, 1 << 16);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 60000) return 0;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  if (send(fds[1], data + 1, size - 1, MSG_NOSIGNAL) != static_cast<ssize_t>(size - 1)) std::abort();
  close(fds[1]);
  auto *ch = static_cast<ZTRPC *>(std::calloc(1, sizeof(ZTRPC)));
  ch->socket = fds[0];
  ch->protocol = ZT_RPC_TCP;
  ch->state = ZT_RPC_CONNECTED;
  ch->timeout = 1;
  ch->input = ZT_MemBufCreate(0);
  ch->output = ZT_MemBufCreate(0);
  uint8_t selector = data[0];
  for (int step = 0; step < 64; ++step) {
    int rc = -1;
    uint32_t u = 0, cls = 0, flags = 0;
    int32_t l = 0;
    uint64_t off = 0;
    ZTKEY key{};
    char buf[256];
    void *rec = nullptr;
    switch ((selector + step) % 9) {
      case 0: rc = ZTRPC_ReadULong(ch, &u); break;
      case 1: rc = ZTRPC_ReadLong(ch, &l); break;
      case 2: rc = ZTRPC_Read_ZT_off_t(ch, &off); break;
      case 3: rc = ZTRPC_ReadString(ch, buf, sizeof buf); break;
      case 4: rc = ZTRPC_ReadZTKEY(ch, &key); break;
      case 5: rc = ZTRPC_ReadRPC(ch, &u); break;
      case 6:
        rc = ZTRPC_ReadPacketable(ch, &rec, &cls, &flags);
        if (rc == 0) {
          if (flags & 1u) {
            auto *list = static_cast<ZTListNode *>(rec);
            ZTPacketFreeList(&list, cls);
          } else {
            ZTPacketFreeItem(rec, cls);
          }
        }
        break;
      case 7: rc = ZTRPC_ReadSkipItem(ch) >= 0 ? 0 : -1; break;
      default: rc = ZTRPC_GetFile(ch, g_dir.c_str(), buf, sizeof buf); break;
    }
    if (rc != 0 && ZT_MemBufSize(ch->input) == ch->input_offset) {
      // Nothing more can arrive once the buffer is drained after a failure.
      char probe;
      if (recv(ch->socket, &probe, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) break;
    }
  }
  ZTRPC_Destroy(ch);
  return 0;
}
