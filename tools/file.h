// Host files by their own names. (The library's path calls read `\`, drives and letter case in the way of its
// home platform; a program of this host must not.)
#ifndef KAL_TOOLS_FILE_H
#define KAL_TOOLS_FILE_H

#include "tools/bytes.h"

#include <string>
#include <vector>

// An open file, closed when it goes out of scope.
class File {
public:
    File() = default;
    explicit File(int handle) : handle_(handle) {}
    File(File&& other) noexcept : handle_(other.release()) {}
    File& operator=(File&& other) noexcept;
    ~File();

    bool isOpen() const { return handle_ >= 0; }
    int handle() const { return handle_; }
    int release();

    // The calls below throw a Failure whose text is the host's, without the file's name.

    // Opens an existing regular file; not open when there is none of that name.
    static File openIfThere(const std::string& path, int flags);
    uint64_t size() const;
    // Up to `count` bytes from `offset`; fewer where the file ends.
    std::vector<uint8_t> readAt(uint64_t offset, size_t count) const;
    void writeAt(uint64_t offset, ByteView bytes) const;
    void append(ByteView bytes) const;

private:
    int handle_ = -1;
};

// Makes a new file beside `path` and gives its name. Throws a Failure.
File createBeside(const std::string& path, std::string& name);

#endif
