// What each fuzz target is made of.
#ifndef KAL_FUZZ_FUZZ_TARGET_H
#define KAL_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// The target: any bytes, and a crash where something is wrong with what the library makes of them.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A number in an input that says how the rest is read. With mutate.cpp such numbers are set to each other's values, to
// ends of ranges and to what lies about the input's size: a check that they pass is not where the fuzzer stops.
struct Field {
    size_t at;
    size_t bytes;
};
std::vector<Field> fieldsOf(const Bytes& input);

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
    Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    bool ended() const { return left_ == 0; }
    uint8_t byte() { return left_ == 0 ? uint8_t{0} : (left_--, *data_++); }
    uint16_t word() {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }
    uint32_t number() {
        const uint32_t low = word();
        return low | uint32_t{word()} << 16;
    }
    Bytes bytes(size_t count) {
        count = count < left_ ? count : left_;
        const Bytes taken(data_, data_ + count);
        data_ += count;
        left_ -= count;
        return taken;
    }
    Bytes rest() { return bytes(left_); }
    // Up to `most` bytes without zeros.
    std::string text(size_t most) {
        std::string taken;
        while (taken.size() < most && !ended() && *data_ != 0)
            taken += static_cast<char>(byte());
        byte();
        return taken;
    }

private:
    const uint8_t* data_;
    size_t left_;
};

#endif
