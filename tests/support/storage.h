// Compound files for tests, through the storage interfaces and through other programs.
#ifndef KAL_TESTS_SUPPORT_STORAGE_H
#define KAL_TESTS_SUPPORT_STORAGE_H

#include "tests/support/files.h"
#include <kal/compound.h>

#include <map>
#include <string>

// What a file holds: stream names, with `/` between them and the storages around, and bytes.
using Streams = std::map<std::wstring, Bytes>;

// An interface that is released at the end of its scope.
template <class Interface>
class Ref {
public:
    Ref() = default;
    ~Ref() { reset(); }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    void reset() {
        if (pointer_ != nullptr)
            pointer_->Release();
        pointer_ = nullptr;
    }
    Interface** out() {
        reset();
        return &pointer_;
    }
    Interface* operator->() const { return pointer_; }
    Interface* get() const { return pointer_; }

private:
    Interface* pointer_ = nullptr;
};

inline constexpr uint32_t kUpdate = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// The little-endian number of 32 bits at a place.
inline uint32_t word(const Bytes& file, size_t at) {
    return uint32_t(file[at] | file[at + 1] << 8 | file[at + 2] << 16) | uint32_t(file[at + 3]) << 24;
}

std::wstring wide(const std::string& text);
HRESULT createFile(const std::string& path, Ref<IStorage>& storage);
HRESULT openFile(const std::string& path, uint32_t mode, Ref<IStorage>& storage);
HRESULT makeStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream);
HRESULT openStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream,
                   uint32_t mode = kUpdate);

// All of it, or the test fails.
void writeAll(IStream* stream, const Bytes& bytes);
// All bytes from the start, until there are no more or an error, which `result` then holds.
Bytes readAll(IStream* stream, HRESULT& result);
// Makes or replaces a stream. STG_E_MEDIUMFULL when it took only a part.
HRESULT putStream(IStorage* storage, const std::wstring& name, const Bytes& bytes);

void writeStreams(const std::string& path, const Streams& streams);
// All streams of a file, of its storages too. What cannot be read whole is left out; false when there was any.
// With kUpdate: of those that may be written to.
bool readStreams(const std::string& path, Streams& streams,
                 uint32_t mode = STGM_READ | STGM_SHARE_DENY_WRITE);

// That other programs read the same of a file. The number of those that are installed.
int expectOthersRead(const std::string& path, const Streams& expected);

#endif
