#include "packets/packets_fixture.h"

#include <zt/packets.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <atomic>
#include <random>
#include <thread>
#include <vector>
#include <string>
#include <sys/stat.h>

namespace {

using zt::test::array_of;
using zt::test::body_of;
using zt::test::encode_item;
using zt::test::new_child;
using zt::test::packet_of;
using zt::test::PacketMemoryPtr;
using PacketsText = zt::test::PacketsTest;

char *dup(const std::string &s) { return strdup(s.c_str()); }

// An item with every field type filled from `rng`; doubles are multiples of
// 1/8 so that "%.14g" carries them exactly.
ZTTestAll *random_all(std::mt19937 &rng) {
  auto *a = static_cast<ZTTestAll *>(std::calloc(1, sizeof(ZTTestAll)));
  auto u32 = [&] { return static_cast<uint32_t>(rng()); };
  auto dbl = [&] { return static_cast<double>(static_cast<int32_t>(rng())) / 8.0; };
  auto str = [&](bool allow_empty) {
    std::string s;
    const size_t n = rng() % 12 + (allow_empty ? 0 : 1);
    for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>(' ' + rng() % 95));
    return s;
  };
  a->t1 = static_cast<int32_t>(u32());
  a->t2 = u32();
  a->t3 = static_cast<int16_t>(u32());
  a->t4 = static_cast<int8_t>(u32());
  a->t5 = u32();
  a->t6 = static_cast<uint16_t>(u32());
  a->t7 = static_cast<uint8_t>(u32());
  a->t8 = dbl();
  if (rng() % 4) a->t9 = dup(str(false));
  for (uint32_t i = 0, n = rng() % 4; i < n; ++i) {
    AddList(&a->t11, &new_child(u32(), rng() % 2 ? str(false).c_str() : nullptr, dbl())->node);
  }
  a->t12_count = rng() % 3;
  if (a->t12_count) {
    a->t12 = static_cast<ZTTestChild *>(std::calloc(a->t12_count, sizeof(ZTTestChild)));
    for (uint32_t i = 0; i < a->t12_count; ++i) {
      a->t12[i].id = u32();
      a->t12[i].label = dup(str(false));
      a->t12[i].value = dbl();
    }
  }
  a->t13 = static_cast<uint16_t>(u32());
  a->t14a = u32();
  a->t14b = u32();
  auto fill = [&](auto *&ptr, uint32_t &count, auto make) {
    count = rng() % 5;
    using T = std::remove_reference_t<decltype(*ptr)>;
    ptr = count ? static_cast<T *>(std::calloc(count, sizeof(T))) : nullptr;
    for (uint32_t i = 0; i < count; ++i) ptr[i] = static_cast<T>(make());
  };
  fill(a->t15, a->t15_count, dbl);
  fill(a->t16, a->t16_count, u32);
  fill(a->t17, a->t17_count, u32);
  fill(a->t18, a->t18_count, u32);
  fill(a->t19, a->t19_count, u32);
  a->t20 = u32();
  a->t21 = u32();
  fill(a->t22, a->t22_count, u32);
  a->t23_count = rng() % 4;
  if (a->t23_count) {
    a->t23 = static_cast<char **>(std::calloc(a->t23_count, sizeof(char *)));
    for (uint32_t i = 0; i < a->t23_count; ++i) a->t23[i] = dup(str(true));
  }
  a->t24 = u32();
  a->t25 = static_cast<int64_t>(uint64_t{u32()} << 32 | u32());
  a->t26 = -static_cast<int64_t>(u32());
  fill(a->t27, a->t27_count, u32);
  a->t28 = u32();
  a->t29 = u32();
  fill(a->t30, a->t30_count, u32);
  fill(a->t31, a->t31_count, u32);
  return a;
}

TEST_F(PacketsText, ChildListIsWrittenExactly) {
  ZTListNode *list = nullptr;
  AddList(&list, &new_child(5, "a b  c", 1.5)->node);
  AddList(&list, &new_child(0xdeadbeef, "", -0.25)->node);
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  ASSERT_EQ(MakePacketDataFromList(pm.get(), list, ZT_CLASS_TEST_CHILD), 0);
  EXPECT_EQ(body_of(pm.get()),
            "SL 64\nSI 64\n1 5\n2 a b  c\n3 1.5\nTI 0\nSI 64\n1 deadbeef\n3 -0.25\nTI 0\nTL 0\n");
  ZTListNode *back = MakeListFromPacket(pm.get(), ZT_CLASS_TEST_CHILD);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(ListLength(back), 2u);
  // The empty string comes back as no string at all, and the inner blanks stay.
  auto *second = reinterpret_cast<ZTTestChild *>(back->next);
  EXPECT_EQ(second->label, nullptr);
  EXPECT_STREQ(reinterpret_cast<ZTTestChild *>(back)->label, "a b  c");
  EXPECT_EQ(ComparePacketList(list, back, ZT_CLASS_TEST_CHILD), 1);
  EXPECT_EQ(pm->read_offset, pm->body_length);
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
  ZTPacketFreeList(&back, ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(back, nullptr);
  expect_no_log();
}

TEST_F(PacketsText, EveryFieldTypeHasItsExactLine) {
  ZTTestAll a{};
  a.t1 = -1;
  a.t2 = 0xabcdef01u;
  a.t3 = -2;
  a.t4 = -128;
  a.t6 = 0xffff;
  a.t7 = 0x80;
  a.t8 = 0.1;
  a.t13 = 0x1234;
  a.t14a = 1;
  a.t14b = 0xffffffffu;
  a.t15 = array_of<double>({1.25, -3});
  a.t15_count = 2;
  a.t16 = array_of<uint16_t>({0xa, 0xffff});
  a.t16_count = 2;
  a.t19 = array_of<uint8_t>({0, 0xff});
  a.t19_count = 2;
  a.t22 = array_of<uint8_t>({0x00, 0x7f, 0xab});
  a.t22_count = 3;
  char *strs[] = {dup("x y"), dup(""), dup("z")};
  a.t23 = array_of<char *>({strs[0], strs[1], strs[2]});
  a.t23_count = 3;
  a.t25 = -1;
  a.t30 = array_of<uint32_t>({0x10});
  a.t30_count = 1;
  const std::string text = encode_item(&a, ZT_CLASS_TEST_ALL);
  EXPECT_EQ(text,
            "SI 65\n1 ffffffff\n2 abcdef01\n3 fffffffe\n4 ffffff80\n5 0\n6 ffff\n7 80\n8 0.1\n"
            "13 1234\n14 1 ffffffff\n15 2 1.25 -3\n16 2 a ffff\n19 2 0 ff\n20 0\n21 0\n22 3 007fab\n"
            "23 3 3 x y 0  1 z\n24 0\n25 ffffffffffffffff\n26 0\n28 0\n29 0\n30 1 10\nTI 0\n");
  PacketMemoryPtr pm = packet_of(text);
  auto *back = static_cast<ZTTestAll *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->t3, -2);
  EXPECT_EQ(back->t4, -128);
  EXPECT_EQ(back->t14b, 0xffffffffu);
  EXPECT_EQ(back->t25, -1);
  ASSERT_EQ(back->t23_count, 3u);
  EXPECT_STREQ(back->t23[0], "x y");
  EXPECT_STREQ(back->t23[1], "");
  EXPECT_EQ(ComparePacketItem(&a, back, ZT_CLASS_TEST_ALL), 1);
  ZTPacketFreeItem(back, ZT_CLASS_TEST_ALL);
  ZTPacketFreeItemFields(&a, ZT_CLASS_TEST_ALL);
  EXPECT_EQ(ZTPacketItemBlank(&a, ZT_CLASS_TEST_ALL), 0);
  ZTTestAll zero{};
  EXPECT_EQ(ZTPacketItemBlank(&zero, ZT_CLASS_TEST_ALL), 1);
  EXPECT_EQ(ZTPacketItemBlank(nullptr, ZT_CLASS_TEST_ALL), 1);
  expect_no_log();
}

TEST_F(PacketsText, RandomItemsSurviveEncodeDecodeDuplicate) {
  std::mt19937 rng(1234);
  ZTListNode *list = nullptr;
  for (int i = 0; i < 200; ++i) AddList(&list, &random_all(rng)->node);
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  ASSERT_EQ(MakePacketDataFromList(pm.get(), list, ZT_CLASS_TEST_ALL), 0);
  ZTListNode *back = MakeListFromPacket(pm.get(), ZT_CLASS_TEST_ALL);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(ComparePacketList(list, back, ZT_CLASS_TEST_ALL), 1);
  ZTListNode *copy = DuplicatePacketList(ZT_CLASS_TEST_ALL, back);
  EXPECT_EQ(ComparePacketList(copy, list, ZT_CLASS_TEST_ALL), 1);
  // The copy is deep: changing it leaves the original alone and the lists differ.
  auto *last = reinterpret_cast<ZTTestAll *>(LastItemList(copy));
  last->t7 ^= 1;
  EXPECT_EQ(ComparePacketList(copy, list, ZT_CLASS_TEST_ALL), 0);
  // A shorter list is unequal.
  ZTListNode *tail = LastItemList(copy);
  ZTPacketFreeListItem(&copy, tail, ZT_CLASS_TEST_ALL);
  EXPECT_EQ(ComparePacketList(copy, list, ZT_CLASS_TEST_ALL), 0);
  ZTPacketFreeList(&copy, ZT_CLASS_TEST_ALL);
  ZTPacketFreeList(&back, ZT_CLASS_TEST_ALL);
  ZTPacketFreeList(&list, ZT_CLASS_TEST_ALL);
  expect_no_log();
}

TEST_F(PacketsText, TreesAndSingleItemsAreFreedWithTheirFields) {
  // A root with two children through the list links (left = previous).
  ZTTestChild *root = new_child(1, "root", 0);
  root->node.previous = &new_child(2, "left", 0)->node;
  root->node.next = &new_child(3, "right", 0)->node;
  root->node.next->next = &new_child(4, "right-right", 0)->node;
  ZTPacketFreeBinaryTree(root, ZT_CLASS_TEST_CHILD);
  ZTPacketFreeBinaryTree(nullptr, ZT_CLASS_TEST_CHILD);
  ZTPacketFreeItem(nullptr, ZT_CLASS_TEST_CHILD);
  ZTTestChild *source = new_child(5, "x", 1);
  auto *copy = static_cast<ZTTestChild *>(DuplicatePacketItem(ZT_CLASS_TEST_CHILD, source));
  ZTPacketFreeItem(source, ZT_CLASS_TEST_CHILD);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->label, "x");
  ZTListNode *list = nullptr;
  AddList(&list, &copy->node);
  AddList(&list, &new_child(6, "y", 2)->node);
  ZTPacketFreeListItem(&list, copy, ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(ListLength(list), 1u);
  EXPECT_EQ(reinterpret_cast<ZTTestChild *>(list)->id, 6u);
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
  expect_no_log();
}

TEST_F(PacketsText, ArrayOfListsMakesOneList) {
  auto **lists = static_cast<ZTListNode **>(std::calloc(3, sizeof(ZTListNode *)));
  AddList(&lists[0], &new_child(1, "a", 0)->node);
  AddList(&lists[2], &new_child(2, "b", 0)->node);
  AddList(&lists[2], &new_child(3, "c", 0)->node);
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  ASSERT_EQ(MakeOnePacketDataListFromArrayLists(pm.get(), lists, 3, ZT_CLASS_TEST_CHILD), 0);
  ZTListNode *back = MakeListFromPacket(pm.get(), ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(ListLength(back), 3u);
  ZTPacketFreeList(&back, ZT_CLASS_TEST_CHILD);
  ZTPacketFreeArray(lists, 3, ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(MakeOnePacketDataListFromArrayLists(pm.get(), nullptr, 0, ZT_CLASS_TEST_CHILD), -1);
  expect_one_log("Passed A NULL Array To Try And Make packet from");
}

struct Damaged {
  const char *body;
  const char *message;
};

TEST_F(PacketsText, DamagedBodiesAreRefusedWithTheirMessage) {
  const Damaged cases[] = {
      {"SI 64\n7 \nTI 0\n", "Packet lineno: 2 No Data Detected In Packet. Failed To Parse Data:7 "},
      {"SI 64\n1 5\n", "Packet lineno: 3 Routine: 1 Attempted To Read A TAG at End Of Packet, End Marker Must Be Missing"},
      {"SI 64\n 5\nTI 0\n", "Packet lineno: 2 No Tag Detected In Packet."},
      {"SI 64\n1 5", "Packet lineno: 2 LF Missing In Packet. Failed To Parse Data:1 5"},
      {"XX 64\n", "Packet lineno: 1 Expecting Begin Item Tag of: SI Instead got tag:XX data:64"},
      {"SI 9999\nTI 0\n", "Packet lineno: 1 Begin Item , Illegal Storage Class 39321 Detected. Tag: SI Data: 9999 Aborting"},
      {"SI 6\nTI 0\n", "Specified Storage Class Of 100, But Item Had A Storage Class Of  6"},
      {"SI 64\nSI 64\n", "Packet lineno: 2 For Item Id 64(TestChild), Got Begin Item Tag. Expected TI TAG. Aborting"},
      {"SI 64\nSL 64\n", "Packet lineno: 2 For Item Id 64(TestChild), Got Begin List Tag. Expected TI TAG. Aborting"},
      {"SI 64\nTL 0\n", "Packet lineno: 2 For Item Id 64(TestChild), Got End List Tag. Expeced TI TAG. Aborting"},
  };
  for (const Damaged &c : cases) {
    SCOPED_TRACE(c.body);
    PacketMemoryPtr pm = packet_of(c.body);
    EXPECT_EQ(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_CHILD), nullptr);
    expect_one_log(c.message);
    EXPECT_EQ(pm->read_offset, 0u);
  }
  // Long lines are cut to 50 characters and marked.
  PacketMemoryPtr pm = packet_of("SI 64\n2 " + std::string(100, 'q'));
  EXPECT_EQ(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("Failed To Parse Data:2 " + std::string(48, 'q') + "...");

  PacketMemoryPtr list = packet_of("SI 64\n");
  EXPECT_EQ(MakeListFromPacket(list.get(), ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("Packet line no: 1, Expecting Start list Tag of: SL Instead got tag:SI Data:64");
  list = packet_of("SL 6\nTL 0\n");
  EXPECT_EQ(MakeListFromPacket(list.get(), ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("Specified Storage Class Of 100, But list Items Have A Storage Class  Of 6");
  list = packet_of("SL 64\nSI 64\nTI 0\n");
  EXPECT_EQ(MakeListFromPacket(list.get(), ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("Routine: 2 Attempted To Read A TAG at End Of Packet");

  EXPECT_EQ(MakeItemFromPacket(nullptr, ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("PacketMemory Struct  Is NULL No Processing Done");
  EXPECT_EQ(MakeListFromPacket(nullptr, ZT_CLASS_TEST_CHILD), nullptr);
  expect_one_log("PacketMemory Struct Is NULL No Processing Done");
}

TEST_F(PacketsText, UnknownTagsAreSkipped) {
  PacketMemoryPtr pm = packet_of("SI 64\n1 7\n99 far away\n2e 0\n2 kept\nTI 0\n");
  auto *c = static_cast<ZTTestChild *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_CHILD));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->id, 7u);
  EXPECT_STREQ(c->label, "kept");
  auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message,
            "Packet lineno: 3 Tag 99 For Item Id 64(TestChild) Not Recognised (outside range) Ignoring This Tag");
  log_.clear();
  ZTPacketFreeItem(c, ZT_CLASS_TEST_CHILD);
  // A tag inside the range but not in the table.
  ZTStorageClassDesc d{};
  ZTFieldDesc rows[] = {{5, 1, "A", 0, 0, 0, 0, sizeof(ZTListNode), 0}, {5, 4, "B", 0, 0, 0, 0, sizeof(ZTListNode) + 4, 0}, {}};
  d.item_size = sizeof(ZTListNode) + 8;
  d.fields = rows;
  d.field_count = 3;
  d.name = "Gap";
  ASSERT_EQ(ZTAddStorageClass(&d, 300), 0);
  pm = packet_of("SI 12c\n2 5\n4 9\nTI 0\n");
  void *g = MakeItemFromPacket(pm.get(), 300);
  ASSERT_NE(g, nullptr);
  expect_one_log("Packet lineno: 2 tag: 2 Not Found in For Item: 12c(Gap) Ignoring Tag");
  ZTPacketFreeItem(g, 300);
}

// One record a bad line made a 1 MiB body write 209,711 records (30 times its
// size in log). A body logs its first few ignored tags and then one summary.
TEST_F(PacketsText, IgnoredTagsLogAFewRecordsAndOneSummary) {
  std::string body = "SL 64\n";
  for (int item = 0; item < 50; ++item) {
    body += "SI 64\n1 7\n";
    for (int i = 0; i < 2000; ++i) body += "99 x\n";
    body += "TI 0\n";
  }
  body += "TL 0\n";
  PacketMemoryPtr pm = packet_of(body);
  ZTListNode *list = MakeListFromPacket(pm.get(), ZT_CLASS_TEST_CHILD);
  ASSERT_NE(list, nullptr);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3].message, "... and 99997 more tags ignored");
  log_.clear();
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
}

TEST_F(PacketsText, ArraysBinaryAndStringsCheckTheirData) {
  const Damaged cases[] = {
      {"SI 65\n22 2 0g00\nTI 0\n", "BINARY Data Expecting 2 Bytes Currrenty on: 0 and encountered invalid character: 67"},
      {"SI 65\n22 2 00a\nTI 0\n", "BINARY Data Expecting 2 Bytes Currrenty on: 1 and encountered invalid character: 0a"},
      {"SI 65\n23 2\nTI 0\n", "No Strings Found for String Array Packet line: <2>  With 2 Elements"},
      // Counts beyond what the line could hold are refused before any allocation.
      {"SI 65\n17 ffffffff 1\nTI 0\n", "Array Expecting -1 Elements"},
      {"SI 65\n17 ffffffffffffffff 1\nTI 0\n", "Array Expecting -1 Elements"},
      {"SI 65\n22 ffffffff 00\nTI 0\n", "BINARY Data Expecting -1 Bytes"},
      {"SI 65\n23 ffffffffffffffff 1 a\nTI 0\n", "Array Expecting -1 Elements"},
      {"SI 65\n12 ffffffff\nTI 0\n", "Array Expecting -1 Elements"},
      {"SI 65\n12 ffffffffffffffff\nTI 0\n", "Array Expecting -1 Elements"},
      {"SI 65\n15 3 1 2\nTI 0\n", "Array Expecting 3 Elements"},
  };
  for (const Damaged &c : cases) {
    SCOPED_TRACE(c.body);
    PacketMemoryPtr pm = packet_of(c.body);
    EXPECT_EQ(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL), nullptr);
    expect_one_log(c.message);
  }
  // The limits themselves pass: two elements in a line that holds exactly two.
  PacketMemoryPtr pm = packet_of("SI 65\n17 2 a b\n12 1\nSI 64\nTI 0\nTI 0\n");
  auto *a = static_cast<ZTTestAll *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->t17_count, 2u);
  EXPECT_EQ(a->t17[1], 0xbu);
  EXPECT_EQ(a->t12_count, 1u);
  ZTPacketFreeItem(a, ZT_CLASS_TEST_ALL);
  expect_no_log();
}

// Reference, duplicate and range refusals are the storage-class tests'.
TEST_F(PacketsText, RegistryRefusesBadClasses) {
  // A row that points past the item would let a body write outside it.
  ZTFieldDesc rows[] = {{5, 1, "L", 0, 0, 0, 0, sizeof(ZTListNode) + 4, 0}, {}};
  ZTStorageClassDesc d{0, sizeof(ZTListNode) + 4, rows, 2, "Past", nullptr, nullptr};
  EXPECT_EQ(ZTAddStorageClass(&d, 302), -1);
  expect_one_log("invalid tag or offset");
  EXPECT_EQ(ZTStorageClassExists(302), 0);
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  EXPECT_EQ(MakePacketDataFromItem(pm.get(), &d, 5000), -1);
  expect_one_log("StorageClass: 5000 Not Decodable By System");
  EXPECT_EQ(ZTPacketAllocateItemMemory(5000, "mod", "fn"), nullptr);
  expect_one_log("StorageClass: 5000 Not Decodable By System");
}

// Appends past several doublings keep the body; whatever goes in front lands
// before it, moving it only when the reserve is too small.
TEST_F(PacketsText, PacketMemoryGrowsByItsRule) {
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  const std::string big(10000, 'x');
  ASSERT_EQ(AppendPacketMemory(pm.get(), big.data(), big.size()), 0);
  for (int i = 0; i < 8; ++i) ASSERT_EQ(MaintainPacketMemory(pm.get(), pm->capacity), 0);
  EXPECT_EQ(body_of(pm.get()), big);
  char *data = pm->data;
  ASSERT_EQ(InsertDataBeforePMBuffer(pm.get(), "ab", 2), 0);
  ASSERT_EQ(InsertDataBeforePMBuffer(pm.get(), "XY", 2), 0);
  EXPECT_EQ(pm->data, data);
  EXPECT_EQ(std::string(pm->header, 4), "XYab");
  EXPECT_EQ(pm->total_length, big.size() + 4);
  std::string front(1000, 'h');
  ASSERT_EQ(InsertDataBeforePMBuffer(pm.get(), front.data(), front.size()), 0);
  EXPECT_EQ(std::string(pm->header, 1004), front + "XYab");
  EXPECT_EQ(body_of(pm.get()), big);
  pm->ptr = pm->data - 1;
  EXPECT_EQ(MaintainPacketMemory(pm.get(), 1), -1);
  expect_one_log("Corrupted packet memory detected (ptr < buf)");
  pm->ptr = pm->data + pm->body_length;
  FreePacketMemory(nullptr);
}

TEST_F(PacketsText, FilesKeepASafetyCopyAndHonourTheLimit) {
  ZTListNode *list = nullptr;
  AddList(&list, &new_child(1, "first", 2)->node);
  ASSERT_EQ(WritePacketDataFileFromList("jobs.pkt", list, ZT_CLASS_TEST_CHILD), 0);
  const std::string first = zt::test::read_file("jobs.pkt");
  AddList(&list, &new_child(2, "second", 3)->node);
  ASSERT_EQ(WritePacketDataFileFromList("jobs.pkt", list, ZT_CLASS_TEST_CHILD), 0);
  EXPECT_EQ(zt::test::read_file("jobs.pkt_dss"), first);
  ZTListNode *back = ReadListFromPacketDataFile("jobs.pkt", ZT_CLASS_TEST_CHILD);
  EXPECT_EQ(ComparePacketList(list, back, ZT_CLASS_TEST_CHILD), 1);
  ZTPacketFreeList(&back, ZT_CLASS_TEST_CHILD);

  const uint64_t size = zt::test::read_file("jobs.pkt").size();
  PacketMemoryPtr at_limit(ReadPacketFromFileSizeLimited("jobs.pkt", size));
  ASSERT_TRUE(at_limit);
  EXPECT_EQ(at_limit->body_length, size);
  expect_no_log();
  EXPECT_EQ(ReadPacketFromFileSizeLimited("jobs.pkt", size - 1), nullptr);
  expect_one_log("Is Above The Limit Of");
  EXPECT_EQ(ReadPacketFromFileSizeLimited("missing.pkt", 0), nullptr);
  expect_one_log("Cannot Stat file: missing.pkt");
  ASSERT_EQ(mkdir("dir.pkt", 0700), 0);
  EXPECT_EQ(WriteRawPacketDataToFile("dir.pkt/", "x", 1), -1);
  EXPECT_EQ(log_.count(), 1u);
  log_.clear();
  ZTPacketFreeList(&list, ZT_CLASS_TEST_CHILD);
}

// Coders on several threads while classes are added: the registry's lock
// keeps every lookup whole.
TEST_F(PacketsText, CodersMTRunWhileClassesAreAdded) {
  std::atomic<int> failures{0};
  std::vector<std::thread> coders;
  for (int t = 0; t < 4; ++t) {
    coders.emplace_back([&, t] {
      std::mt19937 rng(static_cast<uint32_t>(t));
      for (int i = 0; i < 100; ++i) {
        ZTListNode *list = nullptr;
        AddList(&list, &random_all(rng)->node);
        PacketMemoryPtr pm(InitAllocPacketMemory(0));
        if (MakePacketDataFromList(pm.get(), list, ZT_CLASS_TEST_ALL) != 0) ++failures;
        ZTListNode *back = MakeListFromPacket(pm.get(), ZT_CLASS_TEST_ALL);
        if (ComparePacketList(list, back, ZT_CLASS_TEST_ALL) != 1) ++failures;
        ZTPacketFreeList(&back, ZT_CLASS_TEST_ALL);
        ZTPacketFreeList(&list, ZT_CLASS_TEST_ALL);
      }
    });
  }
  ZTFieldDesc rows[] = {{5, 1, "A", 0, 0, 0, 0, sizeof(ZTListNode), 0}, {}};
  for (uint32_t n = 0; n < 50; ++n) {
    ZTStorageClassDesc d{0, sizeof(ZTListNode) + 4, rows, 2, "Added", nullptr, nullptr};
    EXPECT_EQ(ZTAddStorageClass(&d, 1000 + n), 0);
  }
  for (auto &c : coders) c.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(ZTStorageClassExists(1049), 1);
  expect_no_log();
}

}  // namespace
