/*
 * The thread pool and the thread worker.
 *
 * The pool hands a long-running function a thread of its own. Threads that
 * finish go back to an idle list and the most recently idle one is reused
 * first, so a busy program keeps few threads warm; a periodic
 * garbage-collection task retires threads idle for longer than the pool's
 * maximum age, down to its minimum number. The library's shared pool exists
 * from ZT_InitSubSystems to ZT_DeInitSubSystems; it starts no threads in
 * advance and retires idle ones after 180 seconds. Wherever a pool is asked
 * for, NULL means the shared pool.
 *
 * A pool function is called as function(argument, stop) and must return soon
 * after the stop word becomes non-zero (read it with ZT_StopRequested). It may
 * sleep with ZT_sleepCancelAllowed, which the pool ends early whenever it
 * wants the function to look at the stop word (threadpoolBreakThread,
 * threadpoolAbort, threadpoolDestroy).
 *
 * The thread worker is one dedicated thread for one function, with a start
 * handshake (threadworkerLaunch returns once the thread is about to call the
 * function, so a stop sent at once still reaches it) and a stop
 * handshake (threadworkerDestroy sets the stop word, wakes the function's
 * sleep and joins the thread).
 *
 * Failures are logged once from module "zt_threadpool".
 */
#ifndef ZT_THREADPOOL_H
#define ZT_THREADPOOL_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Called on a pool or worker thread; return once *stop is non-zero. */
typedef void (*threadpool_function_t)(void *argument, uint32_t *stop);

/* The stop word's value when a stop is requested. */
#define ZT_STOP_REQUESTED 0xFFFFFFFFu

/* Reads the stop word the way the pool writes it (atomically). */
static inline uint32_t ZT_StopRequested(const uint32_t *stop) {
  return __atomic_load_n(stop, __ATOMIC_ACQUIRE);
}

/* The cap on a pool's threads until threadpoolSetMaxNumThreads changes it. */
#define ZT_THREADPOOL_DEFAULT_MAX_THREADS 64u

typedef struct ZT_ThreadPool ZT_ThreadPool;
typedef struct ZT_ThreadWorker ZT_ThreadWorker;

/* ------------------------------------------------------------------------ */
/* Pools                                                                      */
/* ------------------------------------------------------------------------ */

/* Creates the shared pool once: 0, or -1 (logged: "Cannot initialise
 * threadpool internals"). */
ZT_API int32_t threadpoolStaticInit(void);
/* Destroys the shared pool (as threadpoolDestroy); nothing when there is none. */
ZT_API void threadpoolStaticFree(void);

/* A pool that keeps at least `min_threads` threads (started now) and retires
 * idle threads after `max_age_seconds` (0 means 180). Registers the pool's
 * garbage-collection task. NULL when memory runs out or a lock cannot be made
 * (logged). */
ZT_API ZT_ThreadPool *threadpoolCreate(uint32_t min_threads, uint32_t max_age_seconds);
/* Unregisters the garbage collection, sets the stop word of every running
 * function and wakes it, stops the idle threads, and waits for every thread
 * to end before freeing the pool: it returns only once every running function
 * has returned, so it must not be called from one of the pool's functions.
 * NULL is accepted (and is not the shared pool here). */
ZT_API void threadpoolDestroy(ZT_ThreadPool *pool);

/* Runs function(argument, stop) on an idle thread of the pool, or on a new
 * one. 0, or -1 (logged) for a NULL function, no pool, a pool being destroyed,
 * no memory or a thread that cannot start. */
ZT_API int32_t threadpoolExecute(ZT_ThreadPool *pool, threadpool_function_t function, void *argument);
/* Wakes the thread running (function, argument) from ZT_sleepCancelAllowed,
 * or makes its next such sleep return at once. 0, or -1 when no thread runs
 * that pair (not logged). */
ZT_API int32_t threadpoolBreakThread(ZT_ThreadPool *pool, threadpool_function_t function, void *argument);
/* 1 while a thread of the pool runs (function, argument), else 0; -1 for no
 * pool. */
ZT_API int32_t threadpoolThreadRunning(ZT_ThreadPool *pool, threadpool_function_t function, void *argument);
/* Sets the stop word of every running function and wakes it; the threads end
 * when their functions return instead of going back to the idle list. Idle
 * threads and the pool stay. Returns the number of functions asked to stop,
 * or -1 for no pool. */
ZT_API int32_t threadpoolAbort(ZT_ThreadPool *pool);
/* Called by a pool function: its thread ends once the function returns
 * instead of going back to the idle list (for functions that change the state
 * of their thread). 0, or -1 when the caller is not a pool thread. */
ZT_API int32_t threadpoolWorkerThreadFinalise(void);
/* Joins and frees the threads that ended after threadpoolAbort or
 * threadpoolWorkerThreadFinalise. Garbage collection and threadpoolDestroy do
 * this too. Returns how many were collected, or -1 for no pool. */
ZT_API int32_t threadpoolThreadExited(ZT_ThreadPool *pool);

/* Records the minimum number of threads and starts idle threads while there
 * are fewer idle ones than that. 0, or -1 for no pool; running out of memory
 * or threads stops quietly with 0. */
ZT_API int32_t threadpoolSetMinNumThreads(ZT_ThreadPool *pool, uint32_t min_threads);
/* The most threads (idle, busy and ended but not yet joined) a pool keeps;
 * ZT_THREADPOOL_DEFAULT_MAX_THREADS when created. threadpoolExecute over the
 * cap starts no thread: it logs "Thread pool is at its limit of %u threads"
 * and returns -1, so a server that hands each connection a thread refuses
 * the connection instead of growing without bound. threadpoolSetMinNumThreads
 * starts none beyond it either. 0 restores the default; lowering the cap
 * stops no running function. 0, or -1 for no pool. */
ZT_API int32_t threadpoolSetMaxNumThreads(ZT_ThreadPool *pool, uint32_t max_threads);

/* Sets the maximum idle age (0 means 180 seconds) and registers or updates the
 * garbage-collection task, which runs every max(60, 2/3 * age) seconds.
 * 0, or -1 for no pool or when the task cannot be registered (logged by the
 * periodic tasks). */
ZT_API int32_t threadpoolSetMaxThreadAge(ZT_ThreadPool *pool, uint32_t max_age_seconds);
/* Collects ended threads; then, unless the last run was less than 60 seconds
 * ago, stops the idle threads that have been idle for longer than the maximum
 * age, oldest first, while more than the minimum number are idle. Returns the
 * number of idle threads retired, or -1 for no pool. */
ZT_API int32_t threadpoolGarbageCollect(ZT_ThreadPool *pool);

/* Idle and busy threads of the pool now (0 for no pool). */
ZT_API uint32_t threadpoolIdleCount(ZT_ThreadPool *pool);
ZT_API uint32_t threadpoolBusyCount(ZT_ThreadPool *pool);
/* The pool thread number of the calling thread (1, 2, ... per pool), or 0 when
 * it is not a pool thread. */
ZT_API uint32_t threadpoolCurrentThreadNumber(void);

/* ------------------------------------------------------------------------ */
/* Sleeping                                                                   */
/* ------------------------------------------------------------------------ */

/* Sleeps about `seconds` on the calling thread. The sleep ends early when the
 * thread is woken (threadpoolBreakThread, ZT_ThreadInfoWake, threadworkerWake,
 * pool shut-down) or when *stop (may be NULL) becomes non-zero; a wake-up that
 * arrives before the sleep makes it return at once. 0 seconds yields the
 * processor once. Returns 0 when the full time passed, 1 when the sleep ended
 * early. */
ZT_API int32_t ZT_sleepCancelAllowed(uint32_t seconds, uint32_t *stop);

/* ------------------------------------------------------------------------ */
/* Thread worker                                                              */
/* ------------------------------------------------------------------------ */

/* Starts a thread named `name` (NULL: "zt-worker"; cut to 15 bytes) that calls
 * function(argument, stop) once, and returns when the thread is running and
 * about to call it. NULL (logged) for a NULL function, no memory or a thread that
 * cannot start. */
ZT_API ZT_ThreadWorker *threadworkerLaunch(threadpool_function_t function, void *argument, const char *name);
/* Wakes the worker's ZT_sleepCancelAllowed (or its next one). 0, or -1 for
 * NULL. */
ZT_API int32_t threadworkerWake(ZT_ThreadWorker *worker);
/* Sets the stop word and wakes the worker without waiting (to stop several at
 * once). 0, or -1 for NULL. */
ZT_API int32_t threadworkerStop(ZT_ThreadWorker *worker);
/* 1 while the worker's function has not returned, 0 after; -1 for NULL. */
ZT_API int32_t threadworkerRunning(ZT_ThreadWorker *worker);
/* Stops the worker (as threadworkerStop), joins its thread and frees it. NULL
 * is accepted. */
ZT_API void threadworkerDestroy(ZT_ThreadWorker *worker);

ZT_EXTERN_C_END

#endif
