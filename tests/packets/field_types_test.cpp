#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zt/packets.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "packets/packets_fixture.h"

// The run test below counts the library's reallocations through this
// interposed realloc. Sanitizer runtimes own the allocator, so their builds
// leave it out and skip that test.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZT_COUNTS_REALLOCS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define ZT_COUNTS_REALLOCS 0
#endif
#endif
#ifndef ZT_COUNTS_REALLOCS
#define ZT_COUNTS_REALLOCS 1
#endif

namespace {

std::atomic<bool> g_count_reallocs{false};
std::atomic<uint64_t> g_reallocs{0};

}  // namespace

#if ZT_COUNTS_REALLOCS
extern "C" void *realloc(void *p, size_t n) {
  using Fn = void *(*)(void *, size_t);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "realloc"));
  if (g_count_reallocs.load(std::memory_order_relaxed)) g_reallocs.fetch_add(1, std::memory_order_relaxed);
  return real(p, n);
}
#endif

namespace {

using zt::test::encode_item;
using zt::test::packet_of;
using zt::test::PacketMemoryPtr;
using FieldTypes = zt::test::PacketsTest;

// Every field of every type set, every array two long, as the coders must
// write it: signed values as 32-bit two's complement hex, counts before
// elements, binary as hex pairs, each string of an array as length and text.
constexpr char kFullText[] =
    "SI 65\n1 fffffff9\n2 89abcdef\n3 fffffed4\n4 fffffffb\n5 5\n6 fffe\n7 fe\n8 -2.5\n9 nine lives\n"
    "11 0\nSL 64\nSI 64\n1 1\n2 first\n3 0.5\nTI 0\nSI 64\n1 2\n2 second\n3 1.5\nTI 0\nTL 0\n"
    "12 2\nSI 64\n1 a\n2 run\n3 0\nTI 0\nSI 64\n1 b\n2 run\n3 0.25\nTI 0\n"
    "13 beef\n14 e 14000000\n15 2 1.5 -1e+300\n16 2 1 ffff\n17 2 ffffffff 0\n18 2 8000 3\n19 2 80 7f\n"
    "20 14\n21 15\n22 2 dead\n23 2 3 a b 0 \n24 18\n25 8000000000000000\n26 2600000000\n27 2 1b 27000000\n"
    "28 1c\n29 1d\n30 2 1e 1f\n31 2 1f 20\nTI 0\n";

// Each field type, one change to a copy: the copy must be deep (the original
// keeps its value), the comparison must see the change, and the changed item
// must survive the text and come back equal to itself.
TEST_F(FieldTypes, EveryTypeCopiesComparesAndRoundTripsOnItsOwn) {
  const std::vector<std::pair<const char *, std::function<void(ZTTestAll &)>>> changes = {
      {"int32", [](ZTTestAll &a) { a.t1 ^= 1; }},
      {"uint32", [](ZTTestAll &a) { a.t2 ^= 0x80000000u; }},
      {"int16", [](ZTTestAll &a) { a.t3 = static_cast<int16_t>(a.t3 ^ 0x100); }},
      {"int8", [](ZTTestAll &a) { a.t4 = static_cast<int8_t>(a.t4 ^ 0x40); }},
      {"uint32b", [](ZTTestAll &a) { a.t5 += 1; }},
      {"uint16", [](ZTTestAll &a) { a.t6 = 1; }},
      {"uint8", [](ZTTestAll &a) { a.t7 = 1; }},
      {"double", [](ZTTestAll &a) { a.t8 = 0.125; }},
      {"string", [](ZTTestAll &a) { a.t9[0] = 'N'; }},
      {"list", [](ZTTestAll &a) { reinterpret_cast<ZTTestChild *>(a.t11->next)->label[0] = 'S'; }},
      {"run", [](ZTTestAll &a) { a.t12[1].value = 99; }},
      {"declared width", [](ZTTestAll &a) { a.t13 = 0xbeee; }},
      {"pair", [](ZTTestAll &a) { a.t14b = 0; }},
      {"doubles", [](ZTTestAll &a) { a.t15[1] = 1e300; }},
      {"declared-width array", [](ZTTestAll &a) { a.t16[1] = 0xfffe; }},
      {"uint32 array", [](ZTTestAll &a) { a.t17[1] = 1; }},
      {"uint16 array", [](ZTTestAll &a) { a.t18[1] = 4; }},
      {"uint8 array", [](ZTTestAll &a) { a.t19[1] = 0; }},
      {"value20", [](ZTTestAll &a) { a.t20 = 0; }},
      {"value21", [](ZTTestAll &a) { a.t21 = 0; }},
      {"binary", [](ZTTestAll &a) { a.t22[1] = 0xac; }},
      {"strings", [](ZTTestAll &a) { a.t23[0][1] = '_'; }},
      {"uint32c", [](ZTTestAll &a) { a.t24 = 0; }},
      {"int64", [](ZTTestAll &a) { a.t25 = INT64_MAX; }},
      {"int64b", [](ZTTestAll &a) { a.t26 = -1; }},
      {"array27", [](ZTTestAll &a) { a.t27[0] = 0; }},
      {"value28", [](ZTTestAll &a) { a.t28 = 0; }},
      {"value29", [](ZTTestAll &a) { a.t29 = 0; }},
      {"array30", [](ZTTestAll &a) { a.t30[1] = 0; }},
      {"array31", [](ZTTestAll &a) { a.t31_count = 1; }},
  };
  PacketMemoryPtr full = packet_of(kFullText);
  auto *original = static_cast<ZTTestAll *>(MakeItemFromPacket(full.get(), ZT_CLASS_TEST_ALL));
  ASSERT_NE(original, nullptr);
  const std::string original_text = encode_item(original, ZT_CLASS_TEST_ALL);
  ASSERT_EQ(original_text, kFullText);
  for (const auto &[name, change] : changes) {
    SCOPED_TRACE(name);
    auto *copy = static_cast<ZTTestAll *>(DuplicatePacketItem(ZT_CLASS_TEST_ALL, original));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(ComparePacketItem(original, copy, ZT_CLASS_TEST_ALL), 1);
    change(*copy);
    EXPECT_EQ(ComparePacketItem(original, copy, ZT_CLASS_TEST_ALL), 0);
    EXPECT_EQ(encode_item(original, ZT_CLASS_TEST_ALL), original_text);
    const std::string text = encode_item(copy, ZT_CLASS_TEST_ALL);
    EXPECT_NE(text, original_text);
    PacketMemoryPtr pm = packet_of(text);
    auto *back = static_cast<ZTTestAll *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(ComparePacketItem(copy, back, ZT_CLASS_TEST_ALL), 1);
    EXPECT_EQ(encode_item(back, ZT_CLASS_TEST_ALL), text);
    ZTPacketFreeItem(back, ZT_CLASS_TEST_ALL);
    // The array cut short above still owns both elements' memory.
    ZTPacketFreeItem(copy, ZT_CLASS_TEST_ALL);
  }
  ZTPacketFreeItem(original, ZT_CLASS_TEST_ALL);
  expect_no_log();
}

// A repeated tag replaces what the first one made (nothing leaks under the
// sanitizer), and a field freed by ZTPacketFreeItemFields is cleared.
TEST_F(FieldTypes, RepeatedTagsReplaceAndFreedFieldsAreCleared) {
  PacketMemoryPtr pm = packet_of(
      "SI 65\n9 one\n9 two\n17 1 5\n17 2 6 7\n22 1 aa\n22 1 bb\n23 1 1 x\n23 1 1 y\n"
      "11 0\nSL 64\nSI 64\n2 p\nTI 0\nTL 0\n11 0\nSL 64\nTL 0\n12 1\nSI 64\n2 q\nTI 0\n12 1\nSI 64\n1 3\nTI "
      "0\nTI 0\n");
  auto *a = static_cast<ZTTestAll *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL));
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->t9, "two");
  ASSERT_EQ(a->t17_count, 2u);
  EXPECT_EQ(a->t17[1], 7u);
  EXPECT_EQ(a->t22[0], 0xbb);
  EXPECT_STREQ(a->t23[0], "y");
  EXPECT_EQ(a->t11, nullptr);
  ASSERT_EQ(a->t12_count, 1u);
  EXPECT_EQ(a->t12[0].id, 3u);
  EXPECT_EQ(a->t12[0].label, nullptr);
  ZTPacketFreeItemFields(a, ZT_CLASS_TEST_ALL);
  EXPECT_EQ(a->t9, nullptr);
  EXPECT_EQ(a->t17, nullptr);
  EXPECT_EQ(a->t17_count, 0u);
  EXPECT_EQ(a->t12, nullptr);
  EXPECT_EQ(a->t23_count, 0u);
  ZTPacketFreeItem(a, ZT_CLASS_TEST_ALL);
  expect_no_log();
}

// A row of type 10 can be registered but never coded; rows of types above 31
// are ignored by everything, so their offsets are never touched.
TEST_F(FieldTypes, RowsWithoutACoderFailAndUnknownTypesAreIgnored) {
  struct Rec {
    ZTListNode node;
    uint32_t a;
    uint32_t spare;
  };
  ZTFieldDesc rows[] = {{ZT_FT_UINT32B, 1, "A", 0, 0, 0, 0, offsetof(Rec, a), 0},
                        {77, 2, "Future", 0, 0, 0, 0, 100000, 100000},
                        {}};
  ZTStorageClassDesc d{0, sizeof(Rec), rows, 3, "Future", nullptr, nullptr};
  ASSERT_EQ(ZTAddStorageClass(&d, 400), 0);
  Rec r{};
  r.a = 0xa;
  EXPECT_EQ(encode_item(&r, 400), "SI 190\n1 a\nTI 0\n");
  Rec other = r;
  other.spare = 1;  // not in the table, so not compared
  EXPECT_EQ(ComparePacketItem(&r, &other, 400), 1);
  PacketMemoryPtr pm = packet_of("SI 190\n1 b\n2 x\nTI 0\n");
  void *back = MakeItemFromPacket(pm.get(), 400);
  ASSERT_NE(back, nullptr);
  expect_one_log(
      "Packet lineno: 3 Tag 2 For Item Id 190(Future) Not Recognised (outside range) Ignoring This Tag");
  ZTPacketFreeItem(back, 400);

  ZTFieldDesc none[] = {{ZT_FT_UINT32B, 1, "A", 0, 0, 0, 0, offsetof(Rec, a), 0},
                        {ZT_FT_NONE, 2, "Nothing", 0, 0, 0, 0, offsetof(Rec, a), 0},
                        {}};
  ZTStorageClassDesc nd{0, sizeof(Rec), none, 3, "None", nullptr, nullptr};
  ASSERT_EQ(ZTAddStorageClass(&nd, 401), 0);
  PacketMemoryPtr out(InitAllocPacketMemory(0));
  EXPECT_EQ(MakePacketDataFromItem(out.get(), &r, 401), -1);
  expect_one_log("TYPE: 10 Unexpected in switch");
  pm = packet_of("SI 191\n2 0\nTI 0\n");
  EXPECT_EQ(MakeItemFromPacket(pm.get(), 401), nullptr);
  expect_one_log("TYPE: 10 Unexpected in switch");
  EXPECT_EQ(ComparePacketItem(&r, &other, 401), 1);
}

// A binary count whose doubled digit count wraps past 2^64 must be refused
// like any count the line cannot hold, not handed to the allocator.
TEST_F(FieldTypes, BinaryCountsThatWrapAreRefusedByTheirLine) {
  const char *bodies[] = {
      "SI 65\n22 8000000000000002 0000\nTI 0\n",
      "SI 65\n22 8000000000000000 00\nTI 0\n",
      "SI 65\n22 ffffffffffffffff 00\nTI 0\n",
  };
  for (const char *body : bodies) {
    SCOPED_TRACE(body);
    PacketMemoryPtr pm = packet_of(body);
    EXPECT_EQ(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL), nullptr);
    expect_one_log("and encountered invalid character: 0a");
  }
}

// A run announces its count before its items; the run grows as they arrive,
// doubling, so 95,000 items in a 1 MiB body cost a few dozen reallocations,
// not one each.
TEST_F(FieldTypes, RunsGrowGeometricallyAsTheirItemsArrive) {
  if (!ZT_COUNTS_REALLOCS) GTEST_SKIP() << "the sanitizer owns realloc";
  constexpr uint32_t kItems = 95000;
  char head[32];
  std::snprintf(head, sizeof head, "SI 65\n12 %x\n", kItems);
  std::string body = head;
  for (uint32_t i = 0; i < kItems; ++i) body += "SI 64\nTI 0\n";
  body += "TI 0\n";
  PacketMemoryPtr pm = packet_of(body);
  g_reallocs = 0;
  g_count_reallocs = true;
  auto *a = static_cast<ZTTestAll *>(MakeItemFromPacket(pm.get(), ZT_CLASS_TEST_ALL));
  g_count_reallocs = false;
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->t12_count, kItems);
  EXPECT_LT(g_reallocs.load(), 40u);
  ZTPacketFreeItem(a, ZT_CLASS_TEST_ALL);
  expect_no_log();
}

}  // namespace
