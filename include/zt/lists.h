/*
 * Intrusive doubly linked lists.
 *
 * Every listed record begins with a ZTListNode. A list is named by a pointer
 * to its first node, held by the caller; the first node also carries the
 * length and the last node, so appending and counting do not walk the list.
 * Only the first node's `count` and `last` are meaningful. A count of 0 in a
 * non-empty list marks the bookkeeping as stale: every operation that takes
 * the caller's list pointer first walks back to the true first node and
 * recounts, storing the count and last node there (the caller's pointer is
 * left as it is). The operations then work on the true first node; they
 * rewrite the caller's pointer only when the node it names leaves the list or
 * when it named the first node and another node takes that place.
 *
 * Nodes and their owned data are allocated with malloc/calloc: the removing
 * and freeing operations release them with free().
 *
 * Name order: the name of a node is its `owned` data read as a NUL-terminated
 * string (NULL sorts as the empty string). InsertOrderedList compares with
 * strcmp (bytes as unsigned values), InsertOrderedNoCaseList with an ASCII
 * case-insensitive comparison. A node goes after every node whose name
 * compares equal, so nodes of the same name keep their arrival order.
 *
 * The functions take no locks: the owner of a list guards it.
 */
#ifndef ZT_LISTS_H
#define ZT_LISTS_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

typedef struct ZTListNode {
  void *owned;                 /* released with the node (typically its name) */
  uint64_t key;                /* ordering key of the by-number insertions */
  uint32_t count;              /* list length; first node only */
  struct ZTListNode *last;     /* last node; first node only */
  struct ZTListNode *next;
  struct ZTListNode *previous; /* NULL in the first node */
} ZTListNode;

/* Appends `node` at the end. Returns the former last node, NULL when the list
 * was empty, or the first node when `node` is NULL. */
ZT_API ZTListNode *AddList(ZTListNode **list, ZTListNode *node);
/* Appends the whole list `other`, taken as a first node: its previous link is
 * cleared and its own count and last are used (recounted when stale). */
ZT_API void AddListList(ZTListNode **list, ZTListNode *other);
/* Unlinks `node`, releases its owned data and clears its links; the node
 * stays allocated. Returns NULL, or the first node when `node` is NULL. */
ZT_API ZTListNode *RemoveItemFromList(ZTListNode **list, ZTListNode *node);
/* Unlinks `node` and frees its owned data and the node itself. Returns NULL,
 * or the first node when `node` is NULL. */
ZT_API ZTListNode *RemoveList(ZTListNode **list, ZTListNode *node);
/* Puts `replacement` in the place of `old`; `old` keeps its allocation but
 * loses its links and owned data. */
ZT_API void ReplaceInList(ZTListNode **list, ZTListNode *old, ZTListNode *replacement);
/* Inserts before the node `position` steps from the first; a position at or
 * past the length appends. */
ZT_API void InsertInPositionList(ZTListNode **list, ZTListNode *node, uint32_t position);
/* Inserts before / after `reference`; a NULL reference appends. */
ZT_API void InsertItemInListBefore(ZTListNode **list, ZTListNode *reference, ZTListNode *node);
ZT_API void InsertItemInListAfter(ZTListNode **list, ZTListNode *reference, ZTListNode *node);
/* Stores `key` in the node and inserts it in key order: descending when
 * `direction` is 1 (before the first node whose key is <= key), ascending
 * otherwise (before the first node whose key is >= key). Keys are unsigned. */
ZT_API void InsertOrderedByNumber64List(ZTListNode **list, ZTListNode *node, uint64_t key,
                                        int32_t direction);
ZT_API void InsertOrderedByNumberList(ZTListNode **list, ZTListNode *node, uint32_t key,
                                      int32_t direction);
/* Inserts in name order (see above), case-sensitive and case-insensitive. */
ZT_API void InsertOrderedList(ZTListNode **list, ZTListNode *node);
ZT_API void InsertOrderedNoCaseList(ZTListNode **list, ZTListNode *node);
/* Gives the node an owned copy of `name` (its former owned data is released;
 * a NULL name leaves it without owned data) and inserts it in case-sensitive
 * name order. 0, or -1 for a NULL list or node, or when memory runs out
 * (logged; the node is not inserted and keeps its former owned data). */
ZT_API int32_t InsertOrderedByNameList(ZTListNode **list, ZTListNode *node, const char *name);
/* In a list kept in name order, the first node with that name, or NULL.
 * `nocase` selects the comparison the list was ordered with. */
ZT_API ZTListNode *FindOrderedList(ZTListNode *list, const char *name, int32_t nocase);
/* The rank of that node, or -1 when there is none. */
ZT_API int32_t RankOrderedList(ZTListNode *list, const char *name, int32_t nocase);

/* 0 for NULL; for a node inside a list the nodes from it to the end; for a
 * first node its count (recounted when stale). */
ZT_API uint32_t ListLength(ZTListNode *node);
/* Nodes before `node`; all ones for NULL. */
ZT_API uint32_t RankList(const ZTListNode *node);
/* The node `rank` steps after (rank > 0) or before (rank < 0) `node`; NULL when
 * the walk runs off either end. */
ZT_API ZTListNode *FindByRankList(ZTListNode *node, int32_t rank);
/* The last node of the list `node` is in. */
ZT_API ZTListNode *LastItemList(ZTListNode *node);
/* Frees every node from the first on with its owned data; sets *list to NULL. */
ZT_API void FreeList(ZTListNode **list);
/* Frees one node and its owned data; NULL is accepted. */
ZT_API void FreeListElement(ZTListNode *node);

ZT_EXTERN_C_END

#endif
