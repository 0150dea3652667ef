// What tests of VMem share: a manager that is closed again, blocks with known bytes, the process's memory.
#ifndef KAL_TESTS_SUPPORT_VMEM_H
#define KAL_TESTS_SUPPORT_VMEM_H

#include "platform/global_memory.h"
#include "tests/support/files.h"

#include <sys/mman.h>

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true; // slower, and the process's memory is not its own
#else
inline constexpr bool kSanitized = false;
#endif

class VMemFixture : public FolderTest {
protected:
    static void open(uint32_t limit) {
        KalSetMaxVMem(limit);
        ASSERT_EQ(KalOpenVMem(0), 0);
    }
    // The bytes of a block numbered `number`.
    static Bytes pattern(uint32_t size, uint32_t number) {
        Bytes bytes(size);
        for (uint32_t i = 0; i < size; i++)
            bytes[i] = static_cast<uint8_t>((i * 2654435761u + number * 40503u) >> 13);
        return bytes;
    }
    static void fill(void* handle, uint32_t size, uint32_t number) {
        void* address = KalLockVMem(handle);
        ASSERT_NE(address, nullptr);
        std::memcpy(address, pattern(size, number).data(), size);
        KalMarkDirtyVMem(handle);
        KalUnLockVMem(handle);
    }
    static void* make(uint32_t size, uint32_t number) {
        void* handle = KalAllocVMem(2, size);
        if (handle != nullptr)
            fill(handle, size, number);
        return handle;
    }
    static void expect(void* handle, uint32_t size, uint32_t number) {
        const void* address = KalLockVMem(handle);
        ASSERT_NE(address, nullptr) << "block " << number;
        EXPECT_EQ(std::memcmp(address, pattern(size, number).data(), size), 0) << "block " << number;
        KalUnLockVMem(handle);
    }
};

// Bytes of the process in memory.
inline int64_t residentBytes() {
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * ::sysconf(_SC_PAGESIZE);
}

#endif
