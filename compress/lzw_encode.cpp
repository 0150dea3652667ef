// The encoder step by step, over a tree of strings: what callers with a loop of their own use. The compressed
// stream writes the same codes by a faster way (stretch_encoder.h).
#include "compress/lzw_codes.h"

#include <kal/heap.h>

int16_t KalInitWriteLZW(TAGWRITELZW* encoder, uint16_t rootCount) {
    // Two colours get four roots, as in pictures with a minimum code size of 2.
    const uint16_t roots = rootCount == 2 ? 4 : rootCount;
    encoder->tree = nullptr;
    if (!fitsTable(roots))
        return KAL_ERR_BUFFER;
    encoder->tree = static_cast<KalLzwTreeEntry*>(KalAllocSMem(KAL_LZW_CODES * sizeof(KalLzwTreeEntry)));
    if (encoder->tree == nullptr)
        return KAL_ERR_BUFFER;
    encoder->nextCode = static_cast<uint16_t>(roots + 2);
    encoder->codeWidth = static_cast<uint8_t>(widthFor(encoder->nextCode));
    for (uint16_t code = 0; code < encoder->nextCode; code++)
        encoder->tree[code].character = static_cast<uint8_t>(code);
    return KAL_OK;
}

int16_t KalDestroyWriteLZW(TAGWRITELZW* encoder) {
    if (encoder == nullptr)
        return KAL_OK;
    if (encoder->tree != nullptr)
        KalFreeSMem(encoder->tree);
    KalFreeSMem(encoder);
    return KAL_OK;
}

uint16_t KalFindString(TAGWRITELZW* encoder) {
    const uint16_t prefix = encoder->currentCode;
    encoder->outputCode = prefix;
    if (prefix >= KAL_LZW_CODES)
        return 0;
    const uint8_t character = encoder->character;
    // A full table learns nothing more: its links stay empty.
    const uint16_t nextCode = encoder->nextCode < KAL_LZW_CODES ? encoder->nextCode : uint16_t{0};
    KalLzwTreeEntry* const tree = encoder->tree;

    uint16_t code = tree[prefix].firstExtension;
    if (code == 0)
        tree[prefix].firstExtension = nextCode;
    // A link to the next code is one that an earlier miss left: there is no string behind it yet.
    while (code != 0 && code != nextCode) {
        KalLzwTreeEntry& entry = tree[code];
        encoder->currentCode = code;
        if (entry.character == character)
            return 1;
        const bool lower = entry.character > character;
        code = lower ? entry.lowerSibling : entry.higherSibling;
        if (code != 0)
            continue;
        if (lower)
            entry.lowerSibling = nextCode;
        else
            entry.higherSibling = nextCode;
    }
    return 0;
}

int16_t KalAddTreeEntry(TAGWRITELZW* encoder) {
    const uint16_t code = encoder->nextCode;
    if (code >= KAL_LZW_CODES)
        return KAL_OK;
    encoder->tree[code].character = encoder->character;
    encoder->nextCode = static_cast<uint16_t>(code + 1);
    if (std::has_single_bit(code))
        encoder->codeWidth++;
    return KAL_OK;
}

int16_t KalWriteLZWCode(TAGWRITELZW* encoder, SFILE* stream) {
    uint8_t buffer = encoder->bitBuffer;
    uint16_t count = encoder->bitCount;
    for (unsigned bit = 0; bit < encoder->codeWidth; bit++) {
        buffer = static_cast<uint8_t>(buffer | (encoder->outputCode >> bit & 1) << 7);
        count++;
        if (count % 8 == 0) {
            stream->putChar(stream, static_cast<char>(buffer));
            if (stream->status != KAL_OK)
                return stream->status;
        }
        buffer >>= 1;
    }
    encoder->bitBuffer = buffer;
    encoder->bitCount = count;
    return KAL_OK;
}
