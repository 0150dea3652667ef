#include "tools/stored_file.h"

#include "tools/archive.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/progress.h"

#include <kal/verify.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr uint64_t mostBytes = UINT32_MAX;
constexpr uint8_t compoundSignature[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr uint8_t registrySignature[] = {'K', 'R', 'E', 'G'};
constexpr size_t enoughItems = 100; // to tell by

bool begins(ByteView bytes, ByteView with) {
    return bytes.size() >= with.size() && std::equal(with.begin(), with.end(), bytes.begin());
}

// All streams here have the same buffered read.
int32_t (*readBuffered)(SFILE*, void*, uint32_t) = nullptr;

int32_t readAndCount(SFILE* stream, void* destination, uint32_t count) {
    if (isInterrupted())
        return stream->status = KAL_ERR_READ;
    const int32_t got = readBuffered(stream, destination, count);
    Progress::add(static_cast<uint64_t>(std::max(got, 0)));
    Progress::show();
    return got;
}

class FaultCounter final : public FaultSink {
public:
    void Fault(uint64_t, uint32_t, const char*) override { count++; }
    size_t count = 0;
};

} // namespace

StreamPtr streamOver(const File& file, uint16_t mode, uint32_t bufferBytes) {
    const int handle = ::fcntl(file.handle(), F_DUPFD_CLOEXEC, 3);
    if (handle < 0)
        throw Failure(hostErrorText(errno));
    SFILE* stream = nullptr;
    if (KalMakeSFile(&stream, handle) != 0) {
        ::close(handle);
        throw std::bad_alloc();
    }
    StreamPtr made(stream);
    stream->mode = mode;
    if (KalSetBuf(stream, bufferBytes) != 0)
        throw std::bad_alloc();
    return made;
}

StoredFile::StoredFile(const std::string& path)
    : path_(path), file_(File::openLocked(path, O_RDONLY, LOCK_SH)) {
    if (!file_.isOpen())
        throw Failure(path, hostErrorText(ENOENT));
    named(path, [this] {
        if (file_.size() > mostBytes)
            throw Failure("longer than any file that the library stores");
        stream_ = streamOver(file_, 0);
    });
    readBuffered = stream_->read;
    stream_->read = readAndCount;
}

FileKind StoredFile::kind() const {
    const std::vector<uint8_t> head = named(path_, [this] { return file_.readAt(0, 8); });
    if (begins(head, compoundSignature))
        return FileKind::Compound;
    if (begins(head, registrySignature))
        return FileKind::Registry;
    try {
        return Archive::forReading(path_)->isAlbum() ? FileKind::Lists : FileKind::Archive;
    } catch (const Damaged&) {
    }
    if (!looksLikeItems())
        throw Failure(path_, "cannot tell what kind of file it is, or was; --as says it");
    const std::optional<bool> lists = holdsLists();
    if (!lists)
        throw Failure(path_,
                      "cannot tell whether it holds operation lists; --as lists or --as items says it");
    const bool wide = (load16(head, 0) & KAL_ITEMS_WIDE) != 0;
    return *lists ? FileKind::Lists : wide ? FileKind::Items : FileKind::Resources;
}

// Whether at least half of what would be the entries of an index lead into the file and behind the index.
bool StoredFile::looksLikeItems() const {
    const uint64_t bytes = file_.size();
    const std::vector<uint8_t> head = file_.readAt(0, 4);
    if (head.size() < 4)
        return false;
    const bool wide = (load16(head, 0) & KAL_ITEMS_WIDE) != 0;
    const size_t entryBytes = wide ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
    const size_t count = load16(head, 2);
    const std::vector<uint8_t> index = file_.readAt(4, count * entryBytes);
    if (index.size() < count * entryBytes || count > (wide ? KAL_ITEMS_MAX_WIDE : KAL_ITEMS_MAX_NARROW))
        return false;
    size_t good = 0;
    size_t used = 0;
    for (size_t at = 0; at < index.size(); at += entryBytes) {
        const uint64_t size = wide ? load32(index, at + 2) : load16(index, at + 2);
        const uint64_t offset = load32(index, at + entryBytes - 4);
        used += load16(index, at) != KAL_ITEM_FREE;
        good +=
            load16(index, at) != KAL_ITEM_FREE && offset >= 4 + index.size() && offset < bytes + (size == 0);
    }
    return good > 0 && good * 2 >= used;
}

// Whether the items are operation lists: most that start in the file, or none. Nothing where it is neither.
std::optional<bool> StoredFile::holdsLists() const {
    IFILE* raw = nullptr;
    if (KalMakeIFile(&raw, stream(), 0) != 0)
        return {};
    const ItemsPtr items(raw);
    const uint64_t bytes = file_.size();
    size_t looked = 0;
    size_t lists = 0;
    for (const kal::Entry& item : itemsOf(raw)) {
        if (item.size == 0 || item.offset >= bytes || looked == enoughItems)
            continue;
        looked++;
        const std::vector<uint8_t> head = file_.readAt(item.offset, 4);
        if (item.size > 4 && std::count(head.begin(), head.end(), 0) == 4) // else zeros were empty lists
            continue;
        FaultCounter faults;
        stream()->seek(stream(), static_cast<int32_t>(item.offset), KAL_SEEK_START);
        lists += KalVerifyOpList(stream(), raw->formatFlags & KAL_IOP_COMPRESSED, faults) == 0;
    }
    throwIfInterrupted();
    if (lists > 0 && lists * 2 < looked)
        return {};
    return lists > 0;
}

std::vector<kal::Entry> itemsOf(const IFILE* file) {
    std::vector<kal::Entry> items;
    std::set<uint16_t> seen;
    for (auto entry = kal::EntryIterator(file, 0); entry != kal::EntryIterator(file, file->count); ++entry)
        if (seen.insert((*entry).id).second) // an earlier one hides it
            items.push_back(*entry);
    return items;
}
