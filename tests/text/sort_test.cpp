#include <kal/text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

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

} // namespace

TEST(QSort, ArraysOfAnyWidthAreSortedAndKeepTheirElements) {
    std::mt19937 random(3);
    for (const size_t width : {1u, 2u, 3u, 8u, 13u, 100u})
        for (const size_t count : {0u, 1u, 2u, 3u, 7u, 50u, 700u})
            for (const int range : {1, 3, 256}) {
                std::vector<std::vector<uint8_t>> elements(count, std::vector<uint8_t>(width));
                std::vector<uint8_t> array;
                for (auto& element : elements) {
                    for (uint8_t& byte : element)
                        byte = uint8_t(int(random()) % range);
                    array.insert(array.end(), element.begin(), element.end());
                }
                array.resize(array.size() + 2, 0xEE); // for the name of the last, and to be left alone
                KalQSort(array.data(), uint32_t(count), uint32_t(width), compareBytes);
                std::vector<std::vector<uint8_t>> sorted;
                for (size_t i = 0; i < count; i++)
                    sorted.emplace_back(&array[i * width], &array[i * width] + width);
                const auto byKey = [](const auto& l, const auto& r) { return l[0] < r[0]; };
                EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end(), byKey)) << count << " of " << width;
                std::sort(sorted.begin(), sorted.end());
                std::sort(elements.begin(), elements.end());
                EXPECT_EQ(sorted, elements) << count << " of " << width;
                EXPECT_EQ(array[count * width], 0xEE);
            }
    uint8_t nothing = 1;
    KalQSort(&nothing, 5, 0, compareBytes);
    KalQSort(nullptr, 0, 4, compareBytes);
}

// Which elements are compared, and in what order equal ones come to lie, is part of what callers see.
TEST(QSort, MakesTheKnownComparisons) {
    char array[] = "3a1b2c3d1e9f3g0h2i";
    compared.clear();
    KalQSort(array, 9, 2, compareBytes);
    EXPECT_STREQ(array, "0h1b1e2c2i3d3g3a9f");
    EXPECT_EQ(compared,
              "ab ba ca da ea fa ia ga ha ha bh gh ih eh dh ch bh cb gb ib eb db cb dc gc ic ec dc ec "
              "id gd id ");
    char halves[] = "5a1b7c2d9e3f8g4h6i"; // parts of one size: the upper comes first
    compared.clear();
    KalQSort(halves, 9, 2, compareBytes);
    EXPECT_EQ(compared, "ab ba ca ia ha da ea ga fa ea fa ge ce ie gi ci gi cg bf hf df df bd ");
    compared.clear();
    KalQSort(array, 9, 2, compareBytes);
    EXPECT_EQ(compared.size(), 8u * 3) << "a sorted array is only looked through";
}

TEST(QSort, TheStackGrowsWithTheLogarithmOnly) {
    // Sorted but for its ends: each partition splits one element off.
    std::vector<uint8_t> array(400);
    for (size_t i = 0; i < array.size(); i += 2)
        array[i] = uint8_t(i == 0 ? 1 : i == 2 ? 0 : i / 2);
    lowest = UINTPTR_MAX;
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    KalQSort(array.data(), 200, 2, compareBytes);
    EXPECT_LT(here - lowest, 8 * 1024u);
}
