#include "fuzz/memory_host.h"

#include "platform/heap_faults.h"
#include "platform/host_calls.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/mman.h>

namespace memoryHost {

namespace {

constexpr off_t kDisk = 200 << 10;   // the most bytes of a file
constexpr size_t kGrowth = 16 << 10; // and of what is put to one that is mapped
constexpr uid_t kUser = 1000;

// What is mapped of a file stays where it is: its bytes have room to grow, or its size never changes, and then nothing but
// its bytes can be touched.
struct Node {
    bool isFolder = false;
    off_t most = kDisk;
    nlink_t links = 1;
    Bytes bytes = {};
};
struct Open {
    std::shared_ptr<Node> node;
    std::string path;
    size_t position;
};

std::map<std::string, std::shared_ptr<Node>> nodes;
std::map<int, Open> opened;
bool refused = false;

template <class Result = int>
Result fail(int error) {
    refused = refused || error == ENOSPC;
    errno = error;
    return static_cast<Result>(-1);
}

std::string pathAt(int folder, const char* path) {
    const auto found = opened.find(folder);
    return found == opened.end() || *path == '/' ? path : found->second.path + "/" + path;
}

Node& nodeOf(int fd) {
    return *opened.at(fd).node;
}

int openFile(const std::string& path, int flags) {
    const bool isThere = nodes.count(path) != 0;
    if (!isThere && (flags & O_CREAT) == 0)
        return fail(ENOENT);
    if (isThere && (flags & O_EXCL) != 0)
        return fail(EEXIST);
    const std::shared_ptr<Node> node = isThere ? nodes[path] : nodes[path] = std::make_shared<Node>();
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    if (node->isFolder ? writes : (flags & O_DIRECTORY) != 0)
        return fail(node->isFolder ? EISDIR : ENOTDIR);
    if ((flags & O_TRUNC) != 0)
        node->bytes.clear();
    int fd = kFirst;
    while (opened.count(fd) != 0)
        fd++;
    opened[fd] = {node, path, 0};
    return fd;
}

ssize_t readAt(int fd, void* to, size_t count, off_t offset) {
    const Bytes& bytes = nodeOf(fd).bytes;
    const size_t at = std::min(static_cast<size_t>(offset), bytes.size());
    count = std::min(count, bytes.size() - at);
    if (count > 0)
        std::memcpy(to, &bytes[at], count);
    return static_cast<ssize_t>(count);
}
int resize(int fd, off_t size, bool shrinks) {
    Bytes& bytes = nodeOf(fd).bytes;
    if (size > nodeOf(fd).most)
        return fail(ENOSPC);
    if (shrinks || static_cast<size_t>(size) > bytes.size())
        bytes.resize(static_cast<size_t>(size));
    return 0;
}
ssize_t writeAt(int fd, const void* from, size_t count, off_t offset) {
    count = std::min(count, static_cast<size_t>(std::max<off_t>(nodeOf(fd).most - offset, 0)));
    if (count == 0)
        return fail<ssize_t>(ENOSPC);
    resize(fd, offset + static_cast<off_t>(count), false);
    std::memcpy(&nodeOf(fd).bytes[static_cast<size_t>(offset)], from, count);
    return static_cast<ssize_t>(count);
}

int describe(const Node& node, struct stat* result) {
    *result = {};
    result->st_mode = node.isFolder ? S_IFDIR | 0700 : S_IFREG | 0600;
    result->st_size = static_cast<off_t>(node.bytes.size());
    result->st_nlink = node.links;
    result->st_uid = kUser;
    result->st_ino = reinterpret_cast<uintptr_t>(&node);
    return 0;
}
int describeNamed(const std::string& path, struct stat* result) {
    const auto found = nodes.find(path);
    return found == nodes.end() ? fail(ENOENT) : result == nullptr ? 0 : describe(*found->second, result);
}

bool isAddressOfFile(const void* at) {
    const auto holds = [at](const auto& node) { return node.second.node->bytes.data() == at; };
    return std::any_of(opened.begin(), opened.end(), holds);
}

int makeFolder(const std::string& path) {
    if (nodes.count(path) != 0)
        return fail(EEXIST);
    nodes[path] = std::make_shared<Node>(Node{true});
    return 0;
}
int removeName(const std::string& path) {
    const auto found = nodes.find(path);
    if (found == nodes.end())
        return fail(ENOENT);
    found->second->links = 0;
    nodes.erase(found);
    return 0;
}
int rename(const std::string& from, const std::string& to) {
    if (nodes.count(from) == 0)
        return fail(ENOENT);
    removeName(to);
    nodes[to] = nodes[from];
    nodes.erase(from);
    return 0;
}

} // namespace

void start() {
    nodes.clear();
    refused = false;
    hostCalls.open = [](const char* path, int flags, mode_t) { return openFile(path, flags); };
    hostCalls.openat = [](int folder, const char* path, int flags, mode_t) {
        const int fd = openFile(pathAt(folder, path), flags);
        if (fd >= 0 && nodeOf(fd).most == kDisk) {
            nodeOf(fd).most = static_cast<off_t>(nodeOf(fd).bytes.size() + kGrowth);
            nodeOf(fd).bytes.reserve(nodeOf(fd).bytes.size() + kGrowth);
        }
        return fd;
    };
    hostCalls.shm_open = [](const char* name, int flags, mode_t) { return openFile(name, flags); };
    hostCalls.close = [](int fd) { return opened.erase(fd) == 1 ? 0 : fail(EBADF); };
    hostCalls.pread = readAt;
    hostCalls.pwrite = writeAt;
    hostCalls.read = [](int fd, void* to, size_t count) {
        const ssize_t got = readAt(fd, to, count, static_cast<off_t>(opened.at(fd).position));
        opened.at(fd).position += static_cast<size_t>(got);
        return got;
    };
    hostCalls.write = [](int fd, const void* from, size_t count) {
        const ssize_t put = writeAt(fd, from, count, static_cast<off_t>(opened.at(fd).position));
        opened.at(fd).position += static_cast<size_t>(std::max<ssize_t>(put, 0));
        return put;
    };
    hostCalls.lseek = [](int fd, off_t offset, int origin) -> off_t {
        Open& open = opened.at(fd);
        const size_t from = origin == SEEK_CUR   ? open.position
                            : origin == SEEK_END ? open.node->bytes.size()
                                                 : 0;
        const auto to = static_cast<off_t>(from) + offset;
        if (to < 0)
            return fail<off_t>(EINVAL);
        open.position = static_cast<size_t>(to);
        return to;
    };
    hostCalls.fstat = [](int fd, struct stat* result) { return describe(nodeOf(fd), result); };
    hostCalls.stat = [](const char* path, struct stat* result) { return describeNamed(path, result); };
    hostCalls.fstatat = [](int folder, const char* path, struct stat* result, int) {
        return describeNamed(pathAt(folder, path), result);
    };
    hostCalls.access = [](const char* path, int) { return describeNamed(path, nullptr); };
    hostCalls.mkdir = [](const char* path, mode_t) { return makeFolder(path); };
    hostCalls.mkdirat = [](int folder, const char* path, mode_t) { return makeFolder(pathAt(folder, path)); };
    hostCalls.unlink = [](const char* path) { return removeName(path); };
    hostCalls.unlinkat = [](int folder, const char* path, int) { return removeName(pathAt(folder, path)); };
    hostCalls.shm_unlink = [](const char* name) { return removeName(name); };
    hostCalls.renameat = [](int fromFolder, const char* from, int toFolder, const char* to) {
        return rename(pathAt(fromFolder, from), pathAt(toFolder, to));
    };
    hostCalls.opendir = [](const char*) { return errno = ENOENT, static_cast<DIR*>(nullptr); };
    hostCalls.realpath = [](const char* path, char* to) { return std::strncpy(to, path, PATH_MAX - 1); };
    hostCalls.ftruncate = [](int fd, off_t size) { return resize(fd, size, true); };
    hostCalls.fallocate = [](int fd, int, off_t at, off_t count) { return resize(fd, at + count, false); };
    hostCalls.geteuid = [] { return kUser; };
    hostCalls.getpid = [] { return pid_t{1000}; };
    hostCalls.fsync = [](int) { return 0; };
    hostCalls.flock = [](int, int) { return 0; };
    hostCalls.mmap = [](void* at, size_t size, int protection, int flags, int fd, off_t offset) -> void* {
        return fd < 0 ? ::mmap(at, size, protection, flags, fd, offset) : nodeOf(fd).bytes.data();
    };
    hostCalls.munmap = [](void* at, size_t size) { return isAddressOfFile(at) ? 0 : ::munmap(at, size); };
    hostCalls.copy_file_range = [](int, off64_t*, int, off64_t*, size_t, unsigned) {
        return fail<ssize_t>(ENOSYS);
    };
}

Bytes content(const std::string& path) {
    const auto found = nodes.find(path);
    return found != nodes.end() ? found->second->bytes : Bytes();
}

void setContent(const std::string& path, const Bytes& bytes) {
    nodes[path] = std::make_shared<Node>();
    nodes[path]->bytes = bytes;
}

uint8_t* mapped(const std::string& path) {
    const auto found = nodes.find(path);
    return found != nodes.end() ? found->second->bytes.data() : nullptr;
}

bool wasFull() {
    return refused;
}

void countBlocks() {
    static const uint64_t first = liveHeapBlocks();
    static uint32_t inputs;
    inputs++;
    require((inputs > 32 && inputs % 64 != 0) || liveHeapBlocks() == first, "no block is lost");
}

} // namespace memoryHost
