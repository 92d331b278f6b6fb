// The library running in a scratch directory with a log capture, shared by
// the packet tests.
#pragma once

#include "support/packet_test_classes.h"
#include "support/test_support.h"

#include <zt/packets.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace zt::test {

class PacketsTest : public ::testing::Test {
 protected:
  TempDir dir_;
  ChdirGuard cwd_{dir_.path()};
  LibraryScope library_;
  struct TestClasses {
    TestClasses() { EXPECT_EQ(register_packet_test_classes(), 0); }
  } classes_;
  LogCapture log_;

  // Exactly one line was logged and it holds `text`.
  void expect_one_log(const std::string &text) {
    auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? std::string("none") : lines.back().message);
    EXPECT_NE(lines[0].message.find(text), std::string::npos) << lines[0].message;
    log_.clear();
  }
  void expect_no_log() {
    auto lines = log_.lines();
    EXPECT_TRUE(lines.empty()) << lines.front().message;
  }
};

struct PacketMemoryDeleter {
  void operator()(ZTPacketMemory *pm) const { FreePacketMemory(&pm); }
};
using PacketMemoryPtr = std::unique_ptr<ZTPacketMemory, PacketMemoryDeleter>;

inline PacketMemoryPtr packet_of(const std::string &text) {
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  AppendPacketMemory(pm.get(), text.data(), text.size());
  return pm;
}

inline std::string body_of(const ZTPacketMemory *pm) {
  return std::string(pm->data, static_cast<size_t>(pm->body_length));
}

}  // namespace zt::test
