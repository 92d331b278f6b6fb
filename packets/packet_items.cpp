// Items as their class's rows own them: allocation, release, deep copy,
// comparison and the blank test. What each field owns and how it is copied or
// compared is its type's row (packets/field_types.h).
#include "foundation/internal.h"
#include "packets/field_types.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <cstdlib>
#include <cstring>

namespace zt::packets {

namespace {

void *dup_item(const RegistryReader &reg, const ClassInfo &cls, const void *src) {
  void *dst = alloc_item(cls, kModule, "DuplicatePacketItem");
  if (dst == nullptr) return nullptr;
  std::memcpy(dst, src, cls.item_size);
  std::memset(dst, 0, sizeof(ZTListNode));
  if (!dup_fields(reg, cls, src, dst)) {
    ZT_LOG(kModule, "DuplicatePacketItem", "Failed To Duplicate Item Of Storage Class %d", static_cast<int>(cls.number));
    free_fields(reg, cls, dst);
    std::free(dst);
    return nullptr;
  }
  return dst;
}

}  // namespace

bool compare_lists(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *a, const ZTListNode *b) {
  while (a != nullptr && b != nullptr) {
    if (!compare_items(reg, cls, a, b)) return false;
    a = a->next;
    b = b->next;
  }
  return a == nullptr && b == nullptr;
}

bool compare_items(const RegistryReader &reg, const ClassInfo &cls, const void *a, const void *b) {
  for (const Field &f : cls.fields) {
    if (f.type->compare != nullptr && !f.type->compare(reg, f, a, b)) return false;
  }
  return true;
}

bool dup_fields(const RegistryReader &reg, const ClassInfo &cls, const void *src, void *dst) {
  // Every owned pointer is cleared first, so that a failure part-way leaves
  // nothing in `dst` that still belongs to `src`.
  for (const Field &f : cls.fields)
    if (f.type->owner == Owner::kPointer) store<void *>(dst, f.offset, nullptr);
  for (const Field &f : cls.fields)
    if (f.type->copy != nullptr && !f.type->copy(reg, f, src, dst)) return false;
  return true;
}

ZTListNode *dup_list(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *src, bool &ok) {
  ZTListNode *out = nullptr;
  ok = true;
  for (const ZTListNode *n = src; n != nullptr; n = n->next) {
    void *copy = dup_item(reg, cls, n);
    if (copy == nullptr) {
      free_list(reg, cls, &out);
      ok = false;
      return nullptr;
    }
    AddList(&out, static_cast<ZTListNode *>(copy));
  }
  return out;
}

void *alloc_item(const ClassInfo &cls, const char *module, const char *function) {
  const char *m = module ? module : "";
  const char *fn = function ? function : "";
  if (cls.item_size == 0) {
    ZT_LOG(kModule, "ZTPacketAllocateItemMemory",
           "Called from %s->%s For item: %d Size For allocations was 0, Not allocated", m, fn,
           static_cast<int>(cls.number));
    return nullptr;
  }
  void *item = std::calloc(1, cls.item_size);
  if (item == nullptr) {
    ZT_LOG(kModule, "ZTPacketAllocateItemMemory", "Called from %s->%s For item: %d Failed To Allocate %d Bytes Of Memeory",
           m, fn, static_cast<int>(cls.number), static_cast<int>(cls.item_size));
  }
  return item;
}

void free_fields(const RegistryReader &reg, const ClassInfo &cls, void *item) {
  for (const Field &f : cls.fields)
    if (f.type->release != nullptr) f.type->release(reg, f, item);
}

void free_list(const RegistryReader &reg, const ClassInfo &cls, ZTListNode **list) {
  if (list == nullptr || *list == nullptr) return;
  // Walk back to the true first node in case the caller holds an inner one.
  ZTListNode *n = *list;
  while (n->previous != nullptr) n = n->previous;
  while (n != nullptr) {
    ZTListNode *next = n->next;
    free_fields(reg, cls, n);
    std::free(n->owned);
    std::free(n);
    n = next;
  }
  *list = nullptr;
}

}  // namespace zt::packets

using namespace zt::packets;

extern "C" {

ZT_API void *ZTPacketAllocateItemMemory(uint32_t class_number, const char *module, const char *function) {
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    log_bad_class("ZTPacketAllocateItemMemory", class_number);
    return nullptr;
  }
  return alloc_item(*cls, module, function);
}

ZT_API void ZTPacketFreeItemFields(void *item, uint32_t class_number) {
  if (item == nullptr) return;
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    log_bad_class("ZTPacketFreeItemFields", class_number);
    return;
  }
  free_fields(reg, *cls, item);
}

ZT_API void ZTPacketFreeItem(void *item, uint32_t class_number) {
  if (item == nullptr) return;
  ZTPacketFreeItemFields(item, class_number);
  std::free(static_cast<ZTListNode *>(item)->owned);
  std::free(item);
}

ZT_API void ZTPacketFreeListItem(ZTListNode **list, void *item, uint32_t class_number) {
  if (item == nullptr) return;
  if (list != nullptr && *list != nullptr) RemoveItemFromList(list, static_cast<ZTListNode *>(item));
  ZTPacketFreeItem(item, class_number);
}

ZT_API void ZTPacketFreeList(ZTListNode **list, uint32_t class_number) {
  if (list == nullptr || *list == nullptr) return;
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    // The nodes still go, so nothing leaks but what the fields owned.
    log_bad_class("ZTPacketFreeList", class_number);
    FreeList(list);
    return;
  }
  free_list(reg, *cls, list);
}

ZT_API void ZTPacketFreeBinaryTree(void *root, uint32_t class_number) {
  if (root == nullptr) return;
  zt::api_guard_void(kModule, "ZTPacketFreeBinaryTree", [&] {
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) log_bad_class("ZTPacketFreeBinaryTree", class_number);
  // An explicit stack: a degenerate tree is as deep as it is long.
  std::vector<ZTListNode *> stack{static_cast<ZTListNode *>(root)};
  while (!stack.empty()) {
    ZTListNode *n = stack.back();
    stack.pop_back();
    if (n->previous) stack.push_back(n->previous);
    if (n->next) stack.push_back(n->next);
    if (cls != nullptr) free_fields(reg, *cls, n);
    std::free(n->owned);
    std::free(n);
  }
  });
}

ZT_API void ZTPacketFreeArray(ZTListNode **lists, uint32_t count, uint32_t class_number) {
  if (lists == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) ZTPacketFreeList(&lists[i], class_number);
  std::free(lists);
}

ZT_API void *DuplicatePacketItem(uint32_t class_number, const void *item) {
  return zt::api_guard<void *>(kModule, "DuplicatePacketItem", nullptr, [&]() -> void * {
    if (item == nullptr) return nullptr;
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("DuplicatePacketItem", class_number);
      return nullptr;
    }
    return dup_item(reg, *cls, item);
  });
}

ZT_API ZTListNode *DuplicatePacketList(uint32_t class_number, const ZTListNode *list) {
  return zt::api_guard<ZTListNode *>(kModule, "DuplicatePacketList", nullptr, [&]() -> ZTListNode * {
    if (list == nullptr) return nullptr;
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("DuplicatePacketList", class_number);
      return nullptr;
    }
    bool ok = true;
    return dup_list(reg, *cls, list, ok);
  });
}

ZT_API int32_t ComparePacketList(const ZTListNode *first, const ZTListNode *second, uint32_t class_number) {
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    log_bad_class("ComparePacketList", class_number);
    return 0;
  }
  return compare_lists(reg, *cls, first, second) ? 1 : 0;
}

ZT_API int32_t ComparePacketItem(const void *first, const void *second, uint32_t class_number) {
  if (first == nullptr || second == nullptr) return first == second ? 1 : 0;
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    log_bad_class("ComparePacketItem", class_number);
    return 0;
  }
  return compare_items(reg, *cls, first, second) ? 1 : 0;
}

ZT_API int32_t ZTPacketItemBlank(const void *item, uint32_t class_number) {
  if (item == nullptr) return 1;
  RegistryReader reg;
  const ClassInfo *cls = reg.lookup(class_number);
  if (cls == nullptr) {
    log_bad_class("ZTPacketItemBlank", class_number);
    return 0;
  }
  const auto *p = static_cast<const unsigned char *>(item);
  for (uint32_t i = 0; i < cls->item_size; ++i)
    if (p[i] != 0) return 0;
  return 1;
}

}  // extern "C"
