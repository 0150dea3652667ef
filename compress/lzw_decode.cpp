// The decoder step by step: a byte in, the codes that it completes out. The compressed stream reads the same
// codes by a faster way (stretch_decoder.h).
#include "compress/lzw_codes.h"
#include "platform/uncleared.h"

#include <kal/heap.h>

#include <type_traits>

namespace {

constexpr uint16_t kNoPrefix = 0xFFFF;
constexpr uint16_t kBitsOfInput = 8;

// What both decoders start with; `table` must be set.
template <class Decoder>
void setUpCodes(Decoder* decoder, uint16_t rootCount) {
    decoder->clearCode = rootCount;
    decoder->endCode = static_cast<uint16_t>(rootCount + 1);
    decoder->nextCode = static_cast<uint16_t>(rootCount + 2);
    decoder->firstAfterClear = 1;
    decoder->codeWidth = widthFor(rootCount + 2u);
    for (uint16_t code = 0; code < decoder->nextCode; code++) {
        decoder->table[code].prefix = kNoPrefix;
        decoder->table[code].character = static_cast<uint8_t>(code);
    }
}

template <class Decoder>
int16_t init(Decoder* decoder, uint16_t rootCount) {
    using Entry = std::remove_pointer_t<decltype(Decoder::table)>;
    decoder->table = nullptr;
    if (!fitsTable(rootCount))
        return KAL_ERR_BUFFER;
    decoder->table = static_cast<Entry*>(allocateUncleared(KAL_LZW_CODES * sizeof(Entry)));
    if (decoder->table == nullptr)
        return KAL_ERR_BUFFER;
    setUpCodes(decoder, rootCount);
    return KAL_OK;
}

template <class Decoder>
int16_t destroy(Decoder* decoder) {
    if (decoder != nullptr && decoder->table != nullptr) {
        KalFreeSMem(decoder->table);
        decoder->table = nullptr;
    }
    return KAL_OK;
}

uint8_t firstCharacter(const readlzw* decoder, uint16_t code) {
    // A prefix is always older than its string, so this ends.
    while (decoder->table[code].prefix != kNoPrefix)
        code = decoder->table[code].prefix;
    return decoder->table[code].character;
}

// The previous string and one more character become a string of their own, while the table has room.
void addEntry(readlzw* decoder, uint8_t character) {
    if (decoder->nextCode >= KAL_LZW_CODES)
        return;
    KalLzwTableEntry& entry = decoder->table[decoder->nextCode];
    entry.prefix = decoder->previousCode;
    entry.character = character;
    decoder->nextCode++;
}

// Takes a code that stands for a string. False for one that cannot be: above the next code, or not yet known
// when nothing came before.
bool takeString(readlzw* decoder, uint16_t code) {
    if (code > decoder->nextCode || code >= KAL_LZW_CODES)
        return false;
    const bool isNew = code == decoder->nextCode;
    if (decoder->firstAfterClear != 0) {
        if (isNew)
            return false;
        decoder->firstAfterClear = 0;
    } else {
        addEntry(decoder, firstCharacter(decoder, isNew ? decoder->previousCode : code));
    }
    decoder->previousCode = code;
    if (std::has_single_bit(decoder->nextCode) && decoder->nextCode < KAL_LZW_CODES) {
        decoder->codeWidth = static_cast<uint16_t>(std::bit_width(decoder->nextCode));
        decoder->bitCounter = 0;
    }
    return true;
}

} // namespace

int16_t KalInitReadLZW(readlzw* decoder, uint16_t rootCount) {
    decoder->rootCount = rootCount;
    return init(decoder, rootCount);
}

int16_t KalInitReadLZW(readlzw_q* decoder, uint16_t rootCount) {
    const int16_t status = init(decoder, rootCount);
    if (status != KAL_OK)
        return status;
    for (uint16_t code = 0; code < decoder->nextCode; code++)
        decoder->table[code].firstCharacter = decoder->table[code].character;
    decoder->codeWidthNow = decoder->codeWidth;
    decoder->codeMask = decoder->codeMaskNow = static_cast<uint16_t>((1u << decoder->codeWidth) - 1);
    decoder->bitBuffer = decoder->bitCount = 0;
    return KAL_OK;
}

int16_t KalDestroyReadLZW(readlzw* decoder) {
    return destroy(decoder);
}

int16_t KalDestroyReadLZW(readlzw_q* decoder) {
    return destroy(decoder);
}

uint16_t KalDecodeLZW(readlzw* decoder) {
    if (decoder->table == nullptr || decoder->codeWidth == 0)
        return 0;
    uint16_t completed = 0;
    uint16_t codeRegister = decoder->codeRegister;
    for (uint16_t bit = 0; bit < kBitsOfInput; bit++, codeRegister >>= 1) {
        codeRegister =
            static_cast<uint16_t>(codeRegister | (decoder->inputByte >> bit & 1) << (decoder->codeWidth - 1));
        decoder->bitCounter++;
        if (decoder->bitCounter % decoder->codeWidth != 0)
            continue;
        if (codeRegister == decoder->endCode) {
            completed = 0;
        } else if (codeRegister == decoder->clearCode) {
            // The same table, filled anew: nothing that could fail in the middle of a run.
            setUpCodes(decoder, decoder->rootCount);
            decoder->bitCounter = 0;
        } else if (takeString(decoder, codeRegister)) {
            decoder->codes[completed++] = codeRegister;
        }
        // Only a run without an end comes this far; the counter must not wrap in the middle of a code.
        if (decoder->bitCounter > UINT16_MAX / 2)
            decoder->bitCounter = 0;
    }
    decoder->codeRegister = codeRegister;
    return completed;
}
