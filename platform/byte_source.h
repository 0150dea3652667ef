// Bytes that a walk through a stored file reads, wherever they are.
#ifndef KAL_PLATFORM_BYTE_SOURCE_H
#define KAL_PLATFORM_BYTE_SOURCE_H

#include <cstddef>
#include <cstdint>

class ByteSource {
public:
    explicit ByteSource(uint64_t byteCount) : byteCount_(byteCount) {}

    uint64_t byteCount() const { return byteCount_; }
    // Reads all of `count` bytes, which are there. False, and status() says why, when they cannot be had.
    virtual bool read(uint64_t offset, void* destination, uint32_t count) = 0;
    int16_t status() const { return status_; }

protected:
    ~ByteSource() = default;
    int16_t status_ = 0;

private:
    uint64_t byteCount_;
};

#endif
