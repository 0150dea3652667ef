// Item files byte for byte: what is written, what is accepted, where items go, what has no room.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/vector_stream.h"

namespace {

class ItemFormat : public FolderTest {
protected:
    static int tryOpen(uint16_t mode, uint16_t format) {
        IFILE* file = nullptr;
        const int status = KalOpenIFile(&file, "f", mode, format);
        EXPECT_EQ(file != nullptr, status == KAL_OK);
        EXPECT_EQ(KalCloseIFile(file), KAL_OK);
        return status;
    }
};

struct Entry {
    uint16_t id;
    uint32_t size, offset;
};

constexpr uint16_t kFree = KAL_ITEM_FREE;

// A file with these entries, cut or made to be `length` bytes long.
Bytes itemFile(uint16_t format, const std::vector<Entry>& entries, size_t length) {
    Bytes file;
    const auto append = [&](const auto& record) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
        file.insert(file.end(), bytes, bytes + sizeof record);
    };
    append(format);
    append(uint16_t(entries.size()));
    for (const auto& [id, size, offset] : entries)
        format& KAL_ITEMS_WIDE ? append(ItemIndexWide{id, size, offset})
                               : append(ItemIndexNarrow{id, uint16_t(size), offset});
    file.resize(length);
    return file;
}

uint32_t offsetOf(IFILE* file, uint16_t id) {
    const ItemIndex* entry = KalFindItem(file, id);
    return entry != nullptr ? entry->narrow.offset : 0;
}

} // namespace

TEST_F(ItemFormat, NewFilesAndExpectedFormats) {
    EXPECT_EQ(tryOpen(KAL_MODE_UPDATE, 0), KAL_ERR_OPEN - ENOENT);
    for (const auto& [mode, size] : {std::pair<uint16_t, size_t>{0, 4}, {KAL_MODE_UPDATE, 84}}) {
        writeFile("f", itemFile(0x0123, {}, 4));
        EXPECT_EQ(tryOpen(mode, 0x8123), KAL_ERR_FORMAT);
        EXPECT_EQ(tryOpen(mode, 0x0123), KAL_OK);
        EXPECT_EQ(readFile("f"), itemFile(0x0123, {}, size)) << "with room for ten entries";
    }
    IFILE* file = openItems(kNew, 0x0123);
    KalFlushBuf(file->stream);
    EXPECT_EQ(readFile("f"), itemFile(0x0123, {}, 84)) << "at once";
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    file = openItems(kNew, KAL_ITEMS_WIDE);
    EXPECT_EQ(write(file, 0x1234, "hello") + write(file, 7, "x"), 6u);
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    const Bytes before = readFile("f");
    EXPECT_EQ(before, hexExample("docs/formats/item-file.md"));
    file = openItems(0, 0);
    EXPECT_EQ(file->capacity, 12);
    EXPECT_EQ(write(file, 7, "y") + write(file, 7, "longer") + KalAddIFile(file, "x", 1, 7), 0u);
    EXPECT_EQ(KalReserveItems(file, 20), KAL_ERR_WRITE);
    EXPECT_EQ(item(file, 7), "x");
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    EXPECT_EQ(readFile("f"), before) << "open for reading, it is never written";
    ASSERT_EQ(KalOpenTempIFile(&file), KAL_OK);
    EXPECT_EQ(KalCloseIFile(file) | KalCloseIFile(nullptr) | KalFreeIFile(nullptr), KAL_OK);
    EXPECT_EQ(filesIn("."), std::vector<std::string>{"f"}) << "a temporary file goes";
}

TEST_F(ItemFormat, DamageIsToldAndWhatCannotBeReadIsRefusedAndLeftAlone) {
    const std::vector<Entry> whole = {{1, 5, 95}, {2, 0, 92}, {3, 5, 90},
                                      {4, 0, 3},  {5, 1, 52}, {kFree, 99, 0}};
    const std::vector<Entry> bad = {{1, 1, 83}, {2, 4, 97}, {3, 9, 88}, {4, 2, 90}, {5, 2, 93},
                                    {6, 1, 85}, {7, 1, 85}, {6, 0, 0},  {9, 0, 0},  {6, 0, 0}};
    const auto freeEntries = [](size_t count) { return std::vector<Entry>(count, {kFree, 50, 4}); };
    // Format, entries (of 6,554, 10 bytes each wrap in 16 bits), length; the status of opening, and what the walk tells.
    const std::tuple<uint16_t, std::vector<Entry>, size_t, int, const char*> rows[] = {
        {0, {}, 0, KAL_ERR_END, "0/file header "},
        {0, {}, 3, KAL_ERR_SHORT_READ, "3/file header "},
        {0, {}, 4, KAL_OK, ""},
        {1, {{1, 3, 200}}, 11, KAL_ERR_READ, "11/file index "},
        {0x8001, {{1, 0, 0}, {2, 1, 13}}, 23, KAL_ERR_READ, "23/file index "},
        {1, freeEntries(4085), 40000, KAL_OK, ""},
        {1, freeEntries(4086), 40000, KAL_ERR_BUFFER, "2/file with "},
        {0x8001, freeEntries(3266), 40000, KAL_OK, ""},
        {0x8001, freeEntries(3267), 40000, KAL_ERR_BUFFER, "2/file with "},
        {0x8001, freeEntries(6554), 70000, KAL_ERR_BUFFER, "2/file with "},
        {0, whole, 100, KAL_OK, ""},
        {0, bad, 100, KAL_OK, "4/1 index 52/7 item 28/4 item 36/5 item 12/2 file 60/6 it 76/6 it "},
        {0x8000, {{1, 0xFFFFFFFF, 96}}, 100, KAL_OK, "4/1 file "}};
    for (const auto& [format, entries, length, status, told] : rows) {
        const Bytes bytes = itemFile(format, entries, length);
        VectorStream stream(bytes);
        EXPECT_EQ(faultsIn(stream.file()), told);
        writeFile("f", bytes);
        EXPECT_EQ(tryOpen(0, 0), status) << told;
        EXPECT_EQ(status == KAL_OK ? KAL_OK : tryOpen(KAL_MODE_UPDATE, 0), status) << told;
        EXPECT_EQ(readFile("f"), bytes);
    }
}

TEST_F(ItemFormat, NoFileIsWrittenWithMoreEntriesThanOpenAgain) {
    for (const auto& [format, most] : {std::pair<uint16_t, uint16_t>{1, 4085}, {0x8001, 3266}}) {
        IFILE* file = openItems(kNew, format);
        EXPECT_EQ(KalReserveItems(file, uint16_t(most + 1)), KAL_ERR_BUFFER);
        for (uint16_t id = 0; id <= most; id++)
            ASSERT_EQ(write(file, id, ""), 0u) << id;
        EXPECT_EQ(file->count, most);
        EXPECT_EQ(KalCloseIFile(file), KAL_OK);
        EXPECT_EQ(tryOpen(0, 0), KAL_OK);
    }
}

TEST_F(ItemFormat, HostileEntriesGiveNoMoreBytesAndTakeNoMoreMemoryThanThereAre) {
    const std::vector<Entry> entries = {
        {1, 0xFFFFFFFF, 0}, {2, 10, 0xFFFFFFFF}, {3, 0x7FFFFFFF, 0x7FFFFFFF}, {4, 100, 90},
        {5, 0x80000000, 4}, {6, 5, 0xFFFFFFF0},  {7, 9, 0x60000000},          {kFree, 50, 0x60000000}};
    const Bytes hostile = itemFile(0x8000, entries, 120);
    for (const uint16_t mode : Words{kNew, kNew | KAL_MODE_MEMORY}) {
        SFILE* stream = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", mode, 0), KAL_OK);
        stream->write(stream, hostile.data(), uint32_t(hostile.size()));
        stream->mode = uint16_t(mode & ~KAL_MODE_CREATE);
        IFILE* file = nullptr;
        ASSERT_EQ(KalMakeIFile(&file, stream, 0), KAL_OK);
        Bytes room(300);
        for (const auto& [id, size, offset] : entries) {
            EXPECT_LE(KalReadIFile(file, room.data(), 300, id), 120u);
            EXPECT_LE(KalIncReadIFile(file, room.data(), 300, id), 120u);
            EXPECT_EQ(item(file, id), "none") << id;
            failHeapAllocation(1);
            EXPECT_EQ(item(file, id), "none") << id;
            EXPECT_EQ(heapFaultHappened(), size < 65536) << "memory asked for " << id;
            failHeapAllocation(0);
        }
        if (mode != kNew) { // a stream in memory is as long as its farthest seek
            EXPECT_EQ(KalAddIFile(file, "x", 1, 7) + write(file, 50, "forty-nine"), 10u);
            EXPECT_EQ(KalReserveItems(file, 9), KAL_ERR_SHORT_READ) << "what stands in the way has no end";
            stream->seek(stream, 0, KAL_SEEK_END);
            EXPECT_LT(stream->pos, 4096u);
        }
        KalSetOffset(stream, 40); // 4 GiB on lie the bytes before the base
        EXPECT_EQ(item(file, 6), "none");
        KalFreeIFile(file);
        stream->close(stream);
    }
}

// Behind the room for ten entries; then a shorter one in its own place; two free extents of equal size, of which the
// earlier in the index is taken; additions where another item, or one without bytes, stands behind; at last sizes of
// more than 16 bits, and the id that is none.
TEST_F(ItemFormat, RewritesTakeTheSmallestFreeExtentAndAdditionsGrowInPlace) {
    // Write or add, id, size; how many were taken, and where.
    const std::tuple<char, uint16_t, uint32_t, uint32_t, uint32_t> steps[] = {
        {'w', 1, 100, 100, 84},    {'w', 2, 50, 50, 184},   {'w', 3, 50, 50, 234},
        {'w', 4, 80, 80, 284},     {'w', 1, 90, 90, 84},    {'w', 2, 300, 300, 364},
        {'w', 3, 400, 400, 664},   {'w', 5, 50, 50, 184},   {'w', 6, 40, 40, 234},
        {'a', 5, 1, 0, 184},       {'w', 7, 0, 0, 1064},    {'w', 3, 300, 300, 664},
        {'a', 3, 150, 150, 664},   {'a', 3, 65086, 0, 664}, {'a', 3, 65085, 65085, 664},
        {'w', 9, 65539, 3, 66199}, {'w', kFree, 1, 0, 0},   {'a', kFree, 1, 0, 0}};
    for (const uint16_t mode : Words{0, KAL_MODE_MEMORY}) {
        IFILE* file = openItems(kNew | mode, 0);
        for (const auto& [what, id, size, taken, offset] : steps) {
            const std::string bytes(size, what);
            EXPECT_EQ((what == 'w' ? KalWriteIFile : KalAddIFile)(file, bytes.data(), size, id), taken) << id;
            EXPECT_EQ(offsetOf(file, id), offset) << id << " of " << size;
        }
        EXPECT_EQ(item(file, 3), std::string(300, 'w') + std::string(65235, 'a'));
        EXPECT_EQ(file->capacity, 10);
        EXPECT_EQ(file->count, 8) << "free entries keep their place and are taken again";
        EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    }
}

// The lowest first, where all follow the longest; those without bytes behind all others; and none that stands where the
// index ends.
TEST_F(ItemFormat, TheGrowingIndexMovesWhatStandsInItsWayAndSharersTogether) {
    const std::vector<Entry> entries = {{5, 0, 48}, {1, 0, 62},  {3, 9, 62}, {2, 5, 62},
                                        {4, 3, 72}, {6, 1, 132}, {7, 0, 132}};
    const uint32_t offsets[] = {0,   200, 200, 200, 209, 212, 132, 132, 200,
                                200, 200, 200, 200, 200, 200, 200, 200};
    Bytes bytes = itemFile(0, entries, 200);
    bytes[70] = 'e';
    writeFile("f", bytes);
    IFILE* file = openItems(KAL_MODE_UPDATE, 0);
    for (uint16_t id = 8; id <= 16; id++)
        write(file, id, ""); // entries without bytes: nothing to move for them
    EXPECT_EQ(KalFlushIFile(file), KAL_OK);
    for (uint16_t id = 1; id <= 16; id++)
        EXPECT_EQ(offsetOf(file, id), offsets[id]) << id;
    EXPECT_EQ(KalAddIFile(file, "z", 1, 12), 0u) << "the longest went where this empty one points";
    EXPECT_EQ(item(file, 3)[8], 'e');
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
}

// A flush moves no item above 65,535 bytes. The close says so, and the file is as before; reserved room avoids it.
TEST_F(ItemFormat, LargeItemsNeedRoomMadeBefore) {
    for (const auto& [size, room] : {std::pair<size_t, uint16_t>{65535, 0}, {65536, 0}, {200000, 40}}) {
        SCOPED_TRACE(size);
        const bool fails = size == 65536;
        const std::string large(size, 'L');
        IFILE* file = openItems(kNew, KAL_ITEMS_WIDE);
        EXPECT_EQ(KalReserveItems(file, room), KAL_OK);
        KalFlushBuf(file->stream);
        EXPECT_EQ(readFile("f").back(), room > 10 ? 0xFF : 0) << "what was never written to reads as free";
        EXPECT_EQ(readFile("f").size(), 4u + std::max<uint16_t>(room, 10) * 10u);
        write(file, 0, large);
        EXPECT_EQ(KalFlushIFile(file), KAL_OK);
        for (uint16_t id = 1; id <= 39; id++)
            write(file, id, "x");
        EXPECT_EQ(KalCloseIFile(file), fails ? KAL_ERR_MEMORY : KAL_OK);
        EXPECT_EQ(itemsIn(readFile("f")).size(), fails ? 1u : 40u);
        file = openItems(KAL_MODE_UPDATE, 0);
        EXPECT_EQ(KalReserveItems(file, 3266), KAL_OK) << "also where they stand";
        EXPECT_EQ(item(file, 0), large) << "up to the stream's end";
        EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    }
}

TEST_F(ItemFormat, AFullDiskLeavesTheOldItemsAndTheCloseSaysSo) {
    IFILE* file = openItems(kNew, 0);
    KalFlushBuf(file->stream);
    KalSetBuf(file->stream, 0);
    for (uint16_t id = 0; id < 10; id++)
        write(file, id, std::string(id < 9 ? 20 : 60, char('a' + id)));
    KalFindItem(file, 9)->narrow.id = kFree;
    FileSizeLimit small(84 + 180 + 28);
    EXPECT_EQ(write(file, 1, std::string(30, 'B')), 28u) << "into the free extent";
    EXPECT_EQ(KalFindItem(file, kFree)->narrow.size, 60) << "which is free again, and whole";
    EXPECT_EQ(write(file, 1, std::string(61, 'B')) + write(file, 11, "blocked"), 0u);
    EXPECT_EQ(KalFlushIFile(file), KAL_OK) << "the index has its place";
    EXPECT_EQ(offsetOf(file, 0), 84u) << "at the index's end it is in nobody's way";
    EXPECT_EQ(file->count, 10);
    small.lift();
    EXPECT_EQ(write(file, 10, std::string(61, 'k')), 61u);
    FileSizeLimit larger(readFile("f").size() + 10);
    for (uint16_t id = 0; id < 9; id++) {
        EXPECT_EQ(item(file, id), std::string(20, char('a' + id)));
        EXPECT_EQ(KalFlushIFile(file), KAL_ERR_DISK_FULL) << "and none where it grows to";
    }
    larger.lift();
    EXPECT_EQ(KalFlushIFile(file), KAL_OK) << "with room again the index goes in";
    KalSetBuf(file->stream, 512);
    write(file, 12, std::string(70, 'l'));
    FileSizeLimit limit(100);
    EXPECT_EQ(KalCloseIFile(file), KAL_ERR_DISK_FULL);
    limit.lift();
    EXPECT_EQ(itemsIn(readFile("f")).size(), 10u);
}
