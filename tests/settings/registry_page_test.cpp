// The page on the registry's format, held against what the library writes and reads.
#include "tests/support/registry_test.h"

#include <kal/tagset.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace fs = std::filesystem;

using RegistryPage = RegistryTest;

namespace {

struct Page {
    std::map<std::string, Bytes> files;
    std::string key; // of the counter that the page names
    uint32_t counter = 0;
};

Page readPage() {
    std::ifstream in(KAL_SOURCE_DIR "/docs/formats/registry.md");
    Page page;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("morvek.image/", 0) == 0) {
            std::istringstream words(line);
            std::string path;
            words >> path >> std::hex;
            Bytes& bytes = page.files[path];
            for (unsigned byte; words >> byte;)
                bytes.push_back(static_cast<uint8_t>(byte));
        } else if (line.rfind("The counter of the key `", 0) == 0) {
            page.key = line.substr(24, line.find('`', 24) - 24);
            page.counter = static_cast<uint32_t>(std::stoul(line.substr(line.find("number ") + 7)));
        }
    }
    return page;
}

} // namespace

TEST_F(RegistryPage, TheExampleIsWhatIsWrittenAndReads) {
    const Page page = readPage();
    ASSERT_EQ(page.files.size(), 9u);
    const auto counterOf = [&] {
        uint32_t number;
        std::memcpy(&number, readFile(persistentTree() + "/.changes").data() + page.counter * 4, 4);
        return number;
    };
    {
        TagSet set;
        ASSERT_EQ(set.SetPath("Maker\\App", 1), 0);
        set.SetTag("A?C", "1");
        set.SetTag("Colour", "red");
        const uint32_t before = counterOf();
        set.SetTag("Colour", "blue");
        EXPECT_EQ(counterOf(), before + 1);
    }
    EXPECT_EQ(page.key, "morvek.image/settings/maker/app/colour");
    std::map<std::string, Bytes> written;
    for (const auto& entry : fs::recursive_directory_iterator(persistentTree()))
        if (entry.is_regular_file() && entry.path().filename() != ".changes")
            written[fs::relative(entry.path(), persistentTree())] = readFile(entry.path());
    EXPECT_EQ(written, page.files);
    EXPECT_EQ(fs::file_size(persistentTree() + "/.changes"), 4096u);

    // A tree that somebody else laid out after the page.
    setenv("KAL_REGISTRY", path("other").c_str(), 1);
    for (const auto& [file, bytes] : page.files) {
        fs::create_directories(fs::path(path("other/" + file)).parent_path());
        writeFile(path("other/" + file), bytes);
    }
    TagSet set;
    ASSERT_EQ(set.SetPath("MAKER\\APP", 1), 0);
    EXPECT_STREQ(set.GetTempTag("colour"), "blue");
    EXPECT_STREQ(set.GetTempTag("abc"), "1");
    EXPECT_STREQ(TagSearch(&set, "").NextTag(), "Colour");
}
