// What each fuzz target is made of.
#ifndef KAL_FUZZ_FUZZ_TARGET_H
#define KAL_FUZZ_FUZZ_TARGET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// The little-endian number of `bytes` bytes; 0 where the input does not hold it.
inline uint64_t numberAt(const Bytes& input, uint64_t at, size_t bytes) {
    uint64_t number = 0;
    if (at < input.size() && bytes <= input.size() - at)
        std::memcpy(&number, &input[static_cast<size_t>(at)], bytes);
    return number;
}

// A number in an input that says how the rest is read. With mutate.cpp such numbers are set to each other's values, to
// ends of ranges and to what lies about the input's size: a check that they pass is not where the fuzzer stops.
struct Field {
    size_t at;
    size_t bytes;
};

// Where an input's numbers stand: some by themselves, the others in records one behind another. A record is as long as
// its `length` says and `more`, or `least` where that is more. What lies outside of the input counts for nothing.
struct Layout {
    std::vector<Field> fields = {};
    size_t records = SIZE_MAX; // where the first one is
    std::vector<Field> ofRecord = {};
    size_t least = 1;
    Field length = {};
    size_t more = 0;
    size_t most = SIZE_MAX; // records
};
Layout layoutOf(const Bytes& input);

// Ends the run when a promise was broken.
inline void require(bool held, const char* promise) {
    if (held)
        return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

// Takes an input apart from its start; where it has ended, all is 0.
class Input {
public:
    explicit Input(std::span<const uint8_t> bytes) : left_(bytes) {}
    bool ended() const { return left_.empty(); }
    Bytes bytes(size_t count) {
        const auto taken = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }
    Bytes rest() { return bytes(left_.size()); }
    uint8_t byte() { return static_cast<uint8_t>(number(1)); }
    uint16_t word() { return static_cast<uint16_t>(number(2)); }
    uint32_t number(size_t size = 4) {
        Bytes taken = bytes(size);
        taken.resize(size);
        return static_cast<uint32_t>(numberAt(taken, 0, size));
    }
    // Up to the next zero.
    std::string text() {
        const Bytes taken =
            bytes(static_cast<size_t>(std::find(left_.begin(), left_.end(), 0) - left_.begin()));
        byte();
        return {taken.begin(), taken.end()};
    }

private:
    std::span<const uint8_t> left_;
};

// The target: any bytes, and a crash where something is wrong with what the library makes of them. It finds a host in
// memory without a file.
void fuzz(Input input);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif
