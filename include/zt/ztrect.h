/*
 * Rectangles: four double-precision edges (left, top, right, bottom). A
 * rectangle made from an origin and a size stores origin + size on its right
 * and bottom edges. Every function accepts a null rectangle and then does
 * nothing, returning null or 0.
 */
#ifndef ZT_ZTRECT_H
#define ZT_ZTRECT_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

typedef struct ZT_Rect {
  double left;
  double top;
  double right;
  double bottom;
} ZT_Rect;

/* Writes x, y, x + w, y + h into r; returns r. */
ZT_API ZT_Rect *ztrectInit(ZT_Rect *r, double x, double y, double w, double h);
/* A new zero-filled rectangle set up like ztrectInit; release with free().
 * Null after logging "Cannot allocate memory". */
ZT_API ZT_Rect *ztrectAllocateAndInit(double x, double y, double w, double h);
ZT_API ZT_Rect *ztrectcpy(ZT_Rect *dst, const ZT_Rect *src);
/* |right - left| and |bottom - top|. */
ZT_API double ztrectWidth(const ZT_Rect *r);
ZT_API double ztrectHeight(const ZT_Rect *r);
/* Swaps inverted edges so that left <= right and top <= bottom; returns r. */
ZT_API ZT_Rect *ztrectFix(ZT_Rect *r);
/* Normalises a and b in place; 1 when they overlap or touch, else 0. */
ZT_API int32_t ztrectIntersect(ZT_Rect *a, ZT_Rect *b);
/* Normalises a and b; out receives their overlap, or a copy of a when they do
 * not meet. Returns out. */
ZT_API ZT_Rect *ztrectIntersection(ZT_Rect *a, ZT_Rect *b, ZT_Rect *out);
/* Logs (or prints on standard error) "label: left, top : width x height". */
ZT_API void ztrectLogMessage(const ZT_Rect *r, const char *label);
ZT_API void ztrectPrint(const ZT_Rect *r, const char *label);

ZT_EXTERN_C_END

#endif
