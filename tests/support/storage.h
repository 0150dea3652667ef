// Compound files for tests, through the storage interfaces and through other programs.
#ifndef KAL_TESTS_SUPPORT_STORAGE_H
#define KAL_TESTS_SUPPORT_STORAGE_H

#include "tests/support/files.h"
#include <kal/compound.h>

#include <map>
#include <string>
#include <utility>

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
            std::exchange(pointer_, nullptr)->Release();
    }
    Interface** out() { return reset(), &pointer_; }
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

inline std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}
inline HRESULT createFile(const std::string& path, Ref<IStorage>& storage) {
    return StgCreateDocfile(wide(path).c_str(), kUpdate | STGM_CREATE, 0, storage.out());
}
inline HRESULT openFile(const std::string& path, uint32_t mode, Ref<IStorage>& storage) {
    return StgOpenStorage(wide(path).c_str(), nullptr, mode, nullptr, 0, storage.out());
}
inline HRESULT makeStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream) {
    return storage->CreateStream(name.c_str(), kUpdate | STGM_CREATE, 0, 0, stream.out());
}
inline HRESULT openStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream,
                          uint32_t mode = kUpdate) {
    return storage->OpenStream(name.c_str(), nullptr, mode, 0, stream.out());
}

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
