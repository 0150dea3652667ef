// Host calls that signals interrupt and that come short, done to their end.
#ifndef KAL_PLATFORM_HOST_IO_H
#define KAL_PLATFORM_HOST_IO_H

#include <cerrno>
#include <cstddef>
#include <sys/types.h>

// Does a host call again for as long as a signal interrupts it. Its result.
template <class Call>
auto untilDone(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

// What a transfer came to: the bytes moved, and whether an error (errno) and not the file's end made it end.
struct Moved {
    size_t count = 0;
    bool failed = false;
};

// Bytes at the file's pointer, in as many host calls as it takes. Fewer come at the file's end.
Moved readAll(int fd, void* destination, size_t count);
Moved writeAll(int fd, const void* source, size_t count);

// Bytes at a position; the file's pointer stays.
Moved readAllAt(int fd, void* destination, size_t count, off_t position);
Moved writeAllAt(int fd, const void* source, size_t count, off_t position);

// Whether the lock (LOCK_SH, LOCK_EX, LOCK_UN, with LOCK_NB) could be set.
bool setLock(int fd, int operation);

// Sets room aside. Whether there was some.
bool setAside(int fd, off_t offset, off_t count);

#endif
