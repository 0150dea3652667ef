// What tests of item files share: the file "f", its items as texts, and a reader of item files that shares no line
// with the library's.
#ifndef KAL_TESTS_ITEMS_ITEMS_H
#define KAL_TESTS_ITEMS_ITEMS_H

#include "tests/support/told.h"

inline constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;

inline IFILE* openItems(uint16_t mode, uint16_t format) {
    IFILE* file = nullptr;
    EXPECT_EQ(KalOpenIFile(&file, "f", mode, format), KAL_OK);
    return file;
}

inline std::string item(IFILE* file, uint16_t id) {
    int32_t size = 0;
    char* block = KalGetItem(file, id, &size);
    const std::string text = block != nullptr ? std::string(block, size_t(size)) : "none";
    KalFreeSMem(block);
    return text;
}

inline uint32_t write(IFILE* file, uint16_t id, const std::string& text) {
    return KalWriteIFile(file, text.data(), uint32_t(text.size()), id);
}

// Reads an item file; fails where one that the library wrote cannot be: an extent under the index, behind the end, or
// over another. `lowest` gets where the first one starts.
inline std::map<uint16_t, Bytes> itemsIn(const Bytes& file, size_t* lowest = nullptr) {
    const size_t count = file.at(2) + 256u * file.at(3), entryBytes = file[1] & 0x80 ? 10 : 8;
    std::map<uint16_t, Bytes> items;
    std::map<size_t, size_t> extents = {{file.size(), file.size()}};
    for (size_t at = 4; at < 4 + count * entryBytes; at += entryBytes) {
        uint32_t id = 0, size = 0, offset = 0;
        std::memcpy(&id, &file.at(at), 2);
        std::memcpy(&size, &file.at(at + 2), entryBytes - 6);
        std::memcpy(&offset, &file.at(at + entryBytes - 4), 4);
        EXPECT_TRUE(size == 0 || extents.emplace(offset, offset + size).second) << "two at " << offset;
        if (id != KAL_ITEM_FREE && offset + size_t(size) <= file.size())
            items.emplace(id, Bytes(&file[0] + offset, &file[0] + offset + size));
    }
    size_t end = 4 + count * entryBytes;
    for (const auto& [from, to] : extents) {
        EXPECT_GE(from, end) << "extents overlap";
        end = to;
    }
    if (lowest != nullptr)
        *lowest = extents.begin()->first;
    return items;
}

#endif
