// The sectors of a compound file with their table, the FAT, and the list of the FAT's own sectors, the DIFAT.
#ifndef KAL_PLATFORM_COMPOUND_SECTORS_H
#define KAL_PLATFORM_COMPOUND_SECTORS_H

#include "platform/compound/space.h"

namespace compound {

class Sectors final : public Space {
public:
    explicit Sectors(HostFile& file) : file_(file) {}

    // For a new file: no sectors, no table.
    void start(uint32_t sectorShift);
    // Reads DIFAT and FAT as the header describes them; the sectors of a page that is not to be found, or is none, are
    // kept. False when their number makes no sense or the host fails.
    bool load(uint32_t sectorShift, const uint8_t* header);
    // Writes what changed of FAT and DIFAT, and their numbers to the header.
    bool flush(uint8_t* header);

    Moved read(uint64_t offset, void* destination, size_t count) override;
    Moved write(uint64_t offset, const void* source, size_t count) override;
    bool makeFree(uint32_t count) override;
    bool secure(uint32_t end) override;

    // The sectors that the file has room for, a last one cut short included.
    uint32_t inFile() const;
    bool isLastCutShort() const { return (file_.length() & (sectorSize() - 1)) != 0; }
    // The bytes of a file that ends behind the last sector in use.
    uint64_t usedBytes() const;

    // kFree where one is not known.
    const Array<uint32_t>& fatSectors() const { return fatSectors_; }
    const Array<uint32_t>& difatSectors() const { return difatSectors_; }

private:
    uint32_t sectorSize() const { return uint32_t(1) << unitShift_; }
    uint64_t positionOf(uint64_t offset) const { return offset + sectorSize(); } // the header comes first
    uint32_t difatSectorsFor(uint32_t fatSectors) const;
    bool loadDifat(const uint8_t* header);
    bool loadFat();
    bool looksLikeFat(uint32_t index);
    bool markFat();
    bool flushFat();
    bool flushDifat(uint8_t* header);

    HostFile& file_;
    Array<uint32_t> fatSectors_;   // the FAT's pages, in order
    Array<uint32_t> difatSectors_; // the DIFAT's sectors, in order
    bool difatChanged_ = false;
};

} // namespace compound

#endif
