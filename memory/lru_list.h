// The LRU list as its manager uses it: the list of live blocks with an index by handle, and the order in
// which blocks are candidates for the swap file.
//
// Candidates go by how long they have been in memory, the longest first: since their allocation, or since they came
// back from the swap file, so that a program at work on a few old blocks does not swap them at every turn. All
// blocks newer than the frontier are candidates that nobody has looked at yet; of those behind it the unlocked
// ones in memory stand in a heap, and the locked ones are parked until they are unlocked. So neither allocating
// nor freeing a block costs more than a few links.
#ifndef KAL_MEMORY_LRU_LIST_H
#define KAL_MEMORY_LRU_LIST_H

#include <kal/vmem.h>

// What a node of the list holds.
struct LruNode {
    void* handle; // in a spare node: the next spare node
    uint64_t
        arrival : 61;    // the number of the arrival in memory by which the block came in; 0 in a spare node
    uint64_t seen : 1;   // behind the frontier
    uint64_t parked : 1; // locked when it was looked at
    uint64_t queued : 1; // in the heap
};

struct LruCandidate {
    uint64_t arrival;
    LruNode* node; // its block has left since, or come in anew, when the arrivals differ
};

// The list head that callers see, and the rest.
struct LruList {
    slisthd list;
    LruNode** byId; // a node for each low half of a handle, or null
    LruNode* spare; // nodes of freed blocks
    uint64_t arrivals;
    LruNode* frontier; // null when all blocks have been looked at
    LruCandidate* heap;
    uint32_t heapCount;
    uint32_t heapRoom;
    uint32_t parkedCount;
    uint32_t nodes; // spare ones included
};

// The node of a handle, or null.
LruNode* findNode(LruList* list, void* handle);

// Adds a handle at the head; null when memory is short.
LruNode* addNode(LruList* list, void* handle);

// Takes a node out of the list.
void removeNode(LruList* list, LruNode* node);

// The oldest unlocked block in memory, or null.
LruNode* oldestCandidate(LruList* list);

// The block of the node that oldestCandidate gave has left the memory.
void dropOldestCandidate(LruList* list, LruNode* node);

// The block of a node is in memory again, and locked.
void parkNode(LruList* list, LruNode* node);

// The block of a node has no lock any more.
void unparkNode(LruList* list, LruNode* node);

// The memory in bytes that the list takes.
uint64_t lruListBytes(const LruList* list);

#endif
