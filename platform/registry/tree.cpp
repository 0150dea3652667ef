#include "platform/registry/tree.h"

#include "platform/heap_faults.h"
#include "platform/host_calls.h"
#include "platform/registry.h"
#include "platform/registry/value_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// What writers use at the top of the tree. Only the holder of the lock touches these, so one of each is
// enough, and what a killed writer left is cleared away by the next.
constexpr const char* kNewKey = ".new";
constexpr const char* kOldKey = ".old";
constexpr const char* kNewValue = ".value";

constexpr off_t kMostFileBytes = off_t(kMostValueBytes) + kMostTypeLine;

// Does a host call again for as long as a signal interrupts it. 0 or the error.
template <class Call>
int untilDone(Call call) {
    while (call() < 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

const char* pathOrTop(const KeyPath& key) {
    return key.length == 0 ? "." : key.text;
}

// The path of `file` in the folder `folder`.
struct FilePath {
    char text[PATH_MAX];
    bool join(const char* folder, const char* file) {
        const int length = *folder == 0 ? std::snprintf(text, sizeof text, "%s", file)
                                        : std::snprintf(text, sizeof text, "%s/%s", folder, file);
        return length > 0 && static_cast<size_t>(length) < sizeof text;
    }
};

int makeFolders(const char* path) {
    char part[PATH_MAX];
    std::snprintf(part, sizeof part, "%s", path);
    for (char* c = part + 1;; c++) {
        if (*c != '/' && *c != 0)
            continue;
        const char end = *c;
        *c = 0;
        if (hostCalls.mkdirat(AT_FDCWD, part, 0700) != 0 && errno != EEXIST && end == 0)
            return errno;
        if (end == 0)
            return 0;
        *c = end;
    }
}

int readAll(int fd, uint8_t* destination, size_t size, size_t* got) {
    for (*got = 0; *got < size;) {
        const ssize_t count = hostCalls.read(fd, destination + *got, size - *got);
        if (count == 0)
            break;
        if (count > 0)
            *got += static_cast<size_t>(count);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

int writeAll(int fd, const void* source, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t count = hostCalls.write(fd, static_cast<const uint8_t*>(source) + done, size - done);
        if (count > 0)
            done += static_cast<size_t>(count);
        else if (count == 0)
            return ENOSPC;
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

int loadFile(int fd, RegistryValue& value) {
    struct stat found;
    if (hostCalls.fstat(fd, &found) != 0)
        return errno;
    if (!S_ISREG(found.st_mode) || found.st_size > kMostFileBytes)
        return EFBIG;
    const auto size = static_cast<size_t>(found.st_size);
    value.clear();
    auto* block = heapFaultDue() ? nullptr : static_cast<uint8_t*>(std::malloc(size + 1));
    if (block == nullptr)
        return ENOMEM;
    size_t got;
    if (const int error = readAll(fd, block, size, &got)) {
        std::free(block);
        return error;
    }
    value.block = block;
    parseValueFile(value, static_cast<uint32_t>(got));
    return 0;
}

bool isFolder(int parent, const dirent* entry) {
    if (entry->d_type != DT_UNKNOWN)
        return entry->d_type == DT_DIR;
    struct stat found;
    return hostCalls.fstatat(parent, entry->d_name, &found, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(found.st_mode);
}

// Calls `visit(folder, entry)` for all that the folder holds, until it answers false. 0 or an error.
template <class Visit>
int listFolder(int tree, const char* path, Visit visit) {
    int fd = -1;
    if (const int error = untilDone(
            [&] { return fd = hostCalls.openat(tree, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0); }))
        return error;
    DIR* listing = heapFaultDue() ? nullptr : hostCalls.fdopendir(fd);
    if (listing == nullptr) {
        hostCalls.close(fd);
        return ENOMEM;
    }
    errno = 0;
    while (const dirent* entry = hostCalls.readdir(listing)) {
        const bool itself = std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0;
        if (!itself && !visit(fd, entry))
            break;
        errno = 0;
    }
    const int error = errno;
    hostCalls.closedir(listing);
    return error;
}

} // namespace

bool RegistryTree::place(const char* folder, bool isPrivate) {
    const size_t length = std::strlen(folder);
    if (length >= sizeof folder_)
        return false;
    std::memcpy(folder_, folder, length + 1);
    private_ = isPrivate;
    return true;
}

int RegistryTree::attach() {
    detach();
    if (folder_[0] == 0)
        return ENOENT;
    const int notMade = makeFolders(folder_);
    fd_ = hostCalls.openat(AT_FDCWD, folder_, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (fd_ < 0)
        return notMade != 0 ? notMade : errno;
    struct stat found;
    int error = hostCalls.fstat(fd_, &found) != 0 ? errno : 0;
    // In a folder that everybody may write somebody else may have been first.
    if (error == 0 && private_ && (found.st_uid != geteuid() || (found.st_mode & 077) != 0))
        error = EACCES;
    if (error != 0) {
        detach();
        return error;
    }
    return changes.attach(fd_); // without it the tree can still be read
}

void RegistryTree::detach() {
    changes.detach();
    if (fd_ >= 0)
        hostCalls.close(fd_);
    fd_ = -1;
}

int RegistryTree::hold(bool* replaced) {
    int error = ESTALE;
    for (int attempt = 0; attempt < 3 && error == ESTALE; attempt++) {
        if (!attached()) {
            *replaced = true;
            if (const int failure = attach())
                return failure;
        }
        error = changes.hold();
        if (error == ESTALE)
            detach();
    }
    return error;
}

int RegistryTree::lock(bool* replaced) {
    if (const int error = hold(replaced))
        return error;
    const int error = changes.begin();
    if (error != 0)
        changes.release();
    return error;
}

void RegistryTree::unlock() {
    changes.end();
    changes.release();
}

bool RegistryTree::hasKey(const KeyPath& key) const {
    struct stat found;
    return fd_ >= 0 && hostCalls.fstatat(fd_, pathOrTop(key), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(found.st_mode);
}

int RegistryTree::mayMakeKeysIn(const KeyPath& key) const {
    return hostCalls.faccessat(fd_, pathOrTop(key), W_OK | X_OK, 0) == 0 ? 0 : errno;
}

bool RegistryTree::hasSubkeys(const KeyPath& key) const {
    bool found = false;
    listFolder(fd_, pathOrTop(key), [&](int folder, const dirent* entry) {
        found = isFolder(folder, entry);
        return !found;
    });
    return found;
}

int RegistryTree::readValue(const KeyPath& key, const char* file, RegistryValue& value) const {
    FilePath path;
    if (fd_ < 0 || !path.join(key.text, file))
        return fd_ < 0 ? ENOENT : ENAMETOOLONG;
    int fd = -1;
    // Not blocking: a pipe in a file's place must not hold anybody up.
    if (const int error = untilDone([&] {
            return fd = hostCalls.openat(fd_, path.text, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0);
        }))
        return error == ENOTDIR ? ENOENT : error;
    const int error = loadFile(fd, value);
    hostCalls.close(fd);
    return error;
}

int RegistryTree::readNote(const KeyPath& key, const char* note, FileName& text) const {
    RegistryValue value;
    if (const int error = readValue(key, note, value))
        return error;
    const size_t size = value.size < kMostFileName ? value.size : kMostFileName;
    std::memcpy(text.text, value.data(), size);
    text.text[size] = 0;
    text.text[std::strcspn(text.text, "\n")] = 0;
    return 0;
}

int RegistryTree::listSubkeys(const KeyPath& key, bool (*visit)(void*, const char*), void* context) const {
    if (fd_ < 0)
        return ENOENT;
    return listFolder(fd_, pathOrTop(key), [=](int folder, const dirent* entry) {
        return entry->d_name[0] == '.' || entry->d_name[0] == '@' || !isFolder(folder, entry) ||
               visit(context, entry->d_name);
    });
}

int RegistryTree::writeFile(const char* path, uint32_t type, const uint8_t* data, uint32_t size) {
    int fd = -1;
    if (const int error = untilDone([&] {
            return fd = hostCalls.openat(fd_, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                                         0600);
        }))
        return error;
    char line[kMostTypeLine];
    const uint32_t lineLength = typeLineOf(type, data, size, line);
    int error = writeAll(fd, line, lineLength);
    if (error == 0)
        error = writeAll(fd, data, size);
    if (hostCalls.close(fd) != 0 && error == 0)
        error = errno; // some file systems tell only now that there is no room
    return error;
}

int RegistryTree::writeNote(const char* path, const char* text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text);
    return writeFile(path, REG_SZ, bytes, static_cast<uint32_t>(std::strlen(text)));
}

int RegistryTree::emptyFolder(const char* path) {
    return listFolder(fd_, path, [](int folder, const dirent* entry) {
        hostCalls.unlinkat(folder, entry->d_name, isFolder(folder, entry) ? AT_REMOVEDIR : 0);
        return true;
    });
}

// Removes a folder of the top with its files.
void RegistryTree::clearAway(const char* path) {
    emptyFolder(path);
    hostCalls.unlinkat(fd_, path, AT_REMOVEDIR);
}

int RegistryTree::makeKey(const KeyPath& key, const NewKey& made) {
    FilePath file;
    int error = hostCalls.mkdirat(fd_, kNewKey, 0700) != 0 ? errno : 0;
    if (error == EEXIST)
        error = emptyFolder(kNewKey);
    if (error == 0 && made.spelling != nullptr && file.join(kNewKey, kSpellingNote))
        error = writeNote(file.text, made.spelling);
    if (error == 0 && made.className != nullptr && file.join(kNewKey, kClassNote))
        error = writeNote(file.text, made.className);
    if (error == 0 && made.valueFile != nullptr && file.join(kNewKey, made.valueFile))
        error = writeFile(file.text, made.type, made.data, made.size);
    if (error == 0 && hostCalls.renameat(fd_, kNewKey, fd_, key.text) == 0)
        return 0;
    if (error == 0)
        error = errno;
    if (error == EEXIST || error == ENOTEMPTY) {
        error = 0;
        FilePath target;
        if (made.valueFile != nullptr && target.join(key.text, made.valueFile) &&
            hostCalls.renameat(fd_, file.text, fd_, target.text) != 0)
            error = errno;
    }
    clearAway(kNewKey);
    return error;
}

int RegistryTree::replaceValue(const KeyPath& key, const char* file, uint32_t type, const uint8_t* data,
                               uint32_t size) {
    FilePath path;
    if (!path.join(key.text, file))
        return ENAMETOOLONG;
    int error = writeFile(kNewValue, type, data, size);
    if (error == 0 && hostCalls.renameat(fd_, kNewValue, fd_, path.text) != 0)
        error = errno;
    if (error != 0)
        hostCalls.unlinkat(fd_, kNewValue, 0);
    return error;
}

int RegistryTree::removeKey(const KeyPath& key) {
    int error = hostCalls.renameat(fd_, key.text, fd_, kOldKey) != 0 ? errno : 0;
    if (error == EEXIST || error == ENOTEMPTY) {
        emptyFolder(kOldKey);
        error = hostCalls.renameat(fd_, key.text, fd_, kOldKey) != 0 ? errno : 0;
    }
    if (error == 0)
        clearAway(kOldKey);
    return error;
}
