// What all commands share: what may be asked of each, and how they speak.
#ifndef KAL_TOOLS_MANNERS_H
#define KAL_TOOLS_MANNERS_H

#include <cstdint>
#include <string>

// What was asked of the command that runs.
struct Asked {
    bool quiet = false; // no messages but errors, no progress
    bool human = false; // sizes as a person reads them
    bool json = false;
};
inline Asked asked;

// A message about what went on but not as one may think: on one line of standard error, unless --quiet asks for none.
void tell(const std::string& message);

// Bytes as a number or, where --human asks for it, as 1.2 MiB.
std::string shownBytes(uint64_t bytes);
std::string humanBytes(uint64_t bytes);

#endif
