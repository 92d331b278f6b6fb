// The storage-class registry through its life: what start-up registers, what
// a class may refer to, which registry is current, and that shut-down and a
// second start-up leave nothing of the first behind.
#include <gtest/gtest.h>
#include <zt/init.h>
#include <zt/packets.h>

#include <cstddef>

#include "support/test_support.h"

namespace {

using zt::test::LogCapture;

struct Leaf {
  ZTListNode node;
  uint32_t value;
};
struct Branch {
  ZTListNode node;
  ZTListNode *leaves;
};

const ZTFieldDesc kLeafFields[] = {
    {ZT_FT_UINT32, 1, "value", 0, 0, 0, 0, offsetof(Leaf, value), 0},
    {ZT_FT_END, 0, nullptr, 0, 0, 0, 0, 0, 0},
};
const ZTFieldDesc kBranchFields[] = {
    {ZT_FT_LIST, 1, "leaves", 0, 7001, 0, 0, offsetof(Branch, leaves), 0},
    {ZT_FT_END, 0, nullptr, 0, 0, 0, 0, 0, 0},
};
const ZTStorageClassDesc kLeaf = {7001, sizeof(Leaf), kLeafFields, 1, "Leaf", nullptr, nullptr};
const ZTStorageClassDesc kBranch = {7002, sizeof(Branch), kBranchFields, 1, "Branch", nullptr, nullptr};

class StorageClasses : public zt::test::LibraryTest {};

TEST_F(StorageClasses, StartUpRegistersTheRequestClassOnly) {
  EXPECT_EQ(ZTStorageClassExists(6), 1);
  for (uint32_t n : {0u, 100u, 101u, 102u, 7001u, 65535u, 65536u}) EXPECT_EQ(ZTStorageClassExists(n), 0) << n;
}

TEST_F(StorageClasses, ReferredClassesComeFirstAndNumbersAreUnique) {
  EXPECT_EQ(ZTAddStorageClass(&kBranch, 7002), -1);
  expect_one_log(
      "Storage Class: 7002 at entry: 0 Refers  To An Unitialised StorageClass of: 7001 ALL Refererd to "
      "Classes Must Be Added Beforehand");
  EXPECT_EQ(ZTStorageClassExists(7002), 0);
  ASSERT_EQ(ZTAddStorageClass(&kLeaf, 7001), 0);
  ASSERT_EQ(ZTAddStorageClass(&kBranch, 7002), 0);
  EXPECT_EQ(ZTAddStorageClass(&kLeaf, 7001), -1);
  expect_one_log("Storage Class of 7001 Already Exists");
  EXPECT_EQ(ZTAddStorageClass(&kLeaf, 65536), -1);
  expect_one_log("StorageClass: 65536 Not Decodable By System");
  EXPECT_EQ(ZTAddStorageClass(nullptr, 7003), -1);
  expect_one_log("StorageClass: 7003 Not Decodable By System");

  // A class that is there round-trips a nested item through the text form.
  Branch b{};
  auto *leaf = static_cast<Leaf *>(ZTPacketAllocateItemMemory(7001, "test", "leaf"));
  ASSERT_NE(leaf, nullptr);
  leaf->value = 0xC0FFEE;
  AddList(&b.leaves, &leaf->node);
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  ASSERT_EQ(MakePacketDataFromItem(pm, &b, 7002), 0);
  auto *back = static_cast<Branch *>(MakeItemFromPacket(pm, 7002));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(ComparePacketItem(&b, back, 7002), 1);
  leaf->value = 1;
  EXPECT_EQ(ComparePacketItem(&b, back, 7002), 0) << "a nested field differs";
  ZTPacketFreeItem(back, 7002);
  ZTPacketFreeItemFields(&b, 7002);
  FreePacketMemory(&pm);
}

// Only the first registry made is current: classes go there, and when it is
// destroyed none is current until a new one is made.
TEST_F(StorageClasses, OneCurrentRegistryAtATime) {
  ZTStorageClasses *second = ZTInitStorageClasses();
  ASSERT_NE(second, nullptr);
  ASSERT_EQ(ZTAddStorageClass(&kLeaf, 7001), 0);
  ZTDestroyStorageClasses(second);
  EXPECT_EQ(ZTStorageClassExists(7001), 1) << "the class went to the current registry";
  ZTDestroyStorageClasses(nullptr);
}

TEST(StorageClassLife, ShutDownAndStartUpAgainLeaveNothingBehind) {
  zt::test::TempDir dir;
  zt::test::ChdirGuard cwd(dir.path());
  {
    zt::test::LibraryScope library;
    ASSERT_EQ(ZTAddStorageClass(&kLeaf, 7001), 0);
    EXPECT_EQ(ZTStorageClassExists(7001), 1);
  }
  EXPECT_EQ(ZTStorageClassExists(6), 0) << "no registry outside the library's life";
  {
    zt::test::LibraryScope library;
    EXPECT_EQ(ZTStorageClassExists(6), 1);
    EXPECT_EQ(ZTStorageClassExists(7001), 0);
    // Starting up twice keeps the one registry.
    ZT_InitSubSystems();
    EXPECT_EQ(ZTStorageClassExists(6), 1);
  }
}

}  // namespace
