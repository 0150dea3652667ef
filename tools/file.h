// Host files by their own names. (The library's path calls read `\`, drives and letter case in the way of its
// home platform; a program of this host must not.)
#ifndef KAL_TOOLS_FILE_H
#define KAL_TOOLS_FILE_H

#include "tools/bytes.h"

#include <functional>
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
    // The same, with a flock. While this process waits for it another may take the file away or put another in its place.
    // A file system without locks goes without.
    static File openLocked(const std::string& path, int flags, int lockKind);
    // Opens one for reading, which must be there. `-` is all that comes from standard input, each time.
    static File toRead(const std::string& path);
    // An empty file without a name.
    static File temporary();
    uint64_t size() const;
    // Up to `count` bytes from `offset`; fewer where the file ends.
    std::vector<uint8_t> readAt(uint64_t offset, size_t count) const;
    // Fills `to`. The file ending before that is a Failure.
    void readExactly(uint64_t offset, uint8_t* to, size_t count) const;
    // Gives the `count` bytes from `offset` on, which must be there, piece by piece. Throws Interrupted.
    void forPieces(uint64_t offset, uint64_t count, const std::function<void(ByteView)>& take) const;
    void writeAt(uint64_t offset, ByteView bytes) const;
    void append(ByteView bytes) const;

private:
    size_t readUpTo(uint64_t offset, uint8_t* to, size_t count) const;

    int handle_ = -1;
};

// A new file that has no name until it is put in its place, so that nothing of it is left when the program is killed.
// Where the file system cannot do that it has a name beside `path` until then, and what dead programs left there under
// such names is removed.
class NewFile {
public:
    // Calls throw a Failure whose text is the host's.
    explicit NewFile(const std::string& path);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    File& file() { return file_; }
    // Gives the file its name. False, and it has none, when another file has it.
    bool place();
    // Gives the file its name in place of a file that may have it.
    void replace();

private:
    void makeBeside();
    void removeBeside();

    std::string path_;
    std::string beside_; // its name until then; empty without one
    File file_;
};

// Makes a file with `fill`, which takes it open, and gives it the name. Throws a Failure with the name, also when there
// is a file of that name.
void makeNewFile(const std::string& path, const std::function<void(const File&)>& fill);

// How many seconds a command waits for a file that is in use.
inline unsigned waitSeconds = 10;

// Asks `isFree` again and again until it says so; tells the user when that takes long. False when it took too long.
// Throws Interrupted.
bool waitUntil(const std::string& name, const std::function<bool()>& isFree);

#endif
