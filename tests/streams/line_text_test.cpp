// Lines read and texts written. Lines of every kind of stream are the model's.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/stream.h>

#include <cerrno>
#include <string>

namespace {

class LineText : public FolderTest {
protected:
    // A stream that holds `text` and stands at its start.
    static SFILE* streamOf(const std::string& text, uint32_t bufSize = 512) {
        writeFile("text", bytesOf(text));
        SFILE* s = nullptr;
        EXPECT_EQ(KalOpenFile(&s, "text", 0, 0), 0);
        EXPECT_EQ(KalSetBuf(s, bufSize), 0);
        return s;
    }
};

} // namespace

TEST_F(LineText, EveryLineEndEndsALine) {
    const struct {
        const char* text;
        uint32_t size;
        std::vector<std::string> lines; // the last is what stands before the end
    } cases[] = {
        {"ab\r\ncd", 100, {"ab", "cd"}},
        {"ab\rcd", 100, {"ab", "cd"}},
        {"ab\n\rcd", 100, {"ab", "", "cd"}},
        {"abcdef\n", 4, {"abc", "def", "", ""}},
        {"\r\r\n\n", 9, {"", "", "", ""}},
        {"", 9, {""}},
        {"a\r", 9, {"a", ""}},
    };
    for (const auto& each : cases)
        for (const uint32_t bufSize : {0u, 1u, 512u}) {
            SFILE* stream = streamOf(each.text, bufSize);
            for (size_t i = 0; i < each.lines.size(); i++) {
                char line[100] = "#";
                EXPECT_EQ(KalGetStr(stream, line, each.size), i + 1 < each.lines.size() ? 0 : -256);
                EXPECT_EQ(line, each.lines[i]) << each.text;
            }
            stream->close(stream);
        }
}

TEST_F(LineText, SizesOneAndNoneConsumeNothing) {
    SFILE* stream = streamOf("ab");
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

TEST_F(LineText, AFailingReadEndsTheLineWithItsStatus) {
    SFILE* stream = streamOf("abcdef", 1);
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
    SFILE* stream = streamOf("abc\rdef");
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
