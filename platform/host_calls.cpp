#include "platform/host_calls.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

int openFile(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}

void* remap(void* address, size_t oldSize, size_t newSize, int flags) {
    return ::mremap(address, oldSize, newSize, flags);
}

int openFileAt(int folder, const char* path, int flags, mode_t mode) {
    return ::openat(folder, path, flags, mode);
}

} // namespace

HostCalls hostCalls = {
    .open = openFile,
    .close = ::close,
    .read = ::read,
    .write = ::write,
    .lseek = ::lseek,
    .fstat = ::fstat,
    .stat = ::stat,
    .access = ::access,
    .unlink = ::unlink,
    .mkdir = ::mkdir,
    .chdir = ::chdir,
    .getcwd = ::getcwd,
    .pread = ::pread,
    .pwrite = ::pwrite,
    .ftruncate = ::ftruncate,
    .fallocate = ::fallocate,
    .flock = ::flock,
    .shmOpen = ::shm_open,
    .shmUnlink = ::shm_unlink,
    .mmap = ::mmap,
    .munmap = ::munmap,
    .mremap = remap,
    .madvise = ::madvise,
    .openat = openFileAt,
    .mkdirat = ::mkdirat,
    .renameat = ::renameat,
    .unlinkat = ::unlinkat,
    .fstatat = ::fstatat,
    .faccessat = ::faccessat,
    .fdopendir = ::fdopendir,
    .readdir = ::readdir,
    .closedir = ::closedir,
};
