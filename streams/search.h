// Looking for a file along the search text.
#ifndef KAL_STREAMS_SEARCH_H
#define KAL_STREAMS_SEARCH_H

#include <kal/heap.h>
#include <kal/path.h>

#include <cerrno>
#include <cstring>

// Calls `attempt(candidate)` with the file of `name` in each directory of the search text, one after another,
// until it gives true. False when it never did, with errno as the last attempt left it.
template <class Attempt>
bool alongSearchText(const char* name, Attempt attempt) {
    const char* rest = KalGetPath();
    if (rest == nullptr)
        return false;
    const size_t room = std::strlen(rest) + 1 + KAL_FILE_SIZE + KAL_EXT_SIZE + 1;
    auto* candidate = static_cast<char*>(KalAllocSMem(static_cast<uint32_t>(room)));
    if (candidate == nullptr) {
        errno = ENOMEM;
        return false;
    }
    bool found = false;
    while (rest != nullptr && !found) {
        rest = KalNextPathFile(candidate, rest, name);
        found = attempt(static_cast<const char*>(candidate));
    }
    const int error = errno;
    KalFreeSMem(candidate);
    errno = error;
    return found;
}

#endif
