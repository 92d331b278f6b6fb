// Time: the epoch clock against the C library, calendar conversion at known
// instants, the start time that start-up stamps, and the work counter.
#include <gtest/gtest.h>
#include <zt/init.h>
#include <zt/zttime.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

// TZ set to `zone` while it lives; the test re-reads the zone after it.
struct ZoneScope {
  zt::test::EnvScope tz;
  explicit ZoneScope(const char *zone) : tz("TZ", zone) { ZT_InitTimeSubSystem(); }
};

TEST(Time, ClocksAgreeWithTheSystemAndNeverGoBack) {
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  const int64_t now = ZT_Time();
  EXPECT_GE(now, before);
  EXPECT_LE(now, static_cast<int64_t>(std::time(nullptr)));
  int64_t last = ZT_TimeMonotonicMs();
  for (int i = 0; i < 1000; ++i) {
    const int64_t t = ZT_TimeMonotonicMs();
    ASSERT_GE(t, last);
    last = t;
  }
}

// Known instants: the epoch, the first second past 2^31 (the 2038 wrap of a
// 32-bit time_t), a leap day, and a zone east of UTC across midnight.
TEST(Time, LocalTimeAtKnownInstants) {
  {
    ZoneScope utc("UTC");
    struct tm t {};
    ASSERT_EQ(ZT_LocalTime(0, &t), 0);
    EXPECT_EQ(t.tm_year, 70);
    EXPECT_EQ(t.tm_yday, 0);
    ASSERT_EQ(ZT_LocalTime(int64_t{1} << 31, &t), 0);
    EXPECT_EQ(t.tm_year + 1900, 2038);
    EXPECT_EQ(t.tm_mon, 0);
    EXPECT_EQ(t.tm_mday, 19);
    EXPECT_EQ(t.tm_hour, 3);
    EXPECT_EQ(t.tm_min, 14);
    EXPECT_EQ(t.tm_sec, 8);
    ASSERT_EQ(ZT_LocalTime(951782400, &t), 0);  // 2000-02-29 00:00:00 UTC
    EXPECT_EQ(t.tm_mon, 1);
    EXPECT_EQ(t.tm_mday, 29);
    EXPECT_EQ(ZT_LocalTime(0, nullptr), -1);
  }
  {
    ZoneScope tokyo("JST-9");
    struct tm t {};
    ASSERT_EQ(ZT_LocalTime(951782400 - 3600, &t), 0);  // 23:00 UTC is 08:00 the next day
    EXPECT_EQ(t.tm_mday, 29);
    EXPECT_EQ(t.tm_hour, 8);
  }
  ZT_InitTimeSubSystem();
}

TEST(Time, StartTimeUptimeAndTheWorkCounter) {
  zt::test::TempDir dir;
  zt::test::ChdirGuard cwd(dir.path());
  const int64_t before = ZT_Time();
  zt::test::LibraryScope library;
  const int64_t start = ZT_ProcessStartTime();
  EXPECT_GE(start, before);
  EXPECT_LE(start, ZT_Time());
  EXPECT_GE(ZT_ProcessUptime(), 0);
  EXPECT_LE(ZT_ProcessUptime(), ZT_Time() - before + 1);

  // The counter returns the running total; concurrent counts lose nothing.
  const uint64_t base = ZT_ProcessCountWork(0);
  EXPECT_EQ(ZT_ProcessCountWork(5), base + 5);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int k = 0; k < 10000; ++k) ZT_ProcessCountWork(1);
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(ZT_ProcessCountWork(0), base + 5 + 40000);
}

}  // namespace
