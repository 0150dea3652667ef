// A document in a compound file, as office programs keep them: its text is a stream in it, which the standard's streams
// write, add to and read from the middle.
#include <kal/cpp.h>

#include <cstdio>
#include <iostream>
#include <string>

namespace {

constexpr char fileName[] = "letter.doc";
constexpr char streamName[] = "Contents";

// Writes to the document's text, from its start or its end on.
kal::Status write(uint16_t mode, const char* word, int lines) {
    auto text = kal::Stream::inCompoundFile(fileName, streamName, mode | KAL_MODE_UPDATE);
    if (!text)
        return text.error();
    {
        kal::streambuf buffer(*text); // gone before what it stands on is closed
        std::ostream out(&buffer);
        for (int line = 1; line <= lines; line++)
            out << word << ' ' << line << '\n';
        if (!out.flush())
            return buffer.status();
    }
    return text->close();
}

// The text from a place on, up to the end of that line.
std::string lineAt(std::streamoff place) {
    auto text = kal::Stream::inCompoundFile(fileName, streamName);
    if (!text)
        return text.error().text();
    kal::streambuf buffer(*text);
    std::istream in(&buffer);
    std::string line;
    std::getline(in.seekg(place), line);
    return line;
}

} // namespace

int main() {
    for (const auto& [mode, word] : {std::pair{KAL_MODE_CREATE, "draft"}, {KAL_MODE_APPEND, "final"}})
        if (const auto status = write(mode, word, 1000); !status.ok())
            return std::cout << fileName << ": " << status.text() << '\n', 1;
    const std::string first = lineAt(0);
    const std::string second = lineAt(9893); // 9 lines of 8 bytes, 90 of 9, 900 of 10 and one of 11
    std::cout << first << "\n" << second << '\n';
    std::remove(fileName);
    return first == "draft 1" && second == "final 1" ? 0 : 1;
}
