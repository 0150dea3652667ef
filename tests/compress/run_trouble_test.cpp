#include "tests/compress/step_run.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/samples.h"
#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

#include <random>

TEST(RunTrouble, AFullStreamStopsWhereSinglePutsWould) {
    HeapBalance balance;
    const Bytes data = randomBytes(5000, 1); // fills the table on its way
    VectorStream roomy;
    StepWriter all(roomy.file());
    all.write(data.data(), 5000);
    // The first stretch ends, with two codes of its own, in byte 5,407.
    const auto isClose = [](size_t capacity) {
        return capacity < 40 || (capacity > 5395 && capacity < 5412);
    };
    for (size_t capacity = 0; capacity < roomy.bytes.size(); capacity += isClose(capacity) ? 1 : 7) {
        VectorStream stream;
        VectorStream twin;
        stream.capacity = twin.capacity = capacity;
        scfiletag* cfile = makeCFile(stream.file());
        StepWriter steps(twin.file());
        const uint16_t first = uint16_t(capacity / 3);
        if (first > 0) {
            ASSERT_EQ(KalWriteCFile(cfile, data.data(), first), steps.write(data.data(), first));
        }
        const uint16_t consumed = steps.write(&data[first], uint16_t(5000 - first));
        EXPECT_EQ(KalWriteCFile(cfile, &data[first], uint16_t(5000 - first)), consumed) << capacity;
        EXPECT_EQ(cfile->status, KAL_ERR_DISK_FULL);
        EXPECT_EQ(stream.bytes, twin.bytes);
        EXPECT_EQ(val(cfile->runPos), steps.runPos);
        if (capacity > 0) {
            EXPECT_EQ(cfile->encoder->bitCount % 8, steps.encoder->bitCount % 8);
            EXPECT_EQ(val(cfile->encoder->nextCode), val(steps.encoder->nextCode));
            EXPECT_EQ(val(cfile->encoder->outputCode), val(steps.encoder->outputCode));
        }
        EXPECT_NE(KalFlushCFile(cfile), KAL_ERR_DISK_FULL);
        EXPECT_EQ(stream.bytes, twin.bytes) << "a run that broke off is not ended";
        if (cfile->runPos == KAL_NO_POSITION || stream.file()->pos == cfile->runPos) {
            KalFreeCFile(cfile);
            continue;
        }
        // Nor gone on with, even by who seeks back to where it stopped.
        stream.capacity = SIZE_MAX;
        const uint32_t back = stream.file()->pos = cfile->runPos;
        EXPECT_EQ(KalWriteCFile(cfile, data.data(), 9), 9);
        KalFreeCFile(cfile);
        stream.file()->pos = back;
        cfile = makeCFile(stream.file());
        uint8_t read[9];
        EXPECT_EQ(KalReadCFile(cfile, read, 9), 9);
        EXPECT_TRUE(std::equal(read, read + 9, data.begin()));
        KalFreeCFile(cfile);
    }
}

// No byte of the refused call came through, so the caller may wait for room and go on in the same run.
TEST(RunTrouble, ACallThatPutNothingCanBeMadeAgain) {
    const Bytes data = sampleText(20000, 2);
    VectorStream stream;
    stream.capacity = 0;
    scfiletag* cfile = makeCFile(stream.file());
    EXPECT_EQ(KalWriteCFile(cfile, data.data(), 100), 0);
    std::mt19937 random(3);
    int refused = 0;
    for (size_t at = 0; at < data.size();) {
        const size_t piece = std::min<size_t>(data.size() - at, 1 + random() % 30);
        // Whether there is room for all or for nothing.
        const bool full = random() % 2 == 0;
        stream.capacity = full ? stream.bytes.size() : SIZE_MAX;
        const uint16_t consumed = KalWriteCFile(cfile, &data[at], uint16_t(piece));
        refused += consumed < piece;
        EXPECT_EQ(cfile->status, consumed < piece ? KAL_ERR_DISK_FULL : 0);
        at += consumed;
    }
    EXPECT_GT(refused, 100);
    stream.capacity = SIZE_MAX;
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    stream.rewind();
    Bytes back(data.size());
    EXPECT_EQ(KalReadCFile(cfile, back.data(), uint16_t(back.size())), back.size());
    EXPECT_EQ(back, data);
    KalFreeCFile(cfile);
}

TEST(RunTrouble, AFlushThatTheStreamRefusesSaysSo) {
    VectorStream stream;
    scfiletag* cfile = makeCFile(stream.file());
    const Bytes data = bytesOf("abcde");
    KalWriteCFile(cfile, data.data(), 5);
    const uint32_t runPos = cfile->runPos;
    stream.capacity = stream.bytes.size();
    EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_DISK_FULL);
    EXPECT_EQ(val(cfile->runPos), runPos);
    stream.capacity = SIZE_MAX;
    EXPECT_EQ(KalFlushCFile(cfile), 0) << "nothing had passed, so it can be flushed again";
    stream.rewind();
    Bytes back(6);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 6), 5);
    KalFreeCFile(cfile);
}

TEST(RunTrouble, EachFailedAllocationIsReportedAndLeaksNothing) {
    Bytes data = randomBytes(5000, 6);
    VectorStream stored;
    StepWriter steps(stored.file());
    steps.write(data.data(), 5000);
    steps.flush();
    const int met = withEachAllocationFailing([&](int n) {
        scfiletag* cfile = reinterpret_cast<scfiletag*>(&data);
        const int16_t made = KalMakeCFile(&cfile, stored.file());
        if (made != 0) {
            EXPECT_EQ(cfile, nullptr);
            EXPECT_EQ(made, n <= 4 ? KAL_ERR_MEMORY : KAL_ERR_BUFFER) << "allocation " << n;
            return;
        }
        stored.rewind();
        Bytes back(5000);
        const uint16_t got = KalReadCFile(cfile, back.data(), 5000);
        EXPECT_EQ(got, cfile->status == 0 ? 5000 : 0);
        const bool readFailed = cfile->status != 0;
        if (readFailed) {
            EXPECT_EQ(cfile->status, KAL_ERR_BUFFER);
            EXPECT_EQ(val(stored.file()->pos), 0u);
            EXPECT_EQ(KalReadCFile(cfile, back.data(), 5000), 5000) << "it is only short, not broken";
        }
        VectorStream out;
        cfile->stream = out.file();
        const uint16_t written = KalWriteCFile(cfile, data.data(), 5000);
        EXPECT_EQ(written, cfile->status == 0 ? 5000 : 0);
        if (written == 0) {
            EXPECT_EQ(cfile->status, KAL_ERR_BUFFER);
            EXPECT_TRUE(out.bytes.empty());
        }
        EXPECT_EQ(heapFaultHappened(), readFailed || written == 0);
        KalFreeCFile(cfile);
    });
    EXPECT_EQ(met, 8); // record, encoder, decoder, expansion, tree, table; strings to read, strings to write
}

TEST(RunTrouble, WithoutAStreamNothingIsReadOrWritten) {
    scfiletag* cfile = makeCFile(nullptr);
    uint8_t byte = 1;
    EXPECT_EQ(KalWriteCFile(cfile, &byte, 1), 0);
    EXPECT_EQ(cfile->status, KAL_ERR_NULL_STREAM);
    EXPECT_EQ(KalReadCFile(cfile, &byte, 1), 0);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(KalFreeCFile(cfile), 0);
    EXPECT_EQ(KalFreeCFile(nullptr), 0);
}

// Whatever lies there, a read ends, within its bounds, and says how.
TEST(RunTrouble, SurvivesDamagedRuns) {
    std::mt19937 random(11);
    const Bytes data = sampleText(20000, 3);
    VectorStream good;
    StepWriter steps(good.file());
    steps.write(data.data(), 20000);
    steps.flush();
    for (int round = 0; round < 300; round++) {
        Bytes damaged = good.bytes;
        if (round % 2 == 0)
            damaged = randomBytes(2000, uint32_t(random()));
        damaged[0] = 0;
        damaged[1] |= 1; // the clear code
        for (int flips = round % 7; flips > 0; flips--)
            damaged[1 + random() % (damaged.size() - 1)] ^= uint8_t(1u << random() % 8);
        VectorStream stream(damaged);
        scfiletag* cfile = makeCFile(stream.file());
        uint16_t asked;
        uint16_t got;
        do {
            asked = uint16_t(1 + random() % 5000);
            Bytes back(asked); // exactly as large, so that the sanitizers see a byte too many
            got = KalReadCFile(cfile, back.data(), asked);
            ASSERT_LE(got, asked);
        } while (got == asked);
        EXPECT_LT(cfile->status, 0);
        KalFreeCFile(cfile);
    }
}

class RunOnDisk : public FolderTest {};

TEST_F(RunOnDisk, AFullDiskInTheMiddleOfARunStopsItThere) {
    const Bytes data = randomBytes(60000, 1);
    for (uint32_t bufferSize : {0u, 512u, 4096u}) {
        SFILE* stream = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "run", KAL_MODE_CREATE | KAL_MODE_UPDATE, 0), 0);
        KalSetBuf(stream, bufferSize);
        scfiletag* cfile = makeCFile(stream);
        {
            FileSizeLimit limit(60000);
            EXPECT_EQ(KalWriteCFile(cfile, data.data(), 30000), 30000);
            const uint16_t consumed = KalWriteCFile(cfile, &data[30000], 30000);
            EXPECT_EQ(cfile->status, KAL_ERR_DISK_FULL);
            EXPECT_GT(consumed, 10000);
            EXPECT_LT(consumed, 30000);
            KalFreeCFile(cfile);
        }
        stream->status = 0;
        EXPECT_EQ(stream->seek(stream, 0, KAL_SEEK_START), 0);
        cfile = makeCFile(stream);
        Bytes back(30000);
        EXPECT_EQ(KalReadCFile(cfile, back.data(), 30000), 30000) << "what got through reads back";
        EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
        KalFreeCFile(cfile);
        stream->close(stream);
    }
}
