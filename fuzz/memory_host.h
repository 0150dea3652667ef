// A host in memory for the library: in place of the calls of its table, files and folders. An input costs no system call.
#ifndef KAL_FUZZ_MEMORY_HOST_H
#define KAL_FUZZ_MEMORY_HOST_H

#include "fuzz/fuzz_target.h"

namespace memoryHost {

inline constexpr int kFirst = 100000; // the first descriptor: none of the host's

// The bytes of a file, which is made where it is missing.
Bytes& file(const std::string& path);
// Whether something was refused its room, since the input began.
inline bool wasFull;
// Whether no input may leave a block of the heap.
inline bool countsBlocks = true;

} // namespace memoryHost

#endif
