#include "platform/registry/log.h"

#include "platform/host_calls.h"
#include "platform/host_io.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>

namespace {

constexpr const char* kFileName = "log";
constexpr const char* kNewFile = "log.new";
constexpr uint32_t kShortLog = 64 << 10; // not worth writing anew
constexpr int kOtherFile = -1;           // the log's name leads to another file
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);

int makeFolders(const char* path) {
    char part[PATH_MAX];
    int error = ENOENT;
    for (size_t i = 1; i <= std::strlen(path); i++)
        if (path[i] == '/' || path[i] == 0) {
            part[std::string_view(path).copy(part, i)] = 0;
            error = hostCalls.mkdirat(AT_FDCWD, part, 0700) == 0 || errno == EEXIST ? 0 : errno;
        }
    return error;
}

int errorOf(const Moved& moved, size_t wanted) {
    return moved.count == wanted ? 0 : moved.failed ? errno : ENOSPC;
}

// Writes a log. Every block must be there: a store into a hole of a full disk kills the process.
int writeLog(int fd, uint32_t number, const Array<char>& records) {
    const auto bytes = static_cast<uint32_t>(records.size());
    const uint32_t header[kHeaderBytes / 4] = {kMagic, kVersion, number, kHeaderBytes + bytes};
    const int error = errorOf(writeAllAt(fd, records.data(), bytes, kHeaderBytes), bytes);
    return error != 0 ? error : errorOf(writeAllAt(fd, header, sizeof header, 0), sizeof header);
}

// 0 for a log, ENODATA for one that nobody finished making, EIO for anything else.
int examine(int fd) {
    uint32_t header[kHeaderBytes / 4] = {};
    const Moved got = readAllAt(fd, header, sizeof header, 0);
    if (got.failed)
        return errno;
    if (header[0] == 0 || (header[0] == kMagic && got.count < sizeof header))
        return ENODATA;
    return header[0] == kMagic && header[1] == kVersion ? 0 : EIO;
}

} // namespace

// The descriptor, or -1. What is a link or another user's is not opened.
int RegistryLog::openOwn(int folder, const char* name, int flags) {
    const int fd = untilDone(
        [&] { return hostCalls.openat(folder, name, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600); });
    struct stat found = {};
    const bool isKnown = fd >= 0 && hostCalls.fstat(fd, &found) == 0;
    // In a folder that everybody may write another user could be let into one's own.
    const bool isOpen = index_ == kVolatile && (found.st_mode & 077) != 0;
    const bool isPlain = S_ISREG(found.st_mode) || S_ISDIR(found.st_mode);
    if (isKnown && found.st_uid == hostCalls.geteuid() && !isOpen && isPlain)
        return fd;
    const int error = isKnown ? EACCES : errno;
    if (fd >= 0)
        hostCalls.close(fd);
    errno = error;
    return -1;
}

int RegistryLog::open() {
    const int notMade = makeFolders(folder_);
    folderFd_ = openOwn(AT_FDCWD, folder_, O_RDONLY | O_DIRECTORY);
    if (folderFd_ < 0)
        return notMade != 0 ? notMade : errno;
    fd_ = openOwn(folderFd_, kFileName, O_RDWR | O_CREAT);
    writable_ = fd_ >= 0;
    if (!writable_ && (errno == EROFS || errno == EACCES))
        fd_ = openOwn(folderFd_, kFileName, O_RDONLY);
    if (fd_ < 0)
        return errno;
    int error = examine(fd_);
    if (error == ENODATA && writable_) {
        // Somebody is just making it, or died over it: the lock tells which.
        error = setLock(fd_, LOCK_EX) ? examine(fd_) : errno;
        if (error == ENODATA)
            error = writeLog(fd_, 1, {});
        unlock();
    }
    if (error != 0)
        return error;
    void* map = hostCalls.mmap(nullptr, kHeaderBytes, writable_ ? PROT_READ | PROT_WRITE : PROT_READ,
                               MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED)
        return errno;
    header_ = static_cast<std::atomic<uint32_t>*>(map);
    return 0;
}

int RegistryLog::attach() {
    detach();
    changes++;
    forks_ = forks;
    end_ = kHeaderBytes;
    lookAt_ = kShortLog;
    error_ = open();
    if (error_ != 0)
        detach();
    return error_;
}

void RegistryLog::detach() {
    if (header_ != nullptr)
        hostCalls.munmap(header_, kHeaderBytes);
    if (fd_ >= 0)
        hostCalls.close(fd_);
    if (folderFd_ >= 0)
        hostCalls.close(folderFd_);
    header_ = nullptr;
    fd_ = folderFd_ = -1;
    tree_.forget(index_);
}

void RegistryLog::look() {
    struct stat found;
    if (header_ == nullptr || hostCalls.fstat(fd_, &found) != 0 || found.st_nlink == 0)
        attach();
}

int RegistryLog::read() {
    const uint32_t committed = word() & ~kReplaced;
    if (committed <= end_)
        return 0;
    uint32_t bytes = committed - end_;
    struct stat found;
    // A damaged header may claim anything.
    if (bytes > kShortLog && hostCalls.fstat(fd_, &found) == 0)
        bytes = static_cast<uint32_t>(std::clamp<int64_t>(found.st_size - end_, 0, bytes));
    Array<char> stored;
    if (!stored.reserve(bytes))
        return ENOMEM;
    const Moved got = readAllAt(fd_, stored.data(), bytes, off_t{end_});
    if (got.failed)
        return errno;
    std::string_view rest = {stored.data(), got.count};
    for (RegistryRecord record; record.load(header_[kNumber], rest); rest.remove_prefix(record.length()))
        if (!apply(record))
            return ENOMEM;
    return 0;
}

bool RegistryLog::apply(const RegistryRecord& record) {
    changes++;
    const bool isApplied = tree_.apply(index_, record);
    end_ += isApplied ? record.length() : 0;
    return isApplied;
}

int RegistryLog::refresh() {
    if (header_ == nullptr || word() == end_)
        return 0;
    // Waits for no lock: the other log's may be held. Until another file has the name this one tells all.
    const int error = isReplaced() && isGone() ? attach() : 0;
    return error != 0 ? error : read();
}

// Whether the log's name leads to another file.
bool RegistryLog::isGone() const {
    struct stat own, named;
    if (index_ == kVolatile && !isReplaced())
        return false; // what is lost with its folder does not outlive it anyway
    return hostCalls.fstat(fd_, &own) != 0 || own.st_nlink == 0 ||
           (isReplaced() && (hostCalls.fstatat(folderFd_, kFileName, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
                             named.st_ino != own.st_ino || named.st_dev != own.st_dev));
}

// Once locked: takes in what others wrote. kOtherFile when the lock is to be taken on another file.
int RegistryLog::settle() {
    if (isGone())
        return kOtherFile;
    if (isReplaced() && writable_)
        header_[kCommitted] = word() & ~kReplaced; // whoever was about to replace it died
    const int error = read();
    const bool isDamaged = word() != end_;
    if (error != 0 || !writable_ || !(isDamaged || end_ >= lookAt_))
        return error;
    const uint64_t live = tree_.pack(index_);
    lookAt_ = static_cast<uint32_t>(std::clamp<uint64_t>(live * 2, kShortLog, kReplaced - 1));
    const int failed = isDamaged || end_ > lookAt_ ? rewrite(live) : 0;
    return isDamaged || failed == kOtherFile ? failed : 0;
}

int RegistryLog::lock() {
    int error = header_ != nullptr && forks_ == forks ? 0 : attach();
    while (error == 0) {
        error = setLock(fd_, LOCK_EX) ? settle() : errno;
        if (error == 0)
            break;
        unlock();
        if (error == kOtherFile)
            error = attach();
    }
    return error;
}

void RegistryLog::unlock() {
    setLock(fd_, LOCK_UN);
}

int RegistryLog::append(std::initializer_list<RegistryRecord> records) {
    if (const int error = writable())
        return error;
    Array<char> stored;
    for (const RegistryRecord& record : records)
        if (!record.store(header_[kNumber], stored))
            return ENOMEM;
    const auto bytes = static_cast<uint32_t>(stored.size());
    if (bytes >= kReplaced - end_)
        return EFBIG;
    if (const int error = errorOf(writeAllAt(fd_, stored.data(), bytes, off_t{end_}), bytes))
        return error;
    header_[kCommitted] = end_ + bytes;
    for (const RegistryRecord& record : records)
        if (!apply(record))
            break; // the rest is read when memory is there
    return 0;
}

// Puts a file with the fewest records, of so many bytes, in this one's place: then kOtherFile.
int RegistryLog::rewrite(uint64_t live) {
    Array<char> records;
    if (!records.reserve(live))
        return ENOMEM;
    tree_.pack(index_, header_[kNumber] + 1, &records);
    hostCalls.unlinkat(folderFd_, kNewFile, 0); // of a writer that died
    const int fd = openOwn(folderFd_, kNewFile, O_RDWR | O_CREAT | O_EXCL);
    int error = fd < 0 ? errno : writeLog(fd, header_[kNumber] + 1, records);
    // After a power cut the new file must not be there without what is in it.
    if (error == 0 && hostCalls.fsync(fd) != 0)
        error = errno;
    if (error == 0) {
        // Marked first: a process that found the old word after the renaming would never look again.
        header_[kCommitted] = word() | kReplaced;
        error = hostCalls.renameat(folderFd_, kNewFile, folderFd_, kFileName) == 0 ? kOtherFile : errno;
    }
    if (fd >= 0)
        hostCalls.close(fd);
    if (error != kOtherFile) {
        header_[kCommitted] = word() & ~kReplaced;
        hostCalls.unlinkat(folderFd_, kNewFile, 0);
    }
    return error;
}
