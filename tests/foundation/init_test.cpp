#include <gtest/gtest.h>
#include <zt/init.h>
#include <zt/log.h>
#include <zt/random.h>
#include <zt/threads.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "support/test_support.h"

namespace {

using zt::test::ChdirGuard;
using zt::test::EnvScope;
using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::read_file;
using zt::test::TempDir;
using zt::test::write_file;

TEST(StartUp, TwiceInARowAndAgainAfterShutDown) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  for (int round = 0; round < 2; ++round) {
    ZT_InitSubSystems();
    ZT_InitSubSystems();
    ASSERT_NE(pthread_taskq_get_default(), nullptr);
    ASSERT_NE(pthread_taskq_get_iobound_default(), nullptr);
    ASSERT_NE(ZT_GetTempDirectory(), nullptr);
    LogError("init_test", "round", std::to_string(round).c_str());
    ZT_DeInitSubSystems();
    ZT_DeInitSubSystems();
    EXPECT_EQ(pthread_taskq_get_default(), nullptr);
    EXPECT_EQ(ZT_GetTempDirectory(), nullptr);
  }
  // Shut-down flushed each round's record.
  std::string text = read_file(dir.file("errors.log"));
  EXPECT_NE(text.find("init_test\nround\n0\n"), std::string::npos);
  EXPECT_NE(text.find("init_test\nround\n1\n"), std::string::npos);
}

TEST(StartUp, ScratchDirectoryUnderUserCache) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  {
    EnvScope xdg("XDG_CACHE_HOME", (dir.path() + "/cache//").c_str());
    LibraryScope library;
    std::string expected = dir.path() + "/cache/Korvane/Temp";
    EXPECT_EQ(ZT_GetTempDirectory(), expected);
    EXPECT_TRUE(std::filesystem::is_directory(expected));
  }
  {
    EnvScope xdg("XDG_CACHE_HOME", nullptr);
    EnvScope home("HOME", dir.path().c_str());
    LibraryScope library;
    EXPECT_EQ(ZT_GetTempDirectory(), dir.path() + "/.cache/Korvane/Temp");
  }
  {
    EnvScope xdg("XDG_CACHE_HOME", nullptr);
    EnvScope home("HOME", nullptr);
    LibraryScope library;
    EXPECT_STREQ(ZT_GetTempDirectory(), ".");
  }
}

class SequenceFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root_.file("etc"));
    ASSERT_EQ(ZTSetVariables((root_.path() + "/").c_str()), 0);
  }
  void TearDown() override { ZTReleaseVariables(); }

  TempDir root_;
  TempDir work_;
  ChdirGuard cwd_{work_.path()};
  LibraryScope library_;
};

TEST_F(SequenceFiles, NumbersRoundTripThroughTheFiles) {
  write_file(root_.file("etc/jobid.seq"), "41\n");
  write_file(root_.file("etc/mktmp.seq"), "7\r\nignored second line\n");
  ZT_InitSubSystems2();
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 41u);
  EXPECT_EQ(ZTNextJobNumber(), 42u);
  EXPECT_EQ(ZTNextUniqueNumber(), 7u);
  ZT_DeInitSubSystems2();
  EXPECT_EQ(read_file(root_.file("etc/jobid.seq")), "43\n");
  EXPECT_EQ(read_file(root_.file("etc/mktmp.seq")), "8\n");
  EXPECT_EQ(ZTNextJobNumber(), 0u);  // not loaded any more
}

TEST_F(SequenceFiles, MissingFilesStartAtOneAndBadOnesAreLogged) {
  write_file(root_.file("etc/jobid.seq"), "not a number\n");
  LogCapture capture;
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 1u);
  EXPECT_EQ(ZTNextUniqueNumber(), 1u);
  capture.expect_one("Could not read next jobid from " + root_.path() + "/etc/jobid.seq", "LoadJobNo");

  std::filesystem::remove_all(root_.file("etc"));
  ZT_DeInitSubSystems2();
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].function, "DumpJobNo");
  EXPECT_EQ(lines[0].message, "Cannot open " + root_.path() + "/etc/jobid.seq");
  EXPECT_EQ(lines[1].function, "DumpUniqueNumber");
  capture.clear();
}

// Numbers too large for 32 bits are refused, not saturated: a saturated
// 4294967295 would hand out 0 next and write it back without a word.
TEST_F(SequenceFiles, NumbersBeyondThirtyTwoBitsAreRefused) {
  write_file(root_.file("etc/jobid.seq"), "12345678901234567890123\n");
  write_file(root_.file("etc/mktmp.seq"), "4294967296\n");
  LogCapture capture;
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 1u);
  EXPECT_EQ(ZTNextUniqueNumber(), 1u);
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "Could not read next jobid from " + root_.path() + "/etc/jobid.seq");
  EXPECT_EQ(lines[1].function, "LoadUniqueNumber");
  capture.clear();
  ZT_DeInitSubSystems2();
  EXPECT_EQ(read_file(root_.file("etc/jobid.seq")), "2\n");

  // The largest value still fits and is handed out.
  write_file(root_.file("etc/jobid.seq"), "4294967295\n");
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 4294967295u);
  ZT_DeInitSubSystems2();
  EXPECT_EQ(capture.count(), 0u);
}

// Numbers go back with "%d": one above 2^31 is written negative and must be
// read back as the number that was written, not refused and restarted at 1.
TEST_F(SequenceFiles, NumbersAboveTwoToTheThirtyOneSurviveARestart) {
  write_file(root_.file("etc/jobid.seq"), "4254967295\n");
  write_file(root_.file("etc/mktmp.seq"), "3000000000\n");
  LogCapture capture;
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 4254967295u);
  EXPECT_EQ(ZTNextUniqueNumber(), 3000000000u);
  ZT_DeInitSubSystems2();
  EXPECT_EQ(read_file(root_.file("etc/jobid.seq")), "-40000000\n");
  EXPECT_EQ(read_file(root_.file("etc/mktmp.seq")), "-1294967295\n");
  ZT_InitSubSystems2();
  EXPECT_EQ(ZTNextJobNumber(), 4254967296u);
  EXPECT_EQ(ZTNextUniqueNumber(), 3000000001u);
  ZT_DeInitSubSystems2();
  EXPECT_EQ(capture.count(), 0u);
}

TEST_F(SequenceFiles, PageSetupReferenceCache) {
  uint32_t id = 0;
  EXPECT_EQ(addPagesetupRef(1, 1), -1);  // before ZT_InitSubSystems2
  ZT_InitSubSystems2();
  EXPECT_EQ(addPagesetupRef(0xFFFFFFFFFFFFFFFFull, 7), 0);
  EXPECT_EQ(addPagesetupRef(5, 7), 0);
  EXPECT_EQ(addPagesetupRef(6, 8), 0);
  EXPECT_EQ(addPagesetupRef(6, 9), 0);  // replaces
  ASSERT_EQ(findPagesetupRef(6, &id), 0);
  EXPECT_EQ(id, 9u);
  EXPECT_EQ(removePagesetupRefById(7), 0);
  EXPECT_EQ(findPagesetupRef(5, &id), -1);
  EXPECT_EQ(findPagesetupRef(0xFFFFFFFFFFFFFFFFull, &id), -1);
  EXPECT_EQ(removePagesetupRefById(7), -1);
  EXPECT_EQ(removePagesetupRefByKey(6), 0);
  EXPECT_EQ(removePagesetupRefByKey(6), -1);
  EXPECT_EQ(addPagesetupRef(1, 1), 0);
  clearPagesetupRefsCache();
  EXPECT_EQ(findPagesetupRef(1, &id), -1);
  ZT_DeInitSubSystems2();
  EXPECT_EQ(findPagesetupRef(1, &id), -1);
}

TEST(Variables, RootPathsAndThePanicWithoutThem) {
  ASSERT_EQ(ZTSetVariables("/opt/korvane///"), 0);
  char *path = ZTMakeRootPath("etc/jobid.seq");
  EXPECT_STREQ(path, "/opt/korvane/etc/jobid.seq");
  std::free(path);
  ZTReleaseVariables();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ZTGetVariables(), ::testing::ExitedWithCode(10),
              "Panic: NULL variables structure ieee. exiting...");
}

TEST(Globals, OneRecordAtATime) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  LibraryScope library;
  LogCapture capture;
  ZTGlobals *globals = ZTInitGlobals();
  ASSERT_NE(globals, nullptr);
  EXPECT_EQ(ZTGetGlobals(), globals);
  EXPECT_EQ(ZTInitGlobals(), nullptr);
  capture.expect_one("Globals Already Initialesd, Address: ", "ZTInitGlobals");
  ZTDestroyGlobals();
  EXPECT_EQ(ZTGetGlobals(), nullptr);
  ZTDestroyGlobals();
  globals = ZTInitGlobals();
  EXPECT_NE(globals, nullptr);
  ZTDestroyGlobals();
}

TEST(Random, SeededRunsRepeatAndRangesAreInclusive) {
  ZT_randomSeed(1234);
  std::vector<int32_t> first;
  for (int i = 0; i < 64; ++i) first.push_back(ZT_randomIntInRange(-1000, 1000));
  ZT_randomSeed(1234);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(ZT_randomIntInRange(-1000, 1000), first[i]);

  std::set<int32_t> seen;
  for (int i = 0; i < 2000; ++i) {
    int32_t v = ZT_randomIntInRange(3, 6);
    ASSERT_GE(v, 3);
    ASSERT_LE(v, 6);
    seen.insert(v);
  }
  EXPECT_EQ(seen.size(), 4u);
  EXPECT_EQ(ZT_randomIntInRange(9, 9), 9);
  EXPECT_EQ(ZT_randomIntInRange(9, 2), 9);
  // The full 32-bit span must neither overflow nor loop.
  bool negative = false, positive = false;
  for (int i = 0; i < 200; ++i) {
    int32_t v = ZT_randomIntInRange(INT32_MIN, INT32_MAX);
    negative |= v < 0;
    positive |= v > 0;
  }
  EXPECT_TRUE(negative && positive);
}

}  // namespace
