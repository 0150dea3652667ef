#include "tests/support/faults.h"

#include <unistd.h>

namespace {

int64_t readCalls, writeCalls, seekCalls;

ssize_t countedRead(int fd, void* destination, size_t count) {
    readCalls++;
    return ::read(fd, destination, count);
}

ssize_t countedWrite(int fd, const void* source, size_t count) {
    writeCalls++;
    return ::write(fd, source, count);
}

off_t countedSeek(int fd, off_t offset, int origin) {
    seekCalls++;
    return ::lseek(fd, offset, origin);
}

} // namespace

HostCallCounter::HostCallCounter() {
    readCalls = writeCalls = seekCalls = 0;
    hostCalls.read = countedRead;
    hostCalls.write = countedWrite;
    hostCalls.lseek = countedSeek;
}

int64_t HostCallCounter::reads() {
    return readCalls;
}

int64_t HostCallCounter::writes() {
    return writeCalls;
}

int64_t HostCallCounter::seeks() {
    return seekCalls;
}

int64_t HostCallCounter::all() {
    return readCalls + writeCalls + seekCalls;
}
