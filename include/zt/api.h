/* Export macro and shared definitions of every public ZTlib header. */
#ifndef ZT_ZT_API_H
#define ZT_ZT_API_H

#if defined(ZT_BUILDING_LIBRARY)
#define ZT_API __attribute__((visibility("default")))
#else
#define ZT_API
#endif

#ifdef __cplusplus
#define ZT_EXTERN_C_BEGIN extern "C" {
#define ZT_EXTERN_C_END }
#else
#define ZT_EXTERN_C_BEGIN
#define ZT_EXTERN_C_END
#endif

/* Status results: 0 success, -1 failure (all ones as an unsigned 32-bit value). */
#define ZT_OK 0
#define ZT_FAIL (-1)

#endif
