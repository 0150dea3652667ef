// The process environment as one block.
#ifndef KAL_PLATFORM_ENVIRONMENT_H
#define KAL_PLATFORM_ENVIRONMENT_H

// The environment: entries NAME=value, each ended by 0, and an empty entry at the end. A PATH in the host's
// form (neither `;` nor `\` in it) is presented in the platform's, with `;` and `\`. Null when memory is
// short. A block stays valid and unchanged until the process ends; a new one is made only when the
// environment has changed.
const char* GetEnvironmentStrings();

#endif
