#include "fuzz/memory_host.h"

#include "platform/host_calls.h"

// What the program calls by itself: linked with --wrap, these stand for the host's own calls, and give way to them for all
// that is not in memory.
#define WRAP(result, call, inMemory, isInMemory, parameters, arguments)                                      \
    extern "C" result __real_##call parameters;                                                              \
    extern "C" result __wrap_##call parameters {                                                             \
        return isInMemory ? hostCalls.inMemory arguments : __real_##call arguments;                          \
    }
WRAP(int, open64, open, std::string(path).rfind("/memory/", 0) == 0,
     (const char* path, int flags, mode_t mode), (path, flags, mode))
WRAP(int, close, close, fd >= memoryHost::kFirst, (int fd), (fd))
WRAP(int, fstat64, fstat, fd >= memoryHost::kFirst, (int fd, struct stat* to), (fd, to))
WRAP(ssize_t, pread64, pread, fd >= memoryHost::kFirst, (int fd, void* to, size_t size, off_t at),
     (fd, to, size, at))
WRAP(ssize_t, write, write, fd >= memoryHost::kFirst, (int fd, const void* from, size_t size),
     (fd, from, size))
