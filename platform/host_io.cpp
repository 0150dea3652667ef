#include "platform/host_io.h"

#include "platform/host_calls.h"

namespace {

// `moveSome(done)` moves bytes from `done` on in one host call.
template <class MoveSome>
Moved moveAll(size_t count, MoveSome moveSome) {
    Moved moved;
    while (moved.count < count) {
        const ssize_t step = untilDone([&] { return moveSome(moved.count); });
        if (step <= 0) {
            moved.failed = step < 0;
            break;
        }
        moved.count += static_cast<size_t>(step);
    }
    return moved;
}

} // namespace

Moved readAll(int fd, void* destination, size_t count) {
    return moveAll(count, [=](size_t done) {
        return hostCalls.read(fd, static_cast<char*>(destination) + done, count - done);
    });
}

Moved writeAll(int fd, const void* source, size_t count) {
    return moveAll(count, [=](size_t done) {
        return hostCalls.write(fd, static_cast<const char*>(source) + done, count - done);
    });
}

Moved readAllAt(int fd, void* destination, size_t count, off_t position) {
    return moveAll(count, [=](size_t done) {
        return hostCalls.pread(fd, static_cast<char*>(destination) + done, count - done,
                               position + static_cast<off_t>(done));
    });
}

Moved writeAllAt(int fd, const void* source, size_t count, off_t position) {
    return moveAll(count, [=](size_t done) {
        return hostCalls.pwrite(fd, static_cast<const char*>(source) + done, count - done,
                                position + static_cast<off_t>(done));
    });
}

bool setLock(int fd, int operation) {
    return untilDone([=] { return hostCalls.flock(fd, operation); }) == 0;
}

bool setAside(int fd, off_t offset, off_t count) {
    return untilDone([=] { return hostCalls.fallocate(fd, 0, offset, count); }) == 0;
}
