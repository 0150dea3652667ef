// The commands of the program: each adds itself, its arguments and its action to the command line.
#ifndef KAL_TOOLS_COMMAND_H
#define KAL_TOOLS_COMMAND_H

namespace CLI {
class App;
}

void addStore(CLI::App& program);
void addList(CLI::App& program);
void addExtract(CLI::App& program);
void addRemove(CLI::App& program); // and pack
void addStat(CLI::App& program);
void addDump(CLI::App& program); // and cat
void addSheet(CLI::App& program);
void addResource(CLI::App& program);
void addCheck(CLI::App& program);
void addCompound(CLI::App& program);
void addSettings(CLI::App& program);

#endif
