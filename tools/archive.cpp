#include "tools/archive.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/ops.h"
#include "tools/output_file.h"
#include "tools/stored_file.h"

#include <kal/cpp/bitmap.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint16_t opSignature = 0x100;
constexpr uint16_t signatureId = 0;
constexpr char signature[] = "kal picture archive 1";
constexpr uint16_t lastId = KAL_ITEM_FREE - 1;

constexpr uint16_t plainFormat = KAL_ITEMS_WIDE;
constexpr uint16_t compressedFormat = KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED;

constexpr uint16_t mostEntries = KAL_ITEMS_MAX_WIDE;

constexpr uint32_t bufferBytes = 16384;

} // namespace

bool Archive::open(int flags, int lockKind) {
    file_ = File::openLocked(path_, flags, lockKind);
    if (!file_.isOpen())
        return false;
    lay(flags == O_RDONLY ? 0 : KAL_MODE_WRITE, 0);
    checkSignature();
    if (flags != O_RDONLY)
        bytesBefore_ = file_.size();
    return true;
}

std::unique_ptr<Archive> Archive::forReading(const std::string& path) {
    std::unique_ptr<Archive> archive(new Archive(path));
    if (!archive->open(O_RDONLY, LOCK_SH))
        archive->fail(hostErrorText(ENOENT));
    return archive;
}

std::unique_ptr<Archive> Archive::forChanging(const std::string& path) {
    std::unique_ptr<Archive> archive(new Archive(path));
    if (!archive->open(O_RDWR, LOCK_EX))
        archive->fail(hostErrorText(ENOENT));
    return archive;
}

std::unique_ptr<Archive> Archive::forStoring(const std::string& path, Compression compression) {
    std::unique_ptr<Archive> archive(new Archive(path));
    const bool plain = compression == Compression::None;
    if (archive->open(O_RDWR, LOCK_EX)) {
        if (plain && archive->compresses())
            archive->fail("its pictures are compressed; --plain serves new and plain archives");
        return archive;
    }
    named(path, [&] { archive->new_.emplace(path); });
    archive->lay(KAL_MODE_CREATE | KAL_MODE_WRITE, plain ? plainFormat : compressedFormat);
    archive->reserve();
    archive->put(signatureId, [](OpList* list) {
        putOp(list, opSignature, {reinterpret_cast<const uint8_t*>(signature), sizeof signature});
    });
    return archive;
}

std::unique_ptr<Archive> Archive::scratch() const {
    std::unique_ptr<Archive> archive(new Archive(path_));
    named(path_, [&] { archive->new_.emplace(path_); });
    archive->lay(KAL_MODE_CREATE | KAL_MODE_WRITE, index().formatFlags);
    return archive;
}

Archive::~Archive() {
    closeWithoutWriting();
    if (bytesBefore_ != 0)
        takeBack();
}

// Makes the archive again what it was.
void Archive::takeBack() {
    try {
        file_.writeAt(0, headBefore_);
        if (file_.size() != bytesBefore_ &&
            ::ftruncate(file_.handle(), static_cast<off_t>(bytesBefore_)) != 0)
            throw Failure(hostErrorText(errno));
    } catch (const Failure&) {
        // The host refuses even that. The bytes at the end belong to no picture and harm nothing.
    }
}

// Lays the operation-list file over the open file.
void Archive::lay(uint16_t mode, uint16_t format) {
    StreamPtr stream = named(path_, [&] { return streamOver(file(), mode, bufferBytes); });
    const int16_t status = KalMakeIOpFile(&lists_, stream.get(), format);
    if (status == 0) {
        static_cast<void>(stream.release()); // which the lists own now
        return;
    }
    lists_ = nullptr;
    if (status == KAL_ERR_MEMORY) // KAL_ERR_BUFFER says as well that the index makes no sense
        require(status);
    if (mode & KAL_MODE_CREATE)
        fail(statusText(status));
    throw Damaged(path_, "not a picture archive");
}

bool Archive::beginsWith(uint16_t id, uint16_t type, ByteView bytes) {
    OpList* list = nullptr;
    if (KalOpenGetIOpList(lists_, id, &list) != 0)
        return false;
    const Op op(KalGetOp(list));
    KalCloseGetIOpList(lists_);
    return op != nullptr && KalOpType(op.get()) == type &&
           (bytes.empty() || std::ranges::equal(payload(op), bytes));
}

// An album is only read.
void Archive::checkSignature() {
    const uint16_t format = index().formatFlags;
    if ((format == plainFormat || format == compressedFormat) &&
        beginsWith(signatureId, opSignature, {reinterpret_cast<const uint8_t*>(signature), sizeof signature}))
        return;
    const std::vector<kal::Entry> all = items();
    isAlbum_ = index().stream->mode == 0 && !all.empty() &&
               beginsWith(all.front().id, kal::Bitmap::descriptionOp, {});
    if (!isAlbum_)
        throw Damaged(path_, "not a picture archive");
}

uint32_t Archive::indexRoom() const {
    const uint32_t entryBytes =
        (index().formatFlags & KAL_ITEMS_WIDE) != 0 ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
    return 4 + entryBytes * (isAlbum_ ? index().count : mostEntries);
}

// Pictures are larger than what a growing index moves out of its way.
void Archive::reserve() {
    require(KalReserveItems(lists_->ifile, mostEntries));
}

std::vector<kal::Entry> Archive::items() const {
    const IFILE* file = lists_->ifile;
    return {kal::EntryIterator(file, 0), kal::EntryIterator(file, file->count)};
}

std::vector<kal::Entry> Archive::pictures() const {
    std::vector<kal::Entry> found = items();
    std::erase_if(found, [this](const kal::Entry& item) { return item.id == signatureId && !isAlbum_; });
    return found;
}

bool Archive::mayBePicture(uint32_t id) const {
    return (id != signatureId || isAlbum_) && id <= lastId;
}

void Archive::failMissing(uint32_t id) const {
    fail("there is no picture " + std::to_string(id));
}

void Archive::get(uint32_t id, const std::function<void(OpList*)>& use) {
    OpList* list = nullptr;
    const int16_t opened =
        mayBePicture(id) ? KalOpenGetIOpList(lists_, static_cast<uint16_t>(id), &list) : int16_t{1};
    if (opened == 1)
        failMissing(id);
    require(opened);
    try {
        require(KalGetOpError(list));
        use(list);
    } catch (const Damaged& damaged) {
        KalCloseGetIOpList(lists_);
        fail("picture " + std::to_string(id) + " is damaged: " + damaged.what());
    }
    KalCloseGetIOpList(lists_);
}

uint16_t Archive::nextId(size_t pictures) const {
    const std::vector<kal::Entry> all = items();
    if (index().count + pictures > mostEntries)
        fail("it is full: " + std::to_string(mostEntries - 1) + " pictures are the most" +
             (all.size() < index().count ? "; pack makes room where some were removed" : ""));
    uint16_t highest = signatureId;
    for (const kal::Entry& item : all)
        highest = std::max(highest, item.id);
    if (highest + pictures > lastId)
        fail("its highest id is " + std::to_string(highest) + ", and " + std::to_string(lastId) +
             " is the last that there is");
    return static_cast<uint16_t>(highest + 1);
}

void Archive::put(uint16_t id, const std::function<void(OpList*)>& fill) {
    OpList* list = nullptr;
    require(KalOpenPutIOpList(lists_, id, &list));
    try {
        require(KalGetOpError(list));
        fill(list);
    } catch (const Failure& failure) {
        throw failure.of(path_);
    }
    SFILE* stream = lists_->ifile->stream;
    const int16_t ended = KalClosePutIOpList(lists_);
    const int16_t status = stream->status; // nobody else reports on the last bytes
    require(ended != 0 ? ended : status != 0 ? status : KalFlushBuf(stream));
}

void Archive::remove(uint32_t id) {
    ItemIndex* entry = mayBePicture(id) ? KalFindItem(lists_->ifile, static_cast<uint16_t>(id)) : nullptr;
    if (entry == nullptr)
        failMissing(id);
    entry->wide.id = KAL_ITEM_FREE;
}

// Appends the items of another archive, as they are.
void Archive::takeAll(Archive& from) {
    const uint64_t bytes = from.bytes();
    for (const kal::Entry& item : from.items()) {
        if (uint64_t{item.offset} + item.size > bytes)
            fail("picture " + std::to_string(item.id) + " is damaged: it lies behind the archive's end");
        uint64_t end = file().size();
        if (end + item.size > UINT32_MAX)
            require(KAL_ERR_DISK_FULL);
        ItemIndex* entry = KalAppendItemIndex(lists_->ifile);
        require(entry == nullptr ? KAL_ERR_MEMORY : KAL_OK);
        entry->wide = {item.id, item.size, static_cast<uint32_t>(end)};
        named(path_, [&] {
            from.file().forPieces(item.offset, item.size, [&](ByteView piece) {
                file().writeAt(end, piece);
                end += piece.size();
            });
        });
    }
}

void Archive::pack() {
    OutputFile out(path_);
    Archive packed(path_);
    packed.file_ = File(::dup(out.file().handle()));
    packed.lay(KAL_MODE_CREATE | KAL_MODE_WRITE, index().formatFlags);
    packed.reserve();
    packed.takeAll(*this);
    packed.writeIndex();
    ::fdatasync(out.file().handle()); // the host may not put the name before the bytes
    out.commit();
}

void Archive::writeIndex() {
    SFILE* stream = lists_->ifile->stream;
    require(KalFlushIFile(lists_->ifile));
    require(KalFlushBuf(stream));
    closeWithoutWriting();
}

void Archive::commit() {
    require(KalFlushBuf(lists_->ifile->stream));
    throwIfInterrupted();
    if (bytesBefore_ != 0)
        headBefore_ = named(path_, [this] {
            return file_.readAt(0, static_cast<size_t>(std::min<uint64_t>(bytesBefore_, indexRoom())));
        });
    writeIndex();
    if (new_ && !named(path_, [this] { return new_->place(); }))
        throw ArchiveAppeared();
    bytesBefore_ = 0;
}

// Ends the library's work on the file. Nothing that it still holds reaches the file.
void Archive::closeWithoutWriting() {
    if (lists_ == nullptr)
        return;
    SFILE* stream = lists_->ifile->stream;
    lists_->ifile->mode = stream->mode = 0;
    KalSetBuf(stream, 0);
    KalCloseIOpFile(lists_);
    lists_ = nullptr;
}

void Archive::fail(const std::string& why) const {
    throw Failure(path_, why);
}

void Archive::require(int16_t status) const {
    requireMemory(status);
    if (status != 0)
        fail(statusText(status));
}
