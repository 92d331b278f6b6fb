/*
 * The error log.
 *
 * Every failure in the library is reported once, where it happens, through
 * ZTLogMessage. Records are collected in memory and appended to the log file
 * ("errors.log" in the working directory unless changed) as five LF-ended
 * lines: the magic 185209664, the time in seconds since the epoch, the module,
 * the function and the message. Before ZT_InitSubSystems and after
 * ZT_DeInitSubSystems messages go to standard error as "module:function message".
 *
 * Clients see every message that is not suppressed, also while the file is
 * off. A client callback runs under the log's read lock and so must not log.
 */
#ifndef ZT_LOG_H
#define ZT_LOG_H

#include <stdint.h>
#include <zt/lists.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* First line of every record. */
#define ZT_LOG_MAGIC 185209664u
/* Longest message kept; longer ones are cut. */
#define ZT_LOG_MAX_MESSAGE 1023
/* The memory buffer is appended to the file once it holds more than this. */
#define ZT_LOG_FLUSH_THRESHOLD 65536

/* ZTLogMessage kinds. */
#define ZT_LOG_FORMAT 1          /* format applied to the arguments */
#define ZT_LOG_ALLOC_FAILED 2    /* "Failed To allocate %d bytes of memory" */
#define ZT_LOG_GLOBALS_FAILED 3  /* "Failed To initialise global Korvane structure" */
#define ZT_LOG_BAD_STORAGE 4     /* "Specified storage class of %d is invalid" */

/* Called for every logged message; `reserved` is always 0. */
typedef void (*ZTLogClientFn)(void *user_data, const char *module, const char *function,
                              const char *message, int64_t time_seconds, uint32_t reserved);

/* One record read back from the log file; a list node leads the record. */
typedef struct ZTLogBacklog {
  ZTListNode node;              /* owned data unused */
  char *module;                 /* owned copies */
  char *function;
  char *message;
  int64_t time;                 /* seconds since the epoch */
  uint32_t reserved;            /* 0 */
} ZTLogBacklog;

/* An output-driver description as ZTLogDestinationProperties prints it. */
typedef struct ZTDestination {
  const char *name;
  const char *version;
  const char *dll_name;
} ZTDestination;

/* The primitive: any argument may be NULL (logged as the empty string).
 * The message is cut to 1,023 bytes and CR/LF become '_'. */
ZT_API void LogError(const char *module, const char *function, const char *message);

/* Formats by `kind` (see above) and logs. The two reserved arguments are
 * ignored (callers pass 0 and 1). A NULL format logs nothing; kinds 2 to 4
 * take the empty string as format. */
ZT_API void ZTLogMessage(const char *module, const char *function, int reserved1, int kind,
                         int reserved2, const char *format, ...);

/* Registers a client; returns its id (1, 2, 3 ..., never reused) or -1 when
 * the log is not initialised or memory runs out. */
ZT_API int32_t LogErrorAddClient(ZTLogClientFn callback, void *user_data);
/* Removes every client with that id: 0, or -1 when the log is not initialised. */
ZT_API int32_t LogErrorRemoveClient(int32_t id);
/* Non-zero drops every message (file, standard error and clients). */
ZT_API void LogErrorDisable(int flag);
/* Turns writing to the file on or off; a non-NULL path replaces the file name.
 * Turning it off discards records not yet flushed. */
ZT_API void LogErrorLogtofile(int flag, const char *path);
/* Appends the buffered records to the file now (standard error when the file
 * cannot be opened). */
ZT_API void LogErrorFlush(void);
/* Rewrites the log keeping only well-formed records not older than the limit
 * (0 keeps every one). Works through "errors.trimmed" in the working directory.
 * 0, or -1 when the log is not initialised. */
ZT_API int32_t LogErrorTrimLogfile(int64_t max_age_seconds);
/* Reads the log file back: a list of records not older than the limit (0 for
 * all), or NULL. Free it with ZTLogFreeBacklog. */
ZT_API ZTLogBacklog *GetErrorMessagesWithBacklog(int64_t max_age_seconds);
/* Frees a list returned by GetErrorMessagesWithBacklog; NULL is accepted. */
ZT_API void ZTLogFreeBacklog(ZTLogBacklog *list);
/* Logs the four-line description of an output driver. NULL is ignored. */
ZT_API void ZTLogDestinationProperties(const ZTDestination *destination);

ZT_EXTERN_C_END

#endif
