#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/memory.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

TEST(Group, OneCallFreesAllOfBothKinds) {
    EXPECT_EQ(withEachAllocationFailing([](int) {
                  listhd* group = nullptr;
                  void* const blocks[] = {KalGroupMem(&group, 100), KalGroupSMem(&group, 200)};
                  EXPECT_EQ(blocks[0] == nullptr || blocks[1] == nullptr, heapFaultHappened());
                  auto* entry =
                      group->first != nullptr ? reinterpret_cast<KalGroupEntry*>(group->first + 1) : nullptr;
                  for (uint32_t kind = 1; kind <= 2; kind++)
                      if (void* block = blocks[kind - 1]) {
                          EXPECT_EQ(KalSizeSMem(block), kind * 100);
                          EXPECT_EQ(val(entry->block), block);
                          EXPECT_EQ(val(entry->kind), kind);
                          entry = static_cast<KalGroupEntry*>(KalNextNode(entry));
                      }
                  EXPECT_EQ(entry, nullptr);
                  KalGroupFree(&group);
                  KalGroupFree(&group);
                  EXPECT_EQ(group, nullptr);
              }),
              5); // list, and an entry and a block each
    KalGroupFree(nullptr);
    EXPECT_EQ(KalGroupMem(nullptr, 1), nullptr);
}

TEST(AsMuch, HalvesTheWishDownToATryBelow128) {
    struct Case {
        void* (*call)(uint32_t*);
        uint32_t wish;
        int failures; // 9: all
        uint32_t got;
    };
    for (const auto& [call, wish, failures, got] : {Case{KalAsMuchSMem, 1000, 0, 1000},
                                                    {KalAsMuchMem, 1000, 1, 500},
                                                    {KalAsMuchMem, 128, 1, 64},
                                                    {KalAsMuchSMem, 1000, 9, 125},
                                                    {KalAsMuchSMem, 127, 9, 127}}) {
        HeapBalance balance;
        uint32_t size = wish;
        failures == 9 ? failHeapAllocationsFrom(1) : failHeapAllocation(failures);
        void* block = call(&size);
        failHeapAllocation(0);
        EXPECT_EQ(size, got) << wish;
        EXPECT_EQ(KalSizeSMem(block), failures == 9 ? 0 : got);
        KalFreeSMem(block);
    }
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

class HugeTransfer : public FolderTest {};

TEST_F(HugeTransfer, MovesWholeBlocksThroughSignalsAndShortCounts) {
    HostCallGuard guard;
    static int calls;
    calls = 0;
    // Every other call is interrupted, and none moves more than 1,000 bytes.
    static const auto isInterrupted = [] {
        errno = EINTR;
        return ++calls % 2 == 0;
    };
    hostCalls.write = [](int fd, const void* source, size_t count) -> ssize_t {
        return isInterrupted() ? -1 : ::write(fd, source, std::min<size_t>(count, 1000));
    };
    hostCalls.read = [](int fd, void* destination, size_t count) -> ssize_t {
        return isInterrupted() ? -1 : ::read(fd, destination, std::min<size_t>(count, 1000));
    };
    const Bytes bytes = randomBytes(10500, 3);
    const int fd = ::open("block", O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(KalHWrite(fd, bytes.data(), 10500), 10500);
    Bytes back(10510);
    ::lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(KalHRead(fd, back.data(), 10510), 10500) << "short at the end";
    back.resize(10500);
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(KalHRead(fd, back.data(), -1) + KalHWrite(fd, back.data(), -1), -2);
    ::close(fd);
    EXPECT_EQ(KalHWrite(fd, bytes.data(), 1), -1);
}
