#include "platform/pages.h"

#include "platform/host_calls.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

uint32_t askPageSize() {
    const long asked = hostCalls.sysconf(_SC_PAGESIZE);
    return asked > 4096 ? static_cast<uint32_t>(asked) : 4096;
}

} // namespace

uint32_t pageSize() {
    static const uint32_t size = askPageSize();
    return size;
}

uint8_t* mapPages(size_t bytes) {
    void* pages = hostCalls.mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED)
        return nullptr;
    markUnusable(static_cast<uint8_t*>(pages), bytes);
    return static_cast<uint8_t*>(pages);
}

void wantLargePages(uint8_t* pages, size_t bytes) {
    hostCalls.madvise(pages, bytes, MADV_HUGEPAGE);
}

void unmapPages(uint8_t* pages, size_t bytes) {
    if (bytes == 0)
        return;
    markUsable(pages, bytes); // the addresses may serve somebody else next
    if (hostCalls.munmap(pages, bytes) != 0)
        hostCalls.madvise(pages, bytes, MADV_DONTNEED);
}

uint8_t* remapPages(uint8_t* pages, size_t oldBytes, size_t newBytes) {
    void* moved = hostCalls.mremap(pages, oldBytes, newBytes, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED)
        return nullptr;
    markUsable(pages, oldBytes);
    markUnusable(static_cast<uint8_t*>(moved), newBytes);
    return static_cast<uint8_t*>(moved);
}
