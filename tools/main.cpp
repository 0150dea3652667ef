// The kal program. Data goes to standard output, messages go to standard error, one line each.
// Exit status: 0 done, 1 a file, picture or archive is not as it must be, 2 wrong usage.
#include "tools/command.h"
#include "tools/failure.h"
#include "tools/file.h"
#include "tools/help.h"
#include "tools/interrupt.h"
#include "tools/manners.h"

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
constexpr void (*commands[])(const Command&) = {addStore,    addList,     addExtract, addRemove,
                                                addStat,     addDump,     addCheck,   addSheet,
                                                addSettings, addResource, addCompound};

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

// The innermost command that was named.
const CLI::App* commandOf(const CLI::App* app) {
    const auto named = app->get_subcommands();
    return named.empty() ? app : commandOf(named.front());
}

// How the program tells of itself, for the build: `kal describe man`, `kal describe bash`.
void addDescribe(CLI::App& program) {
    CLI::App* describe = program.add_subcommand("describe")->group("")->require_subcommand(1);
    const auto add = [&](const char* name, std::string (*text)(const CLI::App&)) {
        describe->add_subcommand(name)->callback([&program, text] { std::cout << text(program); });
    };
    add("man", manPage);
    add("bash", bashCompletion);
}

constexpr char moreHelp[] =
    R"(Data goes to standard output, messages go to standard error, one line each: what failed, where, and why. kal COMMAND --help tells more of a command.

Exit status:
  0  done
  1  a file, picture, archive or setting is not as it must be, or cannot be read or written;
     a command that fails leaves what was there as it was
  2  wrong usage
A signal that ends the program (SIGINT, SIGTERM, SIGHUP) shows as that signal; unfinished work is undone first.

Environment:
  KAL_REGISTRY     the folder of the settings; without it $XDG_DATA_HOME/kal/registry,
                   else ~/.local/share/kal/registry
  XDG_RUNTIME_DIR  where the settings lie that a start of the machine empties;
                   without it /dev/shm

Example:
  kal store pictures.kal lake.bmp hill.bmp
  kal list --json pictures.kal)";

int run(int count, char** arguments) {
    CLI::App program("Keep pictures in archives, and look into resource files, compound files and settings",
                     "kal");
    setHelp(program);
    program.set_version_flag("--version", "kal " KAL_VERSION, "Print the version");
    program.footer(moreHelp);
    program.fallthrough();
    program.add_flag("-q,--quiet", asked.quiet, "Print no messages but errors");
    program.add_option("--wait", waitSeconds, "Wait so long for a file that is in use (default: 10)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0, 86400));
    for (auto add : commands)
        add(Command(&program));
    addDescribe(program);
    const auto refuse = [&](const std::exception& error) {
        return complain(
            (std::string(error.what()) + " (" + fullName(commandOf(&program)) + " --help tells more)")
                .c_str(),
            wrongUsage);
    };
    try {
        program.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0)
            return refuse(error);
        program.exit(error); // prints the help that was asked for
    } catch (const WrongUsage& error) {
        return refuse(error);
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
