// The next name of a numbered series.
#include <kal/file.h>
#include <kal/path.h>

#include "paths/path_text.h"
#include "platform/c_text.h"
#include "platform/file_calls.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kShortName = 8; // characters of a base name that carries a number
constexpr size_t kExtensionDigits = 3;
constexpr size_t kNumberSize = 12; // any 32-bit number with its sign and terminating zero

struct Parts {
    char directory[KAL_DIR_SIZE];
    char file[KAL_FILE_SIZE];
    char extension[KAL_EXT_SIZE];
};

// False when the directory part is longer than a path's may be: cut, it would name another directory. A dot in
// the directory part begins no extension here: putting the parts together again would repeat what follows it.
bool split(const char* path, Parts& parts) {
    KalSplitPath(path, parts.directory, parts.file, parts.extension);
    const size_t directory = directoryLength(path);
    if (std::strchr(path + directory, '.') == nullptr)
        parts.extension[0] = 0;
    return directory < KAL_DIR_SIZE;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool allDigits(const char* text) {
    return std::all_of(text, text + std::strlen(text), isDigit);
}

// Writes the digits of `number` to the end of `text`, made `width` characters long; digits that need more
// room take it. `text` must hold kNumberSize bytes more than `width`.
void putNumber(char* text, size_t width, int32_t number) {
    char digits[kNumberSize];
    _itoa(number, digits, 10);
    const size_t count = std::strlen(digits);
    const size_t kept = width > count ? width - count : 0;
    const size_t length = std::strlen(text);
    if (length < kept)
        std::memset(text + length, '0', kept - length);
    std::memcpy(text + kept, digits, count + 1);
}

// Where the run of digits at the text's end starts.
size_t trailingDigits(const char* text, size_t length) {
    while (length > 0 && isDigit(text[length - 1]))
        length--;
    return length;
}

// Adds 1 to the digits of text[start, end). True when they were all nines, and are now all zeros.
bool addOne(char* text, size_t start, size_t end) {
    while (end > start) {
        char& digit = text[--end];
        if (digit != '9') {
            digit++;
            return false;
        }
        digit = '0';
    }
    return true;
}

} // namespace

int16_t KalSequenceFilename(char* path, uint32_t size, int32_t number) {
    Parts parts;
    if (path == nullptr || number < 0 || !split(path, parts))
        return KAL_ERR_SERVICE;
    char base[KAL_FILE_SIZE + kNumberSize];
    char extension[KAL_EXT_SIZE + kNumberSize];
    std::strcpy(base, parts.file);
    std::strcpy(extension, parts.extension);
    if (allDigits(extension)) {
        extension[0] = 0;
        putNumber(extension, kExtensionDigits, number);
    } else if (number < 2) {
        return KAL_OK;
    } else {
        putNumber(base, kShortName, number);
    }
    const size_t needed = std::strlen(parts.directory) + std::strlen(base) + 1 + std::strlen(extension) + 1;
    if (needed > size)
        return KAL_ERR_SERVICE;
    std::strcpy(path, parts.directory);
    std::strcat(path, base);
    std::strcat(path, ".");
    std::strcat(path, extension);
    return _access(path, 0) == 0 ? KAL_ERR_SERVICE : KAL_OK;
}

char* KalIncrementName(char* path) {
    Parts parts;
    if (path == nullptr || !split(path, parts))
        return path;
    const bool stepExtension = parts.extension[0] != 0 && allDigits(parts.extension + 1);
    IncrString(stepExtension ? parts.extension : parts.file, int32_t(KAL_FILE_SIZE) - 1);
    std::strcpy(path, parts.directory);
    std::strcat(path, parts.file);
    if (parts.extension[0] != 0) {
        std::strcat(path, ".");
        std::strcat(path, parts.extension);
    }
    return path;
}

void IncrString(char* text, int32_t maximum) {
    if (text == nullptr)
        return;
    const size_t length = std::strlen(text);
    const size_t start = trailingDigits(text, length);
    const size_t most = maximum > 0 ? size_t(maximum) : 0;
    if (start == length) { // no number yet: the plain name was the first
        const size_t end = std::min(length + 1, most);
        text[end] = 0;
        if (end > 0)
            text[end - 1] = '2';
        return;
    }
    // The digits are stepped where they stand, so a number of any length keeps all of them.
    const bool grew = addOne(text, start, length);
    const size_t width = std::min(length - start + (grew ? 1 : 0), most);
    const size_t prefix = std::min(start, most - width);
    if (grew) {
        std::memset(text + prefix, '0', width);
        if (width > 0)
            text[prefix] = '1';
    } else {
        size_t value = start; // the number without its leading zeros
        while (text[value] == '0')
            value++;
        const size_t shown = std::min(length - value, width);
        std::memmove(text + prefix + width - shown, text + value, shown);
        std::memset(text + prefix, '0', width - shown);
    }
    text[prefix + width] = 0;
}
