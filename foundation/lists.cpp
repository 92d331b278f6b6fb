// Intrusive doubly linked lists over ZTListNode.
//
// Every operation that takes a list first finds the true first node by the
// previous links and repairs its bookkeeping when it is stale, then works on
// that node. The caller's pointer is rewritten only when the node it names
// leaves the list or when it named the first node and another node takes
// that place; a caller that points further in keeps its pointer.
//
// Only the first node's count and last fields mean anything. We zero them in
// every node that stops being first, so that a node carries no bookkeeping
// from a list it has left and a pointer into the middle of a list is always
// seen as stale.
#include <zt/lists.h>

#include <cstdlib>
#include <cstring>

#include "foundation/internal.h"

namespace zt::foundation {
namespace {

constexpr const char *kModule = "ZTLists";

ZTListNode *true_first(ZTListNode *node) {
  while (node->previous != nullptr) node = node->previous;
  return node;
}

void clear_bookkeeping(ZTListNode *node) {
  node->count = 0;
  node->last = nullptr;
}

void recount(ZTListNode *first) {
  uint32_t count = 1;
  ZTListNode *last = first;
  while (last->next != nullptr) {
    last = last->next;
    ++count;
  }
  first->count = count;
  first->last = last;
}

// The true first node of the list that `node` lies in, with its count and
// last field valid; NULL for an empty list.
ZTListNode *repaired_first(ZTListNode *node) {
  if (node == nullptr) return nullptr;
  ZTListNode *first = true_first(node);
  if (node->count == 0 || first->count == 0) recount(first);
  return first;
}

void start_list(ZTListNode **list, ZTListNode *node) {
  node->previous = nullptr;
  node->next = nullptr;
  node->count = 1;
  node->last = node;
  *list = node;
}

void link_at_end(ZTListNode *first, ZTListNode *node) {
  ZTListNode *last = first->last;
  node->previous = last;
  node->next = nullptr;
  clear_bookkeeping(node);
  last->next = node;
  first->last = node;
  ++first->count;
}

void link_before(ZTListNode **list, ZTListNode *first, ZTListNode *at, ZTListNode *node) {
  if (at == first) {
    node->previous = nullptr;
    node->next = first;
    node->count = first->count + 1;
    node->last = first->last;
    first->previous = node;
    clear_bookkeeping(first);
    if (*list == first) *list = node;
    return;
  }
  node->previous = at->previous;
  node->next = at;
  clear_bookkeeping(node);
  at->previous->next = node;
  at->previous = node;
  ++first->count;
}

void link_after(ZTListNode *first, ZTListNode *at, ZTListNode *node) {
  if (at == first->last || at->next == nullptr) {
    link_at_end(first, node);
    return;
  }
  node->previous = at;
  node->next = at->next;
  clear_bookkeeping(node);
  at->next->previous = node;
  at->next = node;
  ++first->count;
}

void unlink(ZTListNode **list, ZTListNode *first, ZTListNode *node) {
  if (node == first) {
    ZTListNode *next = node->next;
    if (next != nullptr) {
      next->previous = nullptr;
      next->count = first->count - 1;
      next->last = first->last;
    }
    if (*list == first) *list = next;
  } else {
    --first->count;
    node->previous->next = node->next;
    if (node->next != nullptr)
      node->next->previous = node->previous;
    else
      first->last = node->previous;
    // A caller that named this node mid-list is left with the list itself.
    if (*list == node) *list = first;
  }
  node->next = nullptr;
  node->previous = nullptr;
  clear_bookkeeping(node);
}

void release_owned(ZTListNode *node) {
  std::free(node->owned);
  node->owned = nullptr;
}

// Descending (direction 1) goes before the first key <= the new one,
// ascending before the first key >= it, so a new key lands ahead of its equals.
void insert_by_key(ZTListNode **list, ZTListNode *node, uint64_t key, int32_t direction) {
  if (list == nullptr || node == nullptr) return;
  node->key = key;
  node->next = nullptr;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr) {
    start_list(list, node);
    return;
  }
  const bool descending = direction == 1;
  for (ZTListNode *at = first; at != nullptr; at = at->next) {
    if (descending ? at->key <= key : at->key >= key) {
      link_before(list, first, at, node);
      return;
    }
  }
  link_at_end(first, node);
}

const char *name_of(const ZTListNode *node) {
  return node->owned != nullptr ? static_cast<const char *>(node->owned) : "";
}

// Our own ASCII folding: strcasecmp follows the locale, and a list's order
// must not change with the host's locale.
unsigned char ascii_lower(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }

int compare_names(const char *a, const char *b, bool nocase) {
  if (!nocase) return std::strcmp(a, b);
  for (;; ++a, ++b) {
    const unsigned char ca = ascii_lower(static_cast<unsigned char>(*a));
    const unsigned char cb = ascii_lower(static_cast<unsigned char>(*b));
    if (ca != cb || ca == 0) return static_cast<int>(ca) - static_cast<int>(cb);
  }
}

// The new node goes before the first greater name, so equal names keep the
// order in which they arrived.
void insert_by_name(ZTListNode **list, ZTListNode *node, bool nocase) {
  if (list == nullptr || node == nullptr) return;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr) {
    start_list(list, node);
    return;
  }
  const char *name = name_of(node);
  for (ZTListNode *at = first; at != nullptr; at = at->next) {
    if (compare_names(name_of(at), name, nocase) > 0) {
      link_before(list, first, at, node);
      return;
    }
  }
  link_at_end(first, node);
}

// The first node named `name` in a name-ordered list and its rank; the walk
// stops at the first greater name.
ZTListNode *find_by_name(ZTListNode *list, const char *name, bool nocase, int32_t *rank) {
  if (list == nullptr) return nullptr;
  if (name == nullptr) name = "";
  int32_t index = 0;
  for (ZTListNode *at = true_first(list); at != nullptr; at = at->next, ++index) {
    const int order = compare_names(name_of(at), name, nocase);
    if (order == 0) {
      if (rank != nullptr) *rank = index;
      return at;
    }
    if (order > 0) break;
  }
  return nullptr;
}

}  // namespace
}  // namespace zt::foundation

using namespace zt::foundation;

ZTListNode *AddList(ZTListNode **list, ZTListNode *node) {
  if (list == nullptr) return nullptr;
  ZTListNode *first = repaired_first(*list);
  if (node == nullptr) return first;
  if (first == nullptr) {
    start_list(list, node);
    return nullptr;
  }
  ZTListNode *former_last = first->last;
  link_at_end(first, node);
  return former_last;
}

void AddListList(ZTListNode **list, ZTListNode *other) {
  if (list == nullptr) return;
  ZTListNode *first = repaired_first(*list);
  if (other == nullptr) return;
  // `other` is taken as a first node even when it still has a previous link:
  // that is how a caller hands over the tail it has cut from a list by hand.
  other->previous = nullptr;
  if (other->count == 0) recount(other);
  if (first == nullptr) {
    *list = other;
    return;
  }
  first->last->next = other;
  other->previous = first->last;
  first->count += other->count;
  first->last = other->last;
  clear_bookkeeping(other);
}

ZTListNode *RemoveItemFromList(ZTListNode **list, ZTListNode *node) {
  if (list == nullptr) return nullptr;
  ZTListNode *first = repaired_first(*list);
  if (node == nullptr) return first;
  if (first == nullptr) return nullptr;
  unlink(list, first, node);
  release_owned(node);
  return nullptr;
}

ZTListNode *RemoveList(ZTListNode **list, ZTListNode *node) {
  if (list == nullptr) return nullptr;
  ZTListNode *first = repaired_first(*list);
  if (node == nullptr) return first;
  if (first == nullptr) return nullptr;
  unlink(list, first, node);
  FreeListElement(node);
  return nullptr;
}

void ReplaceInList(ZTListNode **list, ZTListNode *old, ZTListNode *replacement) {
  if (list == nullptr || old == nullptr || replacement == nullptr || old == replacement) return;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr) return;
  replacement->next = old->next;
  if (old->next != nullptr) old->next->previous = replacement;
  if (old == first) {
    replacement->previous = nullptr;
    replacement->count = old->count;
    replacement->last = old->last == old ? replacement : old->last;
  } else {
    replacement->previous = old->previous;
    old->previous->next = replacement;
    clear_bookkeeping(replacement);
    if (first->last == old) first->last = replacement;
  }
  if (*list == old) *list = replacement;
  old->next = nullptr;
  old->previous = nullptr;
  clear_bookkeeping(old);
  release_owned(old);
}

void InsertInPositionList(ZTListNode **list, ZTListNode *node, uint32_t position) {
  if (list == nullptr || node == nullptr) return;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr) {
    start_list(list, node);
    return;
  }
  ZTListNode *at = first;
  for (uint32_t i = 0; i < position && at != nullptr; ++i) at = at->next;
  if (at == nullptr)
    link_at_end(first, node);
  else
    link_before(list, first, at, node);
}

void InsertItemInListBefore(ZTListNode **list, ZTListNode *reference, ZTListNode *node) {
  if (list == nullptr || node == nullptr) return;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr)
    start_list(list, node);
  else if (reference == nullptr)
    link_at_end(first, node);
  else
    link_before(list, first, reference, node);
}

void InsertItemInListAfter(ZTListNode **list, ZTListNode *reference, ZTListNode *node) {
  if (list == nullptr || node == nullptr) return;
  ZTListNode *first = repaired_first(*list);
  if (first == nullptr)
    start_list(list, node);
  else if (reference == nullptr)
    link_at_end(first, node);
  else
    link_after(first, reference, node);
}

void InsertOrderedByNumber64List(ZTListNode **list, ZTListNode *node, uint64_t key, int32_t direction) {
  insert_by_key(list, node, key, direction);
}

void InsertOrderedByNumberList(ZTListNode **list, ZTListNode *node, uint32_t key, int32_t direction) {
  insert_by_key(list, node, key, direction);
}

void InsertOrderedList(ZTListNode **list, ZTListNode *node) { insert_by_name(list, node, false); }

void InsertOrderedNoCaseList(ZTListNode **list, ZTListNode *node) { insert_by_name(list, node, true); }

int32_t InsertOrderedByNameList(ZTListNode **list, ZTListNode *node, const char *name) {
  if (list == nullptr || node == nullptr) {
    ZT_LOG(kModule, "InsertOrderedByNameList", "No list or node given");
    return -1;
  }
  char *copy = nullptr;
  if (name != nullptr) {
    const size_t size = std::strlen(name) + 1;
    copy = static_cast<char *>(std::malloc(size));
    if (copy == nullptr) {
      ZT_LOG_NOMEM(kModule, "InsertOrderedByNameList", size);
      return -1;
    }
    std::memcpy(copy, name, size);
  }
  release_owned(node);
  node->owned = copy;
  insert_by_name(list, node, false);
  return 0;
}

ZTListNode *FindOrderedList(ZTListNode *list, const char *name, int32_t nocase) {
  return find_by_name(list, name, nocase != 0, nullptr);
}

int32_t RankOrderedList(ZTListNode *list, const char *name, int32_t nocase) {
  int32_t rank = -1;
  find_by_name(list, name, nocase != 0, &rank);
  return rank;
}

uint32_t ListLength(ZTListNode *node) {
  if (node == nullptr) return 0;
  if (node->previous != nullptr) {
    uint32_t count = 0;
    for (; node != nullptr; node = node->next) ++count;
    return count;
  }
  if (node->count == 0) recount(node);
  return node->count;
}

uint32_t RankList(const ZTListNode *node) {
  if (node == nullptr) return UINT32_MAX;
  uint32_t rank = 0;
  for (node = node->previous; node != nullptr; node = node->previous) ++rank;
  return rank;
}

ZTListNode *FindByRankList(ZTListNode *node, int32_t rank) {
  for (; node != nullptr && rank > 0; --rank) node = node->next;
  for (; node != nullptr && rank < 0; ++rank) node = node->previous;
  return node;
}

ZTListNode *LastItemList(ZTListNode *node) {
  if (node == nullptr) return nullptr;
  if (node->previous != nullptr) {
    while (node->next != nullptr) node = node->next;
    return node;
  }
  if (node->count == 0) recount(node);
  return node->last;
}

void FreeList(ZTListNode **list) {
  if (list == nullptr) return;
  ZTListNode *node = *list != nullptr ? true_first(*list) : nullptr;
  while (node != nullptr) {
    ZTListNode *next = node->next;
    FreeListElement(node);
    node = next;
  }
  *list = nullptr;
}

void FreeListElement(ZTListNode *node) {
  if (node == nullptr) return;
  std::free(node->owned);
  std::free(node);
}
