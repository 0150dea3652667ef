// The directories that the platform has a place for: the user's private settings, and temporary files.
#ifndef KAL_PLATFORM_WINDOWS_DIRECTORY_H
#define KAL_PLATFORM_WINDOWS_DIRECTORY_H

#include <cstdint>

// Copies the directory to `destination`: $WINDIR as it is, else the user's configuration directory
// ($XDG_CONFIG_HOME or ~/.config) in the platform's form. Its length; a value above `size` - 1 tells the room
// needed, terminating zero included, with nothing copied; 0 when there is no such directory.
uint32_t GetWindowsDirectoryA(char* destination, uint32_t size);

// The directory for temporary files with its final `\`, copied to `destination`: the host's $TMPDIR, else
// /tmp, in the platform's form. The length without the terminating zero; the size needed when `size` is too
// small, terminating zero included; 0 when it is no absolute path.
uint32_t GetTempPathA(uint32_t size, char* destination);

#endif
