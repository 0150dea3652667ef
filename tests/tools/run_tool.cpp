#include "tests/tools/run_tool.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string readAll(int handle) {
    std::string text(static_cast<size_t>(::lseek(handle, 0, SEEK_END)), ' ');
    EXPECT_EQ(::pread(handle, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    ::close(handle);
    return text;
}

} // namespace

RunningTool::RunningTool(const Arguments& arguments)
    : out_(::memfd_create("out", MFD_CLOEXEC)), err_(::memfd_create("err", MFD_CLOEXEC)) {
    std::vector<char*> pointers = {const_cast<char*>(KAL_TOOL)};
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_, STDERR_FILENO);
    EXPECT_EQ(::posix_spawn(&process_, KAL_TOOL, &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
}

void RunningTool::kill(int signal) const {
    ::kill(process_, signal);
}

Outcome RunningTool::wait() {
    int status = 0;
    rusage usage = {};
    EXPECT_EQ(::wait4(process_, &status, 0, &usage), process_);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), readAll(out_), readAll(err_),
            usage.ru_maxrss};
}

Outcome kal(const Arguments& arguments) {
    return RunningTool(arguments).wait();
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

std::vector<Listed> listed(const std::string& archive) {
    std::vector<Listed> rows;
    std::istringstream lines(kalSucceeds({"list", archive, "--json"}));
    for (std::string line; std::getline(lines, line);) {
        Listed row = {};
        char topDown[6] = "";
        const int found = std::sscanf(
            line.c_str(),
            R"( {"id": %u, "kind": "%*[a-z]", "width": %u, "height": %u, "bits": %u, )"
            R"("topDown": %5[a-z], "bytes": %u, "stored": %u, "ratio": %lf})",
            &row.id, &row.width, &row.height, &row.bits, topDown, &row.bytes, &row.stored, &row.ratio);
        row.topDown = std::string(topDown) == "true";
        if (found == 8)
            rows.push_back(row);
        else
            EXPECT_TRUE(line == "[" || line == "]" || line == "[]") << line;
    }
    return rows;
}

Bytes extracted(const std::string& archive, unsigned id) {
    const std::string out = archive + ".extracted";
    kalSucceeds({"extract", archive, std::to_string(id), "-o", out});
    Bytes bytes = readFile(out);
    ::unlink(out.c_str());
    return bytes;
}
