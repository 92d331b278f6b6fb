/*
 * The thread layer: read-write locks, processor counts, the ring queue, task
 * queues with their completion records, and per-thread information records.
 *
 * Task queues split one job over the processors: a fixed set of worker
 * threads drains a ring of small tasks. Two shared queues exist from
 * ZT_InitSubSystems to ZT_DeInitSubSystems: the default queue, with
 * max(4, logical processors) workers, for processor-bound work, and the
 * I/O-bound queue, with max(4, processor cores) workers.
 *
 * The usual way to use all processors is to lay out one argument block per
 * piece of work in an array and hand it to
 * pthread_taskq_enqueue_multiple_and_wait on the default queue with the block
 * size as stride; the call returns when the last piece has finished.
 *
 * A task must not wait for tasks of its own queue (enqueue_and_wait from a
 * task): every worker may end up waiting and none left to run the work.
 *
 * Records with cache-line aligned fields (ZT_RingQueue, ZT_TaskQueue) need
 * storage aligned to 64 bytes: static or automatic storage, C++ new, or
 * aligned_alloc(64, ...). Plain malloc still works but may share cache lines.
 *
 * All functions log their failures once, from module "zt_threads", and return
 * -1 (or NULL); callers only look at the status.
 */
#ifndef ZT_THREADS_H
#define ZT_THREADS_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <zt/api.h>

/* Keeps fields that different threads write on cache lines of their own. */
#define ZT_CACHE_LINE 64
#if defined(__cplusplus)
#define ZT_CACHE_ALIGNED alignas(ZT_CACHE_LINE)
#else
#define ZT_CACHE_ALIGNED _Alignas(ZT_CACHE_LINE)
#endif

ZT_EXTERN_C_BEGIN

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

/* A task: called as function(argument) on a worker thread. */
typedef void (*pthread_taskq_function_t)(void *argument);

/* Counts the tasks of one enqueue call so that its caller can wait for them.
 * One record serves one enqueue call at a time: every enqueue resets it. */
typedef struct ZT_TaskCompletion {
  sem_t semaphore;    /* posted when `finished` reaches `expected` */
  uint32_t finished;  /* tasks that have run (or were dropped) */
  uint32_t expected;  /* tasks the enqueue call meant to queue */
  uint32_t submitted; /* tasks it did queue; 0 again after a wait */
} ZT_TaskCompletion;

/* One ring entry (24 bytes). */
typedef struct ZT_TaskEntry {
  pthread_taskq_function_t function; /* NULL or all ones: dropped unrun */
  void *argument;
  ZT_TaskCompletion *completion; /* may be NULL */
} ZT_TaskEntry;

/* A ring of fixed-size entries. `head` and `tail` are 32-bit counters that
 * only grow (and wrap); an entry's slot is its index masked by capacity - 1.
 * Producers serialise on the producer lock, consumers on the consumer lock;
 * each side reads the other's counter without its lock. */
typedef struct ZT_RingQueue {
  void *entries;                  /* owned; capacity * entry_size bytes */
  ZT_CACHE_ALIGNED uint32_t head; /* next entry to take */
  ZT_CACHE_ALIGNED uint32_t tail; /* next entry to fill */
  uint32_t entry_size;            /* bytes per entry; 24 in task queues */
  uint32_t capacity;              /* a power of two */
  ZT_CACHE_ALIGNED pthread_spinlock_t consumer_lock;
  ZT_CACHE_ALIGNED pthread_spinlock_t producer_lock;
} ZT_RingQueue;

/* Task queue states. */
#define ZT_TASKQ_RUNNING 0u
#define ZT_TASKQ_ABORTING 1u          /* tasks are taken and dropped */
#define ZT_TASKQ_SHUTDOWN 0xFFFFFFFFu /* workers leave */

typedef struct ZT_TaskQueue {
  sem_t semaphore; /* idle workers sleep here */
  ZT_RingQueue queue;
  uint32_t threads;                   /* worker threads started */
  int32_t attached;                   /* consumers attached; negative once destroyed */
  ZT_CACHE_ALIGNED uint32_t queued;   /* tasks queued and not yet finished */
  ZT_CACHE_ALIGNED uint32_t sleepers; /* workers waiting that no producer has posted for yet */
  ZT_CACHE_ALIGNED uint32_t state;    /* ZT_TASKQ_RUNNING, _ABORTING or _SHUTDOWN */
  pthread_t *workers;                 /* owned: the worker threads' handles */
} ZT_TaskQueue;

/* What the library knows about one thread. */
typedef struct ZT_ThreadInfo {
  uint32_t number;  /* pool thread number (1, 2, ...), 0 outside a thread pool */
  int32_t tid;      /* kernel thread id */
  pthread_t thread; /* the thread's handle */
  char name[16];    /* the thread's name as the kernel shows it */
  void *waker;      /* internal: what ZT_ThreadInfoWake signals */
} ZT_ThreadInfo;

/* ------------------------------------------------------------------------ */
/* Read-write locks. Each returns 0, or -1 for a NULL lock or a failing call. */
/* ------------------------------------------------------------------------ */

ZT_API int32_t ZT_LOCK_INIT(pthread_rwlock_t *lock);
ZT_API int32_t ZT_LOCK_READ(pthread_rwlock_t *lock);
ZT_API int32_t ZT_LOCK_WRITE(pthread_rwlock_t *lock);
ZT_API int32_t ZT_UNLOCK_READ(pthread_rwlock_t *lock);
ZT_API int32_t ZT_UNLOCK_WRITE(pthread_rwlock_t *lock);
ZT_API int32_t ZT_LOCK_DESTROY(pthread_rwlock_t *lock);

/* ------------------------------------------------------------------------ */
/* Processor counts, measured once and cached. Only processors this process  */
/* may run on count. When nothing reports, 2.                                */
/* ------------------------------------------------------------------------ */

/* Processor cores: distinct (package, core) pairs of the system's topology;
 * the logical count when the topology is unknown. */
ZT_API uint32_t ZT_numberOfCPUS(void);
ZT_API uint32_t ZT_numberOfPhysicalCPUS(void);
/* Logical processors (hardware threads). */
ZT_API uint32_t ZT_numberOfLogicalCPUS(void);

/* ------------------------------------------------------------------------ */
/* The ring queue by itself                                                   */
/* ------------------------------------------------------------------------ */

/* Sets up `queue` (any contents) for entries of `entry_size` bytes with
 * `capacity` rounded up to a power of two (32 when below 1). 0, or -1 (logged)
 * for bad arguments, no memory or a failing spin lock. */
ZT_API int32_t pthread_queue_init(ZT_RingQueue *queue, uint32_t entry_size, int32_t capacity);
/* Copies `entry` into the ring. A full ring first waits until consumers have
 * emptied it, then doubles its capacity: a queue without a consumer must be
 * made large enough for what it holds. 0, or -1 (logged) when growing fails. */
ZT_API int32_t pthread_queue_enqueue(ZT_RingQueue *queue, const void *entry);
/* Copies the oldest entry to `entry`: 0, or -1 when the ring is empty (not
 * logged). */
ZT_API int32_t pthread_queue_dequeue(ZT_RingQueue *queue, void *entry);
/* Entries in the ring now. */
ZT_API uint32_t pthread_queue_size(const ZT_RingQueue *queue);
/* Frees the storage and the locks; NULL is accepted. */
ZT_API void pthread_queue_destroy(ZT_RingQueue *queue);

/* ------------------------------------------------------------------------ */
/* Task queues                                                                */
/* ------------------------------------------------------------------------ */

/* Sets up `taskq` (any contents) and starts its workers. `threads` below 1
 * means the logical processor count, and fewer than 2 become 2. The ring holds
 * `queue_size` entries rounded up to a power of two, or 8 * threads when
 * `queue_size` is below 1; it doubles whenever a producer finds it full. 0, or
 * -1 (logged) with nothing left behind. */
ZT_API int32_t pthread_taskq_init(ZT_TaskQueue *taskq, int32_t queue_size, int32_t threads);
/* Creates the two shared queues once (ring size -1). 0, or -1 (logged). */
ZT_API int32_t pthread_taskq_init_default(void);
/* Ends the shared queues; nothing when they do not exist. */
ZT_API void pthread_taskq_destroy_default(void);
/* The shared queues; NULL before pthread_taskq_init_default. */
ZT_API ZT_TaskQueue *pthread_taskq_get_default(void);
ZT_API ZT_TaskQueue *pthread_taskq_get_iobound_default(void);

/* Queues function(argument). A non-NULL `completion` is first reset to expect
 * one task. 0, or -1 (logged) for a NULL or shut-down queue or when the ring
 * cannot grow. */
ZT_API int32_t pthread_taskq_enqueue(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                     pthread_taskq_function_t function, void *argument);
/* Queues `count` tasks of `function`; task i gets the argument
 * first_argument + i * stride bytes (stride 0: all the same argument). A
 * non-NULL `completion` is first reset to expect `count` tasks. 0, or -1
 * (logged) for a count of 0, a NULL or shut-down queue, or when the ring
 * cannot grow; the tasks queued before a failure still run, and the
 * completion record says how many there were. */
ZT_API int32_t pthread_taskq_enqueue_multiple(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                              uint32_t count, pthread_taskq_function_t function,
                                              void *first_argument, size_t stride);
/* As the two above, then waits for the tasks (pthread_taskq_completion_wait).
 * A NULL completion record gives -1 (logged). */
ZT_API int32_t pthread_taskq_enqueue_and_wait(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                              pthread_taskq_function_t function, void *argument);
ZT_API int32_t pthread_taskq_enqueue_multiple_and_wait(ZT_TaskQueue *taskq, ZT_TaskCompletion *completion,
                                                       uint32_t count, pthread_taskq_function_t function,
                                                       void *first_argument, size_t stride);

/* Sets up a completion record (any contents): 0, or -1 (logged). */
ZT_API int32_t pthread_taskq_completion_init(ZT_TaskCompletion *completion);
/* Waits for the tasks of the last enqueue call. 0 at once when nothing was
 * submitted; 0 when every expected task was submitted and all have finished;
 * -1 (not logged: the failed enqueue logged) when some were never queued,
 * after the queued ones have finished. */
ZT_API int32_t pthread_taskq_completion_wait(ZT_TaskCompletion *completion);
/* Counts one finished task, waking the waiter when it was the last expected
 * one. For callers that take tasks with pthread_taskq_dequeue. NULL is
 * accepted. */
ZT_API void pthread_taskq_completion_task_done(ZT_TaskCompletion *completion);
/* NULL is accepted. No task of the record may still be queued. */
ZT_API void pthread_taskq_completion_destroy(ZT_TaskCompletion *completion);

/* Takes the oldest task for a consumer of the caller's own (attached with
 * pthread_taskq_consumer_attach), which runs it and then calls
 * pthread_taskq_completion_task_done(entry->completion). 0, or -1 when the
 * ring is empty or the queue shut down; while the queue aborts, tasks are
 * dropped instead (they count as finished) and the result is -1. */
ZT_API int32_t pthread_taskq_dequeue(ZT_TaskQueue *taskq, ZT_TaskEntry *entry);
/* Tasks queued and not yet finished; 0 for NULL. */
ZT_API uint32_t pthread_taskq_size(const ZT_TaskQueue *taskq);
/* Registers a consumer: 0, or -1 when the queue has been destroyed (logged:
 * "Could not attach to taskq"). */
ZT_API int32_t pthread_taskq_consumer_attach(ZT_TaskQueue *taskq);
ZT_API void pthread_taskq_consumer_dettach(ZT_TaskQueue *taskq);
/* From now on tasks are taken and dropped without running; a dropped task
 * still counts as finished, so waiters return. There is no way back to
 * running. 0, or -1 for NULL. */
ZT_API int32_t pthread_taskq_abort(ZT_TaskQueue *taskq);
/* Makes the workers leave; queued tasks are never run and their waiters are
 * never woken. 0, or -1 for NULL. */
ZT_API int32_t pthread_taskq_shutdown(ZT_TaskQueue *taskq);
/* Shuts the queue down, waits for running tasks and every attached consumer
 * to leave, then frees the ring; so it must not be called from a task of the
 * queue. NULL and a second call are accepted. */
ZT_API void pthread_taskq_destroy(ZT_TaskQueue *taskq);

/* ------------------------------------------------------------------------ */
/* Per-thread information                                                     */
/* ------------------------------------------------------------------------ */

/* A record describing the calling thread, owned by the caller. A non-NULL
 * `name` (cut to 15 bytes) also renames the thread. NULL when memory runs out
 * (logged). */
ZT_API ZT_ThreadInfo *ZT_ThreadInfoCreate(const char *name);
/* NULL is accepted. */
ZT_API void ZT_ThreadInfoDestroy(ZT_ThreadInfo *info);
/* Ends the described thread's ZT_sleepCancelAllowed early, or its next one
 * when it is not sleeping now. Harmless once the thread has ended. 0, or -1
 * for NULL. */
ZT_API int32_t ZT_ThreadInfoWake(const ZT_ThreadInfo *info);

ZT_EXTERN_C_END

#endif
