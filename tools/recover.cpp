#include "tools/recover.h"

#include "tools/archive.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/ops.h"
#include "tools/picture.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace {

constexpr uint32_t registryHeader = 4096;
constexpr uint32_t recordHead = 20;
constexpr uint16_t newFile = KAL_MODE_CREATE | KAL_MODE_UPDATE;

[[noreturn]] void failUnreadable(const StoredFile& damaged) {
    throw Failure(damaged.path(), "nothing of it can be saved: its index cannot be read");
}

void require(int16_t status) {
    if (status == KAL_ERR_MEMORY || status == KAL_ERR_BUFFER)
        throw std::bad_alloc();
    if (status != 0)
        throw Failure(statusText(status));
}

// Saves with `save` what it can; what it finds Damaged is lost.
template <class Save>
void saveEach(const std::vector<kal::Entry>& items, Recovered& recovered, Save save) {
    for (const kal::Entry& item : items) {
        try {
            throwIfInterrupted();
            save(item);
            recovered.saved++;
        } catch (const Damaged& damage) {
            recovered.lost.push_back({std::to_string(item.id), damage.what()});
        }
    }
}

ListsPtr listsOver(SFILE* stream, uint16_t format) {
    IOPFILE* lists = nullptr;
    KalMakeIOpFile(&lists, stream, format);
    return ListsPtr(lists);
}

// Calls `use` with list `id`.
template <class Use>
void withList(IOPFILE* lists, uint16_t id, Use use) {
    OpList* list = nullptr;
    if (const int16_t status = KalOpenGetIOpList(lists, id, &list); status != 0)
        throw Damaged(statusText(status));
    const std::unique_ptr<IOPFILE, int16_t (*)(IOPFILE*)> closer(lists, KalCloseGetIOpList);
    if (KalGetOpError(list) != 0)
        throw Damaged(statusText(KalGetOpError(list)));
    use(list);
}

// Reads the list whole, before any of it is written.
void checkList(IOPFILE* lists, uint16_t id) {
    withList(lists, id, [](OpList* list) {
        while (nextOp(list) != nullptr) {
        }
    });
}

void copyList(IOPFILE* from, uint16_t id, OpList* to) {
    withList(from, id, [to](OpList* list) {
        while (const Op op = nextOp(list))
            putOp(to, KalOpType(op.get()), payload(op));
    });
}

} // namespace

Recovered recoverItems(const StoredFile& damaged, const std::string& out) {
    IFILE* raw = nullptr;
    if (KalMakeIFile(&raw, damaged.stream(), 0) != 0)
        failUnreadable(damaged);
    const ItemsPtr from(raw);
    const std::vector<kal::Entry> items = itemsOf(raw);
    Recovered recovered;
    makeNewFile(out, [&](const File& file) {
        const StreamPtr stream = streamOver(file, newFile);
        IFILE* made = nullptr;
        require(KalMakeIFile(&made, stream.get(), raw->formatFlags));
        const ItemsPtr to(made);
        require(KalReserveItems(made, static_cast<uint16_t>(items.size())));
        saveEach(items, recovered, [&](const kal::Entry& item) {
            if (item.offset + uint64_t{item.size} > damaged.file().size())
                throw Damaged("it runs past the end of the file");
            std::vector<uint8_t> bytes(item.size);
            if (KalReadIFile(raw, bytes.data(), item.size, item.id) != item.size)
                throw Damaged("it cannot be read");
            if (KalWriteIFile(made, bytes.data(), item.size, item.id) != item.size)
                require(stream->status);
        });
        require(KalFlushIFile(made));
        require(KalFlushBuf(stream.get()));
    });
    return recovered;
}

Recovered recoverLists(const StoredFile& damaged, const std::string& out) {
    const ListsPtr from = listsOver(damaged.stream(), 0);
    if (from == nullptr)
        failUnreadable(damaged);
    const std::vector<kal::Entry> items = itemsOf(from->ifile);
    Recovered recovered;
    makeNewFile(out, [&](const File& file) {
        const StreamPtr stream = streamOver(file, newFile);
        const ListsPtr to = listsOver(stream.get(), from->ifile->formatFlags);
        if (to == nullptr)
            throw std::bad_alloc();
        require(KalReserveItems(to->ifile, static_cast<uint16_t>(items.size())));
        saveEach(items, recovered, [&](const kal::Entry& item) {
            checkList(from.get(), item.id);
            OpList* list = nullptr;
            require(KalOpenPutIOpList(to.get(), item.id, &list));
            copyList(from.get(), item.id, list);
            require(KalClosePutIOpList(to.get()));
        });
        require(KalFlushIFile(to->ifile));
        require(KalFlushBuf(stream.get()));
    });
    return recovered;
}

Recovered recoverArchive(const StoredFile& damaged, const std::string& out) {
    const ListsPtr from = listsOver(damaged.stream(), 0);
    if (from == nullptr)
        failUnreadable(damaged);
    std::vector<kal::Entry> items = itemsOf(from->ifile);
    std::erase_if(items, [](const kal::Entry& item) { return item.id == 0; });
    if (named(out, [&] { return File::openIfThere(out, O_PATH).isOpen(); }))
        throw Failure(out, hostErrorText(EEXIST));
    const bool compressed = (from->ifile->formatFlags & KAL_IOP_COMPRESSED) != 0;
    const auto to =
        Archive::forStoring(out, compressed ? Archive::Compression::AsItIs : Archive::Compression::None);
    Recovered recovered;
    saveEach(items, recovered, [&](const kal::Entry& item) {
        checkPicture(*from, item.id);
        to->put(item.id, [&](OpList* list) { copyList(from.get(), item.id, list); });
    });
    try {
        to->commit();
    } catch (const ArchiveAppeared&) {
        throw Failure(out, hostErrorText(EEXIST));
    }
    return recovered;
}

void checkPicture(IOPFILE& lists, uint16_t id) {
    struct Nobody final : PictureTaker {
        void part(PicturePart, ByteView) override {}
        void rows(const uint8_t*, uint32_t) override {}
    } nobody;
    withList(&lists, id, [&](OpList* list) {
        getPicture(list, id, [&](const PictureForm&) -> PictureTaker& { return nobody; });
    });
}

Recovered recoverRegistry(const StoredFile& damaged, const std::string& out,
                          const std::function<bool(uint32_t record)>& isSound) {
    const File& from = damaged.file();
    std::vector<uint8_t> header = from.readAt(0, registryHeader);
    if (header.size() < registryHeader)
        throw Failure(damaged.path(), "nothing of it can be saved: its header cannot be read");
    const uint64_t end = std::min<uint64_t>(from.size(), load32(header, 12) & 0x7FFFFFFF);
    Recovered recovered;
    makeNewFile(out, [&](const File& file) {
        file.append(header);
        uint64_t at = registryHeader;
        uint32_t committed = registryHeader;
        for (uint32_t record = 0; at < end; record++) {
            const std::vector<uint8_t> head = from.readAt(at, recordHead);
            const uint32_t length = head.size() < recordHead ? 0 : load32(head, 0);
            if (length < recordHead || length > end - at) {
                recovered.lost.push_back(
                    {std::to_string(record), "it and what may stand behind it cannot be read"});
                break;
            }
            if (isSound(record)) {
                file.append(from.readAt(at, length));
                committed += length;
                recovered.saved++;
            } else {
                recovered.lost.push_back({std::to_string(record), "it is not what was written"});
            }
            at += length;
        }
        store32(&header[12], committed);
        file.writeAt(0, header);
    });
    return recovered;
}
