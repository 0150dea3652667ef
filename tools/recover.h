// Saving what still reads of a damaged file into a new file of the same kind.
#ifndef KAL_TOOLS_RECOVER_H
#define KAL_TOOLS_RECOVER_H

#include "tools/stored_file.h"

#include <functional>
#include <string>
#include <vector>

struct Lost {
    std::string name; // an id or, in a compound file, a name
    std::string why;
};
struct Recovered {
    uint32_t saved = 0;
    std::vector<Lost> lost;
};

// Reads a picture of an archive to its end. Throws Damaged when it is not the one that was stored.
void checkPicture(IOPFILE& lists, uint16_t id);

// Each makes the file `out`, which must not be there. They throw a Failure that names a file when nothing can be read of
// the damaged one, or not all written to the new one.
Recovered recoverItems(const StoredFile& damaged, const std::string& out);
Recovered recoverLists(const StoredFile& damaged, const std::string& out);
Recovered recoverArchive(const StoredFile& damaged, const std::string& out);
Recovered recoverCompound(const StoredFile& damaged, const std::string& out);
// Of a log the records that `isSound` says of.
Recovered recoverRegistry(const StoredFile& damaged, const std::string& out,
                          const std::function<bool(uint32_t record)>& isSound);

#endif
