// One open compound file: header, tables, directory and the host file below, shared by the storages and
// streams that are open in it. What changes stays in memory, but for the bytes of streams, and is written
// when the last of them lets go.
#ifndef KAL_PLATFORM_COMPOUND_COMPOUND_FILE_H
#define KAL_PLATFORM_COMPOUND_COMPOUND_FILE_H

#include "platform/compound/children.h"
#include "platform/compound/mini_sectors.h"
#include "platform/storage.h"

namespace compound {

class CompoundFile : public ZEPObject {
public:
    // Make an open file with one holder; null on failure, with the reason in `result`.
    static CompoundFile* create(const char* hostPath, bool replace, HRESULT& result);
    static CompoundFile* open(const char* hostPath, bool writable, HRESULT& result);

    CompoundFile(const CompoundFile&) = delete;
    CompoundFile& operator=(const CompoundFile&) = delete;

    void hold() { holders_++; }
    void letGo();
    // Writes what changed.
    HRESULT flush();

    bool writable() const { return host_.writable(); }
    Directory& directory() { return directory_; }
    Sectors& sectors() { return sectors_; }
    MiniSectors& miniSectors() { return miniSectors_; }
    // The longest stream that the file's version takes and a position reaches.
    uint64_t longestStream() const;

    // The entries of a storage, which stay loaded. Null when memory is short.
    Children* childrenOf(uint32_t storage);
    // Adds an entry to a storage. kNoEntry when there is no room.
    uint32_t add(Children& children, const Name& name, EntryType type);

    // Takes out an entry that holds nothing.
    void remove(Children& children, uint32_t entry);

    // Each entry is open once at a time. False when it is open already.
    bool markOpen(uint32_t entry);
    void markClosed(uint32_t entry) { open_[entry] = 0; }

    void setChanged() { changed_ = true; }

private:
    CompoundFile() : sectors_(host_), miniSectors_(sectors_), directory_(sectors_) {}
    ~CompoundFile();
    bool start();
    bool load();

    uint32_t holders_ = 1;
    bool changed_ = false;
    HostFile host_;
    Sectors sectors_;
    MiniSectors miniSectors_;
    Directory directory_;
    Children* loaded_ = nullptr;
    Array<uint8_t> claimed_; // a flag an entry: belongs to a loaded storage
    Array<uint8_t> open_;    // a flag an entry: open now
    uint8_t header_[kHeaderSize] = {};
};

// Walks everything that the file holds: whether each sector and mini sector belongs to one thing, every chain
// is as long as what it holds, and every tree is one. Only such a file may be written to: in any other a
// write could hit what it was not meant for.
bool isSound(CompoundFile& file);

} // namespace compound

#endif
