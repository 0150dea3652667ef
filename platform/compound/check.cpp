#include "platform/compound/compound_file.h"

namespace compound {

namespace {

constexpr uint32_t kNobody = 0;
constexpr uint32_t kTables = 0xFFFFFFFF;     // the owner of FAT, directory and the like
constexpr uint32_t kMiniStream = 0xFFFFFFFE; // the owner of the sectors in which mini sectors lie
// A stream is an owner by its entry's number, which is never 0.

// Who owns each unit of a space.
class Owners {
public:
    bool start(uint32_t units) { return owners_.resize(units); }
    uint32_t count() const { return static_cast<uint32_t>(owners_.size()); }

    // Calls `onClash(owner before)` for each unit that has one; false when units are no units of the space.
    template <class OnClash>
    bool take(Span span, uint32_t owner, OnClash onClash) {
        if (span.first > count() || span.count > count() - span.first)
            return false;
        for (uint32_t unit = span.first; unit < span.first + span.count; unit++) {
            if (owners_[unit] != kNobody)
                onClash(owners_[unit]);
            owners_[unit] = owner;
        }
        return true;
    }

private:
    Array<uint32_t> owners_;
};

class Checker {
public:
    explicit Checker(CompoundFile& file) : file_(file) {}

    bool check() {
        const MiniSectors& mini = file_.miniSectors();
        const auto miniUnits = static_cast<uint32_t>(
            std::min<uint64_t>(mini.table.size(), mini.container().byteCount() >> kMiniShift));
        file_.miniSectors().table.endLooseChains(miniUnits);
        return sectors_.start(std::min(file_.sectors().inFile(), file_.sectors().table.size())) &&
               miniSectors_.start(miniUnits) && takeTables() && takeStorages() && !clashesWithMiniStream_;
    }

private:
    bool takeForTables(Span span, uint32_t owner) {
        bool clash = false;
        return sectors_.take(span, owner, [&clash](uint32_t) { clash = true; }) && !clash;
    }

    // Sectors of the tables are marked as such, or they would be given out as free ones.
    bool takeMarked(const Array<uint32_t>& list, uint32_t mark) {
        for (const uint32_t sector : list)
            if (!takeForTables({sector, 1}, kTables) || file_.sectors().table.next(sector) != mark)
                return false;
        return true;
    }

    bool takeTables() {
        const MiniSectors& mini = file_.miniSectors();
        const auto take = [this](const Chain& chain, uint32_t owner) {
            return chain.everySpan([this, owner](Span span) { return takeForTables(span, owner); });
        };
        return take(file_.directory().chain(), kTables) && take(mini.tableChain(), kTables) &&
               take(mini.container(), kMiniStream) && takeMarked(file_.sectors().fatSectors(), kFatSector) &&
               takeMarked(file_.sectors().difatSectors(), kDifatSector) && mini.isWhole() &&
               reaches(mini.container(), file_.directory().size(kRoot));
    }

    // Whether the file has all bytes of what lies in a chain, also where its last sector is cut short.
    bool reaches(const Chain& chain, uint64_t size) const {
        uint8_t last;
        return chain.byteCount() >= size &&
               (size == 0 || !file_.sectors().isLastCutShort() || chain.read(size - 1, &last, 1).count == 1);
    }

    // A chain that is too short stays so: nothing that the file is given later becomes a part of it.
    void takeStream(uint32_t entry) {
        Directory& directory = file_.directory();
        const uint64_t size = directory.size(entry);
        if (size == 0)
            return;
        const bool small = size < kMiniCutoff;
        Owners& owners = small ? miniSectors_ : sectors_;
        Chain chain(small ? static_cast<Space&>(file_.miniSectors()) : file_.sectors());
        const bool ends = chain.load(directory.first(entry));
        bool good = ends && size <= file_.longestStream() && reaches(chain, size);
        const bool isCutShort = chain.byteCount() >= size;
        if (ends && !good && (isCutShort || chain.unitCount() == 0 || chain.first() >= owners.count()))
            directory.setData(entry, kEndOfChain, size);
        good = chain.everySpan([&](Span span) {
            return owners.take(span, entry, [&](uint32_t before) {
                good = false;
                // What lies in a stream's sectors may as well be the small streams as that one.
                clashesWithMiniStream_ = clashesWithMiniStream_ || before == kMiniStream;
                if (before < kMiniStream)
                    file_.setDamaged(before);
            });
        }) && good;
        if (!good)
            file_.setDamaged(entry);
    }

    bool takeStorages() {
        Array<uint32_t> open;
        if (!open.append(kRoot))
            return false;
        while (!open.empty()) {
            const uint32_t storage = open.back();
            open.shrink(open.size() - 1);
            const Children* children = file_.childrenOf(storage);
            if (children == nullptr)
                return false;
            for (const uint32_t entry : children->entries()) {
                if (file_.directory().type(entry) == kStream)
                    takeStream(entry);
                else if (!open.append(entry))
                    return false;
            }
        }
        return true;
    }

    CompoundFile& file_;
    Owners sectors_;
    Owners miniSectors_;
    bool clashesWithMiniStream_ = false;
};

} // namespace

bool findDamage(CompoundFile& file) {
    return Checker(file).check();
}

} // namespace compound
