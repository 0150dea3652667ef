// The commands of the program: what each takes and does, in one expression,
//
//     program.add({"stat", "Show how an archive is filled", more})
//         .needs("ARCHIVE", arguments->archive, "The archive")
//         .json()
//         .does([arguments] { stat(*arguments); });
//
// and the functions that add them. Help, man page and completion are made of the same. The library that reads the
// command line is known to command.cpp, help.cpp and main.cpp alone: its templates are most of the compiler's work.
#ifndef KAL_TOOLS_COMMAND_H
#define KAL_TOOLS_COMMAND_H

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

// A command as help, man page and completion tell of it.
struct CommandText {
    const char* name;
    const char* summary; // one line, without a full stop
    // Paragraphs with an empty line between them. An indented line is printed as it stands. The last paragraph shows an
    // example: "Example:" and indented lines below it.
    const char* more;
};

// What may be given for an option: numbers from `least` to `most`, or one of some words; anything where neither is said.
struct Choice {
    const char* shown = ""; // what help calls it
    int least = 0;
    int most = 0;
    std::vector<std::string> words = {};
};

// A command, or the program, to which commands are added. A value is a string, a number, or a vector of these, and must
// stay until the command has run; a name begins with dashes, or its value is told by its place.
class Command {
public:
    explicit Command(CLI::App* app) : app_(app) {}

    Command add(const CommandText& text) const;
    template <class Value>
    const Command& needs(const char* name, Value& value, const char* help, const char* shown = "") const;
    template <class Value>
    const Command& takes(const char* name, Value& value, const char* help, const Choice& choice = {}) const;
    const Command& flag(const char* name, bool& given, const char* help) const;
    // --json and --human, as commands with a table have them; --jobs, how many pictures are worked on at a time.
    const Command& json() const;
    const Command& human() const;
    const Command& jobs(size_t& count) const;
    const Command& does(std::function<void()> action) const;

private:
    CLI::App* app_;
};

// What a command throws when its options contradict one another.
class WrongUsage : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

void addStore(const Command& program);
void addList(const Command& program);
void addExtract(const Command& program);
void addRemove(const Command& program); // and pack
void addStat(const Command& program);
void addDump(const Command& program); // and cat
void addSheet(const Command& program);
void addResource(const Command& program);
void addCheck(const Command& program);
void addCompound(const Command& program);
void addSettings(const Command& program);

#endif
