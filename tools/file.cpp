#include "tools/file.h"

#include "tools/failure.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
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

std::vector<uint8_t> File::readAt(uint64_t offset, size_t count) const {
    std::vector<uint8_t> bytes(count);
    size_t done = 0;
    while (done < count) {
        const ssize_t got =
            ::pread(handle_, bytes.data() + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            failByHost();
        if (got == 0)
            break;
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

void File::writeAt(uint64_t offset, ByteView bytes) const {
    writeAll(bytes, [&](ByteView rest, size_t done) {
        return ::pwrite(handle_, rest.data(), rest.size(), static_cast<off_t>(offset + done));
    });
}

void File::append(ByteView bytes) const {
    writeAll(bytes, [&](ByteView rest, size_t) { return ::write(handle_, rest.data(), rest.size()); });
}

File createBeside(const std::string& path, std::string& name) {
    std::string candidate = path + ".XXXXXX";
    File file(::mkostemp(candidate.data(), O_CLOEXEC));
    if (!file.isOpen())
        failByHost();
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(file.handle(), 0666 & ~mask);
    name = candidate;
    return file;
}
