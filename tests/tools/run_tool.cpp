#include "tests/tools/run_tool.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string readAll(int handle) {
    std::string text(static_cast<size_t>(::lseek(handle, 0, SEEK_END)), ' ');
    EXPECT_EQ(::pread(handle, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    ::close(handle);
    return text;
}

Outcome run(const char* program, const Arguments& arguments) {
    const int out = ::memfd_create("out", MFD_CLOEXEC), err = ::memfd_create("err", MFD_CLOEXEC);
    std::vector<char*> pointers = {const_cast<char*>(program)};
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t process;
    int status = 0;
    EXPECT_EQ(::posix_spawn(&process, program, &actions, nullptr, pointers.data(), environ), 0);
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    posix_spawn_file_actions_destroy(&actions);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), readAll(out), readAll(err)};
}

} // namespace

Outcome kal(const Arguments& arguments) {
    return run(KAL_TOOL, arguments);
}

std::string kalSucceeds(const Arguments& arguments) {
    const Outcome outcome = kal(arguments);
    EXPECT_EQ(outcome.status, 0) << ::testing::PrintToString(arguments);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

void expectFailure(const Outcome& outcome, int status, const std::string& why) {
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_NE(outcome.err.find(why), std::string::npos) << outcome.err << "instead of " << why;
    EXPECT_EQ(outcome.err.rfind("kal: ", 0), 0u) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_TRUE(outcome.err.ends_with('\n'));
}

Bytes extracted(const std::string& archive, unsigned id) {
    return bytesOf(kalSucceeds({"extract", archive, std::to_string(id), "-o", "-"}));
}

void expectRefusals(const std::vector<Refusal>& refusals) {
    const auto state = [] {
        std::vector<std::pair<std::string, Bytes>> files;
        for (const std::string& name : filesIn("."))
            if (std::filesystem::is_regular_file(name))
                files.emplace_back(name, readFile(name));
        return files;
    };
    const auto before = state();
    for (const auto& [arguments, why, status] : refusals) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const Outcome outcome = kal(arguments);
        expectFailure(outcome, status, why);
        EXPECT_TRUE(state() == before) << "a file has changed";
    }
}

void runScript(const std::string& script) {
    const std::string start = R"sh(
exec 9>&2; BASH_XTRACEFD=9
PATH=${KAL_TOOL%/*}:$PATH
fails() {
    local status=0
    told=$("${@:3}" 2>err) || status=$?
    cat err >&9
    [ $status = $1 ] && grep -qF -- "$2" err && [ "$(grep -c '^kal: ' err)$(wc -l <err)" = 11 ] && rm err
}
poke() { printf "\\x$3" | dd of="$1" bs=1 seek=$(($2)) conv=notrunc status=none; }
)sh";
    setenv("KAL_TOOL", KAL_TOOL, 1);
    const Outcome outcome = run("/bin/bash", {"-euxo", "pipefail", "-c", start + script});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}
