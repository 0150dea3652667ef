#include "fuzz/memory_host.h"

#include "platform/host_calls.h"

#include <cstring>

// What the program calls by itself: linked with --wrap, these stand for the host's own calls, and give way to them for all
// that is not in memory.
extern "C" {
int __real_open64(const char* path, int flags, mode_t mode);
int __real_close(int fd);
int __real_fstat64(int fd, struct stat* result);
ssize_t __real_pread64(int fd, void* to, size_t count, off_t offset);
ssize_t __real_write(int fd, const void* from, size_t count);

int __wrap_open64(const char* path, int flags, mode_t mode) {
    return std::strncmp(path, "/memory/", 8) == 0 ? hostCalls.open(path, flags, mode)
                                                  : __real_open64(path, flags, mode);
}
int __wrap_close(int fd) {
    return fd < memoryHost::kFirst ? __real_close(fd) : hostCalls.close(fd);
}
int __wrap_fstat64(int fd, struct stat* result) {
    return fd < memoryHost::kFirst ? __real_fstat64(fd, result) : hostCalls.fstat(fd, result);
}
ssize_t __wrap_pread64(int fd, void* to, size_t count, off_t offset) {
    return fd < memoryHost::kFirst ? __real_pread64(fd, to, count, offset)
                                   : hostCalls.pread(fd, to, count, offset);
}
ssize_t __wrap_write(int fd, const void* from, size_t count) {
    return fd < memoryHost::kFirst ? __real_write(fd, from, count) : hostCalls.write(fd, from, count);
}
}
