// The codec step by step.
#include "tests/compress/runs.h"

#include <kal/heap.h>

namespace {

TAGWRITELZW* newEncoder(uint16_t roots) {
    auto* encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
    EXPECT_EQ(KalInitWriteLZW(encoder, roots), 0);
    return encoder;
}

// Codes the characters, which are below `roots`; the table must not fill up. Clear code first, end code last.
Bytes encode(uint16_t roots, const Bytes& characters) {
    VectorStream stream;
    TAGWRITELZW* encoder = newEncoder(roots);
    const auto put = [&](uint16_t code) {
        encoder->outputCode = code;
        EXPECT_EQ(KalWriteLZWCode(encoder, stream.file()), 0);
    };
    put(roots);
    encoder->currentCode = characters[0];
    for (size_t at = 1; at < characters.size(); at++) {
        encoder->character = characters[at];
        if (KalFindString(encoder) != 0)
            continue;
        put(encoder->outputCode);
        KalAddTreeEntry(encoder);
        encoder->currentCode = characters[at];
    }
    put(encoder->currentCode);
    put(uint16_t(roots + 1));
    encoder->codeWidth = 7;
    put(0);
    EXPECT_EQ(KalDestroyWriteLZW(encoder), 0);
    return stream.bytes;
}

Bytes decode(uint16_t roots, const Bytes& coded) {
    readlzw decoder = {};
    EXPECT_EQ(KalInitReadLZW(&decoder, roots), 0);
    Bytes characters;
    for (uint8_t byte : coded) {
        decoder.inputByte = byte;
        const uint16_t completed = KalDecodeLZW(&decoder);
        EXPECT_LE(completed, 4);
        for (uint16_t k = 0; k < completed; k++) {
            Bytes string;
            for (uint16_t code = decoder.codes[k]; code != 0xFFFF; code = decoder.table[code].prefix)
                string.insert(string.begin(), decoder.table[code].character);
            characters.insert(characters.end(), string.begin(), string.end());
        }
    }
    KalDestroyReadLZW(&decoder);
    return characters;
}

} // namespace

TEST(LzwSteps, StartWithTheNumbersOfTheirRoots) {
    HeapBalance balance;
    static const struct {
        uint16_t roots, encoderNext, encoderWidth, decoderNext, decoderWidth;
    } cases[] = {{2, 6, 3, 4, 2},       {4, 6, 3, 6, 3},           {16, 18, 5, 18, 5},
                 {256, 258, 9, 258, 9}, {510, 512, 9, 512, 9},     {511, 513, 10, 513, 10},
                 {0, 2, 1, 2, 1},       {4094, 4096, 12, 4096, 12}};
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.roots);
        TAGWRITELZW* encoder = newEncoder(expected.roots);
        EXPECT_EQ(val(encoder->nextCode), expected.encoderNext);
        EXPECT_EQ(encoder->codeWidth, expected.encoderWidth);
        EXPECT_EQ(encoder->tree[expected.encoderNext - 1].character, uint8_t(expected.encoderNext - 1));
        KalDestroyWriteLZW(encoder);

        readlzw decoder = {};
        readlzw_q quick = {};
        EXPECT_EQ(KalInitReadLZW(&decoder, expected.roots), 0);
        EXPECT_EQ(KalInitReadLZW(&quick, expected.roots), 0);
        EXPECT_EQ(val(decoder.rootCount), expected.roots);
        EXPECT_EQ(val(quick.codeMask), (1 << expected.decoderWidth) - 1);
        EXPECT_EQ(val(quick.codeMaskNow), val(quick.codeMask));
        EXPECT_EQ(val(quick.codeWidthNow), expected.decoderWidth);
        const auto sameIn = [&](const auto& state) {
            EXPECT_EQ(val(state.clearCode), expected.roots);
            EXPECT_EQ(val(state.endCode), expected.roots + 1);
            EXPECT_EQ(val(state.nextCode), expected.decoderNext);
            EXPECT_EQ(val(state.codeWidth), expected.decoderWidth);
            EXPECT_EQ(val(state.firstAfterClear), 1);
            EXPECT_EQ(val(state.table[expected.decoderNext - 1].prefix), 0xFFFF);
        };
        sameIn(decoder);
        sameIn(quick);
        EXPECT_EQ(quick.table[expected.decoderNext - 1].firstCharacter, uint8_t(expected.decoderNext - 1));
        KalDestroyReadLZW(&decoder);
        KalDestroyReadLZW(&quick);
        EXPECT_EQ(KalDestroyReadLZW(&quick), 0) << "a second time there is nothing to free";
    }
}

TEST(LzwSteps, RefuseWhatCannotBeHeld) {
    HeapBalance balance;
    const auto refused = [](uint16_t roots, int64_t fault) {
        auto* encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
        readlzw decoder = {};
        readlzw_q quick = {};
        failHeapAllocationsFrom(fault);
        EXPECT_EQ(KalInitWriteLZW(encoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&decoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&quick, roots), KAL_ERR_BUFFER);
        failHeapAllocation(0);
        decoder.inputByte = 0x55;
        EXPECT_EQ(KalDecodeLZW(&decoder), 0);
        EXPECT_EQ(KalDestroyWriteLZW(encoder), 0);
        EXPECT_EQ(KalDestroyReadLZW(&decoder), 0);
        EXPECT_EQ(KalDestroyReadLZW(&quick), 0);
    };
    refused(256, 1);
    refused(4095, 0);
    refused(0xFFFF, 0);
    EXPECT_EQ(KalDestroyWriteLZW(nullptr), 0);
}

TEST(LzwSteps, DecodeWhatWasEncodedForAnyRoots) {
    for (const uint16_t roots : std::initializer_list<uint16_t>{3, 4, 5, 16, 100, 255, 256, 1000}) {
        for (uint32_t distinct : {1u, 2u, 7u, 256u}) {
            Bytes characters = randomBytes(3000, roots * 31 + distinct);
            for (auto& character : characters)
                character = uint8_t(character % std::min<uint32_t>(distinct, roots));
            Bytes back = decode(roots, encode(roots, characters));
            ASSERT_GE(back.size(), characters.size());
            back.resize(characters.size()); // narrow codes may find zeros behind the end code
            EXPECT_EQ(back, characters) << roots << " roots, " << distinct << " characters";
            if (roots == 256) {
                const Bytes run = runOf(characters).bytes, steps = encode(roots, characters);
                EXPECT_TRUE(std::equal(run.begin(), run.end(), steps.begin())) << distinct << " characters";
            }
        }
    }
}

TEST(LzwSteps, AFullTableLearnsNothingMore) {
    TAGWRITELZW* encoder = newEncoder(4094);
    EXPECT_EQ(val(encoder->nextCode), 4096);
    for (int k = 0; k < 10; k++) {
        encoder->currentCode = uint16_t(4093 - k % 2);
        encoder->character = uint8_t(k % 3);
        EXPECT_EQ(KalFindString(encoder), 0);
        EXPECT_EQ(KalAddTreeEntry(encoder), 0);
    }
    EXPECT_EQ(val(encoder->nextCode), 4096);
    EXPECT_EQ(encoder->codeWidth, 12);
    KalDestroyWriteLZW(encoder);

    encoder = newEncoder(256); // a miss that nobody followed up must not tie the tree into a knot
    for (const uint8_t character : Bytes{9, 9, 200, 9, 1})
        for (int again = 0; again < 2; again++) {
            encoder->currentCode = 7;
            encoder->character = character;
            EXPECT_EQ(KalFindString(encoder), 0);
        }
    KalDestroyWriteLZW(encoder);
}

TEST(LzwSteps, ACodeThatTheStreamRefusesLeavesTheBitsAsTheyWere) {
    VectorStream stream;
    stream.capacity = 1;
    TAGWRITELZW* encoder = newEncoder(256);
    encoder->outputCode = 0x1FF;
    EXPECT_EQ(KalWriteLZWCode(encoder, stream.file()), 0);
    const uint8_t buffer = encoder->bitBuffer;
    EXPECT_EQ(KalWriteLZWCode(encoder, stream.file()), KAL_ERR_DISK_FULL);
    EXPECT_EQ(encoder->bitBuffer, buffer);
    EXPECT_EQ(val(encoder->bitCount), 9);
    stream.capacity = 9;
    EXPECT_EQ(KalWriteLZWCode(encoder, stream.file()), 0);
    EXPECT_EQ(stream.bytes, (Bytes{0xFF, 0xFF}));
    KalDestroyWriteLZW(encoder);
}

TEST(LzwSteps, SurviveAnyInput) {
    for (const uint16_t roots : std::initializer_list<uint16_t>{0, 1, 2, 3, 4, 16, 256, 4094}) {
        readlzw decoder = {};
        KalInitReadLZW(&decoder, roots);
        for (uint8_t byte : randomBytes(100000, roots)) {
            decoder.inputByte = byte;
            for (uint16_t k = KalDecodeLZW(&decoder); k-- > 0;) {
                ASSERT_LT(decoder.codes[k], KAL_LZW_CODES);
                int length = 0;
                for (uint16_t code = decoder.codes[k]; code != 0xFFFF; code = decoder.table[code].prefix)
                    ASSERT_LT(length++, KAL_LZW_CODES);
            }
        }
        KalDestroyReadLZW(&decoder);
    }
}
