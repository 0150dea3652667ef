// A file of any kind that the library stores, and what kind that is.
#ifndef KAL_TOOLS_STORED_FILE_H
#define KAL_TOOLS_STORED_FILE_H

#include "tools/file.h"

#include <kal.h>
#include <kal/cpp/items.h>

#include <memory>
#include <optional>

enum class FileKind { Archive, Lists, Items, Resources, Compound, Registry };

struct KindNames {
    FileKind kind;
    const char* name;  // on the command line
    const char* words; // in messages
};
inline constexpr KindNames kindNames[] = {{FileKind::Archive, "archive", "picture archive"},
                                          {FileKind::Lists, "lists", "operation-list file"},
                                          {FileKind::Items, "items", "item file"},
                                          {FileKind::Resources, "resources", "resource file"},
                                          {FileKind::Compound, "compound", "compound file"},
                                          {FileKind::Registry, "registry", "log of the registry"}};

struct CloseStream {
    void operator()(SFILE* stream) const { stream->close(stream); }
};
using StreamPtr = std::unique_ptr<SFILE, CloseStream>;
struct FreeItems {
    void operator()(IFILE* file) const { KalFreeIFile(file); }
};
using ItemsPtr = std::unique_ptr<IFILE, FreeItems>;
struct FreeLists {
    void operator()(IOPFILE* file) const { KalFreeIOpFile(file); }
};
using ListsPtr = std::unique_ptr<IOPFILE, FreeLists>;

// The library's stream over an open file, which stays open. Throws a Failure.
StreamPtr streamOver(const File& file, uint16_t mode, uint32_t bufferBytes = 65536);

// The file, open for reading and kept from being changed, as the library's stream. What is read of it counts for
// progress, and a read fails once the program is to stop.
class StoredFile {
public:
    // Throws a Failure.
    explicit StoredFile(const std::string& path);

    const std::string& path() const { return path_; }
    const File& file() const { return file_; }
    SFILE* stream() const { return stream_.get(); }

    // What the file is, as far as its bytes tell. Throws a Failure where they tell nothing.
    FileKind kind() const;

private:
    bool looksLikeItems() const;
    std::optional<bool> holdsLists() const;

    std::string path_;
    File file_;
    StreamPtr stream_;
};

// The items of a file, each id once, in the order of the index.
std::vector<kal::Entry> itemsOf(const IFILE* file);

#endif
