// Resources read from item files.
#include "tests/items/items.h"
#include "tests/support/faults.h"

namespace {

using namespace std::string_literals;

// Opens a file of these resources, ids from 1 on, of which the last bytes are cut off.
IFILE* resources(const std::vector<std::string>& contents, uint16_t format, size_t cut) {
    IFILE* file = openItems(kNew, format);
    for (size_t i = 0; i < contents.size(); i++)
        write(file, uint16_t(i + 1), contents[i]);
    EXPECT_EQ(KalFlushIFile(file), KAL_OK);
    EXPECT_EQ(faultsIn(file->stream, KalVerifyResources), "");
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
    fs::resize_file("f", fs::file_size("f") - cut);
    EXPECT_EQ(KalOpenRes(&file, "f", 0), KAL_OK);
    return file;
}

// The strings of a text resource, a blank after each.
std::string strings(IFILE* file, uint16_t id) {
    char** texts = nullptr;
    if (const int16_t status = KalGetTextResData(file, id, &texts); status != KAL_OK)
        return KalStatusName(status);
    std::string all;
    for (size_t i = 0; i < KalSizeSMem(texts) / sizeof(char*); i++)
        all += texts[i] + " "s;
    EXPECT_EQ(KalDestroyTextRes(texts), KAL_OK);
    return all;
}

using Resources = FolderTest;

} // namespace

TEST_F(Resources, DataOfEverySize) {
    const std::string contents[] = {std::string(65535, 'x'), "\x7F", "", std::string(50, 'y')};
    const auto calls = {KalReadByteResData, KalReadWordResData, KalReadSByteResData, KalReadSWordResData};
    for (uint16_t way = 0; way < 16; way++) {
        const uint16_t type = way % 2;
        const bool small = way & 2;
        const auto read = [&](IFILE* file, uint16_t id, void** data) {
            return way & 4 ? (small ? KalGetSRes : KalGetRes)(file, id, type, data)
                           : calls.begin()[way % 4](file, id, data);
        };
        IFILE* file = resources({contents, contents + 4}, way & 8 ? KAL_ITEMS_WIDE : 0, 40);
        void* data = &file;
        for (const uint16_t none : Words{99, KAL_ITEM_FREE})
            EXPECT_EQ(read(file, none, &data), KAL_ERR_RESOURCE);
        EXPECT_EQ(data, &file) << "untouched";
        const int statuses[] = {KAL_OK, KAL_OK, type == KAL_RES_WORDS ? KAL_ERR_READ : KAL_OK, KAL_ERR_END};
        for (uint16_t id = 1; id <= 4; id++) {
            EXPECT_EQ(read(file, id, &data), statuses[id - 1]) << id;
            EXPECT_EQ(std::string(static_cast<char*>(data), KalSizeSMem(data)),
                      id < 4 ? contents[id - 1] : std::string(10, 'y') + std::string(40, '\0'));
            EXPECT_EQ(small ? KalDestroySRes(data) : KalDestroyRes(data), KAL_OK);
        }
        failHeapAllocation(1);
        EXPECT_EQ(read(file, 1, &data), small ? KAL_ERR_BUFFER : KAL_ERR_MEMORY);
        failHeapAllocation(0);
        EXPECT_EQ((small ? KalGetSRes : KalGetRes)(file, 99, 2, nullptr), KAL_ERR_RESOURCE_TYPE);
        EXPECT_EQ(KalDestroyRes(nullptr), KAL_ERR_MEMORY);
        EXPECT_EQ(KalCloseRes(file), KAL_OK);
    }
}

TEST_F(Resources, TextsEndWhereTheirItemDoes) {
    const std::string y(65535, 'y');
    const std::vector<std::string> contents = {"a\0bc\0\0"s,  "\0\0"s,    "", "abc",      "a\0bc\0"s,
                                               "a\0\0b\0\0"s, "\0a\0\0"s, y,  "cut\0off"s};
    const std::string expected[] = {"a bc ", " ",   " ",     "abc ", "a bc ",
                                    "a ",    " a ", y + " ", "cut ", "KAL_ERR_RESOURCE"};
    IFILE* file = resources(contents, 0, 3);
    for (uint16_t id = 1; id <= 10; id++)
        EXPECT_EQ(strings(file, id), expected[id - 1]) << id;
    char notOurs = 0;
    auto** array = static_cast<char**>(KalAllocSMem(sizeof(char*)));
    array[0] = &notOurs;
    EXPECT_EQ(KalDestroyTextRes(array), KAL_ERR_MEMORY) << "the strings first, and then no further";
    EXPECT_EQ(KalFreeSMem(array), KAL_OK);
    EXPECT_EQ(KalDestroyTextRes(nullptr), KAL_ERR_MEMORY);
    KalCloseRes(file);
}

TEST_F(Resources, TheyAreFoundAlongTheSearchTextAndOnlyRead) {
    fs::create_directory("home");
    const Bytes described = hexExample("docs/formats/resource-file.md");
    writeFile("home/APP.RES", described);
    IFILE* file = nullptr;
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 0), KAL_ERR_OPEN - ENOENT);
    KalSetHome("home\\PROG.EXE");
    ASSERT_EQ(KalOpenRes(&file, "APP.RES", 0), KAL_OK);
    EXPECT_EQ(strings(file, 1), "Open Close ");
    EXPECT_EQ(item(file, 2), "\xCA\xFE");
    EXPECT_EQ(KalCloseRes(file), KAL_OK);
    EXPECT_EQ(readFile("home/APP.RES"), described);
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 5), KAL_ERR_FORMAT);
    file = openItems(kNew, KAL_ITEMS_WIDE);
    write(file, 1, std::string(65536, 'x'));
    KalFlushIFile(file);
    EXPECT_EQ(faultsIn(file->stream, KalVerifyResources), "4/1 have ") << "too many bytes";
    EXPECT_EQ(KalCloseIFile(file), KAL_OK);
}
