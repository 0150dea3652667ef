// Memory that runs short at each allocation of each command, for once or for ever: the command says so, or has done all.
#include "tests/support/registry_test.h"
#include "tests/tools/bmp_files.h"
#include "tests/tools/run_tool.h"

#include <cstdlib>
#include <filesystem>

namespace {

class ShortMemory : public RegistryTest {};

// Every command, with what tells what it has done, where that is not what it prints.
const struct {
    Arguments command;
    Arguments result;
} kCommands[] = {{{"list", "a.kal"}, {}},
                 {{"extract", "a.kal", "1", "-o", "out"}, {}},
                 {{"sheet", "a.kal", "-o", "out"}, {}},
                 {{"store", "a.kal", "p.bmp"}, {"list", "a.kal"}},
                 {{"store", "new.kal", "p.bmp"}, {"list", "new.kal"}},
                 {{"compound", "list", "c.ole"}, {}},
                 {{"compound", "cat", "c.ole", "s"}, {}},
                 {{"compound", "put", "c.ole", "s", "p.bmp"}, {"compound", "list", "c.ole"}},
                 {{"compound", "put", "new.ole", "s", "p.bmp"}, {"compound", "list", "new.ole"}},
                 {{"resource", "make", "new.res", "script"}, {"resource", "list", "new.res"}},
                 {{"resource", "list", "r.res"}, {}},
                 {{"settings", "list", "Maker\\App"}, {}},
                 {{"settings", "tree"}, {}},
                 {{"settings", "get", "Maker\\App", "Tag"}, {}}};

struct State {
    int status;
    std::string out;
    std::string result;
    std::vector<std::string> files;
};

State stateAfter(const Arguments& command, const Arguments& result, long nth, bool on) {
    for (const char* name : {"a.kal", "c.ole"})
        std::filesystem::copy_file(std::string("../kept/") + name, name,
                                   std::filesystem::copy_options::overwrite_existing);
    for (const char* made : {"out", "new.kal", "new.ole", "new.res"})
        ::unlink(made);
    setenv("LD_PRELOAD", KAL_MEMORY_TROUBLE, 1);
    setenv("KAL_FAIL_AT", std::to_string(nth).c_str(), 1);
    if (on)
        setenv("KAL_FAIL_ON", "1", 1);
    const Outcome outcome = kal(command);
    for (const char* name : {"LD_PRELOAD", "KAL_FAIL_AT", "KAL_FAIL_ON"})
        unsetenv(name);
    if (nth > 0 && outcome.status != 0)
        expectFailure(outcome, 1, ": ");
    return {outcome.status, outcome.out, result.empty() ? "" : kal(result).out, filesIn(".")};
}

TEST_F(ShortMemory, IsToldOrDoesNoHarm) {
    if (slowBuild)
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    const std::string here = path("here");
    for (const std::string& folder : {path("kept"), here})
        std::filesystem::create_directory(folder);
    std::filesystem::current_path(here);
    writeFile("p.bmp", makeBmp({40, 30, 8}, 1));
    writeFile("script", bytesOf("1 text \"Open\"\n2 file p.bmp\n"));
    kalSucceeds({"store", "../kept/a.kal", "p.bmp"});
    kalSucceeds({"compound", "put", "../kept/c.ole", "s", "script"});
    kalSucceeds({"compound", "put", "../kept/c.ole", "t", "p.bmp"});
    kalSucceeds({"resource", "make", "r.res", "script"});
    for (const char* tag : {"Tag", "Other", "Third"})
        kalSucceeds({"settings", "set", "Maker\\App", tag, "value"});
    // Each command allocates some 900 times; with KAL_TEST_LARGE each of them fails.
    const long step = std::getenv("KAL_TEST_LARGE") != nullptr ? 1 : 13;
    for (const auto& [command, result] : kCommands) {
        SCOPED_TRACE(::testing::PrintToString(command));
        setenv("KAL_FAIL_COUNT", path("count").c_str(), 1);
        const State done = stateAfter(command, result, 0, false);
        unsetenv("KAL_FAIL_COUNT");
        const Bytes text = readFile(path("count"));
        const long count = std::atol(std::string(text.begin(), text.end()).c_str());
        ASSERT_EQ(done.status, 0);
        ASSERT_GT(count, 500);
        const State before = stateAfter(command, result, 1, true);
        for (long nth = 1; nth <= count && !HasFailure(); nth += nth > count - 130 ? (step + 2) / 3 : step)
            for (const bool on : {false, true}) {
                SCOPED_TRACE(::testing::Message()
                             << "allocation " << nth << (on ? " and all later" : "") << " of " << count);
                const State state = stateAfter(command, result, nth, on);
                if (state.status == 0) {
                    EXPECT_EQ(state.out, done.out) << "a shorter result";
                }
                EXPECT_EQ(state.result, state.status == 0 ? done.result : before.result);
                EXPECT_EQ(state.files, state.status == 0 ? done.files : before.files);
            }
    }
    std::filesystem::current_path(path(""));
}

} // namespace
