#include "platform/global_memory.h"

#include "platform/host_calls.h"
#include "platform/host_io.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

// A 32-bit process keeps half of its addresses for other uses than what this memory will serve.
constexpr uint64_t kMostAvailable = sizeof(void*) == 4 ? 0x7FFFFFFF : 0xFFFFFFFF;

// What the host can hand out without swapping, cached files that it would drop included: the text of
// /proc/meminfo has it in KiB. 0 when it cannot be read.
uint64_t availableFromProc() {
    const int fd = hostCalls.open("/proc/meminfo", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    char text[1024] = {};
    const size_t got = readAll(fd, text, sizeof text - 1).count;
    hostCalls.close(fd);
    constexpr char kField[] = "MemAvailable:";
    const char* field = got > 0 ? std::strstr(text, kField) : nullptr;
    return field != nullptr ? std::strtoull(field + sizeof kField - 1, nullptr, 10) * 1024 : 0;
}

uint64_t freePages() {
    struct sysinfo info;
    return hostCalls.sysinfo(&info) == 0 ? uint64_t(info.freeram) * info.mem_unit : 0;
}

} // namespace

void GlobalMemoryStatus(MEMORYSTATUS* status) {
    uint64_t available = availableFromProc();
    if (available == 0)
        available = freePages();
    status->dwLength = sizeof(MEMORYSTATUS);
    status->dwAvailPhys = static_cast<uint32_t>(std::min(available, kMostAvailable));
}
