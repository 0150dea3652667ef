#include "platform/compound/directory.h"

namespace compound {

namespace {

constexpr wchar_t kRootName[] = L"Root Entry";

} // namespace

bool Directory::start() {
    Name name;
    return makeName(kRootName, name) && add(name, kRootStorage) == kRoot;
}

bool Directory::load(uint32_t first) {
    if (!chain_.load(first) || chain_.unitCount() == 0)
        return false;
    stored_ = true;
    if (!bytes_.resize(chain_.byteCount()) || !dirty_.resize(chain_.unitCount()))
        return false;
    return chain_.read(0, bytes_.data(), bytes_.size()).count == bytes_.size() && type(kRoot) == kRootStorage;
}

bool Directory::prepare() {
    return !stored_ || spare_.extendTo(sectorCount());
}

bool Directory::settle() {
    const bool moves = stored_ && (sectorCount() > chain_.unitCount() ||
                                   std::count(dirty_.begin(), dirty_.end(), uint8_t(1)) > 1);
    if (moves && !prepare())
        return false;
    if (moves) {
        chain_.swap(spare_);
        std::fill(dirty_.begin(), dirty_.end(), uint8_t(1));
        stored_ = false;
    }
    spare_.cutTo(0);
    return true;
}

bool Directory::flush() {
    const uint32_t shift = chain_.space().unitShift();
    for (size_t index = 0; index < dirty_.size();) {
        size_t step = 0;
        while (index + step < dirty_.size() && dirty_[index + step] != 0)
            step++;
        const size_t bytes = step << shift;
        if (chain_.write(uint64_t(index) << shift, bytes_.data() + (index << shift), bytes).count != bytes)
            return false;
        std::fill_n(dirty_.begin() + index, step, uint8_t(0));
        index += step + 1;
    }
    return true;
}

uint64_t Directory::size(uint32_t entry) const {
    const uint64_t size = load64(at(entry) + kSize);
    return chain_.space().unitShift() == 9 ? size & 0xFFFFFFFF : size;
}

bool Directory::name(uint32_t entry, Name& name) const {
    const uint16_t bytes = load16(at(entry) + kNameLength);
    name.length = 0;
    while (name.length < kNameUnits) {
        const uint16_t unit = load16(at(entry) + size_t(name.length) * 2);
        if (unit == 0)
            break;
        name.units[name.length++] = unit;
    }
    name.units[name.length] = 0;
    return bytes == (name.length + 1) * 2 && name.length > 0;
}

void Directory::setDirty(uint32_t entry) {
    dirty_[(size_t(entry) * kEntrySize) >> chain_.space().unitShift()] = 1;
}

void Directory::setData(uint32_t entry, uint32_t first, uint64_t size) {
    if (this->first(entry) == first && load64(at(entry) + kSize) == size)
        return;
    store32(at(entry) + kFirst, first);
    store64(at(entry) + kSize, size);
    setDirty(entry);
}

void Directory::setLink(uint32_t entry, size_t field, uint32_t value) {
    if (link(entry, field) == value)
        return;
    store32(at(entry) + field, value);
    setDirty(entry);
}

void Directory::setColour(uint32_t entry, Colour colour) {
    if (at(entry)[kColour] == colour)
        return;
    at(entry)[kColour] = colour;
    setDirty(entry);
}

bool Directory::grow() {
    const uint32_t before = count();
    const uint32_t sectors = sectorCount();
    // The stored directory stays as it is.
    Chain& chain = stored_ ? spare_ : chain_;
    if (!prepare() || !chain.extendAhead(sectors + 1))
        return false;
    const uint64_t bytes = chain.byteCount();
    if (!bytes_.reserve(bytes) || !dirty_.resize(chain.unitCount())) {
        chain.cutTo(sectors);
        return false;
    }
    bytes_.resize(bytes);
    for (uint32_t entry = before; entry < count(); entry++)
        clear(entry);
    return true;
}

// An unused entry is all 0 but for its links.
void Directory::clear(uint32_t entry) {
    std::memset(at(entry), 0, kEntrySize);
    for (const size_t field : {kLeft, kRight, kChild})
        store32(at(entry) + field, kNoEntry);
    setDirty(entry);
}

uint32_t Directory::add(const Name& name, EntryType type) {
    while (firstFree_ < count() && this->type(firstFree_) != kUnused)
        firstFree_++;
    if (firstFree_ == count() && !grow())
        return kNoEntry;
    const uint32_t entry = firstFree_;
    clear(entry);
    for (uint32_t i = 0; i < name.length; i++)
        store16(at(entry) + size_t(i) * 2, name.units[i]);
    store16(at(entry) + kNameLength, static_cast<uint16_t>((name.length + 1) * 2));
    at(entry)[kType] = type;
    at(entry)[kColour] = kBlack;
    setData(entry, type == kStorage ? 0 : kEndOfChain, 0);
    return entry;
}

void Directory::remove(uint32_t entry) {
    clear(entry);
    firstFree_ = std::min(firstFree_, entry);
}

} // namespace compound
