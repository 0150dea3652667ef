#include "tests/support/traps.h"

#include <cerrno>
#include <csignal>
#include <sys/mman.h>
#include <type_traits>
#include <unistd.h>

namespace {

HostCalls real;
int64_t callCount, listingCount, trappedCall;
int trapError;

bool isSprung() {
    if (++callCount != trappedCall)
        return false;
    if (trapError == HostCallTrap::kKill)
        ::kill(::getpid(), SIGKILL);
    errno = trapError;
    return true;
}

template <auto Member>
constexpr bool isClosing = false;
template <>
constexpr bool isClosing<&HostCalls::close> = true;
template <>
constexpr bool isClosing<&HostCalls::closedir> = true;
template <>
constexpr bool isClosing<&HostCalls::munmap> = true;

template <auto Member, class = decltype(Member)>
struct Trap;

template <auto Member, class Result, class... Arguments>
struct Trap<Member, Result (*HostCalls::*)(Arguments...)> {
    static Result call(Arguments... arguments) {
        if (isSprung()) {
            if constexpr (isClosing<Member>) {
                (real.*Member)(arguments...); // the host closes even where it reports a failure
                errno = trapError;
            }
            if constexpr (std::is_same_v<Result, void*>)
                return MAP_FAILED;
            else if constexpr (std::is_pointer_v<Result>)
                return nullptr;
            else
                return Result(-1);
        }
        return (real.*Member)(arguments...);
    }
};

template <auto... Members>
void setTraps() {
    ((hostCalls.*Members = Trap<Members>::call), ...);
}

dirent* countedReaddir(DIR* listing) {
    listingCount++;
    return Trap<&HostCalls::readdir>::call(listing);
}

} // namespace

HostCallTrap::HostCallTrap(int64_t nth, int error) {
    real = hostCalls;
    callCount = listingCount = 0;
    trappedCall = nth;
    trapError = error;
    setTraps<&HostCalls::open, &HostCalls::close, &HostCalls::read, &HostCalls::write, &HostCalls::lseek,
             &HostCalls::fstat, &HostCalls::flock, &HostCalls::mmap, &HostCalls::munmap, &HostCalls::openat,
             &HostCalls::mkdirat, &HostCalls::renameat, &HostCalls::unlinkat, &HostCalls::fstatat,
             &HostCalls::faccessat, &HostCalls::fdopendir, &HostCalls::closedir>();
    hostCalls.readdir = countedReaddir;
}

int64_t HostCallTrap::calls() {
    return callCount;
}

int64_t HostCallTrap::listings() {
    return listingCount;
}
