// Item files byte for byte: what is written, what is accepted, how the index makes its room.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <cerrno>
#include <cstring>

namespace {

class ItemFormat : public FolderTest {
protected:
    static int16_t tryOpen(uint16_t mode, uint16_t format) {
        HeapBalance balance;
        IFILE* file = reinterpret_cast<IFILE*>(1);
        const int16_t status = KalOpenIFile(&file, "f", mode, format);
        EXPECT_EQ(file != nullptr, status == 0);
        if (file != nullptr)
            KalCloseIFile(file);
        return status;
    }
};

struct Entry {
    uint16_t id;
    uint32_t size, offset;
};

void append(Bytes& to, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; i++)
        to.push_back(uint8_t(value >> 8 * i));
}

Bytes itemFile(uint16_t format, const std::vector<Entry>& entries, size_t length = 0) {
    Bytes file;
    append(file, format, 2);
    append(file, entries.size(), 2);
    for (const auto& entry : entries) {
        append(file, entry.id, 2);
        append(file, entry.size, format & KAL_ITEMS_WIDE ? 4 : 2);
        append(file, entry.offset, 4);
    }
    file.resize(std::max(file.size(), length));
    return file;
}

} // namespace

TEST_F(ItemFormat, ANewFileIsHeaderRoomAndData) {
    EXPECT_EQ(tryOpen(kNew, 0x0123), 0);
    EXPECT_EQ(readFile("f"), itemFile(0x0123, {}, 84));
    EXPECT_EQ(tryOpen(kNew, 0xC000), 0);
    EXPECT_EQ(readFile("f"), itemFile(0xC000, {}, 104));

    IFILE* file = openItems(kNew, 0x8000);
    EXPECT_EQ(KalWriteIFile(file, "hello", 5, 0x1234), 5u);
    EXPECT_EQ(KalWriteIFile(file, "x", 1, 7), 1u);
    EXPECT_EQ(KalCloseIFile(file), 0);
    Bytes expected = itemFile(0x8000, {{0x1234, 5, 104}, {7, 1, 109}}, 104);
    for (char c : std::string("hellox"))
        expected.push_back(uint8_t(c));
    EXPECT_EQ(readFile("f"), expected);
    EXPECT_EQ(readFile("f"), hexExample("docs/formats/item-file.md"));
}

TEST_F(ItemFormat, ExpectedFormatsAreCompared) {
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), -200 - ENOENT);
    writeFile("f", itemFile(0x8001, {}, 104));
    const Bytes before = readFile("f");
    EXPECT_EQ(tryOpen(0, 0), 0);
    EXPECT_EQ(tryOpen(0, 0x8001), 0);
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0x8000), -650);
    EXPECT_EQ(readFile("f"), before);
    EXPECT_EQ(tryOpen(0, 1), -650);
    writeFile("f", itemFile(0x0001, {}, 4));
    EXPECT_EQ(tryOpen(0, 1), 0);
    EXPECT_EQ(readFile("f").size(), 4u) << "opened without write access, an empty file stays as it is";
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 1), 0);
    EXPECT_EQ(readFile("f").size(), 84u);
}

TEST_F(ItemFormat, AFileCutAnywhereInHeaderOrIndexIsRefusedAndLeftAlone) {
    for (uint16_t format : {uint16_t(0x0001), uint16_t(0x8001)}) {
        const Bytes whole = itemFile(format, {{1, 3, 200}, {2, 3, 203}, {3, 0, 206}});
        for (size_t length = 0; length < whole.size(); length++) {
            const Bytes cut(whole.begin(), whole.begin() + long(length));
            writeFile("f", cut);
            for (uint16_t mode : {uint16_t(0), uint16_t(KAL_MODE_UPDATE)})
                EXPECT_EQ(tryOpen(mode, 0), length == 0 ? -256 : length < 4 ? -255 : -252) << length;
            EXPECT_EQ(readFile("f"), cut);
        }
        writeFile("f", whole);
        EXPECT_EQ(tryOpen(0, 0), 0);
    }
}

TEST_F(ItemFormat, CountsAreBoundedBeforeMemoryIsAskedFor) {
    const struct {
        uint16_t format;
        size_t count;
        int16_t status;
    } cases[] = {{1, 4085, 0},        {1, 4086, -105},  {0x8001, 3266, 0}, {0x8001, 3267, -105},
                 {1, 65525, -105},    {1, 65526, -105}, {1, 65535, -105},  {0x8001, 65535, -105},
                 {0x8001, 6554, -105}}; // 6,554 entries of 10 bytes wrap to little in 16 bits
    for (const auto& each : cases) {
        writeFile("f", itemFile(each.format, std::vector<Entry>(each.count, Entry{0xFFFF, 0, 100000})));
        EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), each.status) << each.count;
    }
}

TEST_F(ItemFormat, HostileEntriesReadNothingThatIsNotThere) {
    const std::vector<Entry> entries = {{1, 0xFFFFFFFF, 0}, {2, 10, 0xFFFFFFFF}, {3, 0x7FFFFFFF, 0x7FFFFFFF},
                                        {4, 100, 90},       {5, 0x80000000, 4},  {6, 5, 0xFFFFFFF0}};
    writeFile("f", itemFile(0x8000, entries, 120));
    IFILE* file = openItems(0, 0);
    Bytes room(300);
    for (const auto& entry : entries) {
        int32_t size = 0;
        EXPECT_EQ(KalGetItem(file, entry.id, &size), nullptr) << entry.id;
        EXPECT_LE(KalReadIFile(file, room.data(), 300, entry.id), 120u);
        EXPECT_LE(KalIncReadIFile(file, room.data(), 300, entry.id), 120u);
    }
    KalCloseIFile(file);
}

TEST_F(ItemFormat, TheGrowingIndexMovesWhatStandsInItsWay) {
    IFILE* file = openItems(kNew, 0);
    EXPECT_EQ(file->capacity, 10);
    std::vector<Bytes> items;
    for (uint16_t id = 0; id < 11; id++) {
        items.push_back(randomBytes(3, id));
        KalWriteIFile(file, items.back().data(), 3, id);
    }
    EXPECT_EQ(file->capacity, 20);
    EXPECT_EQ(KalFlushIFile(file), 0);
    // Eleven entries end at 92: the items at 84, 87 and 90 go behind the last, in that order.
    for (uint16_t id = 0; id < 11; id++)
        EXPECT_EQ(KalFindItem(file, id)->narrow.offset, id < 3 ? 84u + 33 + 3u * id : 84u + 3u * id);
    EXPECT_EQ(KalCloseIFile(file), 0);
    const Bytes bytes = readFile("f");
    EXPECT_EQ(bytes.size(), 84u + 33 + 9);
    EXPECT_EQ(bytes[2], 11);
    file = openItems(0, 0);
    EXPECT_EQ(file->capacity, 21);
    for (uint16_t id = 0; id < 11; id++) {
        Bytes back(3);
        EXPECT_EQ(KalReadIFile(file, back.data(), 3, id), 3u);
        EXPECT_EQ(back, items[id]);
    }
    KalCloseIFile(file);
}

TEST_F(ItemFormat, EntriesThatShareAnOffsetMoveTogetherByTheLongest) {
    std::vector<Entry> entries = {{1, 0, 40}, {2, 5, 40}, {3, 9, 40}};
    Bytes bytes = itemFile(0, entries, 200);
    std::memcpy(bytes.data() + 40, "123456789", 9);
    writeFile("f", bytes);
    IFILE* file = openItems(KAL_MODE_UPDATE, 0);
    for (uint16_t id = 10; id < 20; id++)
        KalWriteIFile(file, "", 0, id); // eleven and more entries without bytes: nothing to move for them
    EXPECT_EQ(KalFlushIFile(file), 0);
    for (uint16_t id : {uint16_t(1), uint16_t(2), uint16_t(3)})
        EXPECT_EQ(KalFindItem(file, id)->narrow.offset, 200u) << "all follow the longest";
    for (uint16_t id = 10; id < 20; id++)
        EXPECT_GE(KalFindItem(file, id)->narrow.offset, 4u + 13 * 8) << "never under the index";
    EXPECT_EQ(KalAddIFile(file, "z", 1, 12), 0u)
        << "the longest went where this empty one points: no growing";
    EXPECT_EQ(KalCloseIFile(file), 0);
    file = openItems(0, 0);
    char text[10] = "";
    EXPECT_EQ(KalReadIFile(file, text, 9, 3), 9u);
    EXPECT_STREQ(text, "123456789");
    KalCloseIFile(file);
}

TEST_F(ItemFormat, ElevenEmptyItemsEndTheFlush) {
    IFILE* file = openItems(kNew, 0x8000);
    for (uint16_t id = 0; id < 11; id++)
        ASSERT_EQ(KalWriteIFile(file, nullptr, 0, id), 0u);
    EXPECT_EQ(file->count, 11) << "an item of no bytes is an item";
    EXPECT_EQ(KalFlushIFile(file), 0);
    EXPECT_EQ(KalGetItemSize(file, 10), 0);
    EXPECT_EQ(KalReadIFile(file, nullptr, 0, 10), 0u);
    KalCloseIFile(file);
}
