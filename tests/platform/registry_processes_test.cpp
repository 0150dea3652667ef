// The registry between processes, held against a model of it.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"

#include <atomic>
#include <csignal>
#include <random>
#include <sched.h>
#include <set>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

using RegistryProcesses = RegistryTest;

namespace {

struct Order {
    char action; // set a value, delete a key, delete all from a key on, only look
    bool isVolatile;
    std::string key, text;
};

int32_t obey(const Order& order) {
    return order.action == 's'   ? setText(order.key, order.text, order.isVolatile)
           : order.action == 'd' ? RegDeleteKeyA(HKEY_CLASSES_ROOT, order.key.c_str())
           : order.action == 't' ? RegDeleteTreeA(HKEY_CLASSES_ROOT, order.key.c_str())
                                 : 0;
}

// What the two logs hold together.
struct Model {
    KeyModel logs[2]; // persistent, volatile

    int32_t obey(const Order& order) {
        const bool held[] = {logs[0].at(order.key) != "(no key)", logs[1].at(order.key) != "(no key)"};
        const bool exists = held[0] || held[1];
        if (order.action == 's')
            logs[exists ? !held[0] : order.isVolatile].set(order.key, order.text);
        if (order.action != 'd' && order.action != 't')
            return 0;
        if (order.action == 'd' && !logs[0].below(order.key).empty() + !logs[1].below(order.key).empty() != 0)
            return ERROR_ACCESS_DENIED;
        for (KeyModel& log : logs)
            log.erase(order.key);
        return exists ? 0 : ERROR_FILE_NOT_FOUND;
    }
    std::string dump() const {
        KeyModel all = logs[1];
        all.cover(logs[0]);
        return all.dump();
    }
};

} // namespace

// Three processes take turns: each knows all that is done, does its own share of it, and finds the others' done.
TEST_F(RegistryProcesses, EachSeesAtOnceWhatAModelSays) {
    static const char* const kKeys[] = {"a",       "b",       "a\\x",    "a\\y",    "b\\x",
                                        "a\\x\\p", "a\\x\\q", "c\\d\\e", "b\\x\\r", "c\\d"};
    static const char* const kOdd[] = {"..", "/",    "CON",   " ", "@a", "a\n",
                                       "~",  "\xc4", "\xe4z", "[", "Z",  "A\1"};
    const uint32_t seed = firstSeed() + 19;
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& turn = *static_cast<std::atomic<int>*>(shared);
    obey({'s', false, "z", "z"}); // so that the others inherit an open registry
    const auto play = [&](uint32_t who) {
        std::mt19937 random(seed);
        Model model;
        model.obey({'s', false, "z", "z"});
        for (int step = 0; step < 2000; step++) {
            Order order{"ssssdtl"[random() % 7], random() % 3 == 0, kKeys[random() % std::size(kKeys)], ""};
            if (random() % 4 == 0)
                order.key = std::string("c\\d\\") + kOdd[random() % std::size(kOdd)];
            order.text = std::string(random() % 10 == 0 ? random() % 9000 : random() % 40 + 1,
                                     char('a' + random() % 26));
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step) + ", " +
                         order.action + " " + order.key);
            const bool isOwn = random() % 3 == who;
            const std::string before = isOwn ? model.dump() : "";
            const int32_t expected = model.obey(order);
            if (step % 1000 == 999)
                model.logs[1] = {};
            for (int waits = 0; isOwn && turn < step && waits < 100000000; waits++)
                sched_yield();
            if (!isOwn)
                continue;
            ASSERT_TRUE(turn == step && !HasFailure());
            EXPECT_EQ(dumpRegistry(), before) << "what the others did";
            EXPECT_EQ(obey(order), expected);
            if (step % 1000 == 999)
                emptyVolatileTree(); // as a start of the machine does
            if (step % 300 == 299)
                forgetRegistry(); // as a process that starts now
            EXPECT_EQ(dumpRegistry(), model.dump());
            turn = step + 1;
        }
    };
    const pid_t others[] = {startProcess([&] { return play(0); }), startProcess([&] { return play(1); })};
    play(2);
    EXPECT_EQ(endOf(others[0]) + endOf(others[1]), 0);
    EXPECT_LT(readFile(persistentTree() + "/log").size(), 200000u) << "the past is thrown away";
    munmap(shared, 4096);
}

TEST_F(RegistryProcesses, LogsAreWrittenAnewBesideReadersAndWriters) {
    constexpr int kWriters = 4, kRounds = 1000;
    setText("0", "0");
    HKEY held = makeTestKey("0");
    const uint64_t state = registryState(held);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++)
        writers.push_back(startProcess([&] {
            int last[kWriters] = {};
            for (int round = 1; round <= kRounds; round++) {
                const std::string own = std::to_string(w), passing = "p" + own;
                ASSERT_EQ(setText(own, std::to_string(round) + std::string(2000, ' ')) |
                              setText(own + "\\" + std::to_string(round), own) |
                              setText(passing, "x", round % 2) |
                              RegDeleteTreeA(HKEY_CLASSES_ROOT, passing.c_str()),
                          0);
                for (int other = 0; other < kWriters; other++) {
                    const int number = std::atoi(textOf(std::to_string(other)).c_str());
                    ASSERT_GE(number, other == w ? round : last[other]) << "an older value came back";
                    last[other] = number;
                }
            }
        }));
    for (const pid_t writer : writers)
        EXPECT_EQ(endOf(writer), 0);
    char text[3000] = "";
    uint32_t size = sizeof text;
    EXPECT_EQ(RegQueryValueExA(held, nullptr, nullptr, nullptr, reinterpret_cast<uint8_t*>(text), &size), 0);
    EXPECT_EQ(std::atoi(text), kRounds) << "a handle from before goes on with the new file";
    for (int w = 0; w < kWriters; w++)
        for (int round = 1; round <= kRounds; round++)
            ASSERT_EQ(textOf(std::to_string(w) + "\\" + std::to_string(round)), std::to_string(w)) << round;
    EXPECT_NE(registryState(held), state);
    EXPECT_EQ(registryState(held), registryState(held));
    RegCloseKey(held);
    EXPECT_LT(readFile(persistentTree() + "/log").size(), 400000u);
    EXPECT_EQ(filesIn(persistentTree()), std::vector<std::string>{"log"});
}

TEST_F(RegistryProcesses, AWriterKilledAtAnyMomentTearsNothing) {
    std::set<std::string> seen;
    const auto look = [&](int i) {
        const std::string text = textOf(std::to_string(i % 8));
        seen.insert(text);
        EXPECT_TRUE(text == "(no key)" || text == std::string(20 + text.size() / 33 * 33, text[0])) << text;
    };
    for (int round = 0; round < 200; round++) {
        const pid_t writer = startProcess([] {
            for (size_t i = 0;; i++)
                setText(std::to_string(i % 8), std::string(20 + i % 7 * 33, char('a' + i % 26)));
        });
        for (int i = 0; i < round % 40 || seen.size() < 3; i++) // however slow the machine
            look(i);
        kill(writer, SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(endOf(writer)));
        for (int i = 0; i < 8; i++)
            look(i);
        ASSERT_EQ(setText("after", std::to_string(round)), 0);
    }
}

TEST_F(RegistryProcesses, AChildOfAForkWaitsForItsParent) {
    static int ends[2];
    static char byte; // 1: the child's write was refused while the parent was at its own
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    setText("a", "old"); // the child inherits the open files
    const pid_t child = startProcess([] {
        const HostCallGuard guard;
        hostCalls.flock = [](int fd, int operation) { return ::flock(fd, operation | LOCK_NB); };
        EXPECT_EQ(read(ends[1], &byte, 1), 1);
        byte = setText("a", "child") != 0;
        EXPECT_EQ(write(ends[1], &byte, 1), 1);
    });
    {
        const HostCallGuard guard;
        hostCalls.pwrite = [](int fd, const void* bytes, size_t count, off_t at) {
            EXPECT_EQ(write(ends[0], "", 1) + read(ends[0], &byte, 1), 2);
            return ::pwrite(fd, bytes, count, at);
        };
        EXPECT_EQ(setText("a", "parent"), 0);
    }
    EXPECT_EQ(byte, 1) << "the child shared its parent's lock";
    EXPECT_EQ(endOf(child), 0);
    EXPECT_EQ(textOf("a"), "parent");
    close(ends[0]);
    close(ends[1]);
}
