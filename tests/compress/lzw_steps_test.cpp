// The codec step by step, as callers with loops of their own use it, against the simple coder.
#include "tests/compress/runs.h"

#include <kal/heap.h>

#include <cstring>

namespace {

constexpr uint32_t kNever = UINT32_MAX; // that the table is cleared

TAGWRITELZW* newEncoder(uint16_t roots) {
    auto* encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
    EXPECT_EQ(KalInitWriteLZW(encoder, roots), KAL_OK);
    return encoder;
}

Bytes encode(uint16_t roots, const Bytes& characters) {
    VectorStream stream;
    TAGWRITELZW* encoder = newEncoder(roots);
    const auto put = [&](uint16_t code) {
        encoder->outputCode = code;
        stream.capacity = stream.bytes.size(); // a code that is refused leaves the bits as they were
        if (KalWriteLZWCode(encoder, stream.file()) == KAL_OK)
            return;
        stream.capacity = SIZE_MAX;
        EXPECT_EQ(val(stream.file()->status), KAL_ERR_DISK_FULL);
        EXPECT_EQ(KalWriteLZWCode(encoder, stream.file()), KAL_OK);
    };
    put(uint16_t(encoder->nextCode - 2));
    const auto endCode = uint16_t(encoder->nextCode - 1);
    encoder->currentCode = characters[0];
    for (size_t at = 1; at < characters.size(); at++) {
        encoder->character = characters[at];
        const uint16_t string = encoder->currentCode;
        if (KalFindString(encoder) != 0)
            continue;
        EXPECT_EQ(encoder->outputCode, string);
        encoder->currentCode = string; // a miss that nobody follows up ties no knot into the tree
        EXPECT_EQ(KalFindString(encoder), 0);
        put(string);
        EXPECT_EQ(KalAddTreeEntry(encoder), KAL_OK);
        encoder->currentCode = characters[at];
    }
    put(encoder->currentCode);
    put(endCode);
    encoder->codeWidth = 7;
    put(0);
    encoder->currentCode = KAL_LZW_CODES; // no code
    EXPECT_EQ(KalFindString(encoder), 0);
    EXPECT_EQ(KalDestroyWriteLZW(encoder), KAL_OK);
    return stream.bytes;
}

template <class Entry>
void append(Bytes* characters, const Entry* table, uint16_t code) {
    const auto start = long(characters->size());
    for (int length = 0; code != 0xFFFF; code = table[code].prefix) {
        ASSERT_TRUE(code < KAL_LZW_CODES && length++ < KAL_LZW_CODES);
        characters->push_back(table[code].character);
    }
    std::reverse(characters->begin() + start, characters->end());
}

Bytes decode(uint16_t roots, const Bytes& coded) {
    readlzw decoder = {};
    EXPECT_EQ(KalInitReadLZW(&decoder, roots), KAL_OK);
    Bytes characters;
    for (const uint8_t byte : coded) {
        decoder.inputByte = byte;
        for (uint16_t k = 0, completed = KalDecodeLZW(&decoder); k < completed; k++)
            append(&characters, decoder.table, decoder.codes[k]);
    }
    EXPECT_EQ(KalDestroyReadLZW(&decoder) | KalDestroyReadLZW(&decoder), KAL_OK) << "nothing is left to free";
    return characters;
}

// A caller's own loop over the second decoder.
Bytes decodeQuickly(uint16_t roots, const SimpleRun& run) {
    readlzw_q d;
    std::memset(&d, 0xAA, sizeof d);
    EXPECT_EQ(KalInitReadLZW(&d, roots), KAL_OK);
    EXPECT_EQ(d.bitBuffer | d.bitCount, 0);
    Bytes characters;
    uint16_t previous = 0;
    for (size_t bit = 0; bit < run.bits;) {
        uint16_t code = 0;
        for (uint16_t mask = 1; (mask & d.codeMaskNow) != 0; mask = uint16_t(mask << 1), bit++)
            code = uint16_t(code | ((run.bytes[bit / 8] >> bit % 8 & 1) != 0 ? mask : 0));
        if (code == d.clearCode) {
            d.nextCode = uint16_t(d.endCode + 1);
            d.codeWidthNow = d.codeWidth;
            d.codeMaskNow = d.codeMask;
            d.firstAfterClear = 1;
        } else if (code != d.endCode) {
            if (d.firstAfterClear == 0 && d.nextCode < KAL_LZW_CODES) {
                const uint8_t first = d.table[previous].firstCharacter;
                d.table[d.nextCode] = {previous, first, first}; // it may be the code itself
                d.table[d.nextCode++].character = d.table[code].firstCharacter;
            }
            d.firstAfterClear = 0;
            if (d.nextCode == 1u << d.codeWidthNow && d.nextCode < KAL_LZW_CODES)
                d.codeMaskNow = uint16_t((1u << ++d.codeWidthNow) - 1);
            append(&characters, d.table, previous = code);
        }
    }
    EXPECT_EQ(KalDestroyReadLZW(&d) | KalDestroyReadLZW(&d), KAL_OK);
    return characters;
}

} // namespace

TEST(LzwSteps, CodeAndDecodeForAnyRoots) {
    const HeapBalance balance;
    for (const uint16_t roots : Words{2, 3, 4, 5, 16, 100, 255, 256, 510, 511, 1000, 4094})
        for (const uint32_t distinct : {1u, 2u, 7u, 256u}) {
            SCOPED_TRACE(::testing::Message() << roots << " roots, " << distinct << " characters");
            Bytes characters = randomBytes(4500, roots * 31 + distinct);
            for (auto& character : characters)
                character = uint8_t(character % std::min<uint32_t>(distinct, roots));
            EXPECT_EQ(encode(roots, characters), runOf(characters, kNever, roots == 2 ? 4 : roots).bytes);
            for (const uint32_t lastCode :
                 {kNever, 4093u, roots + 9u}) { // no width changes between two codes
                const SimpleRun run = runOf(characters, lastCode, roots);
                size_t kept = 0; // the end code's byte gives nothing but what zeros behind it may
                for (const auto& [bit, bytes] : run.codes)
                    kept = (bit - 1) / 8 < (run.bits - 1) / 8 ? bytes : kept;
                const Bytes back = decode(roots, run.bytes);
                ASSERT_TRUE(back.size() >= kept && back.size() <= kept + 4);
                EXPECT_TRUE(std::equal(back.begin(), back.begin() + long(kept), characters.begin()));
                EXPECT_TRUE(decodeQuickly(roots, run) == characters);
            }
        }
}

TEST(LzwSteps, RefuseWhatCannotBeHeld) {
    const HeapBalance balance;
    for (const auto& [roots, fault] : {std::pair<uint16_t, int>{256, 1}, {4095, 0}, {0xFFFF, 0}}) {
        auto* encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
        std::memset(encoder, 0xAA, sizeof *encoder);
        readlzw decoder = {};
        readlzw_q quick = {};
        failHeapAllocationsFrom(fault);
        EXPECT_EQ(KalInitWriteLZW(encoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&decoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&quick, roots), KAL_ERR_BUFFER);
        failHeapAllocation(0);
        EXPECT_EQ(KalDecodeLZW(&decoder), 0);
        EXPECT_EQ(KalDestroyWriteLZW(encoder) | KalDestroyReadLZW(&decoder) | KalDestroyReadLZW(&quick),
                  KAL_OK);
    }
    EXPECT_EQ(KalDestroyWriteLZW(nullptr), KAL_OK);
}

TEST(LzwSteps, SurviveAnyInput) {
    for (const uint16_t roots : Words{0, 1, 2, 3, 4, 16, 256, 4094})
        decode(roots, randomBytes(50'000, roots));
}
