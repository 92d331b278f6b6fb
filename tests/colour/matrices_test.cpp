// 3x3 matrices: the cone matrices and their start-up inverses, the singular
// case, aliasing products and the exact identity test.
#include <gtest/gtest.h>
#include <zt/ztcms.h>

#include <array>
#include <cmath>
#include <limits>

#include "colour/ztcms_fixture.h"

namespace {

using zt::test::ColourTest;
using Matrix = std::array<double, 9>;
using MatrixTest = ColourTest;

constexpr Matrix kIdentity = {1, 0, 0, 0, 1, 0, 0, 0, 1};

Matrix product(const Matrix &a, const Matrix &b) {
  Matrix out;
  multiplyMatrix3x3and3x3(a.data(), b.data(), out.data());
  return out;
}

// Both products give the identity for every method; 4 and 7 reach CAT02 and
// Bradford.
TEST_F(MatrixTest, ConeMatricesAndTheirInverses) {
  for (int32_t method : {0, 1, 2, 3, 4, 7}) {
    Matrix m, inv;
    ZTCMS_Get_XYZ_To_LMS_Matrix(method, m.data());
    ZTCMS_Get_LMS_To_XYZ_Matrix(method, inv.data());
    const Matrix left = product(inv, m), right = product(m, inv);
    for (int i = 0; i < 9; ++i) {
      EXPECT_NEAR(left[i], kIdentity[i], 1e-14) << method;
      EXPECT_NEAR(right[i], kIdentity[i], 1e-14) << method;
    }
    const double first = method == 0 || method == 4 ? 0.7328
                         : method == 1              ? 0.40024
                         : method == 3              ? 0.8562
                                                    : 0.8951;
    EXPECT_EQ(m[0], first) << method;
  }
}

TEST_F(MatrixTest, InverseDeterminantAndSingularCase) {
  const Matrix a = {2, -1, 0, 1, 3, 2, 0, 5, -4}, b = {1, 2, 3, 0, 1, 4, 5, 6, 0};
  EXPECT_DOUBLE_EQ(Determinant(a.data()), -48.0);
  EXPECT_DOUBLE_EQ(Determinant(product(a, b).data()), -48.0);
  Matrix m = b;
  ASSERT_EQ(InvertMatrix(m.data(), m.data(), Determinant(b.data())), 0);  // in place
  EXPECT_EQ(m, (Matrix{-24, 18, 5, 20, -15, -4, -5, 4, 1}));

  const Matrix singular = {1, 2, 3, 2, 4, 6, 7, 8, 9};
  ASSERT_EQ(Determinant(singular.data()), 0.0);
  m.fill(42);
  EXPECT_EQ(InvertMatrix(singular.data(), m.data(), 0.0), -1);
  EXPECT_EQ(m, kIdentity);
  expect_one_log("InvertMatrix", "Warning: non invertable matrix encountered");
}

TEST_F(MatrixTest, ProductsAliasAndIdentityIsExact) {
  Matrix m = {1, 2, 3, 4, 5, 6, 7, 8, 10};
  std::array<double, 3> v = {1, -1, 2};
  multiplyMatrix3x3and3x1(m.data(), v.data(), v.data());
  EXPECT_EQ(v, (std::array<double, 3>{5, 11, 19}));
  multiplyMatrix3x3and3x3(m.data(), m.data(), m.data());
  EXPECT_EQ(m, (Matrix{30, 36, 45, 66, 81, 102, 109, 134, 169}));

  EXPECT_EQ(identityMatrix3x3(m.data()), 0);
  m[1] = -0.0;
  EXPECT_EQ(isIdentityMatrix3x3(m.data()), 1);
  for (double off : {std::nextafter(1.0, 2.0), std::numeric_limits<double>::quiet_NaN()}) {
    m[8] = off;
    EXPECT_EQ(isIdentityMatrix3x3(m.data()), 0) << off;
  }
}

}  // namespace
