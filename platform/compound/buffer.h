// A part of a chain kept in memory, so that bytes side by side are not moved few by few.
#ifndef KAL_PLATFORM_COMPOUND_BUFFER_H
#define KAL_PLATFORM_COMPOUND_BUFFER_H

#include "platform/compound/chain.h"

namespace compound {

class Buffer {
public:
    explicit Buffer(Chain& chain) : chain_(chain) {}

    // As those of the chain, which has room for what is written: it goes there when the buffer moves or is
    // flushed. A write that has to move the buffer first fails when that does.
    Moved read(uint64_t position, void* destination, size_t count);
    Moved write(uint64_t position, const void* source, size_t count);
    bool flush();

private:
    bool moveTo(uint64_t position);

    Chain& chain_;
    Array<uint8_t> bytes_;
    uint64_t start_ = 0;    // of the buffer in the chain
    size_t valid_ = 0;      // its bytes that are known
    size_t dirtyBegin_ = 0; // those that the chain does not have yet
    size_t dirtyEnd_ = 0;
};

} // namespace compound

#endif
