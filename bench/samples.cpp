#include "bench/samples.h"

#include <cmath>
#include <random>
#include <string>

namespace {

std::vector<std::string> makeWords(std::mt19937& random) {
    static const char* const syllables[] = {"the", "in",  "er", "an", "re",  "on", "at",  "en", "ou", "it",
                                            "is",  "es",  "or", "te", "of",  "ed", "st",  "ar", "nd", "to",
                                            "ing", "ion", "al", "le", "com", "se", "pro", "ve", "ly", "de"};
    std::vector<std::string> words;
    for (int word = 0; word < 6000; word++) {
        std::string text;
        for (auto left = 1 + random() % 2 + (word > 100) + random() % 2; left > 0; left--)
            text += syllables[random() % std::size(syllables)];
        words.push_back(text);
    }
    return words;
}

} // namespace

std::vector<uint8_t> sampleText(size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    const auto words = makeWords(random);
    std::vector<uint8_t> text;
    text.reserve(count + 80);
    size_t column = 0;
    while (text.size() < count) {
        // Every doubling of the rank halves how often a word comes.
        const double rank = std::exp(double(random()) / 4294967296.0 * std::log(double(words.size())));
        const std::string& word = words[size_t(rank) - 1];
        text.insert(text.end(), word.begin(), word.end());
        column += word.size() + 1;
        if (random() % 12 == 0)
            text.push_back(random() % 4 == 0 ? '.' : ',');
        text.push_back(column > 70 ? '\n' : ' ');
        column = column > 70 ? 0 : column;
    }
    text.resize(count);
    return text;
}

std::vector<uint8_t> samplePicture(size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> picture(count);
    for (size_t at = 0; at < count; at++) {
        const double x = double(at % 1024);
        const double y = double(at / 1024);
        const double shape = 128 + 60 * std::sin(x / 37 + y / 91) + 50 * std::cos(y / 53 - x / 211);
        picture[at] = uint8_t(shape + double(random() % 5));
    }
    return picture;
}
