#include <gtest/gtest.h>
#include <zt/lists.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <vector>

namespace {

using Nodes = std::vector<ZTListNode *>;

ZTListNode *make_node(const char *name = nullptr) {
  auto *node = static_cast<ZTListNode *>(std::calloc(1, sizeof(ZTListNode)));
  if (name != nullptr) node->owned = strdup(name);
  return node;
}

Nodes make_nodes(size_t n) {
  Nodes nodes;
  for (size_t i = 0; i < n; ++i) nodes.push_back(make_node());
  return nodes;
}

ZTListNode *build(const Nodes &nodes) {
  ZTListNode *list = nullptr;
  for (ZTListNode *node : nodes) AddList(&list, node);
  return list;
}

// The links both ways and the first node's bookkeeping match `expected`.
void expect_list(ZTListNode *list, const Nodes &expected) {
  if (expected.empty()) {
    EXPECT_EQ(list, nullptr);
    return;
  }
  ASSERT_EQ(list, expected.front());
  EXPECT_EQ(list->previous, nullptr);
  EXPECT_EQ(list->count, expected.size());
  EXPECT_EQ(list->last, expected.back());
  const ZTListNode *node = list;
  for (size_t i = 0; i < expected.size(); ++i, node = node->next) {
    ASSERT_EQ(node, expected[i]) << "at " << i;
    EXPECT_EQ(node->previous, i == 0 ? nullptr : expected[i - 1]) << "at " << i;
  }
  EXPECT_EQ(node, nullptr);
}

TEST(ZTLists, StaleCountIsRepairedInTrueFirstNode) {
  Nodes n = make_nodes(5);
  ZTListNode *list = build({n[0], n[1], n[2], n[3]});
  list->count = 0;
  list->last = nullptr;
  EXPECT_EQ(ListLength(list), 4u);
  EXPECT_EQ(list->last, n[3]);

  // The caller's pointer names a node further in: the bookkeeping still lands
  // in n[0], and the pointer stays where it was.
  n[0]->count = 0;
  ZTListNode *inner = n[2];
  EXPECT_EQ(AddList(&inner, n[4]), n[3]);
  EXPECT_EQ(inner, n[2]);
  expect_list(n[0], n);

  n[0]->count = 0;
  inner = n[1];
  EXPECT_EQ(RemoveList(&inner, n[4]), nullptr);
  EXPECT_EQ(inner, n[1]);
  expect_list(n[0], {n[0], n[1], n[2], n[3]});
  FreeList(&inner);
  EXPECT_EQ(inner, nullptr);
}

TEST(ZTLists, WalkingByRank) {
  Nodes n = make_nodes(4);
  ZTListNode *list = build(n);
  EXPECT_EQ(FindByRankList(list, -1), nullptr);
  EXPECT_EQ(FindByRankList(n[3], 1), nullptr);
  EXPECT_EQ(FindByRankList(n[1], 2), n[3]);
  EXPECT_EQ(FindByRankList(n[3], -3), n[0]);
  EXPECT_EQ(FindByRankList(n[3], INT32_MIN), nullptr);
  EXPECT_EQ(RankList(n[3]), 3u);
  EXPECT_EQ(RankList(nullptr), UINT32_MAX);
  EXPECT_EQ(RemoveItemFromList(&list, nullptr), n[0]);
  EXPECT_EQ(AddList(&list, nullptr), n[0]);
  // From inside the list the length and last node come from walking.
  EXPECT_EQ(ListLength(n[1]), 3u);
  EXPECT_EQ(LastItemList(n[1]), n[3]);
  // A lone calloc'ed node (count 0) counts as a list of one.
  ZTListNode *lone = make_node();
  EXPECT_EQ(ListLength(lone), 1u);
  EXPECT_EQ(LastItemList(lone), lone);
  FreeListElement(lone);
  FreeList(&list);
}

TEST(ZTLists, AppendList) {
  Nodes n = make_nodes(5);
  ZTListNode *list = nullptr;
  AddListList(&list, nullptr);
  EXPECT_EQ(list, nullptr);
  AddListList(&list, build(n));  // onto an empty list; appends are the model test's
  expect_list(list, n);

  // A tail cut off by hand keeps a previous link into the old list.
  n[2]->previous->next = nullptr;
  list->count = 0;
  ZTListNode *tail = nullptr;
  AddListList(&tail, n[2]);
  expect_list(tail, {n[2], n[3], n[4]});
  EXPECT_EQ(ListLength(list), 2u);
  expect_list(list, {n[0], n[1]});
  FreeList(&tail);
  FreeList(&list);
}

TEST(ZTLists, NameOrder) {
  ZTListNode *list = nullptr;
  ZTListNode *b1 = make_node("b"), *upper = make_node("B"), *b2 = make_node("b");
  ZTListNode *unnamed = make_node(), *high = make_node("\xe9");
  for (ZTListNode *node : {b1, high, upper, b2, unnamed}) InsertOrderedList(&list, node);
  // NULL sorts as "", bytes compare unsigned, equal names keep their arrival.
  expect_list(list, {unnamed, upper, b1, b2, high});
  EXPECT_EQ(FindOrderedList(list, "b", 0), b1);
  EXPECT_EQ(RankOrderedList(list, "b", 0), 2);
  EXPECT_EQ(FindOrderedList(list, nullptr, 0), unnamed);
  EXPECT_EQ(FindOrderedList(list, "a", 0), nullptr);
  EXPECT_EQ(RankOrderedList(list, "c", 0), -1);
  EXPECT_EQ(FindOrderedList(nullptr, "b", 0), nullptr);
  FreeList(&list);

  ZTListNode *x = make_node("x"), *a_upper = make_node("Abc"), *a_lower = make_node("abc");
  ZTListNode *ab = make_node("AB"), *bracket = make_node("[");
  for (ZTListNode *node : {x, a_upper, bracket, a_lower, ab}) InsertOrderedNoCaseList(&list, node);
  // '[' lies between 'Z' and 'a': folding to lower case puts it before the letters.
  expect_list(list, {bracket, ab, a_upper, a_lower, x});
  EXPECT_EQ(FindOrderedList(list, "ABC", 1), a_upper);
  EXPECT_EQ(RankOrderedList(list, "X", 1), 4);
  FreeList(&list);

  // The node gets its own copy, and its former name is released.
  ZTListNode *named = make_node("old");
  char name[] = "m";
  EXPECT_EQ(InsertOrderedByNameList(&list, named, name), 0);
  name[0] = 'z';
  EXPECT_EQ(FindOrderedList(list, "m", 0), named);
  FreeList(&list);
}

// Random operations against std::list, checking links and bookkeeping after
// each one, with the first node's count zeroed now and then. Detached nodes
// lose their owned names and links but not their memory (ASan sees both);
// ordered insertion compares keys unsigned (a signed comparison would put the
// top-bit keys first) and puts a node before its equals.
TEST(ZTLists, MatchesModelUnderRandomOperations) {
  std::mt19937 rng(20240611);
  std::list<ZTListNode *> model;
  ZTListNode *list = nullptr;
  auto pick = [&](size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(rng); };
  auto model_at = [&](size_t i) { return std::next(model.begin(), static_cast<long>(i)); };
  auto expect_detached = [](const ZTListNode *node) {
    EXPECT_EQ(node->owned, nullptr);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->previous, nullptr);
  };
  const uint64_t keys[] = {0, 1, 5, 5, 7, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x8000000000000000ull};

  for (int step = 0; step < 4000; ++step) {
    const size_t size = model.size();
    const size_t op = pick(10);
    if (size != 0 && pick(8) == 0) list->count = 0;
    if (size == 0 || op <= 1) {
      ZTListNode *node = make_node(pick(2) != 0 ? "n" : nullptr);
      EXPECT_EQ(AddList(&list, node), size == 0 ? nullptr : model.back());  // the former last
      model.push_back(node);
    } else if (op == 2) {
      auto it = model_at(pick(size));
      RemoveList(&list, *it);
      model.erase(it);
    } else if (op == 3) {
      auto it = model_at(pick(size));
      ZTListNode *node = *it;
      EXPECT_EQ(RemoveItemFromList(&list, node), nullptr);
      model.erase(it);
      expect_detached(node);
      const size_t position = pick(size + 2);
      InsertInPositionList(&list, node, static_cast<uint32_t>(position));
      model.insert(position < model.size() ? model_at(position) : model.end(), node);
    } else if (op == 4) {
      auto it = model_at(pick(size));
      ZTListNode *node = make_node("r");
      ReplaceInList(&list, *it, node);
      expect_detached(*it);
      FreeListElement(*it);
      *it = node;
    } else if (op == 5 || op == 6) {
      // One reference in size + 1 is NULL, which appends.
      const size_t at = pick(size + 1);
      ZTListNode *reference = at < size ? *model_at(at) : nullptr;
      ZTListNode *node = make_node();
      if (op == 5)
        InsertItemInListBefore(&list, reference, node);
      else
        InsertItemInListAfter(&list, reference, node);
      model.insert(at == size ? model.end() : std::next(model_at(at), op == 5 ? 0 : 1), node);
    } else if (op == 7) {
      // A second list, its count stale now and then, goes on the end.
      Nodes other = make_nodes(pick(3));
      ZTListNode *head = build(other);
      if (head != nullptr && pick(2) == 0) head->count = 0;
      AddListList(&list, head);
      model.insert(model.end(), other.begin(), other.end());
    } else {
      // Ordered insertion into an unordered list still goes before the first
      // node that satisfies the comparison.
      ZTListNode *node = make_node();
      const uint64_t key = keys[pick(std::size(keys))];
      const int32_t direction = static_cast<int32_t>(pick(2));
      if (key <= UINT32_MAX && pick(2) == 0)
        InsertOrderedByNumberList(&list, node, static_cast<uint32_t>(key), direction);
      else
        InsertOrderedByNumber64List(&list, node, key, direction);
      EXPECT_EQ(node->key, key);
      auto it = model.begin();
      while (it != model.end() && !(direction == 1 ? (*it)->key <= key : (*it)->key >= key)) ++it;
      model.insert(it, node);
    }
    expect_list(list, Nodes(model.begin(), model.end()));
    if (testing::Test::HasFailure()) {
      ADD_FAILURE() << "step " << step << " op " << op;
      break;
    }
  }
  FreeList(&list);
}

}  // namespace
