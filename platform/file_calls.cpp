#include "platform/file_calls.h"

#include "platform/host_calls.h"
#include "platform/host_io.h"
#include "platform/host_path.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int openHost(const char* hostPath, int flags, mode_t mode) {
    const int fd = untilDone([=] { return hostCalls.open(hostPath, flags | O_CLOEXEC, mode); });
    if (fd < 0) {
        if (errno == EISDIR) // the platform has one answer for directories, whatever the access
            errno = EACCES;
        return -1;
    }
    struct stat found;
    if ((flags & O_ACCMODE) == O_RDONLY && hostCalls.fstat(fd, &found) == 0 && S_ISDIR(found.st_mode)) {
        hostCalls.close(fd);
        errno = EACCES;
        return -1;
    }
    return fd;
}

int openPath(const char* path, int flags, mode_t mode) {
    HostPath host;
    return toHostPath(path, host) ? openHost(host.text, flags, mode) : -1;
}

// A new file that no name leads to, in the folder of `host`; where the file system cannot make one, a new
// file whose name is taken away at once.
int openNameless(HostPath& host, int access) {
    char* slash = std::strrchr(host.text, '/');
    const char* folder = slash == nullptr ? "." : slash == host.text ? "/" : host.text;
    if (slash != nullptr)
        *slash = 0;
    int fd = openHost(folder, access | O_TMPFILE, 0600);
    if (slash != nullptr)
        *slash = '/';
    if (fd >= 0)
        return fd;
    fd = openHost(host.text, access | O_CREAT | O_EXCL, 0600);
    if (fd >= 0)
        hostCalls.unlink(host.text);
    return fd;
}

bool isNoRoom(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

// The bytes moved; -1, with the pointer where it stood, where an error other than a full disk ended it.
int64_t movedOrBack(HFILE file, Moved moved) {
    if (!moved.failed || isNoRoom(errno))
        return static_cast<int64_t>(moved.count);
    const int error = errno;
    if (moved.count > 0)
        hostCalls.lseek(file, -static_cast<off_t>(moved.count), SEEK_CUR);
    errno = error;
    return -1;
}

} // namespace

HFILE _lopen(const char* path, int access) {
    constexpr int flags[] = {O_RDONLY, O_WRONLY, O_RDWR};
    return openPath(path, flags[access], 0);
}

HFILE _lcreat(const char* path, int attributes) {
    return openPath(path, O_RDWR | O_CREAT | O_TRUNC, attributes == 1 ? 0444 : 0666);
}

uint32_t _lread(HFILE file, void* destination, uint32_t count) {
    return static_cast<uint32_t>(movedOrBack(file, readAll(file, destination, count)));
}

uint32_t _lwrite(HFILE file, const void* source, uint32_t count) {
    return static_cast<uint32_t>(movedOrBack(file, writeAll(file, source, count)));
}

int32_t _hread(HFILE file, void* destination, int32_t count) {
    if (count < 0)
        return HFILE_ERROR;
    return static_cast<int32_t>(movedOrBack(file, readAll(file, destination, static_cast<size_t>(count))));
}

int32_t _hwrite(HFILE file, const void* source, int32_t count) {
    if (count < 0)
        return HFILE_ERROR;
    return static_cast<int32_t>(movedOrBack(file, writeAll(file, source, static_cast<size_t>(count))));
}

uint32_t _lcopy(HFILE to, HFILE from, uint32_t count) {
    constexpr uint32_t kOneCall = 1u << 30;
    uint32_t done = 0;
    while (done < count) {
        const ssize_t copied =
            hostCalls.copy_file_range(from, nullptr, to, nullptr, std::min(count - done, kOneCall), 0);
        if (copied <= 0)
            break;
        done += static_cast<uint32_t>(copied);
    }
    return done;
}

int32_t _llseek(HFILE file, int32_t offset, int origin) {
    constexpr int64_t kTooFar = UINT32_MAX; // for a position of 32 bits, of which all ones means failure
    const int64_t distance = origin == SEEK_SET ? int64_t(uint32_t(offset)) : int64_t(offset);
    // A refused seek leaves the pointer where it stood. Where the origin is the start it is refused before it
    // moves.
    if (origin != SEEK_SET || distance < kTooFar) {
        const off_t before = origin != SEEK_SET ? hostCalls.lseek(file, 0, SEEK_CUR) : 0;
        const off_t position = hostCalls.lseek(file, distance, origin);
        if (position < kTooFar)
            return static_cast<int32_t>(static_cast<uint32_t>(position));
        hostCalls.lseek(file, before, SEEK_SET);
    }
    errno = EOVERFLOW;
    return HFILE_ERROR;
}

HFILE _lclose(HFILE file) {
    return hostCalls.close(file);
}

int _open(const char* path, int flags) {
    HostPath host;
    if (!toHostPath(path, host))
        return -1;
    const int access = (flags & _O_RDWR) != 0 ? O_RDWR : O_RDONLY;
    if ((flags & _O_TEMPORARY) != 0)
        return openNameless(host, access);
    const int create = ((flags & _O_CREAT) != 0 ? O_CREAT : 0) | ((flags & _O_EXCL) != 0 ? O_EXCL : 0);
    return openHost(host.text, access | create, 0600);
}

int _close(int file) {
    return hostCalls.close(file);
}

int _access(const char* path, int mode) {
    HostPath host;
    if (!toHostPath(path, host))
        return -1;
    const int asked = ((mode & 2) != 0 ? W_OK : 0) | ((mode & 4) != 0 ? R_OK : 0);
    return hostCalls.access(host.text, asked == 0 ? F_OK : asked);
}

int _unlink(const char* path) {
    HostPath host;
    return toHostPath(path, host) ? hostCalls.unlink(host.text) : -1;
}
