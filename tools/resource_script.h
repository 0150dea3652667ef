// What a resource file is made from: a plain text with one resource a line,
//
//     1 text "Open" "Close \"now\""
//     2 file icon.bmp
//     # a comment
//
// its id (0 to 65534) first. A string knows \" \\ \n \r \t and \xHH. A file's name is the rest of the line; a
// relative one counts from the script's folder.
#ifndef KAL_TOOLS_RESOURCE_SCRIPT_H
#define KAL_TOOLS_RESOURCE_SCRIPT_H

#include <cstdint>
#include <string>
#include <vector>

struct Resource {
    uint16_t id;
    std::vector<uint8_t> bytes;
};

// The most bytes of one resource.
inline constexpr size_t kLargestResource = 65535;

// Reads a script and the files that it names. Throws a Failure that names the script and the line.
std::vector<Resource> readResourceScript(const std::string& path);

#endif
