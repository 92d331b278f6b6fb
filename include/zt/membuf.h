/*
 * A growable block of bytes, used by the log to collect records and by the
 * packet channels to assemble messages.
 */
#ifndef ZT_MEMBUF_H
#define ZT_MEMBUF_H

#include <stddef.h>
#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

typedef struct ZT_MemBuf ZT_MemBuf;

/* A new empty buffer with room for `initial_capacity` bytes (0 picks a small
 * default); NULL when memory runs out (logged). */
ZT_API ZT_MemBuf *ZT_MemBufCreate(size_t initial_capacity);
/* Frees the buffer and its bytes; NULL is accepted. */
ZT_API void ZT_MemBufFree(ZT_MemBuf *buf);
/* Appends `size` bytes; 0 or -1 when memory runs out (logged; the buffer keeps
 * its former contents). */
ZT_API int32_t ZT_MemBufAppend(ZT_MemBuf *buf, const void *data, size_t size);
/* The bytes held; valid until the next append or free. NULL for an empty buffer
 * that never held anything. The bytes are always followed by a NUL that is not
 * counted in the size, so text can be read in place. */
ZT_API void *ZT_MemBufPointer(const ZT_MemBuf *buf);
ZT_API size_t ZT_MemBufSize(const ZT_MemBuf *buf);
/* Empties the buffer, keeping its storage. */
ZT_API void ZT_MemBufClear(ZT_MemBuf *buf);

ZT_EXTERN_C_END

#endif
