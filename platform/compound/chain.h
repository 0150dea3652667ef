// A chain of units as the spans of neighbours that it consists of, so that a position is found without
// walking the chain and neighbours are moved with one call.
#ifndef KAL_PLATFORM_COMPOUND_CHAIN_H
#define KAL_PLATFORM_COMPOUND_CHAIN_H

#include "platform/compound/space.h"

namespace compound {

class Chain {
public:
    explicit Chain(Space& space) : space_(&space) {}
    void swap(Chain& other);

    // Follows the chain from `first`. A chain that leads out of the space or into a free or kept unit is cut there.
    // False when it never ends, or memory is short; the chain is empty then.
    bool load(uint32_t first);

    Space& space() const { return *space_; }
    uint32_t first() const { return pieces_.empty() ? kEndOfChain : pieces_[0].span.first; }
    // Of a chain that is not empty.
    uint32_t last() const {
        const Span& span = pieces_[pieces_.size() - 1].span;
        return span.first + span.count - 1;
    }
    uint32_t unitCount() const;
    uint64_t byteCount() const { return uint64_t(unitCount()) << space_->unitShift(); }

    // Lengthens the chain to `units`, or leaves it as it was.
    bool extendTo(uint32_t units);
    // The same with some units to spare where there is room, for chains that grow step by step: their spans
    // stay long.
    bool extendAhead(uint32_t units);
    // Gives the units from `units` on back.
    void cutTo(uint32_t units);

    // Move what lies within the chain.
    Moved read(uint64_t position, void* destination, size_t count) const;
    Moved write(uint64_t position, const void* source, size_t count);

    // Calls `visit(span)` for each piece until it gives false; whether it never did.
    template <class Visit>
    bool everySpan(Visit visit) const {
        for (const Piece& piece : pieces_)
            if (!visit(piece.span))
                return false;
        return true;
    }

private:
    struct Piece {
        Span span;
        uint32_t before; // units of the chain in front of it
    };

    bool appendSpan(Span span);
    size_t pieceOf(uint32_t unitIndex) const;
    template <class Transfer>
    Moved transfer(uint64_t position, size_t count, Transfer transfer) const;

    Space* space_;
    Array<Piece> pieces_;
    mutable size_t recent_ = 0; // the piece last used
};

} // namespace compound

#endif
