#include "fuzz/memory_host.h"

#include "platform/heap_faults.h"
#include "platform/host_calls.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/mman.h>

namespace memoryHost {

namespace {

constexpr size_t kDisk = 200 << 10; // the most bytes of a file
constexpr uid_t kUser = 1000;

struct Open {
    std::shared_ptr<Bytes> bytes;
    std::string path;
    off_t position = 0;
};

std::map<std::string, std::shared_ptr<Bytes>> files; // a folder is one, too, of which only the name counts
std::map<int, Open> opened;

int fail(int error) {
    wasFull = wasFull || error == ENOSPC;
    errno = error;
    return -1;
}

std::string pathAt(int folder, const char* path) {
    const auto found = opened.find(folder);
    return found == opened.end() || *path == '/' ? path : found->second.path + "/" + path;
}
Bytes& bytesOf(int fd) {
    return *opened.at(fd).bytes;
}

int openAt(int folder, const char* name, int flags, mode_t = 0) {
    const std::string path = pathAt(folder, name);
    const bool makes = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_DIRECTORY;
    if (files.count(path) != 0 ? (flags & O_EXCL) != 0 : !makes)
        return fail(makes ? EEXIST : ENOENT);
    if (folder >= kFirst) // what is mapped of a log, of 64 KiB and some more, stays where it is
        file(path).reserve(kDisk / 2);
    file(path);
    static int last = kFirst;
    opened[++last] = {files[path], path};
    return last;
}

ssize_t readAt(int fd, void* to, size_t count, off_t offset) {
    const Bytes& bytes = bytesOf(fd);
    const size_t at = std::min(static_cast<size_t>(offset), bytes.size());
    count = std::min(count, bytes.size() - at);
    std::copy_n(bytes.data() + at, count, static_cast<uint8_t*>(to));
    return static_cast<ssize_t>(count);
}
int resize(int fd, off_t size, bool shrinks) {
    const auto count = static_cast<size_t>(size);
    if (count > kDisk)
        return fail(ENOSPC);
    bytesOf(fd).resize(shrinks ? count : std::max(count, bytesOf(fd).size()));
    return 0;
}
ssize_t writeAt(int fd, const void* from, size_t count, off_t offset) {
    count = std::min(count, kDisk - std::min(static_cast<size_t>(offset), kDisk));
    if (count == 0)
        return fail(ENOSPC);
    resize(fd, offset + static_cast<off_t>(count), false);
    std::memcpy(&bytesOf(fd)[static_cast<size_t>(offset)], from, count);
    return static_cast<ssize_t>(count);
}
template <class At, class Place>
ssize_t moveOn(At at, int fd, Place place, size_t count) {
    off_t& position = opened.at(fd).position;
    const ssize_t moved = at(fd, place, count, position);
    position += std::max<ssize_t>(moved, 0);
    return moved;
}

int describe(const std::shared_ptr<Bytes>& bytes, struct stat* result) {
    *result = {};
    result->st_mode = S_IFREG | 0600;
    result->st_size = static_cast<off_t>(bytes->size());
    result->st_nlink = 1;
    result->st_uid = kUser;
    result->st_ino = reinterpret_cast<uintptr_t>(bytes.get());
    return 0;
}
int describeAt(int folder, const char* name, struct stat* result, int) {
    const auto found = files.find(pathAt(folder, name));
    return found == files.end() ? fail(ENOENT) : describe(found->second, result);
}

int removeAt(int folder, const char* name, int) {
    return files.erase(pathAt(folder, name)) == 1 ? 0 : fail(ENOENT);
}
int renameAt(int fromFolder, const char* from, int toFolder, const char* to) {
    auto node = files.extract(pathAt(fromFolder, from));
    if (node.empty())
        return fail(ENOENT);
    removeAt(toFolder, to, 0);
    node.key() = pathAt(toFolder, to);
    files.insert(std::move(node));
    return 0;
}

void takePlaceOfHost() {
    hostCalls.open = [](const char* path, int flags, mode_t) { return openAt(-1, path, flags); };
    hostCalls.openat = openAt;
    hostCalls.shm_open = hostCalls.open;
    hostCalls.close = [](int fd) { return opened.erase(fd) == 1 ? 0 : fail(EBADF); };
    hostCalls.pread = readAt;
    hostCalls.pwrite = writeAt;
    hostCalls.read = [](int fd, void* to, size_t count) { return moveOn(readAt, fd, to, count); };
    hostCalls.write = [](int fd, const void* from, size_t count) { return moveOn(writeAt, fd, from, count); };
    hostCalls.lseek = [](int fd, off_t offset, int origin) -> off_t {
        off_t& position = opened.at(fd).position;
        const auto end = static_cast<off_t>(bytesOf(fd).size());
        offset += origin == SEEK_CUR ? position : origin == SEEK_END ? end : 0;
        return offset < 0 ? fail(EINVAL) : position = offset;
    };
    hostCalls.fstat = [](int fd, struct stat* result) { return describe(opened.at(fd).bytes, result); };
    hostCalls.stat = [](const char* path, struct stat* result) { return describeAt(-1, path, result, 0); };
    hostCalls.fstatat = describeAt;
    hostCalls.access = [](const char* path, int) { return files.count(path) != 0 ? 0 : fail(ENOENT); };
    hostCalls.mkdir = [](const char* path, mode_t) { return file(path), 0; };
    hostCalls.mkdirat = [](int, const char*, mode_t) { return 0; };
    hostCalls.unlink = [](const char* path) { return removeAt(-1, path, 0); };
    hostCalls.unlinkat = removeAt;
    hostCalls.shm_unlink = hostCalls.unlink;
    hostCalls.renameat = renameAt;
    hostCalls.opendir = [](const char*) { return errno = ENOENT, static_cast<DIR*>(nullptr); };
    hostCalls.realpath = [](const char* path, char* to) { return std::strncpy(to, path, PATH_MAX - 1); };
    hostCalls.ftruncate = [](int fd, off_t size) { return resize(fd, size, true); };
    hostCalls.fallocate = [](int fd, int, off_t at, off_t count) { return resize(fd, at + count, false); };
    hostCalls.geteuid = [] { return kUser; };
    hostCalls.getpid = [] { return pid_t{1000}; };
    hostCalls.fsync = [](int) { return 0; };
    hostCalls.flock = [](int, int) { return 0; };
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) -> void* {
        return fd < 0 ? ::mmap(at, size, protection, flags, fd, offset) : bytesOf(fd).data();
    };
    hostCalls.munmap = [](void* at, size_t size) {
        const auto holds = [at](const auto& file) { return file.second.bytes->data() == at; };
        return std::any_of(opened.begin(), opened.end(), holds) ? 0 : ::munmap(at, size);
    };
}

// As many blocks of the heap live as behind the first input. Counted now and then, since it takes long.
void countBlocks() {
    static const uint64_t first = liveHeapBlocks();
    static uint32_t inputs;
    inputs++;
    require((inputs > 32 && inputs % 64 != 0) || liveHeapBlocks() == first, "no block is lost");
}

} // namespace

Bytes& file(const std::string& path) {
    std::shared_ptr<Bytes>& bytes = files[path];
    if (bytes == nullptr)
        bytes = std::make_shared<Bytes>();
    return *bytes;
}

} // namespace memoryHost

// Leaks are found by counting blocks; the search for them would not follow pointers in packed records.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options() {
    return "detect_leaks=0:malloc_context_size=3:quarantine_size_mb=16:use_sigaltstack=0";
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace memoryHost;
    takePlaceOfHost();
    std::erase_if(files, [](const auto& file) { return file.first.rfind("/kal.", 0) != 0; }); // but mappings
    wasFull = false;
    fuzz(Input({data, size}));
    if (countsBlocks)
        countBlocks();
    return 0;
}
