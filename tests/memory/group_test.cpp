#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/memory.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

TEST(Group, OneCallFreesAllOfBothKinds) {
    HeapBalance balance;
    listhd* group = nullptr;
    auto* first = static_cast<uint8_t*>(KalGroupMem(&group, 100));
    auto* second = static_cast<uint8_t*>(KalGroupSMem(&group, 200));
    ASSERT_NE(group, nullptr);
    std::memset(first, 1, 100);
    std::memset(second, 2, 200);
    EXPECT_EQ(KalCountList(group), 2);
    auto* entry = reinterpret_cast<KalGroupEntry*>(group->first + 1);
    EXPECT_EQ(entry->kind, 1u);
    EXPECT_EQ(val(entry->block), first);
    EXPECT_EQ(static_cast<KalGroupEntry*>(KalNextNode(entry))->kind, 2u);
    KalGroupFree(&group);
    EXPECT_EQ(group, nullptr);
    KalGroupFree(&group);
    KalGroupFree(nullptr);
    EXPECT_EQ(KalGroupMem(nullptr, 1), nullptr);
}

TEST(Group, ShortMemoryAddsNothing) {
    EXPECT_EQ(withEachAllocationFailing([](int n) {
                  listhd* group = nullptr;
                  void* block = KalGroupMem(&group, 64);
                  EXPECT_EQ(block == nullptr, heapFaultHappened()) << "allocation " << n;
                  EXPECT_EQ(group != nullptr ? KalCountList(group) : 0, block != nullptr ? 1 : 0);
                  KalGroupFree(&group);
              }),
              3); // list, entry, block
}

TEST(AsMuch, HalvesTheWishDownToATryBelow128) {
    HeapBalance balance;
    uint32_t size = 1000;
    void* block = KalAsMuchSMem(&size);
    EXPECT_EQ(size, 1000u);
    KalFreeSMem(block);

    failHeapAllocation(1);
    block = KalAsMuchMem(&size);
    EXPECT_EQ(size, 500u);
    EXPECT_EQ(KalSizeSMem(block), 500u);
    KalFreeSMem(block);

    failHeapAllocationsFrom(1);
    size = 1000;
    EXPECT_EQ(KalAsMuchSMem(&size), nullptr);
    EXPECT_EQ(size, 125u); // 1000, 500, 250, 125
    size = 100;
    EXPECT_EQ(KalAsMuchSMem(&size), nullptr);
    EXPECT_EQ(size, 100u);
    failHeapAllocation(0);
}

TEST(Huge, CopiesOverlappingRanges) {
    char text[] = "abcdefgh";
    KalHMemCpy(text + 1, text, 7);
    EXPECT_STREQ(text, "aabcdefg");
    KalHMemCpy(text, text + 1, 7);
    EXPECT_STREQ(text, "abcdefgg");
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
    EXPECT_EQ(KalHRead(fd, back.data(), -1), -1);
    EXPECT_EQ(KalHWrite(fd, back.data(), -1), -1);
    ::close(fd);
    EXPECT_EQ(KalHWrite(fd, bytes.data(), 1), -1);
}
