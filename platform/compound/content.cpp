#include "platform/compound/content.h"

namespace compound {

Content::Content(CompoundFile& file, uint32_t entry)
    : file_(file), entry_(entry), size_(file.directory().size(entry)), chain_(spaceFor(size_)) {}

Space& Content::spaceFor(uint64_t size) const {
    return size < kMiniCutoff ? static_cast<Space&>(file_.miniSectors()) : file_.sectors();
}

bool Content::load() {
    // What a stream of no bytes says of its first sector means nothing.
    return size_ == 0 || chain_.load(file_.directory().first(entry_));
}

Moved Content::read(uint64_t position, void* destination, size_t count) {
    if (position >= size_)
        return {};
    return chain_.read(position, destination,
                       static_cast<size_t>(std::min<uint64_t>(count, size_ - position)));
}

// --- Room --------------------------------------------------------------------------------------------

// Puts the first `keep` bytes into a fresh chain for `size` bytes; `previous` is the old chain then.
bool Content::move(uint64_t size, size_t keep, Chain& previous) {
    uint8_t bytes[kMiniCutoff]; // a stream moves only with fewer than these
    Chain fresh(spaceFor(size));
    if (!fresh.extendTo(fresh.space().unitsFor(size)))
        return false;
    if (chain_.read(0, bytes, keep).count != keep || fresh.write(0, bytes, keep).count != keep) {
        fresh.cutTo(0);
        return false;
    }
    previous.swap(chain_);
    chain_.swap(fresh);
    return true;
}

bool Content::tryRoom(uint64_t size, Chain& previous) {
    return &spaceFor(size) == &chain_.space() ? chain_.extendTo(chain_.space().unitsFor(size))
                                              : move(size, static_cast<size_t>(size_), previous);
}

// Makes room for `size` bytes, not fewer than there are, or for as many as the disk has room for. The size
// that there is room for.
uint64_t Content::makeRoom(uint64_t size, Chain& previous) {
    if (size > size_ && !file_.prepare())
        return size_;
    const bool small = size_ < kMiniCutoff;
    const uint64_t fits =
        small ? std::min<uint64_t>(chain_.byteCount(), kMiniCutoff - 1) : chain_.byteCount();
    while (size > fits && !tryRoom(size, previous))
        size = fits + (size - fits) / 2;
    return size;
}

// Ends a change: `previous` is given up once the stream has a size that belongs where it lies now. A stream
// that did not get that far (a failed write) goes back to what it was; false then. Room that was not used in
// the end is given back, or a full disk would be full of nothing.
bool Content::settle(uint64_t size, Chain& previous) {
    const bool stays = &spaceFor(size) == &chain_.space();
    if (stays)
        size_ = size;
    else
        chain_.swap(previous);
    if (&previous.space() != &chain_.space())
        previous.cutTo(0);
    chain_.cutTo(chain_.space().unitsFor(size_));
    file_.directory().setData(entry_, size_ > 0 ? chain_.first() : kEndOfChain, size_);
    file_.setChanged();
    return stays;
}

bool Content::zeroTo(uint64_t position) {
    static const uint8_t zeros[64 * 1024] = {};
    for (uint64_t at = size_; at < position;) {
        const auto step = static_cast<size_t>(std::min<uint64_t>(sizeof zeros, position - at));
        const Moved moved = chain_.write(at, zeros, step);
        at += moved.count;
        if (moved.count != step)
            return false;
    }
    return true;
}

// --- Changing ----------------------------------------------------------------------------------------

Moved Content::write(uint64_t position, const void* source, size_t count) {
    const auto* from = static_cast<const uint8_t*>(source);
    Moved moved;
    count = static_cast<size_t>(
        std::min<uint64_t>(count, file_.longestStream() - std::min(position, file_.longestStream())));
    while (moved.count < count && !moved.failed) {
        const uint64_t at = position + moved.count;
        Chain previous(chain_.space());
        const uint64_t room = makeRoom(std::max<uint64_t>(size_, position + count), previous);
        const uint64_t end = std::min<uint64_t>(room, position + count);
        if (end <= at) {
            settle(size_, previous); // room for a part of the gap at most: nothing was taken
            break;
        }
        Moved step = {0, true};
        if (zeroTo(at))
            step = chain_.write(at, from + moved.count, static_cast<size_t>(end - at));
        const uint64_t reached = step.count > 0 ? std::max(size_, at + step.count) : size_;
        if (settle(reached, previous))
            moved.count += step.count;
        moved.failed = step.count != end - at;
    }
    return moved;
}

// Sectors are cut off the end only after the file says that the stream is shorter.
bool Content::shorten(uint64_t size) {
    if (chain_.space().unitsFor(size) == chain_.unitCount())
        return true;
    file_.directory().setData(entry_, chain_.first(), size);
    file_.setChanged();
    return file_.flush() == S_OK;
}

bool Content::setSize(uint64_t size) {
    if (size > file_.longestStream())
        return false;
    Chain previous(chain_.space());
    bool done;
    if (size >= size_) {
        done = file_.prepare() && tryRoom(size, previous) && zeroTo(size);
    } else if (&spaceFor(size) == &chain_.space() && size > 0) {
        done = shorten(size);
    } else {
        done = &spaceFor(size) == &chain_.space() || move(size, static_cast<size_t>(size), previous);
    }
    settle(done ? size : size_, previous);
    return done;
}

} // namespace compound
