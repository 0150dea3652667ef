// Path text, for the rest of this folder.
#ifndef KAL_PATHS_PATH_TEXT_H
#define KAL_PATHS_PATH_TEXT_H

#include <cstddef>

// The length of the directory part with its separator, uncut.
size_t directoryLength(const char* path);

// Whether a directory ends in a separator, so that a name can follow.
bool endsInSeparator(const char* directory, size_t length);

#endif
