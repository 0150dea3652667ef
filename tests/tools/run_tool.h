// The built kal program, run as a user runs it.
#ifndef KAL_TESTS_TOOLS_RUN_TOOL_H
#define KAL_TESTS_TOOLS_RUN_TOOL_H

#include "tests/support/files.h"

#include <string>
#include <sys/types.h>
#include <vector>

struct Outcome {
    int status; // exit status, or minus the signal that ended it
    std::string out;
    std::string err;
    long peakKiB; // the most memory it had resident (no less than this process had when it started it)
};

using Arguments = std::vector<std::string>;

// A kal that runs.
class RunningTool {
public:
    explicit RunningTool(const Arguments& arguments);
    void kill(int signal) const;
    Outcome wait();

private:
    pid_t process_;
    int out_;
    int err_;
};

Outcome kal(const Arguments& arguments);

// Runs kal and expects success, or a failure of this exit status that says `why` on one line and nothing
// else. Gives what it printed.
std::string kalSucceeds(const Arguments& arguments);
void expectFailure(const Outcome& outcome, int status, const std::string& why);

// One line of `list --json`.
struct Listed {
    unsigned id, width, height, bits;
    bool topDown;
    unsigned bytes, stored;
    double ratio;
};
std::vector<Listed> listed(const std::string& archive);

// Extracts a picture, expecting success.
Bytes extracted(const std::string& archive, unsigned id);

// Under the sanitizers or an emulator starting a process takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(KAL_EMULATED)
inline constexpr bool slowBuild = true;
#else
inline constexpr bool slowBuild = false;
#endif

#endif
