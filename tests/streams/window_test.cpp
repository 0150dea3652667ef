// Windows on disk files, held against a model of the stretch.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/storage.h>
#include <kal/stream.h>
#include <kal/vmem.h>

#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace {

class Window : public FolderTest {
protected:
    ~Window() override {
        if (stream_ != nullptr)
            stream_->close(stream_);
    }
    SFILE* open(const char* name, uint16_t mode, uint32_t bufSize = 512) {
        EXPECT_EQ(KalOpenFile(&stream_, name, mode, 0), 0);
        EXPECT_EQ(KalSetBuf(stream_, bufSize), 0);
        return stream_;
    }
    uint32_t pos() const { return stream_->pos; }
    int16_t status() const { return stream_->status; }
    void close() {
        EXPECT_EQ(stream_->close(stream_), 0);
        stream_ = nullptr;
    }

private:
    SFILE* stream_ = nullptr;
};

} // namespace

TEST_F(Window, PositionsCountFromItsStart) {
    const Bytes bytes = randomBytes(300, 1);
    writeFile("f", bytes);
    SFILE* s = open("f", 0);
    ASSERT_EQ(KalConstrainFile(s, 100, 200), 0);
    EXPECT_EQ(pos(), 100u);
    const struct {
        int32_t offset;
        uint32_t origin;
        int16_t status;
        uint32_t pos;
    } seeks[] = {
        {0, 0, 0, 100},       {100, 0, 0, 200},          {101, 0, -257, 200},       {10, 2, 0, 190},
        {0, 2, 0, 200},       {-1, 2, -257, 200},        {-10, 0, 0, 90},           {110, 1, 0, 200},
        {1, 1, -257, 200},    {-150, 1, 0, 50},          {-51, 1, -257, 50},        {50, 7, 0, 150},
        {-101, 0, -257, 150}, {INT32_MIN, 0, -257, 150}, {INT32_MAX, 1, -257, 150}, {INT32_MIN, 2, -257, 150},
    };
    for (const auto& each : seeks) {
        EXPECT_EQ(s->seek(s, each.offset, each.origin), each.status)
            << each.offset << " from " << each.origin;
        EXPECT_EQ(status(), each.status);
        EXPECT_EQ(pos(), each.pos) << each.offset << " from " << each.origin;
        EXPECT_EQ(val(s->offset), 100u);
    }
    Bytes got(150);
    EXPECT_EQ(s->seek(s, 0, 0), 0);
    EXPECT_EQ(s->read(s, got.data(), 150), 100);
    EXPECT_EQ(status(), -255);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 100), Bytes(bytes.begin() + 100, bytes.begin() + 200));
    EXPECT_EQ(s->read(s, got.data(), 150), 0);
    EXPECT_EQ(status(), -256);
    EXPECT_EQ(s->getChar(s), -256);
    KalUnconstrainFile(s);
    EXPECT_EQ(pos(), 200u);
    EXPECT_EQ(s->getChar(s), bytes[200]) << "position and buffer stay";
    EXPECT_EQ(s->seek(s, 0, 0), 0);
    EXPECT_EQ(pos(), 0u);
    EXPECT_EQ(s->seek(s, 0, 2), 0);
    EXPECT_EQ(pos(), 300u);
}

TEST_F(Window, ConstrainingAgainReplacesIt) {
    const Bytes bytes = randomBytes(1000, 3);
    writeFile("f", bytes);
    SFILE* s = open("f", 0);
    EXPECT_EQ(KalConstrainFile(s, 100, 900), 0);
    EXPECT_EQ(s->getChar(s), bytes[100]);
    EXPECT_EQ(KalConstrainFile(s, 300, 301), 0);
    EXPECT_EQ(s->getChar(s), bytes[300]);
    EXPECT_EQ(s->getChar(s), -256);
    for (int32_t end : {500, 400, -1}) { // no end: a base offset alone
        EXPECT_EQ(KalConstrainFile(s, 300, 301), 0);
        EXPECT_EQ(KalConstrainFile(s, 500, end), 0);
        EXPECT_EQ(s->seek(s, 10, 0), 0);
        EXPECT_EQ(pos(), 510u);
        Bytes got(600);
        EXPECT_EQ(s->read(s, got.data(), 600), 490);
        EXPECT_EQ(s->seek(s, -10, 2), 0);
        EXPECT_EQ(pos(), 990u);
        EXPECT_EQ(s->getChar(s), bytes[990]);
    }
}

TEST_F(Window, OnlyDiskStreamsTakeIt) {
    ASSERT_EQ(KalOpenVMem(0), 0);
    constexpr uint16_t mode = KAL_MODE_CREATE | KAL_MODE_UPDATE;
    const std::string name = "window" + std::to_string(getpid());
    SFILE* others[4] = {};
    EXPECT_EQ(KalOpenFile(&others[0], "", KAL_MODE_MEMORY | mode, 0), 0);
    EXPECT_EQ(KalOpenFile(&others[1], "", KAL_MODE_VMEM | mode, 0), 0);
    EXPECT_EQ(KalOpenFile(&others[2], name.c_str(), KAL_MODE_FILEMAP | mode, 100), 0);
    EXPECT_EQ(KalOpenFileAsIStream(&others[3], "ole", "s", mode), 0);
    for (SFILE* other : others) {
        SFILE before;
        std::memcpy(&before, other, sizeof before);
        EXPECT_EQ(KalConstrainFile(other, 1, 5), 1);
        KalUnconstrainFile(other);
        EXPECT_EQ(std::memcmp(&before, other, sizeof before), 0);
        other->close(other);
    }
    EXPECT_EQ(KalConstrainFile(nullptr, 1, 5), 1);
    KalCloseVMem();
}

TEST_F(Window, FarFromTheStart) {
    // Below and above 2 GiB, and at the last positions of all.
    for (uint32_t start : {0x7FFFFF00u, 0x80000000u, 0xFFFFFD00u}) {
        const uint32_t end = start + 0xFF;
        const Bytes bytes = randomBytes(0x1FF, start);
        writeFile("f", {});
        std::filesystem::resize_file("f", start);
        SFILE* s = open("f", KAL_MODE_WRITE);
        EXPECT_EQ(s->seek(s, 0, 2), 0);
        EXPECT_EQ(s->write(s, bytes.data(), uint32_t(bytes.size())), int32_t(bytes.size()));
        EXPECT_EQ(KalFlushBuf(s), 0);
        ASSERT_EQ(KalConstrainFile(s, int32_t(start), int32_t(end)), 0);
        Bytes got(0x200);
        EXPECT_EQ(s->read(s, got.data(), 0x200), 0xFF);
        EXPECT_EQ(status(), -255);
        EXPECT_EQ(std::memcmp(got.data(), bytes.data(), 0xFF), 0);
        EXPECT_EQ(s->seek(s, 0x100, 0), -257);
        EXPECT_EQ(s->seek(s, 0x7FFFFFFF, 0), -257) << "never round the corner";
        EXPECT_EQ(s->seek(s, 0x7FFFFFFF, 1), -257);
        EXPECT_EQ(s->seek(s, 5, 2), 0);
        EXPECT_EQ(pos(), end - 5);
        EXPECT_EQ(s->getChar(s), bytes[0xFF - 5]);
        EXPECT_EQ(s->seek(s, -1, 0), 0);
        EXPECT_EQ(s->getChar(s), 0);
        EXPECT_EQ(s->getChar(s), bytes[0]);
        close();
    }
}
