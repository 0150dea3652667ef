// Directory calls of the C runtime. Paths are in the platform's form; on failure errno tells why.
#ifndef KAL_PLATFORM_DIRECTORY_CALLS_H
#define KAL_PLATFORM_DIRECTORY_CALLS_H

// Makes a directory. 0 or -1.
int _mkdir(const char* path);

// Makes a directory the current one. 0 or -1.
int _chdir(const char* path);

// The current directory, drive first. `destination`, or null when `size` bytes do not hold it or it cannot be
// had; nothing is stored then.
char* _getcwd(char* destination, int size);

#endif
