// Names for files that do not exist yet.
#ifndef KAL_PATHS_TEMP_NAMES_H
#define KAL_PATHS_TEMP_NAMES_H

#include <cstdint>

// Goes through the candidates of a template (see KalGetUnique) and stops at the first that `take` accepts,
// which then stands in `name`. 0, or KAL_ERR_SERVICE when the template does not fit or none was accepted.
int16_t findUniqueName(char* name, uint32_t size, bool (*take)(const char* candidate, void* context),
                       void* context);

// For findUniqueName: makes the file, so that the name is this caller's alone, and sets the bool `made`.
// False when the name is taken. Any other failure is true too, without `made`, and errno tells why.
bool reserveName(const char* candidate, void* made);

#endif
