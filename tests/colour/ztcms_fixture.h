// The library running in a scratch directory with a log capture, shared by
// the colour-arithmetic, identifier and dot-percentage tests. Any log line a
// test did not claim with expect_one_log fails it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"

namespace zt::test {

class ColourTest : public ::testing::Test {
 protected:
  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  LogCapture log_;

  // Exactly one line was logged since the last check, from `function`, and
  // it holds `text`.
  void expect_one_log(const std::string &function, const std::string &text) {
    auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? std::string("none") : lines.back().message);
    EXPECT_EQ(lines[0].function, function);
    EXPECT_NE(lines[0].message.find(text), std::string::npos) << lines[0].message;
    log_.clear();
  }

  void TearDown() override {
    auto lines = log_.lines();
    EXPECT_TRUE(lines.empty()) << lines.size() << " unexpected log line(s), first: " << lines.front().message;
  }
};

}  // namespace zt::test
