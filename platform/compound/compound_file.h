// One open compound file: header, tables, directory and the host file below, shared by the storages and
// streams that are open in it. What changes stays in memory, but for the bytes of streams, and is written
// when the last of them lets go.
#ifndef KAL_PLATFORM_COMPOUND_COMPOUND_FILE_H
#define KAL_PLATFORM_COMPOUND_COMPOUND_FILE_H

#include "platform/compound/children.h"
#include "platform/compound/mini_sectors.h"
#include <kal/compound.h>

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
    // Writes what changed, so that a process that is killed on the way leaves the file as it was before or as it is
    // now; at most sectors that belong to nothing stay behind. STG_E_MEDIUMFULL, and the file is as it was, when there
    // is no room for a second directory.
    HRESULT flush();
    // Forgets what changed since the last flush. The file takes no more changes.
    void revert();

    bool writable() const { return host_.writable() && !reverted_; }
    Directory& directory() { return directory_; }
    Sectors& sectors() { return sectors_; }
    MiniSectors& miniSectors() { return miniSectors_; }
    // The longest stream that the file's version takes and a position reaches.
    uint64_t longestStream() const;

    // The entries of a storage, which stay loaded. Null when memory is short.
    Children* childrenOf(uint32_t storage);
    // To be called before the file takes more: whether there is room to write what changes then.
    bool prepare() { return miniSectors_.prepare() && directory_.prepare(); }
    // Adds an entry to a storage. kNoEntry when there is no room.
    uint32_t add(Children& children, const Name& name, EntryType type);

    // Takes out an entry that holds nothing.
    void remove(Children& children, uint32_t entry);

    // Each entry is open once at a time. False when it is open already.
    bool markOpen(uint32_t entry);
    void markClosed(uint32_t entry) { open_[entry] = 0; }

    void setChanged() { changed_ = true; }

    // Whether an entry was found damaged when the file was opened for writing: it is not to be written to.
    bool isDamaged(uint32_t entry) const { return entry < damaged_.size() && damaged_[entry] != 0; }
    void setDamaged(uint32_t entry) { damaged_[entry] = 1; }

private:
    CompoundFile() : sectors_(host_), miniSectors_(sectors_), directory_(sectors_) {}
    ~CompoundFile();
    bool start();
    bool load();
    HRESULT writeChanges();

    uint32_t holders_ = 1;
    bool changed_ = false;
    bool reverted_ = false;
    uint64_t lengthBefore_ = 0; // at the last flush
    HostFile host_;
    Sectors sectors_;
    MiniSectors miniSectors_;
    Directory directory_;
    Children* loaded_ = nullptr;
    Array<uint8_t> claimed_; // a flag an entry: belongs to a loaded storage
    Array<uint8_t> open_;    // a flag an entry: open now
    Array<uint8_t> damaged_; // a flag an entry
    uint8_t header_[kHeaderSize] = {};
};

// Walks everything that the file holds: whether each sector and mini sector belongs to one thing and every chain is
// as long as what it holds. A stream of which that is not true is marked as damaged, for a write to it could hit
// what it was not meant for; so are all small ones where something else lies in the mini FAT or the mini stream. False
// when FAT and directory are like that, or memory is short: nothing may be written then.
bool findDamage(CompoundFile& file);

} // namespace compound

#endif
