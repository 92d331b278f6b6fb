// The encoder: items and lists as tagged text. Each field's line is written
// by its type's row (packets/field_types.h); this file frames the items.
#include "foundation/internal.h"
#include "packets/field_types.h"
#include "packets/packets_internal.h"
#include "packets/text_codec.h"

#include <zt/packets.h>

namespace zt::packets {

int encode_list_text(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const ZTListNode *list) {
  w.word("SL", cls.number);
  for (const ZTListNode *n = list; n != nullptr; n = n->next) {
    if (encode_item_text(reg, cls, w, n) != 0) return -1;
  }
  w.word("TL", 0);
  return w.end_line();
}

int encode_item_text(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const void *item) {
  w.word("SI", cls.number);
  for (const Field &f : cls.fields) {
    if (f.type->encode(reg, f, w, item) != 0 || w.end_line() != 0) return -1;
  }
  w.word("TI", 0);
  return w.end_line();
}

int encode_item(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const void *item) {
  Writer w(pm);
  if (encode_item_text(reg, cls, w, item) != 0) return -1;
  return w.flush();
}

int encode_list(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const ZTListNode *list) {
  Writer w(pm);
  if (encode_list_text(reg, cls, w, list) != 0) return -1;
  return w.flush();
}

}  // namespace zt::packets

using namespace zt::packets;

extern "C" {

ZT_API int32_t MakePacketDataFromItem(ZTPacketMemory *pm, const void *item, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakePacketDataFromItem", -1, [&]() -> int32_t {
    if (pm == nullptr || item == nullptr) {
      ZT_LOG(kModule, "MakePacketDataFromItem", "PacketMemory Struct  Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("MakePacketDataFromItem", class_number);
      return -1;
    }
    return encode_item(reg, *cls, pm, item);
  });
}

ZT_API int32_t MakePacketDataFromList(ZTPacketMemory *pm, const ZTListNode *list, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakePacketDataFromList", -1, [&]() -> int32_t {
    if (pm == nullptr) {
      ZT_LOG(kModule, "MakePacketDataFromList", "PacketMemory Struct Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("MakePacketDataFromList", class_number);
      return -1;
    }
    return encode_list(reg, *cls, pm, list);
  });
}

ZT_API int32_t MakeOnePacketDataListFromArrayLists(ZTPacketMemory *pm, ZTListNode *const *lists, uint32_t count,
                                                   uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakeOnePacketDataListFromArrayLists", -1, [&]() -> int32_t {
    const char *fn = "MakeOnePacketDataListFromArrayLists";
    if (lists == nullptr) {
      ZT_LOG(kModule, fn, "Passed A NULL Array To Try And Make packet from");
      return -1;
    }
    if (pm == nullptr) {
      ZT_LOG(kModule, fn, "PacketMemory Struct Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class(fn, class_number);
      return -1;
    }
    Writer w(pm);
    w.word("SL", class_number);
    for (uint32_t i = 0; i < count; ++i)
      for (const ZTListNode *n = lists[i]; n != nullptr; n = n->next)
        if (encode_item_text(reg, *cls, w, n) != 0) return -1;
    w.word("TL", 0);
    return w.flush();
  });
}

}  // extern "C"
