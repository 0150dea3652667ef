// Settings between processes.
#include "tests/support/registry_test.h"

#include <kal/tagset.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <set>
#include <unistd.h>

namespace {

const std::string kRoot = KAL_SETTINGS_ROOT;

} // namespace

using SharedTags = RegistryTest;

TEST_F(SharedTags, FourWritersLoseNothing) {
    constexpr int kWriters = 4, kTags = 1000;
    TagSet set; // open before, so that what it knew is old
    ASSERT_EQ(set.SetPath("Shared", 1), 0);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++)
        writers.push_back(startProcess([w] {
            TagSet own;
            int status = own.SetPath("Shared", 1);
            for (int i = 0; i < kTags; i++) {
                const std::string tag = "W" + std::to_string(w) + "-" + std::to_string(i);
                status |= own.SetTag(tag.c_str(), tag.c_str());
                status |= own.SetTag("contended", tag.c_str());
            }
            return status;
        }));
    for (const pid_t writer : writers)
        EXPECT_EQ(endOf(writer), 0);
    for (int w = 0; w < kWriters; w++)
        for (int i = 0; i < kTags; i++) {
            const std::string tag = "w" + std::to_string(w) + "-" + std::to_string(i);
            const char* value = set.GetTempTag(tag.c_str());
            ASSERT_NE(value, nullptr) << tag;
            ASSERT_STREQ(value, ("W" + tag.substr(1)).c_str());
        }
    EXPECT_EQ(subkeysOf(kRoot + "Shared").size(), size_t(kWriters * kTags + 1));
}

TEST_F(SharedTags, AWriterAtWorkOrKilledAtAnyMomentTearsNothing) {
    constexpr int kTags = 8;
    std::set<std::string> seen;
    // Each tag's value is one character, repeated, longer for each; a tag may also be absent.
    const auto lookAt = [&](TagSet& set, bool atWork) {
        for (int i = 0; i < kTags; i++) {
            const char* value = set.GetTempTag(("Tag" + std::to_string(i)).c_str());
            if (value == nullptr ||
                (atWork && *value == 0)) // removed between the opening of its key and the reading
                continue;
            const std::string text = value;
            ASSERT_GE(text.size(), 20u);
            ASSERT_EQ((text.size() - 20) % 33, 0u);
            ASSERT_EQ(text, std::string(text.size(), text[0]));
            seen.insert(text);
        }
    };
    for (int round = 0; round < 500; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const pid_t writer = startProcess([] {
            TagSet set;
            set.SetPath("Killed", 1);
            for (int i = 0;; i++) {
                const std::string tag = "Tag" + std::to_string(i % kTags);
                const std::string value(size_t(20 + i % 7 * 33), char('a' + i % 26));
                set.SetTag(tag.c_str(), i % 5 == 0 ? nullptr : value.c_str());
            }
            return 0;
        });
        TagSet watcher, set;
        ASSERT_EQ(watcher.SetPath("Killed", 1), 0);
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::microseconds(300 + round * 173 % 2000);
        // However slow the machine, the first writer gets to write.
        while ((std::chrono::steady_clock::now() < end || seen.size() < 2) && !HasFatalFailure())
            lookAt(watcher, true);
        kill(writer, SIGKILL);
        EXPECT_EQ(endOf(writer), -1);
        ASSERT_EQ(set.SetPath("Killed", 1), 0);
        ASSERT_NO_FATAL_FAILURE(lookAt(set, false));
        ASSERT_EQ(set.SetTag("after", std::to_string(round).c_str()), 0);
        ASSERT_EQ(textOf(kRoot + "Killed\\after"), std::to_string(round));
    }
}

TEST_F(SharedTags, TemporaryNumbersDifferAndVolatileSetsOutliveTheirMaker) {
    constexpr int kProcesses = 4, kSets = 30;
    int numbers[2];
    ASSERT_EQ(pipe(numbers), 0);
    std::vector<pid_t> processes;
    for (int p = 0; p < kProcesses; p++)
        processes.push_back(startProcess([&] {
            std::vector<TagSet> sets(kSets);
            for (TagSet& set : sets) {
                set.SetTag("t", "v");
                int number = std::atoi(set.GetPath() + 5);
                if (write(numbers[1], &number, sizeof number) != sizeof number)
                    return 1;
            }
            _exit(0); // leaves its sets behind, as a process does that is killed
        }));
    for (const pid_t process : processes)
        EXPECT_EQ(endOf(process), 0);
    close(numbers[1]);
    std::set<int> drawn;
    for (int number; read(numbers[0], &number, sizeof number) == sizeof number;)
        EXPECT_TRUE(drawn.insert(number).second) << number << " was drawn twice";
    close(numbers[0]);
    EXPECT_EQ(drawn.size(), size_t(kProcesses * kSets));
    EXPECT_EQ(subkeysOf(kRoot + "Temp").size(), drawn.size());

    TagSet kept;
    ASSERT_EQ(kept.SetPath("Kept", 1), 0);
    kept.SetTag("t", "v");
    emptyVolatileTree();
    TagSet after;
    ASSERT_EQ(after.SetPath("Kept", 1), 0);
    EXPECT_STREQ(after.GetTempTag("t"), "v");
    EXPECT_EQ(subkeysOf(kRoot), std::vector<std::string>{"Kept"});
    TagSet first;
    first.SetTag("t", "v");
    EXPECT_STREQ(first.GetPath(), "Temp\\0");
}
