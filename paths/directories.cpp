// Directories and the time of day.
#include <kal/path.h>

#include "paths/task_text.h"
#include "platform/clock.h"
#include "platform/directory_calls.h"

#include <algorithm>
#include <climits>

namespace {

// Does a directory call, and once more with the separator at the path's end added or taken away.
int16_t withEitherEnding(const char* path, int (*call)(const char* path)) {
    if (path == nullptr || *path == 0)
        return KAL_ERR_EMPTY_PATH;
    const size_t length = std::strlen(path);
    char* copy = allocText(length + 1);
    if (copy == nullptr)
        return KAL_ERR_MEMORY;
    std::memcpy(copy, path, length);
    int result = call(copy);
    if (result != 0) {
        if (copy[length - 1] == '\\')
            copy[length - 1] = 0;
        else
            copy[length] = '\\';
        result = call(copy);
    }
    KalFreeSMem(copy);
    return static_cast<int16_t>(result);
}

} // namespace

int16_t KalMakeDir(const char* path) {
    return withEitherEnding(path, _mkdir);
}

int16_t KalChangeDir(const char* path) {
    return withEitherEnding(path, _chdir);
}

int16_t KalGetCurWorkDir(char* destination, uint32_t size) {
    if (destination == nullptr || size == 0)
        return KAL_ERR_DESTINATION;
    if (KalGetCurDiskStatus() != KAL_OK)
        return KAL_ERR_DISK;
    const int room = static_cast<int>(std::min<uint32_t>(size, INT_MAX));
    return _getcwd(destination, room) != nullptr ? KAL_OK : KAL_ERR_CURRENT_DIR;
}

int16_t KalGetCurDiskStatus() {
    return KAL_OK;
}

void KalGetTime(int32_t* seconds, uint16_t* milliseconds) {
    _timeb now;
    _ftime(&now);
    *seconds = static_cast<int32_t>(now.time);
    *milliseconds = now.millitm;
}
