// The mini sectors: units of 64 bytes for small streams, in the root entry's stream, with the mini FAT.
#ifndef KAL_PLATFORM_COMPOUND_MINI_SECTORS_H
#define KAL_PLATFORM_COMPOUND_MINI_SECTORS_H

#include "platform/compound/buffer.h"
#include "platform/compound/chain.h"
#include "platform/compound/sectors.h"

namespace compound {

class MiniSectors final : public Space {
public:
    explicit MiniSectors(Sectors& sectors) : tableChain_(sectors), container_(sectors), buffer_(container_) {
        unitShift_ = kMiniShift;
    }

    // For a new file: none.
    void start();
    // Reads the mini FAT. What cannot be read of it counts as free units, so that chains end there. False
    // when memory is short.
    bool load(const uint8_t* header, uint32_t firstOfContainer);
    // Whether load() found all of mini FAT and container.
    bool isWhole() const { return whole_; }
    // Writes what changed, and the header's part of it.
    bool flush(uint8_t* header);
    // Makes what was released free, and shortens the container by it.
    void freeReleased();

    Moved read(uint64_t offset, void* destination, size_t count) override;
    Moved write(uint64_t offset, const void* source, size_t count) override;
    bool makeFree(uint32_t count) override;
    bool secure(uint32_t end) override;

    const Chain& tableChain() const { return tableChain_; }
    // The sectors in which the units lie, and how many bytes of them are in use.
    const Chain& container() const { return container_; }
    uint64_t usedBytes() const { return uint64_t(table.usedEnd()) << kMiniShift; }

private:
    Chain tableChain_; // the mini FAT's sectors
    Chain container_;
    bool whole_ = true;
    Buffer buffer_; // what goes in and out of the container
};

} // namespace compound

#endif
