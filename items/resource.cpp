// Resource files.
#include <kal/resource.h>

#include <kal/heap.h>

#include <cstring>

namespace {

// What differs between the readers of raw resources.
struct RawReader {
    int16_t noMemory; // status
    bool wantsBytes;  // an empty read is a failure
};

constexpr RawReader kBytes = {KAL_ERR_MEMORY, false};
constexpr RawReader kWords = {KAL_ERR_MEMORY, true};
constexpr RawReader kSmallBytes = {KAL_ERR_BUFFER, false};
constexpr RawReader kSmallWords = {KAL_ERR_BUFFER, true};

// A resource's size is a 16-bit number, in the same place of both forms of the index. -1 when there is none.
int32_t sizeOf(IFILE* file, uint16_t id) {
    const ItemIndex* entry = id != KAL_ITEM_FREE ? KalFindItem(file, id) : nullptr;
    return entry != nullptr ? entry->narrow.size : -1;
}

int16_t readRaw(IFILE* file, uint16_t id, const RawReader& reader, void** out) {
    const int32_t size = sizeOf(file, id);
    if (size < 0)
        return KAL_ERR_RESOURCE;
    *out = KalAllocSMem(static_cast<uint32_t>(size));
    if (*out == nullptr)
        return reader.noMemory;
    const uint32_t got = KalReadIFile(file, *out, static_cast<uint32_t>(size), id);
    return reader.wantsBytes && got == 0 ? int16_t(KAL_ERR_READ) : file->stream->status;
}

int16_t readOfType(IFILE* file, uint16_t id, uint16_t type, const RawReader (&readers)[2], void** out) {
    return type <= KAL_RES_WORDS ? readRaw(file, id, readers[type], out) : int16_t(KAL_ERR_RESOURCE_TYPE);
}

// Goes through the strings of text[0, size), behind which stands one more 0: the first, whatever it is, and
// then all up to an empty one or the end. Stores where each starts, unless `starts` is null. Their number.
uint32_t walkStrings(char* text, uint32_t size, char** starts) {
    uint32_t count = 0;
    char* const end = text + size;
    char* string = text;
    do {
        if (starts != nullptr)
            starts[count] = string;
        count++;
        string += std::strlen(string) + 1;
    } while (string < end && *string != 0);
    return count;
}

int16_t readText(IFILE* file, uint16_t id, char*** out) {
    const int32_t size = sizeOf(file, id);
    if (size < 0)
        return KAL_ERR_RESOURCE;
    const auto byteCount = static_cast<uint32_t>(size);
    auto* text = static_cast<char*>(KalAllocSMem(byteCount + 1)); // an item may lack its last 0
    if (text == nullptr)
        return KAL_ERR_MEMORY;
    KalReadIFile(file, text, byteCount, id);
    const uint32_t count = walkStrings(text, byteCount, nullptr);
    auto** strings = static_cast<char**>(KalAllocSMem(count * uint32_t(sizeof(char*))));
    if (strings == nullptr) {
        KalFreeSMem(text);
        return KAL_ERR_MEMORY;
    }
    walkStrings(text, byteCount, strings);
    *out = strings;
    return KAL_OK;
}

int16_t freeText(char** strings) {
    const int16_t status = KalFreeSMem(strings != nullptr ? strings[0] : nullptr);
    return status != KAL_OK ? status : KalFreeSMem(strings);
}

} // namespace

int16_t KalOpenRes(IFILE** out, const char* name, uint16_t format) {
    return KalOpenIFile(out, name, KAL_MODE_SEARCH, format);
}

int16_t KalCloseRes(IFILE* file) {
    return KalCloseIFile(file);
}

int16_t KalGetRes(IFILE* file, uint16_t id, uint16_t type, void** out) {
    return readOfType(file, id, type, {kBytes, kWords}, out);
}

int16_t KalGetSRes(IFILE* file, uint16_t id, uint16_t type, void** out) {
    return readOfType(file, id, type, {kSmallBytes, kSmallWords}, out);
}

int16_t KalReadByteResData(IFILE* file, uint16_t id, void** out) {
    return readRaw(file, id, kBytes, out);
}

int16_t KalReadWordResData(IFILE* file, uint16_t id, void** out) {
    return readRaw(file, id, kWords, out);
}

int16_t KalReadSByteResData(IFILE* file, uint16_t id, void** out) {
    return readRaw(file, id, kSmallBytes, out);
}

int16_t KalReadSWordResData(IFILE* file, uint16_t id, void** out) {
    return readRaw(file, id, kSmallWords, out);
}

int16_t KalGetTextResData(IFILE* file, uint16_t id, char*** out) {
    return readText(file, id, out);
}

int16_t KalGetSTextResData(IFILE* file, uint16_t id, char*** out) {
    return readText(file, id, out);
}

int16_t KalDestroyRes(void* data) {
    return KalFreeSMem(data);
}

int16_t KalDestroySRes(void* data) {
    return KalFreeSMem(data);
}

int16_t KalDestroyTextRes(char** strings) {
    return freeText(strings);
}

int16_t KalDestroyTextSRes(char** strings) {
    return freeText(strings);
}
