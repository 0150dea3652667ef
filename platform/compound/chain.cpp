#include "platform/compound/chain.h"

namespace compound {

void Chain::swap(Chain& other) {
    std::swap(space_, other.space_);
    stretches_.swap(other.stretches_);
    std::swap(recent_, other.recent_);
}

uint32_t Chain::unitCount() const {
    return stretches_.empty()
               ? 0
               : stretches_[stretches_.size() - 1].before + stretches_[stretches_.size() - 1].run.count;
}

bool Chain::appendRun(Run run) {
    const uint32_t before = unitCount();
    if (!stretches_.empty()) {
        Run& last = stretches_.back().run;
        if (last.first + last.count == run.first) {
            last.count += run.count;
            return true;
        }
    }
    return stretches_.append({run, before});
}

bool Chain::load(uint32_t first) {
    const AllocationTable& table = space_->table;
    recent_ = 0;
    stretches_.shrink(0);
    uint32_t walked = 0;
    uint32_t unit = first;
    while (unit < table.size()) {
        // Neighbours are gathered first: chains are mostly stretches of them.
        Run run = {unit, 0};
        uint32_t next;
        do {
            next = table.next(unit);
            if (next == kFree)
                break;
            run.count++;
            unit = next;
        } while (next == run.first + run.count && next < table.size());
        walked += run.count;
        // More units than there are: the chain came round.
        if (walked > table.size() || (run.count > 0 && !appendRun(run))) {
            stretches_.shrink(0);
            return false;
        }
        if (next == kFree)
            break;
    }
    return true;
}

bool Chain::extendTo(uint32_t units) {
    const uint32_t had = unitCount();
    if (units <= had)
        return true;
    AllocationTable& table = space_->table;
    if (!space_->makeFree(units - had))
        return false;
    // Units are found first and taken only when they have a place on the disk.
    const size_t oldStretches = stretches_.size();
    const Run oldLast = oldStretches > 0 ? stretches_.back().run : Run{};
    uint32_t from = 0;
    uint32_t end = 0;
    bool found = true;
    while (found && unitCount() < units) {
        const Run run = table.findFree(from, units - unitCount());
        found = run.count > 0 && appendRun(run);
        from = run.first + run.count;
        end = from;
    }
    if (!found || !space_->secure(end)) {
        stretches_.shrink(oldStretches);
        if (oldStretches > 0)
            stretches_.back().run = oldLast;
        return false;
    }
    // What was added: the part of the old last stretch that it grew by, then the new stretches.
    uint32_t next = kEndOfChain;
    for (size_t index = stretches_.size(); index-- > oldStretches;) {
        table.link(stretches_[index].run, next);
        next = stretches_[index].run.first;
    }
    if (oldStretches > 0) {
        const Run& grown = stretches_[oldStretches - 1].run;
        const uint32_t tail = oldLast.count - 1; // the old last unit now leads on
        table.link({grown.first + tail, grown.count - tail}, next);
    }
    return true;
}

bool Chain::extendAhead(uint32_t units) {
    constexpr uint32_t kMostAhead = 128;
    return units <= unitCount() || extendTo(units + std::min(unitCount() / 2, kMostAhead)) || extendTo(units);
}

void Chain::cutTo(uint32_t units) {
    if (units >= unitCount())
        return;
    AllocationTable& table = space_->table;
    while (unitCount() > units) {
        Stretch& last = stretches_.back();
        const uint32_t keep = units > last.before ? units - last.before : 0;
        table.release({last.run.first + keep, last.run.count - keep});
        last.run.count = keep;
        if (keep == 0)
            stretches_.shrink(stretches_.size() - 1);
    }
    if (!stretches_.empty())
        table.link({stretches_.back().run.first + stretches_.back().run.count - 1, 1}, kEndOfChain);
    recent_ = 0;
}

// The stretch that holds a unit of the chain; mostly the one used last or the one behind it.
size_t Chain::stretchOf(uint32_t unitIndex) const {
    const auto holds = [this, unitIndex](size_t index) {
        return index < stretches_.size() && stretches_[index].before <= unitIndex &&
               unitIndex - stretches_[index].before < stretches_[index].run.count;
    };
    if (!holds(recent_) && !holds(++recent_))
        recent_ = static_cast<size_t>(
            std::upper_bound(stretches_.begin(), stretches_.end(), unitIndex,
                             [](uint32_t index, const Stretch& stretch) { return index < stretch.before; }) -
            stretches_.begin() - 1);
    return recent_;
}

// Calls `transfer(offset in the space, bytes done, bytes)` for each stretch that the bytes lie in.
template <class Transfer>
Moved Chain::transfer(uint64_t position, size_t count, Transfer transfer) const {
    Moved moved;
    const uint32_t shift = space_->unitShift();
    const uint64_t end = byteCount();
    if (position >= end)
        return moved;
    count = static_cast<size_t>(std::min<uint64_t>(count, end - position));
    while (moved.count < count) {
        const uint64_t at = position + moved.count;
        const Stretch& stretch = stretches_[stretchOf(static_cast<uint32_t>(at >> shift))];
        const uint64_t within = at - (uint64_t(stretch.before) << shift);
        const uint64_t room = (uint64_t(stretch.run.count) << shift) - within;
        const auto bytes = static_cast<size_t>(std::min<uint64_t>(count - moved.count, room));
        const Moved step = transfer((uint64_t(stretch.run.first) << shift) + within, moved.count, bytes);
        moved.count += step.count;
        if (step.count != bytes) {
            moved.failed = step.failed;
            break;
        }
    }
    return moved;
}

Moved Chain::read(uint64_t position, void* destination, size_t count) const {
    auto* to = static_cast<uint8_t*>(destination);
    return transfer(position, count, [this, to](uint64_t offset, size_t done, size_t bytes) {
        return space_->read(offset, to + done, bytes);
    });
}

Moved Chain::write(uint64_t position, const void* source, size_t count) {
    const auto* from = static_cast<const uint8_t*>(source);
    return transfer(position, count, [this, from](uint64_t offset, size_t done, size_t bytes) {
        return space_->write(offset, from + done, bytes);
    });
}

} // namespace compound
