// A stream over bytes in memory, without a buffer and without `dirty`, that can be made to fill up or to end.
#ifndef KAL_TESTS_SUPPORT_VECTOR_STREAM_H
#define KAL_TESTS_SUPPORT_VECTOR_STREAM_H

#include <kal/stream.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class VectorStream {
public:
    explicit VectorStream(std::vector<uint8_t> content = {});
    VectorStream(const VectorStream&) = delete;
    VectorStream& operator=(const VectorStream&) = delete;

    SFILE* file() { return &record_.file; }
    void rewind() { record_.file.pos = 0; }

    std::vector<uint8_t> bytes;
    size_t capacity = SIZE_MAX; // a write that would pass it takes what fits and reports a full disk

private:
    // The record comes first, so that an operation finds its way back from it.
    struct Record {
        SFILE file;
        VectorStream* owner;
    };
    static VectorStream* ownerOf(SFILE* file) { return reinterpret_cast<Record*>(file)->owner; }

    Record record_ = {};
};

#endif
