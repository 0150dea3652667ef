#include "platform/compound/compound_file.h"

namespace compound {

namespace {

// Which units of a space have an owner.
class Owners {
public:
    bool start(uint32_t units) { return owned_.resize(units); }
    bool take(Run run) {
        if (run.first > owned_.size() || run.count > owned_.size() - run.first)
            return false;
        uint8_t* flags = owned_.data() + run.first;
        for (uint32_t i = 0; i < run.count; i++)
            if (flags[i] != 0)
                return false;
        std::memset(flags, 1, run.count);
        return true;
    }
    bool take(const Chain& chain) {
        return chain.everyRun([this](Run run) { return take(run); });
    }

private:
    Array<uint8_t> owned_;
};

class Checker {
public:
    explicit Checker(CompoundFile& file) : file_(file) {}

    bool check() {
        const MiniSectors& mini = file_.miniSectors();
        const auto miniUnits = static_cast<uint32_t>(
            std::min<uint64_t>(mini.table.size(), mini.container().byteCount() >> kMiniShift));
        return sectors_.start(std::min(file_.sectors().inFile(), file_.sectors().table.size())) &&
               miniSectors_.start(miniUnits) && takeTables() && takeStorages();
    }

private:
    // Sectors of the tables are marked as such, or they would be given out as free ones.
    bool takeMarked(const Array<uint32_t>& list, uint32_t mark) {
        for (const uint32_t sector : list)
            if (!sectors_.take(Run{sector, 1}) || file_.sectors().table.next(sector) != mark)
                return false;
        return true;
    }

    bool takeTables() {
        const MiniSectors& mini = file_.miniSectors();
        return takeMarked(file_.sectors().fatSectors(), kFatSector) &&
               takeMarked(file_.sectors().difatSectors(), kDifatSector) &&
               sectors_.take(file_.directory().chain()) && sectors_.take(mini.tableChain()) &&
               sectors_.take(mini.container()) && reaches(mini.container(), mini.usedBytes());
    }

    // Whether the file has all bytes of what lies in a chain, also where its last sector is cut short.
    bool reaches(const Chain& chain, uint64_t size) const {
        uint8_t last;
        return chain.byteCount() >= size &&
               (size == 0 || !file_.sectors().isLastCutShort() || chain.read(size - 1, &last, 1).count == 1);
    }

    bool takeStream(uint32_t entry) {
        const uint64_t size = file_.directory().size(entry);
        if (size == 0)
            return true;
        const bool small = size < kMiniCutoff;
        Space& space = small ? static_cast<Space&>(file_.miniSectors()) : file_.sectors();
        Chain chain(space);
        return size <= file_.longestStream() && chain.load(file_.directory().first(entry)) &&
               reaches(chain, size) && (small ? miniSectors_ : sectors_).take(chain);
    }

    bool takeStorages() {
        Array<uint32_t> open;
        if (!open.append(kRoot))
            return false;
        while (!open.empty()) {
            const uint32_t storage = open.back();
            open.shrink(open.size() - 1);
            const Children* children = file_.childrenOf(storage);
            if (children == nullptr || children->damaged())
                return false;
            for (const uint32_t entry : children->entries()) {
                const bool isStream = file_.directory().type(entry) == kStream;
                if (isStream ? !takeStream(entry) : !open.append(entry))
                    return false;
            }
        }
        return true;
    }

    CompoundFile& file_;
    Owners sectors_;
    Owners miniSectors_;
};

} // namespace

bool isSound(CompoundFile& file) {
    return Checker(file).check();
}

} // namespace compound
