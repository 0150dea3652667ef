// A picture archive: an operation-list file whose item 0 is the program's signature and whose other items are
// pictures.
//
// A picture is appended and the index written last, so that whatever stops a store leaves an archive with the
// pictures that it had; a store that can still act also takes its bytes off the end again. The signature is
// padded: it stands where the index will grow, and once the library has moved it out of the way there is room
// for all entries that an index can have. The padding reads as free entries, should the index be cut short.
#ifndef KAL_TOOLS_ARCHIVE_H
#define KAL_TOOLS_ARCHIVE_H

#include "tools/file.h"

#include <kal.h>
#include <kal/cpp/items.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The archive came into being while this process was making one of the same name.
class ArchiveAppeared : public std::exception {};

class Archive {
public:
    enum class Compression { AsItIs, None }; // AsItIs: compressed when the archive is new

    // Each call throws a Failure that names the archive. An archive opened for storing is locked until it is
    // closed, one for reading against storing.
    static std::unique_ptr<Archive> forReading(const std::string& path);
    static std::unique_ptr<Archive> forStoring(const std::string& path, Compression compression);
    // Undoes what was stored and not committed.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    bool compresses() const { return (lists_->ifile->formatFlags & KAL_IOP_COMPRESSED) != 0; }

    // The pictures, in the order in which they were stored.
    std::vector<kal::Entry> pictures() const;

    // Calls `use` with the list of picture `id`. What it finds Damaged is named.
    void get(uint16_t id, const std::function<void(OpList*)>& use);
    // Stores what `fill` puts as a new picture, whose id is the highest so far and one more.
    uint16_t put(const std::function<void(OpList*, uint16_t)>& fill);
    // Makes what was stored part of the archive. Ends its use. Throws ArchiveAppeared when a new archive's
    // name has been taken meanwhile.
    void commit();

private:
    explicit Archive(const std::string& path) : path_(path) {}
    void lay(uint16_t mode, uint16_t format);
    void checkSignature();
    void putSignature();
    int16_t finishPut();
    void closeWithoutWriting();
    void takeBack();
    File& file() { return new_ ? new_->file() : file_; }
    std::vector<kal::Entry> items() const;
    [[noreturn]] void fail(const std::string& why) const;
    void require(int16_t status) const;

    std::string path_;
    std::optional<NewFile> new_; // a new archive until its commit
    File file_;                  // holds the lock; of a new archive empty
    IOPFILE* lists_ = nullptr;
    uint64_t bytesBefore_ = 0;        // size of the archive that is being added to
    std::vector<uint8_t> headBefore_; // what writing the index may overwrite; from commit on
};

#endif
