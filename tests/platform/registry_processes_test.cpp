// The registry between processes: what one writes another reads at once, and a process that is cut off at any
// host call, or that the host fails at any call, leaves every value old or new.
#include "tests/support/registry_test.h"
#include "tests/support/traps.h"

#include <cerrno>
#include <map>
#include <random>
#include <unistd.h>

using RegistryProcesses = RegistryTest;

namespace {

// What may be cut off: an operation on a key that was there before, or was not.
struct Operation {
    const char* name;
    const char* key;
    const char* before;
    const char* after;
    int32_t (*run)();
};

constexpr Operation kOperations[] = {
    {"replace a value", "top\\held", "old", "new", [] { return setText("Top\\Held", "new"); }},
    {"make a key with its value", "top\\fresh", "(no key)", "new",
     [] { return setText("Top\\Fresh", "new"); }},
    {"make the way to a key", "way\\to\\it", "(no key)", "new", [] { return setText("Way\\To\\It", "new"); }},
    {"make a volatile key", "top\\passing", "(no key)", "new",
     [] { return setText("Top\\Passing", "new", REG_OPTION_VOLATILE); }},
    {"delete a key", "top\\going", "old", "(no key)",
     [] { return RegDeleteKeyA(HKEY_CLASSES_ROOT, "Top\\Going"); }},
};

void setUp(const Operation& operation) {
    setText("Top\\other", "keeps the folder");
    if (operation.before == std::string("old"))
        setText(operation.key, "old");
    else
        for (const char* key : {operation.key, "Way\\To", "Way"})
            RegDeleteKeyA(HKEY_CLASSES_ROOT, key);
}

} // namespace

TEST_F(RegistryProcesses, AWriterKilledAtAnyHostCallLeavesTheValueOldOrNew) {
    for (const auto& operation : kOperations) {
        SCOPED_TRACE(operation.name);
        int outcomes[2] = {};
        for (int64_t nth = 1;; nth++) {
            setUp(operation);
            const int end = inProcess([&] {
                HostCallTrap trap(nth);
                operation.run();
                return 0;
            });
            const std::string found = textOf(operation.key);
            ASSERT_TRUE(found == operation.before || found == operation.after)
                << found << " after call " << nth;
            outcomes[found == operation.after]++;
            ASSERT_EQ(setText("Top\\next", "works"), 0) << "after call " << nth;
            ASSERT_EQ(textOf("Top\\next"), "works");
            if (end == 0)
                break;
            ASSERT_EQ(end, -1);
        }
        EXPECT_GT(outcomes[0], 2);
        EXPECT_GT(outcomes[1], 0);
    }
    EXPECT_EQ(filesIn(persistentTree()), (std::vector<std::string>{".changes", "top", "way"}))
        << "the leftovers are gone";
}

TEST_F(RegistryProcesses, AFailingHostCallFailsTheOperationOrIsMadeGood) {
    for (const auto& operation : kOperations)
        for (const int error : {EIO, EINTR}) {
            SCOPED_TRACE(std::string(operation.name) + ", error " + std::to_string(error));
            for (int64_t nth = 1;; nth++) {
                setUp(operation);
                int32_t code;
                int64_t calls;
                {
                    HostCallTrap trap(nth, error);
                    code = operation.run();
                    calls = HostCallTrap::calls();
                }
                const std::string found = inProcess([&] { return textOf(operation.key) == operation.after; })
                                              ? operation.after
                                              : operation.before;
                ASSERT_EQ(textOf(operation.key), found) << "call " << nth;
                ASSERT_TRUE(code != 0 || found == operation.after) << "call " << nth;
                if (calls < nth)
                    break;
            }
        }
}

TEST_F(RegistryProcesses, TwoProcessesSeeEachOthersChangesAtOnce) {
    // The other process does what it is told and answers with what it then reads.
    struct Order {
        char action; // set, delete, read
        int key;
        char text[40];
    };
    int orders[2], answers[2];
    ASSERT_EQ(pipe(orders), 0);
    ASSERT_EQ(pipe(answers), 0);
    const auto nameOf = [](int key) {
        return "Shared\\Key" + std::to_string(key) + (key % 3 == 0 ? "\\sub" : "");
    };
    const auto obey = [&](const Order& order) {
        const uint32_t option = order.key % 4 == 0 ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE;
        if (order.action == 's')
            setText(nameOf(order.key), order.text, option);
        else if (order.action == 'd')
            RegDeleteKeyA(HKEY_CLASSES_ROOT, nameOf(order.key).c_str());
        Order answer = order;
        textOf(nameOf(order.key)).copy(answer.text, sizeof answer.text - 1);
        answer.text[std::min(textOf(nameOf(order.key)).size(), sizeof answer.text - 1)] = 0;
        return answer;
    };
    const pid_t other = startProcess([&] {
        close(orders[1]);
        for (Order order; read(orders[0], &order, sizeof order) == sizeof order;) {
            const Order answer = obey(order);
            if (write(answers[1], &answer, sizeof answer) != sizeof answer)
                return 1;
        }
        return 0;
    });
    close(orders[0]);
    std::mt19937 random(11);
    std::map<int, std::string> model;
    for (int step = 0; step < 1500; step++) {
        Order order{"sdrr" [random() % 4], int(random() % 12), {}};
        std::to_string(random()).copy(order.text, sizeof order.text - 1);
        if (order.action == 's')
            model[order.key] = order.text;
        else if (order.action == 'd')
            model.erase(order.key);
        Order answer;
        if (random() % 2 == 0) {
            answer = obey(order);
        } else {
            ASSERT_EQ(write(orders[1], &order, sizeof order), ssize_t(sizeof order));
            ASSERT_EQ(read(answers[0], &answer, sizeof answer), ssize_t(sizeof answer));
        }
        const auto held = model.find(order.key);
        const std::string expected = held != model.end() ? held->second : "(no key)";
        ASSERT_EQ(answer.text, expected) << "step " << step << ", key " << order.key;
        ASSERT_EQ(textOf(nameOf(order.key)), expected) << "step " << step << ", here";
    }
    size_t listed = 0;
    for (const auto& name : subkeysOf("shared"))
        listed += model.count(std::stoi(name.substr(3)));
    EXPECT_EQ(listed, model.size());
    close(orders[1]);
    EXPECT_EQ(endOf(other), 0);
    close(orders[0]);
    close(answers[0]);
    close(answers[1]);
}

TEST_F(RegistryProcesses, AVolatileKeyThatBecamePersistentElsewhereTakesValuesThere) {
    setText("turned", "v", REG_OPTION_VOLATILE);
    HKEY key = makeTestKey("turned");
    ASSERT_EQ(inProcess([] { return setText("turned\\below", "p") + setText("turned", "theirs"); }), 0);
    EXPECT_EQ(RegSetValueExA(key, nullptr, 0, REG_SZ, reinterpret_cast<const uint8_t*>("mine"), 5), 0);
    EXPECT_EQ(textOf("turned"), "mine") << "not hidden by the persistent value";
    RegCloseKey(key);
}
