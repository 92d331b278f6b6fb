/*
 * The RPC value stream: typed values on a socket, read back in the order
 * they were written.
 *
 * Every value is an item: a 12-byte header (type, 4 bytes; data length, 8
 * bytes; both big-endian) and its data. Writes collect in the channel's output
 * buffer and leave in one piece with ZTRPC_WriteFlush; reads are served from
 * the input buffer, refilled from the socket with the channel's time-out.
 *
 * The time-out bounds a whole item, header and data together, not each wait:
 * a peer that sends one byte just inside every time-out is dropped once the
 * item's time is up ("Timeout after %d seconds reading from socket"). File
 * data, which may be far larger, must bring each 1 MiB block (or the rest)
 * within one time-out. A server that gives each connection a thread of a
 * pool also relies on the pool's cap (threadpoolSetMaxNumThreads) to bound
 * the threads that stalled peers hold.
 *
 * A datagram ("udp") server reads from every peer, and its answers (the next
 * ZTRPC_WriteFlush) go to the peer whose datagram it read last. A datagram
 * must hold whole items (one flush of at most 64 KiB is one datagram), so
 * the items of different peers never mix.
 *
 * Readers check the item type and the exact data length each expects
 * (4 bytes for types 1, 2 and 7; 8 for 10 and 11; type 6 at least 48). A
 * mismatch logs "Expected item type %d, got type %u with %llu bytes", skips
 * the item's data when its length is within the item limit (so the stream
 * stays in step) and returns -1. A length above the limit
 * (ZT_RPC_DEFAULT_ITEM_LIMIT, settable) is refused before anything is
 * allocated; the channel is then out of step and should be destroyed.
 *
 * Sockets are non-blocking and waited on with poll; sends use MSG_NOSIGNAL,
 * so a closed peer gives -1, never SIGPIPE. A channel belongs to one thread;
 * only ZTRPC_Abort may come from another. Messages go to the log from module
 * "zt_rpc".
 */
#ifndef ZT_ZTRPC_H
#define ZT_ZTRPC_H

#include <stdint.h>
#include <zt/lists.h>
#include <zt/membuf.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

#define ZT_RPC_TCP 1
#define ZT_RPC_UDP 2
#define ZT_RPC_LISTENING 1
#define ZT_RPC_CONNECTED 2

#define ZT_RPC_LONG 1u
#define ZT_RPC_ULONG 2u
#define ZT_RPC_STRING 5u
#define ZT_RPC_PACKETABLE 6u
#define ZT_RPC_REQUEST 7u
#define ZT_RPC_FILE_START 8u
#define ZT_RPC_FILE_DATA 9u
#define ZT_RPC_ZTKEY 10u
#define ZT_RPC_OFF_T 11u

#define ZT_RPC_ITEM_HEADER 12u
#define ZT_RPC_DEFAULT_TIMEOUT 60
#define ZT_RPC_DEFAULT_ITEM_LIMIT (256u * 1024u * 1024u)
#define ZT_RPC_DEFAULT_FILE_LIMIT (64ull * 1024u * 1024u * 1024u)

typedef struct ZTRPC {
  int socket;           /* -1 when there is none */
  int32_t protocol;     /* ZT_RPC_TCP or ZT_RPC_UDP */
  int32_t state;        /* ZT_RPC_LISTENING or ZT_RPC_CONNECTED */
  int32_t timeout;      /* seconds; 60 when created */
  int32_t abort_flag;   /* 0; -1 after ZTRPC_Abort (set atomically) */
  ZT_MemBuf *input;     /* received bytes; those before input_offset are consumed */
  ZT_MemBuf *output;    /* written values not yet sent */
  char *host;           /* the peer's name or address */
  uint64_t input_offset;
} ZTRPC;

/* A 64-bit key held as two 32-bit words. */
typedef struct ZTKEY {
  uint32_t word1;
  uint32_t word2;
} ZTKEY;

/* The largest item a reader accepts, and the largest file ZTRPC_GetFile
 * writes (0 restores the defaults). */
ZT_API void ZTRPC_SetLimits(uint64_t max_item_length, uint64_t max_file_length);

/* Connects to host:port over "tcp" or "udp". NULL on failure. */
ZT_API ZTRPC *ZTRPC_ClientCreate(const char *host, int32_t port, const char *protocol);
/* A server bound to `port` on every local address. NULL on failure. */
ZT_API ZTRPC *ZTRPC_ServerCreate(int32_t port, int32_t backlog, const char *protocol);
/* The same bound to one address ("127.0.0.1"; NULL for every address). */
ZT_API ZTRPC *ZTRPC_ServerCreateAt(const char *address, int32_t port, int32_t backlog, const char *protocol);
/* The local port of a channel, or -1. */
ZT_API int32_t ZTRPC_GetPort(const ZTRPC *channel);
/* Waits up to `seconds` (120 when below 1) for a connection on a listening
 * stream server. A new connected channel, or NULL on time-out, abort or error. */
ZT_API ZTRPC *ZTRPC_WaitForConnection(ZTRPC *server, int32_t seconds);
/* Values below 1 are ignored. */
ZT_API void ZTRPC_SetTimeout(ZTRPC *channel, int32_t seconds);
/* Shuts the socket down both ways and sets the abort flag; blocked calls return. */
ZT_API void ZTRPC_Abort(ZTRPC *channel);
/* Closes and frees; NULL is accepted. */
ZT_API void ZTRPC_Destroy(ZTRPC *channel);
/* Sets the library's socket options for fast small writes (no Nagle delay). */
ZT_API void ZT_setFastSocketOptions(int socket);

/* Writers append to the output buffer: 0, or -1 (0xffffffff) when it cannot grow. */
ZT_API int32_t ZTRPC_WriteLong(ZTRPC *channel, int32_t value);
ZT_API int32_t ZTRPC_WriteULong(ZTRPC *channel, uint32_t value);
ZT_API int32_t ZTRPC_WriteString(ZTRPC *channel, const char *string);
ZT_API int32_t ZTRPC_WriteRPC(ZTRPC *channel, uint32_t request_code);
ZT_API int32_t ZTRPC_WriteZTKEY(ZTRPC *channel, const ZTKEY *key);
ZT_API int32_t ZTRPC_Write_ZT_off_t(ZTRPC *channel, uint64_t value);
/* `record` is a list of `storage_class` when bit 0 of `flags` is set, else
 * one item. The third value carried is the body length. */
ZT_API int32_t ZTRPC_WritePacketable(ZTRPC *channel, const void *record, uint32_t storage_class,
                                     uint32_t flags);
/* Sends the output buffer; it is emptied in every case. 0 or -1. */
ZT_API int32_t ZTRPC_WriteFlush(ZTRPC *channel);
ZT_API int32_t ZTRPC_write(ZTRPC *channel);
/* Sends the file start, its path, its data header, and then the data with
 * sendfile. 0 or -1. */
ZT_API int32_t ZTRPC_WriteFile(ZTRPC *channel, const char *path);

/* Waits with the channel's time-out for bytes and appends them to the input
 * buffer: the number appended, or -1. */
ZT_API int32_t ZTRPC_read(ZTRPC *channel);
/* The next item's header, consumed. 0 or -1. */
ZT_API int32_t ZTRPC_ReadHeader(ZTRPC *channel, uint32_t *type, uint64_t *length);
ZT_API int32_t ZTRPC_ReadULong(ZTRPC *channel, uint32_t *value);
ZT_API int32_t ZTRPC_ReadLong(ZTRPC *channel, int32_t *value);
ZT_API int32_t ZTRPC_Read_ZT_off_t(ZTRPC *channel, uint64_t *value);
/* Copies the string and a terminating zero into `buffer` of `size` bytes;
 * "Buffer overflow" when it does not fit. */
ZT_API int32_t ZTRPC_ReadString(ZTRPC *channel, char *buffer, uint64_t size);
ZT_API int32_t ZTRPC_ReadZTKEY(ZTRPC *channel, ZTKEY *key);
ZT_API int32_t ZTRPC_ReadRPC(ZTRPC *channel, uint32_t *request_code);
/* The record (item, or list when bit 0 of *flags is set) in *record; the
 * caller frees it with ZTPacketFreeItem / ZTPacketFreeList. 0 or -1. */
ZT_API int32_t ZTRPC_ReadPacketable(ZTRPC *channel, void **record, uint32_t *storage_class,
                                    uint32_t *flags);
/* Reads and drops one item: its type, or -1. */
ZT_API int32_t ZTRPC_ReadSkipItem(ZTRPC *channel);
/* Receives a file sent by ZTRPC_WriteFile into `directory`, under the last
 * component of the sender's path (names that are empty, "." or ".." are
 * refused; an existing symbolic link is not followed). The name is copied to
 * `name` (of `name_size` bytes; NULL accepted). 0, or -1 with no file left
 * behind. */
ZT_API int32_t ZTRPC_GetFile(ZTRPC *channel, const char *directory, char *name, uint64_t name_size);

ZT_EXTERN_C_END

#endif
