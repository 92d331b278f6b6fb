/*
 * Periodic tasks: functions the library calls again and again, at least every
 * `interval_seconds` apart, from one thread on the shared thread pool. A task
 * is named by the pair (function, argument). Intervals below 5 seconds are
 * raised to 5. Tasks may be registered before ZT_InitSubSystems; the thread
 * starts at the end of start-up.
 */
#ifndef ZT_PERIODIC_H
#define ZT_PERIODIC_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

typedef void (*ZTPeriodicTaskFn)(void *argument);

/* Shortest interval between two runs of a task. */
#define ZT_PERIODIC_MIN_INTERVAL 5

/* Adds a task: 0, or -1 for a NULL function or when memory runs out (logged). */
ZT_API int32_t registerPeriodicTask(ZTPeriodicTaskFn task, void *argument, uint32_t interval_seconds);
/* Changes a task's interval: 0, or -1 when there is no such task. */
ZT_API int32_t updatePeriodicTask(ZTPeriodicTaskFn task, void *argument, uint32_t interval_seconds);
/* Removes a task (a task may remove itself while it runs): 0, or -1 when there
 * is no such task. */
ZT_API int32_t unregisterPeriodicTask(ZTPeriodicTaskFn task, void *argument);

ZT_EXTERN_C_END

#endif
