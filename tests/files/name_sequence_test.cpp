#include "tests/support/room.h"

namespace {

class NameSequence : public FolderTest {
protected:
    // The status where it is not 0, and the path.
    static std::string sequence(const std::string& path, int32_t number, uint32_t size = 300) {
        Room room(size, path);
        const int16_t status = KalSequenceFilename(room.data(), size, number);
        return (status != 0 ? nameOf(status) + " " : "") + room.text();
    }
    static std::string increment(const std::string& path) {
        Room room(path.size() + 2, path); // it grows by one character at most
        EXPECT_EQ(KalIncrementName(room.data()), room.data());
        return room.text();
    }
    static std::string step(const std::string& text, int32_t maximum) {
        Room room(size_t(std::max(maximum, 0)) + 1, text);
        IncrString(room.data(), maximum);
        return room.text();
    }
};

} // namespace

// Rows of path, number, result.
TEST_F(NameSequence, NumbersGoIntoTheExtensionOrTheBaseName) {
    writeFile("PAGE0004.TIF", {});
    for (const std::string row :
         {"C:\\SCAN\\PHOTOGRAPHS.TIF|12|C:\\SCAN\\PHOTOG12.TIF", "C:\\SCAN\\PAGE.001|7|C:\\SCAN\\PAGE.007",
          "PAGE.TIF|2|PAGE0002.TIF", "PAGE.TIF|1|PAGE.TIF", "PAGE.TIF|0|PAGE.TIF", "A.001|1000|A.1000",
          "A|0|A.000", "A.|1|A.001", "A.7|10|A.010", "A.B.C|2|A0000002.C", "PAGE.TIF|12345678|12345678.TIF",
          "PAGE.TIF|2147483647|2147483647.TIF", "PAGE.TIF|1234567|P1234567.TIF",
          "PAGE.TIF|-1|KAL_ERR_SERVICE PAGE.TIF", "PAGE.TIF|4|KAL_ERR_SERVICE PAGE0004.TIF", "|5|.005",
          "A.B:C|7|A.B:C.007"}) {
        const auto piece = pieces(row);
        EXPECT_EQ(sequence(piece[0], std::stoi(piece[1])), piece[2]) << row;
    }
    EXPECT_EQ(sequence("PAGE.TIF", 3, 13) + sequence("PAGE.TIF", 3, 12),
              "PAGE0003.TIFKAL_ERR_SERVICE PAGE.TIF");
    EXPECT_EQ(KalSequenceFilename(nullptr, 300, 3), KAL_ERR_SERVICE);
    const std::string deep = std::string(259, 'D') + "\\A.001";
    EXPECT_EQ(sequence(deep, 2), "KAL_ERR_SERVICE " + deep) << "never another directory";
    EXPECT_EQ(sequence(deep.substr(1), 2), deep.substr(1, 260) + ".002");
    EXPECT_EQ(increment(deep), deep);
    const std::string a(255, 'A'); // as long as a name can be
    EXPECT_EQ(sequence(a + ".TIF", 2, 900), "AAAAAAA2.TIF");
    EXPECT_EQ(increment(a), a.substr(1) + "2");
}

TEST_F(NameSequence, NamesAndTextsCountUp) {
    // A dot of the directory begins no extension.
    for (const std::string row :
         {"C:\\DIR\\SCAN.009|C:\\DIR\\SCAN.010", "C:\\DIR\\SCAN.TIF|C:\\DIR\\SCAN2.TIF", "SCAN.R01|SCAN.R02",
          "SCAN9.TIF|SCAN10.TIF", "SCAN.X|SCAN.X2", "SCAN.999|SCAN.1000", "SCAN099|SCAN100",
          "SCAN.0X1|SCAN2.0X1", "|2", "C:|C:2", "A.B9:|A.B9:2", "A.B:C9|A.B:C10"})
        EXPECT_EQ(increment(pieces(row)[0]), pieces(row)[1]);
    for (const std::string row :
         {"IMG007|255|IMG008", "IMG099|255|IMG100", "IMG999|255|IMG1000", "PHOTO|255|PHOTO2", "|255|2",
          "ABCDEF7|4|ABC8", "ABC999|6|AB1000", "999|3|100", "AB0099|3|100", "AB0007|2|08", "1234|2|12",
          "PHOTO|5|PHOT2", "A|0|", "9|-4|", "000|255|001", "2147483647|255|2147483648",
          "T20240131235959999|255|T20240131235960000"})
        EXPECT_EQ(step(pieces(row)[0], std::stoi(pieces(row)[1])), pieces(row)[2]) << row;
    EXPECT_EQ(KalIncrementName(nullptr), nullptr);
    IncrString(nullptr, 1);
}
