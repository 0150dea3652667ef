// Resources read from item files.
#include "tests/items/items.h"
#include "tests/support/faults.h"

#include <kal/path.h>
#include <kal/resource.h>

#include <cstring>
#include <filesystem>

namespace {

class Resources : public FolderTest {
protected:
    ~Resources() override { EXPECT_EQ(KalCloseRes(file_), 0); }
    // Makes a file of these resources, ids from 1 on, and opens it.
    IFILE* open(const std::vector<std::string>& contents, uint16_t format = 0) {
        IFILE* made = openItems(kNew, format);
        for (size_t i = 0; i < contents.size(); i++)
            write(made, uint16_t(i + 1), contents[i]);
        EXPECT_EQ(KalCloseIFile(made), 0);
        return reopen();
    }
    IFILE* reopen() {
        KalCloseRes(file_);
        EXPECT_EQ(KalOpenRes(&file_, "f", 0), 0);
        return file_;
    }
    // The first `count` strings of a text resource, a blank after each.
    static std::string strings(IFILE* file, uint16_t id, size_t count) {
        char** texts = nullptr;
        if (const int16_t status = KalGetTextResData(file, id, &texts); status != 0)
            return std::to_string(status);
        EXPECT_EQ(KalSizeSMem(texts), count * sizeof(char*)) << "as many as there are strings";
        std::string all;
        for (size_t i = 0; i < count; i++)
            all += texts[i] + std::string(" ");
        EXPECT_EQ(KalDestroyTextRes(texts), 0);
        return all;
    }

    IFILE* file_ = nullptr;
};

const struct {
    int16_t (*read)(IFILE*, uint16_t, void**);
    int16_t noMemory, empty;
} rawCalls[] = {
    {KalReadByteResData, -100, 0},
    {KalReadWordResData, -100, -252},
    {KalReadSByteResData, -105, 0},
    {KalReadSWordResData, -105, -252},
    {[](IFILE* f, uint16_t id, void** out) { return KalGetRes(f, id, 0, out); }, -100, 0},
    {[](IFILE* f, uint16_t id, void** out) { return KalGetRes(f, id, 1, out); }, -100, -252},
    {[](IFILE* f, uint16_t id, void** out) { return KalGetSRes(f, id, 0, out); }, -105, 0},
    {[](IFILE* f, uint16_t id, void** out) { return KalGetSRes(f, id, 1, out); }, -105, -252},
};

} // namespace

TEST_F(Resources, DataOfEverySize) {
    const std::vector<std::string> contents = {std::string(65535, 'x'), "\x7F", "", std::string(600, 'y')};
    for (const uint16_t format : Words{0, 0x8000}) {
        IFILE* file = open(contents, format);
        for (const auto& call : rawCalls) {
            HeapBalance balance;
            void* data = nullptr;
            for (uint16_t id = 1; id <= contents.size(); id++) {
                const std::string& content = contents[id - 1u];
                EXPECT_EQ(call.read(file, id, &data), content.empty() ? call.empty : 0);
                EXPECT_EQ(std::string(static_cast<char*>(data), KalSizeSMem(data)), content);
                EXPECT_EQ(id % 2 != 0 ? KalDestroyRes(data) : KalDestroySRes(data), 0);
            }
            data = &balance;
            EXPECT_EQ(call.read(file, 99, &data), -298);
            EXPECT_EQ(call.read(file, KAL_ITEM_FREE, &data), -298);
            EXPECT_EQ(data, &balance) << "untouched";
            failHeapAllocation(1);
            EXPECT_EQ(call.read(file, 1, &data), call.noMemory);
            EXPECT_EQ(data, nullptr);
            failHeapAllocation(0);
        }
        EXPECT_EQ(KalGetRes(file, 99, 2, nullptr), -299);
        EXPECT_EQ(KalGetSRes(file, 1, 2, nullptr), -299);
        EXPECT_EQ(KalDestroyRes(nullptr), -100);
    }
}

TEST_F(Resources, TextsEndWhereTheirItemDoes) {
    using namespace std::string_literals;
    const struct {
        std::string bytes;
        size_t count;
        std::string strings;
    } cases[] = {
        {"a\0bc\0\0"s, 2, "a bc "},
        {"\0\0"s, 1, " "},
        {""s, 1, " "},
        {"abc"s, 1, "abc "},
        {"a\0bc\0"s, 2, "a bc "},
        {"a\0\0b\0\0"s, 1, "a "},
        {"\0a\0\0"s, 2, " a "},
        {std::string(65535, 'y'), 1, ""},
    };
    std::vector<std::string> contents;
    for (const auto& each : cases)
        contents.push_back(each.bytes);
    IFILE* file = open(contents);
    HeapBalance balance;
    for (uint16_t i = 0; i < std::size(cases); i++) {
        const std::string& wanted = cases[i].strings.empty() ? cases[i].bytes + " " : cases[i].strings;
        EXPECT_EQ(strings(file, uint16_t(i + 1), cases[i].count), wanted) << i;
    }
    EXPECT_EQ(strings(file, 99, 1), "-298");
    withEachAllocationFailing([&](int) {
        char** texts = nullptr;
        const int16_t status = KalGetSTextResData(file, 1, &texts);
        EXPECT_EQ(status, texts != nullptr ? 0 : -100);
        EXPECT_EQ(KalDestroyTextSRes(texts), status);
    });
    char notOurs = 0;
    auto** array = static_cast<char**>(KalAllocSMem(sizeof(char*)));
    array[0] = &notOurs;
    EXPECT_EQ(KalDestroyTextRes(array), -100) << "the strings first, and then no further";
    EXPECT_EQ(KalFreeSMem(array), 0);
}

TEST_F(Resources, AFileThatEndsEarlyAndTheDescribedOne) {
    open({std::string(50, 'x'), std::string(50, 'x')});
    std::filesystem::resize_file("f", 144); // ten bytes of the second item
    IFILE* file = reopen();
    void* data = nullptr;
    EXPECT_EQ(KalReadByteResData(file, 2, &data), -256);
    EXPECT_EQ(KalDestroyRes(data), 0) << "the block is there to be freed";
    EXPECT_EQ(strings(file, 2, 1), std::string(10, 'x') + " ");
    writeFile("f", hexExample("docs/formats/resource-file.md"));
    file = reopen();
    EXPECT_EQ(strings(file, 1, 2), "Open Close ");
    EXPECT_EQ(item(file, 2), "\xCA\xFE");
}

TEST_F(Resources, TheyAreFoundAlongTheSearchText) {
    std::filesystem::create_directory("home");
    open({"here"});
    std::filesystem::copy("f", "home/APP.RES");
    const Bytes before = readFile("home/APP.RES");
    IFILE* file = nullptr;
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 0), -202);
    KalSetHome("home\\PROG.EXE");
    ASSERT_EQ(KalOpenRes(&file, "APP.RES", 0), 0);
    EXPECT_EQ(strings(file, 1, 1), "here ");
    EXPECT_EQ(KalCloseRes(file), 0);
    EXPECT_EQ(readFile("home/APP.RES"), before) << "only read";
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 5), -650);
    KalSetHome(nullptr);
}
