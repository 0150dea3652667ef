#include "platform/compound/children.h"

#include <bit>

namespace compound {

// --- Reading the tree --------------------------------------------------------------------------------

bool Children::usable(uint32_t entry, const Array<uint8_t>& claimed) {
    if (entry == kNoEntry)
        return false;
    Name name;
    const bool good = entry < directory_.count() && claimed[entry] == 0 &&
                      (directory_.type(entry) == kStorage || directory_.type(entry) == kStream) &&
                      directory_.name(entry, name);
    damaged_ = damaged_ || !good;
    return good;
}

// In order, with a stack of its own: a damaged tree can be as deep as there are entries.
bool Children::walk(Array<uint8_t>& claimed) {
    Array<uint32_t> above;
    uint32_t entry = directory_.link(storage_, kChild);
    for (;;) {
        while (usable(entry, claimed)) {
            claimed[entry] = 1;
            if (!above.append(entry))
                return false;
            entry = directory_.link(entry, kLeft);
        }
        if (above.empty())
            return true;
        entry = above.back();
        above.shrink(above.size() - 1);
        if (!entries_.append(entry))
            return false;
        entry = directory_.link(entry, kRight);
    }
}

void Children::sort() {
    const auto before = [this](uint32_t left, uint32_t right) { return compare(left, right) < 0; };
    if (std::is_sorted(entries_.begin(), entries_.end(), before))
        return;
    std::sort(entries_.begin(), entries_.end(), before);
    changed_ = true;
}

bool Children::load(Array<uint8_t>& claimed) {
    if (!walk(claimed))
        return false;
    sort();
    // Of entries of one name only the first can be reached.
    const auto same = [this](uint32_t left, uint32_t right) { return compare(left, right) == 0; };
    const auto end = std::unique(entries_.begin(), entries_.end(), same);
    damaged_ = damaged_ || end != entries_.end();
    entries_.shrink(static_cast<size_t>(end - entries_.begin()));
    return true;
}

// --- By name -----------------------------------------------------------------------------------------

int Children::compare(uint32_t left, uint32_t right) const {
    Name leftName;
    Name rightName;
    directory_.name(left, leftName);
    directory_.name(right, rightName);
    return compareNames(leftName, rightName);
}

size_t Children::placeOf(const Name& name) const {
    const auto place =
        std::lower_bound(entries_.begin(), entries_.end(), name, [this](uint32_t entry, const Name& sought) {
            Name here;
            directory_.name(entry, here);
            return compareNames(here, sought) < 0;
        });
    return static_cast<size_t>(place - entries_.begin());
}

uint32_t Children::find(const Name& name) const {
    const size_t place = placeOf(name);
    Name here;
    if (place == entries_.size() || (directory_.name(entries_[place], here), compareNames(here, name) != 0))
        return kNoEntry;
    return entries_[place];
}

bool Children::insert(uint32_t entry) {
    Name name;
    directory_.name(entry, name);
    changed_ = true;
    return entries_.insert(placeOf(name), entry);
}

void Children::remove(uint32_t entry) {
    const auto place = std::find(entries_.begin(), entries_.end(), entry);
    std::copy(place + 1, entries_.end(), place);
    entries_.shrink(entries_.size() - 1);
    changed_ = true;
}

// --- Writing the tree --------------------------------------------------------------------------------

// Halving gives a tree whose levels are all full but the last. Black full levels and a red last one make it a
// red-black tree: every way down meets the same number of black entries, and no red one has a red child.
uint32_t Children::linkSubtree(size_t begin, size_t end, uint32_t blackLevels) {
    if (begin == end)
        return kNoEntry;
    const size_t middle = begin + (end - begin) / 2;
    const uint32_t entry = entries_[middle];
    const uint32_t below = blackLevels > 0 ? blackLevels - 1 : 0;
    directory_.setColour(entry, blackLevels > 0 ? kBlack : kRed);
    directory_.setLink(entry, kLeft, linkSubtree(begin, middle, below));
    directory_.setLink(entry, kRight, linkSubtree(middle + 1, end, below));
    return entry;
}

void Children::setLinks() {
    if (!changed_)
        return;
    const auto fullLevels = static_cast<uint32_t>(std::bit_width(entries_.size() + 1) - 1);
    directory_.setLink(storage_, kChild, linkSubtree(0, entries_.size(), fullLevels));
    changed_ = false;
}

} // namespace compound
