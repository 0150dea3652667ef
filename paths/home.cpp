// The home directory and the search text of the calling task.
#include <kal/path.h>

#include "paths/path_text.h"
#include "paths/task_text.h"

#include <algorithm>

void KalSetHome(const char* name) {
    char* copy = nullptr;
    char* searchText = nullptr;
    if (name != nullptr) {
        const char* path = KalGetEnv("PATH");
        const size_t nameLength = std::strlen(name);
        const size_t directory = directoryLength(name);
        const size_t pathLength = path != nullptr ? std::strlen(path) : 0;
        copy = allocText(nameLength);
        searchText = copy != nullptr ? allocText(nameLength + 1 + pathLength) : nullptr;
        if (searchText != nullptr) {
            std::memcpy(copy, name, nameLength);
            std::memcpy(searchText, name, directory);
            if (path != nullptr) {
                searchText[directory] = ';';
                std::memcpy(searchText + directory + 1, path, pathLength);
            }
        } else if (copy != nullptr) {
            KalFreeSMem(copy);
            copy = nullptr;
        }
    }
    replaceTaskText(kSlotSearchText, searchText);
    replaceTaskText(kSlotHomeName, copy);
}

const char* KalGetHome() {
    return taskText(kSlotSearchText);
}

const char* KalGetPath() {
    const char* searchText = taskText(kSlotSearchText);
    return searchText != nullptr ? searchText : KalGetEnv("PATH");
}

char* KalGetHomeExecPath(char* destination, uint32_t size) {
    const char* searchText = taskText(kSlotSearchText);
    if (searchText == nullptr)
        return nullptr;
    if (size > 0) {
        const size_t length = std::min<size_t>(std::strcspn(searchText, ";"), size - 1);
        std::memcpy(destination, searchText, length);
        destination[length] = 0;
    }
    return destination;
}

void KalSetHomeStr(char* searchText) {
    KalSetTaskData(searchText, kSlotSearchText);
}
