// Item files in trouble: short memory, full disks, items too large to move.
#include "tests/items/items.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

class ItemTrouble : public FolderTest {};

TEST_F(ItemTrouble, EachAllocationFailingGivesItsStatusAndLosesNothing) {
    auto build = [](int) {
        IFILE* file = nullptr;
        int16_t status = KalOpenIFile(&file, "f", kNew, 0);
        if (status != 0) {
            EXPECT_TRUE(status == -100 || status == -105) << status;
            EXPECT_EQ(file, nullptr);
            return;
        }
        std::vector<bool> stored;
        for (uint16_t id = 0; id < 12; id++)
            stored.push_back(KalWriteIFile(file, "0123", 4, id) == 4);
        status = KalFlushIFile(file);
        EXPECT_TRUE(status == 0 || status == -100) << status;
        int32_t size = 0;
        if (char* block = KalGetItem(file, 3, &size))
            KalFreeSMem(block);
        else
            EXPECT_TRUE(heapFaultHappened());
        failHeapAllocation(0);
        EXPECT_EQ(KalCloseIFile(file), 0);
        file = openItems(0, 0);
        for (uint16_t id = 0; id < 12; id++)
            EXPECT_EQ(item(file, id), stored[id] ? "0123" : "none");
        EXPECT_EQ(KalCloseIFile(file), 0);
    };
    EXPECT_GE(withEachAllocationFailing(build), 7);
    withEachAllocationFailing([](int) {
        IFILE* file = nullptr;
        if (const int16_t status = KalOpenTempIFile(&file); status == 0)
            KalCloseIFile(file);
        else
            EXPECT_TRUE(status == -100 || status == -105) << status;
    });
    EXPECT_EQ(filesIn("."), std::vector<std::string>{"f"});
}

TEST_F(ItemTrouble, AnItemTooLargeToMoveKeepsTheOldIndex) {
    IFILE* file = openItems(kNew, KAL_ITEMS_WIDE);
    const Bytes large(65536, 'L');
    KalWriteIFile(file, large.data(), 65536, 1);
    EXPECT_EQ(KalFlushIFile(file), 0);
    for (uint16_t id = 2; id <= 11; id++)
        KalWriteIFile(file, "x", 1, id);
    const Bytes before = readFile("f");
    EXPECT_EQ(KalFlushIFile(file), -100);
    KalCloseIFile(file);
    const Bytes after = readFile("f");
    EXPECT_EQ(Bytes(after.begin(), after.begin() + 104), Bytes(before.begin(), before.begin() + 104));
    file = openItems(0, 0);
    EXPECT_EQ(KalGetItemSize(file, 1), 65536);
    KalCloseIFile(file);
}

TEST_F(ItemTrouble, AWriteThatDoesNotGoInLeavesTheOldItem) {
    IFILE* file = openItems(kNew, 0);
    KalFlushBuf(file->stream);
    KalSetBuf(file->stream, 0);
    KalWriteIFile(file, "old", 3, 1);
    KalWriteIFile(file, "other", 5, 2);
    {
        FileSizeLimit limit(100); // the file holds 92 bytes
        EXPECT_EQ(KalWriteIFile(file, "0123456789", 10, 1), 8u);
        EXPECT_EQ(val(file->stream->status), -254);
        EXPECT_EQ(KalWriteIFile(file, "0123456789", 10, 3), 0u) << "blocked";
    }
    EXPECT_EQ(KalFlushIFile(file), 0) << "the index has its place";
    EXPECT_EQ(item(file, 1), "old");
    EXPECT_EQ(item(file, 3), "none");
    EXPECT_EQ(KalWriteIFile(file, "0123456789", 10, 1), 10u);
    EXPECT_EQ(KalCloseIFile(file), 0);
    file = openItems(0, 0);
    EXPECT_EQ(item(file, 1), "0123456789");
    EXPECT_EQ(item(file, 2), "other");
    KalCloseIFile(file);
}

TEST_F(ItemTrouble, AMoveThatMeetsAFullDiskKeepsTheOldIndexAndEveryItem) {
    IFILE* file = openItems(kNew, 0);
    for (uint16_t id = 0; id < 10; id++)
        KalWriteIFile(file, std::string(20, char('a' + id)).c_str(), 20, id);
    EXPECT_EQ(KalFlushIFile(file), 0);
    KalFlushBuf(file->stream);
    KalSetBuf(file->stream, 0);
    KalWriteIFile(file, "k", 1, 10);
    const Bytes before = readFile("f");
    {
        FileSizeLimit limit(before.size() + 10);
        EXPECT_EQ(KalFlushIFile(file), -254);
        const Bytes after = readFile("f");
        EXPECT_EQ(Bytes(after.begin(), after.begin() + long(before.size())), before);
    }
    for (uint16_t id = 0; id < 10; id++)
        EXPECT_EQ(item(file, id), std::string(20, char('a' + id)));
    EXPECT_EQ(KalCloseIFile(file), 0) << "with room again the index goes in";
    file = openItems(0, 0);
    EXPECT_EQ(item(file, 0), std::string(20, 'a'));
    EXPECT_EQ(item(file, 10), "k");
    KalCloseIFile(file);
}

TEST_F(ItemTrouble, ClosingOnAFullDiskReleasesEverything) {
    HeapBalance balance;
    IFILE* file = openItems(kNew, 0);
    KalWriteIFile(file, "abc", 3, 1);
    FileSizeLimit limit(0);
    KalWriteIFile(file, "def", 3, 2);
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(KalCloseIFile(nullptr) | KalFreeIFile(nullptr), 0);
}

TEST_F(ItemTrouble, AReadOnlyItemFileIsNeverWritten) {
    IFILE* file = openItems(kNew, 0);
    KalWriteIFile(file, "abc", 3, 1);
    KalCloseIFile(file);
    const Bytes before = readFile("f");
    file = openItems(0, 0);
    EXPECT_EQ(KalWriteIFile(file, "xyz", 3, 1), 0u);
    EXPECT_EQ(KalWriteIFile(file, "longer", 6, 1), 0u);
    EXPECT_EQ(KalAddIFile(file, "x", 1, 1), 0u);
    EXPECT_EQ(item(file, 1), "abc");
    EXPECT_EQ(KalCloseIFile(file), 0);
    EXPECT_EQ(readFile("f"), before);
}
