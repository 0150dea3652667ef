#include "tests/support/traps.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <tuple>
#include <type_traits>
#include <unistd.h>

namespace {

using Effect = HostCallTrap::Effect;

struct Trap {
    HostCalls real;
    Effect effect;
    int64_t nth;
    int error;
    std::vector<std::string> names, transfers, changes;
};
Trap trap;

constexpr bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

constexpr bool isTransfer(std::string_view name) {
    return isOneOf(name, {"read", "write", "pread", "pwrite"});
}
// These close or let go of something, also where the host reports a failure.
constexpr bool isClosing(std::string_view name) {
    return isOneOf(name, {"close", "closedir", "munmap"});
}
// Nothing makes these fail, or what they do is no matter of the process's files and memory.
constexpr bool isSafe(std::string_view name) {
    return isOneOf(name, {"sysconf", "getpid", "geteuid", "sched_yield", "isatty", "tcgetattr", "tcsetattr",
                          "poll", "ppoll", "sigaction", "pthread_sigmask", "pthread_kill", "raise"});
}
constexpr bool takesRoom(std::string_view name, int openFlags) {
    return isOneOf(name, {"write", "pwrite", "fallocate", "mkdir", "mkdirat"}) || (openFlags & O_CREAT) != 0;
}
constexpr bool isChange(std::string_view name, int openFlags) {
    return takesRoom(name, openFlags) || (openFlags & O_TRUNC) != 0 ||
           isOneOf(name, {"ftruncate", "unlink", "unlinkat", "renameat", "shm_unlink"});
}

// The flags of a call that opens: open and shm_open, openat; 0 for other calls.
int flagsOf(const std::tuple<const char*, int, mode_t>& arguments) {
    return std::get<1>(arguments);
}
int flagsOf(const std::tuple<int, const char*, int, mode_t>& arguments) {
    return std::get<2>(arguments);
}
template <class Other>
int flagsOf(const Other&) {
    return 0;
}

enum class Answer { real, failure, half };

Answer answerTo(const char* name, int openFlags) {
    const bool change = isChange(name, openFlags);
    trap.names.emplace_back(name);
    if (isTransfer(name))
        trap.transfers.emplace_back(name);
    if (change)
        trap.changes.emplace_back(name);
    const auto number = [](const auto& of) { return static_cast<int64_t>(of.size()); };
    switch (trap.effect) {
    case Effect::kCount:
        return Answer::real;
    case Effect::kFail:
    case Effect::kFailOn: {
        const int64_t call = number(trap.names);
        if (call != trap.nth && (call < trap.nth || trap.effect == Effect::kFail))
            return Answer::real;
        if (trap.error == HostCallTrap::kKill)
            ::kill(::getpid(), SIGKILL);
        errno = trap.error;
        return isSafe(name) ? Answer::real : Answer::failure;
    }
    case Effect::kShorten:
        errno = EINTR;
        return isTransfer(name) && number(trap.transfers) == trap.nth ? Answer::half : Answer::real;
    case Effect::kNoRoom:
        errno = ENOSPC;
        if (!takesRoom(name, openFlags) || number(trap.changes) < trap.nth)
            return Answer::real;
        return isTransfer(name) && number(trap.changes) == trap.nth ? Answer::half : Answer::failure;
    case Effect::kKillBefore:
        if (change && number(trap.changes) == trap.nth)
            ::kill(::getpid(), SIGKILL);
        return Answer::real;
    }
    return Answer::real;
}

template <auto Member, class Result, class... Arguments>
Result trapped(const char* name, Arguments... arguments) {
    std::tuple<Arguments...> given(arguments...);
    Answer answer = answerTo(name, flagsOf(given));
    const int error = errno;
    if constexpr (sizeof...(Arguments) >= 3)
        if constexpr (std::is_same_v<std::tuple_element_t<2, std::tuple<Arguments...>>, size_t>)
            if (answer == Answer::half) {
                std::get<2>(given) /= 2;
                answer = std::get<2>(given) == 0 ? Answer::failure : Answer::real;
            }
    if (answer == Answer::real)
        return std::apply(trap.real.*Member, given);
    if (isClosing(name))
        std::apply(trap.real.*Member, given);
    errno = error;
    if constexpr (std::is_same_v<Result, void*>)
        return MAP_FAILED;
    else if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return static_cast<Result>(-1);
}

} // namespace

HostCallTrap::HostCallTrap(Effect effect, int64_t nth, int error) {
    trap = {hostCalls, effect, nth, error, {}, {}, {}};
#define KAL_TRAP(name, result, parameters)                                                                   \
    hostCalls.name = [](auto... arguments) -> result {                                                       \
        return trapped<&HostCalls::name, result>(#name, arguments...);                                       \
    };
    KAL_HOST_CALLS(KAL_TRAP)
#undef KAL_TRAP
}

HostCallTrap::HostCallTrap(int64_t nth, int error) : HostCallTrap(kFail, nth, error) {}

const std::vector<std::string>& HostCallTrap::names() {
    return trap.names;
}

const std::vector<std::string>& HostCallTrap::transfers() {
    return trap.transfers;
}

const std::vector<std::string>& HostCallTrap::changes() {
    return trap.changes;
}

int64_t HostCallTrap::listings() {
    return std::count(trap.names.begin(), trap.names.end(), "readdir");
}
