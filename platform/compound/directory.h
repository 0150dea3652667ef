// The directory: one entry of 128 bytes for each storage and stream, as an array in memory.
#ifndef KAL_PLATFORM_COMPOUND_DIRECTORY_H
#define KAL_PLATFORM_COMPOUND_DIRECTORY_H

#include "platform/compound/chain.h"
#include "platform/compound/name.h"
#include "platform/compound/sectors.h"

namespace compound {

class Directory {
public:
    explicit Directory(Sectors& sectors) : chain_(sectors), spare_(sectors) {}

    // For a new file: the root entry alone.
    bool start();
    // Reads all entries. False when there is no root entry.
    bool load(uint32_t first);
    // Whether its chain has an end, and is not cut off.
    bool isWhole() const { return chain_.space().table.next(chain_.last()) == kEndOfChain; }
    // Sets sectors aside for a second directory, so that what is changed from now on can be written whatever the disk
    // is filled with meanwhile. False when there is no room for one.
    bool prepare();
    // Makes ready for flush(): what changed lies in one sector of the stored directory, so that one write leads from
    // the old state to the new one, or the directory moves to the sectors set aside, all of them to be written, and the
    // old one stays until the header leads to the new one. False, and as before, when there is no room for that.
    bool settle();
    bool isStored() const { return stored_; }
    bool flush();
    // The header in the file leads to this directory.
    void setStored() { stored_ = true; }

    const Chain& chain() const { return chain_; }
    uint32_t count() const { return static_cast<uint32_t>(bytes_.size() / kEntrySize); }

    // Fields of an entry; `entry` is below count().
    uint8_t type(uint32_t entry) const { return at(entry)[kType]; }
    uint32_t first(uint32_t entry) const { return load32(at(entry) + kFirst); }
    // The high half means nothing in files of 512-byte sectors; old writers leave it undefined.
    uint64_t size(uint32_t entry) const;
    // One of kLeft, kRight, kChild.
    uint32_t link(uint32_t entry, size_t field) const { return load32(at(entry) + field); }
    // False when the stored length makes no sense; the name is then what there is of it.
    bool name(uint32_t entry, Name& name) const;

    void setData(uint32_t entry, uint32_t first, uint64_t size);
    void setLink(uint32_t entry, size_t field, uint32_t value);
    void setColour(uint32_t entry, Colour colour);

    // Makes an entry that nothing links to yet. kNoEntry when there is no room.
    uint32_t add(const Name& name, EntryType type);
    void remove(uint32_t entry);

private:
    uint8_t* at(uint32_t entry) { return bytes_.data() + size_t(entry) * kEntrySize; }
    const uint8_t* at(uint32_t entry) const { return bytes_.data() + size_t(entry) * kEntrySize; }
    void setDirty(uint32_t entry);
    uint32_t sectorCount() const { return static_cast<uint32_t>(dirty_.size()); }
    bool grow();
    void clear(uint32_t entry);

    Chain chain_; // shorter than what is in memory after a stored directory grew
    Chain spare_; // for the second directory
    Array<uint8_t> bytes_;
    Array<uint8_t> dirty_;   // a flag a sector
    uint32_t firstFree_ = 0; // no entry before it is unused
    bool stored_ = false;    // the file has this chain
};

} // namespace compound

#endif
