// Settings between processes.
#include "tests/support/registry_test.h"

#include <kal/tagset.h>

#include <chrono>
#include <csignal>
#include <set>
#include <unistd.h>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT;

} // namespace

using SharedTags = RegistryTest;

TEST_F(SharedTags, AWriterAtWorkOrKilledAtAnyMomentTearsNothing) {
    constexpr int kTags = 8;
    std::set<std::string> seen;
    // Each tag's value is one character, repeated, longer for each; a tag may also be absent, and while a writer is at
    // work be removed between the opening of its key and the reading.
    const auto lookAt = [&](TagSet& set, bool atWork) {
        for (int i = 0; i < kTags; i++) {
            const char* value = set.GetTempTag(("Tag" + std::to_string(i)).c_str());
            if (value == nullptr || (atWork && *value == 0))
                continue;
            const std::string text = value;
            ASSERT_TRUE(text.size() >= 20 && (text.size() - 20) % 33 == 0) << text;
            ASSERT_EQ(text, std::string(text.size(), text[0]));
            seen.insert(text);
        }
    };
    for (int round = 0; round < 500; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const pid_t writer = startProcess([] {
            TagSet set;
            set.SetPath("Killed", 1);
            for (int i = 0;; i++)
                set.SetTag(("Tag" + std::to_string(i % kTags)).c_str(),
                           i % 5 == 0 ? nullptr
                                      : std::string(size_t(20 + i % 7 * 33), char('a' + i % 26)).c_str());
            return 0;
        });
        TagSet set;
        ASSERT_EQ(set.SetPath("Killed", 1), 0);
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::microseconds(100 + round * 173 % 1000);
        // However slow the machine, the first writer gets to write.
        while ((std::chrono::steady_clock::now() < end || seen.size() < 2) && !HasFatalFailure())
            lookAt(set, true);
        kill(writer, SIGKILL);
        EXPECT_EQ(endOf(writer), -1);
        ASSERT_NO_FATAL_FAILURE(lookAt(set, false));
        ASSERT_EQ(set.SetTag("after", std::to_string(round).c_str()), 0);
        ASSERT_EQ(textOf(kRoot + "Killed\\after"), std::to_string(round));
    }
}

TEST_F(SharedTags, TemporaryNumbersDifferAndVolatileSetsOutliveTheirMaker) {
    constexpr int kProcesses = 4, kSets = 30;
    std::vector<pid_t> processes;
    for (int p = 0; p < kProcesses; p++)
        processes.push_back(startProcess([&] {
            std::vector<TagSet> sets(kSets);
            for (TagSet& set : sets)
                if (set.SetTag("t", std::to_string(getpid()).c_str()) != 0)
                    return 1;
            for (TagSet& set : sets)
                if (textOf(kRoot + set.GetPath() + "\\t") != std::to_string(getpid()))
                    return 2;
            _exit(0); // leaves its sets behind, as a process does that is killed
        }));
    for (const pid_t process : processes)
        EXPECT_EQ(endOf(process), 0) << "2: a number was drawn twice";
    EXPECT_EQ(std::stoi(textOf(kRoot + "NextTemp")) >= kProcesses * kSets, true);

    TagSet kept;
    ASSERT_EQ(kept.SetPath("Kept", 1), 0);
    kept.SetTag("t", "v");
    emptyVolatileTree();
    TagSet after, first;
    ASSERT_EQ(after.SetPath("Kept", 1), 0);
    EXPECT_STREQ(after.GetTempTag("t"), "v");
    first.SetTag("t", "v");
    EXPECT_STREQ(first.GetPath(), "Temp\\0") << "the volatile sets are gone";
}
