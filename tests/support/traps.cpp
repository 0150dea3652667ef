#include "tests/support/traps.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/types.h>
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
} trap;

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

// The flags of a call that opens: of those that end with flags and a mode; 0 for other calls.
template <class... Arguments>
int flagsOf(const std::tuple<Arguments...>& arguments) {
    if constexpr (sizeof...(Arguments) >= 3) {
        constexpr size_t last = sizeof...(Arguments) - 1;
        if constexpr (std::is_same_v<decltype(std::get<last>(arguments)), const mode_t&> &&
                      std::is_same_v<decltype(std::get<last - 1>(arguments)), const int&>)
            return std::get<last - 1>(arguments);
    }
    return 0;
}

enum class Answer { real, failure, half };

Answer answerTo(const char* name, int openFlags) {
    const bool transfer = isTransfer(name), change = isChange(name, openFlags);
    trap.names.emplace_back(name);
    if (transfer)
        trap.transfers.emplace_back(name);
    if (change)
        trap.changes.emplace_back(name);
    const auto pastNth = [](const auto& calls) { return static_cast<int64_t>(calls.size()) - trap.nth; };
    const int64_t call = pastNth(trap.names);
    switch (trap.effect) {
    case Effect::kCount:
        return Answer::real;
    case Effect::kFail:
    case Effect::kFailOn:
        errno = trap.error;
        return (call == 0 || (call > 0 && trap.effect == Effect::kFailOn)) && !isSafe(name) ? Answer::failure
                                                                                            : Answer::real;
    case Effect::kShorten:
        errno = EINTR;
        return transfer && pastNth(trap.transfers) == 0 ? Answer::half : Answer::real;
    case Effect::kNoRoom:
        errno = ENOSPC;
        if (!takesRoom(name, openFlags) || pastNth(trap.changes) < 0)
            return Answer::real;
        return transfer && pastNth(trap.changes) == 0 ? Answer::half : Answer::failure;
    case Effect::kKillBefore:
        if (change && pastNth(trap.changes) == 0)
            ::kill(::getpid(), SIGKILL);
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

const std::vector<std::string>& HostCallTrap::names() {
    return trap.names;
}

const std::vector<std::string>& HostCallTrap::transfers() {
    return trap.transfers;
}

const std::vector<std::string>& HostCallTrap::changes() {
    return trap.changes;
}
