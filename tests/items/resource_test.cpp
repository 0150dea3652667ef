// Resources read from item files made here byte for byte.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/heap.h>
#include <kal/path.h>
#include <kal/resource.h>

#include <cstring>
#include <filesystem>

namespace {

class Resources : public FolderTest {
protected:
    ~Resources() override {
        if (file_ != nullptr)
            KalCloseRes(file_);
    }
    // Makes a file of these resources, ids from 1 on, and opens it.
    IFILE* open(const std::vector<Bytes>& contents, uint16_t format = 0) {
        IFILE* made = nullptr;
        EXPECT_EQ(KalOpenIFile(&made, "res", KAL_MODE_CREATE | KAL_MODE_UPDATE, format), 0);
        for (size_t i = 0; i < contents.size(); i++)
            KalWriteIFile(made, contents[i].data(), uint32_t(contents[i].size()), uint16_t(i + 1));
        EXPECT_EQ(KalCloseIFile(made), 0);
        EXPECT_EQ(KalOpenRes(&file_, "res", 0), 0);
        return file_;
    }
    void close() {
        EXPECT_EQ(KalCloseRes(file_), 0);
        file_ = nullptr;
    }
    // The first `count` strings of a text resource, a blank after each.
    static std::string strings(IFILE* file, uint16_t id, size_t count) {
        char** texts = nullptr;
        const int16_t status = KalGetTextResData(file, id, &texts);
        if (status != 0)
            return std::to_string(status);
        EXPECT_EQ(KalSizeSMem(texts), count * sizeof(char*)) << "as many as there are strings";
        std::string all;
        for (size_t i = 0; i < count; i++)
            all += texts[i] + std::string(" ");
        EXPECT_EQ(KalDestroyTextRes(texts), 0);
        return all;
    }
    static Bytes text(const std::string& bytes) { return bytesOf(bytes); }

private:
    IFILE* file_ = nullptr;
};

using Reader = int16_t (*)(IFILE*, uint16_t, void**);
struct RawCall {
    Reader read;
    int16_t noMemory;
    int16_t empty;
};
constexpr RawCall rawCalls[] = {
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
    const std::vector<Bytes> contents = {randomBytes(65535, 1), {0x7F}, {}, randomBytes(600, 2)};
    for (const uint16_t format : std::initializer_list<uint16_t>{0, 0x8000}) {
        IFILE* file = open(contents, format);
        const Bytes before = readFile("res");
        for (const RawCall& call : rawCalls) {
            HeapBalance balance;
            for (uint16_t id = 1; id <= contents.size(); id++) {
                const Bytes& content = contents[id - 1u];
                void* data = nullptr;
                EXPECT_EQ(call.read(file, id, &data), content.empty() ? call.empty : 0);
                ASSERT_NE(data, nullptr);
                const auto* bytes = static_cast<uint8_t*>(data);
                EXPECT_EQ(Bytes(bytes, bytes + KalSizeSMem(data)), content);
                EXPECT_EQ(id % 2 != 0 ? KalDestroyRes(data) : KalDestroySRes(data), 0);
            }
            void* untouched = &balance;
            EXPECT_EQ(call.read(file, 99, &untouched), -298);
            EXPECT_EQ(call.read(file, KAL_ITEM_FREE, &untouched), -298);
            EXPECT_EQ(untouched, &balance);
            failHeapAllocation(1);
            EXPECT_EQ(call.read(file, 1, &untouched), call.noMemory);
            EXPECT_EQ(untouched, nullptr);
            failHeapAllocation(0);
        }
        void* untouched = file;
        EXPECT_EQ(KalGetRes(file, 99, 2, &untouched), -299);
        EXPECT_EQ(KalGetSRes(file, 1, 2, &untouched), -299);
        EXPECT_EQ(untouched, file);
        EXPECT_EQ(KalDestroyRes(nullptr), -100);
        close();
        EXPECT_EQ(readFile("res"), before) << "only read";
    }
}

TEST_F(Resources, TextsEndWhereTheirItemDoes) {
    using namespace std::string_literals;
    const struct {
        std::string bytes;
        size_t count;
        std::string strings;
    } cases[] = {
        {"a\0bc\0\0"s, 2, "a bc "}, {"\0"s, 1, " "},        {"\0\0"s, 1, " "},      {""s, 1, " "},
        {"abc"s, 1, "abc "},        {"abc\0"s, 1, "abc "},  {"a\0bc"s, 2, "a bc "}, {"a\0bc\0"s, 2, "a bc "},
        {"a\0\0b\0\0"s, 1, "a "},   {"\0a\0\0"s, 2, " a "},
    };
    std::vector<Bytes> contents;
    for (const auto& each : cases)
        contents.push_back(text(each.bytes));
    contents.push_back(text(std::string(65535, 'y')));
    IFILE* file = open(contents);
    HeapBalance balance;
    for (uint16_t i = 0; i < std::size(cases); i++)
        EXPECT_EQ(strings(file, uint16_t(i + 1), cases[i].count), cases[i].strings) << i;
    EXPECT_EQ(strings(file, uint16_t(std::size(cases) + 1), 1).size(), 65536u);
    char** untouched = nullptr;
    EXPECT_EQ(KalGetSTextResData(file, 99, &untouched), -298);
    withEachAllocationFailing([&](int) {
        char** texts = nullptr;
        const int16_t status = KalGetSTextResData(file, 1, &texts);
        EXPECT_EQ(status == 0, texts != nullptr);
        if (status == 0) {
            EXPECT_EQ(KalDestroyTextSRes(texts), 0);
        } else {
            EXPECT_EQ(status, -100);
        }
    });
    EXPECT_EQ(KalDestroyTextRes(nullptr), -100);
    char notOurs = 0;
    auto** array = static_cast<char**>(KalAllocSMem(sizeof(char*)));
    array[0] = &notOurs;
    EXPECT_EQ(KalDestroyTextRes(array), -100) << "the strings first, and then no further";
    EXPECT_EQ(KalFreeSMem(array), 0);
}

TEST_F(Resources, AFileThatEndsEarly) {
    open({randomBytes(50, 1), text(std::string(50, 'x'))});
    close();
    std::filesystem::resize_file("res", 144); // ten bytes of the second item
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenRes(&file, "res", 0), 0);
    void* data = nullptr;
    EXPECT_EQ(KalReadByteResData(file, 2, &data), -256);
    EXPECT_EQ(KalDestroyRes(data), 0) << "the block is there to be freed";
    EXPECT_EQ(strings(file, 2, 1), std::string(10, 'x') + " ");
    EXPECT_EQ(KalCloseRes(file), 0);
}

TEST_F(Resources, TheyAreFoundAlongTheSearchText) {
    std::filesystem::create_directory("home");
    open({text("here")});
    close();
    std::filesystem::rename("res", "home/APP.RES");
    IFILE* file = nullptr;
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 0), -202);
    KalSetHome("home\\PROG.EXE");
    ASSERT_EQ(KalOpenRes(&file, "APP.RES", 0), 0);
    EXPECT_EQ(strings(file, 1, 1), "here ");
    EXPECT_EQ(KalCloseRes(file), 0);
    EXPECT_EQ(KalOpenRes(&file, "APP.RES", 5), -650);
    KalSetHome(nullptr);
}

TEST_F(Resources, TheDescribedExampleReads) {
    writeFile("res", hexExample("docs/formats/resource-file.md"));
    IFILE* file = nullptr;
    ASSERT_EQ(KalOpenRes(&file, "res", 0), 0);
    EXPECT_EQ(strings(file, 1, 2), "Open Close ");
    void* data = nullptr;
    EXPECT_EQ(KalReadByteResData(file, 2, &data), 0);
    EXPECT_EQ(KalSizeSMem(data), 2u);
    EXPECT_EQ(std::memcmp(data, "\xCA\xFE", 2), 0);
    EXPECT_EQ(KalDestroyRes(data), 0);
    EXPECT_EQ(KalCloseRes(file), 0);
}
