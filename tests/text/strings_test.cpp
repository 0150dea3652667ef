// Strings, blocks, sorting and statuses.
#include "tests/support/room.h"

namespace {

std::string compared;
uintptr_t lowest;

// Elements compare by their first byte; the byte behind it is an element's name.
int32_t compareBytes(const void* left, const void* right) {
    const auto* l = static_cast<const uint8_t*>(left);
    const auto* r = static_cast<const uint8_t*>(right);
    lowest = std::min(lowest, reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
    if (compared.size() < 400)
        compared += {char(l[1]), char(r[1]), ' '};
    return *l - *r;
}

// The comparisons that sorting elements of two bytes makes.
std::string sorted(std::string& array) {
    compared.clear();
    KalQSort(array.data(), uint32_t(array.size() / 2), 2, compareBytes);
    return compared;
}

} // namespace

TEST(QSort, ArraysOfAnyWidthAreSortedAndKeepTheirElements) {
    std::mt19937 random(3);
    for (int round = 0; round < 300; round++) {
        const size_t width = 1 + random() % 20, count = random() % (round % 9 == 0 ? 700 : 12);
        const uint8_t range = uint8_t(1 + random() % (round % 2 == 0 ? 3 : 255));
        std::vector<std::string> elements(count, std::string(width, 0));
        std::string array;
        for (auto& element : elements) {
            std::generate(element.begin(), element.end(), [&] { return char(random() % range % 128); });
            array += element;
        }
        Room room(array.size() + 1); // the name of the last
        std::memcpy(room.data(), array.data(), array.size());
        KalQSort(room.data(), uint32_t(count), uint32_t(width), compareBytes);
        std::vector<std::string> got;
        for (size_t i = 0; i < count; i++)
            got.emplace_back(room.data() + i * width, width);
        EXPECT_TRUE(std::ranges::is_sorted(got, {}, [](const auto& e) { return e[0]; })) << round;
        EXPECT_TRUE(std::ranges::is_permutation(got, elements)) << round;
    }
    uint8_t nothing = 1;
    KalQSort(&nothing, 5, 0, compareBytes);
    KalQSort(nullptr, 0, 4, compareBytes);
}

// Which elements are compared, and in what order equal ones come to lie, is part of what callers see.
TEST(QSort, MakesTheKnownComparisonsOnAStackOfLogarithmicDepth) {
    std::string array = "3a1b2c3d1e9f3g0h2i",
                halves = "5a1b7c2d9e3f8g4h6i"; // parts of one size: the upper first
    EXPECT_EQ(sorted(array),
              "ab ba ca da ea fa ia ga ha ha bh gh ih eh dh ch bh cb gb ib eb db cb dc gc ic ec dc "
              "ec id gd id ");
    EXPECT_EQ(array, "0h1b1e2c2i3d3g3a9f");
    EXPECT_EQ(sorted(halves), "ab ba ca ia ha da ea ga fa ea fa ge ce ie gi ci gi cg bf hf df df bd ");
    EXPECT_EQ(sorted(array).size(), 8u * 3) << "a sorted array is only looked through";
    std::string steep(400, 0); // sorted but for its ends: each partition splits one element off
    for (size_t i = 0; i < steep.size(); i += 2)
        steep[i] = char(i == 0 ? 1 : i == 2 ? 0 : i / 2);
    lowest = UINTPTR_MAX;
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    sorted(steep);
    EXPECT_LT(here - lowest, 8 * 1024u);
}

TEST(Strings, UpperCaseIsForTheAsciiLettersAloneAndCentringFillsTheField) {
    std::string text = "@AZ[`az{\x80\xE4\xFF";
    EXPECT_EQ(toupper(text.data()), text.data());
    EXPECT_EQ(text, "@AZ[`AZ{\x80\xE4\xFF");
    EXPECT_EQ(toupper(nullptr), nullptr);
    for (const std::string row :
         {"AB|5|*AB**", "AB|4|*AB*", "AB|2|AB", "ABC|2|ABC", "|3|***", "ABCDE|6|ABCDE*", "|0|"}) {
        const auto width = uint32_t(std::stoi(pieces(row)[1]));
        Room room(width + 1, pieces(row)[0]);
        KalCenterString(room.data(), width, '*');
        EXPECT_EQ(room.text(), pieces(row)[2]);
    }
    KalCenterString(nullptr, 5, '*');
}

TEST(Strings, BlocksCompareAsSignedBytes) {
    std::mt19937 random(21);
    for (int round = 0; round < 2000; round++) {
        std::vector<int8_t> left(random() % 300);
        std::generate(left.begin(), left.end(), [&] { return int8_t(random()); });
        auto right = left;
        for (int changes = round % 3; changes > 0 && !left.empty(); changes--)
            right[random() % right.size()] = int8_t(random());
        ASSERT_EQ(KalMemCmp(left.data(), right.data(), int32_t(left.size())),
                  left < right ? -1 : left > right);
    }
    EXPECT_EQ(KalMemCmp("a", "b", -1), 0);
}

TEST(Status, HasANameAndATextInWords) {
    for (const std::string row :
         {"0|KAL_OK|done", "-256|KAL_ERR_END|its end is reached",
          "-1281|KAL_ERR_EMPTY_PATH|the path is empty", "-200|KAL_ERR_OPEN|cannot be opened or made",
          "-213|KAL_ERR_OPEN|permission denied", "-228|KAL_ERR_OPEN|no room left on the disk",
          "-333|KAL_ERR_OPEN|cannot be opened or made", "-334||unknown status", "-1||unknown status",
          "1||refused"}) {
        const auto status = int16_t(std::stoi(row));
        const char* name = KalStatusName(status);
        EXPECT_EQ((name != nullptr ? name : "") + std::string("|") + KalStatusText(status),
                  row.substr(row.find('|') + 1));
    }
}
