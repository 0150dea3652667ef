// Lines read from and texts written to streams of every kind.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/storage.h>
#include <kal/stream.h>
#include <kal/vmem.h>

#include <cerrno>
#include <random>
#include <string>
#include <unistd.h>

namespace {

// One call of KalGetStr on a model of the stream.
struct Model {
    std::string text;
    int endStatus; // of a read at the end
    size_t pos = 0;

    // The line and the status; the byte behind the line is the status's low byte.
    std::pair<std::string, int> getStr(uint32_t size) {
        std::string line;
        while (line.size() + 1 < size) {
            if (pos == text.size())
                return {line, endStatus};
            const char c = text[pos++];
            if (c == '\n')
                return {line, 0};
            if (c == '\r') {
                pos += pos < text.size() && text[pos] == '\n';
                return {line, 0};
            }
            line += c;
        }
        return {line, 0};
    }
};

struct Kind {
    const char* name;
    uint16_t mode;
    int endStatus = -256;
    char endByte = 0; // the low byte of what get character gives at the end
    bool isCompound = false;
    bool isWindow = false;
};

constexpr Kind disk = {"disk", 0};
constexpr Kind kinds[] = {
    disk,
    {"window", 0, -256, 0, false, true},
    {"compound file", 0, -256, 0, true},
    {"memory", KAL_MODE_MEMORY, -255, 1},
    {"VMem", KAL_MODE_VMEM, -255, 1},
    {"mapping", KAL_MODE_FILEMAP, -255},
};
constexpr uint32_t bufSizes[] = {0, 1, 7, 512, 65536};

class LineText : public FolderTest {
protected:
    LineText() { EXPECT_EQ(KalOpenVMem(0), 0); }
    ~LineText() override { KalCloseVMem(); }
    // A stream that holds `text` and stands at its start.
    static SFILE* streamOf(const Kind& kind, uint32_t bufSize, const std::string& text) {
        constexpr uint16_t mode = KAL_MODE_CREATE | KAL_MODE_UPDATE;
        const std::string name = "text" + std::to_string(getpid());
        SFILE* s = nullptr;
        EXPECT_EQ(kind.isCompound ? KalOpenFileAsIStream(&s, name.c_str(), "text", mode)
                                  : KalOpenFile(&s, name.c_str(), kind.mode | mode, 300'000),
                  0);
        const std::string before = kind.isWindow ? "#\r\n" : "";
        const std::string behind = kind.isWindow ? "\n#" : "";
        const std::string whole = before + text + behind;
        for (size_t done = 0; done < whole.size();) { // VMem takes 65,535 bytes a call
            const auto count = uint32_t(std::min<size_t>(whole.size() - done, 60'000));
            EXPECT_EQ(s->write(s, whole.data() + done, count), int32_t(count));
            done += count;
        }
        EXPECT_EQ(KalFlushBuf(s), 0);
        if (kind.isWindow) {
            EXPECT_EQ(KalConstrainFile(s, 3, int32_t(3 + text.size())), 0);
        }
        EXPECT_EQ(KalSetBuf(s, bufSize), 0);
        EXPECT_EQ(s->seek(s, 0, KAL_SEEK_START), 0);
        if (!text.empty()) {
            EXPECT_EQ(s->getChar(s), uint8_t(text[0]));
            EXPECT_EQ(KalUnGetChar(s), 0);
        }
        // No bytes need no place.
        EXPECT_EQ(s->write(s, nullptr, 0), 0);
        EXPECT_EQ(s->read(s, nullptr, 0), 0);
        EXPECT_EQ(val(s->status), 0);
        return s;
    }
    static std::string randomText(size_t length, std::mt19937& random) {
        const std::string ends[] = {"\r", "\n", "\r\n", "\n\r", "\r\r\n"};
        std::string text;
        const size_t longest = size_t(1) << random() % 12;
        while (text.size() < length) {
            for (size_t line = random() % (longest + 1); line > 0; line--)
                text += char(random() % 8 == 0 ? random() % 10 : 14 + random() % 242);
            text += ends[random() % 5];
        }
        text.resize(length);
        return text;
    }
    // Reads the whole stream in lines of `size` and holds each against the model.
    static void expectLines(const Kind& kind, uint32_t bufSize, const std::string& text, uint32_t size) {
        SCOPED_TRACE(kind.name + (" with a buffer of " + std::to_string(bufSize)));
        SFILE* stream = streamOf(kind, bufSize, text);
        Model model{text, kind.endStatus};
        std::string line(size + 1, '#');
        for (int status = 0, calls = 0; status == 0 && calls < 150'000; calls++) {
            const auto [expected, expectedStatus] = model.getStr(size);
            std::fill(line.begin(), line.end(), '#');
            status = KalGetStr(stream, line.data(), size);
            ASSERT_EQ(status, expectedStatus) << "at " << model.pos;
            ASSERT_EQ(line.substr(0, expected.size() + 1), expected + (status == 0 ? '\0' : kind.endByte))
                << "at " << model.pos;
            ASSERT_EQ(line[size], '#');
            ASSERT_EQ(stream->pos - stream->offset, uint32_t(model.pos));
        }
        stream->close(stream);
    }
};

} // namespace

TEST_F(LineText, LinesOfEveryKindOfStream) {
    std::mt19937 random(31);
    for (const Kind& kind : kinds)
        for (const uint32_t bufSize : bufSizes) {
            for (const char* text :
                 {"", "\r", "\n", "\r\n", "ab\r\ncd", "ab\rcd", "ab\n\rcd", "abcdef\n", "\r\r\n\n"})
                if (*text != 0 || !kind.isWindow)
                    for (const uint32_t size : {2u, 3u, 4u, 100u})
                        expectLines(kind, bufSize, text, size);
            for (const size_t length : {511u, 512u, 513u, 1024u, 5000u})
                for (const uint32_t size : {2u, 9u, 600u, 70'000u})
                    expectLines(kind, bufSize, randomText(length, random), size);
            expectLines(kind, bufSize, randomText(100'000, random), 65'000);
            if (HasFatalFailure())
                return;
        }
    expectLines(disk, 512, std::string(100'000, 'x'), 200'000);
}

TEST_F(LineText, SizesOneAndNoneConsumeNothing) {
    SFILE* stream = streamOf(disk, 512, "ab");
    char text[] = "##";
    EXPECT_EQ(KalGetStr(stream, text, 1), 0);
    EXPECT_STREQ(text, "");
    text[0] = '#';
    EXPECT_EQ(KalGetStr(stream, text, 0), 0);
    EXPECT_STREQ(text, "##");
    EXPECT_EQ(stream->getChar(stream), 'a');
    EXPECT_EQ(KalUnGetChar(stream), 0);
    EXPECT_EQ(stream->getChar(stream), 'a');
    stream->close(stream);
}

TEST_F(LineText, RunsAreTakenFromTheBuffer) {
    std::string text;
    for (int i = 0; i < 3000; i++)
        text += std::string(size_t(i) % 60, 'x') + (i % 2 != 0 ? "\r\n" : "\r");
    SFILE* stream = streamOf(disk, 512, text);
    char line[100];
    const HostCallCounter counter;
    while (KalGetStr(stream, line, sizeof line) == 0) {
    }
    EXPECT_LE(counter.reads(), int64_t(text.size() / 512 + 4));
    EXPECT_LE(counter.seeks(), 1);
    stream->close(stream);
}

TEST_F(LineText, AFailingReadEndsTheLineWithItsStatus) {
    SFILE* stream = streamOf(disk, 1, "abcdef");
    char line[] = "########";
    static int left;
    left = 3;
    {
        const HostCallGuard guard;
        static decltype(HostCalls::read) read;
        read = hostCalls.read;
        hostCalls.read = [](int fd, void* to, size_t count) {
            errno = EIO;
            return left-- > 0 ? read(fd, to, count) : ssize_t(-1);
        };
        EXPECT_EQ(KalGetStr(stream, line, 8), -252);
    }
    EXPECT_EQ(std::string(line), std::string("abc") + char(-252) + "####")
        << "the low byte of the result, no zero";
    stream->close(stream);
}

TEST_F(LineText, AStandingStatusEndsTheLineAfterOneCharacter) {
    SFILE* stream = streamOf(disk, 512, "abc\rdef");
    EXPECT_EQ(stream->getChar(stream), 'a');
    stream->status = KAL_ERR_SEEK; // as a refused seek leaves it, with bytes still in the buffer
    char line[] = "########";
    EXPECT_EQ(KalGetStr(stream, line, 8), KAL_ERR_SEEK);
    EXPECT_STREQ(line, "b#######");
    EXPECT_EQ(stream->seek(stream, 0, KAL_SEEK_CURRENT), 0);
    EXPECT_EQ(KalGetStr(stream, line, 8), 0);
    EXPECT_STREQ(line, "c");
    stream->close(stream);
}

TEST_F(LineText, TextsAreWrittenWhole) {
    SFILE* stream = nullptr;
    ASSERT_EQ(KalOpenFile(&stream, "out", KAL_MODE_CREATE | KAL_MODE_WRITE, 0), 0);
    EXPECT_EQ(KalPutStr(stream, ""), 0);
    EXPECT_EQ(KalPutStr(stream, "a\nb"), 0);
    EXPECT_EQ(KalPutStrX(stream, "\na\r\n\nb"), 0);
    EXPECT_EQ(KalPutStrX(stream, ""), 0);
    const std::string longText(65'536, 'x');
    EXPECT_EQ(KalPutStr(stream, longText.c_str()), 0);
    EXPECT_EQ(stream->close(stream), 0);
    EXPECT_EQ(readFile("out"), bytesOf("a\nb\r\na\r\r\n\r\nb" + longText.substr(1)));

    ASSERT_EQ(KalOpenFile(&stream, "out", 0, 0), 0);
    EXPECT_EQ(KalPutStr(stream, "x"), -251);
    EXPECT_EQ(KalPutStrX(stream, "\n"), -251);
    stream->close(stream);

    ASSERT_EQ(KalOpenFile(&stream, "small", KAL_MODE_CREATE | KAL_MODE_WRITE, 0), 0);
    EXPECT_EQ(KalSetBuf(stream, 0), 0);
    FileSizeLimit limit(5);
    EXPECT_EQ(KalPutStrX(stream, "abc\n\n\n"), -254);
    EXPECT_EQ(readFile("small"), bytesOf("abc\r\n"));
    EXPECT_EQ(KalPutStr(stream, "x"), -254);
    stream->close(stream);
}
