// The library running in a scratch directory with a log capture, shared by
// the colour-arithmetic, identifier and dot-percentage tests.
#pragma once

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace zt::test {

using ColourTest = LibraryTest;

}  // namespace zt::test
