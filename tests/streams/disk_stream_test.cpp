// The streams that share the buffered algorithm against a model, a byte vector and a position; and the disk
// stream's own ways.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/storage.h>
#include <kal/stream.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <random>

namespace {

class DiskStream : public FolderTest {
protected:
    SFILE* open(const char* name, uint16_t mode) {
        SFILE* stream = nullptr;
        EXPECT_EQ(KalOpenFile(&stream, name, mode, 0), 0);
        return stream;
    }
};

struct Case {
    uint32_t bufSize;
    uint16_t mode;
    bool compound = false; // a stream in a compound file, not a disk file

    SFILE* open(uint16_t openMode) const {
        SFILE* stream = nullptr;
        EXPECT_EQ(compound ? KalOpenFileAsIStream(&stream, "f", "s", openMode)
                           : KalOpenFile(&stream, "f", openMode, 0),
                  0);
        return stream;
    }
    Bytes content() const {
        SFILE* s = open(0);
        s->seek(s, 0, KAL_SEEK_END);
        Bytes bytes(s->pos);
        s->seek(s, 0, KAL_SEEK_START);
        EXPECT_EQ(s->read(s, bytes.data(), uint32_t(bytes.size())), int32_t(bytes.size()));
        s->close(s);
        return bytes;
    }
};

// What must hold of the record after every operation.
void checkRecord(const SFILE* s, bool compound) {
    if (s->bufSize == 0) {
        ASSERT_EQ(val(s->buf), nullptr);
        ASSERT_EQ(val(s->bufEnd), KAL_NO_POSITION);
        ASSERT_EQ(val(s->dirty), 0);
        return;
    }
    ASSERT_NE(val(s->buf), nullptr);
    if (s->bufEnd != 0) { // it is 0 in a fresh buffer, wherever that starts
        ASSERT_LE(val(s->bufStart), val(s->bufEnd));
        ASSERT_LE(s->bufEnd - s->bufStart, val(s->bufSize));
    }
    if (s->bufStart <= s->pos && s->pos < s->bufEnd) {
        ASSERT_EQ(val(s->bufPtr), s->buf + (s->pos - s->bufStart));
    }
    if (!compound) {
        ASSERT_EQ(uint32_t(::lseek(int(s->handle), 0, SEEK_CUR)), val(s->osPos))
            << "osPos follows the host's pointer";
    }
}

class StreamModel : public FolderTest, public ::testing::WithParamInterface<Case> {};

} // namespace

TEST_P(StreamModel, RandomSequencesMatch) {
    const Case& tested = GetParam();
    const uint32_t bufSize = tested.bufSize;
    for (uint32_t seed = 1; seed <= 6; seed++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 random(seed);
        auto below = [&](uint32_t n) { return uint32_t(random() % n); };
        Bytes model = randomBytes(below(3000), seed);
        SFILE* s = tested.open(KAL_MODE_CREATE | KAL_MODE_UPDATE);
        ASSERT_EQ(s->write(s, model.data(), uint32_t(model.size())), int32_t(model.size()));
        ASSERT_EQ(s->close(s), 0);
        const bool append = seed % 3 == 0;
        s = tested.open(uint16_t(tested.mode | (append ? KAL_MODE_APPEND : 0)));
        if (s->bufSize != bufSize) {
            ASSERT_EQ(KalSetBuf(s, bufSize), 0);
        }
        const uint32_t base = seed % 2 == 0 ? 0 : 100;
        KalSetOffset(s, base);
        size_t pos = append ? model.size() : 0;
        Bytes scratch;
        for (int step = 0; step < 1500; step++) {
            const uint32_t length = below(4) == 0 ? below(6000) : below(40);
            switch (below(8)) {
            case 0: { // read
                scratch.assign(length, 0);
                const size_t expected = pos < model.size() ? std::min<size_t>(length, model.size() - pos) : 0;
                ASSERT_EQ(s->read(s, scratch.data(), length), int32_t(expected)) << "step " << step;
                if (expected > 0) {
                    ASSERT_EQ(std::memcmp(scratch.data(), model.data() + pos, expected), 0)
                        << "step " << step;
                }
                pos += expected;
                if (expected == length)
                    ASSERT_EQ(val(s->status), 0);
                else if (expected == 0)
                    ASSERT_EQ(val(s->status), -256);
                else // the last host read found some bytes or none
                    ASSERT_TRUE(s->status == -255 || s->status == -256) << val(s->status);
                break;
            }
            case 1: { // write
                scratch = randomBytes(length, random() & 0xFFFF);
                ASSERT_EQ(s->write(s, scratch.data(), length), int32_t(length)) << "step " << step;
                ASSERT_EQ(val(s->status), 0);
                if (model.size() < pos + length && length > 0)
                    model.resize(pos + length);
                if (length > 0)
                    std::memcpy(model.data() + pos, scratch.data(), length);
                pos += length;
                break;
            }
            case 2: // characters, through the slot and inline
                for (uint32_t i = 0; i < length % 50; i++) {
                    const int32_t got = i % 2 == 0 ? s->getChar(s) : KalNextChar(s);
                    ASSERT_EQ(got, pos < model.size() ? model[pos] : -256) << "step " << step;
                    pos += pos < model.size() ? 1 : 0;
                }
                break;
            case 3:
                for (uint32_t i = 0; i < length % 50; i++, pos++) {
                    const auto byte = uint8_t(random());
                    ASSERT_EQ(s->putChar(s, char(byte)), 0) << "step " << step;
                    if (pos >= model.size())
                        model.resize(pos + 1);
                    model[pos] = byte;
                }
                break;
            case 4: { // seeks, past the end included
                const uint32_t origin = below(4);
                const auto target = below(uint32_t(model.size()) + 200);
                const int64_t from = origin == 0 ? base : origin == 1 ? int64_t(pos) : 0;
                if (origin == 2)
                    break; // depends on what is written back: below
                ASSERT_EQ(s->seek(s, int32_t(int64_t(target) - from), origin), 0) << "step " << step;
                pos = target;
                break;
            }
            case 5:
                ASSERT_EQ(s->seek(s, -int32_t(below(uint32_t(model.size()) + 1)), 2), 0) << "step " << step;
                pos = s->pos;
                ASSERT_LE(pos, model.size());
                ASSERT_EQ(s->seek(s, 0, 2), 0);
                pos = model.size();
                break;
            case 6:
                ASSERT_EQ(KalFlushBuf(s), 0);
                ASSERT_EQ(val(s->dirty), 0);
                if (!tested.compound) {
                    ASSERT_EQ(tested.content(), model) << "step " << step;
                }
                break;
            default:
                if (below(20) == 0) { // another buffer size now and then
                    ASSERT_EQ(KalFlushBuf(s), 0);
                    ASSERT_EQ(KalSetBuf(s, below(2) == 0 ? bufSize : below(700)), 0);
                }
            }
            ASSERT_EQ(val(s->pos), pos) << "step " << step;
            checkRecord(s, tested.compound);
            if (HasFatalFailure())
                return;
        }
        ASSERT_EQ(s->close(s), 0);
        ASSERT_EQ(tested.content(), model);
    }
}

INSTANTIATE_TEST_SUITE_P(BuffersAndModes, StreamModel,
                         ::testing::Values(Case{0, 1}, Case{1, 1}, Case{3, 1}, Case{512, 1}, Case{4096, 1},
                                           Case{0, 2}, Case{1, 2}, Case{3, 2}, Case{512, 2}, Case{4096, 2},
                                           Case{0, 2, true}, Case{1, 2, true}, Case{512, 2, true},
                                           Case{5000, 2, true}),
                         [](const auto& tested) {
                             return (tested.param.compound ? "CompoundBuffer" : "Buffer") +
                                    std::to_string(tested.param.bufSize) + "Mode" +
                                    std::to_string(tested.param.mode);
                         });

TEST_F(DiskStream, EndsOfReadsHaveTheirStatuses) {
    writeFile("f", randomBytes(1000, 1));
    SFILE* s = open("f", 0);
    Bytes bytes(2000);
    s->seek(s, 996, 0);
    EXPECT_EQ(s->read(s, bytes.data(), 10), 4);
    EXPECT_EQ(val(s->status), -255);
    EXPECT_EQ(s->read(s, bytes.data(), 10), 0);
    EXPECT_EQ(val(s->status), -256);
    EXPECT_EQ(s->getChar(s), -256);
    s->seek(s, 500, 0);
    EXPECT_EQ(s->getChar(s) >= 0, true); // fills the buffer with all 500
    s->seek(s, 997, 0);
    EXPECT_EQ(s->read(s, bytes.data(), 10), 3) << "three from the buffer, then the end";
    EXPECT_EQ(val(s->status), -256);
    EXPECT_EQ(s->close(s), 0);
}

TEST_F(DiskStream, RoomInTheBufferCostsNoHostCall) {
    writeFile("f", randomBytes(2000, 4));
    HostCallCounter counter;
    SFILE* s = open("f", 1);
    EXPECT_GE(s->getChar(s), 0);
    EXPECT_EQ(counter.all(), 1) << "one fill";
    for (int i = 0; i < 511; i++)
        s->getChar(s);
    EXPECT_EQ(s->seek(s, 3, 0), 0);
    EXPECT_EQ(s->seek(s, 100, 1), 0);
    for (int i = 0; i < 300; i++)
        EXPECT_EQ(s->putChar(s, 'x'), 0);
    EXPECT_EQ(counter.all(), 1) << "reads, writes and seeks inside the buffer";
    EXPECT_EQ(s->seek(s, 1500, 0), 0);
    EXPECT_EQ(counter.writes(), 1) << "a seek outside writes back first";
    EXPECT_EQ(s->close(s), 0);

    const uint64_t blocks = liveHeapBlocks();
    s = open("f", 1);
    const uint64_t opened = liveHeapBlocks();
    Bytes bytes(10000);
    failHeapAllocationsFrom(1); // reads and writes of any size allocate nothing
    for (uint32_t size : {1u, 100u, 511u, 512u, 513u, 9999u}) {
        s->seek(s, 0, 0);
        s->write(s, bytes.data(), size);
        s->seek(s, 0, 0);
        EXPECT_EQ(s->read(s, bytes.data(), size), int32_t(size));
    }
    EXPECT_FALSE(heapFaultHappened());
    failHeapAllocation(0);
    EXPECT_EQ(liveHeapBlocks(), opened);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(liveHeapBlocks(), blocks);
}

TEST_F(DiskStream, WrappedHandlesTakeNoWritesUntilToldSo) {
    writeFile("f", bytesOf("0123456789"));
    SFILE* s = nullptr;
    ASSERT_EQ(KalMakeSFile(&s, ::open("f", O_RDWR)), 0);
    EXPECT_EQ(val(s->mode), 0);
    EXPECT_EQ(val(s->bufSize), 512u);
    EXPECT_EQ(val(s->bufEnd), 0u);
    EXPECT_EQ(val(s->name), nullptr);
    EXPECT_EQ(s->write(s, "ab", 2), -251);
    EXPECT_EQ(val(s->status), -251);
    EXPECT_EQ(s->putChar(s, 'a'), -251);
    for (uint16_t mode : Words{0x4, 0x8}) { // write bits that open no handle for writing
        s->mode = mode;
        EXPECT_EQ(s->write(s, "ab", 2), -251);
    }
    s->mode = KAL_MODE_WRITE;
    EXPECT_EQ(s->write(s, "ab", 2), 2);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f"), bytesOf("ab23456789"));

    EXPECT_EQ(KalSetOffset(nullptr, 1), -258);
    EXPECT_EQ(KalFlushBuf(nullptr), -258);
}

TEST_F(DiskStream, PositionsReachFourGiBAndNoFurther) {
    SFILE* s = open("f", KAL_MODE_CREATE | KAL_MODE_WRITE);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFF0), 0), 0);
    EXPECT_EQ(val(s->pos), 0xFFFFFFF0u);
    EXPECT_EQ(s->write(s, "0123456789abcdefghij", 20), 14) << "positions end at 0xFFFFFFFE";
    EXPECT_EQ(val(s->status), -254);
    EXPECT_EQ(val(s->pos), 0xFFFFFFFEu);
    EXPECT_EQ(s->putChar(s, 'x'), -254);
    EXPECT_EQ(KalFlushBuf(s), 0);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFF0), 0), 0);
    Bytes bytes(40);
    EXPECT_EQ(s->read(s, bytes.data(), 40), 14);
    bytes.resize(14);
    EXPECT_EQ(bytes, bytesOf("0123456789abcd"));
    EXPECT_EQ(s->close(s), 0);

    truncate("f", 0x100000010); // a file that others made longer
    s = open("f", 0);
    KalSetBuf(s, 0);
    EXPECT_EQ(s->seek(s, 0, 2), -257);
    EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFFA), 0), 0);
    EXPECT_EQ(s->read(s, bytes.data(), 10), 4);
    EXPECT_EQ(s->close(s), 0);
}

TEST_F(DiskStream, SetBufReplacesTheBufferAndFallsBack) {
    writeFile("f", randomBytes(100, 5));
    SFILE* s = open("f", 1);
    s->write(s, "lost", 4); // not written back: the caller did not flush
    EXPECT_EQ(KalSetBuf(s, 64), 0);
    EXPECT_EQ(val(s->bufSize), 64u);
    EXPECT_EQ(val(s->dirty), 0);
    EXPECT_EQ(val(s->bufEnd), 0u);
    failHeapAllocation(1); // the new size fails, the old one can be had
    EXPECT_EQ(KalSetBuf(s, 4096), -105);
    EXPECT_EQ(val(s->status), -105);
    EXPECT_EQ(val(s->bufSize), 64u);
    EXPECT_EQ(val(s->bufEnd), 0u);
    failHeapAllocationsFrom(1);
    EXPECT_EQ(KalSetBuf(s, 4096), -105);
    failHeapAllocation(0);
    EXPECT_EQ(val(s->bufSize), 0u);
    EXPECT_EQ(val(s->buf), nullptr);
    EXPECT_EQ(val(s->bufEnd), KAL_NO_POSITION);
    EXPECT_EQ(s->close(s), 0);
    EXPECT_EQ(readFile("f"), randomBytes(100, 5));
}
