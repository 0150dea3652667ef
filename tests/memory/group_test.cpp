#include "tests/support/faults.h"

#include <sys/mman.h>

TEST(Group, OneCallFreesAllOfBothKinds) {
    const HeapBalance balance;
    listhd* group = nullptr;
    void* const blocks[] = {KalGroupMem(&group, 100), KalGroupSMem(&group, 200)};
    void* node = group->first + 1;
    for (uint32_t kind = 1; kind <= 2; kind++, node = KalNextNode(node)) {
        const auto* entry = static_cast<KalGroupEntry*>(node);
        EXPECT_TRUE(entry->block == blocks[kind - 1] && entry->kind == kind);
        EXPECT_EQ(KalSizeSMem(entry->block), kind * 100);
    }
    EXPECT_EQ(node, nullptr);
    KalGroupFree(&group);
    KalGroupFree(&group);
    KalGroupFree(nullptr);
    EXPECT_EQ(group, nullptr);
    EXPECT_EQ(KalGroupMem(nullptr, 1), nullptr);
}

TEST(AsMuch, HalvesTheWishDownToATryBelow128) {
    const HeapBalance balance;
    // Of these, the first so many allocations fail.
    for (const auto& [wish, failed, got] :
         {std::tuple(1000u, 0, 1000u), {128, 1, 64}, {1000, 9, 125}, {127, 9, 127}}) {
        uint32_t size = wish;
        failed == 1 ? failHeapAllocation(1) : failHeapAllocationsFrom(failed != 0);
        void* block = (wish == 128 ? KalAsMuchMem : KalAsMuchSMem)(&size);
        failHeapAllocation(0);
        EXPECT_EQ(size, got) << wish;
        EXPECT_EQ(KalSizeSMem(block), failed < 2 ? got : 0);
        KalFreeSMem(block);
    }
}

TEST(Huge, BlocksMoveWhereTheyOverlapAndToFilesAndBack) {
    char text[20] = "abcdefgh";
    KalHMemCpy(text + 1, text, 7);
    EXPECT_STREQ(text, "aabcdefg");
    KalHMemCpy(text, text + 1, 7);
    KalHMemCpy(text, "zzzz", 0);
    KalHMemCpy(text, "zzzz", -4);
    EXPECT_STREQ(text, "abcdefgg");
    const int fd = ::memfd_create("block", 0);
    EXPECT_EQ(KalHWrite(fd, "0123456789", 10), 10);
    ::lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(KalHRead(fd, text, 20), 10) << "short at the end";
    EXPECT_STREQ(text, "0123456789");
    ::close(fd);
    EXPECT_EQ(KalHRead(fd, text, 1) + KalHWrite(fd, text, 1), -2);
}
