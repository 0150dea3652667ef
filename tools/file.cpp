#include "tools/file.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/manners.h"
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

namespace fs = std::filesystem;

constexpr size_t pieceBytes = 1U << 16;

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

File copyOfStandardInput() {
    File copy = File::temporary();
    std::vector<uint8_t> piece(pieceBytes);
    for (ssize_t got = 1; got != 0;) {
        throwIfInterrupted();
        got = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (got < 0 && errno != EINTR)
            failByHost();
        if (got > 0)
            copy.append(ByteView(piece).first(static_cast<size_t>(got)));
    }
    return copy;
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

File File::toRead(const std::string& path) {
    if (path == "-") {
        static const File copy = copyOfStandardInput();
        File again(::fcntl(copy.handle(), F_DUPFD_CLOEXEC, 3));
        if (!again.isOpen())
            failByHost();
        return again;
    }
    File file = openIfThere(path, O_RDONLY);
    if (!file.isOpen())
        throw Failure(hostErrorText(ENOENT));
    return file;
}

File File::temporary() {
    NewFile made((fs::temp_directory_path() / "file").string());
    return std::move(made.file());
}

namespace {

// Whether the open file is the one of this name.
bool isAt(const std::string& path, const File& file) {
    struct stat open = {}, there = {};
    return ::fstat(file.handle(), &open) == 0 && ::stat(path.c_str(), &there) == 0 &&
           open.st_ino == there.st_ino && open.st_dev == there.st_dev;
}

} // namespace

File File::openLocked(const std::string& path, int flags, int lockKind) {
    return named(path, [&] {
        File file = openIfThere(path, flags);
        while (file.isOpen()) {
            if (!waitUntil(path, [&] {
                    return ::flock(file.handle(), lockKind | LOCK_NB) == 0 || errno != EWOULDBLOCK;
                }))
                throw Failure("in use");
            if (isAt(path, file))
                break;
            file = openIfThere(path, flags);
        }
        return file;
    });
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

void File::forPieces(uint64_t offset, uint64_t count, const std::function<void(ByteView)>& take) const {
    std::vector<uint8_t> piece;
    for (; count > 0; count -= piece.size(), offset += piece.size()) {
        throwIfInterrupted();
        piece.resize(static_cast<size_t>(std::min<uint64_t>(count, pieceBytes)));
        readExactly(offset, piece.data(), piece.size());
        take(piece);
    }
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

void makeNewFile(const std::string& path, const std::function<void(const File&)>& fill) {
    named(path, [&] {
        if (File::openIfThere(path, O_PATH).isOpen())
            throw Failure(hostErrorText(EEXIST));
        NewFile made(path);
        fill(made.file());
        if (!made.place())
            throw Failure(hostErrorText(EEXIST));
    });
}

bool waitUntil(const std::string& name, const std::function<bool()>& isFree) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    for (bool told = false; !isFree();) {
        throwIfInterrupted();
        const auto waited = Clock::now() - start;
        if (waited >= std::chrono::seconds(waitSeconds))
            return false;
        if (waited >= std::chrono::seconds(1) && !std::exchange(told, true))
            tell(name + ": in use; waiting for it");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
