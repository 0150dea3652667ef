#include "tools/file.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/progress.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

[[noreturn]] void failByHost() {
    throw Failure(hostErrorText(errno));
}

// Writes all of `bytes`, in as many calls as the host wants.
template <class Write>
void writeAll(ByteView bytes, Write write) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = write(bytes.subspan(done), done);
        if (count < 0 && errno != EINTR)
            failByHost();
        if (count > 0)
            done += static_cast<size_t>(count);
    }
}

} // namespace

File& File::operator=(File&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
}

File::~File() {
    if (isOpen())
        ::close(handle_);
}

int File::release() {
    return std::exchange(handle_, -1);
}

File File::openIfThere(const std::string& path, int flags) {
    // Without waiting for a partner, should it be a pipe.
    File file(::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.isOpen()) {
        if (errno == ENOENT)
            return file;
        failByHost();
    }
    struct stat facts = {};
    if (::fstat(file.handle(), &facts) != 0)
        failByHost();
    if (!S_ISREG(facts.st_mode))
        throw Failure("not a regular file");
    return file;
}

uint64_t File::size() const {
    struct stat facts = {};
    if (::fstat(handle_, &facts) != 0)
        failByHost();
    return static_cast<uint64_t>(facts.st_size);
}

size_t File::readUpTo(uint64_t offset, uint8_t* to, size_t count) const {
    size_t done = 0;
    while (done < count) {
        const ssize_t got = ::pread(handle_, to + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            failByHost();
        if (got == 0)
            break;
        done += static_cast<size_t>(got);
    }
    Progress::add(done);
    return done;
}

std::vector<uint8_t> File::readAt(uint64_t offset, size_t count) const {
    std::vector<uint8_t> bytes(count);
    bytes.resize(readUpTo(offset, bytes.data(), count));
    return bytes;
}

void File::readExactly(uint64_t offset, uint8_t* to, size_t count) const {
    if (readUpTo(offset, to, count) != count)
        throw Failure("it grew shorter while it was read");
}

void File::writeAt(uint64_t offset, ByteView bytes) const {
    writeAll(bytes, [&](ByteView rest, size_t done) {
        return ::pwrite(handle_, rest.data(), rest.size(), static_cast<off_t>(offset + done));
    });
}

void File::append(ByteView bytes) const {
    writeAll(bytes, [&](ByteView rest, size_t) { return ::write(handle_, rest.data(), rest.size()); });
}

// --- New files -----------------------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

std::string folderOf(const std::string& path) {
    const std::string folder = fs::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

// What names beside `path` begin with.
std::string besidePrefix(const std::string& path) {
    return "." + fs::path(path).filename().string() + ".kal-";
}

// A living program holds a lock on its file.
void removeDead(const std::string& path) {
    const std::string prefix = besidePrefix(path);
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folderOf(path), ignored)) {
        if (entry.path().filename().string().rfind(prefix, 0) != 0)
            continue;
        const File file(::open(entry.path().c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (file.isOpen() && ::flock(file.handle(), LOCK_EX | LOCK_NB) == 0)
            ::unlink(entry.path().c_str());
    }
}

} // namespace

NewFile::NewFile(const std::string& path)
    : path_(path), file_(::open(folderOf(path).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666)) {
    if (!file_.isOpen()) {
        removeDead(path);
        makeBeside();
    }
}

NewFile::~NewFile() {
    removeBeside();
}

void NewFile::removeBeside() {
    if (!beside_.empty())
        ::unlink(beside_.c_str());
    beside_.clear();
}

// Makes the file under a name of its own, or gives that name to a file that has none.
void NewFile::makeBeside() {
    const std::string start = folderOf(path_) + "/" + besidePrefix(path_) + std::to_string(::getpid()) + "-";
    for (int number = 0; beside_.empty(); number++) {
        std::string name = start + std::to_string(number);
        if (!file_.isOpen()) {
            File made(::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
            if (made.isOpen()) {
                ::flock(made.handle(), LOCK_EX | LOCK_NB);
                file_ = std::move(made);
                beside_.swap(name);
            }
        } else if (::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(file_.handle())).c_str(), AT_FDCWD,
                            name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            beside_.swap(name);
        }
        if (beside_.empty() && errno != EEXIST)
            failByHost();
    }
}

bool NewFile::place() {
    const std::string from = beside_.empty() ? "/proc/self/fd/" + std::to_string(file_.handle()) : beside_;
    if (::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        removeBeside();
        return true;
    }
    if (errno == EEXIST)
        return false;
    // A file system without links.
    if (beside_.empty() ||
        ::renameat2(AT_FDCWD, beside_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST)
            return false;
        failByHost();
    }
    beside_.clear();
    return true;
}

void NewFile::replace() {
    if (beside_.empty() && place())
        return;
    if (beside_.empty())
        makeBeside();
    if (std::rename(beside_.c_str(), path_.c_str()) != 0)
        failByHost();
    beside_.clear();
}

bool waitUntil(const std::function<bool()>& isFree) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::seconds(waitSeconds);
    while (!isFree()) {
        throwIfInterrupted();
        if (Clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
