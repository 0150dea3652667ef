// What all commands share: what may be asked of each, and how each is told of in help, man page and completion.
#ifndef KAL_TOOLS_MANNERS_H
#define KAL_TOOLS_MANNERS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace CLI {
class App;
}

// What was asked of the command that runs.
struct Asked {
    bool quiet = false; // no messages but errors, no progress
    bool human = false; // sizes as a person reads them
    bool json = false;
};
inline Asked asked;

// A command as help, man page and completion tell of it.
struct CommandText {
    const char* name;
    const char* summary; // one line, without a full stop
    // Paragraphs with an empty line between them. An indented line is printed as it stands. The last paragraph shows an
    // example: "Example:" and indented lines below it.
    const char* more;
};
CLI::App* addCommand(CLI::App& parent, const CommandText& text);

// The options that commands with a table have.
void addJson(CLI::App* command);
void addHuman(CLI::App* command);
// Sets `jobs`, how many pictures are worked on at a time.
void addJobs(CLI::App* command, size_t& jobs);

// A message about what went on but not as one may think: on one line of standard error, unless --quiet asks for none.
void tell(const std::string& message);

// Bytes as a number or, where --human asks for it, as 1.2 MiB.
std::string shownBytes(uint64_t bytes);
std::string humanBytes(uint64_t bytes);

#endif
