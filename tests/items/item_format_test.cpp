// Item files byte for byte: what is written, what is accepted, where items go, what has no room.
#include "tests/items/items.h"
#include "tests/support/faults.h"

#include <cerrno>
#include <cstring>

namespace {

class ItemFormat : public FolderTest {
protected:
    static int16_t tryOpen(uint16_t mode, uint16_t format) {
        HeapBalance balance;
        IFILE* file = nullptr;
        const int16_t status = KalOpenIFile(&file, "f", mode, format);
        EXPECT_EQ(file != nullptr, status == 0);
        EXPECT_EQ(KalCloseIFile(file), 0);
        return status;
    }
};

struct Entry {
    uint16_t id;
    uint32_t size, offset;
};

Bytes itemFile(uint16_t format, const std::vector<Entry>& entries, size_t length = 0) {
    Bytes file;
    const auto append = [&](uint64_t value, int bytes) {
        for (int i = 0; i < bytes; i++)
            file.push_back(uint8_t(value >> 8 * i));
    };
    append(format, 2);
    append(entries.size(), 2);
    for (const auto& entry : entries) {
        append(entry.id, 2);
        append(entry.size, format & KAL_ITEMS_WIDE ? 4 : 2);
        append(entry.offset, 4);
    }
    file.resize(std::max(file.size(), length));
    return file;
}

} // namespace

TEST_F(ItemFormat, NewFilesAndExpectedFormats) {
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), -200 - ENOENT);
    IFILE* file = openItems(kNew, 0x0123);
    KalFlushBuf(file->stream);
    EXPECT_EQ(readFile("f"), itemFile(0x0123, {}, 84)) << "at once";
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0x8123), -650);
    EXPECT_EQ(tryOpen(0, 0x0123), 0);
    writeFile("f", itemFile(0x0001, {}));
    EXPECT_EQ(tryOpen(0, 1), 0);
    EXPECT_EQ(readFile("f").size(), 4u) << "opened without write access, an empty file stays as it is";
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), 0);
    EXPECT_EQ(readFile("f").size(), 84u);
    file = openItems(kNew, 0x8000);
    EXPECT_EQ(file->capacity, 10);
    EXPECT_EQ(write(file, 0x1234, "hello"), 5u);
    EXPECT_EQ(write(file, 7, "x"), 1u);
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(readFile("f"), hexExample("docs/formats/item-file.md"));
    const Bytes before = readFile("f");
    file = openItems(0, 0);
    EXPECT_EQ(file->capacity, 12);
    EXPECT_EQ(write(file, 7, "y") + write(file, 7, "longer") + KalAddIFile(file, "x", 1, 7), 0u);
    EXPECT_EQ(KalReserveItems(file, 20), -251);
    EXPECT_EQ(item(file, 7), "x");
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(readFile("f"), before) << "open for reading, it is never written";
    EXPECT_EQ(KalCloseIFile(nullptr) | KalFreeIFile(nullptr), 0);
}

TEST_F(ItemFormat, ATemporaryFileGoes) {
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenTempIFile(&file), 0);
    EXPECT_EQ(write(file, 1, "a"), 1u);
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_TRUE(filesIn(".").empty());
}

TEST_F(ItemFormat, AFileCutAnywhereInHeaderOrIndexIsRefusedAndLeftAlone) {
    for (uint16_t format : Words{0x0001, 0x8001}) {
        const Bytes whole = itemFile(format, {{1, 3, 200}, {2, 3, 203}, {3, 0, 206}});
        for (size_t length = 0; length < whole.size(); length++) {
            const Bytes cut(whole.begin(), whole.begin() + long(length));
            writeFile("f", cut);
            EXPECT_EQ(tryOpen(length % 2 == 0 ? 0 : KAL_MODE_UPDATE, 0), length == 0  ? -256
                                                                         : length < 4 ? -255
                                                                                      : -252)
                << length;
            EXPECT_EQ(readFile("f"), cut);
        }
    }
}

TEST_F(ItemFormat, NoFileIsReadOrWrittenWithMoreEntriesThanOpenAgain) {
    const struct {
        uint16_t format;
        uint16_t count;
        int16_t status;
    } cases[] =
        {
            {1, 4085, 0},          {1, 4086, -105},     {0x8001, 3266, 0},
            {0x8001, 3267, -105},  {1, 65525, -105},    {1, 65535, -105},
            {0x8001, 65535, -105}, {0x8001, 6554, -105}}; // 6,554 entries of 10 bytes wrap to little in 16 bits
    for (const auto& each : cases) {
        writeFile("f", itemFile(each.format, std::vector<Entry>(each.count, Entry{0xFFFF, 0, 100000})));
        EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), each.status) << each.count;
        IFILE* file = openItems(kNew, each.format);
        EXPECT_EQ(KalReserveItems(file, each.count), each.status) << each.count;
        if (each.status == 0) {
            for (uint16_t id = 0; id < each.count; id++)
                ASSERT_EQ(write(file, id, "x"), 1u) << id;
            EXPECT_EQ(write(file, 65000, "x"), 0u) << "one more";
            EXPECT_EQ(KalAppendItemIndex(file), nullptr);
            EXPECT_EQ(write(file, 7, ""), 0u);
        }
        EXPECT_EQ(KalCloseIFile(file), 0);
        EXPECT_EQ(tryOpen(0, 0), 0);
    }
}

TEST_F(ItemFormat, HostileEntriesGiveNoMoreBytesAndTakeNoMoreMemoryThanThereAre) {
    const std::vector<Entry> entries = {
        {1, 0xFFFFFFFF, 0}, {2, 10, 0xFFFFFFFF}, {3, 0x7FFFFFFF, 0x7FFFFFFF}, {4, 100, 90},
        {5, 0x80000000, 4}, {6, 5, 0xFFFFFFF0},  {7, 9, 0x60000000},          {0xFFFF, 50, 0x60000000}};
    const Bytes hostile = itemFile(0x8000, entries, 120);
    for (uint16_t mode : Words{0, kNew | KAL_MODE_MEMORY}) {
        writeFile("f", hostile);
        SFILE* stream = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", mode, 0), 0);
        if (mode != 0)
            stream->write(stream, hostile.data(), uint32_t(hostile.size()));
        stream->mode = uint16_t(mode & ~KAL_MODE_CREATE);
        IFILE* file = nullptr;
        ASSERT_EQ(KalMakeIFile(&file, stream, 0), 0);
        Bytes room(300);
        for (const auto& entry : entries) {
            int32_t size = 0;
            EXPECT_EQ(KalGetItem(file, entry.id, &size), nullptr) << entry.id;
            EXPECT_LE(KalReadIFile(file, room.data(), 300, entry.id), 120u);
            EXPECT_LE(KalIncReadIFile(file, room.data(), 300, entry.id), 120u);
        }
        if (mode != 0) { // a stream in memory is as long as its farthest seek
            EXPECT_EQ(KalAddIFile(file, "x", 1, 7), 0u);
            EXPECT_EQ(write(file, 50, "forty-nine"), 10u);
            EXPECT_LT(stream->pos, 4096u);
            stream->seek(stream, 0, KAL_SEEK_END);
            EXPECT_LT(stream->pos, 4096u);
        }
        KalFreeIFile(file);
        stream->close(stream);
    }
    writeFile("f", itemFile(0x8000, {{1, 8, 0xFFFFFFF0}}, 120)); // 4 GiB on lie the bytes before the base
    SFILE* stream = nullptr;
    ASSERT_EQ(KalOpenFile(&stream, "f", 0, 0), 0);
    KalSetOffset(stream, 0);
    IFILE* file = nullptr;
    ASSERT_EQ(KalMakeIFile(&file, stream, 0), 0);
    KalSetOffset(stream, 40);
    EXPECT_EQ(item(file, 1), "none");
    KalFreeIFile(file);
    stream->close(stream);
}

TEST_F(ItemFormat, RewritesTakeTheSmallestFreeExtentAndAdditionsGrowInPlace) {
    IFILE* file = openItems(kNew, 0);
    const auto offset = [&](uint16_t id) { return KalFindItem(file, id)->narrow.offset; };
    const std::vector<std::pair<uint16_t, size_t>> items = {{1, 100}, {2, 50}, {3, 50}, {4, 80}};
    for (auto [id, length] : items)
        write(file, id, std::string(length, 'x'));
    EXPECT_EQ(offset(1), 84u) << "behind the room for ten entries";
    write(file, 1, std::string(90, 'y'));
    EXPECT_EQ(offset(1), 84u) << "no longer than before: its own place";
    const uint32_t second = offset(2), third = offset(3);
    write(file, 2, std::string(300, 'y')); // to the end; its 50 bytes are free now
    write(file, 3, std::string(400, 'y'));
    EXPECT_EQ(offset(2), 84u + 280);
    EXPECT_EQ(file->count, 6);
    EXPECT_EQ(file->capacity, 10);
    write(file, 5, std::string(50, 'z'));
    EXPECT_EQ(offset(5), second) << "two free extents of equal size: the earlier in the index";
    write(file, 6, std::string(40, 'z'));
    EXPECT_EQ(offset(6), third);
    EXPECT_EQ(file->count, 6) << "free entries keep their place and are taken again";
    EXPECT_EQ(write(file, KAL_ITEM_FREE, "x"), 0u) << "not a usable id";
    EXPECT_EQ(KalAddIFile(file, "x", 1, 5), 0u) << "another item stands behind it";
    const Bytes filler(65135, 'f');
    EXPECT_EQ(KalAddIFile(file, filler.data(), 65136, 3), 0u) << "a narrow size holds 65,535";
    EXPECT_EQ(KalGetItemSize(file, 3), 400);
    EXPECT_EQ(KalAddIFile(file, filler.data(), 65135, 3), 65135u);
    EXPECT_EQ(KalGetItemSize(file, 3), 65535);
    EXPECT_EQ(write(file, 9, std::string(65536 + 3, 'n')), 3u) << "the low 16 bits of a length";
    EXPECT_EQ(KalCloseIFile(file), 0);
}

TEST_F(ItemFormat, TheGrowingIndexMovesWhatStandsInItsWayAndSharersTogether) {
    Bytes bytes = itemFile(0, {{1, 0, 50}, {3, 9, 50}, {2, 5, 50}, {4, 3, 60}, {5, 0, 48}}, 200);
    std::memcpy(bytes.data() + 50, "123456789", 9);
    std::memcpy(bytes.data() + 60, "abc", 3);
    writeFile("f", bytes);
    IFILE* file = openItems(KAL_MODE_UPDATE, 0);
    for (uint16_t id = 10; id < 20; id++)
        EXPECT_EQ(write(file, id, ""), 0u); // entries without bytes: nothing to move for them
    EXPECT_EQ(KalFlushIFile(file), 0);
    for (uint16_t id : Words{1, 2, 3})
        EXPECT_EQ(KalFindItem(file, id)->narrow.offset, 200u) << "all follow the longest";
    EXPECT_EQ(KalFindItem(file, 4)->narrow.offset, 209u) << "the lowest first";
    EXPECT_EQ(KalFindItem(file, 5)->narrow.offset, 212u) << "behind all bytes";
    for (uint16_t id = 10; id < 20; id++)
        EXPECT_GE(KalFindItem(file, id)->narrow.offset, 4u + 15 * 8) << "never under the index";
    EXPECT_EQ(KalAddIFile(file, "z", 1, 12), 0u)
        << "the longest went where this empty one points: no growing";
    EXPECT_EQ(KalCloseIFile(file), 0);
    file = openItems(0, 0);
    EXPECT_EQ(item(file, 3), "123456789");
    EXPECT_EQ(item(file, 4), "abc");
    EXPECT_EQ(KalGetItemSize(file, 19), 0);
    KalCloseIFile(file);
}

// A flush moves no item above 65,535 bytes. The close says so, and the file is as before; reserved room avoids it.
TEST_F(ItemFormat, LargeItemsNeedRoomMadeBefore) {
    const std::string large(200000, 'L');
    for (bool reserved : {false, true}) {
        IFILE* file = openItems(kNew, KAL_ITEMS_WIDE);
        EXPECT_EQ(KalReserveItems(file, reserved ? 40 : 0), 0);
        write(file, 0, large);
        EXPECT_EQ(KalFlushIFile(file), 0);
        for (uint16_t id = 1; id <= 39; id++)
            write(file, id, "x");
        EXPECT_EQ(KalCloseIFile(file), reserved ? 0 : -100);
        EXPECT_EQ(itemsIn(readFile("f")).items.size(), reserved ? 40u : 1u);
        file = openItems(KAL_MODE_UPDATE, 0);
        EXPECT_EQ(item(file, 0), large);
        EXPECT_EQ(KalReserveItems(file, 3266), 0) << "also when they stand there already";
        EXPECT_EQ(item(file, 0), large);
        EXPECT_EQ(KalCloseIFile(file), 0);
        EXPECT_GE(itemsIn(readFile("f")).lowest, 4u + 32660);
    }
    // Room that was never written to reads as free entries.
    const Bytes bytes = readFile("f");
    EXPECT_EQ(Bytes(bytes.begin() + 32000, bytes.begin() + 32010), Bytes(10, 'L'))
        << "the old item's bytes stay";
    IFILE* file = openItems(kNew, 0);
    EXPECT_EQ(KalReserveItems(file, 20), 0);
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(readFile("f").back(), 0xFF);
    EXPECT_EQ(readFile("f").size(), 4u + 160);
}

TEST_F(ItemFormat, AFullDiskLeavesTheOldItemsAndTheCloseSaysSo) {
    HeapBalance balance;
    IFILE* file = openItems(kNew, 0);
    KalFlushBuf(file->stream);
    KalSetBuf(file->stream, 0);
    for (uint16_t id = 0; id < 10; id++)
        write(file, id, std::string(20, char('a' + id)));
    EXPECT_EQ(KalFlushIFile(file), 0);
    {
        FileSizeLimit limit(4 + 80 + 200 + 8);
        EXPECT_EQ(write(file, 1, std::string(30, 'B')), 8u);
        EXPECT_EQ(val(file->stream->status), -254);
        EXPECT_EQ(write(file, 11, "blocked"), 0u);
        EXPECT_EQ(KalFlushIFile(file), 0) << "the index has its place";
    }
    EXPECT_EQ(write(file, 10, "k"), 1u);
    {
        FileSizeLimit limit(readFile("f").size() + 10);
        EXPECT_EQ(KalFlushIFile(file), -254) << "and none where it grows to";
        for (uint16_t id = 0; id < 10; id++)
            EXPECT_EQ(item(file, id), std::string(20, char('a' + id)));
        EXPECT_EQ(item(file, 11), "none");
        EXPECT_EQ(KalFlushIFile(file), -254);
    }
    EXPECT_EQ(KalFlushIFile(file), 0) << "with room again the index goes in";
    EXPECT_EQ(write(file, 1, std::string(30, 'B')), 30u);
    KalSetBuf(file->stream, 512);
    EXPECT_EQ(write(file, 12, "lost"), 4u);
    FileSizeLimit limit(100);
    EXPECT_EQ(KalCloseIFile(file), -254);
    limit.lift();
    EXPECT_EQ(itemsIn(readFile("f")).items.size(), 11u);
}
