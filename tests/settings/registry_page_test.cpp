// The page on the registry's format, held against what the library writes and reads.
#include "tests/support/registry_test.h"

using RegistryPage = RegistryTest;

TEST_F(RegistryPage, TheExampleIsWhatIsWrittenAndReads) {
    {
        TagSet set;
        ASSERT_EQ(set.SetPath("Maker\\App", 1), 0);
        set.SetTag("A?C", "1");
        set.SetTag("Colour", "blue");
        set.SetTag("A?C", nullptr);
    }
    forgetRegistry();
    Bytes page = hexExample("docs/formats/registry.md", 0);
    page.resize(4096);
    for (const uint8_t byte : hexExample("docs/formats/registry.md", 1))
        page.push_back(byte);
    EXPECT_EQ(readFile(persistentTree() + "/log"), page);

    // A log that somebody else wrote after the page.
    setenv("KAL_REGISTRY", path("other").c_str(), 1);
    fs::create_directory(path("other"));
    writeFile(path("other/log"), page);
    TagSet set;
    ASSERT_EQ(set.SetPath("MAKER\\APP", 1), 0);
    EXPECT_STREQ(set.GetTempTag("colour"), "blue");
    EXPECT_EQ(set.GetTempTag("abc"), nullptr);
    EXPECT_STREQ(TagSearch(&set, "").NextTag(), "Colour");
}
