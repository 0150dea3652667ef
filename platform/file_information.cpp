#include "platform/file_information.h"

#include "platform/host_calls.h"

int GetFileInformationByHandle(HFILE file, BY_HANDLE_FILE_INFORMATION* information) {
    struct stat found;
    if (hostCalls.fstat(file, &found) != 0)
        return 0;
    information->volume = found.st_dev;
    information->fileIndex = found.st_ino;
    return 1;
}
