// A coder of runs that shares no line with the library's: slow, and simple enough to be seen to be right.
#ifndef KAL_TESTS_COMPRESS_RUNS_H
#define KAL_TESTS_COMPRESS_RUNS_H

#include "tests/support/faults.h"
#include "tests/support/vector_stream.h"

#include <bit>

// Of few letters, so that strings come again.
inline Bytes randomLetters(size_t count, uint32_t seed, int letters) {
    Bytes bytes = randomBytes(count, seed);
    for (uint8_t& byte : bytes)
        byte = uint8_t('a' + byte % letters);
    return bytes;
}

struct SimpleRun {
    Bytes bytes;
    // By code: the bit behind it, and the data bytes in it and all before it.
    std::vector<std::pair<size_t, size_t>> codes;
    size_t bits = 0;

    void put(uint32_t code, int width, size_t data) {
        for (int i = 0; i < width; i++, bits++) {
            if (bits % 8 == 0)
                bytes.push_back(0);
            bytes.back() = uint8_t(bytes.back() | (code >> i & 1) << bits % 8);
        }
        codes.emplace_back(bits, data);
    }
};

// The run of `data`. The library clears its table when code 4,093 was assigned; others may at any time, or never, when
// the table stays as it is once it is full.
inline SimpleRun runOf(const Bytes& data, uint32_t lastCode = 4093, uint32_t roots = 256) {
    SimpleRun run;
    std::map<std::pair<uint32_t, uint8_t>, uint32_t> strings;
    uint32_t next = roots + 2;
    int width = std::bit_width(next - 1);
    run.put(roots, width, 0);
    int64_t current = -1;
    for (size_t at = 0; at < data.size(); at++) {
        const auto found = strings.find({uint32_t(current), data[at]});
        if (current < 0 || found != strings.end()) {
            current = current < 0 ? data[at] : found->second;
            continue;
        }
        run.put(uint32_t(current), width, at);
        if (next < 4096) {
            strings[{uint32_t(current), data[at]}] = next;
            width += next == 1u << width;
            next++;
        }
        current = data[at];
        if (next > lastCode) {
            run.put(data[at], width, at);
            run.put(roots, width, at);
            strings.clear();
            next = roots + 2;
            width = std::bit_width(next - 1);
            current = -1;
        }
    }
    run.put(current < 0 ? roots : uint32_t(current), width, data.size());
    run.put(roots + 1, width, data.size());
    return run;
}

#endif
