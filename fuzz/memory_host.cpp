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

constexpr off_t kDisk = 4 << 20; // the most bytes of a file

struct Node {
    bool isFolder = false;
    nlink_t links = 1;
    Bytes bytes = {};
    // A view of the file's start has an allocation of its own, of exactly its size, so that a touch beyond it is seen.
    std::unique_ptr<uint8_t[]> view = {};
    size_t viewed = 0;
    int views = 0;
};
struct Open {
    std::shared_ptr<Node> node;
    std::string path;
    size_t position;
};

std::map<std::string, std::shared_ptr<Node>> nodes;
std::map<int, Open> opened;

template <class Result = int>
Result fail(int error) {
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

// What moves goes through the view where there is one.
uint8_t* byteAt(Node& node, size_t at) {
    return at < node.viewed ? &node.view[at] : node.bytes.data() + at;
}
template <class Move>
ssize_t moveAt(Node& node, size_t count, off_t offset, Move move) {
    const auto at = static_cast<size_t>(offset);
    for (size_t done = 0, step; done < count; done += step) {
        step = at + done < node.viewed ? std::min(count - done, node.viewed - at - done) : count - done;
        move(byteAt(node, at + done), done, step);
    }
    return static_cast<ssize_t>(count);
}
ssize_t readAt(int fd, void* to, size_t count, off_t offset) {
    Node& node = nodeOf(fd);
    const size_t left = node.bytes.size() - std::min(node.bytes.size(), static_cast<size_t>(offset));
    return moveAt(node, std::min(count, left), offset, [=](const uint8_t* from, size_t done, size_t step) {
        std::memcpy(static_cast<uint8_t*>(to) + done, from, step);
    });
}
int resize(int fd, off_t size, bool shrinks) {
    Bytes& bytes = nodeOf(fd).bytes;
    if (size > kDisk)
        return fail(ENOSPC);
    if (shrinks || static_cast<size_t>(size) > bytes.size())
        bytes.resize(static_cast<size_t>(size));
    return 0;
}
ssize_t writeAt(int fd, const void* from, size_t count, off_t offset) {
    if (count == 0)
        return 0;
    count = std::min(count, static_cast<size_t>(std::max<off_t>(kDisk - offset, 0)));
    if (count == 0)
        return fail<ssize_t>(ENOSPC);
    resize(fd, offset + static_cast<off_t>(count), false);
    return moveAt(nodeOf(fd), count, offset, [=](uint8_t* to, size_t done, size_t step) {
        std::memcpy(to, static_cast<const uint8_t*>(from) + done, step);
    });
}

int describe(const Node& node, struct stat* result) {
    *result = {};
    result->st_mode = node.isFolder ? S_IFDIR | 0700 : S_IFREG | 0600;
    result->st_size = static_cast<off_t>(node.bytes.size());
    result->st_nlink = node.links;
    result->st_uid = hostCalls.geteuid();
    result->st_ino = reinterpret_cast<uintptr_t>(&node);
    return 0;
}
int describeNamed(const std::string& path, struct stat* result) {
    const auto found = nodes.find(path);
    return found == nodes.end() ? fail(ENOENT) : result == nullptr ? 0 : describe(*found->second, result);
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

void* map(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    if (fd < 0)
        return ::mmap(address, size, protection, flags, fd, offset);
    Node& node = nodeOf(fd);
    require(offset == 0 && (node.views == 0 || node.viewed == size), "views of a file are alike");
    if (node.views++ == 0) {
        node.view = std::make_unique<uint8_t[]>(size);
        node.viewed = size;
        node.bytes.resize(std::max(node.bytes.size(), size));
        std::memcpy(node.view.get(), node.bytes.data(), size);
    }
    return node.view.get();
}
int unmap(void* address, size_t size) {
    const auto end = [=](const std::shared_ptr<Node>& node) {
        if (node->view.get() != address || --node->views > 0)
            return node->view.get() == address;
        std::memcpy(node->bytes.data(), address, size);
        node->view.reset();
        node->viewed = 0;
        return true;
    };
    for (const auto& [path, node] : nodes)
        if (end(node))
            return 0;
    for (const auto& [fd, open] : opened) // a file without a name
        if (end(open.node))
            return 0;
    return ::munmap(address, size);
}

} // namespace

void start() {
    nodes.clear();
    hostCalls.open = [](const char* path, int flags, mode_t) { return openFile(path, flags); };
    hostCalls.openat = [](int folder, const char* path, int flags, mode_t) {
        return openFile(pathAt(folder, path), flags);
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
    hostCalls.fsync = [](int) { return 0; };
    hostCalls.flock = [](int, int) { return 0; };
    hostCalls.mmap = map;
    hostCalls.munmap = unmap;
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
    return found != nodes.end() ? found->second->view.get() : nullptr;
}

void countBlocks() {
    static const uint64_t first = liveHeapBlocks();
    static uint32_t inputs;
    require(++inputs % 256 > 32 || liveHeapBlocks() == first, "no block is lost");
}

} // namespace memoryHost
