// 3x3 matrices as nine row-major doubles. Results are computed into locals
// first, so an output may be the same array as an input.
#include <zt/ztcms.h>

#include <cstdio>
#include <cstring>

#include "foundation/internal.h"

namespace {

constexpr const char *kModule = "matrices";
constexpr double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

bool null_arg(const char *function, const void *a, const void *b = kIdentity, const void *c = kIdentity) {
  if (a != nullptr && b != nullptr && c != nullptr) return false;
  ZT_LOG(kModule, function, "NULL argument");
  return true;
}

void print_3x3(const double *m, const char *title) {
  std::printf("Matrix %s is\n", title != nullptr ? title : "Untitled");
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) std::printf("%10.7f ", m[row * 3 + col]);
    std::printf("\n");
  }
}

}  // namespace

extern "C" {

ZT_API double Determinant(const double *m) {
  if (null_arg("Determinant", m)) return 0.0;
  return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
         m[2] * (m[3] * m[7] - m[4] * m[6]);
}

ZT_API int32_t InvertMatrix(const double *m, double *inverse, double determinant) {
  if (null_arg("InvertMatrix", m, inverse)) return -1;
  if (determinant == 0) {
    ZT_LOG(kModule, "InvertMatrix", "Warning: non invertable matrix encountered");
    std::memcpy(inverse, kIdentity, sizeof kIdentity);
    return -1;
  }
  const double d = determinant;
  const double out[9] = {
      (m[4] * m[8] - m[5] * m[7]) / d, (m[2] * m[7] - m[1] * m[8]) / d, (m[1] * m[5] - m[2] * m[4]) / d,
      (m[5] * m[6] - m[3] * m[8]) / d, (m[0] * m[8] - m[2] * m[6]) / d, (m[2] * m[3] - m[0] * m[5]) / d,
      (m[3] * m[7] - m[4] * m[6]) / d, (m[1] * m[6] - m[0] * m[7]) / d, (m[0] * m[4] - m[1] * m[3]) / d,
  };
  std::memcpy(inverse, out, sizeof out);
  return 0;
}

ZT_API void multiplyMatrix3x3and3x1(const double *m, const double *v, double *out) {
  if (null_arg("multiplyMatrix3x3and3x1", m, v, out)) return;
  const double x = v[0], y = v[1], z = v[2];
  out[0] = m[0] * x + m[1] * y + m[2] * z;
  out[1] = m[3] * x + m[4] * y + m[5] * z;
  out[2] = m[6] * x + m[7] * y + m[8] * z;
}

ZT_API void multiplyMatrix3x3and3x3(const double *a, const double *b, double *out) {
  if (null_arg("multiplyMatrix3x3and3x3", a, b, out)) return;
  double r[9];
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) {
      r[row * 3 + col] = a[row * 3] * b[col] + a[row * 3 + 1] * b[3 + col] + a[row * 3 + 2] * b[6 + col];
    }
  }
  std::memcpy(out, r, sizeof r);
}

ZT_API int32_t identityMatrix3x3(double *m) {
  if (null_arg("identityMatrix3x3", m)) return -1;
  std::memcpy(m, kIdentity, sizeof kIdentity);
  return 0;
}

ZT_API int32_t isIdentityMatrix3x3(const double *m) {
  if (null_arg("isIdentityMatrix3x3", m)) return 0;
  // Exact comparison on purpose: callers use it to skip a conversion, which
  // is only safe when the matrix changes nothing at all.
  for (int i = 0; i < 9; ++i) {
    if (!(m[i] == kIdentity[i])) return 0;
  }
  return 1;
}

ZT_API void PrintMatrix(const double *m, const char *title) {
  if (null_arg("PrintMatrix", m)) return;
  print_3x3(m, title);
}

ZT_API void PrintMatrix3x3(const double *m, const char *title) {
  if (null_arg("PrintMatrix3x3", m)) return;
  print_3x3(m, title);
}

ZT_API void PrintMatrix3x1(const double *v, const char *title) {
  if (null_arg("PrintMatrix3x1", v)) return;
  std::printf("Matrix %s is\n", title != nullptr ? title : "Untitled");
  for (int i = 0; i < 3; ++i) std::printf("%10.7f\n", v[i]);
}

}  // extern "C"
