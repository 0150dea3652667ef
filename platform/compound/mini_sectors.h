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
    // Reads the mini FAT as far as it is there. False when memory is short or the host fails.
    bool load(const uint8_t* header, uint32_t firstOfContainer);
    // Mini FAT or container are not whole, or something else lies in their sectors. Before anything is written both are
    // copied to fresh sectors, and none of the units that there are is handed out.
    void setDoubtful() { doubtful_ = true; }
    bool prepare() { return !doubtful_ || startOver(); }
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
    uint32_t unitsOfContainer() const {
        return static_cast<uint32_t>(std::min<uint64_t>(container_.byteCount() >> kMiniShift, kMaxSector));
    }
    uint64_t usedBytes() const { return uint64_t(table.usedEnd()) << kMiniShift; }

private:
    bool startOver();
    bool copyContainer(Chain& fresh);

    Chain tableChain_; // the mini FAT's sectors
    Chain container_;
    bool doubtful_ = false;
    Buffer buffer_; // what goes in and out of the container
};

} // namespace compound

#endif
