#include "tests/support/faults.h"
#include "tests/support/vmem.h"

#include <kal/heap.h>
#include <kal/path.h>
#include <kal/stream.h>

#include <random>

class VMemStream : public VMemFixture {
protected:
    static SFILE* openStream() {
        SFILE* stream = nullptr;
        EXPECT_EQ(KalOpenFile(&stream, nullptr, KAL_MODE_VMEM | KAL_MODE_UPDATE, 0), 0);
        return stream;
    }
    static uint32_t* tableOf(const SFILE* stream) { return reinterpret_cast<uint32_t*>(stream->backData); }
    static uint32_t blocksOf(const SFILE* stream) { return KalSizeSMem(tableOf(stream)) / 4; }
};

TEST_F(VMemStream, AgreesWithTheModelInRandomSequences) {
    HeapBalance balance;
    for (uint32_t seed = 1; seed <= 4; seed++) {
        open(200000); // six of the blocks
        SFILE* stream = openStream();
        std::vector<int> model; // as long as the stream; bytes that nobody put are -1
        uint32_t pos = 0, blocks = 1;
        std::mt19937 random(seed);
        for (uint32_t step = 0; step < 800; step++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            const auto count = static_cast<uint32_t>(random() % 3 == 0 ? random() % 90000 : random() % 300);
            const uint32_t most = std::min(count, 65535u);
            switch (random() % 4) {
            case 0: {
                const Bytes bytes = randomBytes(count, step);
                ASSERT_EQ(stream->write(stream, bytes.data(), count), int32_t(most));
                ASSERT_EQ(val(stream->status), 0);
                model.resize(std::max<size_t>(model.size(), pos + most), -1);
                std::copy_n(bytes.begin(), most, model.begin() + pos);
                pos += most;
                blocks = most == 0 ? blocks : std::max(blocks, (pos - 1) / 32768 + 1);
                break;
            }
            case 1: {
                Bytes got(count);
                const auto ahead = static_cast<uint32_t>(model.size() - pos);
                ASSERT_EQ(stream->read(stream, got.data(), count), int32_t(std::min(most, ahead)));
                ASSERT_EQ(val(stream->status), most > ahead ? -255 : 0);
                for (uint32_t i = 0; i < std::min(most, ahead); i++, pos++)
                    ASSERT_TRUE(model[pos] < 0 || model[pos] == got[i]) << "at " << pos;
                break;
            }
            case 2: {
                const int32_t got = stream->getChar(stream);
                ASSERT_TRUE(pos == model.size() ? got == -255 : model[pos] < 0 || got == model[pos]) << got;
                pos += got >= 0 ? 1 : 0;
                break;
            }
            default:
                const auto origin = static_cast<uint32_t>(random() % 3);
                const auto target = static_cast<uint32_t>(random() % 700000 / (random() % 9 + 1));
                const auto from = static_cast<int32_t>(origin == 1 ? pos : origin == 2 ? model.size() : 0);
                ASSERT_EQ(stream->seek(stream, int32_t(target) - from, origin), 0);
                pos = target;
                if (target > model.size()) {
                    model.resize(target, -1);
                    blocks = std::max(blocks, target / 32768 + 1);
                }
            }
            ASSERT_EQ(val(stream->pos), pos);
            ASSERT_EQ(val(stream->bufEnd), model.size());
            ASSERT_EQ(blocksOf(stream), blocks);
            ASSERT_EQ(uint32_t(KalVMemUsed()), blocks * 32768);
        }
        EXPECT_EQ(stream->close(stream), 0);
        EXPECT_EQ(KalVMemUsed(), 0);
        KalCloseVMem();
    }
}

TEST_F(VMemStream, ATransferTouchesThreeBlocksAtMost) {
    open(0);
    SFILE* stream = openStream();
    const Bytes bytes = randomBytes(65535, 1);
    stream->seek(stream, 32760, 0);
    EXPECT_EQ(stream->write(stream, bytes.data(), 65535), 65535); // 8 + 32768 + 32759
    EXPECT_EQ(blocksOf(stream), 3u);
    EXPECT_EQ(KalSetBuf(stream, 100), 0); // leaves the length alone
    EXPECT_EQ(val(stream->bufEnd), 32760u + 65535);
    EXPECT_EQ(stream->putChar(stream, char(0xFF)), 0);
    EXPECT_EQ(stream->seek(stream, -1, 2), 0);
    EXPECT_EQ(KalNextChar(stream), 0xFF);
    EXPECT_EQ(KalNextChar(stream), -255);
    stream->pos = 0x50000; // two blocks past the table: no seek goes there without making them
    EXPECT_EQ(stream->write(stream, "x", 1), 0);
    EXPECT_EQ(val(stream->status), -254);
    EXPECT_EQ(stream->read(stream, &stream, 1), 0);
    EXPECT_EQ(stream->seek(stream, -1, 0), -105) << "4 GiB is past the last block";
    EXPECT_EQ(stream->close(stream), 0);
    EXPECT_EQ(KalCloseVMemFile(nullptr), 0);
    SFILE* late = openStream(); // outlives its manager
    KalCloseVMem();
    EXPECT_EQ(late->write(late, "x", 1), 0);
    EXPECT_EQ(val(late->status), -101);
    EXPECT_EQ(late->close(late), 0);
    EXPECT_EQ(KalOpenFile(&late, nullptr, KAL_MODE_VMEM, 0), -101) << "no manager";
    EXPECT_EQ(late, nullptr);
}

TEST_F(VMemStream, FailuresSayWhichMemoryWasShort) {
    std::vector<int16_t> writes, seeks;
    const Bytes bytes = randomBytes(50000, 2);
    const int met = withEachAllocationFailing([&](int) {
        if (KalOpenVMem(0) != 0)
            return;
        SFILE* stream = nullptr;
        const int16_t opened = KalOpenFile(&stream, nullptr, KAL_MODE_VMEM, 0);
        if (opened != 0) {
            EXPECT_TRUE(opened == -100 || opened == -105 || opened == -101) << opened;
            KalCloseVMem();
            return;
        }
        const int32_t moved = stream->write(stream, bytes.data(), 50000);
        writes.push_back(stream->status);
        EXPECT_EQ(moved, stream->status == 0 ? 50000 : 32768);
        EXPECT_EQ(val(stream->pos), uint32_t(moved)) << "by what was moved";
        EXPECT_EQ(val(stream->bufEnd), uint32_t(moved));
        const int16_t sought = stream->seek(stream, 100000, 0);
        seeks.push_back(sought);
        EXPECT_EQ(val(stream->pos), sought == 0 ? 100000 : uint32_t(moved));
        EXPECT_EQ(val(stream->bufEnd), 100000u) << "longer at once";
        // A block that could not be made is missing, and made when it is written to.
        EXPECT_EQ(stream->seek(stream, moved, 0), 0);
        EXPECT_EQ(stream->write(stream, bytes.data() + moved, uint32_t(50000 - moved)), 50000 - moved);
        stream->seek(stream, 0, 0);
        Bytes got(50000);
        EXPECT_EQ(stream->read(stream, got.data(), 50000), 50000);
        EXPECT_EQ(got, bytes);
        EXPECT_EQ(stream->close(stream), 0);
        KalCloseVMem();
    });
    EXPECT_GE(met, 12);
    EXPECT_NE(std::find(writes.begin(), writes.end(), -254), writes.end());
    EXPECT_NE(std::find(seeks.begin(), seeks.end(), -105), seeks.end());
    open(0);
    failHeapAllocationsFrom(3); // record and table can be had, no block
    SFILE* stream = nullptr;
    EXPECT_EQ(KalOpenFile(&stream, nullptr, KAL_MODE_VMEM, 0), -101);
    failHeapAllocation(0);
}

TEST_F(VMemStream, AGigabyteUnderSixteenMegabytesComesBack) {
    KalSetVMemTemp("/dev/shm");
    open(16 << 20);
    SFILE* stream = openStream();
    const uint32_t pieces = (kSanitized ? 32u << 20 : 1u << 30) / 60000;
    const Bytes bytes = randomBytes(60000 + 1024, 9);
    for (uint32_t i = 0; i < pieces; i++)
        ASSERT_EQ(stream->write(stream, bytes.data() + i % 1021, 60000), 60000) << i;
    EXPECT_LE(KalMaxVMem(), int32_t(pieces * 60000 + 32768));
    Bytes got(60000);
    stream->seek(stream, 0, 0);
    for (uint32_t i = 0; i < pieces; i++) {
        ASSERT_EQ(stream->read(stream, got.data(), 60000), 60000) << i;
        ASSERT_EQ(std::memcmp(got.data(), bytes.data() + i % 1021, 60000), 0) << "piece " << i;
    }
    EXPECT_EQ(stream->read(stream, got.data(), 1), 0);
    EXPECT_EQ(stream->close(stream), 0);
    KalTempPath(nullptr);
}
