// Where the registry is.
#ifndef KAL_PLATFORM_REGISTRY_PLACE_H
#define KAL_PLATFORM_REGISTRY_PLACE_H

#include <climits>

// What the environment says.
struct RegistryPlace {
    char persistent[PATH_MAX]; // $KAL_REGISTRY, else a folder of the user's data; empty when there is neither
    char runtime[PATH_MAX];    // $XDG_RUNTIME_DIR, else /dev/shm: what a start of the machine empties

    RegistryPlace();
    bool operator==(const RegistryPlace& other) const;
    // Of the volatile log: its name holds the user's number and a mark of the persistent folder, which is there already
    // if it can be. Empty when it does not fit.
    void findVolatile(char (&folder)[PATH_MAX]) const;
};

#endif
