#include <gtest/gtest.h>
#include <zt/membuf.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "support/test_support.h"

namespace {

using MemBuf = zt::test::LibraryTest;

void expect_contents(const ZT_MemBuf *buf, const std::string &expected) {
  ASSERT_EQ(ZT_MemBufSize(buf), expected.size());
  const auto *bytes = static_cast<const char *>(ZT_MemBufPointer(buf));
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::memcmp(bytes, expected.data(), expected.size()), 0);
  EXPECT_EQ(bytes[expected.size()], '\0');
}

// Appends of random sizes, from a tiny and from the default start, past
// several doublings; the terminating NUL follows the content after each.
TEST_F(MemBuf, GrowsKeepingContentsAndNul) {
  for (size_t initial : {size_t{0}, size_t{1}}) {
    SCOPED_TRACE(initial);
    ZT_MemBuf *buf = ZT_MemBufCreate(initial);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(ZT_MemBufPointer(buf), nullptr);
    EXPECT_EQ(ZT_MemBufAppend(buf, nullptr, 0), 0);
    EXPECT_EQ(ZT_MemBufPointer(buf), nullptr);

    std::mt19937 rng(7);
    std::string model;
    while (model.size() < (1u << 20)) {
      std::string chunk(std::uniform_int_distribution<size_t>(1, 9000)(rng), '\0');
      for (char &c : chunk) c = static_cast<char>(rng());
      ASSERT_EQ(ZT_MemBufAppend(buf, chunk.data(), chunk.size()), 0);
      model += chunk;
      expect_contents(buf, model);
    }
    ZT_MemBufFree(buf);
  }
  ZT_MemBufFree(nullptr);
}

TEST_F(MemBuf, ClearKeepsWorking) {
  ZT_MemBuf *buf = ZT_MemBufCreate(4);
  ASSERT_EQ(ZT_MemBufAppend(buf, "first text", 10), 0);
  ZT_MemBufClear(buf);
  expect_contents(buf, "");
  ASSERT_EQ(ZT_MemBufAppend(buf, "ab", 2), 0);
  ASSERT_EQ(ZT_MemBufAppend(buf, "c", 1), 0);
  expect_contents(buf, "abc");
  EXPECT_STREQ(static_cast<const char *>(ZT_MemBufPointer(buf)), "abc");
  ZT_MemBufFree(buf);
}

TEST_F(MemBuf, FailedAppendKeepsContentsAndLogsOnce) {
  ZT_MemBuf *buf = ZT_MemBufCreate(0);
  ASSERT_EQ(ZT_MemBufAppend(buf, "abc", 3), 0);
  // A size that cannot be added to the content fails before any allocation.
  EXPECT_EQ(ZT_MemBufAppend(buf, "x", SIZE_MAX - 1), -1);
  expect_contents(buf, "abc");
  expect_one_log("ZT_MemBufAppend", "Failed To allocate 2147483647 bytes of memory");
  EXPECT_EQ(ZT_MemBufAppend(buf, "d", 1), 0);
  expect_contents(buf, "abcd");
  ZT_MemBufFree(buf);
}

}  // namespace
