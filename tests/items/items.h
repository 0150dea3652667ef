// What tests of item files share: the file "f", and its items as texts.
#ifndef KAL_TESTS_ITEMS_ITEMS_H
#define KAL_TESTS_ITEMS_ITEMS_H

#include <kal/heap.h>
#include <kal/item.h>

#include <gtest/gtest.h>

#include <string>

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

#endif
