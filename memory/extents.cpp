// A treap: a search tree by offset and at the same time a heap by a hash of the offset, which keeps its
// height logarithmic whatever the order of frees. Each node knows the largest size below it, so that the
// first fit is found on one way down.
#include "memory/extents.h"

#include <initializer_list>

namespace {

uint32_t priority(const Extent* extent) {
    return uint32_t(extent->item.offset) * 2654435761u;
}

// Extents of 0 bytes share an offset; their addresses tell them apart, and which comes first means nothing.
bool isBefore(const Extent* a, const Extent* b) {
    const uint32_t offsetA = a->item.offset;
    const uint32_t offsetB = b->item.offset;
    return offsetA != offsetB ? offsetA < offsetB : a < b;
}

void measure(Extent* top) {
    top->largest = top->item.size;
    for (const Extent* child : {top->lower, top->higher})
        if (child != nullptr && child->largest > top->largest)
            top->largest = child->largest;
}

// Splits a tree into what lies before `at` and the rest.
void split(Extent* tree, const Extent* at, Extent*& before, Extent*& rest) {
    if (tree == nullptr) {
        before = rest = nullptr;
        return;
    }
    if (isBefore(tree, at)) {
        split(tree->higher, at, tree->higher, rest);
        before = tree;
    } else {
        split(tree->lower, at, before, tree->lower);
        rest = tree;
    }
    measure(tree);
}

// Joins two trees, all of `low` before all of `high`.
Extent* join(Extent* low, Extent* high) {
    if (low == nullptr || high == nullptr)
        return low != nullptr ? low : high;
    if (priority(low) > priority(high)) {
        low->higher = join(low->higher, high);
        measure(low);
        return low;
    }
    high->lower = join(low, high->lower);
    measure(high);
    return high;
}

} // namespace

void addFree(Extent*& tree, Extent* extent) {
    if (tree == nullptr || priority(extent) > priority(tree)) {
        split(tree, extent, extent->lower, extent->higher);
        tree = extent;
    } else {
        addFree(isBefore(extent, tree) ? tree->lower : tree->higher, extent);
    }
    measure(tree);
}

void removeFree(Extent*& tree, Extent* extent) {
    if (tree == extent) {
        tree = join(extent->lower, extent->higher);
        return;
    }
    removeFree(isBefore(extent, tree) ? tree->lower : tree->higher, extent);
    measure(tree);
}

Extent* firstFit(Extent* tree, uint32_t size) {
    while (tree != nullptr && tree->largest >= size) {
        if (tree->lower != nullptr && tree->lower->largest >= size)
            tree = tree->lower;
        else if (tree->item.size >= size)
            return tree;
        else
            tree = tree->higher;
    }
    return nullptr;
}
