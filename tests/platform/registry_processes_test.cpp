// The registry between processes, held against a model of it, and writers that are killed.
#include "tests/support/registry_test.h"
#include "tests/support/traps.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sys/file.h>
#include <unistd.h>

using RegistryProcesses = RegistryTest;

namespace {

struct Order {
    char action; // set a value, delete a key, delete all from a key on, only look
    bool isVolatile;
    char key[20];
    uint32_t length; // of the value
    char letter;
};

std::string folded(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return char(std::tolower(c)); });
    return text;
}

int32_t obey(const Order& order) {
    const uint32_t option = order.isVolatile ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE;
    switch (order.action) {
    case 's':
        return setText(order.key, std::string(order.length, order.letter), option);
    case 'd':
        return RegDeleteKeyA(HKEY_CLASSES_ROOT, order.key);
    case 't':
        return RegDeleteTreeA(HKEY_CLASSES_ROOT, order.key);
    }
    return 0;
}

// What the two logs hold together, written down in the plainest way: each key with its value, in each log.
class Model {
public:
    int32_t obey(const Order& order) {
        const std::string key = order.key;
        const bool exists = keys_[0].count(key) + keys_[1].count(key) != 0;
        if (order.action == 's') {
            auto& log = keys_[exists ? keys_[0].count(key) == 0 : order.isVolatile];
            for (size_t end = key.find('\\'); end != std::string::npos; end = key.find('\\', end + 1))
                log.emplace(key.substr(0, end), "(no value)");
            log[key] = std::string(order.length, order.letter);
            return 0;
        }
        if (order.action != 'd' && order.action != 't')
            return 0;
        const auto isBelow = [&](const std::string& other) { return other.rfind(key + "\\", 0) == 0; };
        if (order.action == 'd')
            for (const auto& log : keys_)
                for (const auto& [other, value] : log)
                    if (isBelow(other))
                        return ERROR_ACCESS_DENIED;
        for (auto& log : keys_)
            std::erase_if(log, [&](const auto& one) { return one.first == key || isBelow(one.first); });
        return exists ? 0 : ERROR_FILE_NOT_FOUND;
    }
    void restart() { keys_[1].clear(); } // of the machine

    std::string dump() const {
        std::map<std::string, std::string> all = keys_[1];
        for (const auto& [key, value] : keys_[0])
            if (value != "(no value)" || all.count(key) == 0)
                all[key] = value;
        return dump(all, "");
    }

private:
    static std::string dump(const std::map<std::string, std::string>& all, const std::string& above) {
        std::string text;
        for (const auto& [key, value] : all)
            if (key.rfind(above, 0) == 0 && key.find('\\', above.size()) == std::string::npos)
                text += key.substr(above.size()) + "=" + value + "{" + dump(all, key + "\\") + "}";
        return text;
    }

    std::map<std::string, std::string> keys_[2]; // persistent, volatile
};

// Another process, which does what it is told and answers with the code and a hash of all that it then sees.
class Companion {
public:
    Companion() {
        EXPECT_EQ(pipe(orders_) + pipe(answers_), 0);
        process_ = startProcess([this] {
            close(orders_[1]);
            for (Order order; read(orders_[0], &order, sizeof order) == sizeof order;) {
                const size_t answer[2] = {static_cast<size_t>(obey(order)),
                                          std::hash<std::string>()(dumpRegistry())};
                if (write(answers_[1], answer, sizeof answer) != sizeof answer)
                    return 1;
            }
            return 0;
        });
        close(orders_[0]);
        close(answers_[1]);
    }
    ~Companion() {
        close(orders_[1]);
        EXPECT_EQ(endOf(process_), 0);
        close(answers_[0]);
    }
    std::pair<int32_t, size_t> tell(const Order& order) {
        size_t answer[2] = {};
        EXPECT_EQ(write(orders_[1], &order, sizeof order), ssize_t(sizeof order));
        EXPECT_EQ(read(answers_[0], answer, sizeof answer), ssize_t(sizeof answer));
        return {static_cast<int32_t>(answer[0]), answer[1]};
    }

private:
    int orders_[2], answers_[2];
    pid_t process_;
};

} // namespace

TEST_F(RegistryProcesses, EachSeesAtOnceWhatAModelSays) {
    const uint32_t seed = firstSeed();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Model model;
    obey({'s', false, "z", 1, 'z'}); // so that the companions inherit an open registry
    model.obey({'s', false, "z", 1, 'z'});
    Companion companions[2];
    static const char* const kKeys[] = {"a",       "B",       "a\\X",    "a\\y",    "B\\x",
                                        "a\\X\\p", "a\\X\\q", "c\\d\\e", "B\\x\\r", "c\\d"};
    for (int step = 0; step < 3000; step++) {
        Order order{"ssssdtl"[random() % 7], random() % 3 == 0, {}, 0, char('a' + random() % 26)};
        const std::string key = folded(kKeys[random() % std::size(kKeys)]);
        key.copy(order.key, sizeof order.key - 1);
        order.length = random() % 10 == 0 ? uint32_t(random() % 9000) : uint32_t(random() % 40 + 1);
        const int32_t expected = model.obey(order);
        const size_t who = random() % 3;
        const auto answer =
            who == 2 ? std::pair<int32_t, size_t>(obey(order), 0) : companions[who].tell(order);
        ASSERT_EQ(answer.first, expected) << "step " << step << ", " << order.action << " " << order.key;
        const std::string dump = model.dump();
        if (who != 2) {
            ASSERT_EQ(answer.second, std::hash<std::string>()(dump))
                << "step " << step << ", in the other process";
        }
        ASSERT_EQ(dumpRegistry(), dump) << "step " << step << ", " << order.action << " " << order.key;
        if (step % 300 == 299) {
            forgetRegistry(); // as a process that starts now
            ASSERT_EQ(dumpRegistry(), dump) << "step " << step << ", read again";
        }
        if (step % 1000 == 999) {
            emptyVolatileTree();
            model.restart();
            ASSERT_EQ(dumpRegistry(), model.dump()) << "step " << step << ", after a start of the machine";
        }
    }
    EXPECT_LT(readFile(persistentTree() + "/log").size(), 200000u) << "the past is thrown away";
}

TEST_F(RegistryProcesses, AWriterKilledAtAnyHostCallLeavesTheValueOldOrNew) {
    const struct {
        const char* key;
        const char* before;
        const char* after;
        int32_t (*run)();
    } operations[] = {
        {"Top\\Held", "old", "new", [] { return setText("Top\\Held", "new"); }},
        {"Way\\To\\It", "(no key)", "new", [] { return setText("Way\\To\\It", "new"); }},
        {"Top\\Passing", "(no key)", "new",
         [] { return setText("Top\\Passing", "new", REG_OPTION_VOLATILE); }},
        {"Top\\Going", "old", "(no key)", [] { return RegDeleteKeyA(HKEY_CLASSES_ROOT, "Top\\Going"); }},
    };
    for (const auto& [key, before, after, run] : operations)
        for (const bool anew : {false, true}) { // past 64 KiB: the log is written anew first
            SCOPED_TRACE(std::string(key) + (anew ? ", log written anew" : ""));
            std::set<std::string> outcomes;
            for (int64_t nth = 1, end = -1; end != 0; nth++) {
                before == std::string("old") ? setText(key, "old") : RegDeleteKeyA(HKEY_CLASSES_ROOT, key);
                for (int i = 0; anew && i < 4; i++)
                    for (const uint32_t option : {REG_OPTION_NON_VOLATILE, REG_OPTION_VOLATILE})
                        setText(option == REG_OPTION_VOLATILE ? "Past volatile" : "Past",
                                std::string(i == 3 ? 1 : 40000, 'x'), option);
                const pid_t writer = startProcess([&] {
                    HostCallTrap trap(nth);
                    run();
                    return 0;
                });
                end = endOf(writer);
                const std::string found = textOf(key);
                ASSERT_TRUE(found == before || found == after) << found << " after call " << nth;
                outcomes.insert(found);
                ASSERT_EQ(setText("Top\\next", "works"), 0) << "after call " << nth;
                ASSERT_EQ(inProcess([&] { return textOf("Top\\next") == "works" && textOf(key) == found; }),
                          1)
                    << "call " << nth;
            }
            EXPECT_EQ(outcomes.size(), 2u);
        }
}

TEST_F(RegistryProcesses, LogsAreWrittenAnewBesideReadersAndWriters) {
    constexpr int kWriters = 4, kRounds = 400;
    setText("0", "0");
    const auto numberIn = [](int key) { return std::atoi(textOf(std::to_string(key)).c_str()); };
    HKEY held = makeTestKey("0");
    const uint64_t state = registryState(held);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++)
        writers.push_back(startProcess([&] {
            int last[kWriters] = {};
            for (int round = 1; round <= kRounds; round++) {
                if (setText(std::to_string(w), std::to_string(round) + std::string(2000, ' ')) != 0)
                    return 1;
                for (int other = 0; other < kWriters; other++) {
                    const int number = numberIn(other);
                    if (number < last[other] || (other == w && number != round))
                        return 2;
                    last[other] = number;
                }
            }
            return 0;
        }));
    for (const pid_t writer : writers)
        EXPECT_EQ(endOf(writer), 0) << "1: a write failed; 2: an older value came back";
    char text[3000] = "";
    uint32_t size = sizeof text;
    EXPECT_EQ(RegQueryValueExA(held, nullptr, nullptr, nullptr, reinterpret_cast<uint8_t*>(text), &size), 0);
    EXPECT_EQ(std::atoi(text), kRounds) << "a handle from before goes on with the new file";
    for (int w = 0; w < kWriters; w++)
        EXPECT_EQ(numberIn(w), kRounds);
    EXPECT_NE(registryState(held), state);
    EXPECT_EQ(registryState(held), registryState(held));
    RegCloseKey(held);
    EXPECT_LT(readFile(persistentTree() + "/log").size(), 80000u);
    EXPECT_EQ(filesIn(persistentTree()), std::vector<std::string>{"log"});
}

TEST_F(RegistryProcesses, AChildOfAForkWaitsForItsParent) {
    static int toChild[2], toParent[2];
    ASSERT_EQ(pipe(toChild) + pipe(toParent), 0);
    setText("a", "old"); // the child inherits the open files
    const pid_t child = startProcess([] {
        int32_t code = 0;
        const HostCallGuard guard;
        hostCalls.flock = [](int fd, int operation) { return ::flock(fd, operation | LOCK_NB); };
        bool done = read(toChild[0], &code, sizeof code) == sizeof code;
        code = setText("a", "child");
        done = write(toParent[1], &code, sizeof code) == sizeof code && done;
        return done ? 0 : 1;
    });
    {
        const HostCallGuard guard;
        static int32_t code = 0; // of a write of the child while the parent is at its own
        hostCalls.pwrite = [](int fd, const void* bytes, size_t count, off_t at) {
            EXPECT_EQ(write(toChild[1], &code, sizeof code), ssize_t(sizeof code));
            EXPECT_EQ(read(toParent[0], &code, sizeof code), ssize_t(sizeof code));
            return ::pwrite(fd, bytes, count, at);
        };
        EXPECT_EQ(setText("a", "parent"), 0);
        EXPECT_NE(code, 0) << "the child shared its parent's lock";
    }
    EXPECT_EQ(endOf(child), 0);
    EXPECT_EQ(textOf("a"), "parent");
    for (const int end : {toChild[0], toChild[1], toParent[0], toParent[1]})
        close(end);
}
