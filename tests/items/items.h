// What tests of item files share: the file "f", its items as texts, and a reader of item files that shares no line
// with the library's.
#ifndef KAL_TESTS_ITEMS_ITEMS_H
#define KAL_TESTS_ITEMS_ITEMS_H

#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/item.h>

#include <map>

inline constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

inline IFILE* openItems(uint16_t mode, uint16_t format) {
    IFILE* file = nullptr;
    EXPECT_EQ(KalOpenIFile(&file, "f", mode, format), 0);
    return file;
}

inline std::string item(IFILE* file, uint16_t id) {
    int32_t size = 0;
    char* block = KalGetItem(file, id, &size);
    if (block == nullptr)
        return "none";
    const std::string text(block, size_t(size));
    KalFreeSMem(block);
    return text;
}

inline uint32_t write(IFILE* file, uint16_t id, const std::string& text) {
    return KalWriteIFile(file, text.data(), uint32_t(text.size()), id);
}

struct StoredItems {
    std::map<uint16_t, Bytes> items;
    size_t lowest = SIZE_MAX; // offset of an entry with bytes
};

// Reads an item file; fails where one that the library wrote cannot be: an extent under the index, behind the end, or
// over another.
inline StoredItems itemsIn(const Bytes& file) {
    const auto number = [&](size_t at, int bytes) {
        uint32_t value = 0;
        for (int i = bytes; i-- > 0;)
            value = value << 8 | file.at(at + size_t(i));
        return value;
    };
    const int sizeBytes = number(0, 2) & KAL_ITEMS_WIDE ? 4 : 2;
    const uint32_t count = number(2, 2);
    StoredItems stored;
    std::map<size_t, size_t> extents = {{0, 4 + count * size_t(6 + sizeBytes)}};
    for (size_t i = 0, at = 4; i < count; i++, at += size_t(6 + sizeBytes)) {
        const uint32_t size = number(at + 2, sizeBytes);
        const uint32_t offset = number(at + 2 + size_t(sizeBytes), 4);
        EXPECT_LE(offset + size, file.size()) << "entry " << i;
        if (::testing::Test::HasFailure())
            break;
        if (size > 0) {
            EXPECT_TRUE(extents.emplace(offset, offset + size).second) << "entry " << i;
            stored.lowest = std::min<size_t>(stored.lowest, offset);
        }
        if (number(at, 2) != KAL_ITEM_FREE)
            stored.items.emplace(number(at, 2), Bytes(&file[0] + offset, &file[0] + offset + size));
    }
    size_t end = 0;
    for (const auto& [from, to] : extents) {
        EXPECT_GE(from, end) << "extents overlap";
        end = to;
    }
    return stored;
}

#endif
