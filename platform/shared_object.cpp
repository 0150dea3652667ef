#include "platform/shared_object.h"

#include "platform/host_calls.h"
#include "platform/host_io.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

namespace {

// A name can change hands while we look at it. Each change is another process's progress, so this many in a
// row happen only when something is wrong.
constexpr int kTries = 1000;

// Whether the name still leads to the object, which is this user's own; it does not once it was unlinked.
bool isCurrent(int fd) {
    struct stat state;
    return hostCalls.fstat(fd, &state) == 0 && state.st_nlink > 0 && state.st_uid == hostCalls.geteuid();
}

// Sets the memory aside now: a page that turns out not to be there later would kill the process that
// touches it.
bool setSize(int fd, uint32_t size) {
    return hostCalls.ftruncate(fd, 0) == 0 && setAside(fd, 0, static_cast<off_t>(size));
}

enum class Holding { held, stale, changed };

// Takes the shared lock if others hold the object too; with nobody else there, the exclusive lock stays.
Holding tryToHold(int fd) {
    const bool alone = setLock(fd, LOCK_EX | LOCK_NB);
    // Somebody holds the object, or is just making or removing it and will be done at once.
    if (!alone && !setLock(fd, LOCK_SH))
        return Holding::changed;
    if (!isCurrent(fd))
        return Holding::changed;
    if (alone)
        return Holding::stale;
    // Empty: its maker was killed before it was ready.
    return sharedObjectSize(fd) > 0 ? Holding::held : Holding::changed;
}

} // namespace

bool sharedObjectName(const char* name, char (&result)[kSharedNameSize]) {
    if (name == nullptr || *name == 0)
        return false;
    int length = std::snprintf(result, sizeof result, "/kal.%u.", static_cast<unsigned>(hostCalls.geteuid()));
    for (const char* c = name; *c != 0; c++) {
        const bool plain = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9') ||
                           std::strchr(" .-_", *c) != nullptr;
        const int room = kSharedNameSize - length;
        const int added = std::snprintf(result + length, static_cast<size_t>(room), plain ? "%c" : "%%%02X",
                                        plain ? *c : static_cast<int>(static_cast<unsigned char>(*c)));
        if (added >= room)
            return false;
        length += added;
    }
    return true;
}

int holdSharedObject(const char* objectName) {
    for (int tries = 0; tries < kTries; tries++) {
        const int fd = hostCalls.shm_open(objectName, O_RDWR, 0);
        if (fd < 0)
            return -1;
        const Holding holding = tryToHold(fd);
        if (holding == Holding::held)
            return fd;
        if (holding == Holding::stale)
            hostCalls.shm_unlink(objectName);
        hostCalls.close(fd);
        if (holding == Holding::stale)
            return -1;
        hostCalls.sched_yield();
    }
    return -1;
}

int makeSharedObject(const char* objectName, uint32_t size) {
    if (size == 0)
        return -1;
    for (int tries = 0; tries < kTries; tries++) {
        const int fd = hostCalls.shm_open(objectName, O_RDWR | O_CREAT, 0600);
        if (fd < 0)
            return -1;
        const Holding holding = tryToHold(fd);
        if (holding == Holding::held)
            return fd;
        if (holding == Holding::stale) {
            if (!setSize(fd, size)) {
                hostCalls.shm_unlink(objectName);
                hostCalls.close(fd);
                return -1;
            }
            // Changing the lock lets go of it for a moment, in which another process may find the object stale.
            if (setLock(fd, LOCK_SH) && isCurrent(fd))
                return fd;
        }
        hostCalls.close(fd);
        hostCalls.sched_yield();
    }
    return -1;
}

void releaseSharedObject(int fd, const char* objectName) {
    if (setLock(fd, LOCK_EX | LOCK_NB) && isCurrent(fd))
        hostCalls.shm_unlink(objectName);
    hostCalls.close(fd);
}

uint64_t sharedObjectSize(int fd) {
    struct stat state;
    return hostCalls.fstat(fd, &state) == 0 && state.st_size > 0 ? static_cast<uint64_t>(state.st_size) : 0;
}
