/*
 * Packets: records of numbered storage classes written as tagged text.
 *
 * An item is a fixed-layout record that begins with a ZTListNode; its storage
 * class (a numbered table of field descriptors) says where each field lies
 * and how it is written. The text body of an item is
 *
 *   SI <class>\n  <tag> <value>\n ...  TI 0\n
 *
 * and of a list "SL <class>\n", the items, "TL 0\n". Tags and integers are
 * lower-case hexadecimal; doubles are "%.14g". Readers skip tags they do not
 * know, so a newer writer can talk to an older reader.
 *
 * Every failure is logged once (module "packets", or "ztlp" for the socket
 * readers) and reported as -1 or NULL.
 *
 * Built-in class (registered by ZT_packetsInitSubSystem, see below):
 *   6    "Request"     ZTRequestItem, the head of every request packet.
 * Every other class is registered by the code that owns its record.
 *
 * Limits on what outside bytes may announce (all settable):
 *   ReadPacketFromFileSizeLimited: ZT_PACKET_DEFAULT_FILE_LIMIT when 0 is given;
 *   body length in a packet header: ZT_PACKET_DEFAULT_BODY_LIMIT
 *   (ZTPacketSetMaxBodyLength). Counts inside a body are bounded by the bytes
 *   of the body itself, so no count can cause an allocation larger than a
 *   small multiple of the body.
 */
#ifndef ZT_PACKETS_H
#define ZT_PACKETS_H

#include <stddef.h>
#include <stdint.h>
#include <zt/lists.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* ---- Records ---------------------------------------------------------- */

/* Field types (the first word of a field descriptor). */
#define ZT_FT_END 0
#define ZT_FT_INT32 1
#define ZT_FT_UINT32 2
#define ZT_FT_INT16 3
#define ZT_FT_INT8 4
#define ZT_FT_UINT32B 5
#define ZT_FT_UINT16 6
#define ZT_FT_UINT8 7
#define ZT_FT_DOUBLE 8
#define ZT_FT_STRING 9
#define ZT_FT_NONE 10
#define ZT_FT_LIST 11
#define ZT_FT_ITEMS 12
#define ZT_FT_UINTW 13
#define ZT_FT_PAIR 14
#define ZT_FT_DOUBLE_ARRAY 15
#define ZT_FT_UINTW_ARRAY 16
#define ZT_FT_UINT32_ARRAY 17
#define ZT_FT_UINT16_ARRAY 18
#define ZT_FT_UINT8_ARRAY 19
#define ZT_FT_VALUE20 20
#define ZT_FT_VALUE21 21
#define ZT_FT_BINARY 22
#define ZT_FT_STRING_ARRAY 23
#define ZT_FT_UINT32C 24
#define ZT_FT_INT64 25
#define ZT_FT_INT64B 26
#define ZT_FT_ARRAY27 27
#define ZT_FT_VALUE28 28
#define ZT_FT_VALUE29 29
#define ZT_FT_ARRAY30 30
#define ZT_FT_ARRAY31 31

/* One row of a field table: ten 32-bit words on a 64-bit build. Array types
 * hold a pointer at `offset` and a uint32_t element count at `offset2`;
 * type 14 holds two uint32_t at `offset` and `offset2`; type 11 a
 * ZTListNode* to a list of `sub_class` items; type 12 a pointer to `count`
 * contiguous items of `sub_class`. A row of type 0 ends the table. */
typedef struct ZTFieldDesc {
  uint32_t type;      /* word 1 */
  uint32_t tag;       /* word 2, unique within the class, non-zero */
  const char *name;   /* words 3-4, shown by LogPacketItem */
  uint32_t width;     /* word 5: element width of types 13 and 16 */
  uint32_t sub_class; /* word 6: class of nested items (types 11, 12) */
  uint32_t word7;     /* not read */
  uint32_t word8;     /* not read */
  uint32_t offset;    /* word 9: the field in the item */
  uint32_t offset2;   /* word 10: the count, or the second value of type 14 */
} ZTFieldDesc;

/* A storage-class description as given to ZTAddStorageClass. */
typedef struct ZTStorageClassDesc {
  uint32_t class_number;
  uint32_t item_size;        /* bytes, including the leading ZTListNode */
  const ZTFieldDesc *fields; /* ends with a type-0 row or after field_count rows */
  uint32_t field_count;
  const char *name;
  const char *extra1;
  const char *extra2;
} ZTStorageClassDesc;

/* The registry of storage classes (opaque). */
typedef struct ZTStorageClasses ZTStorageClasses;

/* A growable text buffer, itself a list node so packets can be chained. The
 * data area starts `reserve` bytes into the allocation so that a header can be
 * put in front of the body without moving it. */
typedef struct ZTPacketMemory {
  ZTListNode node;
  char *raw;             /* the allocation */
  uint64_t capacity;     /* bytes of the data area */
  uint64_t step;         /* growth step; doubles up to 1 MiB */
  uint64_t reserve;      /* bytes in front of the data (512 at first) */
  char *data;            /* start of the body */
  char *header;          /* start of the header; == data until one is added */
  char *ptr;             /* write position */
  uint64_t body_length;
  uint64_t total_length; /* header + body */
  uint64_t read_offset;  /* where the next Make...FromPacket reads in the body */
} ZTPacketMemory;

#define ZT_PACKET_HEADER_RESERVE 512u
#define ZT_PACKET_DEFAULT_STEP 4096u
#define ZT_PACKET_MAX_STEP 1048576u
#define ZT_PACKET_DEFAULT_FILE_LIMIT (64u * 1024u * 1024u)

/* Fills the hexadecimal digit table and registers the built-in class.
 * Called by ZT_InitSubSystems; idempotent. */
ZT_API void ZT_packetsInitSubSystem(void);
/* Releases what ZT_packetsInitSubSystem made. Called by ZT_DeInitSubSystems. */
ZT_API void ZT_packetsDeInitSubSystem(void);

/* A new registry holding the built-in class. It becomes the library's
 * current registry when there is none. NULL when memory runs out (logged). */
ZT_API ZTStorageClasses *ZTInitStorageClasses(void);
/* Frees a registry (the current one stops being current). NULL is accepted. */
ZT_API void ZTDestroyStorageClasses(ZTStorageClasses *classes);
/* Copies `description` (its table and strings too) into the current registry
 * under `class_number` (0..65535). Every class a row refers to must already be
 * there. 0, or -1 with the message of the refusal. */
ZT_API int32_t ZTAddStorageClass(const ZTStorageClassDesc *description, uint32_t class_number);
/* 1 when the class is registered, else 0 (nothing logged). */
ZT_API int32_t ZTStorageClassExists(uint32_t class_number);

/* Packet memory. `step` 0 picks 4,096. NULL when memory runs out (logged). */
ZT_API ZTPacketMemory *InitAllocPacketMemory(uint32_t step);
/* Frees the memory and sets *packet_memory to NULL; NULL is accepted. */
ZT_API void FreePacketMemory(ZTPacketMemory **packet_memory);
/* Makes room for `n` more body bytes. 0 or -1 (logged). */
ZT_API int32_t MaintainPacketMemory(ZTPacketMemory *packet_memory, uint64_t n);
/* Appends bytes to the body. 0 or -1 (logged). */
ZT_API int32_t AppendPacketMemory(ZTPacketMemory *packet_memory, const void *data, uint64_t n);

/* Encoding: appends the body text. 0 or -1 (logged). */
ZT_API int32_t MakePacketDataFromItem(ZTPacketMemory *packet_memory, const void *item,
                                      uint32_t class_number);
ZT_API int32_t MakePacketDataFromList(ZTPacketMemory *packet_memory, const ZTListNode *list,
                                      uint32_t class_number);
/* One list body of every item of `count` lists in `lists`. */
ZT_API int32_t MakeOnePacketDataListFromArrayLists(ZTPacketMemory *packet_memory,
                                                   ZTListNode *const *lists, uint32_t count,
                                                   uint32_t class_number);

/* Decoding from the body at read_offset, which moves past what was read.
 * The result belongs to the caller (ZTPacketFreeItem / ZTPacketFreeList). */
ZT_API void *MakeItemFromPacket(ZTPacketMemory *packet_memory, uint32_t class_number);
ZT_API ZTListNode *MakeListFromPacket(ZTPacketMemory *packet_memory, uint32_t class_number);

/* A zero-filled item of the class's size; `module`/`function` name the caller
 * in the messages (NULL is accepted). NULL on failure (logged). */
ZT_API void *ZTPacketAllocateItemMemory(uint32_t class_number, const char *module,
                                        const char *function);
/* Release owned fields (strings, arrays, nested lists and runs) and zero them. */
ZT_API void ZTPacketFreeItemFields(void *item, uint32_t class_number);
/* Fields and the item itself; NULL is accepted. */
ZT_API void ZTPacketFreeItem(void *item, uint32_t class_number);
/* Unlinks `item` from *list and frees it. */
ZT_API void ZTPacketFreeListItem(ZTListNode **list, void *item, uint32_t class_number);
/* Frees every item and sets *list to NULL; NULL is accepted. An unknown class
 * frees the nodes without their fields and logs the class. */
ZT_API void ZTPacketFreeList(ZTListNode **list, uint32_t class_number);
/* Items held in a binary tree through their list node: `previous` is the left
 * child, `next` the right child. */
ZT_API void ZTPacketFreeBinaryTree(void *root, uint32_t class_number);
/* An array of `count` lists (malloc'd): every list, then the array. */
ZT_API void ZTPacketFreeArray(ZTListNode **lists, uint32_t count, uint32_t class_number);

/* Deep copies; NULL on failure (logged, the partial copy freed). */
ZT_API void *DuplicatePacketItem(uint32_t class_number, const void *item);
ZT_API ZTListNode *DuplicatePacketList(uint32_t class_number, const ZTListNode *list);
/* 1 when both lists hold equal items in the same order, else 0. Fields are
 * compared by value as the table describes them (strings by content, arrays
 * element by element; a NULL string equals ""). */
ZT_API int32_t ComparePacketList(const ZTListNode *first, const ZTListNode *second,
                                 uint32_t class_number);
ZT_API int32_t ComparePacketItem(const void *first, const void *second, uint32_t class_number);
/* 1 when the item is NULL or all its bytes are zero, else 0. */
ZT_API int32_t ZTPacketItemBlank(const void *item, uint32_t class_number);

/* Logs the body at read_offset field by field (one line per field); the read
 * offset moves past it. 0 or -1. */
ZT_API int32_t LogPacketItem(ZTPacketMemory *packet_memory, uint32_t class_number);
ZT_API int32_t LogPacketList(ZTPacketMemory *packet_memory, uint32_t class_number);

/* Files. The writers rename an existing file to "<path>_dss" first. */
ZT_API int32_t WriteRawPacketDataToFile(const char *path, const void *data, uint64_t length);
/* The body only. */
ZT_API int32_t WritePacketDataToFile(const char *path, const ZTPacketMemory *packet_memory);
/* Header (when added) and body. */
ZT_API int32_t WritePacketToFile(const char *path, const ZTPacketMemory *packet_memory);
ZT_API int32_t WritePacketDataFileFromList(const char *path, const ZTListNode *list,
                                           uint32_t class_number);
/* The file as a packet body; files above `limit` bytes (0: the default limit)
 * are refused. NULL on failure (logged). */
ZT_API ZTPacketMemory *ReadPacketFromFileSizeLimited(const char *path, uint64_t limit);
ZT_API ZTListNode *ReadListFromPacketDataFile(const char *path, uint32_t class_number);

/* ---- Built-in class --------------------------------------------------- */

#define ZT_CLASS_REQUEST 6u

/* Class 6: heads every request packet. Bit 0 of `flags` says the data that
 * follows is a list of `data_class`, otherwise one item. */
typedef struct ZTRequestItem {
  ZTListNode node;
  uint32_t command;    /* tag 1 */
  uint32_t flags;      /* tag 2 */
  uint32_t data_class; /* tag 3 */
  int32_t job_number;  /* tag 4 */
  char *user;          /* tag 5 */
  int64_t time;        /* tag 6 */
} ZTRequestItem;

/* ---- Packet header on sockets --------------------------------------- */

/* A packet on a socket: a 44-byte text header, then the body. The header is
 * the magic "ZT5wapa\n" and four fields of eight lower-case hex digits and
 * LF: command, kind, a third value chosen by the sender, body length. */
#define ZT_PACKET_MAGIC "ZT5wapa\n"
#define ZT_PACKET_HEADER_SIZE 44u
#define ZT_PACKET_DEFAULT_BODY_LIMIT (256u * 1024u * 1024u)
#define ZT_REQUEST_PACKET_KIND 8u

typedef struct ZTPacketHeader {
  uint32_t field1; /* command */
  uint32_t field2; /* kind */
  uint32_t field3; /* sender's value */
  uint32_t field4; /* body length */
  /* Set by ReadPacketHeaderFromBuffer: bytes of the buffer up to and with
   * the header (garbage skipped before the magic included). */
  uint32_t header_bytes;
} ZTPacketHeader;

/* The largest body a reader accepts (0 restores the default). */
ZT_API void ZTPacketSetMaxBodyLength(uint64_t bytes);
ZT_API uint64_t ZTPacketGetMaxBodyLength(void);

/* Makes room for `n` bytes in front of the body; header = data - n. 0 or -1. */
ZT_API int32_t MaintainPacketHeaderMemory(ZTPacketMemory *packet_memory, uint64_t n);
/* Puts `n` bytes in front of what is already in front of the body. 0 or -1. */
ZT_API int32_t InsertDataBeforePMBuffer(ZTPacketMemory *packet_memory, const void *data, uint64_t n);
/* Writes the header in front of the body. The argument order is the
 * system's: the second argument is field 1, the fourth field 2, the third
 * field 3; field 4 is the body length. 0 or -1 (a body above 4 GiB). */
ZT_API int32_t AddPacketHeader(ZTPacketMemory *packet_memory, uint32_t field1, uint32_t field3,
                               uint32_t field2);

/* Socket readers wait with poll; `timeout_seconds` bounds the whole read.
 * Header: 0 read, 1 time-out before any byte, -1 error, bad magic, closed
 * peer or a header cut off by the time-out (logged, module "ztlp"). */
ZT_API int32_t ReadPacketHeaderFromSocket(int socket, ZTPacketHeader *header, int32_t timeout_seconds);
/* Body of header->field4 bytes into a new packet memory (*packet_memory, the
 * caller frees it). The memory grows with the bytes that arrive, not with the
 * length announced. 0, 1 on time-out, -1 on error or a length above the
 * limit; on 1 and -1 nothing is left allocated. */
ZT_API int32_t ReadPacketBodyFromSocket(int socket, const ZTPacketHeader *header,
                                        ZTPacketMemory **packet_memory, int32_t timeout_seconds);
/* From memory: bytes before the magic are skipped. The fields are taken by
 * the socket reader's rule (eight hex digits and LF each). 0 header read, 1
 * more bytes needed, -1 bad field (logged). */
ZT_API int32_t ReadPacketHeaderFromBuffer(const void *bytes, uint64_t length, ZTPacketHeader *header);
/* `bytes` holds the body (at least header->field4 bytes). 0, 1 when fewer
 * bytes are there, -1 on error (logged). */
ZT_API int32_t ReadPacketBodyFromBuffer(const void *bytes, uint64_t length, const ZTPacketHeader *header,
                                        ZTPacketMemory **packet_memory);
/* Sends header and body in one piece (MSG_NOSIGNAL; a closed peer gives -1,
 * never SIGPIPE). 0 or -1 (logged). */
ZT_API int32_t ZTPacketSendToSocket(int socket, const ZTPacketMemory *packet_memory, int32_t timeout_seconds);

/* Request packets: the request item (class 6) then the data: one item of
 * request->data_class, or a list of it when bit 0 of request->flags is set
 * (`data` NULL: no data item, or an empty list). */
ZT_API ZTPacketMemory *CreateRequestDataPacket(const ZTRequestItem *request, const void *data);
/* The same with the header: field 1 the command, field 2 kind 8, field 3. */
ZT_API ZTPacketMemory *CreateRequestPacket(const ZTRequestItem *request, const void *data, uint32_t field3);
ZT_API int32_t WriteRequestPacketToFile(const char *path, const ZTRequestItem *request, const void *data,
                                        uint32_t field3);
ZT_API int32_t WriteRequestDataToFile(const char *path, const ZTRequestItem *request, const void *data);

ZT_EXTERN_C_END

#endif
