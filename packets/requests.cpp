// Request packets: the request item (class 6) followed by the data it names,
// as a packet with its header or as a file.
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

using zt::packets::kModule;

extern "C" {

ZT_API ZTPacketMemory *CreateRequestDataPacket(const ZTRequestItem *request, const void *data) {
  if (request == nullptr) {
    ZT_LOG(kModule, "CreateRequestDataPacket", "PacketMemory Struct Is NULL No Processing Done");
    return nullptr;
  }
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  if (pm == nullptr) return nullptr;
  int rc = MakePacketDataFromItem(pm, request, ZT_CLASS_REQUEST);
  if (rc == 0) {
    if (request->flags & 1u)
      rc = MakePacketDataFromList(pm, static_cast<const ZTListNode *>(data), request->data_class);
    else if (data != nullptr)
      rc = MakePacketDataFromItem(pm, data, request->data_class);
  }
  if (rc != 0) FreePacketMemory(&pm);
  return pm;
}

ZT_API ZTPacketMemory *CreateRequestPacket(const ZTRequestItem *request, const void *data, uint32_t field3) {
  ZTPacketMemory *pm = CreateRequestDataPacket(request, data);
  if (pm != nullptr && AddPacketHeader(pm, request->command, field3, ZT_REQUEST_PACKET_KIND) != 0)
    FreePacketMemory(&pm);
  return pm;
}

ZT_API int32_t WriteRequestPacketToFile(const char *path, const ZTRequestItem *request, const void *data,
                                        uint32_t field3) {
  ZTPacketMemory *pm = CreateRequestPacket(request, data, field3);
  if (pm == nullptr) return -1;
  const int32_t rc = WritePacketToFile(path, pm);
  FreePacketMemory(&pm);
  return rc;
}

ZT_API int32_t WriteRequestDataToFile(const char *path, const ZTRequestItem *request, const void *data) {
  ZTPacketMemory *pm = CreateRequestDataPacket(request, data);
  if (pm == nullptr) return -1;
  const int32_t rc = WritePacketDataToFile(path, pm);
  FreePacketMemory(&pm);
  return rc;
}

}  // extern "C"
