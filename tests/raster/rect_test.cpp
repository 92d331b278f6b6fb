// Rectangles: normalisation, intersection (and its deliberate quirk), output.
#include <gtest/gtest.h>
#include <zt/ztrect.h>

#include <cstdlib>

#include "support/test_support.h"

namespace {

TEST(ZtRectTest, InitWidthAndFix) {
  ZT_Rect r;
  ztrectInit(&r, 10, 20, -4, 5);
  EXPECT_EQ(r.right, 6);
  EXPECT_EQ(ztrectWidth(&r), 4);
  EXPECT_EQ(ztrectHeight(&r), 5);
  ztrectFix(&r);
  EXPECT_EQ(r.left, 6);
  EXPECT_EQ(r.right, 10);
  EXPECT_EQ(ztrectWidth(nullptr), 0);
  EXPECT_EQ(ztrectFix(nullptr), nullptr);
}

TEST(ZtRectTest, IntersectionTouchingDisjointAndInverted) {
  ZT_Rect a, b, out;
  // Sharing an edge intersects and gives a zero-width rectangle.
  ztrectInit(&a, 0, 0, 10, 10);
  ztrectInit(&b, 10, 2, 5, 5);
  EXPECT_EQ(ztrectIntersect(&a, &b), 1);
  ztrectIntersection(&a, &b, &out);
  EXPECT_EQ(out.left, 10);
  EXPECT_EQ(ztrectWidth(&out), 0);
  EXPECT_EQ(out.top, 2);
  EXPECT_EQ(out.bottom, 7);
  // Disjoint: the first rectangle comes back unchanged.
  ztrectInit(&b, 20, 20, 1, 1);
  EXPECT_EQ(ztrectIntersect(&a, &b), 0);
  ztrectIntersection(&a, &b, &out);
  EXPECT_EQ(out.left, 0);
  EXPECT_EQ(out.right, 10);
  EXPECT_EQ(out.bottom, 10);
  // Inverted inputs are normalised in place first.
  ztrectInit(&a, 10, 10, -10, -10);
  ztrectInit(&b, 5, 5, 10, 10);
  ztrectIntersection(&a, &b, &out);
  EXPECT_EQ(a.left, 0);
  EXPECT_EQ(out.left, 5);
  EXPECT_EQ(out.right, 10);
}

}  // namespace
