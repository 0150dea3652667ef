// The compound-file back-end: the buffered algorithm over a stream of structured storage.
#include <kal/storage.h>

#include "streams/backends.h"
#include "streams/buffered.h"
#include "streams/search.h"

#include <kal/compound.h>

#include <cstdlib>

namespace {

constexpr uint16_t kAccess = KAL_MODE_WRITE | KAL_MODE_UPDATE; // as they stand also the access of storage
constexpr size_t kLongestName = 260;

SFOLE2* objectOf(const SFILE* s) {
    return reinterpret_cast<SFOLE2*>(s->backData);
}

struct StorageSource {
    static uint32_t seek(SFILE* s, int32_t offset, int origin) {
        return objectOf(s)->_llseek(offset, origin);
    }
    static uint32_t read(SFILE* s, void* destination, uint32_t count) {
        return objectOf(s)->_lread(destination, count);
    }
    static uint32_t write(SFILE* s, const void* source, uint32_t count) {
        return objectOf(s)->_lwrite(source, count);
    }
    static bool isWritable(const SFILE* s) { return objectOf(s)->readOnly == 0; }
};

using Buffered = BufferedStream<StorageSource>;

constexpr StreamOperations readOperations = {KalFOLE2Read,      KalFOLE2GetChar, KalNoFOLE2Write,
                                             KalNoFOLE2PutChar, KalFOLE2Seek,    KalFOLE2Close};
constexpr StreamOperations writeOperations = {KalNoFOLE2Read,  KalNoFOLE2GetChar, KalFOLE2Write,
                                              KalFOLE2PutChar, KalFOLE2Seek,      KalFOLE2Close};
constexpr StreamOperations updateOperations = {KalFOLE2Read,    KalFOLE2GetChar, KalFOLE2Write,
                                               KalFOLE2PutChar, KalFOLE2Seek,    KalFOLE2Close};

// A name in wide characters.
class WideName {
public:
    // False when it is too long or no text of the locale. Where a character is one byte, a byte that the
    // locale knows nothing of stands for the character of its number.
    bool set(const char* name) {
        if (name == nullptr)
            return false;
        size_t length = std::mbstowcs(text_, name, kLongestName + 1);
        if (length == static_cast<size_t>(-1) && MB_CUR_MAX == 1) {
            for (length = 0; length <= kLongestName && (length == 0 || name[length - 1] != 0); length++)
                text_[length] = static_cast<unsigned char>(name[length]);
            return text_[length - 1] == 0;
        }
        return length <= kLongestName;
    }
    const wchar_t* text() const { return text_; }

private:
    wchar_t text_[kLongestName + 1];
};

// A compound file on the way to its stream.
struct OpenedStorage {
    IStorage* storage = nullptr;
    char* name = nullptr; // under which it was found
    bool created = false;
};

bool openStorage(OpenedStorage& opened, const char* name, uint16_t mode) {
    WideName wide;
    if (!wide.set(name) || StgOpenStorage(wide.text(), nullptr, (mode & kAccess) | STGM_SHARE_DENY_WRITE,
                                          nullptr, 0, &opened.storage) != S_OK)
        return false;
    opened.name = copyText(name);
    return true;
}

bool createStorage(OpenedStorage& opened, const char* name, uint32_t storageMode) {
    WideName wide;
    if (!wide.set(name) || StgCreateDocfile(wide.text(), storageMode, 0, &opened.storage) != S_OK)
        return false;
    opened.name = copyText(name);
    opened.created = true;
    return true;
}

bool openOrCreateStorage(OpenedStorage& opened, const char* name, uint16_t mode) {
    const uint32_t access = mode & kAccess;
    if ((mode & KAL_MODE_CREATE) != 0)
        return createStorage(opened, name, access | STGM_SHARE_EXCLUSIVE | STGM_CREATE);
    if (openStorage(opened, name, mode))
        return true;
    if ((mode & KAL_MODE_SEARCH) != 0 && alongSearchText(name, [&opened, mode](const char* candidate) {
            return openStorage(opened, candidate, mode);
        }))
        return true;
    // Without STGM_CREATE a file that is there, but could not be opened, stays as it is.
    return (mode & KAL_MODE_APPEND) != 0 &&
           createStorage(opened, name, access | STGM_SHARE_EXCLUSIVE | STGM_WRITE);
}

// The stream in the storage. A file that was made just now has none, so it is made too.
IStream* streamIn(const OpenedStorage& opened, const char* name, uint16_t mode) {
    const uint32_t access = mode & kAccess;
    IStream* stream = nullptr;
    WideName wide;
    if (!wide.set(name))
        return nullptr;
    if (opened.created)
        opened.storage->CreateStream(wide.text(), access | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0, &stream);
    else
        opened.storage->OpenStream(wide.text(), nullptr, access | STGM_SHARE_EXCLUSIVE, 0, &stream);
    return stream;
}

} // namespace

SFOLE2::SFOLE2(SFILE** out, IStorage* openStorage, IStream* openStream, uint16_t mode)
    : stream(openStream), storage(openStorage), owner(static_cast<SFILE*>(KalAllocSMem(sizeof(SFILE)))),
      readOnly((mode & kAccess) == 0), writeOnly(mode & KAL_MODE_WRITE) {
    *out = owner;
    if (owner == nullptr)
        return;
    owner->backData = reinterpret_cast<uintptr_t>(this);
    owner->mode = mode;
    installOperations(owner, readOnly != 0    ? readOperations
                             : writeOnly != 0 ? writeOperations
                                              : updateOperations);
    if ((mode & KAL_MODE_APPEND) != 0) {
        if (readOnly != 0)
            owner->mode |= KAL_MODE_WRITE;
        owner->osPos = owner->pos = _llseek(0, int(KAL_SEEK_END));
    }
    owner->bufStart = owner->osPos;
    owner->bufEnd = KAL_NO_POSITION;
}

uint32_t SFOLE2::_llseek(int32_t offset, int origin) {
    uint64_t position;
    return stream->Seek(offset, static_cast<uint32_t>(origin), &position) == S_OK
               ? static_cast<uint32_t>(position)
               : KAL_NO_POSITION;
}

uint32_t SFOLE2::_lread(void* destination, uint32_t count) {
    uint32_t got;
    return stream->Read(destination, count, &got) == S_OK ? got : KAL_NO_POSITION;
}

uint32_t SFOLE2::_lwrite(const void* source, uint32_t count) {
    uint32_t taken;
    return stream->Write(source, count, &taken) == S_OK ? taken : KAL_NO_POSITION;
}

int16_t SFOLE2::KalFlushBuf() {
    return Buffered::flush(owner);
}

extern const Backend storageBackend;
constexpr Backend storageBackend = {
    .modeBit = 0, // opened by KalOpenFileAsIStream
    .setUp = nullptr,
    .close = KalFOLE2Close,
    .flush = [](SFILE* stream) { return objectOf(stream)->KalFlushBuf(); },
    .look = nullptr,
    .take = nullptr,
    .letGo = nullptr,
};

int16_t KalOpenFileAsIStream(SFILE** out, const char* fileName, const char* streamName, uint16_t mode) {
    *out = nullptr;
    OpenedStorage opened;
    if (!openOrCreateStorage(opened, fileName, mode))
        return KAL_ERR_STORAGE;
    IStream* stream = streamIn(opened, streamName, mode);
    SFOLE2* object =
        stream != nullptr && opened.name != nullptr ? new SFOLE2(out, opened.storage, stream, mode) : nullptr;
    if (*out != nullptr) {
        (*out)->name = opened.name;
        return (*out)->status;
    }
    delete object;
    KalFreeSMem(opened.name);
    if (stream != nullptr)
        stream->Release();
    opened.storage->Release();
    return stream != nullptr ? KAL_ERR_MEMORY : KAL_ERR_STORAGE;
}

int32_t KalFOLE2Read(SFILE* stream, void* destination, uint32_t count) {
    return Buffered::read(stream, destination, count);
}

int32_t KalFOLE2GetChar(SFILE* stream) {
    return Buffered::getChar(stream);
}

int32_t KalFOLE2Write(SFILE* stream, const void* source, uint32_t count) {
    return Buffered::write(stream, source, count);
}

int16_t KalFOLE2PutChar(SFILE* stream, char byte) {
    return Buffered::putChar(stream, byte);
}

int16_t KalFOLE2Seek(SFILE* stream, int32_t offset, uint32_t origin) {
    return Buffered::seek(stream, offset, origin);
}

int16_t KalFOLE2Close(SFILE* stream) {
    SFOLE2* object = objectOf(stream);
    if (stream->dirty == 1 && stream->tempName == nullptr && object->KalFlushBuf() != KAL_OK)
        return stream->status;
    KalFreeSMem(stream->buf);
    // What is still to be written is written now, since releasing does not tell whether it could be.
    const bool isWritten = object->storage->Commit(0) == S_OK;
    object->stream->Release();
    object->storage->Release();
    delete object;
    KalFreeSMem(stream->name);
    KalFreeSMem(stream);
    return isWritten ? KAL_OK : KAL_ERR_CLOSE;
}

int32_t KalNoFOLE2Read(SFILE* stream, void*, uint32_t) {
    stream->status = KAL_ERR_READ;
    return 0;
}

int32_t KalNoFOLE2GetChar(SFILE* stream) {
    return KalNoFOLE2Read(stream, nullptr, 1);
}

int32_t KalNoFOLE2Write(SFILE* stream, const void*, uint32_t) {
    stream->status = KAL_ERR_WRITE;
    return 0;
}

int16_t KalNoFOLE2PutChar(SFILE* stream, char) {
    return static_cast<int16_t>(KalNoFOLE2Write(stream, nullptr, 1));
}
