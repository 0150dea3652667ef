#include "platform/compound/chain.h"

namespace compound {

void Chain::swap(Chain& other) {
    std::swap(space_, other.space_);
    pieces_.swap(other.pieces_);
    std::swap(recent_, other.recent_);
}

uint32_t Chain::unitCount() const {
    return pieces_.empty() ? 0 : pieces_[pieces_.size() - 1].before + pieces_[pieces_.size() - 1].span.count;
}

bool Chain::appendSpan(Span span) {
    const uint32_t before = unitCount();
    if (!pieces_.empty()) {
        Span& last = pieces_.back().span;
        if (last.first + last.count == span.first) {
            last.count += span.count;
            return true;
        }
    }
    return pieces_.append({span, before});
}

bool Chain::load(uint32_t first) {
    const AllocationTable& table = space_->table;
    recent_ = 0;
    pieces_.shrink(0);
    uint32_t walked = 0;
    uint32_t unit = first;
    while (unit < table.size()) {
        // Neighbours are gathered first: chains are mostly spans of them.
        Span span = {unit, 0};
        uint32_t next;
        do {
            next = table.next(unit);
            if (next == kFree || next == kKept)
                break;
            span.count++;
            unit = next;
        } while (next == span.first + span.count && next < table.size());
        walked += span.count;
        // More units than there are: the chain came round.
        if (walked > table.size() || (span.count > 0 && !appendSpan(span))) {
            pieces_.shrink(0);
            return false;
        }
        if (next == kFree || next == kKept)
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
    const size_t oldPieces = pieces_.size();
    const Span oldLast = oldPieces > 0 ? pieces_.back().span : Span{};
    uint32_t from = 0;
    uint32_t end = 0;
    bool found = true;
    while (found && unitCount() < units) {
        const Span span = table.findFree(from, units - unitCount());
        found = span.count > 0 && appendSpan(span);
        from = span.first + span.count;
        end = from;
    }
    if (!found || !space_->secure(end)) {
        pieces_.shrink(oldPieces);
        if (oldPieces > 0)
            pieces_.back().span = oldLast;
        return false;
    }
    // What was added: the part of the old last piece that it grew by, then the new spans.
    uint32_t next = kEndOfChain;
    for (size_t index = pieces_.size(); index-- > oldPieces;) {
        table.link(pieces_[index].span, next);
        next = pieces_[index].span.first;
    }
    if (oldPieces > 0) {
        const Span& grown = pieces_[oldPieces - 1].span;
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
        Piece& end = pieces_.back();
        const uint32_t keep = units > end.before ? units - end.before : 0;
        table.release({end.span.first + keep, end.span.count - keep});
        end.span.count = keep;
        if (keep == 0)
            pieces_.shrink(pieces_.size() - 1);
    }
    if (!pieces_.empty())
        table.link({last(), 1}, kEndOfChain);
    recent_ = 0;
}

// The piece that holds a unit of the chain; mostly the one used last or the one behind it.
size_t Chain::pieceOf(uint32_t unitIndex) const {
    const auto holds = [this, unitIndex](size_t index) {
        return index < pieces_.size() && pieces_[index].before <= unitIndex &&
               unitIndex - pieces_[index].before < pieces_[index].span.count;
    };
    if (!holds(recent_) && !holds(++recent_))
        recent_ = static_cast<size_t>(
            std::upper_bound(pieces_.begin(), pieces_.end(), unitIndex,
                             [](uint32_t index, const Piece& piece) { return index < piece.before; }) -
            pieces_.begin() - 1);
    return recent_;
}

// Calls `transfer(offset in the space, bytes done, bytes)` for each piece that the bytes lie in.
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
        const Piece& piece = pieces_[pieceOf(static_cast<uint32_t>(at >> shift))];
        const uint64_t within = at - (uint64_t(piece.before) << shift);
        const uint64_t room = (uint64_t(piece.span.count) << shift) - within;
        const auto bytes = static_cast<size_t>(std::min<uint64_t>(count - moved.count, room));
        const Moved step = transfer((uint64_t(piece.span.first) << shift) + within, moved.count, bytes);
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
