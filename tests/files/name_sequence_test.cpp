#include "tests/support/files.h"

#include <kal/file.h>
#include <kal/path.h>

#include <cstring>
#include <random>

namespace {

class NameSequence : public FolderTest {
protected:
    // The status where it is not 0, and the path.
    static std::string sequence(const std::string& path, int32_t number, uint32_t size = 300) {
        std::string buffer = path;
        buffer.resize(size_t(size) + 16, '#');
        buffer[path.size()] = 0;
        const int16_t status = KalSequenceFilename(buffer.data(), size, number);
        EXPECT_EQ(buffer.substr(size, 8), "########");
        return (status != 0 ? std::to_string(status) + " " : "") + buffer.c_str();
    }
    static std::string increment(const std::string& path) {
        std::string buffer = path + std::string(8, '\0');
        EXPECT_EQ(KalIncrementName(buffer.data()), buffer.data());
        EXPECT_LE(std::strlen(buffer.data()), path.size() + 1) << path << " grows by one character at most";
        return buffer.c_str();
    }
    static std::string step(const std::string& text, int32_t maximum) {
        std::string buffer = text + std::string(1, '\0') + "######";
        IncrString(buffer.data(), maximum);
        const size_t room = std::max(text.size(), size_t(std::max(maximum, 0))) + 1;
        EXPECT_TRUE(room >= buffer.size() || buffer.back() == '#') << "stays within the text's room";
        return buffer.c_str();
    }
};

} // namespace

TEST_F(NameSequence, NumbersGoIntoTheExtensionOrTheBaseName) {
    const struct {
        const char* path;
        int32_t number;
        const char* expected;
    } cases[] = {
        {"C:\\SCAN\\PAGE.TIF", 3, "C:\\SCAN\\PAGE0003.TIF"},
        {"C:\\SCAN\\PHOTOGRAPHS.TIF", 12, "C:\\SCAN\\PHOTOG12.TIF"},
        {"C:\\SCAN\\PAGE.001", 7, "C:\\SCAN\\PAGE.007"},
        {"C:\\SCAN\\PAGE", 45, "C:\\SCAN\\PAGE.045"},
        {"C:\\SCAN\\PAGE.TIF", 1, "C:\\SCAN\\PAGE.TIF"},
        {"C:\\SCAN\\PAGE.TIF", 0, "C:\\SCAN\\PAGE.TIF"},
        {"A.001", 1000, "A.1000"},
        {"A", 0, "A.000"},
        {"A.", 1, "A.001"},
        {"A.7", 10, "A.010"},
        {"A.B.C", 2, "A0000002.C"},
        {"PAGE.TIF", 12345678, "12345678.TIF"},
        {"PAGE.TIF", 2147483647, "2147483647.TIF"},
        {"PAGE.TIF", 1234567, "P1234567.TIF"},
        {"PAGE.TIF", -3, "-250 PAGE.TIF"},
        {"", 5, ".005"},
        {"A.B:C", 7, "A.B:C.007"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(sequence(each.path, each.number), each.expected) << each.path;
    EXPECT_EQ(sequence("PAGE.TIF", 3, 13), "PAGE0003.TIF");
    EXPECT_EQ(sequence("PAGE.TIF", 3, 12), "-250 PAGE.TIF");
    writeFile("PAGE0004.TIF", {});
    EXPECT_EQ(sequence("PAGE.TIF", 4), "-250 PAGE0004.TIF");
    const std::string deep = std::string(259, 'D') + "\\A.001";
    EXPECT_EQ(sequence(deep, 2), "-250 " + deep) << "never another directory";
    EXPECT_EQ(sequence(deep.substr(1), 2), deep.substr(1, 260) + ".002");
    EXPECT_EQ(increment(deep), deep);
}

TEST_F(NameSequence, NamesCountUp) {
    const char* const cases[][2] = {
        {"C:\\DIR\\SCAN.009", "C:\\DIR\\SCAN.010"},
        {"C:\\DIR\\SCAN.R01", "C:\\DIR\\SCAN.R02"},
        {"C:\\DIR\\SCAN.TIF", "C:\\DIR\\SCAN2.TIF"},
        {"C:\\DIR\\SCAN9.TIF", "C:\\DIR\\SCAN10.TIF"},
        {"C:\\DIR\\SCAN.X", "C:\\DIR\\SCAN.X2"},
        {"SCAN.999", "SCAN.1000"},
        {"SCAN099", "SCAN100"},
        {"SCAN.0X1", "SCAN2.0X1"},
        {"", "2"},
        {"C:", "C:2"},
        {"A.B9:", "A.B9:2"}, // a dot of the directory begins no extension
        {"A.B:C9", "A.B:C10"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(increment(each[0]), each[1]);
}

TEST_F(NameSequence, RandomNamesStayWithinTheirSizes) {
    std::mt19937 random(1);
    const auto text = [&](size_t most) {
        std::string made(random() % most, 0);
        for (char& c : made)
            c = "\\:..A99;"[random() % 8];
        return made;
    };
    for (int round = 0; round < 20'000; round++) {
        const std::string path = text(round % 50 == 0 ? 700 : 12);
        SCOPED_TRACE(path);
        increment(path);
        sequence(path, int32_t(random() % 2000), uint32_t(path.size() + 1 + random() % 20));
        std::string made(800, '#');
        const auto size = uint32_t(random() % 300);
        for (const auto part : {KalGetDir, KalGetFile, KalGetExt}) {
            made.assign(800, '#');
            const int32_t length = part(path.c_str(), made.data(), size);
            ASSERT_TRUE(size == 0 ? made[0] == '#' : made[size_t(length)] == 0 && made[size] == '#');
        }
        if (size > path.size()) {
            made.assign(path).resize(800, '#');
            made[path.size()] = 0;
            KalGetUnique(made.data(), size);
            ASSERT_EQ(made[size], '#');
        }
    }
}

TEST_F(NameSequence, TheNumberInAText) {
    const struct {
        const char* text;
        int32_t maximum;
        const char* expected;
    } cases[] = {
        {"IMG007", 255, "IMG008"},
        {"IMG099", 255, "IMG100"},
        {"IMG999", 255, "IMG1000"},
        {"PHOTO", 255, "PHOTO2"},
        {"", 255, "2"},
        {"ABCDEF7", 4, "ABC8"},
        {"ABC999", 6, "AB1000"},
        {"999", 3, "100"},
        {"AB0099", 3, "100"},
        {"AB0007", 2, "08"},
        {"1234", 2, "12"},
        {"PHOTO", 5, "PHOT2"},
        {"A", 0, ""},
        {"9", -4, ""},
        {"000", 255, "001"},
        {"2147483647", 255, "2147483648"},
        {"T20240131235959999", 255, "T20240131235960000"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(step(each.text, each.maximum), each.expected) << each.text << " in " << each.maximum;
}
