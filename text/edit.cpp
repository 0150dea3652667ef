// The editor of a one-line field: one key press a call.
#include <kal/text.h>

#include "platform/console.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kBackspace = 8;
constexpr int kEnter = 13;
constexpr int kEscape = 27;

// Second codes of the extended keys.
enum ExtendedKey { kHome = 71, kLeft = 75, kRight = 77, kEnd = 79, kDelete = 83 };

struct Field {
    char* text;
    int32_t length;
    int32_t capacity;
    int32_t cursor;

    bool isAtEnd() const { return cursor == length; }
    // Moves what stands from the cursor on, terminating zero included. A key does so once, and no one asks for the
    // length any more.
    void moveTail(int32_t distance) {
        std::memmove(text + cursor + distance, text + cursor, size_t(length - cursor) + 1);
        cursor += distance;
    }
    void eraseBefore() {
        if (cursor > 0)
            moveTail(-1);
    }
    void insert(char c) {
        if (length >= capacity)
            return;
        moveTail(1);
        text[cursor - 1] = c;
    }
    void clear() {
        length = cursor = 0;
        text[0] = 0;
    }
    // What the key comes to: an ordinary key's code, or 0.
    int move(int key) {
        switch (key) {
        case kHome:
            cursor = 0;
            return 0;
        case kLeft:
            cursor -= cursor > 0;
            return 0;
        case kRight:
            cursor += !isAtEnd();
            return 0;
        case kEnd:
            cursor = length;
            return 0;
        case kDelete:
            cursor += !isAtEnd();
            return kBackspace;
        default:
            return 0;
        }
    }
};

char applyKey(Field& field, int key, bool clearFirst) {
    if (key == 0)
        key = field.move(_getch());
    else if (key < 0) // the input is over; so a caller that waits for Enter or Escape comes to an end
        key = kEscape;
    else if (clearFirst && key != kEnter && key != kEscape && key != kBackspace)
        field.clear();

    if (key == kBackspace)
        field.eraseBefore();
    else if (key != 0 && key != kEnter && key != kEscape)
        field.insert(static_cast<char>(key));
    return static_cast<char>(key);
}

} // namespace

char KalEditStr(char* text, int32_t maxLength, int32_t* cursor, uint16_t clearFirst) {
    if (text == nullptr || cursor == nullptr)
        return kEscape;
    const auto length = static_cast<int32_t>(std::strlen(text));
    Field field{text, length, maxLength, std::clamp(*cursor, 0, length)};
    const char key = applyKey(field, _getch(), clearFirst != 0);
    *cursor = field.cursor;
    return key;
}
