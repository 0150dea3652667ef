// Names of storages and streams: up to 31 UTF-16 units, ordered by length and then by capital letters.
#ifndef KAL_PLATFORM_COMPOUND_NAME_H
#define KAL_PLATFORM_COMPOUND_NAME_H

#include "platform/compound/format.h"

namespace compound {

struct Name {
    uint16_t units[kNameUnits + 1]; // ended by 0
    uint32_t length = 0;
};

// False for a name that is empty or too long.
bool makeName(const wchar_t* text, Name& name);

// Whether a new entry may have the name: without `/`, `\`, `:` and `!`.
bool isProper(const Name& name);

// The name in wide characters, ended by 0; `text` holds kNameUnits + 1.
void nameText(const Name& name, wchar_t* text);

// Below 0, 0 or above 0: the order of the directory.
int compareNames(const Name& left, const Name& right);

} // namespace compound

#endif
