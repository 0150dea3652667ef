// The raw system calls of the library, in one table. Everything in this folder calls the host through it, so
// that a test can make the n-th call fail, come short or kill the process.
#ifndef KAL_PLATFORM_HOST_CALLS_H
#define KAL_PLATFORM_HOST_CALLS_H

#include <csignal>
#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <termios.h>

// CALL(name, result, parameters) for each: the table, what fills it and what tests put in its place are made of this
// list. A call that is missing is one line here.
#define KAL_HOST_CALLS(CALL)                                                                                 \
    CALL(open, int, (const char* path, int flags, mode_t mode))                                              \
    CALL(close, int, (int fd))                                                                               \
    CALL(read, ssize_t, (int fd, void* destination, size_t count))                                           \
    CALL(write, ssize_t, (int fd, const void* source, size_t count))                                         \
    CALL(pread, ssize_t, (int fd, void* destination, size_t count, off_t offset))                            \
    CALL(pwrite, ssize_t, (int fd, const void* source, size_t count, off_t offset))                          \
    CALL(copy_file_range, ssize_t,                                                                           \
         (int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t count, unsigned flags))           \
    CALL(lseek, off_t, (int fd, off_t offset, int origin))                                                   \
    CALL(fstat, int, (int fd, struct stat* result))                                                          \
    CALL(stat, int, (const char* path, struct stat* result))                                                 \
    CALL(access, int, (const char* path, int mode))                                                          \
    CALL(unlink, int, (const char* path))                                                                    \
    CALL(mkdir, int, (const char* path, mode_t mode))                                                        \
    CALL(chdir, int, (const char* path))                                                                     \
    CALL(getcwd, char*, (char* destination, size_t size))                                                    \
    CALL(realpath, char*, (const char* path, char* destination))                                             \
    CALL(openat, int, (int folder, const char* path, int flags, mode_t mode))                                \
    CALL(mkdirat, int, (int folder, const char* path, mode_t mode))                                          \
    CALL(renameat, int, (int fromFolder, const char* from, int toFolder, const char* to))                    \
    CALL(unlinkat, int, (int folder, const char* path, int flags))                                           \
    CALL(fstatat, int, (int folder, const char* path, struct stat* result, int flags))                       \
    CALL(faccessat, int, (int folder, const char* path, int mode, int flags))                                \
    CALL(opendir, DIR*, (const char* path))                                                                  \
    CALL(fdopendir, DIR*, (int fd))                                                                          \
    CALL(readdir, dirent*, (DIR * listing))                                                                  \
    CALL(closedir, int, (DIR * listing))                                                                     \
    CALL(ftruncate, int, (int fd, off_t length))                                                             \
    CALL(fsync, int, (int fd))                                                                               \
    CALL(fallocate, int, (int fd, int mode, off_t offset, off_t count))                                      \
    CALL(flock, int, (int fd, int operation))                                                                \
    CALL(shm_open, int, (const char* name, int flags, mode_t mode))                                          \
    CALL(shm_unlink, int, (const char* name))                                                                \
    CALL(mmap, void*, (void* address, size_t size, int protection, int flags, int fd, off_t offset))         \
    CALL(munmap, int, (void* address, size_t size))                                                          \
    CALL(mremap, void*, (void* address, size_t oldSize, size_t newSize, int flags))                          \
    CALL(madvise, int, (void* address, size_t size, int advice))                                             \
    CALL(mincore, int, (void* address, size_t size, unsigned char* result))                                  \
    CALL(process_vm_readv, ssize_t,                                                                          \
         (pid_t process, const iovec* local, unsigned long localCount, const iovec* remote,                  \
          unsigned long remoteCount, unsigned long flags))                                                   \
    CALL(sysinfo, int, (struct sysinfo * result))                                                            \
    CALL(sysconf, long, (int name))                                                                          \
    CALL(getpid, pid_t, ())                                                                                  \
    CALL(geteuid, uid_t, ())                                                                                 \
    CALL(sched_yield, int, ())                                                                               \
    CALL(isatty, int, (int fd))                                                                              \
    CALL(tcgetattr, int, (int fd, termios* result))                                                          \
    CALL(tcsetattr, int, (int fd, int when, const termios* attributes))                                      \
    CALL(poll, int, (pollfd * waits, nfds_t count, int milliseconds))                                        \
    CALL(ppoll, int, (pollfd * waits, nfds_t count, const timespec* limit, const sigset_t* mask))            \
    CALL(sigaction, int, (int signal, const struct sigaction* action, struct sigaction* before))             \
    CALL(pthread_sigmask, int, (int how, const sigset_t* mask, sigset_t* before))                            \
    CALL(pthread_kill, int, (pthread_t thread, int signal))                                                  \
    CALL(raise, int, (int signal))

struct HostCalls {
#define KAL_HOST_CALL_SLOT(name, result, parameters) result(*name) parameters;
    KAL_HOST_CALLS(KAL_HOST_CALL_SLOT)
#undef KAL_HOST_CALL_SLOT
};

extern HostCalls hostCalls;

#endif
