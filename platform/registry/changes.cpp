#include "platform/registry/changes.h"

#include "platform/host_calls.h"

#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>

namespace {

constexpr const char* kFileName = ".changes";
constexpr size_t kFileSize = kChangeCounters * sizeof(uint32_t);
static_assert(std::atomic<uint32_t>::is_always_lock_free &&
              sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

// Every block of the file must be there: a store into a hole of a full disk kills the process. Under the
// lock, so that nobody writes zeros over counters that are in use.
bool fill(int fd) {
    struct stat found;
    if (hostCalls.fstat(fd, &found) != 0)
        return false;
    if (found.st_size >= off_t(kFileSize))
        return true;
    static const char zeros[kFileSize] = {};
    const size_t missing = kFileSize - static_cast<size_t>(found.st_size);
    if (hostCalls.lseek(fd, found.st_size, SEEK_SET) < 0)
        return false;
    const ssize_t written = hostCalls.write(fd, zeros, missing);
    if (written >= 0 && static_cast<size_t>(written) < missing)
        errno = ENOSPC;
    return written == static_cast<ssize_t>(missing);
}

// How often this process is the child of a fork.
int forks;

void watchForks() {
    static const int watched = pthread_atfork(nullptr, nullptr, [] { forks++; });
    static_cast<void>(watched);
}

int lockFile(int fd) {
    while (hostCalls.flock(fd, LOCK_EX) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

bool unlockFile(int fd) {
    while (hostCalls.flock(fd, LOCK_UN) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

void* mapFile(int fd, bool writable) {
    errno = lockFile(fd);
    if (errno != 0)
        return MAP_FAILED;
    const bool whole = fill(fd);
    const int error = errno;
    const bool unlocked = unlockFile(fd);
    errno = whole ? errno : error;
    return whole && unlocked
               ? hostCalls.mmap(nullptr, kFileSize, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                                fd, 0)
               : MAP_FAILED;
}

} // namespace

RegistryChanges::Counter RegistryChanges::none_[kChangeCounters];

int RegistryChanges::attach(int folder) {
    detach();
    watchForks();
    writable_ = true;
    int fd = hostCalls.openat(folder, kFileName, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && (errno == EROFS || errno == EACCES)) {
        writable_ = false;
        fd = hostCalls.openat(folder, kFileName, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
    }
    if (fd < 0)
        return errno;
    void* map = mapFile(fd, writable_);
    if (map == MAP_FAILED) {
        const int error = errno;
        hostCalls.close(fd);
        return error;
    }
    counters_ = static_cast<Counter*>(map);
    fd_ = fd;
    forks_ = forks;
    return 0;
}

void RegistryChanges::detach() {
    if (fd_ < 0)
        return;
    hostCalls.munmap(counters_, kFileSize);
    hostCalls.close(fd_);
    counters_ = none_;
    fd_ = -1;
}

bool RegistryChanges::orphaned() const {
    struct stat found;
    return inherited() || hostCalls.fstat(fd_, &found) != 0 || found.st_nlink == 0;
}

bool RegistryChanges::inherited() const {
    return forks_ != forks;
}

int RegistryChanges::hold() {
    if (fd_ < 0)
        return ENOENT;
    if (inherited())
        return ESTALE; // the lock belongs to the open file, which is the parent's too
    if (const int error = lockFile(fd_))
        return error;
    if (orphaned()) {
        release();
        return ESTALE;
    }
    if (writable_ && sequence() % 2 != 0)
        end(); // of a change whose writer died
    return 0;
}

void RegistryChanges::release() {
    if (fd_ >= 0 && !unlockFile(fd_))
        detach(); // closing gives the lock up too
}

int RegistryChanges::begin() {
    if (!writable_)
        return EROFS;
    counters_[0].fetch_add(1);
    return 0;
}
