// The temporary directory of the calling task, and names that no file has.
#include "paths/temp_names.h"

#include "paths/path_text.h"
#include "paths/task_text.h"
#include "platform/c_text.h"
#include "platform/file_calls.h"

#include <kal/path.h>

#include <cerrno>
#include <cstdio>

namespace {

constexpr int kCandidates = 32767;
constexpr size_t kNameCharacters = 8; // of a candidate's file part, number included

// Puts the template in place of an empty name.
bool fillTemplate(char* name, uint32_t size) {
    const char* directory = taskText(kSlotTempDirectory);
    const int length = std::snprintf(name, size, "%sZEP.TMP", directory != nullptr ? directory : ".\\");
    return static_cast<uint32_t>(length) < size;
}

bool isFree(const char* candidate, void*) {
    return _access(candidate, 0) != 0;
}

} // namespace

int16_t findUniqueName(char* name, uint32_t size, bool (*take)(const char* candidate, void* context),
                       void* context) {
    if (name == nullptr || size == 0 || (*name == 0 && !fillTemplate(name, size)))
        return KAL_ERR_SERVICE;
    if (directoryLength(name) >= KAL_DIR_SIZE) // cut, it would be another directory
        return KAL_ERR_SERVICE;
    char directory[KAL_DIR_SIZE];
    char file[KAL_FILE_SIZE];
    char extension[KAL_EXT_SIZE];
    KalSplitPath(name, directory, file, extension);
    size_t kept = std::strlen(file);
    if (std::strlen(directory) + kept + std::strlen(extension) + 1 > size)
        return KAL_ERR_SERVICE;
    for (int number = 0; number < kCandidates; number++) {
        char digits[16];
        const size_t digitCount = std::strlen(_itoa(number, digits, 10));
        if (kept + digitCount > kNameCharacters)
            kept = kNameCharacters - digitCount;
        const int length = std::snprintf(name, size, "%s%.*s%s.%s", directory, static_cast<int>(kept), file,
                                         digits, extension);
        if (static_cast<uint32_t>(length) >= size)
            return KAL_ERR_SERVICE;
        if (take(name, context))
            return KAL_OK;
    }
    return KAL_ERR_SERVICE;
}

bool reserveName(const char* candidate, void* made) {
    const int file = _open(candidate, _O_CREAT | _O_EXCL | _O_RDWR);
    if (file < 0)
        return errno != EEXIST;
    _close(file);
    *static_cast<bool*>(made) = true;
    return true;
}

int16_t KalTempPath(const char* directory) {
    char* copy = nullptr;
    if (directory != nullptr) {
        const size_t length = std::strlen(directory);
        copy = allocText(length + 1);
        if (copy != nullptr) {
            std::memcpy(copy, directory, length);
            if (length > 0 && directory[length - 1] != '\\')
                copy[length] = '\\';
        }
    }
    replaceTaskText(kSlotTempDirectory, copy);
    return copy != nullptr || directory == nullptr ? KAL_OK : KAL_ERR_MEMORY;
}

int16_t KalGetUnique(char* name, uint32_t size) {
    return findUniqueName(name, size, isFree, nullptr);
}
