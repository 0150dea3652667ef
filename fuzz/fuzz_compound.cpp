// Any bytes as a compound file: read, and written to where that is allowed.
#include "fuzz/memory_host.h"

#include <kal/compound.h>

#include <cstring>
#include <map>

namespace {

using Streams = std::map<std::wstring, Bytes>;

constexpr uint32_t kReading = STGM_READ | STGM_SHARE_DENY_WRITE;
constexpr uint32_t kUpdate = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr const wchar_t* kPath = L"/file";

// A stream's bytes. False when it is not whole.
bool readStream(IStream* stream, uint64_t size, Bytes& bytes) {
    uint32_t got = 1;
    HRESULT result = S_OK;
    while (got > 0 && result == S_OK) {
        uint8_t piece[1000];
        result = stream->Read(piece, sizeof piece, &got);
        bytes.insert(bytes.end(), piece, piece + got);
        require(bytes.size() <= size, "no stream is longer than it says");
    }
    require(result == S_OK || got == 0, "an error comes without bytes");
    require((result == S_OK) == (bytes.size() == size), "a stream that is not whole tells so");
    return result == S_OK;
}

bool readStorage(IStorage* storage, const std::wstring& prefix, int depth, uint32_t mode, Streams& streams) {
    require(depth < 1000, "storages do not come round");
    IEnumSTATSTG* elements;
    require(storage->EnumElements(0, nullptr, 0, &elements) == S_OK, "elements can be listed");
    bool whole = true;
    STATSTG element;
    while (elements->Next(1, &element, nullptr) == S_OK) {
        const std::wstring name = element.pwcsName;
        CoTaskMemFree(element.pwcsName);
        IStream* stream;
        IStorage* inner;
        if (element.type == STGTY_STREAM &&
            storage->OpenStream(name.c_str(), nullptr, mode, 0, &stream) == S_OK) {
            Bytes bytes;
            if (readStream(stream, element.cbSize, bytes))
                streams[prefix + name] = bytes;
            else
                whole = false;
            stream->Release();
        } else if (element.type == STGTY_STORAGE &&
                   storage->OpenStorage(name.c_str(), nullptr, STGM_READ, nullptr, 0, &inner) == S_OK) {
            whole = readStorage(inner, prefix + name + L"/", depth + 1, mode, streams) && whole;
            inner->Release();
        } else {
            whole = false;
        }
    }
    elements->Release();
    return whole;
}

// With kUpdate: what may be written to.
bool readFile(uint32_t mode, Streams& streams) {
    IStorage* storage;
    if (StgOpenStorage(kPath, nullptr, mode, nullptr, 0, &storage) != S_OK)
        return false;
    const bool whole = readStorage(storage, L"", 0, mode, streams);
    storage->Release();
    return whole;
}

// Cuts the bytes to what was taken of them.
bool changeFile(Bytes& bytes) {
    IStorage* storage;
    if (StgOpenStorage(kPath, nullptr, kUpdate, nullptr, 0, &storage) != S_OK)
        return false;
    IStream* stream;
    const HRESULT result = storage->CreateStream(L"made by the fuzzer", kUpdate | STGM_CREATE, 0, 0, &stream);
    if (result == S_OK) {
        uint32_t written;
        require(stream->Write(bytes.data(), static_cast<uint32_t>(bytes.size()), &written) == S_OK &&
                    written <= bytes.size() && (written == bytes.size() || memoryHost::wasFull()),
                "a stream takes what is written, as far as there is room");
        bytes.resize(written);
        stream->Release();
    }
    storage->Release();
    return result == S_OK;
}

// Every number of a sector, 512 bytes each.
void addSector(std::vector<Field>& fields, const Bytes& input, uint64_t sector) {
    for (uint64_t at = (sector + 1) * 512; at < (sector + 2) * 512 && at + 4 <= input.size(); at += 4)
        fields.push_back({static_cast<size_t>(at), 4});
}

} // namespace

std::vector<Field> fieldsOf(const Bytes& input) {
    if (input.size() < 1024)
        return {};
    std::vector<Field> fields = {{26, 2}, {30, 2}, {32, 2}};
    for (size_t at = 40; at < 92; at += 4)
        fields.push_back({at, 4});
    for (size_t at : {48u, 60u, 68u, 76u, 80u}) { // directory, mini FAT, DIFAT, FAT
        uint32_t sector;
        std::memcpy(&sector, &input[at], 4);
        addSector(fields, input, sector);
    }
    return fields;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    memoryHost::start();
    memoryHost::setContent("/file", Bytes(data, data + size));
    Streams before;
    readFile(kReading, before);
    before.clear();
    readFile(kUpdate, before);
    Bytes added(size % 3 == 0 ? 100 : 5000, uint8_t(size));
    if (!changeFile(added))
        return 0;
    before[L"made by the fuzzer"] = added;
    Streams after;
    readFile(kReading, after);
    for (const auto& [stream, bytes] : before)
        require(after.count(stream) == 1 && after[stream] == bytes, "a write changes nothing else");
    return 0;
}
