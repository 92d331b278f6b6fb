#include <gtest/gtest.h>
#include <zt/init.h>
#include <zt/periodic.h>

#include <atomic>
#include <chrono>

#include "support/test_support.h"

namespace {

using zt::test::ChdirGuard;
using zt::test::LibraryScope;
using zt::test::TempDir;
using zt::test::wait_for;

std::atomic<int> g_self_removing_runs{0};
std::atomic<int> g_counter_runs{0};

void self_removing(void *argument) {
  ++g_self_removing_runs;
  EXPECT_EQ(unregisterPeriodicTask(self_removing, argument), 0);
}

void counter(void *) { ++g_counter_runs; }

TEST(PeriodicArguments, RejectsNullAndUnknownTasks) {
  EXPECT_EQ(registerPeriodicTask(nullptr, nullptr, 10), -1);
  EXPECT_EQ(updatePeriodicTask(counter, &g_counter_runs, 10), -1);
  EXPECT_EQ(unregisterPeriodicTask(counter, &g_counter_runs), -1);
}

TEST(PeriodicMT, TasksRegisteredBeforeStartUpRunAndMayRemoveThemselves) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  g_self_removing_runs = 0;
  g_counter_runs = 0;
  int token = 0;
  ASSERT_EQ(registerPeriodicTask(self_removing, &token, 1), 0);
  ASSERT_EQ(registerPeriodicTask(counter, nullptr, 3600), 0);
  {
    LibraryScope library;
    ASSERT_TRUE(wait_for([] { return g_counter_runs.load() == 1; }, std::chrono::seconds(10)));
    EXPECT_EQ(g_self_removing_runs.load(), 1);
    EXPECT_EQ(unregisterPeriodicTask(self_removing, &token), -1);
  }
  // Shut-down frees every task record.
  EXPECT_EQ(unregisterPeriodicTask(counter, nullptr), -1);
}

TEST(PeriodicMT, RegistrationWakesTheSleepingThread) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  LibraryScope library;
  g_counter_runs = 0;
  // The thread sleeps an hour when nothing is due; registering must wake it,
  // and the new task becomes due after the shortest interval (5 s).
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(registerPeriodicTask(counter, &g_counter_runs, 1), 0);
  EXPECT_TRUE(wait_for([] { return g_counter_runs.load() >= 1; }, std::chrono::seconds(9)));
  EXPECT_EQ(unregisterPeriodicTask(counter, &g_counter_runs), 0);
}

}  // namespace
