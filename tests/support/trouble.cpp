#include "tests/support/trouble.h"

#include "tests/support/faults.h"
#include "tests/support/processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/mman.h>
#include <type_traits>

namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, Bytes>;
using Names = std::vector<std::string>;

// --- Host calls that are counted, fail, come short or kill ------------------------------------------------

enum class Effect {
    none,
    fail,    // call `nth` fails
    failOn,  // and so does every later one
    shorten, // transfer `nth` moves half of its bytes; a single byte is interrupted by a signal
    noRoom,  // change `nth` finds the disk full, after half of its bytes, and so does every later one
    kill     // the process is killed before change `nth`
};

struct {
    HostCalls real;
    Effect effect;
    size_t nth;
    Names all, transfers, changes; // the calls so far: all, those that move bytes, those that change files
} trap;

bool isOneOf(const char* name, std::string_view names) {
    return names.find(std::string(" ") + name + " ") != names.npos;
}

// What a call meets: an error or 0; and whether half of its bytes come before that.
struct Answer {
    int error = 0;
    bool half = false;
};

Answer answerTo(const char* name, int openFlags) {
    const bool isTransfer = isOneOf(name, " read write pread pwrite ");
    const bool takesRoom =
        isOneOf(name, " write pwrite fallocate mkdir mkdirat ") || (openFlags & O_CREAT) != 0;
    const bool isChange = takesRoom || (openFlags & O_TRUNC) != 0 ||
                          isOneOf(name, " ftruncate unlink unlinkat renameat shm_unlink ");
    // Nothing makes these fail, or what they do is no matter of the process's files and memory.
    const bool isSafe =
        isOneOf(name, " sysconf getpid geteuid sched_yield isatty tcgetattr tcsetattr poll ppoll "
                      "sigaction pthread_sigmask pthread_kill raise ");
    trap.all.emplace_back(name);
    if (isTransfer)
        trap.transfers.emplace_back(name);
    if (isChange)
        trap.changes.emplace_back(name);
    const size_t call = trap.all.size(), change = trap.changes.size(), nth = trap.nth;
    const bool isIt = trap.effect == Effect::fail ? call == nth : call >= nth;
    if ((trap.effect == Effect::fail || trap.effect == Effect::failOn) && isIt && !isSafe)
        return {EIO};
    if (trap.effect == Effect::shorten && isTransfer && trap.transfers.size() == nth)
        return {EINTR, true};
    if (trap.effect == Effect::noRoom && takesRoom && change >= nth)
        return {ENOSPC, isTransfer && change == nth};
    if (trap.effect == Effect::kill && isChange && change == nth)
        ::kill(::getpid(), SIGKILL);
    return {};
}

// The flags of a call that opens, and how many bytes a transfer moves.
template <class... Arguments>
int flagsOf(Arguments...) {
    return 0;
}
int flagsOf(const char*, int flags, mode_t) {
    return flags;
}
int flagsOf(int, const char*, int flags, mode_t) {
    return flags;
}
template <class... Arguments>
size_t halve(Arguments&...) {
    return 0;
}
template <class Buffer, class... Rest>
size_t halve(int&, Buffer*&, size_t& count, Rest&...) {
    return count /= 2;
}

template <auto Member, class Result, class... Arguments>
Result trapped(const char* name, Arguments... arguments) {
    const Answer answer = answerTo(name, flagsOf(arguments...));
    if (answer.error == 0 || (answer.half && halve(arguments...) > 0))
        return (trap.real.*Member)(arguments...);
    if (isOneOf(name, " close closedir munmap ")) // these let go also where the host reports a failure
        (trap.real.*Member)(arguments...);
    errno = answer.error;
    if constexpr (std::is_pointer_v<Result>)
        return static_cast<Result>(std::is_same_v<Result, void*> ? MAP_FAILED : nullptr);
    else
        return static_cast<Result>(-1);
}

// All calls of platform/host_calls.h come here and are counted from 1.
void setTrap(Effect effect, size_t nth) {
    trap = {hostCalls, effect, nth, {}, {}, {}};
#define KAL_TRAP(name, result, parameters)                                                                   \
    hostCalls.name = [](auto... arguments) -> result {                                                       \
        return trapped<&HostCalls::name, result>(#name, arguments...);                                       \
    };
    KAL_HOST_CALLS(KAL_TRAP)
#undef KAL_TRAP
}

// --- The walk ---------------------------------------------------------------------------------------------

// Folders end with a slash.
Files filesOfTest() {
    Files files;
    if (testFolder().empty())
        return files;
    for (const auto& entry : fs::recursive_directory_iterator(testFolder())) {
        const std::string name = entry.path().lexically_relative(testFolder());
        files[name + (entry.is_directory() ? "/" : "")] =
            entry.is_regular_file() ? readFile(entry.path()) : Bytes();
    }
    return files;
}

// Brings the folder back to what it held.
void restoreFiles(const Files& files) {
    const Files now = filesOfTest();
    for (const auto& [name, bytes] : now)
        if (files.count(name) == 0)
            fs::remove_all(testFolder() + "/" + name);
    for (const auto& [name, bytes] : files) {
        const auto found = now.find(name);
        if (found == now.end() && name.back() == '/')
            fs::create_directory(testFolder() + "/" + name);
        else if (found == now.end() || found->second != bytes)
            writeFile(testFolder() + "/" + name, bytes);
    }
}

size_t openDescriptors() {
    return filesIn("/proc/self/fd").size();
}

class Walk {
public:
    explicit Walk(const Scenario& scenario) : scenario_(scenario) {}

    int walk(unsigned troubles) {
        round("no trouble", [this] { return wanted_ = troubled(Effect::none, 0); });
        const Names all = trap.all, transfers = trap.transfers, changes = trap.changes;
        if (troubles & kNoMemory) {
            failAllocations(failHeapAllocation, "fails");
            failAllocations(failHeapAllocationsFrom, "and all later ones fail");
        }
        if (troubles & kHostFails) {
            each(all, Effect::fail, "host call", "fails");
            each(all, Effect::failOn, "host call", "and all later ones fail");
        }
        if (troubles & kCutShort)
            each(transfers, Effect::shorten, "transfer", "comes short");
        if (troubles & kDiskFull)
            each(changes, Effect::noRoom, "change", "finds the disk full");
        if (troubles & kKilled)
            each(changes, Effect::kill, "change", "does not come: the process is killed");
        return rounds_;
    }

private:
    // One run, and what must hold after it. `run` gives its status.
    void round(const std::string& trouble, const std::function<int()>& run) {
        SCOPED_TRACE("when " + trouble);
        const HeapBalance balance;
        const size_t descriptors = openDescriptors();
        restoreFiles(start_);
        scenario_.prepare();
        mayStay_ = false;
        const Files before = filesOfTest();
        const int status = run();
        const Files after = filesOfTest();
        if (rounds_++ == 0)
            done_ = after;
        else if (status != kWasKilled && status != wanted_) {
            EXPECT_TRUE(scenario_.statuses.count(status) != 0) << "status " << status;
        }
        for (const Files& files : {before, done_, after})
            for (const auto& [name, bytes] : files)
                checkFile(name, status, before, after);
        scenario_.check(status);
        EXPECT_EQ(openDescriptors(), descriptors) << "descriptors left open or closed too often";
    }

    void checkFile(const std::string& name, int status, const Files& before, const Files& after) {
        const auto is = [&](const Files& files) {
            const auto found = files.find(name);
            const auto now = after.find(name);
            return found == files.end() ? now == after.end()
                                        : now != after.end() && found->second == now->second;
        };
        const bool excused = mayStay_ || scenario_.loose.count(name) != 0 ||
                             (status != wanted_ && scenario_.unfinished.count(name) != 0);
        EXPECT_TRUE(excused || is(done_) || (status != wanted_ && is(before)))
            << "'" << name << "' is half made, left or lost"
            << (status == wanted_ ? ", and the run says 'done'" : "");
    }

    void failAllocations(void (*fail)(int64_t), const char* how) {
        for (int64_t n = 1; !::testing::Test::HasFailure(); n++) {
            bool met = false;
            round("allocation " + std::to_string(n) + " " + how, [&] {
                fail(n);
                const int status = scenario_.run();
                met = heapFaultHappened();
                failHeapAllocation(0);
                return status;
            });
            if (!met)
                return;
        }
    }

    void each(const Names& calls, Effect effect, const char* what, const char* how) {
        for (size_t n = 1; n <= calls.size() && !::testing::Test::HasFailure(); n++)
            round(std::string(what) + " " + std::to_string(n) + " (" + calls[n - 1] + ") " + how,
                  [&] { return effect == Effect::kill ? killed(n) : troubled(effect, n); });
    }

    int troubled(Effect effect, size_t n) {
        const HostCallGuard guard;
        setTrap(effect, n);
        const int status = scenario_.run();
        for (size_t i = n - 1; i < trap.all.size() && (i == n - 1 || effect == Effect::failOn); i++)
            mayStay_ = mayStay_ || trap.all[i].find("unlink") != std::string::npos;
        EXPECT_TRUE(status == wanted_ || effect != Effect::shorten) << "a short transfer is no failure";
        return status;
    }

    int killed(size_t n) {
        const int end = inChild([&] {
            setTrap(Effect::kill, n);
            scenario_.run();
            _exit(0);
        });
        EXPECT_TRUE(WIFSIGNALED(end)) << "the run took fewer steps than the first";
        return kWasKilled;
    }

    const Scenario& scenario_;
    int rounds_ = 0;
    int wanted_ = 0;
    bool mayStay_ = false; // the host refused to delete
    const Files start_ = filesOfTest();
    Files done_;
};

} // namespace

int walkTrouble(const Scenario& scenario, unsigned troubles) {
    return Walk(scenario).walk(troubles);
}
