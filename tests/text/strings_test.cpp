#include <kal/text.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

TEST(Strings, UpperCaseIsForTheAsciiLettersAlone) {
    std::string text;
    for (int byte = 1; byte < 256; byte++)
        text += char(byte);
    std::string expected = text;
    for (char& c : expected)
        c = c >= 'a' && c <= 'z' ? char(c - 32) : c;
    EXPECT_EQ(toupper(text.data()), text.data());
    EXPECT_EQ(text, expected);
}

TEST(Strings, CentringFillsTheField) {
    const struct {
        const char* text;
        uint32_t width;
        const char* centred;
    } cases[] = {{"AB", 5, "*AB**"}, {"AB", 4, "*AB*"},      {"AB", 2, "AB"}, {"ABC", 2, "ABC"},
                 {"", 3, "***"},     {"ABCDE", 6, "ABCDE*"}, {"", 0, ""}};
    for (const auto& each : cases) {
        char buffer[16];
        std::fill_n(buffer, sizeof buffer, '#');
        std::copy_n(each.text, std::char_traits<char>::length(each.text) + 1, buffer);
        KalCenterString(buffer, each.width, '*');
        EXPECT_STREQ(buffer, each.centred) << each.text;
        EXPECT_EQ(buffer[each.width < 4 ? 4 : each.width + 1], '#');
    }
}

TEST(Strings, BlocksCompareAsSignedBytes) {
    EXPECT_EQ(KalMemCmp("\x80", "\x01", 1), -1);
    EXPECT_EQ(KalMemCmp("\x01", "\x80", 1), 1);
    EXPECT_EQ(KalMemCmp("a", "b", 0), 0);
    EXPECT_EQ(KalMemCmp("a", "b", -1), 0);
    std::mt19937 random(21);
    for (int round = 0; round < 2000; round++) {
        std::vector<int8_t> left(random() % 300), right;
        for (int8_t& byte : left)
            byte = int8_t(random());
        right = left;
        int expected = 0;
        if (!left.empty() && round % 3 != 0) {
            const size_t at = random() % left.size();
            right[at] = int8_t(right[at] + 1 + int(random() % 255));
            expected = right[at] > left[at] ? -1 : 1;
            for (size_t behind = at + 1; behind < right.size(); behind++)
                right[behind] = int8_t(random()); // what follows the difference does not count
        }
        ASSERT_EQ(KalMemCmp(left.data(), right.data(), int32_t(left.size())), expected) << round;
    }
}
