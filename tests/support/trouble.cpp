#include "tests/support/trouble.h"

#include "tests/support/faults.h"
#include "tests/support/processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/mman.h>
#include <type_traits>

namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, Bytes>;
using Names = std::vector<std::string>;

// --- Host calls that are counted, fail, come short or kill ------------------------------------------------

struct {
    HostCalls real;
    unsigned trouble; // one of Trouble, or 0
    bool goesOn;      // so that later calls fail, too
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
    if (trap.trouble == kHostFails && (trap.goesOn ? call >= nth : call == nth) && !isSafe)
        return {EIO};
    if (trap.trouble == kCutShort && isTransfer && trap.transfers.size() == nth) // of a single byte: a signal
        return {EINTR, true};
    if (trap.trouble == kDiskFull && takesRoom && change >= nth)
        return {ENOSPC, isTransfer && change == nth};
    if (trap.trouble == kKilled && isChange && change == nth)
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
void setTrap(unsigned trouble, bool goesOn, size_t nth) {
    trap = {hostCalls, trouble, goesOn, nth, {}, {}, {}};
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

} // namespace

int walkTrouble(const Scenario& scenario, unsigned troubles) {
    const Files start = filesOfTest();
    Files done;
    int rounds = 0, wanted = 0;
    bool mayStay = false; // the host refused to delete
    const auto trapped = [&](unsigned trouble, bool goesOn, size_t n) {
        const HostCallGuard guard;
        setTrap(trouble, goesOn, n);
        const int status = scenario.run();
        for (size_t i = n - 1; i < trap.all.size() && (i == n - 1 || goesOn); i++)
            mayStay = mayStay || trap.all[i].find("unlink") != std::string::npos;
        EXPECT_TRUE(status == wanted || trouble != kCutShort) << "a short transfer is no failure";
        return status;
    };
    // One run, and what must hold after it. `run` gives its status.
    const auto round = [&](const std::string& trouble, const std::function<int()>& run) {
        SCOPED_TRACE("when " + trouble);
        const HeapBalance balance;
        const size_t descriptors = filesIn("/proc/self/fd").size();
        restoreFiles(start);
        scenario.prepare();
        mayStay = false;
        const Files before = filesOfTest();
        const int status = run();
        const Files after = filesOfTest();
        if (rounds++ == 0)
            done = after;
        EXPECT_TRUE(status == kWasKilled || status == wanted || scenario.statuses.count(status) != 0)
            << status;
        for (const Files& files : {before, done, after})
            for (const auto& [name, bytes] : files) {
                const auto of = [&name = name](const Files& all) {
                    return all.count(name) != 0 ? std::optional(all.at(name)) : std::nullopt;
                };
                EXPECT_TRUE(
                    mayStay || scenario.loose.count(name) != 0 || of(after) == of(done) ||
                    (status != wanted && (of(after) == of(before) || scenario.unfinished.count(name) != 0)))
                    << "'" << name << "' is half made, left or lost; the status is " << status;
            }
        scenario.check(status);
        EXPECT_EQ(filesIn("/proc/self/fd").size(), descriptors)
            << "descriptors left open or closed too often";
    };

    round("no trouble", [&] { return wanted = trapped(0, false, 0); });
    const Names all = trap.all, transfers = trap.transfers, changes = trap.changes;
    for (const auto fail : {failHeapAllocation, failHeapAllocationsFrom}) {
        bool met = (troubles & kNoMemory) != 0;
        for (int64_t n = 1; met && !::testing::Test::HasFailure(); n++)
            round("allocation " + std::to_string(n) +
                      (fail == failHeapAllocation ? " fails" : " and all later ones fail"),
                  [&] {
                      fail(n);
                      const int status = scenario.run();
                      met = heapFaultHappened();
                      failHeapAllocation(0);
                      return status;
                  });
    }
    const struct {
        unsigned trouble;
        bool goesOn;
        const Names& calls;
        const char *what, *how;
    } walks[] = {{kHostFails, false, all, "host call", "fails"},
                 {kHostFails, true, all, "host call", "and all later ones fail"},
                 {kCutShort, false, transfers, "transfer", "comes short"},
                 {kDiskFull, false, changes, "change", "finds the disk full"},
                 {kKilled, false, changes, "change", "does not come: the process is killed"}};
    for (const auto& [trouble, goesOn, calls, what, how] : walks)
        for (size_t n = 1; (troubles & trouble) != 0 && n <= calls.size() && !::testing::Test::HasFailure();
             n++)
            round(std::string(what) + " " + std::to_string(n) + " (" + calls[n - 1] + ") " + how,
                  [&, trouble = trouble, goesOn = goesOn] {
                      if (trouble != kKilled)
                          return trapped(trouble, goesOn, n);
                      const int end = inChild([&] { trapped(kKilled, false, n), _exit(0); });
                      EXPECT_TRUE(WIFSIGNALED(end)) << "the run took fewer steps than the first";
                      return kWasKilled;
                  });
    return rounds;
}
