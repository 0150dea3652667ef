#include "tools/archive.h"

#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/ops.h"

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

constexpr size_t entryBytes = sizeof(ItemIndexWide);
constexpr uint16_t mostEntries = KAL_ITEMS_MAX_WIDE;
constexpr uint32_t indexEnd = 4 + mostEntries * entryBytes;

constexpr uint32_t bufferBytes = 16384;

// Waits for the lock. A file system without locks goes without.
void lock(const File& file, int operation) {
    if (!waitUntil([&] { return ::flock(file.handle(), operation | LOCK_NB) == 0 || errno != EWOULDBLOCK; }))
        throw Failure("in use");
}

// Opens and locks the archive; not open when there is none. One that was deleted while this process waited is
// none.
File openLocked(const std::string& path, int flags, int lockKind) {
    return named(path, [&] {
        File file = File::openIfThere(path, flags);
        while (file.isOpen()) {
            lock(file, lockKind);
            struct stat facts = {};
            if (::fstat(file.handle(), &facts) == 0 && facts.st_nlink > 0)
                break;
            file = File::openIfThere(path, flags);
        }
        return file;
    });
}

} // namespace

std::unique_ptr<Archive> Archive::forReading(const std::string& path) {
    std::unique_ptr<Archive> archive(new Archive(path));
    archive->file_ = openLocked(path, O_RDONLY, LOCK_SH);
    if (!archive->file_.isOpen())
        archive->fail(hostErrorText(ENOENT));
    archive->lay(0, 0);
    archive->checkSignature();
    return archive;
}

std::unique_ptr<Archive> Archive::forStoring(const std::string& path, Compression compression) {
    std::unique_ptr<Archive> archive(new Archive(path));
    archive->file_ = openLocked(path, O_RDWR, LOCK_EX);
    if (archive->file_.isOpen()) {
        archive->lay(KAL_MODE_WRITE, 0);
        archive->checkSignature();
        if (compression == Compression::None && archive->lists_->ifile->formatFlags != plainFormat)
            archive->fail("its pictures are compressed; --plain serves new and plain archives");
        archive->bytesBefore_ = archive->file_.size();
        return archive;
    }
    named(path, [&] { archive->new_.emplace(path); });
    archive->lay(KAL_MODE_CREATE | KAL_MODE_WRITE,
                 compression == Compression::None ? plainFormat : compressedFormat);
    archive->putSignature();
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
    const int handle = ::fcntl(file().handle(), F_DUPFD_CLOEXEC, 3);
    if (handle < 0)
        fail(hostErrorText(errno));
    SFILE* stream = nullptr;
    if (const int16_t status = KalMakeSFile(&stream, handle); status != 0) {
        ::close(handle);
        require(status);
    }
    stream->mode = mode;
    int16_t status = KalSetBuf(stream, bufferBytes);
    if (status == 0)
        status = KalMakeIOpFile(&lists_, stream, format);
    if (status != 0) {
        lists_ = nullptr;
        stream->close(stream);
        if (status == KAL_ERR_MEMORY)
            require(status);
        fail(mode & KAL_MODE_CREATE ? statusText(status) : "not a picture archive");
    }
}

void Archive::checkSignature() {
    const uint16_t format = lists_->ifile->formatFlags;
    OpList* list = nullptr;
    bool right = (format == plainFormat || format == compressedFormat) &&
                 KalOpenGetIOpList(lists_, signatureId, &list) == 0;
    if (right) {
        const Op op(KalGetOp(list));
        right = op != nullptr && KalOpType(op.get()) == opSignature &&
                payload(op).size() == sizeof signature &&
                std::memcmp(op.get(), signature, sizeof signature) == 0;
        KalCloseGetIOpList(lists_);
    }
    if (!right)
        fail("not a picture archive");
}

void Archive::putSignature() {
    require(KalReserveItems(lists_->ifile, mostEntries)); // pictures are larger than what moves later
    OpList* list = nullptr;
    require(KalOpenPutIOpList(lists_, signatureId, &list));
    const bool put = KalPutOpData(list, opSignature, signature, sizeof signature) != KAL_OP_FAILED;
    const int16_t status = put ? int16_t{0} : KalGetOpError(list);
    const int16_t closed = KalClosePutIOpList(lists_);
    require(status != 0 ? status : closed);
}

std::vector<kal::Entry> Archive::items() const {
    const IFILE* file = lists_->ifile;
    return {kal::EntryIterator(file, 0), kal::EntryIterator(file, file->count)};
}

std::vector<kal::Entry> Archive::pictures() const {
    std::vector<kal::Entry> found = items();
    std::erase_if(found, [](const kal::Entry& item) { return item.id == signatureId; });
    return found;
}

void Archive::get(uint16_t id, const std::function<void(OpList*)>& use) {
    OpList* list = nullptr;
    const int16_t status = id == signatureId ? int16_t{1} : KalOpenGetIOpList(lists_, id, &list);
    if (status == 1)
        fail("there is no picture " + std::to_string(id));
    require(status);
    try {
        if (KalGetOpError(list) != 0)
            fail(statusText(KalGetOpError(list)));
        use(list);
    } catch (const Damaged& damaged) {
        KalCloseGetIOpList(lists_);
        fail("picture " + std::to_string(id) + " is damaged: " + damaged.what());
    }
    KalCloseGetIOpList(lists_);
}

uint16_t Archive::put(const std::function<void(OpList*, uint16_t)>& fill) {
    if (lists_->ifile->count >= mostEntries)
        fail("it is full: " + std::to_string(mostEntries - 1) + " pictures are the most");
    uint16_t highest = signatureId;
    for (const kal::Entry& item : items())
        highest = std::max(highest, item.id);
    if (highest == lastId)
        fail("its highest id is the last that there is");
    const auto id = static_cast<uint16_t>(highest + 1);

    OpList* list = nullptr;
    require(KalOpenPutIOpList(lists_, id, &list));
    try {
        if (KalGetOpError(list) != 0)
            throw Failure(statusText(KalGetOpError(list)));
        fill(list, id);
    } catch (const Failure& failure) {
        throw failure.of(path_);
    }
    require(finishPut());
    return id;
}

// Ends the list being stored, whose last bytes nobody else reports on.
int16_t Archive::finishPut() {
    SFILE* stream = lists_->ifile->stream;
    const int16_t ended = KalClosePutIOpList(lists_);
    const int16_t status = stream->status;
    return ended != 0 ? ended : status != 0 ? status : KalFlushBuf(stream);
}

void Archive::commit() {
    SFILE* stream = lists_->ifile->stream;
    require(KalFlushBuf(stream));
    throwIfInterrupted();
    if (bytesBefore_ != 0)
        headBefore_ = named(path_, [this] {
            return file_.readAt(0, static_cast<size_t>(std::min<uint64_t>(bytesBefore_, indexEnd)));
        });
    require(KalFlushIFile(lists_->ifile));
    require(KalFlushBuf(stream));
    closeWithoutWriting();
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
    if (status != 0)
        fail(statusText(status));
}
