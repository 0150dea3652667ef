#include "platform/compound/compound_file.h"

namespace compound {

namespace {

constexpr uint32_t kNobody = 0;
constexpr uint32_t kTables = 0xFFFFFFFF; // the owner of FAT, directory and the like
constexpr uint32_t kMini = 0xFFFFFFFE;   // the owner of the mini FAT and of what mini sectors lie in
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
        MiniSectors& mini = file_.miniSectors();
        if (!sectors_.start(std::min(file_.sectors().inFile(), file_.sectors().table.size())) ||
            !takeTables())
            return false;
        takeMini();
        mini.table.endLooseChains(mini.unitsOfContainer());
        if (!miniSectors_.start(mini.unitsOfContainer()) || !takeStorages())
            return false;
        if (clashesWithMini_)
            refuseSmallStreams();
        return !readFailed_; // what could not be read is no damage that may be noted
    }

private:
    bool takeForTables(Span span) {
        bool clash = false;
        return sectors_.take(span, kTables, [&clash](uint32_t) { clash = true; }) && !clash;
    }

    bool takeTables() {
        const auto takeEach = [this](const Array<uint32_t>& list) {
            return std::all_of(list.begin(), list.end(), [this](uint32_t sector) {
                return sector == kFree || takeForTables({sector, 1});
            });
        };
        return file_.directory().chain().everySpan([this](Span span) { return takeForTables(span); }) &&
               takeEach(file_.sectors().fatSectors()) && takeEach(file_.sectors().difatSectors());
    }

    void takeMini() {
        MiniSectors& mini = file_.miniSectors();
        for (const Chain* chain : {&mini.tableChain(), &mini.container()})
            chain->everySpan([this](Span span) {
                const auto clash = [this](uint32_t) { clashesWithMini_ = true; };
                return sectors_.take(span, kMini, clash);
            });
        if (!reaches(mini.container(), file_.directory().size(kRoot)))
            mini.setDoubtful();
    }

    // Either they or what clashes with them are not where they belong.
    void refuseSmallStreams() {
        const Directory& directory = file_.directory();
        for (uint32_t entry = 0; entry < directory.count(); entry++)
            if (directory.type(entry) == kStream && directory.size(entry) < kMiniCutoff &&
                directory.size(entry) > 0)
                file_.setDamaged(entry);
        file_.miniSectors().setDoubtful();
    }

    // Whether the file has all bytes of what lies in a chain, also where its last sector is cut short.
    bool reaches(const Chain& chain, uint64_t size) {
        if (chain.byteCount() < size || size == 0 || !file_.sectors().isLastCutShort())
            return chain.byteCount() >= size;
        uint8_t last;
        const Moved got = chain.read(size - 1, &last, 1);
        readFailed_ = readFailed_ || got.failed;
        return got.count == 1;
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
        chain.space().table.keep(directory.first(entry));
        bool good =
            chain.load(directory.first(entry)) && size <= file_.longestStream() && reaches(chain, size);
        if (directory.first(entry) >= owners.count() || (!good && chain.byteCount() >= size))
            directory.setData(entry, kEndOfChain, size);
        good = chain.everySpan([&](Span span) {
            return owners.take(span, entry, [&](uint32_t before) {
                good = false;
                // What lies in a stream's sectors may as well be the small streams as that one.
                clashesWithMini_ = clashesWithMini_ || before == kMini;
                if (before < kMini)
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
    bool clashesWithMini_ = false;
    bool readFailed_ = false;
};

} // namespace

bool findDamage(CompoundFile& file) {
    return Checker(file).check();
}

} // namespace compound
