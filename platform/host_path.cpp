#include "platform/host_path.h"

#include "platform/host_calls.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <strings.h>
#include <unistd.h>

namespace {

bool exists(const char* hostPath) {
    return hostCalls.access(hostPath, F_OK) == 0;
}

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The folder that the environment gives a drive, or null.
const char* driveFolder(char letter) {
    char variable[] = "KAL_DRIVE_X";
    variable[sizeof variable - 2] = static_cast<char>(letter & ~0x20);
    const char* folder = std::getenv(variable);
    return folder != nullptr && *folder != 0 ? folder : nullptr;
}

// A bounded text that grows at its end.
class Builder {
public:
    Builder(char* text, size_t size) : text_(text), size_(size) { text_[0] = 0; }
    bool add(const char* part, size_t length) {
        if (length >= size_ - length_)
            return false;
        std::memcpy(text_ + length_, part, length);
        length_ += length;
        text_[length_] = 0;
        return true;
    }
    bool add(const char* part) { return add(part, std::strlen(part)); }
    void cut(size_t length) { text_[length_ = length] = 0; }
    size_t length() const { return length_; }
    char* text() const { return text_; }

private:
    char* text_;
    size_t size_;
    size_t length_ = 0;
};

// Drive and separators only; which files there are does not matter.
bool translate(const char* path, Builder& result) {
    if (isLetter(path[0]) && path[1] == ':') {
        const char* folder = driveFolder(path[0]);
        path += 2;
        const bool rooted = *path == '\\' || *path == '/';
        if (folder != nullptr && (!result.add(folder) || (!rooted && !result.add("/"))))
            return false;
        if (folder == nullptr && *path == 0)
            path = "."; // the drive alone: its current directory
    }
    if (!result.add(path))
        return false;
    char* text = result.text();
    for (char* c = text; *c != 0; c++)
        if (*c == '\\')
            *c = '/';
    const size_t length = result.length();
    const char* slash = std::strrchr(text, '/');
    const char* last = slash != nullptr ? slash + 1 : text;
    if (length > 0 && text[length - 1] == '.' && std::strcmp(last, ".") != 0 && std::strcmp(last, "..") != 0)
        result.cut(length - 1);
    return true;
}

// Finds an entry of `directory` that equals `name` without regard to case; the first in byte order, so that
// the answer does not depend on the host's own order. Appends it to `result`.
bool addMatch(Builder& result, const char* directory, const char* name, size_t length) {
    DIR* stream = hostCalls.opendir(directory);
    if (stream == nullptr)
        return false;
    char best[NAME_MAX + 1] = "";
    while (const dirent* entry = hostCalls.readdir(stream)) {
        if (strncasecmp(entry->d_name, name, length) != 0 || entry->d_name[length] != 0)
            continue;
        if (best[0] == 0 || std::strcmp(entry->d_name, best) < 0)
            std::memcpy(best, entry->d_name, std::strlen(entry->d_name) + 1);
    }
    hostCalls.closedir(stream);
    return best[0] != 0 && result.add(best);
}

// Rebuilds `given` with each component spelt as the file system has it.
bool matchCase(const char* given, Builder& result) {
    const char* rest = given;
    while (*rest != 0) {
        if (*rest == '/') {
            if (!result.add(rest, 1))
                return false;
            rest++;
            continue;
        }
        const size_t length = std::strcspn(rest, "/");
        const size_t before = result.length();
        if (!result.add(rest, length))
            return false;
        if (!exists(result.text())) {
            result.cut(before);
            HostPath directory;
            std::memcpy(directory.text, before > 0 ? result.text() : ".", before > 0 ? before + 1 : 2);
            if (length > NAME_MAX || !addMatch(result, directory.text, rest, length))
                return result.add(rest); // nothing like it: the rest is new
        }
        rest += length;
    }
    return true;
}

// Whether `folder` holds `hostPath`, and how much of it is the folder.
size_t coveredBy(const char* folder, const char* hostPath) {
    size_t length = std::strlen(folder);
    while (length > 0 && folder[length - 1] == '/')
        length--;
    const bool inside =
        std::strncmp(folder, hostPath, length) == 0 && (hostPath[length] == '/' || hostPath[length] == 0);
    return inside ? length : SIZE_MAX;
}

} // namespace

bool toHostPath(const char* path, HostPath& result) {
    if (path == nullptr || *path == 0) {
        errno = ENOENT;
        return false;
    }
    Builder exact(result.text, sizeof result.text);
    if (!translate(path, exact)) {
        errno = ENAMETOOLONG;
        return false;
    }
    if (exists(exact.text()))
        return true;
    HostPath matched;
    Builder spelt(matched.text, sizeof matched.text);
    if (matchCase(exact.text(), spelt)) // a match that does not fit is no match
        std::memcpy(result.text, matched.text, spelt.length() + 1);
    return true;
}

bool toPlatformPath(const char* hostPath, char* destination, size_t size) {
    // C first; a drive with a folder of its own only when C does not reach the path.
    const char* letters = "CABDEFGHIJKLMNOPQRSTUVWXYZ";
    for (const char* letter = letters; *letter != 0; letter++) {
        const char* folder = driveFolder(*letter);
        const size_t covered = coveredBy(folder != nullptr ? folder : "/", hostPath);
        if (covered == SIZE_MAX)
            continue;
        const char drive[] = {*letter, ':', 0};
        const char* rest = hostPath + covered;
        if (size == 0)
            return false;
        Builder result(destination, size);
        if (!result.add(drive) || !result.add(*rest != 0 ? rest : "/"))
            return false;
        for (char* c = destination; *c != 0; c++)
            if (*c == '/')
                *c = '\\';
        return true;
    }
    return false;
}
