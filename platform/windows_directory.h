// The directory that holds the user's private settings files.
#ifndef KAL_PLATFORM_WINDOWS_DIRECTORY_H
#define KAL_PLATFORM_WINDOWS_DIRECTORY_H

#include <cstdint>

// Copies the directory to `destination`: $WINDIR as it is, else the user's configuration directory
// ($XDG_CONFIG_HOME or ~/.config) in the platform's form. Its length; a value above `size` - 1 tells the room
// needed, terminating zero included, with nothing copied; 0 when there is no such directory.
uint32_t GetWindowsDirectoryA(char* destination, uint32_t size);

#endif
