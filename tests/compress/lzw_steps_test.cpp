// The codec step by step, as callers with loops of their own use it, against the simple coder.
#include "tests/compress/runs.h"

namespace {

constexpr uint32_t kNever = UINT32_MAX; // that the table is cleared

TAGWRITELZW* newEncoder(uint16_t roots) {
    scfiletag* cfile = nullptr;
    if (roots == 256 && KalMakeCFile(&cfile, nullptr) == KAL_OK) { // a compressed stream's serves as well
        TAGWRITELZW* taken = std::exchange(cfile->encoder, nullptr);
        KalFreeCFile(cfile);
        return taken;
    }
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

void append(Bytes* characters, const KalLzwTableEntry* table, uint16_t code) {
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
    decoder.codeWidth = 0;
    EXPECT_EQ(KalDecodeLZW(&decoder), 0) << "codes without bits";
    EXPECT_EQ(KalDestroyReadLZW(&decoder) | KalDestroyReadLZW(&decoder), KAL_OK) << "nothing is left to free";
    EXPECT_EQ(KalDestroyReadLZW(static_cast<readlzw*>(nullptr)), KAL_OK);
    return characters;
}

// Where a caller's own loop over the second decoder begins.
void expectQuickStart(uint16_t roots) {
    readlzw_q d;
    std::memset(&d, 0xAA, sizeof d);
    EXPECT_EQ(KalInitReadLZW(&d, roots), KAL_OK);
    const int width = std::bit_width(roots + 1u), mask = (1 << width) - 1;
    EXPECT_EQ((std::vector<int>{d.clearCode, d.endCode, d.nextCode, d.firstAfterClear, d.codeWidth,
                                d.codeWidthNow, d.codeMask, d.codeMaskNow, d.bitBuffer, d.bitCount}),
              (std::vector<int>{roots, roots + 1, roots + 2, 1, width, width, mask, mask, 0, 0}));
    for (uint16_t code = 0; code < roots + 2; code++) {
        const KalLzwQuickEntry& entry = d.table[code];
        ASSERT_TRUE(entry.prefix == 0xFFFF && entry.character == uint8_t(code) &&
                    entry.firstCharacter == entry.character);
    }
    EXPECT_EQ(KalDestroyReadLZW(&d) | KalDestroyReadLZW(&d), KAL_OK);
}

} // namespace

TEST(LzwSteps, CodeAndDecodeForAnyRoots) {
    const HeapBalance balance;
    for (const uint16_t roots : Words{2, 3, 4, 5, 16, 100, 255, 256, 510, 511, 1000, 4094}) {
        expectQuickStart(roots);
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
            }
        }
    }
}

TEST(LzwSteps, RefuseWhatCannotBeHeld) {
    const HeapBalance balance;
    for (const uint16_t roots : Words{256, 4095, 0xFFFF}) {
        auto* encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
        readlzw decoder = {};
        readlzw_q quick = {};
        failHeapAllocationsFrom(roots == 256);
        EXPECT_EQ(KalInitWriteLZW(encoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&decoder, roots), KAL_ERR_BUFFER);
        EXPECT_EQ(KalInitReadLZW(&quick, roots), KAL_ERR_BUFFER);
        failHeapAllocation(0);
        EXPECT_EQ(KalDecodeLZW(&decoder) | KalDestroyWriteLZW(encoder) | KalDestroyReadLZW(&decoder) |
                      KalDestroyReadLZW(&quick) | KalDestroyWriteLZW(nullptr),
                  0);
    }
}
