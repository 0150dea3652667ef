// Any bytes as a compound file: read, and written to where that is allowed.
#include "fuzz/memory_host.h"

#include "tests/support/storage.h"

Layout layoutOf(const Bytes& input) {
    if (input.size() < 1024)
        return {};
    std::vector<Field> fields = {{26, 2}, {30, 2}, {32, 2}};
    const auto addNumbers = [&](uint64_t from, uint64_t to) {
        for (uint64_t at = from; at < to && at < input.size(); at += 4)
            fields.push_back({static_cast<size_t>(at), 4});
    };
    addNumbers(40, 92);
    for (size_t at : {48u, 60u, 68u, 76u, 80u}) { // directory, mini FAT, DIFAT, FAT: sectors of 512 bytes
        const uint64_t sector = numberAt(input, at, 4);
        addNumbers((sector + 1) * 512, (sector + 2) * 512);
    }
    return {fields};
}

void fuzz(Input input) {
    GTEST_FLAG_SET(throw_on_failure, true);
    const Bytes& file = memoryHost::file("/file") = input.rest();
    Bytes added(file.size() % 3 == 0 ? 100 : 5000, uint8_t(file.size()));
    const std::wstring made = L"made by the fuzzer";
    Streams before, after;
    readStreams("/file", before);
    readStreams("/file", before, kUpdate);
    {
        Ref<IStorage> storage;
        Ref<IStream> stream;
        if (openFile("/file", kUpdate, storage) != S_OK || makeStream(storage.get(), made, stream) != S_OK)
            return;
        uint32_t written;
        require(stream->Write(added.data(), uint32_t(added.size()), &written) == S_OK &&
                    written <= added.size() && (written == added.size() || memoryHost::wasFull),
                "a stream takes what is written, as far as there is room");
        added.resize(written);
    }
    before[made] = added;
    readStreams("/file", after);
    for (const auto& [stream, bytes] : before)
        require(after.count(stream) == 1 && after[stream] == bytes, "a write changes nothing else");
}
