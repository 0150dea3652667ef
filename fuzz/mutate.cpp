// Mutations of the numbers that an input is read by; the rest is libFuzzer's own.
#include "fuzz/fuzz_target.h"

#include <algorithm>
#include <cstring>
#include <random>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);

// Leaks are found by counting blocks; the search for them would not follow pointers in packed records.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options() {
    return "detect_leaks=0:malloc_context_size=3:quarantine_size_mb=16:use_sigaltstack=0";
}

__attribute__((weak)) std::vector<Field> fieldsOf(const Bytes&) {
    return {};
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed) {
    std::minstd_rand random(seed);
    const std::vector<Field> fields = fieldsOf(Bytes(data, data + size));
    if (fields.empty() || random() % 3 == 0)
        return LLVMFuzzerMutate(data, size, most);
    constexpr uint64_t ends[] = {0, 1, 0x7FFF, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFF, UINT64_MAX, 0xFFF0};
    for (unsigned changes = 1 + random() % 4; changes > 0; changes--) {
        const Field from = fields[random() % fields.size()], to = fields[random() % fields.size()];
        uint64_t value = 0;
        std::memcpy(&value, data + from.at, from.bytes);
        const unsigned kind = random() % 5;
        value = kind == 0   ? ends[random() % std::size(ends)]
                : kind == 1 ? random() % size
                : kind == 2 ? size
                            : value;
        value += random() % 3 == 0 ? random() % 9 - 4 : 0;
        std::memcpy(data + to.at, &value, to.bytes);
    }
    return size;
}
