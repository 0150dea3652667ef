// Ids that are not there, extents out of reach, and files whose bytes cannot be had.
#include "tests/items/items.h"
#include "tests/support/trouble.h"

namespace {

void setOffset(IFILE* file, uint16_t id, uint32_t offset) {
    std::memcpy(reinterpret_cast<char*>(KalFindItem(file, id)) + 6, &offset, 4);
}

using Refused = FolderTest;

} // namespace

TEST_F(Refused, UnknownIdsAndExtentsOutOfReachGiveNothing) {
    char bytes[9] = {};
    for (const uint16_t mode : {uint16_t{0}, KAL_MODE_MEMORY}) {
        IFILE* file = openItems(kNew | mode, KAL_ITEMS_WIDE);
        EXPECT_EQ(write(file, 1, "one") + write(file, 2, "two"), 6u);
        EXPECT_EQ(KalReadIFile(file, bytes, 9, 7) + KalIncReadIFile(file, bytes, 9, 7), 0u);
        setOffset(file, 1, UINT32_MAX - 8);
        EXPECT_EQ(KalAddIFile(file, bytes, 9, 1), 0u) << "an end past all positions";
        setOffset(file, 1, 5000);
        EXPECT_EQ(KalAddIFile(file, bytes, 9, 1), mode == 0 ? 9u : 0u) << "memory has no holes";
        const uint16_t free = KAL_ITEM_FREE;
        std::memcpy(KalFindItem(file, 2), &free, 2);
        EXPECT_EQ(KalAddIFile(file, bytes, 9, free), 0u);
        EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    }
}

// Larger than any buffer, so that each read and seek asks the host.
TEST_F(Refused, WhatTheHostDoesNotGiveIsTold) {
    IFILE* file = openItems(kNew, KAL_ITEMS_WIDE);
    EXPECT_EQ(KalReserveItems(file, 1000), KAL_OK);
    for (uint16_t id = 1; id < 1000; id++)
        EXPECT_EQ(write(file, id, std::string(id == 1 ? 70'000 : 1, 'x')), id == 1 ? 70'000u : 1u);
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    const auto read = [] {
        IFILE* items = nullptr;
        if (const int16_t status = KalOpenIFile(&items, "f", 0, 0); status != KAL_OK)
            return int(status);
        const size_t got = item(items, 1).size() + item(items, 500).size();
        KalCloseIFile(items);
        SFILE* stream = nullptr;
        if (const int16_t status = KalOpenFile(&stream, "f", 0, 0); status != KAL_OK)
            return int(status);
        struct : FaultSink {
            void Fault(uint64_t, uint32_t, const char*) override {}
        } sink;
        const int32_t faults = KalVerifyIFile(stream, sink) != 0 ? KAL_ERR_READ : KAL_OK;
        stream->close(stream);
        return got == 70'001 ? faults : KAL_ERR_READ;
    };
    walkTrouble({.run = read, .statuses = {KAL_ERR_READ, KAL_ERR_SERVICE, KAL_ERR_OPEN - EIO, KAL_ERR_SEEK}},
                kHostFails);
}
