// Items as the field table owns them: allocation, release, deep copy,
// comparison and the blank test.
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace zt::packets {

namespace {

bool is_array(uint32_t type) {
  switch (type) {
    case 15: case 16: case 17: case 18: case 19: case 22: case 23: case 27: case 30: case 31: return true;
    default: return false;
  }
}

uint32_t element_width(const ZTFieldDesc &f) {
  switch (f.type) {
    case 15: return 8;
    case 16: return f.width == 1 || f.width == 2 ? f.width : 4;
    case 18: return 2;
    case 19: case 22: return 1;
    case 23: return sizeof(char *);
    default: return 4;
  }
}

uint32_t scalar_width(const ZTFieldDesc &f) {
  switch (f.type) {
    case 3: case 6: return 2;
    case 4: case 7: return 1;
    case 13: return f.width == 1 || f.width == 2 ? f.width : 4;
    case 25: case 26: return 8;
    default: return 4;
  }
}

bool same_double(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

bool same_string(const char *a, const char *b) { return std::strcmp(a ? a : "", b ? b : "") == 0; }

bool compare_items(const RegistryReader &reg, const ClassInfo &cls, const void *a, const void *b);

bool compare_lists(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *a, const ZTListNode *b) {
  while (a != nullptr && b != nullptr) {
    if (!compare_items(reg, cls, a, b)) return false;
    a = a->next;
    b = b->next;
  }
  return a == nullptr && b == nullptr;
}

uint32_t count_of(const ZTFieldDesc &f, const void *item) {
  return load<const void *>(item, f.offset) == nullptr ? 0 : load<uint32_t>(item, f.offset2);
}

bool compare_field(const RegistryReader &reg, const ZTFieldDesc &f, const void *a, const void *b) {
  switch (f.type) {
    case 8: return same_double(load<double>(a, f.offset), load<double>(b, f.offset));
    case 9: return same_string(load<const char *>(a, f.offset), load<const char *>(b, f.offset));
    case 14:
      return load<uint32_t>(a, f.offset) == load<uint32_t>(b, f.offset) &&
             load<uint32_t>(a, f.offset2) == load<uint32_t>(b, f.offset2);
    case 11: {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      return sub != nullptr &&
             compare_lists(reg, *sub, load<const ZTListNode *>(a, f.offset), load<const ZTListNode *>(b, f.offset));
    }
    case 12: {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      const uint32_t n = count_of(f, a);
      if (sub == nullptr || n != count_of(f, b)) return false;
      const char *ra = load<const char *>(a, f.offset), *rb = load<const char *>(b, f.offset);
      for (uint32_t i = 0; i < n; ++i)
        if (!compare_items(reg, *sub, ra + static_cast<size_t>(i) * sub->item_size,
                           rb + static_cast<size_t>(i) * sub->item_size))
          return false;
      return true;
    }
    default:
      break;
  }
  if (is_array(f.type)) {
    const uint32_t n = count_of(f, a);
    if (n != count_of(f, b)) return false;
    if (n == 0) return true;
    const char *pa = load<const char *>(a, f.offset), *pb = load<const char *>(b, f.offset);
    if (f.type == 15) {
      for (uint32_t i = 0; i < n; ++i)
        if (!same_double(load<double>(pa, i * 8), load<double>(pb, i * 8))) return false;
      return true;
    }
    if (f.type == 23) {
      for (uint32_t i = 0; i < n; ++i)
        if (!same_string(load<const char *>(pa, i * 8), load<const char *>(pb, i * 8))) return false;
      return true;
    }
    return std::memcmp(pa, pb, static_cast<size_t>(n) * element_width(f)) == 0;
  }
  return std::memcmp(static_cast<const char *>(a) + f.offset, static_cast<const char *>(b) + f.offset,
                     scalar_width(f)) == 0;
}

bool compare_items(const RegistryReader &reg, const ClassInfo &cls, const void *a, const void *b) {
  for (const ZTFieldDesc &f : cls.fields) {
    if (f.type > 31 || f.type == 10) continue;
    if (!compare_field(reg, f, a, b)) return false;
  }
  return true;
}

void *dup_item(const RegistryReader &reg, const ClassInfo &cls, const void *src);
ZTListNode *dup_list(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *src, bool &ok);

// Copies the owned parts of `src` into `dst`, which starts as a shallow copy
// with every owned pointer cleared. On failure `dst` holds only what was
// copied, so free_fields can release it.
bool dup_fields(const RegistryReader &reg, const ClassInfo &cls, const void *src, void *dst) {
  for (const ZTFieldDesc &f : cls.fields) {
    if (f.type > 31) continue;
    if (f.type == 9 || f.type == 11 || f.type == 12 || is_array(f.type)) store<void *>(dst, f.offset, nullptr);
  }
  for (const ZTFieldDesc &f : cls.fields) {
    if (f.type > 31) continue;
    if (f.type == 9) {
      const char *s = load<const char *>(src, f.offset);
      if (s == nullptr) continue;
      char *copy = strdup(s);
      if (copy == nullptr) return false;
      store<char *>(dst, f.offset, copy);
    } else if (f.type == 11) {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      if (sub == nullptr) return false;
      bool ok = true;
      ZTListNode *copy = dup_list(reg, *sub, load<const ZTListNode *>(src, f.offset), ok);
      if (!ok) return false;
      store<ZTListNode *>(dst, f.offset, copy);
    } else if (f.type == 12) {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      const uint32_t n = count_of(f, src);
      if (sub == nullptr) return false;
      if (n == 0) continue;
      const char *run = load<const char *>(src, f.offset);
      char *copy = static_cast<char *>(std::calloc(n, sub->item_size));
      if (copy == nullptr) return false;
      store<char *>(dst, f.offset, copy);
      for (uint32_t i = 0; i < n; ++i) {
        const size_t at = static_cast<size_t>(i) * sub->item_size;
        std::memcpy(copy + at, run + at, sub->item_size);
        if (!dup_fields(reg, *sub, run + at, copy + at)) {
          // Later entries still alias the source; cut the run to what is ours.
          store<uint32_t>(dst, f.offset2, i + 1);
          return false;
        }
      }
    } else if (is_array(f.type)) {
      const uint32_t n = count_of(f, src);
      if (n == 0) continue;
      const char *arr = load<const char *>(src, f.offset);
      const size_t bytes = static_cast<size_t>(n) * element_width(f);
      char *copy = static_cast<char *>(std::calloc(1, bytes));
      if (copy == nullptr) return false;
      store<char *>(dst, f.offset, copy);
      if (f.type == 23) {
        for (uint32_t i = 0; i < n; ++i) {
          const char *s = load<const char *>(arr, i * 8);
          if (s == nullptr) continue;
          char *c = strdup(s);
          if (c == nullptr) return false;
          store<char *>(copy, i * 8, c);
        }
      } else {
        std::memcpy(copy, arr, bytes);
      }
    }
  }
  return true;
}

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

}  // namespace

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

void free_field(const RegistryReader &reg, const ZTFieldDesc &f, void *item) {
  switch (f.type) {
    case 9:
      std::free(load<char *>(item, f.offset));
      store<char *>(item, f.offset, nullptr);
      return;
    case 11: {
      ZTListNode *list = load<ZTListNode *>(item, f.offset);
      if (list == nullptr) return;
      if (const ClassInfo *sub = reg.lookup(f.sub_class)) {
        free_list(reg, *sub, &list);
      } else {
        FreeList(&list);
      }
      store<ZTListNode *>(item, f.offset, nullptr);
      return;
    }
    case 12: {
      char *run = load<char *>(item, f.offset);
      if (run == nullptr) return;
      const uint32_t n = load<uint32_t>(item, f.offset2);
      if (const ClassInfo *sub = reg.lookup(f.sub_class))
        for (uint32_t i = 0; i < n; ++i) free_fields(reg, *sub, run + static_cast<size_t>(i) * sub->item_size);
      std::free(run);
      store<char *>(item, f.offset, nullptr);
      store<uint32_t>(item, f.offset2, 0);
      return;
    }
    case 23: {
      char **strs = load<char **>(item, f.offset);
      if (strs == nullptr) return;
      const uint32_t n = load<uint32_t>(item, f.offset2);
      for (uint32_t i = 0; i < n; ++i) std::free(strs[i]);
      std::free(strs);
      store<char **>(item, f.offset, nullptr);
      store<uint32_t>(item, f.offset2, 0);
      return;
    }
    default:
      if (is_array(f.type)) {
        std::free(load<void *>(item, f.offset));
        store<void *>(item, f.offset, nullptr);
        store<uint32_t>(item, f.offset2, 0);
      }
      return;
  }
}

void free_fields(const RegistryReader &reg, const ClassInfo &cls, void *item) {
  for (const ZTFieldDesc &f : cls.fields)
    if (f.type <= 31) free_field(reg, f, item);
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
