#include "platform/file_information.h"

#include "platform/host_calls.h"
#include "platform/host_path.h"

int GetFileInformationByHandle(HFILE file, BY_HANDLE_FILE_INFORMATION* information) {
    struct stat found;
    if (hostCalls.fstat(file, &found) != 0)
        return 0;
    information->volume = found.st_dev;
    information->fileIndex = found.st_ino;
    information->ftLastWriteTime = toFileTime(found.st_mtim.tv_sec, found.st_mtim.tv_nsec);
    const auto size = static_cast<uint64_t>(found.st_size);
    information->nFileSizeHigh = static_cast<uint32_t>(size >> 32);
    information->nFileSizeLow = static_cast<uint32_t>(size);
    return 1;
}

int _stat(const char* path, FileStatus* information) {
    HostPath host;
    struct stat found;
    if (!toHostPath(path, host) || hostCalls.stat(host.text, &found) != 0)
        return -1;
    information->st_size = S_ISDIR(found.st_mode) ? 0 : static_cast<uint64_t>(found.st_size);
    return 0;
}
