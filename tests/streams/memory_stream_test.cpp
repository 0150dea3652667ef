#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/vmem.h"

#include <kal/stream.h>

#include <random>

namespace {

SFILE* openMemory() {
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, "not used", KAL_MODE_MEMORY | KAL_MODE_UPDATE, 0), 0);
    return stream;
}

void* blockOf(const SFILE* stream) {
    return reinterpret_cast<void*>(uintptr_t(stream->handle));
}

// What a memory stream does, in the plainest words; bytes that nobody put are -1.
struct MemoryModel {
    std::vector<int> block = std::vector<int>(1024, -1);
    uint64_t length = 0, pos = 0;

    std::vector<int> read(uint64_t count, int& status) {
        const uint64_t end = std::min<uint64_t>(length, block.size());
        status = pos + count > end ? -255 : 0;
        const uint64_t stop = std::max(pos, std::min(pos + count, end));
        std::vector<int> bytes;
        for (; pos < stop; pos++)
            bytes.push_back(block[size_t(pos)]);
        return bytes;
    }
    void write(const Bytes& bytes) {
        const uint64_t end = pos + bytes.size();
        if (end > std::min<uint64_t>((length + 1023) / 1024 * 1024, block.size())) {
            block.resize(size_t(end + 1023) / 1024 * 1024, -1);
            length = std::max(length, end);
        }
        std::copy(bytes.begin(), bytes.end(), block.begin() + long(pos));
        pos = end;
    }
    void seek(int32_t offset, uint32_t origin) {
        length = std::max(length, pos);
        pos = uint32_t((origin == 1 ? pos : origin == 2 ? length : 0) + uint64_t(int64_t(offset)));
    }
};

} // namespace

TEST(MemoryStream, AgreesWithTheModelInRandomSequences) {
    HeapBalance balance;
    for (uint32_t seed = 1; seed <= 5; seed++) {
        SFILE* stream = openMemory();
        MemoryModel model;
        std::mt19937 random(seed);
        for (uint32_t step = 0; step < 4000; step++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            const auto count = static_cast<uint32_t>(random() % 8 == 0 ? random() % 5000 : random() % 90);
            switch (random() % 5) {
            case 0:
            case 1: {
                if (model.pos > 200000) // a write far out makes the block as large
                    break;
                const Bytes bytes = randomBytes(count, step);
                ASSERT_EQ(stream->write(stream, bytes.data(), count), int32_t(count));
                ASSERT_EQ(val(stream->status), 0);
                model.write(bytes);
                break;
            }
            case 2: {
                int status = 0;
                const std::vector<int> wanted = model.read(count, status);
                Bytes got(count);
                ASSERT_EQ(stream->read(stream, got.data(), count), int32_t(wanted.size()));
                ASSERT_EQ(val(stream->status), status);
                for (size_t i = 0; i < wanted.size(); i++)
                    ASSERT_TRUE(wanted[i] < 0 || wanted[i] == got[i]) << "byte " << i;
                break;
            }
            case 3: {
                int status = 0;
                const std::vector<int> wanted = model.read(1, status);
                const int32_t got = stream->getChar(stream);
                ASSERT_TRUE(wanted.empty() ? got == -255 : wanted[0] < 0 || got == wanted[0]) << got;
                break;
            }
            default:
                const auto origin = static_cast<uint32_t>(random() % 4);
                const bool far = random() % 40 == 0; // also before the start and beyond all that is there
                const int32_t offset = far ? int32_t(random()) : int32_t(random() % 4000) - 2000;
                ASSERT_EQ(stream->seek(stream, offset, origin), 0);
                model.seek(offset, origin);
                if (model.pos > 200000 && random() % 2 == 0) {
                    stream->seek(stream, 100, 0);
                    model.seek(100, 0);
                }
            }
            ASSERT_EQ(val(stream->pos), model.pos);
            ASSERT_EQ(val(stream->osPos), model.length) << "the length is kept lazily";
            ASSERT_EQ(GlobalSize(blockOf(stream)), model.block.size());
        }
        EXPECT_EQ(stream->close(stream), 0);
    }
}

TEST(MemoryStream, TheLengthCatchesUpAtASeek) {
    HeapBalance balance;
    SFILE* stream = openMemory();
    uint8_t bytes[10];
    EXPECT_EQ(stream->read(stream, bytes, 10), 0);
    EXPECT_EQ(val(stream->status), -255);
    EXPECT_EQ(stream->getChar(stream), -255);
    EXPECT_EQ(stream->write(stream, "abc\xFF", 4), 4); // grows the block from nothing
    EXPECT_EQ(val(stream->osPos), 4u);
    EXPECT_EQ(stream->putChar(stream, 'e'), 0); // does not
    EXPECT_EQ(val(stream->osPos), 4u);
    EXPECT_EQ(stream->seek(stream, -2, 2), 0);
    EXPECT_EQ(val(stream->osPos), 5u);
    EXPECT_EQ(stream->getChar(stream), 0xFF);
    EXPECT_EQ(KalSetBuf(stream, 100), 0); // a buffer that is not used, and does not leak
    EXPECT_EQ(KalNextChar(stream), 'e');
    EXPECT_EQ(KalCloseMemFile(nullptr), 0);
    EXPECT_EQ(stream->close(stream), 0);
}

TEST(MemoryStream, FailuresLeaveItWhole) {
    HeapBalance balance;
    const int met = withEachAllocationFailing([](int) {
        SFILE* stream = nullptr;
        const int16_t status = KalOpenFile(&stream, "", KAL_MODE_MEMORY, 0);
        if (status != 0) {
            EXPECT_TRUE(status == -100 || status == -259) << status;
            EXPECT_EQ(stream, nullptr);
            return;
        }
        const Bytes bytes = randomBytes(5000, 1);
        stream->write(stream, bytes.data(), 1000);
        if (stream->write(stream, bytes.data(), 5000) == -259) {
            EXPECT_EQ(val(stream->status), -259);
            EXPECT_EQ(val(stream->osPos), 1000u);
            EXPECT_EQ(GlobalSize(blockOf(stream)), 1024u);
        }
        stream->close(stream);
    });
    EXPECT_EQ(met, 3); // record, block, growth
    SFILE* stream = openMemory();
    stream->seek(stream, -10, 0); // just below 4 GiB
    EXPECT_EQ(stream->write(stream, "0123456789abcdef", 16), -259);
    GlobalReAlloc(blockOf(stream), 0, GMEM_MOVEABLE); // a discarded block cannot be locked
    char byte;
    EXPECT_EQ(stream->read(stream, &byte, 1), -259);
    stream->close(stream);
}

TEST(MemoryStream, GrowsToAQuarterGigabyteByLittleWrites) {
    SFILE* stream = openMemory();
    const uint32_t size = kSanitized ? 16u << 20 : 256u << 20;
    const Bytes bytes = randomBytes(100 + 256, 5);
    int moves = 0;
    const void* before = nullptr;
    for (uint32_t written = 0, i = 0; written < size; written += 100, i++) {
        ASSERT_EQ(stream->write(stream, bytes.data() + i % 256, 100), 100);
        const void* now = GlobalLock(blockOf(stream));
        GlobalUnlock(blockOf(stream));
        moves += now != before ? 1 : 0;
        before = now;
    }
    EXPECT_LT(moves, 50) << "the block is not copied at each step";
    stream->seek(stream, 0, 0);
    Bytes got(100);
    for (uint32_t read = 0, i = 0; read < size; read += 100, i++) {
        ASSERT_EQ(stream->read(stream, got.data(), 100), 100);
        ASSERT_EQ(std::memcmp(got.data(), bytes.data() + i % 256, 100), 0) << "at " << read;
    }
    stream->close(stream);
    trimGlobalMemory(0);
}
