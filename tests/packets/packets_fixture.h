// The library running in a scratch directory with a log capture, shared by
// the packet tests.
#pragma once

#include "support/packet_test_classes.h"
#include "support/test_support.h"

#include <zt/packets.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

namespace zt::test {

// The library with the test storage classes registered, and the one log
// capture of every library test.
class PacketsTest : public LibraryTest {
 protected:
  struct TestClasses {
    TestClasses() { EXPECT_EQ(register_packet_test_classes(), 0); }
  } classes_;
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

template <typename T>
T *array_of(std::initializer_list<T> values) {
  T *a = static_cast<T *>(std::calloc(values.size(), sizeof(T)));
  std::copy(values.begin(), values.end(), a);
  return a;
}

inline ZTTestChild *new_child(uint32_t id, const char *label, double value) {
  auto *c = static_cast<ZTTestChild *>(std::calloc(1, sizeof(ZTTestChild)));
  *c = {{}, id, label ? strdup(label) : nullptr, value};
  return c;
}

inline std::string encode_item(const void *item, uint32_t cls) {
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  EXPECT_EQ(MakePacketDataFromItem(pm.get(), item, cls), 0);
  return std::string(pm->data, static_cast<size_t>(pm->body_length));
}

inline std::string body_of(const ZTPacketMemory *pm) {
  return std::string(pm->data, static_cast<size_t>(pm->body_length));
}

}  // namespace zt::test
