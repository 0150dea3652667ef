// For tables of texts: a caller's buffer of a given size, with bytes behind it that nobody may touch; and rows that are
// one text each, with statuses by name.
#ifndef KAL_TESTS_SUPPORT_ROOM_H
#define KAL_TESTS_SUPPORT_ROOM_H

#include "tests/support/files.h"

class Room {
public:
    // Room for `size` bytes that are all '#'; or that hold a text with its zero, which may be longer.
    explicit Room(size_t size) : size_(size), bytes_(size + kBehind, '#') {}
    Room(size_t size, const std::string& text) : Room(std::max(size, text.size() + 1)) {
        std::strcpy(bytes_.data(), text.c_str());
    }
    ~Room() { EXPECT_EQ(bytes_.substr(size_), std::string(kBehind, '#')) << "written past " << size_; }
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    char* data() { return bytes_.data(); }
    std::string text() const { return bytes_.substr(0, std::min(size_, std::strlen(bytes_.c_str()))); }

private:
    static constexpr size_t kBehind = 32;
    size_t size_;
    std::string bytes_;
};

// A status by its name, or by its number where that has none.
inline std::string nameOf(int status) {
    const char* name = KalStatusName(int16_t(status));
    return name != nullptr ? name : std::to_string(status);
}

// The pieces of a row, between which a mark stands.
inline std::vector<std::string> pieces(const std::string& row, char mark = '|') {
    std::vector<std::string> found(1);
    for (const char c : row)
        c == mark ? void(found.emplace_back()) : found.back().push_back(c);
    return found;
}

#endif
