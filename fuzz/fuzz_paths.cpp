// Any texts as paths, names, search texts and extensions. Each destination is an allocation of exactly the size that is
// told, so that a byte beyond it is seen.
#include "fuzz/memory_host.h"

#include "platform/host_path.h"
#include "platform/shared_object.h"

#include <kal/file.h>
#include <kal/path.h>
#include <kal/stream.h>
#include <kal/text.h>

namespace {

// A text with room behind it, for the call's own changes.
struct Room : std::vector<char> {
    Room(const std::string& text, size_t more) : vector(text.size() + 1 + more) { text.copy(data(), size()); }
    operator char*() { return data(); }
};

void takeApart(const std::string& path, uint32_t size) {
    int32_t (*const parts[])(const char*, char*, uint32_t) = {KalGetDir, KalGetFile, KalGetExt};
    for (const auto part : parts) {
        Room out("", size);
        const int32_t length = part(path.c_str(), out, size);
        require(size == 0 ? length == 0
                          : length >= 0 && length < int32_t(size) && out.at(size_t(length)) == 0,
                "a part is ended, and as long as it is said to be");
    }
    Room directory("", KAL_DIR_SIZE - 1), file("", KAL_FILE_SIZE - 1), extension("", KAL_EXT_SIZE - 1);
    KalSplitPath(path.c_str(), directory, file, extension);
}

void change(const std::string& path, const std::string& other, uint32_t size, int32_t number) {
    KalDefaultExt(Room(path, 1 + other.size()), other.c_str());
    KalIncrementName(Room(path, 1));
    const uint32_t maximum = size + static_cast<uint32_t>(path.size());
    IncrString(Room(path, size), static_cast<int32_t>(maximum));
    IncrString(Room(path, 0), static_cast<int32_t>(path.size() / 2));
    Room sequence(path, size), unique(path, size), centred(path, size);
    KalSequenceFilename(sequence, static_cast<uint32_t>(sequence.size()), number);
    KalGetUnique(unique, static_cast<uint32_t>(unique.size()));
    KalCenterString(toupper(centred), static_cast<uint32_t>(centred.size() - 1), '*');
}

void search(const std::string& name, const std::string& directories, uint32_t size) {
    for (const char* next = directories.c_str(); next != nullptr;) {
        Room candidate("", directories.size() + 1 + KAL_FILE_SIZE + KAL_EXT_SIZE);
        next = KalNextPathFile(candidate, next, name.c_str());
    }
    Room searchText(directories, 0);
    KalSetHomeStr(searchText);
    SFILE* stream;
    if (KalOpenFile(&stream, name.c_str(), KAL_MODE_SEARCH, 0) == KAL_OK)
        stream->close(stream);
    KalGetHomeExecPath(Room("", size), size);
    KalSetHomeStr(nullptr);
    KalSetHome(directories.c_str());
    KalGetHomeExecPath(Room("", size), size);
    KalSetHome(nullptr);
}

void askHost(const std::string& path, uint32_t size) {
    FILESTAT stat;
    FILEINFO info;
    KalFileStat(path.c_str(), &stat);
    KalGetFileDateTimeSize(path.c_str(), &info);
    KalMakeDir(path.c_str());
    KalExplicitAccessFile(path.c_str(), KAL_MODE_NEW_FILE);
    KalTempPath(path.c_str());
    KalGetUnique(Room("", size), size + 1);
    KalTempPath(nullptr);
    HostPath host;
    if (toHostPath(path.c_str(), host))
        toPlatformPath(host.text, Room("", size), size);
    char shared[kSharedNameSize];
    if (sharedObjectName(path.c_str(), shared))
        require(std::strchr(shared + 1, '/') == nullptr, "a mapping's name leads to no folder");
}

} // namespace

void fuzz(Input input) {
    memoryHost::file("/found");
    const uint32_t room = input.byte() % 2 != 0 ? input.byte() : input.word() % 1000;
    const auto number = static_cast<int32_t>(input.number());
    const std::string path = input.text(), other = input.text();
    takeApart(path, room);
    change(path, other, room, number);
    search(path, other, room);
    askHost(path, room);
}
