#include "platform/compound/verify.h"

#include "platform/array.h"
#include "platform/compound/name.h"

namespace compound {

namespace {

constexpr uint16_t kLittleEndian = 0xFFFE;

// Owners of units: a stream is one by its entry's number, which is never 0.
constexpr uint32_t kNobody = 0;
constexpr uint32_t kTables = 0xFFFFFFFF;
constexpr uint32_t kContainer = 0xFFFFFFFE; // the mini sectors'

// Sectors or mini sectors: their table, and who owns each that the file has.
struct Units {
    Array<uint8_t> table;
    Array<uint32_t> owners;

    uint32_t count() const { return static_cast<uint32_t>(owners.size()); }
    uint32_t next(uint32_t unit) const { return load32(table.data() + size_t(unit) * 4); }
};

// Where the number stands that leads to the first unit of a chain, and whose the chain is.
struct ChainStart {
    uint32_t first;
    uint64_t place;
    uint32_t owner;
    uint32_t id;
};

class Walk {
public:
    Walk(ByteSource& source, FaultCount& faults) : source_(source), faults_(faults) {}

    int16_t run() {
        const bool walked = header() && tables() && directory() && miniSectors() && storages() && strays();
        return walked || ended_ || source_.status() != KAL_OK ? source_.status() : int16_t(KAL_ERR_BUFFER);
    }

private:
    void tell(uint64_t offset, const char* text) { faults_.tell(offset, KAL_FAULT_OF_FILE, text); }
    void tellEntry(uint32_t entry, size_t field, const char* text) {
        faults_.tell(placeOf(entry) + field, entry, text);
    }
    // Tells a fault behind which there is nothing to go on from.
    bool end(uint64_t offset, const char* text) {
        tell(offset, text);
        ended_ = true;
        return false;
    }

    uint32_t sectorBytes() const { return uint32_t(1) << shift_; }
    uint64_t placeOfSector(uint32_t sector) const { return (uint64_t(sector) + 1) << shift_; }
    uint64_t placeOf(uint32_t entry) const {
        const uint64_t at = uint64_t(entry) * kEntrySize;
        return placeOfSector(directorySectors_[static_cast<size_t>(at >> shift_)]) +
               (at & (sectorBytes() - 1));
    }
    // Where a unit's number stands in its table.
    uint64_t placeOfNext(const Array<uint32_t>& tableSectors, uint32_t unit) const {
        const uint32_t perSector = sectorBytes() / 4;
        return placeOfSector(tableSectors[unit / perSector]) + uint64_t(unit % perSector) * 4;
    }

    // Appends a sector's bytes; what the file has not of the last one is as `fill`.
    bool load(uint32_t sector, Array<uint8_t>& bytes, uint8_t fill) {
        const size_t before = bytes.size();
        if (!bytes.resize(before + sectorBytes()))
            return false;
        const uint64_t there = source_.byteCount() - std::min(placeOfSector(sector), source_.byteCount());
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(there, sectorBytes()));
        std::memset(bytes.data() + before, fill, sectorBytes());
        if (count < sectorBytes())
            tell(source_.byteCount(), "the file ends inside a sector of its tables");
        return count == 0 || source_.read(placeOfSector(sector), bytes.data() + before, count);
    }

    // --- Header and FAT --------------------------------------------------------------------------------------

    bool header() {
        if (source_.byteCount() < kHeaderSize)
            return end(source_.byteCount(), "the file ends inside its header");
        if (!source_.read(0, header_, kHeaderSize))
            return false;
        if (std::memcmp(header_, kSignature, sizeof kSignature) != 0)
            return end(0, "it does not begin as a compound file does");
        const uint16_t version = load16(header_ + kMajorVersion);
        shift_ = version == 4 ? 12 : 9;
        const struct {
            size_t place;
            bool good;
            const char* text;
        } checks[] = {
            {kMajorVersion, version == 3 || version == 4, "its version is neither 3 nor 4"},
            {kByteOrder, load16(header_ + kByteOrder) == kLittleEndian, "its byte order is none"},
            {kSectorShift, load16(header_ + kSectorShift) == shift_,
             "its sectors are not of its version's size"},
            {kMiniSectorShift, load16(header_ + kMiniSectorShift) == kMiniShift,
             "its mini sectors have not 64 bytes"},
            {kCutoff, load32(header_ + kCutoff) == kMiniCutoff, "small streams do not end at 4096 bytes"}};
        bool good = true;
        for (const auto& check : checks) {
            if (!check.good)
                tell(check.place, check.text);
            good = good && check.good;
        }
        ended_ = !good;
        return good;
    }

    bool takeForTables(uint32_t sector, uint64_t place, const char* outside) {
        if (sector >= sectors_.count()) {
            tell(place, outside);
            return false;
        }
        if (sectors_.owners[sector] != kNobody) {
            tell(place, "a sector of the tables is listed twice");
            return false;
        }
        sectors_.owners[sector] = kTables;
        return true;
    }

    // Reads the FAT's sectors as header and DIFAT list them. What is not listed properly is left out.
    bool tables() {
        const uint64_t length = source_.byteCount();
        const uint64_t inFile =
            length <= sectorBytes() ? 0 : std::min<uint64_t>((length - 1) >> shift_, kMaxSector);
        if (!sectors_.owners.resize(inFile))
            return false;
        const uint32_t told = load32(header_ + kFatSectors);
        if (told == 0 || told > inFile)
            return end(kFatSectors, "the number of its FAT's sectors is 0 or more than the file has");
        const auto take = [&](const uint8_t* numbers, uint32_t available, uint64_t place) {
            for (uint32_t i = 0; i < available && fatSectors_.size() < told; i++) {
                const uint32_t sector = load32(numbers + size_t(i) * 4);
                if (!takeForTables(sector, place + uint64_t(i) * 4,
                                   "the FAT has a sector that the file has not"))
                    return false;
                if (!fatSectors_.append(sector) || !load(sector, sectors_.table, 0xFF))
                    return false;
            }
            return true;
        };
        bool good = take(header_ + kHeaderDifat, kHeaderDifatCount, kHeaderDifat);
        uint64_t place = kFirstDifat;
        uint32_t sector = load32(header_ + kFirstDifat);
        Array<uint8_t> page;
        while (good && fatSectors_.size() < told) {
            page.shrink(0);
            if (!takeForTables(sector, place, "the list of the FAT's sectors ends too early"))
                good = false;
            else if (!difatSectors_.append(sector) || !load(sector, page, 0xFF))
                return false;
            else
                good = take(page.data(), sectorBytes() / 4 - 1, placeOfSector(sector));
            place = placeOfSector(sector) + sectorBytes() - 4;
            sector = good ? load32(page.data() + sectorBytes() - 4) : kEndOfChain;
        }
        if (!good) {
            ended_ = source_.status() == KAL_OK && faults_.result(KAL_OK) > 0;
            return false;
        }
        const auto covered = static_cast<uint32_t>(std::min<uint64_t>(inFile, sectors_.table.size() / 4));
        sectors_.owners.shrink(covered);
        return marked(fatSectors_, kFatSector, "the FAT does not mark a sector of its own as such") &&
               marked(difatSectors_, kDifatSector, "the FAT does not mark a sector of the DIFAT as such");
    }

    bool marked(const Array<uint32_t>& list, uint32_t mark, const char* text) {
        for (const uint32_t sector : list)
            if (sector >= sectors_.count() || sectors_.next(sector) != mark)
                tell(sector < sectors_.count() ? placeOfNext(fatSectors_, sector) : placeOfSector(sector),
                     text);
        return true;
    }

    // --- Chains ----------------------------------------------------------------------------------------------

    // Takes the units of a chain, `visit` for each, and tells where it goes wrong. Their number.
    template <class Visit>
    uint32_t follow(Units& units, const Array<uint32_t>& tableSectors, const ChainStart& chain, Visit visit) {
        uint32_t count = 0;
        uint64_t place = chain.place;
        for (uint32_t unit = chain.first; unit != kEndOfChain; unit = units.next(unit)) {
            const bool inside = unit < units.count();
            const char* fault = !inside ? "its chain leads to a sector that the file has not"
                                : units.next(unit) == kFree         ? "its chain leads to a free sector"
                                : units.owners[unit] == chain.owner ? "its chain comes round"
                                : units.owners[unit] != kNobody ? "its chain leads to a sector of another one"
                                                                : nullptr;
            if (fault != nullptr) {
                faults_.tell(place, chain.id, fault);
                break;
            }
            units.owners[unit] = chain.owner;
            place = placeOfNext(tableSectors, unit);
            visit(unit);
            count++;
        }
        return count;
    }

    // The same for a chain of the tables, whose sectors are listed. False when memory is short.
    bool follow(const ChainStart& chain, Array<uint32_t>& list) {
        bool listed = true;
        follow(sectors_, fatSectors_, chain,
               [&](uint32_t sector) { listed = listed && list.append(sector); });
        return listed;
    }

    bool loadAll(const Array<uint32_t>& list, Array<uint8_t>& bytes, uint8_t fill) {
        for (const uint32_t sector : list)
            if (!load(sector, bytes, fill))
                return false;
        return true;
    }

    // --- The directory ---------------------------------------------------------------------------------------

    const uint8_t* entryAt(uint32_t entry) const { return entries_.data() + size_t(entry) * kEntrySize; }
    uint32_t entryCount() const { return static_cast<uint32_t>(entries_.size() / kEntrySize); }
    uint8_t typeOf(uint32_t entry) const { return entryAt(entry)[kType]; }
    uint32_t linkOf(uint32_t entry, size_t field) const { return load32(entryAt(entry) + field); }
    // Old writers leave the high half undefined where it means nothing.
    uint64_t sizeOf(uint32_t entry) const {
        const uint64_t size = load64(entryAt(entry) + kSize);
        return shift_ == 9 ? size & 0xFFFFFFFF : size;
    }
    // False when the stored length is not the name's.
    bool nameOf(uint32_t entry, Name& name) const {
        name.length = 0;
        for (uint16_t unit;
             name.length < kNameUnits && (unit = load16(entryAt(entry) + name.length * 2)) != 0;)
            name.units[name.length++] = unit;
        name.units[name.length] = 0;
        return name.length > 0 && load16(entryAt(entry) + kNameLength) == (name.length + 1) * 2;
    }

    bool directory() {
        if (!follow({load32(header_ + kFirstDirectory), kFirstDirectory, kTables, KAL_FAULT_OF_FILE},
                    directorySectors_) ||
            !loadAll(directorySectors_, entries_, 0) || !belongs_.resize(entryCount()))
            return false;
        if (shift_ == 12 && load32(header_ + kDirectorySectors) != directorySectors_.size())
            tell(kDirectorySectors, "the number of the directory's sectors is not what the header says");
        if (entryCount() > 0 && typeOf(kRoot) == kRootStorage)
            return true;
        return end(entryCount() > 0 ? placeOf(kRoot) + kType : kFirstDirectory,
                   "the directory has no root entry");
    }

    bool miniSectors() {
        if (!follow({load32(header_ + kFirstMiniFat), kFirstMiniFat, kTables, KAL_FAULT_OF_FILE},
                    miniFatSectors_) ||
            !loadAll(miniFatSectors_, mini_.table, 0xFF))
            return false;
        if (miniFatSectors_.size() < load32(header_ + kMiniFatSectors))
            tell(kMiniFatSectors, "the mini FAT has fewer sectors than the header says");
        uint64_t bytes = 0;
        const uint64_t size = sizeOf(kRoot);
        if (size > 0 || linkOf(kRoot, kFirst) != kEndOfChain)
            bytes = content(sectors_, fatSectors_, kRoot, kContainer, size, shift_);
        return mini_.owners.resize(
            std::min<uint64_t>(mini_.table.size() / 4, std::min(bytes, size + 63) >> kMiniShift));
    }

    // Walks through the chain of what an entry holds. The bytes that it has.
    uint64_t content(Units& units, const Array<uint32_t>& tableSectors, uint32_t entry, uint32_t owner,
                     uint64_t size, uint32_t unitShift) {
        const uint32_t needed = static_cast<uint32_t>(
            std::min<uint64_t>((size + (uint64_t(1) << unitShift) - 1) >> unitShift, UINT32_MAX));
        uint32_t lastNeeded = kFree;
        uint32_t walked = 0;
        const uint32_t count =
            follow(units, tableSectors, {linkOf(entry, kFirst), placeOf(entry) + kFirst, owner, entry},
                   [&](uint32_t unit) { lastNeeded = ++walked == needed ? unit : lastNeeded; });
        if (count < needed)
            tellEntry(entry, kSize, "it has more bytes than its chain");
        else if (needed > 0 && &units == &sectors_) {
            const uint64_t rest = size - (uint64_t(needed - 1) << unitShift);
            if (placeOfSector(lastNeeded) + rest > source_.byteCount())
                tellEntry(entry, kSize, "the file ends inside its bytes");
        }
        return uint64_t(count) << unitShift;
    }

    void stream(uint32_t entry) {
        const uint64_t size = sizeOf(entry);
        if (size == 0)
            return;
        if (size > (shift_ == 9 ? 0x80000000u : 0xFFFFFFFFu))
            return tellEntry(entry, kSize, "it has more bytes than a stream can have");
        if (size < kMiniCutoff)
            content(mini_, miniFatSectors_, entry, entry, size, kMiniShift);
        else
            content(sectors_, fatSectors_, entry, entry, size, shift_);
    }

    // Whether a link leads to an entry that is nobody's yet.
    bool usable(uint32_t entry, uint64_t place, uint32_t from) {
        if (entry == kNoEntry)
            return false;
        Name name;
        const char* fault = entry >= entryCount()  ? "it leads to an entry that the directory has not"
                            : belongs_[entry] != 0 ? "it leads to an entry that belongs somewhere already"
                                                   : nullptr;
        if (fault != nullptr) {
            faults_.tell(place, from, fault);
            return false;
        }
        belongs_[entry] = 1;
        if (typeOf(entry) != kStorage && typeOf(entry) != kStream)
            fault = "it is neither a storage nor a stream";
        else if (!nameOf(entry, name))
            fault = "its name is not of the length that it says";
        if (fault != nullptr)
            tellEntry(entry, typeOf(entry) != kStorage && typeOf(entry) != kStream ? kType : kNameLength,
                      fault);
        return fault == nullptr;
    }

    // Goes through the tree of one storage in its order, with a stack of its own: a damaged one can be as deep as there
    // are entries.
    bool storage(uint32_t storage, Array<uint32_t>& open) {
        Array<uint32_t> above;
        uint32_t before = kNoEntry;
        uint32_t from = storage;
        size_t field = kChild;
        for (;;) {
            for (uint32_t entry = linkOf(from, field); usable(entry, placeOf(from) + field, from);
                 entry = linkOf(entry, kLeft)) {
                if (!above.append(entry))
                    return false;
                from = entry;
                field = kLeft;
            }
            if (above.empty())
                return true;
            const uint32_t entry = above.back();
            above.shrink(above.size() - 1);
            compareWith(before, entry);
            before = entry;
            if (typeOf(entry) == kStream)
                stream(entry);
            else if (!open.append(entry))
                return false;
            from = entry;
            field = kRight;
        }
    }

    void compareWith(uint32_t before, uint32_t entry) {
        Name left;
        Name right;
        if (before == kNoEntry)
            return;
        nameOf(before, left);
        nameOf(entry, right);
        const int order = compareNames(left, right);
        if (order >= 0)
            tellEntry(entry, 0,
                      order == 0 ? "another entry of its storage has the same name"
                                 : "its name is not where readers look for it in its storage");
    }

    bool storages() {
        Array<uint32_t> open;
        belongs_[kRoot] = 1;
        if (!open.append(kRoot))
            return false;
        while (!open.empty()) {
            const uint32_t next = open.back();
            open.shrink(open.size() - 1);
            if (!storage(next, open))
                return false;
        }
        return true;
    }

    bool strays() {
        for (uint32_t entry = 0; entry < entryCount(); entry++)
            if (belongs_[entry] == 0 && typeOf(entry) != kUnused)
                tellEntry(entry, kType, "no storage leads to it");
        return true;
    }

    ByteSource& source_;
    FaultCount& faults_;
    bool ended_ = false;
    uint32_t shift_ = 9;
    uint8_t header_[kHeaderSize] = {};
    Units sectors_;
    Units mini_;
    Array<uint32_t> fatSectors_;
    Array<uint32_t> difatSectors_;
    Array<uint32_t> directorySectors_;
    Array<uint32_t> miniFatSectors_;
    Array<uint8_t> entries_;
    Array<uint8_t> belongs_; // a flag an entry: a storage leads to it
};

} // namespace

int16_t verify(ByteSource& source, FaultCount& faults) {
    return Walk(source, faults).run();
}

} // namespace compound
