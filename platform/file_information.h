// What the platform knows of an open file.
#ifndef KAL_PLATFORM_FILE_INFORMATION_H
#define KAL_PLATFORM_FILE_INFORMATION_H

#include "platform/file_calls.h"

#include <cstdint>

// The two numbers together name a file on this machine.
struct BY_HANDLE_FILE_INFORMATION {
    uint64_t volume;
    uint64_t fileIndex;
};

// 1, or 0 on failure.
int GetFileInformationByHandle(HFILE file, BY_HANDLE_FILE_INFORMATION* information);

#endif
