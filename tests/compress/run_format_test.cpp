// The worked example of the format's page is what the library writes and reads.
#include "tests/support/files.h"
#include "tests/support/vector_stream.h"

#include <kal/cfile.h>

#include <sstream>

namespace {

// The bytes, in hexadecimal, of the line of the page that starts with `label`.
Bytes exampleBytes(const std::string& label) {
    const Bytes page = readFile(KAL_SOURCE_DIR "/docs/formats/run.md");
    std::istringstream lines(std::string(page.begin(), page.end()));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, label.size(), label) != 0)
            continue;
        std::istringstream words(line.substr(label.size()));
        Bytes bytes;
        for (std::string word; words >> word;)
            bytes.push_back(uint8_t(std::stoi(word, nullptr, 16)));
        return bytes;
    }
    ADD_FAILURE() << "no line starts with " << label;
    return {};
}

} // namespace

TEST(RunFormat, ThePagesExampleIsWrittenAndRead) {
    const Bytes plain = exampleBytes("plain:");
    const Bytes stored = exampleBytes("stored:");
    ASSERT_EQ(plain.size(), 5u);
    VectorStream stream;
    scfiletag* cfile;
    ASSERT_EQ(KalMakeCFile(&cfile, stream.file()), 0);
    EXPECT_EQ(KalWriteCFile(cfile, plain.data(), 5), 5);
    EXPECT_EQ(KalFlushCFile(cfile), 0);
    EXPECT_EQ(stream.bytes, stored);
    stream.rewind();
    Bytes back(5);
    EXPECT_EQ(KalReadCFile(cfile, back.data(), 5), 5);
    EXPECT_EQ(back, plain);
    KalFreeCFile(cfile);
}
