#include "tests/support/trouble.h"

#include "tests/support/processes.h"
#include "tests/support/traps.h"

#include <cerrno>
#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;
using Effect = HostCallTrap::Effect;
using Files = std::map<std::string, Bytes>;

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
        const HostCallGuard guard;
        round("no trouble", [this] {
            const HostCallTrap counted(HostCallTrap::kCount, 0, 0);
            wanted_ = scenario_.run();
            all_ = HostCallTrap::names();
            transfers_ = HostCallTrap::transfers();
            changes_ = HostCallTrap::changes();
            return wanted_;
        });
        if (troubles & kNoMemory) {
            failAllocations(failHeapAllocation, "fails");
            failAllocations(failHeapAllocationsFrom, "and all later ones fail");
        }
        if (troubles & kHostFails) {
            each(all_, Effect::kFail, "host call", "fails");
            each(all_, Effect::kFailOn, "host call", "and all later ones fail");
        }
        if (troubles & kCutShort)
            each(transfers_, Effect::kShorten, "transfer", "comes short");
        if (troubles & kDiskFull)
            each(changes_, Effect::kNoRoom, "change", "finds the disk full");
        if (troubles & kKilled)
            each(changes_, Effect::kKillBefore, "change", "does not come: the process is killed");
        return rounds_;
    }

private:
    // One run, and what must hold after it. `run` gives its status.
    template <class Run>
    void round(const std::string& trouble, Run run) {
        SCOPED_TRACE("when " + trouble);
        const HeapBalance balance;
        const size_t descriptors = openDescriptors();
        if (!scenario_.keepsFolder)
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

    void each(const std::vector<std::string>& calls, Effect effect, const char* what, const char* how) {
        for (size_t n = 1; n <= calls.size() && !::testing::Test::HasFailure(); n++)
            round(std::string(what) + " " + std::to_string(n) + " (" + calls[n - 1] + ") " + how,
                  [&] { return effect == Effect::kKillBefore ? killed(n) : troubled(effect, n); });
    }

    int troubled(Effect effect, size_t n) {
        const HostCallTrap trap(effect, static_cast<int64_t>(n), EIO);
        const int status = scenario_.run();
        const auto& calls = HostCallTrap::names();
        for (size_t i = n - 1; i < calls.size() && (i == n - 1 || effect == Effect::kFailOn); i++)
            mayStay_ = mayStay_ || calls[i].find("unlink") != std::string::npos;
        EXPECT_TRUE(status == wanted_ || effect != Effect::kShorten) << "a short transfer is no failure";
        return status;
    }

    int killed(size_t n) {
        const int end = inChild([&] {
            const HostCallTrap trap(Effect::kKillBefore, static_cast<int64_t>(n), 0);
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
    std::vector<std::string> all_, transfers_, changes_;
};

} // namespace

int walkTrouble(const Scenario& scenario, unsigned troubles) {
    return Walk(scenario).walk(troubles);
}
