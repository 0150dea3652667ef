// Mutations of the numbers that an input is read by; the rest is libFuzzer's own.
#include "fuzz/fuzz_target.h"

#include <random>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);

__attribute__((weak)) Layout layoutOf(const Bytes&) {
    return {};
}

static std::vector<Field> fieldsOf(const Bytes& input) {
    const Layout layout = layoutOf(input);
    std::vector<Field> fields;
    const auto add = [&](uint64_t start, const std::vector<Field>& some) {
        for (const auto [at, bytes] : some)
            if (start + at + bytes <= input.size())
                fields.push_back({static_cast<size_t>(start + at), bytes});
    };
    add(0, layout.fields);
    uint64_t at = layout.records;
    for (size_t record = 0; at < input.size() && record < layout.most; record++) {
        add(at, layout.ofRecord);
        const uint64_t length = numberAt(input, at + layout.length.at, layout.length.bytes);
        at += std::max<uint64_t>(layout.least, length + layout.more);
    }
    return fields;
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
