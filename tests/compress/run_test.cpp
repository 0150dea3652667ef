// Compressed streams against the simple coder: every byte of every run, over every kind of stream, and what trouble leaves.
#include "tests/compress/runs.h"

namespace {

scfiletag* makeCFile(SFILE* stream) {
    scfiletag* cfile = nullptr;
    EXPECT_EQ(KalMakeCFile(&cfile, stream), KAL_OK);
    return cfile;
}

constexpr uint16_t kCompound = 0x8000; // no mode of KalOpenFile

Bytes sample(std::mt19937& random, size_t count) {
    const auto seed = uint32_t(random());
    return seed % 4 == 0   ? randomLetters(count, seed, 4)
           : seed % 4 == 1 ? randomLetters(count, seed, 40)
           : seed % 4 == 2 ? randomBytes(count, seed)
                           : Bytes(count, uint8_t(seed >> 8));
}

Bytes read(scfiletag* cfile, size_t count) {
    Bytes bytes(count);
    bytes.resize(KalReadCFile(cfile, bytes.data(), uint16_t(count)));
    return bytes;
}

// What is read of a stored run until that ends, in pieces of up to `most` bytes.
Bytes readAll(SFILE* stream, uint32_t most, int16_t* status) {
    std::mt19937 random(most);
    scfiletag* cfile = makeCFile(stream);
    Bytes all;
    do {
        const Bytes piece = read(cfile, 1 + random() % most);
        all.insert(all.end(), piece.begin(), piece.end());
    } while (cfile->status == KAL_OK);
    *status = cfile->status;
    KalFreeCFile(cfile);
    return all;
}

// The same over a stream of the library, whose buffer the decoder reads ahead.
Bytes readAllOfMemory(const Bytes& stored, uint32_t most, int16_t* status) {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, nullptr, KAL_MODE_MEMORY | KAL_MODE_CREATE | KAL_MODE_UPDATE, 0), KAL_OK);
    stream->write(stream, stored.data(), uint32_t(stored.size()));
    stream->seek(stream, 0, KAL_SEEK_START);
    const Bytes all = readAll(stream, most, status);
    stream->close(stream);
    return all;
}

void append(Bytes* bytes, const Bytes& more) {
    bytes->insert(bytes->end(), more.begin(), more.end());
}

struct RunModel : FolderTest {
    RunModel() : FolderTest(kInMemory) {}
};

// Runs and other bytes in a stream, and the same in memory.
void writeAndRead(uint16_t mode, uint32_t bufSize, uint32_t seed) {
    std::mt19937 random(seed);
    constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_UPDATE;
    const std::string name = mode == KAL_MODE_FILEMAP ? "run" + std::to_string(getpid()) : "f";
    SFILE* stream = nullptr;
    ASSERT_EQ(mode == kCompound ? KalOpenFileAsIStream(&stream, "f", "s", kNew)
                                : KalOpenFile(&stream, name.c_str(), mode | kNew, 1'000'000),
              KAL_OK);
    ASSERT_EQ(KalSetBuf(stream, bufSize), KAL_OK);
    const uint32_t zero = mode == KAL_MODE_FILEMAP ? val(stream->offset) : 0; // where positions count from
    const auto seek = [&](size_t to) {
        EXPECT_EQ(stream->seek(stream, int32_t(uint32_t(to) + zero - stream->offset), KAL_SEEK_START),
                  KAL_OK);
    };
    Bytes expected;
    const auto putPlain = [&](const std::string& text) {
        EXPECT_EQ(stream->write(stream, text.data(), uint32_t(text.size())), int32_t(text.size()));
        append(&expected, bytesOf(text));
    };
    putPlain("before");
    if (mode == 0)
        KalSetOffset(stream, 6);
    struct {
        size_t start, end;
        Bytes data;
    } runs[4];
    scfiletag* cfile = makeCFile(stream);
    EXPECT_EQ(KalFlushCFile(cfile), stream->dirty != 0 ? KAL_ERR_RUN : KAL_OK) << "what waits is no run";
    for (auto& run : runs) { // the last of some clears its table more than 15 times
        const bool isLong = seed % 25 == 3 && &run == &runs[3];
        run = {expected.size(), 0, isLong ? randomBytes(70'000, 1) : sample(random, 1 + random() % 12'000)};
        const size_t most = random() % 2 == 0 ? 12 : 9000;
        for (size_t at = 0, piece; at < run.data.size(); at += piece) {
            piece = std::min<size_t>(run.data.size() - at, random() % most);
            ASSERT_EQ(KalWriteCFile(cfile, &run.data[at], uint16_t(piece)), piece);
            ASSERT_EQ(cfile->status, KAL_OK);
            if (random() % 16 == 0)
                KalFlushBuf(stream);
        }
        append(&expected, runOf(run.data).bytes);
        run.end = expected.size();
        EXPECT_EQ(KalFlushCFile(cfile), KAL_OK);
        if (cfile->runPos != KAL_NO_POSITION || random() % 2 == 0) { // only freeing ends it
            EXPECT_EQ(KalFreeCFile(cfile), KAL_OK);
            cfile = makeCFile(stream);
        }
        ASSERT_EQ(stream->pos - zero, run.end);
        if (random() % 2 == 0)
            putPlain("between");
    }
    for (int times = 0; times < 6; times++) {
        const auto& run = runs[random() % 4];
        Bytes back;
        for (seek(run.start); back.empty() || cfile->status == KAL_OK;) {
            append(&back, read(cfile, random() % 5 == 0 ? 65535 : random() % 400));
            if (cfile->status == KAL_OK && random() % 30 == 0) { // the same place again goes on
                const uint32_t here = stream->pos - zero;
                seek(0);
                seek(here);
            }
        }
        EXPECT_EQ(cfile->status, KAL_ERR_RUN) << "the run is over";
        EXPECT_EQ(stream->pos - zero, run.end) << "and the stream stands right behind it";
        ASSERT_TRUE(back == run.data);
        EXPECT_EQ(KalFlushCFile(cfile), KAL_OK) << "nothing to end after reading";
    }
    KalFreeCFile(cfile);
    seek(0);
    Bytes all(expected.size());
    for (size_t at = 0; at < all.size(); at += 60'000)
        stream->read(stream, &all[at], uint32_t(std::min<size_t>(all.size() - at, 60'000)));
    EXPECT_TRUE(all == expected && stream->getChar(stream) <= 0) << "other bytes";
    EXPECT_EQ(stream->close(stream), KAL_OK);
}

} // namespace

TEST_F(RunModel, WritesTheSimpleCodersBytesAndReadsThem) {
    uint32_t seed = firstSeed() - 1;
    for (const uint16_t mode : Words{0, KAL_MODE_MEMORY, KAL_MODE_VMEM, KAL_MODE_FILEMAP, kCompound})
        for (const uint32_t bufSize : {0u, 1u, 3u, 512u, 4096u}) {
            SCOPED_TRACE(::testing::Message()
                         << "mode " << mode << " buffer " << bufSize << " seed " << ++seed);
            KalOpenVMem(0);
            writeAndRead(mode, bufSize, seed);
            KalCloseVMem();
        }
}

// Room runs out, and somebody else writes, again and again. What the stream took in a call that failed is lost for the
// run; where it took nothing the run goes on.
TEST(Run, GoesOnWhereNothingMovedAndStartsAnewElsewhere) {
    const Bytes data = randomBytes(40'000, 1);
    VectorStream stream;
    SFILE* file = stream.file();
    scfiletag* cfile = makeCFile(file);
    EXPECT_EQ(KalFlushCFile(cfile) | KalWriteCFile(cfile, data.data(), 0) | int(stream.bytes.size()), 0);
    std::mt19937 random(5);
    SimpleRun run = runOf(data);
    size_t runStart = 0, dataStart = 0;
    for (size_t at = 0; at < data.size();) {
        SCOPED_TRACE(at);
        const size_t before = stream.bytes.size();
        const auto clear = std::adjacent_find(run.codes.begin(), run.codes.end(), [](auto& one, auto& next) {
            return one.second == next.second;
        });
        const size_t piece = std::min(data.size() - at, 1 + random() % (random() % 9 == 0 ? 9000 : 40));
        stream.capacity = random() % 2 == 0 ? SIZE_MAX : before + random() % 2 * (random() % 40);
        if (piece > 40 && before < runStart + clear->first / 8) // the codes that close the first stretch
            stream.capacity = std::max(before, runStart + clear->first / 8 - random() % 4);
        const auto refused = std::find_if(run.codes.begin(), run.codes.end(), [&](const auto& code) {
            return runStart + code.first / 8 > stream.capacity;
        });
        const size_t fits = refused == run.codes.end() ? SIZE_MAX : std::max(refused->second, at - dataStart);
        const size_t wanted = std::min(piece, fits - (at - dataStart));
        ASSERT_EQ(KalWriteCFile(cfile, &data[at], uint16_t(piece)), wanted);
        ASSERT_EQ(cfile->status, wanted < piece ? KAL_ERR_DISK_FULL : KAL_OK);
        ASSERT_TRUE(std::equal(stream.bytes.begin() + long(runStart), stream.bytes.end(), run.bytes.begin()));
        at += wanted;
        bool isLost = wanted < piece && stream.bytes.size() > before;
        stream.capacity = SIZE_MAX;
        if (isLost && random() % 2 == 0 && cfile->runPos != KAL_NO_POSITION) { // also for who seeks back
            stream.bytes.resize(file->pos = cfile->runPos);
        } else if (random() % 50 == 0 && wanted == piece) {
            file->putChar(file, '!');
            EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_RUN) << "somebody wrote behind the run";
            isLost = true;
        }
        if (isLost) {
            runStart = stream.bytes.size();
            dataStart = at;
            run = runOf(Bytes(data.begin() + long(at), data.end()));
        }
    }
    stream.capacity = stream.bytes.size();
    EXPECT_EQ(KalFlushCFile(cfile), KAL_ERR_DISK_FULL);
    stream.capacity = SIZE_MAX;
    EXPECT_EQ(KalFlushCFile(cfile), KAL_OK);
    EXPECT_EQ(Bytes(stream.bytes.begin() + long(runStart), stream.bytes.end()), run.bytes);
    file->pos = uint32_t(runStart);
    const Bytes few = read(cfile, 3);
    runStart = file->pos;
    KalWriteCFile(cfile, few.data(), uint16_t(few.size())); // a run that was read is not one to write on with
    KalFreeCFile(cfile);
    stream.bytes.resize(runStart + runOf(few).bytes.size());
    EXPECT_EQ(Bytes(stream.bytes.begin() + long(runStart), stream.bytes.end()), runOf(few).bytes);
}

// Other writers let the table fill up and go on with 12 bits, or clear when they like; streams end anywhere.
TEST(Run, ReadsWhatOthersWriteAndWhatIsCut) {
    for (const uint32_t lastCode : {258u, 259u, 600u, 4094u, 4095u, 100'000u})
        for (const Bytes& data : {randomLetters(30'000, 1, 4), randomBytes(12'000, 2), Bytes(60'000, 7)}) {
            VectorStream stream(runOf(data, lastCode).bytes);
            stream.bytes.resize(stream.bytes.size() + 50, 0xAA);
            int16_t status, ahead;
            EXPECT_TRUE(readAll(stream.file(), 60'000, &status) == data) << "cleared behind " << lastCode;
            EXPECT_TRUE(readAllOfMemory(stream.bytes, 60'000, &ahead) == data) << lastCode << ", read ahead";
            EXPECT_TRUE(status == KAL_ERR_RUN && ahead == KAL_ERR_RUN);
        }
    const Bytes data = randomLetters(3000, 5, 4);
    const SimpleRun whole = runOf(data);
    size_t held = 0; // codes
    for (size_t length = 0; length < 300; length++) {
        VectorStream stream(Bytes(whole.bytes.begin(), whole.bytes.begin() + long(length)));
        scfiletag* cfile = makeCFile(stream.file());
        held += whole.codes[held].first <= length * 8;
        const size_t wanted = held > 0 ? whole.codes[held - 1].second : 0;
        EXPECT_TRUE(read(cfile, 3000) == Bytes(data.begin(), data.begin() + long(wanted))) << length;
        EXPECT_EQ(cfile->status, KAL_ERR_END);
        KalFreeCFile(cfile);
    }
    VectorStream stream(whole.bytes);
    scfiletag* cfile = makeCFile(stream.file());
    for (const uint8_t byte : data) { // the stream ends where it stands, and then does not
        if (val(cfile->pending) == 0 && stream.file()->pos > 2) {
            stream.bytes.resize(stream.file()->pos);
            EXPECT_EQ(read(cfile, 1), Bytes());
            EXPECT_EQ(cfile->status, KAL_ERR_END);
            stream.bytes = whole.bytes;
        }
        ASSERT_EQ(read(cfile, 1), Bytes{byte});
    }
    KalFreeCFile(cfile);
}

TEST(Run, RefusesWhatIsNoRunAndSurvivesDamage) {
    // What is stored, how many bytes of it come, the status, and where the stream then stands: nothing, too little; starts with
    // the end code, a character, a code that nobody knows; clear and then the end, 258, 'A' and 259.
    const std::tuple<Bytes, size_t, int16_t, uint32_t> rows[] = {
        {{}, 0, KAL_ERR_END, 0},
        {{0x00}, 0, KAL_ERR_END, 1},
        {{0x01, 0x01, 0, 0}, 0, KAL_ERR_RUN, 2},
        {{0x41, 0x00, 0, 0}, 0, KAL_ERR_RUN, 2},
        {{0xFF, 0xFF, 0, 0}, 0, KAL_ERR_RUN, 2},
        {{0x00, 0x03, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},
        {{0x00, 0x05, 0x02, 0, 0}, 0, KAL_ERR_RUN, 3},
        {{0x00, 0x83, 0x0C, 0x04, 0}, 1, KAL_ERR_RUN, 4}};
    for (const auto& [stored, delivered, status, pos] : rows) {
        SCOPED_TRACE(::testing::PrintToString(stored));
        VectorStream stream(stored);
        scfiletag* cfile = makeCFile(stream.file());
        EXPECT_EQ(read(cfile, 100).size(), delivered);
        EXPECT_TRUE(cfile->status == status && stream.file()->pos == pos);
        EXPECT_EQ(val(cfile->runPos), KAL_NO_POSITION);
        KalFreeCFile(cfile);
    }
    std::mt19937 random(11);
    const Bytes good = runOf(randomLetters(20'000, 3, 4)).bytes;
    for (int round = 0; round < 300; round++) {
        VectorStream stream(round % 2 == 0 ? randomBytes(2000, uint32_t(random())) : good);
        stream.bytes[0] = 0;
        stream.bytes[1] |= 1; // the clear code
        for (int flips = round % 7; flips > 0; flips--)
            stream.bytes[1 + random() % (stream.bytes.size() - 1)] ^= uint8_t(1u << random() % 8);
        const auto most = uint32_t(1 + random() % 5000);
        int16_t status, ahead;
        const Bytes all = readAll(stream.file(), most, &status);
        EXPECT_TRUE(readAllOfMemory(stream.bytes, most, &ahead) == all) << "round " << round;
        EXPECT_TRUE(status < 0 && ahead == status) << "round " << round;
    }
    const Bytes clearAndA = {0x00, 0x83, 0x00};
    VectorStream stream(clearAndA);
    scfiletag* cfile = makeCFile(stream.file());
    EXPECT_EQ(read(cfile, 1), bytesOf("A"));
    stream.file()->pos = 2;
    EXPECT_TRUE(read(cfile, 1).empty() && cfile->status == KAL_ERR_END);
    stream.bytes.insert(stream.bytes.end(), clearAndA.begin(), clearAndA.end());
    EXPECT_EQ(read(cfile, 1), bytesOf("A"))
        << "a start that failed where the old run stood does not go on with it";
    KalFreeCFile(cfile);
    cfile = makeCFile(nullptr);
    EXPECT_EQ(read(cfile, 1).size() + KalWriteCFile(cfile, clearAndA.data(), 1), 0u);
    EXPECT_EQ(cfile->status, KAL_ERR_NULL_STREAM);
    EXPECT_EQ(KalFlushCFile(cfile) | KalFreeCFile(cfile) | KalFreeCFile(nullptr), KAL_OK);
}

TEST(Run, TheDescribedExampleIsWhatIsWritten) {
    EXPECT_EQ(runOf(hexExample("docs/formats/run.md", 0)).bytes, hexExample("docs/formats/run.md", 1));
}
