/*
 * Time: seconds since the epoch as 64-bit integers, the library's start time,
 * and calendar conversions made safe to call from any thread.
 */
#ifndef ZT_ZTTIME_H
#define ZT_ZTTIME_H

#include <stdint.h>
#include <time.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

ZT_API void ZT_InitTimeSubSystem(void);
ZT_API void deinitTimeSubSystem(void);
/* Seconds since the epoch. */
ZT_API int64_t ZT_Time(void);
/* Milliseconds of a clock that never goes back (for measuring intervals). */
ZT_API int64_t ZT_TimeMonotonicMs(void);
/* Local calendar time of `seconds`: 0, or -1 when it cannot be represented. */
ZT_API int32_t ZT_LocalTime(int64_t seconds, struct tm *out);
/* The time at which ZT_InitSubSystems ran; 0 before it. */
ZT_API int64_t ZT_ProcessStartTime(void);
/* Seconds since ZT_InitSubSystems; 0 before it. */
ZT_API int64_t ZT_ProcessUptime(void);
/* Counts a unit of processed work and returns the total since start-up (the
 * host's own bookkeeping, e.g. pages). */
ZT_API uint64_t ZT_ProcessCountWork(uint64_t units);

ZT_EXTERN_C_END

#endif
