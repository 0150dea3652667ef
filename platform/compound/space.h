// A space: numbered units of one size, handed out by an allocation table. Sectors are one space, mini sectors
// another, which lies inside a chain of the first.
#ifndef KAL_PLATFORM_COMPOUND_SPACE_H
#define KAL_PLATFORM_COMPOUND_SPACE_H

#include "platform/compound/host_file.h"
#include "platform/compound/table.h"

namespace compound {

class Space {
public:
    uint32_t unitShift() const { return unitShift_; }
    uint32_t unitsFor(uint64_t bytes) const {
        return static_cast<uint32_t>((bytes + (uint64_t(1) << unitShift_) - 1) >> unitShift_);
    }

    // Moves bytes that follow one another; `offset` counts from the start of unit 0.
    virtual Moved read(uint64_t offset, void* destination, size_t count) = 0;
    virtual Moved write(uint64_t offset, const void* source, size_t count) = 0;

    // Lengthens the table until it has `count` free units.
    virtual bool makeFree(uint32_t count) = 0;

    // Gives the units before `end` a place on the disk.
    virtual bool secure(uint32_t end) = 0;

    AllocationTable table;

protected:
    ~Space() = default;
    uint32_t unitShift_ = 9;
};

} // namespace compound

#endif
