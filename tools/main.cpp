// The kal program. Data goes to standard output, messages go to standard error, one line each.
// Exit status: 0 done, 1 a file, picture or archive is not as it must be, 2 wrong usage.
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/file.h"
#include "tools/interrupt.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <unistd.h>

namespace {

// The commands, in the order in which help shows them.
constexpr void (*commands[])(CLI::App&) = {addStore, addList,  addExtract,  addRemove,   addStat,
                                           addDump,  addSheet, addSettings, addResource, addCompound};

constexpr int failed = 1;
constexpr int wrongUsage = 2;

// Prints the message on one line. Takes no memory, of which there may be none.
int complain(const char* message, int exitStatus) {
    std::fputs("kal: ", stderr);
    for (; *message != 0; message++)
        std::fputc(onOneLine(*message), stderr);
    std::fputc('\n', stderr);
    return exitStatus;
}

// Objects that the command line's library makes before main() find no memory like everything else.
std::terminate_handler terminateInMain = nullptr;
[[gnu::constructor(101)]] void complainBeforeMain() {
    terminateInMain = std::set_terminate([] { ::_exit(complain("not enough memory", failed)); });
}

// A standard stream that is closed would be given to the next file that is opened, and written to as such.
void fillStandardStreams() {
    for (int handle = ::open("/dev/null", O_RDWR); handle >= 0 && handle <= STDERR_FILENO;)
        handle = ::open("/dev/null", O_RDWR);
}

int run(int count, char** arguments) {
    CLI::App program("Keeps pictures in archives of operation lists, and streams in compound files.", "kal");
    program.set_version_flag("--version", "kal " KAL_VERSION);
    program.require_subcommand(1);
    program.fallthrough();
    program
        .add_option("--wait", waitSeconds,
                    "Seconds to wait for a file that is in use (default: 10); may stand behind the command")
        ->check(CLI::Range(0, 86400));
    for (auto add : commands)
        add(program);
    try {
        program.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0)
            return complain((std::string(error.what()) + " (kal --help tells more)").c_str(), wrongUsage);
        program.exit(error); // prints the help that was asked for
    }
    if (!std::cout.flush())
        throw Failure("standard output", "cannot be written");
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    std::set_terminate(terminateInMain);
    fillStandardStreams();
    catchInterrupts();
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is a failed write
    try {
        return run(count, arguments);
    } catch (const Interrupted& interrupted) {
        endByInterrupt(interrupted);
    } catch (const std::bad_alloc&) {
        return complain("not enough memory", failed);
    } catch (const std::exception& failure) {
        return complain(failure.what(), failed);
    }
}
