// The extents of a swap file, and the tree of the free ones among them.
#ifndef KAL_MEMORY_EXTENTS_H
#define KAL_MEMORY_EXTENTS_H

#include <kal/vmem.h>

// What a node of a swap file's extent list holds: the extent, and behind it what finds it fast.
struct Extent {
    vitem item;
    uint16_t indexedId; // the id under which it can be found; 0: it is in the tree of free extents
    union {
        uint32_t largest; // in the tree: the largest size in the subtree
        uint32_t lent;    // elsewhere: 1 when a caller knows the extent and may free it behind our back
    };
    // In the tree the subtrees of lower and of higher offsets; for a lent extent its neighbours among these.
    Extent* lower;
    Extent* higher;
};

// A balanced tree of free extents in the order of their offsets; null is the empty tree.
void addFree(Extent*& tree, Extent* extent);
void removeFree(Extent*& tree, Extent* extent);

// The extent of the lowest offset that has at least `size` bytes, or null. Time: the tree's height.
Extent* firstFit(Extent* tree, uint32_t size);

#endif
