#include "platform/compound/host_file.h"

#include "platform/host_calls.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace compound {

namespace {

// Never waits on a pipe or a terminal that bears the name.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// How far ahead of the need room is set aside: a quarter of the file, within these bounds.
constexpr uint64_t kLeastAhead = 64 * 1024;
constexpr uint64_t kMostAhead = 4 * 1024 * 1024;

HRESULT resultOfErrno() {
    switch (errno) {
    case ENOENT:
    case ENOTDIR:
        return STG_E_FILENOTFOUND;
    case EEXIST:
        return STG_E_FILEALREADYEXISTS;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return STG_E_MEDIUMFULL;
    default:
        return STG_E_ACCESSDENIED;
    }
}

} // namespace

HostFile::~HostFile() {
    if (fd_ >= 0)
        hostCalls.close(fd_);
}

HRESULT HostFile::take(int fd, bool writable) {
    if (fd < 0)
        return resultOfErrno();
    struct stat state;
    const bool locked = setLock(fd, (writable ? LOCK_EX : LOCK_SH) | LOCK_NB);
    if (!locked || hostCalls.fstat(fd, &state) != 0 || !S_ISREG(state.st_mode)) {
        hostCalls.close(fd);
        return locked ? STG_E_ACCESSDENIED : STG_E_SHAREVIOLATION;
    }
    fd_ = fd;
    writable_ = writable;
    length_ = static_cast<uint64_t>(state.st_size);
    return S_OK;
}

HRESULT HostFile::open(const char* hostPath, bool writable) {
    return take(hostCalls.open(hostPath, (writable ? O_RDWR : O_RDONLY) | kOpenFlags, 0), writable);
}

HRESULT HostFile::create(const char* hostPath, bool replace) {
    HRESULT result = take(hostCalls.open(hostPath, O_RDWR | O_CREAT | O_EXCL | kOpenFlags, 0666), true);
    made_ = result == S_OK;
    if (result != STG_E_FILEALREADYEXISTS || !replace)
        return result;
    result = take(hostCalls.open(hostPath, O_RDWR | O_CREAT | kOpenFlags, 0666), true);
    if (result == S_OK && !truncate(0))
        return STG_E_ACCESSDENIED;
    return result;
}

void HostFile::abandon(const char* hostPath) {
    if (made_)
        hostCalls.unlink(hostPath);
}

Moved HostFile::read(uint64_t position, void* destination, size_t count) const {
    return readAllAt(fd_, destination, count, static_cast<off_t>(position));
}

Moved HostFile::write(uint64_t position, const void* source, size_t count) {
    const Moved moved = writeAllAt(fd_, source, count, static_cast<off_t>(position));
    length_ = std::max(length_, position + moved.count);
    return moved;
}

bool HostFile::reserve(uint64_t length) {
    if (length <= length_)
        return true;
    const uint64_t ahead = length_ + std::clamp(length_ / 4, kLeastAhead, kMostAhead);
    return (ahead > length && extend(ahead)) || extend(length);
}

bool HostFile::extend(uint64_t length) {
    const uint64_t before = length_;
    if (setAside(fd_, static_cast<off_t>(before), static_cast<off_t>(length - before))) {
        length_ = length;
        return true;
    }
    if (errno == EOPNOTSUPP || errno == ENOSYS) {
        // A file system that cannot set room aside: bytes written take it.
        static const uint8_t zeros[64 * 1024] = {};
        while (length_ < length) {
            const auto step = static_cast<size_t>(std::min<uint64_t>(sizeof zeros, length - length_));
            if (write(length_, zeros, step).count != step)
                break;
        }
        if (length_ == length)
            return true;
    }
    truncate(before); // what a failed attempt may have added
    return false;
}

bool HostFile::truncate(uint64_t length) {
    if (hostCalls.ftruncate(fd_, static_cast<off_t>(length)) != 0)
        return false;
    length_ = length;
    return true;
}

} // namespace compound
