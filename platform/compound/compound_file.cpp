#include "platform/compound/compound_file.h"

namespace compound {

namespace {

constexpr uint16_t kLittleEndian = 0xFFFE;
constexpr uint16_t kMinor = 0x3E;
constexpr uint32_t kSmallShift = 9;  // version 3
constexpr uint32_t kLargeShift = 12; // version 4

void makeHeader(uint8_t* header) {
    std::memcpy(header, kSignature, sizeof kSignature);
    store16(header + kMinorVersion, kMinor);
    store16(header + kMajorVersion, 3);
    store16(header + kByteOrder, kLittleEndian);
    store16(header + kSectorShift, kSmallShift);
    store16(header + kMiniSectorShift, kMiniShift);
    store32(header + kCutoff, kMiniCutoff);
    store32(header + kFirstMiniFat, kEndOfChain);
}

// The sector shift of a header that this format can have, else 0.
uint32_t checkHeader(const uint8_t* header) {
    const uint16_t version = load16(header + kMajorVersion);
    const uint16_t shift = load16(header + kSectorShift);
    const bool known = (version == 3 && shift == kSmallShift) || (version == 4 && shift == kLargeShift);
    const bool good = std::memcmp(header, kSignature, sizeof kSignature) == 0 &&
                      load16(header + kByteOrder) == kLittleEndian &&
                      load16(header + kMiniSectorShift) == kMiniShift &&
                      load32(header + kCutoff) == kMiniCutoff;
    return known && good ? shift : 0;
}

} // namespace

CompoundFile::~CompoundFile() {
    while (loaded_ != nullptr) {
        Children* children = loaded_;
        loaded_ = children->nextLoaded;
        delete children;
    }
}

CompoundFile* CompoundFile::create(const char* hostPath, bool replace, HRESULT& result) {
    auto* file = new CompoundFile;
    if (file == nullptr) {
        result = STG_E_INSUFFICIENTMEMORY;
        return nullptr;
    }
    result = file->host_.create(hostPath, replace);
    if (result == S_OK && !(file->start() && file->flush() == S_OK)) {
        file->host_.abandon(hostPath);
        result = STG_E_MEDIUMFULL;
    }
    if (result == S_OK)
        return file;
    delete file;
    return nullptr;
}

CompoundFile* CompoundFile::open(const char* hostPath, bool writable, HRESULT& result) {
    auto* file = new CompoundFile;
    if (file == nullptr) {
        result = STG_E_INSUFFICIENTMEMORY;
        return nullptr;
    }
    result = file->host_.open(hostPath, writable);
    if (result == S_OK && !(file->load() && (!writable || findDamage(*file))))
        result = STG_E_DOCFILECORRUPT;
    if (result == S_OK)
        return file;
    delete file;
    return nullptr;
}

bool CompoundFile::start() {
    makeHeader(header_);
    sectors_.start(kSmallShift);
    miniSectors_.start();
    changed_ = true;
    return directory_.start();
}

bool CompoundFile::load() {
    if (host_.read(0, header_, sizeof header_).count != sizeof header_)
        return false;
    const uint32_t shift = checkHeader(header_);
    if (shift == 0 || !sectors_.load(shift, header_))
        return false;
    lengthBefore_ = host_.length();
    if (!directory_.load(load32(header_ + kFirstDirectory)) || !damaged_.resize(directory_.count()))
        return false;
    if (writable()) {
        if (!directory_.isWhole())
            return false;
        sectors_.table.endLooseChains(sectors_.inFile());
        sectors_.table.keep(load32(header_ + kFirstMiniFat));
        sectors_.table.keep(directory_.first(kRoot));
    }
    const uint32_t first = directory_.first(kRoot);
    return miniSectors_.load(header_, first < sectors_.inFile() ? first : kEndOfChain);
}

void CompoundFile::letGo() {
    if (--holders_ > 0)
        return;
    if (writable())
        flush();
    delete this;
}

HRESULT CompoundFile::flush() {
    if (!changed_)
        return S_OK;
    const HRESULT result = writeChanges();
    if (result == S_OK) {
        changed_ = false;
        lengthBefore_ = host_.length();
    }
    return result;
}

// What is new is written first, where nothing leads to it yet: the tables, in which all that the file holds still
// is in use, and a directory of more than one sector. Then one write, of the header or of the directory's sector,
// leads to it. Only after that what was given up becomes free. All sectors have had their room since they were taken,
// so a full disk does not come in between.
HRESULT CompoundFile::writeChanges() {
    if (!miniSectors_.prepare())
        return STG_E_MEDIUMFULL;
    for (Children* children = loaded_; children != nullptr; children = children->nextLoaded)
        children->setLinks();
    const uint64_t miniBytes = miniSectors_.usedBytes();
    directory_.setData(kRoot, miniBytes > 0 ? miniSectors_.container().first() : kEndOfChain, miniBytes);
    if (!directory_.settle())
        return STG_E_MEDIUMFULL;
    lengthBefore_ = UINT64_MAX;
    store32(header_ + kFirstDirectory, directory_.chain().first());
    if (load16(header_ + kMajorVersion) != 3)
        store32(header_ + kDirectorySectors, directory_.chain().unitCount());
    if (!miniSectors_.flush(header_) || !sectors_.flush(header_) ||
        (!directory_.isStored() && !directory_.flush()) ||
        host_.write(0, header_, sizeof header_).count != sizeof header_ || !directory_.flush())
        return STG_E_WRITEFAULT;
    directory_.setStored();
    miniSectors_.freeReleased();
    sectors_.table.freeReleased();
    return miniSectors_.flush(header_) && sectors_.flush(header_) && host_.reserve(sectors_.usedBytes()) &&
                   host_.truncate(sectors_.usedBytes())
               ? S_OK
               : STG_E_WRITEFAULT;
}

void CompoundFile::revert() {
    if (writable() && lengthBefore_ < host_.length())
        host_.truncate(lengthBefore_);
    reverted_ = true;
}

uint64_t CompoundFile::longestStream() const {
    return sectors_.unitShift() == kSmallShift ? 0x80000000u : 0xFFFFFFFFu;
}

Children* CompoundFile::childrenOf(uint32_t storage) {
    for (Children* children = loaded_; children != nullptr; children = children->nextLoaded)
        if (children->storage() == storage)
            return children;
    if (!claimed_.resize(directory_.count()))
        return nullptr;
    auto* fresh = new Children(directory_, storage);
    if (fresh == nullptr)
        return nullptr;
    if (!fresh->load(claimed_)) {
        delete fresh;
        return nullptr;
    }
    fresh->nextLoaded = loaded_;
    loaded_ = fresh;
    return fresh;
}

uint32_t CompoundFile::add(Children& children, const Name& name, EntryType type) {
    const uint32_t entry = prepare() ? directory_.add(name, type) : kNoEntry;
    if (entry == kNoEntry)
        return kNoEntry;
    if (!claimed_.resize(directory_.count()) || !children.insert(entry)) {
        directory_.remove(entry);
        return kNoEntry;
    }
    claimed_[entry] = 1;
    changed_ = true;
    return entry;
}

void CompoundFile::remove(Children& children, uint32_t entry) {
    prepare(); // the last chance, should the disk fill up; the writing tells
    children.remove(entry);
    directory_.remove(entry);
    claimed_[entry] = 0;
    changed_ = true;
}

bool CompoundFile::markOpen(uint32_t entry) {
    if (!open_.resize(directory_.count()) || open_[entry] != 0)
        return false;
    open_[entry] = 1;
    return true;
}

} // namespace compound
