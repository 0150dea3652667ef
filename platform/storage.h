// Structured storage: compound files, which hold storages (folders) and streams (files) by name. The part of
// the platform's interfaces that this library and its program use.
//
// Direct mode: what a stream of 4096 bytes and more is given goes into the file at once, smaller streams and
// what describes them all when the file is let go of. A file open for reading is shared with readers, one
// open for writing with nobody, whatever process they are in.
#ifndef KAL_PLATFORM_STORAGE_H
#define KAL_PLATFORM_STORAGE_H

#include <cstdint>

using HRESULT = int32_t;
inline constexpr HRESULT resultCode(uint32_t bits) {
    return static_cast<HRESULT>(bits);
}
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT STG_E_INVALIDFUNCTION = resultCode(0x80030001);
inline constexpr HRESULT STG_E_FILENOTFOUND = resultCode(0x80030002);
inline constexpr HRESULT STG_E_ACCESSDENIED = resultCode(0x80030005);
inline constexpr HRESULT STG_E_INSUFFICIENTMEMORY = resultCode(0x80030008);
inline constexpr HRESULT STG_E_WRITEFAULT = resultCode(0x8003001D);
inline constexpr HRESULT STG_E_READFAULT = resultCode(0x8003001E);
inline constexpr HRESULT STG_E_SHAREVIOLATION = resultCode(0x80030020);
inline constexpr HRESULT STG_E_FILEALREADYEXISTS = resultCode(0x80030050);
inline constexpr HRESULT STG_E_MEDIUMFULL = resultCode(0x80030070);
inline constexpr HRESULT STG_E_INVALIDNAME = resultCode(0x800300FC);
inline constexpr HRESULT STG_E_DOCFILECORRUPT = resultCode(0x80030109);

// Modes, combined by OR: one access, one sharing.
inline constexpr uint32_t STGM_READ = 0x0000;
inline constexpr uint32_t STGM_WRITE = 0x0001;
inline constexpr uint32_t STGM_READWRITE = 0x0002;
inline constexpr uint32_t STGM_SHARE_EXCLUSIVE = 0x0010;
inline constexpr uint32_t STGM_SHARE_DENY_WRITE = 0x0020;
inline constexpr uint32_t STGM_CREATE = 0x1000; // replace what is there

inline constexpr uint32_t STREAM_SEEK_SET = 0;
inline constexpr uint32_t STREAM_SEEK_CUR = 1;
inline constexpr uint32_t STREAM_SEEK_END = 2;

inline constexpr uint32_t STGTY_STORAGE = 1;
inline constexpr uint32_t STGTY_STREAM = 2;

// One element of a storage.
struct STATSTG {
    wchar_t* pwcsName; // the caller frees it with CoTaskMemFree
    uint32_t type;     // STGTY_
    uint64_t cbSize;   // of a stream, in bytes
};
void CoTaskMemFree(void* block);

struct IUnknown {
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;

protected:
    ~IUnknown() = default;
};

// A stream: positions are 64 bits, each stream is open once at a time.
struct IStream : IUnknown {
    // `read` tells how many bytes came; fewer than asked only at the stream's end, or where a damaged file
    // loses it: a read that starts there gives STG_E_DOCFILECORRUPT.
    virtual HRESULT Read(void* destination, uint32_t count, uint32_t* read) = 0;
    // `written` tells how many bytes were taken; fewer than asked, with S_OK, when there is no more room.
    virtual HRESULT Write(const void* source, uint32_t count, uint32_t* written) = 0;
    // A position past the end is no failure; what a later write leaves between is 0.
    virtual HRESULT Seek(int64_t offset, uint32_t origin, uint64_t* position) = 0;
    // Cuts the stream or lengthens it by zeros. On failure it stays as it was.
    virtual HRESULT SetSize(uint64_t size) = 0;

protected:
    ~IStream() = default;
};

// The elements of a storage, in the directory's order, as they were when it was made.
struct IEnumSTATSTG : IUnknown {
    // S_FALSE when fewer than `count` were left.
    virtual HRESULT Next(uint32_t count, STATSTG* elements, uint32_t* fetched) = 0;

protected:
    ~IEnumSTATSTG() = default;
};

// A storage. Elements hold the file open after the storage was released.
struct IStorage : IUnknown {
    // Makes a stream; one that is there is emptied with STGM_CREATE, else STG_E_FILEALREADYEXISTS.
    virtual HRESULT CreateStream(const wchar_t* name, uint32_t mode, uint32_t, uint32_t,
                                 IStream** stream) = 0;
    virtual HRESULT OpenStream(const wchar_t* name, void*, uint32_t mode, uint32_t, IStream** stream) = 0;
    virtual HRESULT CreateStorage(const wchar_t* name, uint32_t mode, uint32_t, uint32_t,
                                  IStorage** storage) = 0;
    virtual HRESULT OpenStorage(const wchar_t* name, IStorage*, uint32_t mode, void*, uint32_t,
                                IStorage** storage) = 0;
    // Takes out a stream that is not open.
    virtual HRESULT DestroyElement(const wchar_t* name) = 0;
    virtual HRESULT EnumElements(uint32_t, void*, uint32_t, IEnumSTATSTG** elements) = 0;
    // Writes what describes the streams now, not only at the end.
    virtual HRESULT Commit(uint32_t flags) = 0;

protected:
    ~IStorage() = default;
};

// Makes a compound file under a path of the platform in wide characters: a new one, or with STGM_CREATE in
// place of one that is there, which stays as it is while it is in use. On failure `storage` is null.
HRESULT StgCreateDocfile(const wchar_t* name, uint32_t mode, uint32_t reserved, IStorage** storage);

// Opens the root storage of a compound file. A damaged file opens for reading as far as it makes sense, for
// writing not at all.
HRESULT StgOpenStorage(const wchar_t* name, IStorage* priority, uint32_t mode, void* exclude,
                       uint32_t reserved, IStorage** storage);

#endif
