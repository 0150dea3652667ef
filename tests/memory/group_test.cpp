#include "tests/support/faults.h"

#include <sys/mman.h>

TEST(Group, OneCallFreesAllOfBothKinds) {
    EXPECT_EQ(withEachAllocationFailing([](int) {
                  listhd* group = nullptr;
                  void* const blocks[] = {KalGroupMem(&group, 100), KalGroupSMem(&group, 200)};
                  EXPECT_EQ(blocks[0] == nullptr || blocks[1] == nullptr, heapFaultHappened());
                  void* node = group->first != nullptr ? group->first + 1 : nullptr;
                  for (uint32_t kind = 1; kind <= 2; kind++)
                      if (void* block = blocks[kind - 1]) {
                          const auto* entry = static_cast<KalGroupEntry*>(node);
                          EXPECT_EQ(KalSizeSMem(block), kind * 100);
                          EXPECT_TRUE(entry->block == block && entry->kind == kind);
                          node = KalNextNode(node);
                      }
                  EXPECT_EQ(node, nullptr);
                  KalGroupFree(&group);
                  KalGroupFree(&group);
                  EXPECT_EQ(group, nullptr);
              }),
              5); // list, and an entry and a block each
    KalGroupFree(nullptr);
    EXPECT_EQ(KalGroupMem(nullptr, 1), nullptr);
}

TEST(AsMuch, HalvesTheWishDownToATryBelow128) {
    HeapBalance balance;
    const auto expectSize = [](void* (*call)(uint32_t*), uint32_t wish, uint32_t got, bool isBlock) {
        uint32_t size = wish;
        void* block = call(&size);
        failHeapAllocation(0);
        EXPECT_EQ(size, got) << wish;
        EXPECT_EQ(KalSizeSMem(block), isBlock ? got : 0);
        KalFreeSMem(block);
    };
    expectSize(KalAsMuchSMem, 1000, 1000, true);
    failHeapAllocation(1);
    expectSize(KalAsMuchMem, 128, 64, true);
    failHeapAllocationsFrom(1);
    expectSize(KalAsMuchSMem, 1000, 125, false);
    failHeapAllocationsFrom(1);
    expectSize(KalAsMuchSMem, 127, 127, false);
}

TEST(Huge, CopiesOverlappingRanges) {
    char text[] = "abcdefgh";
    KalHMemCpy(text + 1, text, 7);
    EXPECT_STREQ(text, "aabcdefg");
    KalHMemCpy(text, text + 1, 7);
    KalHMemCpy(text, "zzzz", 0);
    KalHMemCpy(text, "zzzz", -4);
    EXPECT_STREQ(text, "abcdefgg");
}

TEST(Huge, MovesBlocksAndTellsHowMuch) {
    char text[20] = {};
    const int fd = ::memfd_create("block", 0);
    EXPECT_EQ(KalHWrite(fd, "0123456789", 10), 10);
    ::lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(KalHRead(fd, text, 20), 10) << "short at the end";
    EXPECT_STREQ(text, "0123456789");
    ::close(fd);
    EXPECT_EQ(KalHRead(fd, text, 1) + KalHWrite(fd, text, 1), -2);
}
