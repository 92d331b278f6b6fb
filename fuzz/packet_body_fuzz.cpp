// The body decoder: arbitrary bytes decoded as an item or a list of the test
// classes and the request class. Nothing may crash, and whatever decodes must
// re-encode to text that decodes to the same record.
#include "support/packet_test_classes.h"

#include <zt/init.h>
#include <zt/log.h>
#include <zt/packets.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "scratch_dir.h"

namespace {

const uint32_t kClasses[] = {ZT_CLASS_TEST_CHILD, ZT_CLASS_TEST_ALL, ZT_CLASS_TEST_RECORD, ZT_CLASS_REQUEST};

// Doubles pass through "%.14g", so the first encoding may round; from then
// on the text must be a fixed point.
void check_round_trip(ZTListNode *list, uint32_t cls) {
  ZTPacketMemory *first = InitAllocPacketMemory(0);
  ZTPacketMemory *second = InitAllocPacketMemory(0);
  if (first == nullptr || second == nullptr || MakePacketDataFromList(first, list, cls) != 0) std::abort();
  ZTListNode *back = MakeListFromPacket(first, cls);
  if ((list != nullptr) != (back != nullptr)) std::abort();
  if (MakePacketDataFromList(second, back, cls) != 0) std::abort();
  if (first->body_length != second->body_length ||
      std::memcmp(first->data, second->data, first->body_length) != 0)
    std::abort();
  ZTPacketFreeList(&back, cls);
  FreePacketMemory(&first);
  FreePacketMemory(&second);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::ScratchDir::enter("packet");
  ZT_InitSubSystems();
  if (zt::test::register_packet_test_classes() != 0) std::abort();
  LogErrorDisable(1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint32_t cls = kClasses[data[0] % 4];
  const bool as_list = data[0] & 4;
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  if (pm == nullptr || AppendPacketMemory(pm, data + 1, size - 1) != 0) std::abort();
  if (as_list) {
    ZTListNode *list = MakeListFromPacket(pm, cls);
    if (list != nullptr) check_round_trip(list, cls);
    ZTPacketFreeList(&list, cls);
  } else {
    void *item = MakeItemFromPacket(pm, cls);
    if (item != nullptr) {
      ZTListNode *one = nullptr;
      AddList(&one, static_cast<ZTListNode *>(item));
      check_round_trip(one, cls);
      ZTPacketFreeList(&one, cls);
    }
  }
  FreePacketMemory(&pm);
  return 0;
}
