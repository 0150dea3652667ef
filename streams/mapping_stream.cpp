// The file-mapping back-end.
#include <kal/mapping.h>

#include "platform/file_mapping.h"
#include "streams/backends.h"
#include "streams/bytes_ahead.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int32_t kDefaultSize = 3000000;
constexpr uint32_t kLengthWord = 4;

constexpr StreamOperations readOperations = {KalFMRead,      KalFMGetChar, KalNoFMWrite,
                                             KalNoFMPutChar, KalFMSeek,    KalFMClose};
constexpr StreamOperations writeOperations = {KalNoFMRead,  KalNoFMGetChar, KalFMWrite,
                                              KalFMPutChar, KalFMSeek,      KalFMClose};
constexpr StreamOperations updateOperations = {KalFMRead,    KalFMGetChar, KalFMWrite,
                                               KalFMPutChar, KalFMSeek,    KalFMClose};

// Positions are addresses where an address fits their 32 bits, else offsets from the view.
constexpr bool kPositionsAreAddresses = sizeof(uintptr_t) == sizeof(uint32_t);

uint32_t positionOf(const SFM* map, const uint8_t* address) {
    const uintptr_t origin = kPositionsAreAddresses ? 0 : reinterpret_cast<uintptr_t>(map->view);
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address) - origin);
}

const SFM* mapOf(const SFILE* s) {
    return reinterpret_cast<const SFM*>(s->backData);
}

uint32_t endOfMap(const SFILE* s) {
    return positionOf(mapOf(s), mapOf(s)->mapEnd);
}

// The bytes from the current one to `end`, which a damaged stored length puts in front of it.
uint32_t bytesTo(const SFILE* s, uint32_t end) {
    return end > s->pos ? end - s->pos : 0;
}

void raiseDataEnd(SFILE* s) {
    if (s->pos > s->bufEnd)
        s->bufEnd = s->pos;
}

// The bytes that may be touched from the view's start on.
uint32_t realSize(const uint8_t* view) {
    MEMORY_BASIC_INFORMATION information;
    if (VirtualQuery(view, &information, sizeof information) == 0)
        return 0;
    return static_cast<uint32_t>(std::min<uint64_t>(information.RegionSize, UINT32_MAX));
}

} // namespace

SFM::SFM(SFILE* record, const char* name, int32_t size)
    : readOnly((record->mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE)) == 0), openStatus(KAL_ERR_SERVICE),
      owner(record) {
    uint32_t access = FILE_MAP_READ;
    if (readOnly == 0) {
        access |= FILE_MAP_WRITE;
        writeOnly = record->mode & KAL_MODE_WRITE;
        openExisting = (record->mode & KAL_MODE_CREATE) == 0;
    }
    const bool creates = readOnly == 0 && openExisting == 0;
    mapSize = static_cast<uint32_t>(size);
    if (creates && mapSize < kLengthWord)
        return;
    hMapping = creates ? CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, mapSize, name)
                       : OpenFileMappingA(access, 0, name);
    if (hMapping != 0)
        view = static_cast<uint8_t*>(MapViewOfFile(hMapping, access, 0, 0, 0));
    const uint32_t room = view != nullptr ? realSize(view) : 0;
    if (room < kLengthWord)
        return;
    if (!creates)
        std::memcpy(&mapSize, view, sizeof mapSize);
    // Anybody may have written the length, and a mapping that was there has a size of its own.
    mapSize = std::min(mapSize, room);
    mapEnd = view + mapSize;
    openStatus = KAL_OK;

    installOperations(record, readOnly != 0    ? readOperations
                              : writeOnly != 0 ? writeOperations
                                               : updateOperations);
    record->handle = hMapping;
    record->bufPtr = view + kLengthWord;
    record->bufStart = positionOf(this, view);
    record->pos = record->offset = positionOf(this, record->bufPtr);
    record->bufEnd = readOnly != 0 ? positionOf(this, mapEnd) : record->offset;
}

SFM::~SFM() {
    if (readOnly == 0 && mapEnd != nullptr) {
        const uint32_t used = owner->bufEnd - owner->bufStart;
        std::memcpy(view, &used, sizeof used);
    }
    if (view != nullptr)
        UnmapViewOfFile(view);
    // What a stream created stays under its name for others to open, until the process ends.
    if (hMapping != 0 && (readOnly != 0 || openExisting != 0 || openStatus != KAL_OK))
        CloseHandle(hMapping);
}

namespace {

int16_t setUp(SFILE* record, const char* name, int32_t size) {
    auto* map = new SFM(record, name, size != 0 ? size : kDefaultSize);
    const int16_t status = map != nullptr ? map->openStatus : int16_t(KAL_ERR_SERVICE);
    record->backData = reinterpret_cast<uintptr_t>(map);
    record->status = status;
    if (status != KAL_OK) {
        delete map;
        KalFreeSMem(record);
    }
    return status;
}

void look(SFILE* s, PlacedBytes* placed) {
    if (mapOf(s)->writeOnly == 0)
        *placed = {s->bufPtr, bytesTo(s, s->bufEnd)};
}

void take(SFILE* s, uint32_t count) {
    advance(s, count);
    s->status = KAL_OK;
}

} // namespace

extern const Backend mappingBackend;
constexpr Backend mappingBackend = {
    .modeBit = KAL_MODE_FILEMAP,
    .setUp = setUp,
    .close = KalFMClose,
    .flush = nullptr,
    .look = look,
    .take = take,
    .letGo = nullptr,
};

int32_t KalFMRead(SFILE* stream, void* destination, uint32_t count) {
    const uint32_t left = bytesTo(stream, stream->bufEnd);
    stream->status = count > left ? KAL_ERR_SHORT_READ : KAL_OK;
    count = std::min(count, left);
    if (count > 0)
        std::memcpy(destination, stream->bufPtr, count);
    advance(stream, count);
    return static_cast<int32_t>(count);
}

int32_t KalFMGetChar(SFILE* stream) {
    if (stream->pos >= stream->bufEnd) [[unlikely]] {
        stream->status = KAL_ERR_SHORT_READ;
        return 0;
    }
    const uint8_t* next = stream->bufPtr;
    stream->status = KAL_OK;
    stream->pos++;
    stream->bufPtr = const_cast<uint8_t*>(next + 1);
    return *next;
}

int32_t KalFMWrite(SFILE* stream, const void* source, uint32_t count) {
    const uint32_t room = bytesTo(stream, endOfMap(stream));
    stream->status = count > room ? KAL_ERR_DISK_FULL : KAL_OK;
    count = std::min(count, room);
    if (count > 0)
        std::memcpy(stream->bufPtr, source, count);
    advance(stream, count);
    raiseDataEnd(stream);
    return static_cast<int32_t>(count);
}

int16_t KalFMPutChar(SFILE* stream, char byte) {
    if (stream->pos >= endOfMap(stream)) [[unlikely]]
        return stream->status = KAL_ERR_DISK_FULL;
    uint8_t* next = stream->bufPtr;
    stream->status = KAL_OK;
    advance(stream, 1);
    raiseDataEnd(stream);
    *next = static_cast<uint8_t>(byte);
    return KAL_OK;
}

int16_t KalFMSeek(SFILE* stream, int32_t offset, uint32_t origin) {
    int64_t target = offset;
    if (origin == KAL_SEEK_START)
        target += stream->offset;
    else if (origin == KAL_SEEK_CURRENT)
        target += stream->pos;
    else if (origin == KAL_SEEK_END)
        target += stream->bufEnd;
    else
        return KAL_ERR_SEEK;
    if (target < stream->offset || target >= endOfMap(stream))
        return KAL_ERR_SEEK;
    stream->pos = static_cast<uint32_t>(target);
    stream->bufPtr = mapOf(stream)->view + (stream->pos - stream->bufStart);
    raiseDataEnd(stream);
    return KAL_OK;
}

int16_t KalFMClose(SFILE* stream) {
    delete reinterpret_cast<SFM*>(stream->backData);
    KalFreeSMem(stream);
    return KAL_OK;
}

int32_t KalNoFMRead(SFILE* stream, void*, uint32_t) {
    stream->status = KAL_ERR_READ;
    return 0;
}

int32_t KalNoFMGetChar(SFILE* stream) {
    return KalNoFMRead(stream, nullptr, 1);
}

int32_t KalNoFMWrite(SFILE* stream, const void*, uint32_t) {
    stream->status = KAL_ERR_WRITE;
    return 0;
}

int16_t KalNoFMPutChar(SFILE* stream, char) {
    return static_cast<int16_t>(KalNoFMWrite(stream, nullptr, 1));
}
