// A picture archive: an operation-list file whose item 0 is the program's signature and whose other items are
// pictures. An album, an operation-list file without a signature whose first item is a picture that a program stored
// by kal::Bitmap, is read like one.
//
// A picture is appended, one that is removed leaves a free entry and its bytes, and the index is written last, so that
// whatever stops a change leaves an archive with the pictures that it had; one that can still act also takes its bytes
// off the end again. The signature is
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

    // Bytes before the items: of the index, as far as it may grow in an archive.
    uint32_t indexRoom() const;

    // Each call throws a Failure that names the archive. An archive opened for a change is locked until it is
    // closed, one for reading against changes.
    static std::unique_ptr<Archive> forReading(const std::string& path);
    static std::unique_ptr<Archive> forChanging(const std::string& path);
    // Makes it where there is none.
    static std::unique_ptr<Archive> forStoring(const std::string& path, Compression compression);
    // Undoes what was changed and not committed.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    const IFILE& index() const { return *lists_->ifile; }
    bool isAlbum() const { return isAlbum_; }
    bool compresses() const { return (index().formatFlags & KAL_IOP_COMPRESSED) != 0; }
    uint64_t bytes() { return file().size(); }

    // All items, the signature among them, and the pictures, in the order in which they were stored.
    std::vector<kal::Entry> items() const;
    std::vector<kal::Entry> pictures() const;

    // Calls `use` with the list of picture `id`. What it finds Damaged is named.
    void get(uint32_t id, const std::function<void(OpList*)>& use);

    // The id of the next picture to be stored, of so many.
    uint16_t nextId(size_t pictures) const;
    // Stores what `fill` puts as picture `id`.
    void put(uint16_t id, const std::function<void(OpList*)>& fill);
    void remove(uint32_t id);
    // An archive without a name, never to be committed, in which pictures are made that are then taken from it.
    std::unique_ptr<Archive> scratch() const;
    void takeAll(Archive& from);
    // Makes what was changed part of the archive. Ends its use. Throws ArchiveAppeared when a new archive's
    // name has been taken meanwhile.
    void commit();
    // Puts an archive of the same pictures, and of no other bytes, in its place. Ends its use.
    void pack();

private:
    explicit Archive(const std::string& path) : path_(path) {}
    bool open(int flags, int lockKind);
    void lay(uint16_t mode, uint16_t format);
    bool beginsWith(uint16_t id, uint16_t type, ByteView bytes);
    void checkSignature();
    void reserve();
    bool mayBePicture(uint32_t id) const;
    [[noreturn]] void failMissing(uint32_t id) const;
    void writeIndex();
    void closeWithoutWriting();
    void takeBack();
    File& file() { return new_ ? new_->file() : file_; }
    [[noreturn]] void fail(const std::string& why) const;
    void require(int16_t status) const;

    std::string path_;
    std::optional<NewFile> new_; // a new archive until its commit
    File file_;                  // holds the lock; of a new archive empty
    IOPFILE* lists_ = nullptr;
    bool isAlbum_ = false;
    uint64_t bytesBefore_ = 0;        // size of the archive that is being added to
    std::vector<uint8_t> headBefore_; // what writing the index may overwrite; from commit on
};

#endif
