// What the platform knows of a file, open or by name.
#ifndef KAL_PLATFORM_FILE_INFORMATION_H
#define KAL_PLATFORM_FILE_INFORMATION_H

#include "platform/clock.h"
#include "platform/file_calls.h"

#include <cstdint>

struct BY_HANDLE_FILE_INFORMATION {
    uint64_t volume; // this and the next together name a file on this machine
    uint64_t fileIndex;
    FILETIME ftLastWriteTime;
    uint32_t nFileSizeHigh; // bytes
    uint32_t nFileSizeLow;
};

// 1, or 0 on failure.
int GetFileInformationByHandle(HFILE file, BY_HANDLE_FILE_INFORMATION* information);

struct FileStatus {
    uint64_t st_size; // bytes; 0 of a directory
};

// 0 or -1. The path is in the platform's form.
int _stat(const char* path, FileStatus* information);

#endif
