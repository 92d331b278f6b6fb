#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zt/init.h>
#include <zt/lists.h>
#include <zt/log.h>

#include <chrono>
#include <ctime>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using zt::test::ChdirGuard;
using zt::test::LibraryScope;
using zt::test::LogCapture;
using zt::test::read_file;
using zt::test::TempDir;
using zt::test::write_file;

// Splits a log file into its records, checking the five-line shape.
struct Record {
  std::string time, module, function, message;
};

std::vector<Record> parse_records(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t lf; (lf = text.find('\n', start)) != std::string::npos; start = lf + 1)
    lines.push_back(text.substr(start, lf - start));
  EXPECT_EQ(start, text.size()) << "log does not end with LF";
  EXPECT_EQ(lines.size() % 5, 0u);
  std::vector<Record> records;
  for (size_t i = 0; i + 4 < lines.size(); i += 5) {
    EXPECT_EQ(lines[i], "185209664");
    records.push_back({lines[i + 1], lines[i + 2], lines[i + 3], lines[i + 4]});
  }
  return records;
}

std::string record_text(int64_t time, const std::string &module, const std::string &function,
                        const std::string &message) {
  return "185209664\n" + std::to_string(time) + "\n" + module + "\n" + function + "\n" + message + "\n";
}

class LogTest : public ::testing::Test {
 protected:
  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  // The log is the subject here: every record a test writes is expected.
  LogCapture expected_;
  std::string log_path_ = dir_.file("errors.log");
};

TEST_F(LogTest, RecordsAreFiveExactLines) {
  int64_t before = std::time(nullptr);
  LogError("vlimg", "VLIMG_Open", "cannot open page");
  LogError(nullptr, nullptr, nullptr);
  LogError("scanlinebuf", "copy", "a\r\nb");
  std::string long_message(5000, 'x');
  long_message[1022] = 'y';
  LogError("m", "f", long_message.c_str());
  LogErrorFlush();
  int64_t after = std::time(nullptr);

  std::string text = read_file(log_path_);
  auto records = parse_records(text);
  ASSERT_EQ(records.size(), 4u);
  int64_t stamp = std::stoll(records[0].time);
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  EXPECT_EQ(text.substr(0, text.find("a__b")), record_text(stamp, "vlimg", "VLIMG_Open", "cannot open page") +
                                                   record_text(stamp, "", "", "") + "185209664\n" +
                                                   std::to_string(stamp) + "\nscanlinebuf\ncopy\n");
  EXPECT_EQ(records[2].message, "a__b");
  EXPECT_EQ(records[3].message.size(), 1023u);
  EXPECT_EQ(records[3].message.back(), 'y');
}

TEST_F(LogTest, MessageKindsAndGrowingFormat) {
  LogCapture capture;
  ZTLogMessage("packets", "ZTPacketAlloc", 0, 2, 1, "", 4096);
  ZTLogMessage("ZTGlobals", "ZTInitGlobals", 0, 3, 1, "");
  ZTLogMessage("packets", "ZTPacketCreate", 0, 4, 1, "", 99);
  ZTLogMessage("m", "f", 0, 7, 1, "plain %s %d", "text", 5);
  std::string wide(600, 'w');
  ZTLogMessage("m", "f", 0, 1, 1, "%s|%s", wide.c_str(), wide.c_str());
  ZTLogMessage("m", "f", 0, 1, 1, nullptr);
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0].message, "Failed To allocate 4096 bytes of memory");
  EXPECT_EQ(lines[1].message, "Failed To initialise global Korvane structure");
  EXPECT_EQ(lines[2].message, "Specified storage class of 99 is invalid");
  EXPECT_EQ(lines[3].message, "plain text 5");
  EXPECT_EQ(lines[4].message, wide + "|" + wide.substr(0, 1023 - 601));
  EXPECT_EQ(lines[4].module, "m");
}

TEST_F(LogTest, BufferFlushesPastThresholdWithMode0664) {
  mode_t old_mask = umask(0);
  std::string message(1000, 'm');
  int written = 0;
  struct stat st {};
  while (stat(log_path_.c_str(), &st) != 0) {
    ASSERT_LT(written, 100);
    LogError("mod", "fn", message.c_str());
    ++written;
  }
  umask(old_mask);
  // Each record here is 1,029 + digits of the time bytes; the flush happens on
  // the first append that takes the buffer past 64 KiB, and not before.
  EXPECT_GT(st.st_size, ZT_LOG_FLUSH_THRESHOLD);
  EXPECT_LT(st.st_size - st.st_size / written, ZT_LOG_FLUSH_THRESHOLD + 1);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
  EXPECT_EQ(parse_records(read_file(log_path_)).size(), static_cast<size_t>(written));
}

TEST_F(LogTest, TrimDropsStrayLinesAndOldRecords) {
  EXPECT_EQ(LogErrorTrimLogfile(0), 0);  // no log file yet: none is made
  EXPECT_NE(access(log_path_.c_str(), F_OK), 0);
  int64_t now = std::time(nullptr);
  std::string good1 = record_text(now - 10, "a", "b", "recent");
  std::string old = record_text(1000, "old", "old", "ancient");
  std::string good2 = record_text(now, "c", "d", "newest");
  write_file(log_path_, "garbage line\n" + good1 + "185209664x\n" + old + "stray\n\n" + good2 +
                            "185209664\n" + std::to_string(now) + "\ncut");
  ASSERT_EQ(LogErrorTrimLogfile(0), 0);
  EXPECT_EQ(read_file(log_path_), good1 + old + good2);
  EXPECT_NE(access(dir_.file("errors.trimmed").c_str(), F_OK), 0);

  ASSERT_EQ(LogErrorTrimLogfile(3600), 0);
  EXPECT_EQ(read_file(log_path_), good1 + good2);

  // Trimming ends its suppression: messages reach the log again.
  LogError("after", "trim", "kept");
  LogErrorFlush();
  EXPECT_EQ(parse_records(read_file(log_path_)).back().message, "kept");
}

TEST_F(LogTest, BacklogFiltersByAge) {
  int64_t now = std::time(nullptr);
  write_file(log_path_, record_text(now - 7200, "old", "f", "two hours") + "junk\n" +
                            record_text(now - 60, "mid", "f", "a minute"));
  LogError("new", "g", "just now");  // still in the buffer: the backlog flushes first

  ZTLogBacklog *all = GetErrorMessagesWithBacklog(0);
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(ListLength(&all->node), 3u);
  ZTLogFreeBacklog(all);

  ZTLogBacklog *recent = GetErrorMessagesWithBacklog(3600);
  ASSERT_NE(recent, nullptr);
  ASSERT_EQ(ListLength(&recent->node), 2u);
  EXPECT_STREQ(recent->module, "mid");
  EXPECT_STREQ(recent->message, "a minute");
  EXPECT_EQ(recent->time, now - 60);
  EXPECT_EQ(recent->reserved, 0u);
  auto *second = reinterpret_cast<ZTLogBacklog *>(recent->node.next);
  EXPECT_STREQ(second->function, "g");
  EXPECT_STREQ(second->message, "just now");
  ZTLogFreeBacklog(recent);
}

TEST_F(LogTest, ClientsSeeMessagesWhileFileIsOff) {
  LogCapture first;
  LogCapture second;
  LogErrorLogtofile(0, nullptr);
  LogError("m", "f", "only to clients");
  LogErrorFlush();
  EXPECT_NE(access(log_path_.c_str(), F_OK), 0);
  EXPECT_EQ(first.count(), 1u);
  EXPECT_EQ(second.count(), 1u);

  LogErrorDisable(1);
  LogError("m", "f", "dropped");
  LogErrorDisable(0);
  EXPECT_EQ(first.count(), 1u);

  LogErrorLogtofile(1, "other.log");
  LogError("m", "f", "to the other file");
  LogErrorFlush();
  auto records = parse_records(read_file(dir_.file("other.log")));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "to the other file");
}

TEST_F(LogTest, ClientIdsNeverGoBack) {
  auto noop = [](void *, const char *, const char *, const char *, int64_t, uint32_t) {};
  int32_t a = LogErrorAddClient(noop, nullptr);
  int32_t b = LogErrorAddClient(noop, nullptr);
  EXPECT_GT(a, 0);
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(LogErrorRemoveClient(b), 0);
  EXPECT_EQ(LogErrorAddClient(noop, nullptr), b + 1);
}

TEST_F(LogTest, DestinationPropertiesFourLines) {
  LogCapture capture;
  ZTDestination destination{"Epson 9900", "2.1", "epson9900.so"};
  ZTLogDestinationProperties(&destination);
  std::vector<std::string> messages;
  for (const auto &line : capture.lines()) messages.push_back(line.message);
  EXPECT_EQ(messages,
            (std::vector<std::string>{"Properties for Destination Epson 9900", "\tVersion 2.1",
                                      "\tName of DLL: epson9900.so", "End of definition for Epson 9900"}));
}

TEST(LogOutsideLibrary, CallsFailWhileNotInitialised) {
  TempDir dir;
  ChdirGuard cwd(dir.path());
  { LibraryScope library; }
  auto noop = [](void *, const char *, const char *, const char *, int64_t, uint32_t) {};
  EXPECT_EQ(LogErrorAddClient(noop, nullptr), -1);
  EXPECT_EQ(LogErrorRemoveClient(1), -1);
  EXPECT_EQ(LogErrorTrimLogfile(0), -1);
  EXPECT_EQ(GetErrorMessagesWithBacklog(0), nullptr);
}

// Runs in a fresh process: the library has never been started there.
TEST(LogOutsideLibrary, BeforeStartUpGoesToStandardError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        LogError("vlimg", "VLIMG_Open", "line\nbreak");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "vlimg:VLIMG_Open line_break");
}

// A log path that names a FIFO nobody reads: opening it for writing would wait
// for a reader while every logging thread queues behind the log lock. Flush,
// trim and backlog must all return; the records go to standard error instead.
TEST_F(LogTest, AFifoAsTheLogFileNeverBlocks) {
  const std::string fifo = dir_.file("errors.fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  LogErrorLogtofile(1, fifo.c_str());
  auto done = std::async(std::launch::async, [] {
    LogError("m", "f", "to a fifo");
    LogErrorFlush();
    EXPECT_EQ(LogErrorTrimLogfile(0), 0);
    ZTLogFreeBacklog(GetErrorMessagesWithBacklog(0));
  });
  if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    ADD_FAILURE() << "the log waited on a FIFO";
    // Free whatever waits: an open for both ends releases a stuck open of
    // either end, and closing it again gives a stuck reader its end of file.
    while (done.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
      int fd = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (fd >= 0) ::close(fd);
    }
  }
  LogErrorLogtofile(1, log_path_.c_str());
}

}  // namespace
