#include <kal/status.h>
#include <kal/text.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

TEST(Strings, UpperCaseIsForTheAsciiLettersAlone) {
    std::string text = "@AZ[`az{\x80\xE4\xFF";
    EXPECT_EQ(toupper(text.data()), text.data());
    EXPECT_EQ(text, "@AZ[`AZ{\x80\xE4\xFF");
}

TEST(Strings, CentringFillsTheField) {
    const struct {
        const char* text;
        uint32_t width;
        const char* centred;
    } cases[] = {{"AB", 5, "*AB**"}, {"AB", 4, "*AB*"},      {"AB", 2, "AB"}, {"ABC", 2, "ABC"},
                 {"", 3, "***"},     {"ABCDE", 6, "ABCDE*"}, {"", 0, ""}};
    for (const auto& [text, width, centred] : cases) {
        char buffer[16] = "###############";
        std::strcpy(buffer, text);
        KalCenterString(buffer, width, '*');
        EXPECT_STREQ(buffer, centred) << text;
        EXPECT_EQ(buffer[std::max<size_t>(width, std::strlen(text)) + 1], '#');
    }
}

TEST(Strings, BlocksCompareAsSignedBytes) {
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
    EXPECT_EQ(KalMemCmp("a", "b", -1), 0);
}

TEST(Status, HasANameAndATextInWords) {
    const struct {
        int status;
        const char *name, *text;
    } cases[] = {{KAL_OK, "KAL_OK", "done"},
                 {-256, "KAL_ERR_END", "its end is reached"},
                 {-1281, "KAL_ERR_EMPTY_PATH", "the path is empty"},
                 {-200, "KAL_ERR_OPEN", "cannot be opened or made"},
                 {-213, "KAL_ERR_OPEN", "permission denied"},
                 {-228, "KAL_ERR_OPEN", "no room left on the disk"},
                 {-333, "KAL_ERR_OPEN", "cannot be opened or made"},
                 {-334, nullptr, "unknown status"},
                 {-1, nullptr, "unknown status"},
                 {1, nullptr, "refused"}};
    for (const auto& [status, name, text] : cases) {
        EXPECT_STREQ(KalStatusName(int16_t(status)), name) << status;
        EXPECT_STREQ(KalStatusText(int16_t(status)), text) << status;
    }
}
