// The bytes of one stream of a compound file, which lie in mini sectors while they are few and in sectors
// otherwise, and move when their number passes the limit.
#ifndef KAL_PLATFORM_COMPOUND_CONTENT_H
#define KAL_PLATFORM_COMPOUND_CONTENT_H

#include "platform/compound/compound_file.h"

namespace compound {

class Content {
public:
    Content(CompoundFile& file, uint32_t entry);

    // False when its chain never ends or memory is short.
    bool load();

    uint64_t size() const { return size_; }
    // Bytes from `position` on. Fewer than asked at the end, or where the chain is broken.
    Moved read(uint64_t position, void* destination, size_t count);
    // Takes as many bytes as there is room for. Bytes between the end and `position` become 0.
    Moved write(uint64_t position, const void* source, size_t count);
    // False, and nothing changed, when there is no room.
    bool setSize(uint64_t size);

private:
    Space& spaceFor(uint64_t size) const;
    uint64_t makeRoom(uint64_t size, Chain& previous);
    bool tryRoom(uint64_t size, Chain& previous);
    bool move(uint64_t size, size_t keep, Chain& previous);
    bool settle(uint64_t size, Chain& previous);
    bool shorten(uint64_t size);
    bool zeroTo(uint64_t position);

    CompoundFile& file_;
    uint32_t entry_;
    uint64_t size_;
    Chain chain_;
};

} // namespace compound

#endif
