// Compressed streams against the simple coder: every byte of every run, over every back-end, and what trouble leaves.
#include "tests/compress/runs.h"

#include <kal/vmem.h>

namespace {

struct Place {
    const char* name;
    uint16_t mode;
    uint32_t bufferSize;
};

class RunModel : public FolderTest, public ::testing::WithParamInterface<Place> {
protected:
    RunModel() { EXPECT_EQ(KalOpenVMem(0), 0); }
    ~RunModel() override { EXPECT_EQ(KalCloseVMem(), 0); }
    HeapBalance balance_; // from before the manager to behind it
};

Bytes sample(std::mt19937& random, size_t count) {
    const auto seed = uint32_t(random());
    return seed % 4 == 0   ? sampleText(count, seed)
           : seed % 4 == 1 ? samplePicture(count, seed)
           : seed % 4 == 2 ? randomBytes(count, seed)
                           : Bytes(count, uint8_t(seed >> 8));
}

uint16_t read(scfiletag* cfile, Bytes& to, size_t count) {
    to.resize(count);
    const uint16_t got = KalReadCFile(cfile, to.data(), uint16_t(count));
    to.resize(got);
    return got;
}

} // namespace

TEST_P(RunModel, WritesTheSimpleCodersBytesAndReadsThem) {
    for (uint32_t seed = firstSeed(), end = seed + 6; seed != end; seed++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 random(seed);
        SFILE* stream = nullptr;
        ASSERT_EQ(KalOpenFile(&stream, "f", uint16_t(KAL_MODE_CREATE | KAL_MODE_UPDATE | GetParam().mode), 0),
                  0);
        KalSetBuf(stream, GetParam().bufferSize);
        stream->write(stream, "before", 6);
        if (GetParam().mode == 0)
            KalSetOffset(stream, 6);
        Bytes expected = bytesOf("before");
        std::vector<std::pair<size_t, Bytes>> runs; // where each starts, and its data
        scfiletag* cfile = makeCFile(stream);
        for (int round = 0; round < 4; round++) {
            const Bytes data = sample(random, round == 0 ? random() % 40 + 1 : 500 + random() % 20000);
            runs.emplace_back(expected.size(), data);
            for (size_t at = 0; at < data.size();) {
                const size_t piece =
                    std::min<size_t>(data.size() - at, random() % 5 == 0 ? random() % 9000 : random() % 12);
                ASSERT_EQ(KalWriteCFile(cfile, &data[at], uint16_t(piece)), piece);
                ASSERT_EQ(cfile->status, 0);
                at += piece;
                if (random() % 16 == 0)
                    KalFlushBuf(stream);
            }
            const SimpleRun run = runOf(data);
            expected.insert(expected.end(), run.bytes.begin(), run.bytes.end());
            EXPECT_EQ(KalFlushCFile(cfile), 0);
            if (cfile->runPos != KAL_NO_POSITION ||
                random() % 2 == 0) { // nothing unwritten: only freeing ends it
                EXPECT_EQ(KalFreeCFile(cfile), 0);
                cfile = makeCFile(stream);
            }
            ASSERT_EQ(val(stream->pos), expected.size());
            if (round % 2 == 0) {
                stream->write(stream, "between", 7);
                const Bytes between = bytesOf("between");
                expected.insert(expected.end(), between.begin(), between.end());
            }
        }
        for (int times = 0; times < 6; times++) {
            const auto& [start, data] = runs[random() % runs.size()];
            ASSERT_EQ(stream->seek(stream, int32_t(start - stream->offset), KAL_SEEK_START), 0);
            Bytes back, part;
            while (read(cfile, part, random() % 5 == 0 ? 65535 : random() % 400) > 0 || cfile->status == 0) {
                back.insert(back.end(), part.begin(), part.end());
                if (cfile->status == 0 && random() % 30 == 0) { // the same place again goes on
                    const uint32_t pos = stream->pos - stream->offset;
                    stream->seek(stream, 0, KAL_SEEK_START);
                    stream->seek(stream, int32_t(pos), KAL_SEEK_START);
                }
                if (cfile->status != 0)
                    break;
            }
            EXPECT_EQ(cfile->status, KAL_ERR_RUN) << "the run is over";
            EXPECT_EQ(val(stream->pos), start + runOf(data).bytes.size());
            ASSERT_EQ(back, data);
            EXPECT_EQ(KalFlushCFile(cfile), 0) << "nothing to end after reading";
        }
        KalFreeCFile(cfile);
        Bytes all(expected.size() + 1);
        KalSetOffset(stream, 0);
        stream->seek(stream, 0, KAL_SEEK_START);
        all.resize(size_t(stream->read(stream, all.data(), uint32_t(all.size()))));
        EXPECT_TRUE(all == expected);
        EXPECT_EQ(stream->close(stream), 0);
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Places, RunModel,
                         ::testing::Values(Place{"Unbuffered", 0, 0}, Place{"Buffer1", 0, 1},
                                           Place{"Buffer3", 0, 3}, Place{"Buffer512", 0, 512},
                                           Place{"Buffer4096", 0, 4096},
                                           Place{"Memory", KAL_MODE_MEMORY, 512},
                                           Place{"VMem", KAL_MODE_VMEM, 0}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(Run, MovedStreamsStartAnewAndCannotBeEndedElsewhere) {
    VectorStream stream;
    scfiletag* cfile = makeCFile(stream.file());
    const Bytes data = bytesOf("to be or not");
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(KalWriteCFile(cfile, data.data(), 0), 0);
    EXPECT_TRUE(stream.bytes.empty());
    KalWriteCFile(cfile, data.data(), 12);
    stream.file()->putChar(stream.file(), '!');
    EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_RUN) << "somebody wrote behind the run";
    const uint32_t second = stream.file()->pos;
    KalWriteCFile(cfile, data.data(), 12);
    stream.file()->pos = cfile->runPos;
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(Bytes(stream.bytes.begin() + second, stream.bytes.end()), runOf(data).bytes);
    stream.file()->pos = second;
    Bytes back;
    EXPECT_EQ(read(cfile, back, 3), 3); // a run that was read is not one to write on with
    const uint32_t third = stream.file()->pos;
    KalWriteCFile(cfile, data.data(), 12);
    KalFreeCFile(cfile);
    EXPECT_EQ(Bytes(stream.bytes.begin() + third, stream.bytes.end()), runOf(data).bytes);
}

TEST(Run, AFullStreamTakesWhatFitsAndTheCallTellsHowMuch) {
    const Bytes data = randomBytes(5000, 1); // fills the table on its way
    const SimpleRun whole = runOf(data);
    for (size_t capacity = 0; capacity + 4 < whole.bytes.size();
         capacity += capacity > 5380 || capacity < 40 ? 1 : 7) {
        VectorStream stream;
        stream.capacity = capacity;
        scfiletag* cfile = makeCFile(stream.file());
        const auto first = uint16_t(capacity / 3);
        ASSERT_EQ(KalWriteCFile(cfile, data.data(), first), first);
        const auto failing = std::find_if(whole.codes.begin(), whole.codes.end(),
                                          [&](const auto& code) { return code.first / 8 > capacity; });
        EXPECT_EQ(KalWriteCFile(cfile, &data[first], uint16_t(5000 - first)),
                  failing->second - std::min<size_t>(first, failing->second))
            << capacity;
        EXPECT_EQ(cfile->status, KAL_ERR_DISK_FULL);
        EXPECT_TRUE(std::equal(stream.bytes.begin(), stream.bytes.end(), whole.bytes.begin()));
        EXPECT_NE(KalFlushCFile(cfile), KAL_ERR_DISK_FULL);
        EXPECT_EQ(stream.bytes.size(), capacity) << "a run that broke off is not ended";
        const uint32_t pos = stream.file()->pos;
        stream.capacity = SIZE_MAX;
        if (cfile->runPos != KAL_NO_POSITION && cfile->runPos != pos) { // nor gone on with, by who seeks back
            const uint32_t back = stream.file()->pos = cfile->runPos;
            EXPECT_EQ(KalWriteCFile(cfile, data.data(), 9), 9);
            EXPECT_EQ(KalFlushCFile(cfile), 0);
            const Bytes again = runOf(Bytes(data.begin(), data.begin() + 9)).bytes;
            EXPECT_TRUE(std::equal(again.begin(), again.end(), stream.bytes.begin() + back));
        }
        KalFreeCFile(cfile);
    }
}

TEST(Run, ACallThatMovedNothingCanBeMadeAgain) {
    const Bytes data = sampleText(20000, 2);
    const Bytes run = runOf(data).bytes;
    VectorStream stream;
    scfiletag* cfile = makeCFile(stream.file());
    std::mt19937 random(3);
    int refused = 0;
    for (size_t at = 0; at < data.size();) { // written where there is room for all or for nothing
        const size_t piece = std::min<size_t>(data.size() - at, 1 + random() % 30);
        stream.capacity = random() % 2 == 0 ? stream.bytes.size() : SIZE_MAX;
        const uint16_t consumed = KalWriteCFile(cfile, &data[at], uint16_t(piece));
        refused += consumed < piece;
        EXPECT_EQ(cfile->status, consumed < piece ? KAL_ERR_DISK_FULL : 0);
        at += consumed;
    }
    EXPECT_GT(refused, 100);
    stream.capacity = stream.bytes.size();
    EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_DISK_FULL);
    stream.capacity = SIZE_MAX;
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(stream.bytes, run);
    stream.rewind();
    Bytes back, part;
    while (back.size() < data.size()) { // read where the stream ends again and again
        if (val(cfile->pending) == 0 && stream.file()->pos > 2) {
            stream.bytes.resize(stream.file()->pos);
            EXPECT_EQ(read(cfile, part, 1), 0);
            EXPECT_EQ(cfile->status, KAL_ERR_END);
            stream.bytes = run;
        }
        ASSERT_EQ(read(cfile, part, 1), 1);
        back.push_back(part[0]);
    }
    EXPECT_EQ(back, data);
    KalFreeCFile(cfile);
}

// Other writers let the table fill up and go on with 12 bits, or clear when they like; streams end anywhere.
TEST(Run, ReadsWhatOthersWriteAndWhatIsCut) {
    for (uint32_t lastCode : {258u, 259u, 600u, 4094u, 4095u, 100000u})
        for (const Bytes& data : {sampleText(40000, 1), randomBytes(20000, 2), Bytes(60000, 7)}) {
            VectorStream stream(runOf(data, lastCode).bytes);
            stream.bytes.resize(stream.bytes.size() + 50, 0xAA);
            scfiletag* cfile = makeCFile(stream.file());
            Bytes back;
            EXPECT_EQ(read(cfile, back, 65535), data.size()) << "cleared behind " << lastCode;
            EXPECT_EQ(cfile->status, KAL_ERR_RUN);
            EXPECT_TRUE(back == data);
            KalFreeCFile(cfile);
        }
    const Bytes data = sampleText(300, 5);
    const SimpleRun whole = runOf(data);
    for (size_t length = 0; length < whole.bytes.size() - 3; length++) {
        VectorStream stream(Bytes(whole.bytes.begin(), whole.bytes.begin() + long(length)));
        scfiletag* cfile = makeCFile(stream.file());
        size_t held = 0;
        for (const auto& [bit, bytes] : whole.codes)
            held = bit <= length * 8 ? bytes : held;
        Bytes back;
        EXPECT_EQ(read(cfile, back, 300), held) << length;
        EXPECT_EQ(cfile->status, KAL_ERR_END);
        EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
        KalFreeCFile(cfile);
    }
}

TEST(Run, RefusesWhatIsNoRunAndSurvivesDamage) {
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
        {{0xFF, 0xFF, 0, 0}, 0, KAL_ERR_RUN, 2},          // with a code that nobody knows
        {{0x00, 0x03, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},    // clear, end
        {{0x00, 0x05, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},    // clear, 258
        {{0x00, 0x83, 0x0C, 0x04, 0}, 1, KAL_ERR_RUN, 4}, // clear, 'A', 259
    };
    Bytes back;
    for (const auto& each : cases) {
        VectorStream stream(each.stored);
        scfiletag* cfile = makeCFile(stream.file());
        EXPECT_EQ(read(cfile, back, 100), each.delivered);
        EXPECT_EQ(cfile->status, each.status);
        EXPECT_EQ(val(stream.file()->pos), each.pos);
        EXPECT_EQ(val(cfile->runPos), KAL_NO_POSITION);
        KalFreeCFile(cfile);
    }
    std::mt19937 random(11);
    const Bytes good = runOf(sampleText(20000, 3)).bytes;
    for (int round = 0; round < 300; round++) {
        Bytes damaged = round % 2 == 0 ? randomBytes(2000, uint32_t(random())) : good;
        damaged[0] = 0;
        damaged[1] |= 1; // the clear code
        for (int flips = round % 7; flips > 0; flips--)
            damaged[1 + random() % (damaged.size() - 1)] ^= uint8_t(1u << random() % 8);
        VectorStream stream(damaged);
        scfiletag* cfile = makeCFile(stream.file());
        size_t asked;
        do {
            asked = 1 + random() % 5000;
        } while (read(cfile, back, asked) == asked);
        EXPECT_LT(cfile->status, 0) << "round " << round;
        KalFreeCFile(cfile);
    }
    scfiletag* cfile = makeCFile(nullptr);
    EXPECT_EQ(read(cfile, back, 1) + KalWriteCFile(cfile, good.data(), 1), 0);
    EXPECT_EQ(cfile->status, KAL_ERR_NULL_STREAM);
    EXPECT_EQ(KalFlushCFile(cfile) | KalFreeCFile(cfile) | KalFreeCFile(nullptr), 0);
}

TEST(Run, EachFailedAllocationIsReportedAndTheCallCanBeMadeAgain) {
    const Bytes data = randomBytes(5000, 6);
    withEachAllocationFailing([&](int n) {
        VectorStream stream;
        scfiletag* cfile = nullptr;
        if (const int16_t made = KalMakeCFile(&cfile, stream.file()); made != 0) {
            EXPECT_EQ(cfile, nullptr);
            EXPECT_TRUE(made == KAL_ERR_MEMORY || made == KAL_ERR_BUFFER) << "allocation " << n;
            return;
        }
        if (KalWriteCFile(cfile, data.data(), 5000) == 0) {
            EXPECT_EQ(cfile->status, KAL_ERR_BUFFER);
            EXPECT_TRUE(stream.bytes.empty());
            EXPECT_EQ(KalWriteCFile(cfile, data.data(), 5000), 5000);
        }
        EXPECT_EQ(KalFlushCFile(cfile), 0);
        stream.rewind();
        Bytes back;
        if (read(cfile, back, 5000) == 0) {
            EXPECT_EQ(cfile->status, KAL_ERR_BUFFER);
            EXPECT_EQ(val(stream.file()->pos), 0u);
            EXPECT_EQ(read(cfile, back, 5000), 5000);
        }
        EXPECT_EQ(back, data);
        KalFreeCFile(cfile);
    });
}

TEST(Run, TheDescribedExampleIsWhatIsWritten) {
    EXPECT_EQ(runOf(hexExample("docs/formats/run.md", 0)).bytes, hexExample("docs/formats/run.md", 1));
}
