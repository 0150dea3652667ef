// Paths as text: splitting, default extensions, candidates of a search.
#include "paths/path_text.h"

#include <kal/path.h>

#include <algorithm>
#include <cstring>

namespace {

bool isSeparator(char c) {
    return c == '\\' || c == ':';
}

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

// One past the last separator, but for one that stands first; 0 when there is none.
size_t pastLastSeparator(const char* path) {
    for (size_t i = std::strlen(path); i-- > 1;)
        if (isSeparator(path[i]))
            return i + 1;
    return 0;
}

// Stores as much of `text` as fits, ended by 0. Characters stored.
int32_t store(const char* text, size_t length, char* destination, uint32_t size) {
    if (size == 0)
        return 0;
    const size_t stored = std::min<size_t>(length, size - 1);
    std::memcpy(destination, text, stored);
    destination[stored] = 0;
    return static_cast<int32_t>(stored);
}

} // namespace

size_t directoryLength(const char* path) {
    const size_t length = pastLastSeparator(path);
    if (length > 0)
        return length;
    if (std::strcmp(path, "..") == 0)
        return 2;
    return std::strcmp(path, ".") == 0 || path[0] == '\\' ? 1 : 0;
}

bool endsInSeparator(const char* directory, size_t length) {
    return length > 0 && isSeparator(directory[length - 1]);
}

int32_t KalGetDir(const char* path, char* destination, uint32_t size) {
    path = orEmpty(path);
    return store(path, directoryLength(path), destination, size);
}

int32_t KalGetFile(const char* path, char* destination, uint32_t size) {
    path = orEmpty(path);
    const char* file = path + pastLastSeparator(path);
    if (file == path && *file == '\\')
        file++;
    return store(file, std::strcspn(file, "."), destination, size);
}

int32_t KalGetExt(const char* path, char* destination, uint32_t size) {
    path = orEmpty(path);
    const size_t length = std::strlen(path);
    for (size_t i = length; i-- > 1 && path[i] != '\\';)
        if (path[i] == '.')
            return store(path + i + 1, length - i - 1, destination, size);
    return store("", 0, destination, size);
}

char* KalDefaultExt(char* path, const char* extension) {
    if (path == nullptr)
        return nullptr;
    char found[255];
    const size_t length = std::strlen(path);
    if ((length > 0 && path[length - 1] == '.') || KalGetExt(path, found, sizeof found) > 0)
        return path;
    extension = orEmpty(extension);
    if (*extension != '.')
        std::strcat(path, ".");
    return std::strcat(path, extension);
}

int16_t KalSplitPath(const char* path, char* directory, char* file, char* extension) {
    KalGetDir(path, directory, KAL_DIR_SIZE);
    KalGetFile(path, file, KAL_FILE_SIZE);
    KalGetExt(path, extension, KAL_EXT_SIZE);
    return KAL_OK;
}

const char* KalNextPathFile(char* destination, const char* searchText, const char* name) {
    const size_t length = std::strcspn(searchText, ";");
    char* end = destination + length;
    std::memcpy(destination, searchText, length);
    if (!endsInSeparator(destination, length))
        *end++ = '\\';
    end += KalGetFile(name, end, KAL_FILE_SIZE);
    *end++ = '.';
    KalGetExt(name, end, KAL_EXT_SIZE);
    const char* next = searchText + length;
    return *next == ';' && next[1] != 0 ? next + 1 : nullptr;
}
