// Rectangles: four edges, right and bottom being origin + size.
#include <zt/ztrect.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "foundation/internal.h"

namespace {
constexpr const char *kRectModule = "zt_rect";
}

extern "C" {

ZT_API ZT_Rect *ztrectInit(ZT_Rect *r, double x, double y, double w, double h) {
  if (r == nullptr) return nullptr;
  r->left = x;
  r->top = y;
  r->right = x + w;
  r->bottom = y + h;
  return r;
}

ZT_API ZT_Rect *ztrectAllocateAndInit(double x, double y, double w, double h) {
  auto *r = static_cast<ZT_Rect *>(std::calloc(1, sizeof(ZT_Rect)));
  if (r == nullptr) {
    ZT_LOG(kRectModule, "ztrectAllocateAndInit", "Cannot allocate memory");
    return nullptr;
  }
  return ztrectInit(r, x, y, w, h);
}

ZT_API ZT_Rect *ztrectcpy(ZT_Rect *dst, const ZT_Rect *src) {
  if (dst == nullptr || src == nullptr) return nullptr;
  *dst = *src;
  return dst;
}

ZT_API double ztrectWidth(const ZT_Rect *r) { return r == nullptr ? 0.0 : std::fabs(r->right - r->left); }

ZT_API double ztrectHeight(const ZT_Rect *r) { return r == nullptr ? 0.0 : std::fabs(r->bottom - r->top); }

ZT_API ZT_Rect *ztrectFix(ZT_Rect *r) {
  if (r == nullptr) return nullptr;
  if (r->left > r->right) std::swap(r->left, r->right);
  if (r->top > r->bottom) std::swap(r->top, r->bottom);
  return r;
}

ZT_API int32_t ztrectIntersect(ZT_Rect *a, ZT_Rect *b) {
  if (a == nullptr || b == nullptr) return 0;
  ztrectFix(a);
  ztrectFix(b);
  return std::fmax(a->left, b->left) <= std::fmin(a->right, b->right) &&
                 std::fmax(a->top, b->top) <= std::fmin(a->bottom, b->bottom)
             ? 1
             : 0;
}

ZT_API ZT_Rect *ztrectIntersection(ZT_Rect *a, ZT_Rect *b, ZT_Rect *out) {
  if (a == nullptr || b == nullptr || out == nullptr) return nullptr;
  if (!ztrectIntersect(a, b)) {
    // Disjoint rectangles give the first one back, not an empty rectangle;
    // callers rely on that.
    *out = *a;
    return out;
  }
  const ZT_Rect r = {std::fmax(a->left, b->left), std::fmax(a->top, b->top), std::fmin(a->right, b->right),
                     std::fmin(a->bottom, b->bottom)};
  *out = r;
  return out;
}

ZT_API void ztrectLogMessage(const ZT_Rect *r, const char *label) {
  if (r == nullptr) return;
  if (label != nullptr) {
    ZT_LOG(kRectModule, "ztrectLogMessage", "%s: %f, %f : %f x %f", label, r->left, r->top,
           r->right - r->left, r->bottom - r->top);
  } else {
    ZT_LOG(kRectModule, "ztrectLogMessage", "%f, %f : %f x %f", r->left, r->top, r->right - r->left,
           r->bottom - r->top);
  }
}

ZT_API void ztrectPrint(const ZT_Rect *r, const char *label) {
  if (r == nullptr) return;
  if (label != nullptr) {
    std::fprintf(stderr, "%s: %f, %f : %f x %f\n", label, r->left, r->top, r->right - r->left,
                 r->bottom - r->top);
  } else {
    std::fprintf(stderr, "%f, %f : %f x %f\n", r->left, r->top, r->right - r->left, r->bottom - r->top);
  }
}

}  // extern "C"
