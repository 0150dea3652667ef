// A host in memory for the library: in place of the calls of its table, files and folders that live as long as the
// process. An input costs no system call.
#ifndef KAL_FUZZ_MEMORY_HOST_H
#define KAL_FUZZ_MEMORY_HOST_H

#include "fuzz/fuzz_target.h"

namespace memoryHost {

inline constexpr int kFirst = 100000; // the first descriptor: none of the host's

// Takes the place of the host, without any file.
void start();
// The bytes of a file, which is made where it is missing.
Bytes content(const std::string& path);
void setContent(const std::string& path, const Bytes& bytes);
// What is mapped of a file; null when nothing is.
uint8_t* mapped(const std::string& path);
// Whether something was refused its room since start().
bool wasFull();
// Behind an input: as many blocks of the heap live as behind the first one. Counted now and then, since it takes long.
void countBlocks();

} // namespace memoryHost

#endif
