#include "tests/compress/step_run.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/samples.h"
#include "tests/support/vector_stream.h"

#include <kal/cfile.h>
#include <kal/vmem.h>

#include <random>

namespace {

std::vector<Bytes> samples(size_t count) {
    return {sampleText(count, 1), samplePicture(count, 2), randomBytes(count, 3), Bytes(count, 7)};
}

SFILE* openNew(const char* name, uint32_t bufferSize, uint16_t mode = KAL_MODE_WRITE) {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, name, uint16_t(KAL_MODE_CREATE | mode), 0), 0);
    EXPECT_EQ(KalSetBuf(stream, bufferSize), 0);
    return stream;
}

// A stream in the middle of old bytes, some of which it takes for its start.
SFILE* openOld(const char* name, uint32_t bufferSize, uint16_t mode) {
    writeFile(name, randomBytes(3000, 1));
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, name, mode, 0), 0);
    EXPECT_EQ(KalSetBuf(stream, bufferSize), 0);
    KalSetOffset(stream, 100);
    EXPECT_EQ(stream->seek(stream, 300, KAL_SEEK_START), 0);
    return stream;
}

// The stream as its next user finds it.
void expectSameStream(const SFILE* stream, const SFILE* expected) {
    EXPECT_EQ(val(stream->pos), val(expected->pos));
    EXPECT_EQ(val(stream->bufStart), val(expected->bufStart));
    EXPECT_EQ(val(stream->bufEnd), val(expected->bufEnd));
    EXPECT_EQ(val(stream->dirty), val(expected->dirty));
    EXPECT_EQ(stream->status, expected->status);
    EXPECT_EQ(stream->bufPtr - stream->buf, expected->bufPtr - expected->buf);
}

void expectSameEncoder(const TAGWRITELZW* encoder, const TAGWRITELZW* expected) {
    EXPECT_EQ(encoder->codeWidth, expected->codeWidth);
    EXPECT_EQ(val(encoder->currentCode), val(expected->currentCode));
    EXPECT_EQ(val(encoder->outputCode), val(expected->outputCode));
    EXPECT_EQ(val(encoder->nextCode), val(expected->nextCode));
    EXPECT_EQ(encoder->bitCount % 8, expected->bitCount % 8);
    const int unfinished = expected->bitCount % 8;
    if (unfinished > 0) {
        EXPECT_EQ(encoder->bitBuffer >> (7 - unfinished), expected->bitBuffer >> (7 - unfinished));
    }
}

} // namespace

class RunWriting : public FolderTest {};

// The whole contract of writing: after every call the stream, its buffer and the encoder are what single puts
// of the step functions' bytes leave, and so is the file.
TEST_F(RunWriting, IsTheStepFunctionsByteForByteAtEveryReturn) {
    for (uint32_t bufferSize : {0u, 1u, 3u, 512u, 4096u})
        for (uint16_t mode : {KAL_MODE_WRITE, KAL_MODE_UPDATE})
            for (const Bytes& data : samples(bufferSize < 512 ? 12000 : 60000)) {
                SCOPED_TRACE(testing::Message()
                             << "buffer " << bufferSize << ", mode " << mode << ", kind of " << int(data[0]));
                SFILE* stream = openOld("fast", bufferSize, mode);
                SFILE* twin = openOld("steps", bufferSize, mode);
                scfiletag* cfile = makeCFile(stream);
                {
                    StepWriter steps(twin);
                    std::mt19937 random(bufferSize);
                    for (size_t at = 0; at < data.size();) {
                        const size_t piece = std::min<size_t>(
                            data.size() - at, random() % 4 == 0 ? random() % 9000 : random() % 12);
                        ASSERT_EQ(KalWriteCFile(cfile, &data[at], uint16_t(piece)), piece);
                        if (piece == 0)
                            continue;
                        steps.write(&data[at], uint16_t(piece));
                        at += piece;
                        EXPECT_EQ(cfile->status, 0);
                        EXPECT_EQ(val(cfile->runPos), steps.runPos);
                        expectSameStream(stream, twin);
                        expectSameEncoder(cfile->encoder, steps.encoder);
                        ASSERT_FALSE(HasFailure()) << "after " << at << " bytes";
                    }
                    steps.flush();
                }
                EXPECT_EQ(KalFlushCFile(cfile), 0);
                expectSameStream(stream, twin);
                KalFreeCFile(cfile);
                stream->close(stream);
                twin->close(twin);
                ASSERT_EQ(readFile("fast"), readFile("steps"));
            }
}

TEST_F(RunWriting, GoesOnWhereItStoppedAndStartsAnewWhereTheStreamWasMoved) {
    SFILE* stream = openNew("runs", 512);
    scfiletag* cfile = makeCFile(stream);
    const Bytes first = bytesOf("to be or ");
    EXPECT_EQ(KalWriteCFile(cfile, first.data(), 9), 9);
    const uint32_t stopped = stream->pos;
    stream->seek(stream, 100, KAL_SEEK_START);
    stream->seek(stream, int32_t(stopped), KAL_SEEK_START);
    EXPECT_EQ(KalWriteCFile(cfile, first.data(), 9), 9);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(val(cfile->runPos), KAL_NO_POSITION);
    const uint32_t second = stream->pos;
    EXPECT_EQ(KalWriteCFile(cfile, first.data(), 9), 9); // right behind, a run of its own
    stream->putChar(stream, '!');
    EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_RUN)
        << "somebody wrote behind the run, so it cannot be ended there";
    stream->seek(stream, int32_t(val(cfile->runPos)), KAL_SEEK_START);
    EXPECT_EQ(KalFlushCFile(cfile), 0);

    Bytes back(18);
    stream->seek(stream, 0, KAL_SEEK_START);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 18), 18);
    EXPECT_EQ(back, bytesOf("to be or to be or "));
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 1), 0) << "the run ends here";
    EXPECT_EQ(cfile->status, KAL_ERR_RUN);
    EXPECT_EQ(val(stream->pos), second) << "and the stream stands behind it";
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 18), 9) << "where the next run starts";
    // A run that was read is not one to write on with.
    stream->seek(stream, 0, KAL_SEEK_START);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 3), 3);
    const uint32_t third = stream->pos;
    EXPECT_EQ(KalWriteCFile(cfile, first.data(), 9), 9);
    KalFreeCFile(cfile);
    stream->seek(stream, int32_t(third), KAL_SEEK_START);
    cfile = makeCFile(stream);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 9), 9);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + 9), first);
    KalFreeCFile(cfile);
    stream->close(stream);
}

TEST_F(RunWriting, AFlushEndsOnlyWhatWasWrittenAndNotYetStored) {
    SFILE* stream = openNew("flush", 512);
    scfiletag* cfile = makeCFile(stream);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    const Bytes data = bytesOf("abcabcabc");
    EXPECT_EQ(KalWriteCFile(cfile, data.data(), 0), 0);
    EXPECT_EQ(val(stream->pos), 0u);
    KalWriteCFile(cfile, data.data(), 5);
    KalFlushBuf(stream);
    const uint32_t stored = stream->pos;
    EXPECT_EQ(KalFlushCFile(cfile), 0) << "nothing unwritten: the run stays open";
    EXPECT_EQ(val(stream->pos), stored);
    EXPECT_EQ(KalWriteCFile(cfile, &data[5], 4), 4);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_GT(val(stream->pos), stored);
    KalFreeCFile(cfile);

    // After reading, bytes of others make the buffer dirty; the flush must not take them for its run's.
    const uint32_t end = stream->pos;
    stream->putChar(stream, 'x');
    stream->seek(stream, 0, KAL_SEEK_START);
    cfile = makeCFile(stream);
    Bytes back(9);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 4), 4);
    EXPECT_EQ(val(stream->dirty), 1);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 9), 5);
    EXPECT_EQ(val(stream->pos), end);
    KalFreeCFile(cfile);
    EXPECT_EQ(val(stream->pos), end);
    stream->close(stream);
    EXPECT_EQ(readFile("flush").size(), end + 1);
}

// Memory and VMem streams never say `dirty`, whatever buffer they were given, and get their runs ended all the
// same, by flush and by free.
TEST_F(RunWriting, WorksOverEveryBackEnd) {
    ASSERT_EQ(KalOpenVMem(0), 0);
    const Bytes data = samplePicture(60000, 4);
    for (uint16_t mode : {uint16_t{0}, KAL_MODE_MEMORY, KAL_MODE_VMEM})
        for (bool byFree : {false, true}) {
            SFILE* stream = openNew("run", 512, uint16_t(mode | KAL_MODE_WRITE));
            stream->write(stream, data.data(), 1000);
            scfiletag* cfile = makeCFile(stream);
            EXPECT_EQ(KalWriteCFile(cfile, data.data(), 30000), 30000);
            EXPECT_EQ(KalWriteCFile(cfile, &data[30000], 30000), 30000);
            if (!byFree) {
                EXPECT_EQ(KalFlushCFile(cfile), 0);
            }
            const uint32_t flushed = stream->pos;
            KalFreeCFile(cfile);
            const uint32_t end = stream->pos;
            EXPECT_EQ(end == flushed, !byFree) << "ended once";
            cfile = makeCFile(stream);
            stream->seek(stream, 1000, KAL_SEEK_START);
            Bytes back(60000);
            EXPECT_EQ(KalReadCFile(cfile, back.data(), 60000), 60000);
            EXPECT_EQ(back, data);
            EXPECT_EQ(KalReadCFile(cfile, back.data(), 1), 0);
            EXPECT_EQ(cfile->status, KAL_ERR_RUN);
            EXPECT_EQ(val(stream->pos), end) << "mode " << mode;
            KalFreeCFile(cfile);
            stream->close(stream);
        }
    KalCloseVMem();
}

// The last byte of a call may be the one that fills the table: nothing is pending then.
TEST(RunWritingVector, GoesOnAndEndsWhereTheTableHasJustBeenCleared) {
    const Bytes data = randomBytes(9000, 5);
    VectorStream whole;
    StepWriter steps(whole.file());
    size_t filling = 0;
    while (filling < data.size() && (filling == 0 || steps.encoder->currentCode != 256))
        steps.write(&data[filling++], 1);
    ASSERT_LT(filling, data.size());
    for (size_t more : {0u, 1u, 2000u}) {
        VectorStream stream;
        scfiletag* cfile = makeCFile(stream.file());
        EXPECT_EQ(KalWriteCFile(cfile, data.data(), uint16_t(filling)), filling);
        EXPECT_EQ(val(cfile->encoder->currentCode), 256);
        EXPECT_EQ(KalWriteCFile(cfile, &data[filling], uint16_t(more)), more);
        KalFreeCFile(cfile);
        stream.rewind();
        cfile = makeCFile(stream.file());
        Bytes back(filling + more);
        EXPECT_EQ(KalReadCFile(cfile, back.data(), uint16_t(back.size())), back.size());
        EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin())) << more << " bytes after it";
        KalFreeCFile(cfile);
    }
}
