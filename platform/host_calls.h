// The raw system calls of the library, in one table. Everything in this folder calls the host through it, so
// that a test can make the n-th call of a name fail, come short or kill the process.
#ifndef KAL_PLATFORM_HOST_CALLS_H
#define KAL_PLATFORM_HOST_CALLS_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

struct HostCalls {
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void* destination, size_t count);
    ssize_t (*write)(int fd, const void* source, size_t count);
    off_t (*lseek)(int fd, off_t offset, int origin);
    int (*fstat)(int fd, struct stat* result);
    int (*stat)(const char* path, struct stat* result);
    int (*access)(const char* path, int mode);
    int (*unlink)(const char* path);
    int (*mkdir)(const char* path, mode_t mode);
    int (*chdir)(const char* path);
    char* (*getcwd)(char* destination, size_t size);
    ssize_t (*pread)(int fd, void* destination, size_t count, off_t offset);
    ssize_t (*pwrite)(int fd, const void* source, size_t count, off_t offset);
    int (*ftruncate)(int fd, off_t length);
    int (*fallocate)(int fd, int mode, off_t offset, off_t count);
    int (*flock)(int fd, int operation);
    int (*shmOpen)(const char* name, int flags, mode_t mode);
    int (*shmUnlink)(const char* name);
    void* (*mmap)(void* address, size_t size, int protection, int flags, int fd, off_t offset);
    int (*munmap)(void* address, size_t size);
    void* (*mremap)(void* address, size_t oldSize, size_t newSize, int flags);
    int (*madvise)(void* address, size_t size, int advice);
    int (*openat)(int folder, const char* path, int flags, mode_t mode);
    int (*mkdirat)(int folder, const char* path, mode_t mode);
    int (*renameat)(int fromFolder, const char* from, int toFolder, const char* to);
    int (*unlinkat)(int folder, const char* path, int flags);
    int (*fstatat)(int folder, const char* path, struct stat* result, int flags);
    int (*faccessat)(int folder, const char* path, int mode, int flags);
    DIR* (*fdopendir)(int fd);
    dirent* (*readdir)(DIR* listing);
    int (*closedir)(DIR* listing);
};

extern HostCalls hostCalls;

#endif
