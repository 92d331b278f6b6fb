/*
 * Library start-up and shut-down, the variables record, the global record,
 * the scratch directory, the job and scratch-file sequence numbers and the
 * page-setup reference cache.
 *
 * The library has no automatic initialisation. A host sets the variables
 * record (ZTSetVariables), calls ZT_InitSubSystems and then
 * ZT_InitSubSystems2, and at shut-down ZT_DeInitSubSystems2 and then
 * ZT_DeInitSubSystems. Each call is idempotent; after a full shut-down the
 * library can be started again.
 */
#ifndef ZT_INIT_H
#define ZT_INIT_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Process-wide services: random numbers, timing, the log, the default task
 * queues, the scratch directory, the thread pool and every module cache, then
 * the periodic-task thread. */
ZT_API void ZT_InitSubSystems(void);
ZT_API void ZT_DeInitSubSystems(void);
/* Services that need the installation tree: the page-setup reference cache and
 * the job and scratch-file numbers read from "etc/jobid.seq" and
 * "etc/mktmp.seq" under the root. Requires the variables record. */
ZT_API void ZT_InitSubSystems2(void);
/* Writes both numbers back and releases what ZT_InitSubSystems2 made. */
ZT_API void ZT_DeInitSubSystems2(void);

/* The variables record; its first field is the installation root. */
typedef struct ZTVariables {
  char *root;  /* owned; no trailing '/' */
} ZTVariables;

/* Sets the process's variables record to an owned copy of `root` (trailing
 * slashes removed), replacing any former one. 0, or -1 for a NULL root or when
 * memory runs out (logged). */
ZT_API int32_t ZTSetVariables(const char *root);
/* The variables record. When none is set, writes
 * "Panic: NULL variables structure ieee. exiting..." to standard error and
 * ends the process with status 10. */
ZT_API ZTVariables *ZTGetVariables(void);
/* Releases the record set by ZTSetVariables; nothing when none is set. */
ZT_API void ZTReleaseVariables(void);
/* Releases the fields of a variables block (not the block); NULL is accepted. */
ZT_API void ZTFreeVariables(ZTVariables *variables);
/* root + "/" + relative, in a buffer the caller frees with free(); NULL when
 * memory runs out (logged). Ends the process like ZTGetVariables when no
 * record is set. */
ZT_API char *ZTMakeRootPath(const char *relative);

/* The global record. Its first member is a read-write lock (ZT_LOCK_*). */
typedef struct ZTGlobals ZTGlobals;
/* Allocates the record zero-filled; NULL when it exists already or memory runs
 * out (both logged). */
ZT_API ZTGlobals *ZTInitGlobals(void);
ZT_API ZTGlobals *ZTGetGlobals(void);
/* Releases the record and everything it holds; nothing when there is none. */
ZT_API void ZTDestroyGlobals(void);

/* The per-user scratch directory ($XDG_CACHE_HOME, else $HOME/.cache, with
 * "/Korvane/Temp" appended, or "." when neither is known); NULL before
 * start-up. Owned by the library. */
ZT_API const char *ZT_GetTempDirectory(void);

/* The next job number (from "etc/jobid.seq"), advancing it; 0 before
 * ZT_InitSubSystems2. */
ZT_API uint32_t ZTNextJobNumber(void);
/* The next scratch-file number (from "etc/mktmp.seq"), advancing it; 0 before
 * ZT_InitSubSystems2. */
ZT_API uint32_t ZTNextUniqueNumber(void);

/* The page-setup reference cache: 64-bit key to a 32-bit reference id. */
/* Adds or replaces the entry for `key`: 0, or -1 before ZT_InitSubSystems2 or
 * when memory runs out (logged). */
ZT_API int32_t addPagesetupRef(uint64_t key, uint32_t id);
/* 0 and the id in *id when `key` is cached, else -1. */
ZT_API int32_t findPagesetupRef(uint64_t key, uint32_t *id);
/* 0 when an entry was removed, else -1. */
ZT_API int32_t removePagesetupRefByKey(uint64_t key);
/* Removes every entry with that id: 0 when any was removed, else -1. */
ZT_API int32_t removePagesetupRefById(uint32_t id);
ZT_API void clearPagesetupRefsCache(void);

ZT_EXTERN_C_END

#endif
