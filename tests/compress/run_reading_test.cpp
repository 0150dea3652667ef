#include "tests/compress/step_run.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/samples.h"
#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

#include <random>

namespace {

Bytes runOf(const Bytes& data) {
    VectorStream stream;
    StepWriter steps(stream.file());
    for (size_t at = 0; at < data.size(); at += 50000)
        steps.write(&data[at], uint16_t(std::min<size_t>(50000, data.size() - at)));
    steps.flush();
    return stream.bytes;
}

void expectSameDecoder(const readlzw* decoder, const readlzw& expected) {
    EXPECT_EQ(val(decoder->nextCode), val(expected.nextCode));
    EXPECT_EQ(val(decoder->previousCode), val(expected.previousCode));
    EXPECT_EQ(val(decoder->codeWidth), val(expected.codeWidth));
    EXPECT_EQ(val(decoder->bitCounter), val(expected.bitCounter));
    EXPECT_EQ(val(decoder->firstAfterClear), val(expected.firstAfterClear));
    const int missing = expected.codeWidth - 1 - expected.bitCounter % expected.codeWidth;
    EXPECT_EQ(decoder->codeRegister >> missing, expected.codeRegister >> missing);
}

} // namespace

class RunReading : public FolderTest {
protected:
    // Two streams over the same bytes, one read by the compressed stream and one by the step functions, in
    // the same random pieces until either comes short: equal at every return.
    void expectSameReading(uint32_t bufferSize, const Bytes& stored, uint32_t start, uint32_t seed) {
        writeFile("run", stored);
        SFILE* stream = nullptr;
        SFILE* twin = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "run", 0, 0), 0);
        ASSERT_EQ(KalOpenFile(&twin, "run", 0, 0), 0);
        for (SFILE* each : {stream, twin}) {
            KalSetBuf(each, bufferSize);
            each->seek(each, int32_t(start), KAL_SEEK_START);
        }
        scfiletag* cfile = makeCFile(stream);
        {
            StepReader steps(twin);
            std::mt19937 random(seed);
            Bytes got(70000), expected(70000);
            for (size_t total = 0; steps.status == 0;) {
                const auto piece = uint16_t(random() % 3 == 0   ? 1 + random() % 3
                                            : random() % 3 == 0 ? random() % 65536
                                                                : random() % 400);
                const uint16_t count = steps.read(expected.data(), piece);
                ASSERT_EQ(KalReadCFile(cfile, got.data(), piece), count);
                ASSERT_TRUE(std::equal(got.begin(), got.begin() + count, expected.begin()));
                total += count;
                EXPECT_EQ(cfile->status, steps.status);
                EXPECT_EQ(val(cfile->runPos), steps.runPos);
                EXPECT_EQ(val(stream->pos), val(twin->pos));
                EXPECT_EQ(val(stream->bufEnd), val(twin->bufEnd));
                ASSERT_EQ(val(cfile->pending), steps.pending.size());
                EXPECT_EQ(Bytes(cfile->expansion, cfile->expansion + cfile->pending), steps.pending);
                if (steps.runPos != KAL_NO_POSITION)
                    expectSameDecoder(cfile->decoder, steps.decoder);
                ASSERT_FALSE(HasFailure()) << "after " << total << " bytes";
            }
        }
        KalFreeCFile(cfile);
        stream->close(stream);
        twin->close(twin);
    }
};

TEST_F(RunReading, IsTheStepFunctionsAtEveryReturnUntilTheStreamEnds) {
    for (const Bytes& data :
         {sampleText(70000, 1), samplePicture(40000, 2), randomBytes(30000, 3), Bytes(300000, 7)}) {
        Bytes stored = randomBytes(777, 9);
        const Bytes run = runOf(data);
        // Cut before the end code, so that the stream's end is what stops both.
        stored.insert(stored.end(), run.begin(), run.end() - 4);
        for (uint32_t bufferSize : {0u, 1u, 3u, 512u, 4096u}) {
            SCOPED_TRACE(testing::Message() << "buffer " << bufferSize << ", kind of " << int(data[0]));
            expectSameReading(bufferSize, stored, 777, bufferSize);
        }
    }
}

TEST_F(RunReading, IsTheStepFunctionsWhereverTheRunIsCut) {
    const Bytes run = runOf(sampleText(300, 5));
    for (size_t length = 0; length + 4 < run.size(); length++)
        expectSameReading(uint32_t(length % 5 * 100), Bytes(run.begin(), run.begin() + ptrdiff_t(length)), 0,
                          1);
}

TEST(RunReadingVector, AReadThatMetTheEndAtOnceGoesOnWhenThereIsMore) {
    const Bytes data = sampleText(500, 8);
    const Bytes run = runOf(data);
    VectorStream stream(run);
    scfiletag* cfile = makeCFile(stream.file());
    Bytes back(data.size());
    for (size_t at = 0; at < data.size(); at++) {
        if (val(cfile->pending) == 0 && at > 0) {
            stream.bytes.resize(stream.file()->pos);
            EXPECT_EQ(KalReadCFile(cfile, &back[at], 1), 0);
            EXPECT_EQ(cfile->status, KAL_ERR_END);
            EXPECT_EQ(val(cfile->runPos), val(stream.file()->pos));
            stream.bytes = run;
        }
        ASSERT_EQ(KalReadCFile(cfile, &back[at], 1), 1);
    }
    EXPECT_EQ(back, data);
    KalFreeCFile(cfile);
}

TEST(RunReadingVector, RefusesWhatIsNoRun) {
    static const struct {
        Bytes stored;
        uint16_t delivered;
        int16_t status;
        uint32_t pos;
    } cases[] = {
        {{}, 0, KAL_ERR_END, 0},
        {{0x00}, 0, KAL_ERR_END, 1},
        {{0x01, 0x01, 0, 0}, 0, KAL_ERR_RUN, 2},          // starts with the end code
        {{0x41, 0x00, 0, 0}, 0, KAL_ERR_RUN, 2},          // with a character
        {{0x00, 0x00, 0, 0}, 0, KAL_ERR_RUN, 2},          // with a 0
        {{0xFF, 0xFF, 0, 0}, 0, KAL_ERR_RUN, 2},          // with a code that nobody knows
        {{0x00, 0x03, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},    // clear, end
        {{0x00, 0x05, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},    // clear, 258
        {{0x00, 0x83, 0x0C, 0x04, 0}, 1, KAL_ERR_RUN, 4}, // clear, 'A', 259
    };
    for (const auto& expected : cases) {
        VectorStream stream(expected.stored);
        scfiletag* cfile = makeCFile(stream.file());
        Bytes back(100);
        EXPECT_EQ(KalReadCFile(cfile, back.data(), 100), expected.delivered);
        EXPECT_EQ(cfile->status, expected.status);
        EXPECT_EQ(val(stream.file()->pos), expected.pos);
        EXPECT_EQ(val(cfile->runPos), KAL_NO_POSITION);
        EXPECT_EQ(KalFlushCFile(cfile), 0);
        KalFreeCFile(cfile);
    }
}

// Other writers let the table fill up and go on with 12 bits, or clear when they like.
TEST(RunReadingVector, ReadsRunsThatClearLateOrOften) {
    const auto put = [](TAGWRITELZW* encoder, SFILE* stream, uint16_t code) {
        encoder->outputCode = code;
        KalWriteLZWCode(encoder, stream);
    };
    for (int clearEvery : {1, 2, 300, 100000}) {
        VectorStream stream;
        TAGWRITELZW encoder = {};
        encoder.codeWidth = 9;
        Bytes expected;
        put(&encoder, stream.file(), 256);
        const Bytes data = randomBytes(6000, 4);
        int sinceClear = 0;
        for (uint8_t byte : data) {
            put(&encoder, stream.file(), byte); // single characters only, so that the codes need no table
            sinceClear++;
            // The reader's next code is 257 + sinceClear.
            while (encoder.codeWidth < 12 && 257 + sinceClear >= 1 << encoder.codeWidth)
                encoder.codeWidth++;
            if (sinceClear == clearEvery) {
                put(&encoder, stream.file(), 256);
                encoder.codeWidth = 9;
                sinceClear = 0;
            }
        }
        put(&encoder, stream.file(), 257);
        put(&encoder, stream.file(), 0);
        stream.rewind();
        scfiletag* cfile = makeCFile(stream.file());
        Bytes back(7000);
        EXPECT_EQ(KalReadCFile(cfile, back.data(), 7000), 6000) << "cleared every " << clearEvery;
        back.resize(6000);
        EXPECT_EQ(back, data);
        KalFreeCFile(cfile);
    }
}
