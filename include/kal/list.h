// Doubly linked lists of caller-sized nodes.
//
// A node is one small-memory block: a hidden header of two links, then the caller's data.
//
//     header -> +------+------+---------------------+
//               | prev | next | the caller's data   |
//               +------+------+---------------------+
//                              ^ the node pointer that every call takes and gives
//
// A node is in at most one list. Unlinking a node leaves its own links as they were; only the destroy calls
// free anything. There are two families with one layout, `listhd` and `slisthd`; the S calls behave as their
// plain twins except where they say otherwise.
#ifndef KAL_LIST_H
#define KAL_LIST_H

#include <kal/base.h>

// What stands in front of a node's data.
struct KalNodeHeader {
    KalNodeHeader* prev; // the header of the node before, null in the first
    KalNodeHeader* next; // the header of the node behind, null in the last
};

// Head of a list; first and last are both null when it is empty.
struct listhd {
    KalNodeHeader* first; // header of the first node
    KalNodeHeader* last;  // header of the last node
};

// Head of a list of the S family.
struct slisthd {
    KalNodeHeader* first; // as in listhd
    KalNodeHeader* last;  // as in listhd
};

static_assert(KAL_SIZE(KalNodeHeader, 8, 16));
static_assert(KAL_AT(KalNodeHeader, prev, 0, 0) && KAL_AT(KalNodeHeader, next, 4, 8));
static_assert(KAL_SIZE(listhd, 8, 16));
static_assert(KAL_AT(listhd, first, 0, 0) && KAL_AT(listhd, last, 4, 8));
static_assert(KAL_SIZE(slisthd, 8, 16));
static_assert(KAL_AT(slisthd, first, 0, 0) && KAL_AT(slisthd, last, 4, 8));

// Called for each node of a walk with the caller's context; a result other than 0 stops the walk at that
// node. It must neither unlink nor free the node it is given.
using KalPeekCallback = uint16_t (*)(void* node, void* context);

// Allocates a node with `size` bytes of data, all 0. Null when memory is short or `size` is negative. The
// caller owns the node until it is linked; KalDestroyNode frees it.
KAL_API void* KalCreateNode(int32_t size);
KAL_API void* KalSCreateNode(int32_t size);

// Allocates an empty list, or gives null when memory is short. KalDestroyList frees it.
KAL_API listhd* KalCreateList();
KAL_API slisthd* KalSCreateList();

// The same; `*status` becomes 0, or on failure KAL_ERR_MEMORY (S twin: KAL_ERR_BUFFER).
KAL_API listhd* KalCreateListE(int16_t* status);
KAL_API slisthd* KalSCreateListE(int16_t* status);

// Links `node` before the first or behind the last node. 0, KAL_ERR_LIST for a null list, or KAL_ERR_NODE
// for a null node.
KAL_API int16_t KalAddHead(listhd* list, void* node);
KAL_API int16_t KalSAddHead(slisthd* list, void* node);
KAL_API int16_t KalAddTail(listhd* list, void* node);
KAL_API int16_t KalSAddTail(slisthd* list, void* node);

// Links `node` directly behind `after`, which is in the list. 0, KAL_ERR_LIST for a null list, or
// KAL_ERR_NODE for a null `after` or `node`.
KAL_API int16_t KalInsertNode(listhd* list, void* after, void* node);
KAL_API int16_t KalSInsertNode(slisthd* list, void* after, void* node);

// Unlinks the first or last node and returns it; the caller owns it then. Null for a null or empty list.
KAL_API void* KalDeleteHead(listhd* list);
KAL_API void* KalSDeleteHead(slisthd* list);
KAL_API void* KalDeleteTail(listhd* list);
KAL_API void* KalSDeleteTail(slisthd* list);

// Unlinks `node`, which is in the list; the caller owns it then. 0, KAL_ERR_LIST for a null list, or
// KAL_ERR_NODE for a null node.
KAL_API int16_t KalExtractNode(listhd* list, void* node);
KAL_API int16_t KalSExtractNode(slisthd* list, void* node);

// Frees an unlinked node. 0, or KAL_ERR_NODE for a null node or one that the heap refuses.
KAL_API int16_t KalDestroyNode(void* node);
KAL_API int16_t KalSDestroyNode(void* node);

// Frees every node and the head. 0 (also for a null list), or KAL_ERR_LIST when the heap refuses a block:
// the plain call then leaves the list from that node on allocated, the S twin carries on and reports only
// the head.
KAL_API int16_t KalDestroyList(listhd* list);
KAL_API int16_t KalSDestroyList(slisthd* list);

// The neighbours of a node that is in a list, null at the ends and for a null node. KalNextNode serves both
// families.
KAL_API void* KalNextNode(void* node);
KAL_API void* KalPrevNode(void* node);
KAL_API void* KalSPrevNode(void* node);

// The first node, from the head or from the tail, for which the callback's result is not 0; null when there
// is none or the list is null.
KAL_API void* KalPeekList(listhd* list, KalPeekCallback callback, void* context);
KAL_API void* KalSPeekList(slisthd* list, KalPeekCallback callback, void* context);
KAL_API void* KalReversePeekList(listhd* list, KalPeekCallback callback, void* context);
KAL_API void* KalSReversePeekList(slisthd* list, KalPeekCallback callback, void* context);

// The number of nodes; 0 for a null list.
KAL_API int32_t KalCountList(listhd* list);
KAL_API int32_t KalSCountList(slisthd* list);

// The memory held by the nodes in bytes, guard words included, modulo 65,536; the list must not be null.
KAL_API uint16_t KalSizeList(listhd* list);

// 1 when every node's block can be read and its guard word stands and the chain ends at the head's last
// node, else 0.
KAL_API uint16_t KalIsSListGood(slisthd* list);

#endif
