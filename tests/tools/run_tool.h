// The built kal program, run as a user runs it.
#ifndef KAL_TESTS_TOOLS_RUN_TOOL_H
#define KAL_TESTS_TOOLS_RUN_TOOL_H

#include "tests/support/files.h"

#include <string>
#include <vector>

struct Outcome {
    int status; // exit status, or minus the signal that ended it
    std::string out;
    std::string err;
};

using Arguments = std::vector<std::string>;

Outcome kal(const Arguments& arguments);

// Runs kal and expects success without messages, or a failure of this exit status that says `why` on one line and
// nothing else. The first gives what it printed.
std::string kalSucceeds(const Arguments& arguments);
void expectFailure(const Outcome& outcome, int status, const std::string& why);

// Extracts a picture, expecting success.
Bytes extracted(const std::string& archive, unsigned id);

// Runs kal once a row and expects that failure, and the folder as it was.
struct Refusal {
    Arguments arguments;
    const char* why;
    int status = 1;
};
void expectRefusals(const std::vector<Refusal>& refusals);

// Runs a script of bash, where `kal` is the program, `fails STATUS WHY COMMAND...` expects such a failure, of which `told`
// is the output, and `poke FILE PLACE HEX` sets a byte; each command must succeed. A failure prints what was run.
void runScript(const std::string& script);

// Under the sanitizers or an emulator starting a process takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(KAL_EMULATED)
inline constexpr bool slowBuild = true;
#else
inline constexpr bool slowBuild = false;
#endif

#endif
