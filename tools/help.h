// Help, man page and completion of the program, all made from the commands themselves.
#ifndef KAL_TOOLS_HELP_H
#define KAL_TOOLS_HELP_H

#include <string>

namespace CLI {
class App;
}

// Gives the program, before it has commands, the form of its help.
void setHelp(CLI::App& program);

// As on the command line: `kal store`, `kal settings get`.
std::string fullName(const CLI::App* command);

std::string manPage(const CLI::App& program);
std::string bashCompletion(const CLI::App& program);

#endif
