// The main of every test executable: GoogleTest with the log trap.
#include <gtest/gtest.h>

#include "support/test_support.h"

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  zt::test::install_log_trap();
  return RUN_ALL_TESTS();
}
