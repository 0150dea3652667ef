// The entries of one storage in the directory's order. In the file they are a red-black tree; here a sorted
// list, from which the tree is made anew when entries were added, so that a tree that another program left
// crooked, or that was damaged, is never relied upon.
#ifndef KAL_PLATFORM_COMPOUND_CHILDREN_H
#define KAL_PLATFORM_COMPOUND_CHILDREN_H

#include "platform/compound/directory.h"

namespace compound {

class Children : public ZEPObject {
public:
    Children(Directory& directory, uint32_t storage) : directory_(directory), storage_(storage) {}

    // Gathers the storage's entries from its tree. `claimed` holds a flag an entry, set for all that belong
    // to some storage, so that no entry is met twice. False when memory is short.
    bool load(Array<uint8_t>& claimed);
    // Whether the tree had links that lead nowhere or to an entry met before, or entries without a name.
    bool damaged() const { return damaged_; }

    uint32_t storage() const { return storage_; }
    const Array<uint32_t>& entries() const { return entries_; }
    // The entry of that name, or kNoEntry.
    uint32_t find(const Name& name) const;
    // Adds an entry whose name is not there yet. False when memory is short.
    bool insert(uint32_t entry);
    void remove(uint32_t entry);
    // Sets the links of the entries to a red-black tree, if any were added.
    void setLinks();

    Children* nextLoaded = nullptr; // for the owner's list

private:
    size_t placeOf(const Name& name) const;
    int compare(uint32_t left, uint32_t right) const;
    bool usable(uint32_t entry, const Array<uint8_t>& claimed);
    bool walk(Array<uint8_t>& claimed);
    void sort();
    uint32_t linkSubtree(size_t begin, size_t end, uint32_t blackLevels);

    Directory& directory_;
    uint32_t storage_;
    bool damaged_ = false;
    bool changed_ = false;
    Array<uint32_t> entries_;
};

} // namespace compound

#endif
