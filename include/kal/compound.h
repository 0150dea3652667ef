// Compound files (structured storage): files that hold storages (folders) and streams (files) by name, as office
// programs keep their documents. KalOpenFileAsIStream gives one of the streams of the root storage as a stream of this
// library; the interfaces here reach everything.
//
// Direct mode: what a stream of 4096 bytes and more is given goes into the file at once; smaller streams, and what
// describes them all, are written by Commit and when the last object of the file is released. A process that is killed
// leaves the streams and storages of the last such writing, whole but for bytes that were overwritten in place.
//
// A file open for reading is shared with readers, one open for writing with nobody, whatever process they are in. The
// objects of one file are used by one thread at a time. A call that gives an object holds it for the caller, who
// releases it; objects hold the file open, so the root storage may go first. Every call that can fail gives an HRESULT,
// 0 or above for success; on failure an object that was to be given is null, and nothing has changed that is not told.
#ifndef KAL_COMPOUND_H
#define KAL_COMPOUND_H

#include <kal/base.h>

// The result of a call of these interfaces: 0 or above for success.
using HRESULT = int32_t;
// A result by its bits.
inline constexpr HRESULT resultCode(uint32_t bits) {
    return static_cast<HRESULT>(bits);
}

// --- Results ----------------------------------------------------------------------------------------------

inline constexpr HRESULT S_OK = 0;                                       // done
inline constexpr HRESULT S_FALSE = 1;                                    // fewer than asked
inline constexpr HRESULT STG_E_INVALIDFUNCTION = resultCode(0x80030001); // no such position
inline constexpr HRESULT STG_E_FILENOTFOUND = resultCode(0x80030002);    // no such file or element
inline constexpr HRESULT STG_E_ACCESSDENIED =
    resultCode(0x80030005); // not allowed by host or mode; open already
inline constexpr HRESULT STG_E_INSUFFICIENTMEMORY = resultCode(0x80030008); // not enough memory
inline constexpr HRESULT STG_E_WRITEFAULT = resultCode(0x8003001D);         // the host failed to write
inline constexpr HRESULT STG_E_READFAULT = resultCode(0x8003001E);          // the host failed to read
inline constexpr HRESULT STG_E_SHAREVIOLATION = resultCode(0x80030020);     // in use elsewhere
inline constexpr HRESULT STG_E_FILEALREADYEXISTS = resultCode(0x80030050);  // the name is taken
inline constexpr HRESULT STG_E_MEDIUMFULL = resultCode(0x80030070);         // no room on the disk
inline constexpr HRESULT STG_E_INVALIDNAME = resultCode(0x800300FC);        // not a name
inline constexpr HRESULT STG_E_DOCFILECORRUPT = resultCode(0x80030109); // no compound file, or damaged there

// --- Modes, combined by OR: one access, one sharing -------------------------------------------------------

inline constexpr uint32_t STGM_READ = 0x0000;             // read
inline constexpr uint32_t STGM_WRITE = 0x0001;            // write
inline constexpr uint32_t STGM_READWRITE = 0x0002;        // both
inline constexpr uint32_t STGM_SHARE_EXCLUSIVE = 0x0010;  // with nobody; what every element is opened with
inline constexpr uint32_t STGM_SHARE_DENY_WRITE = 0x0020; // with readers; for files opened for reading
inline constexpr uint32_t STGM_CREATE = 0x1000;           // replace what is there

// --- Seek origins ------------------------------------------------------------------------------------------

inline constexpr uint32_t STREAM_SEEK_SET = 0; // from the start
inline constexpr uint32_t STREAM_SEEK_CUR = 1; // from the position
inline constexpr uint32_t STREAM_SEEK_END = 2; // from the end

// --- Elements ----------------------------------------------------------------------------------------------

inline constexpr uint32_t STGTY_STORAGE = 1; // the element is a storage
inline constexpr uint32_t STGTY_STREAM = 2;  // the element is a stream

// One element of a storage.
struct STATSTG {
    wchar_t* pwcsName; // the caller frees it with CoTaskMemFree
    uint32_t type;     // STGTY_STORAGE or STGTY_STREAM
    uint64_t cbSize;   // of a stream, in bytes; 0 for a storage
};

// Frees a name that an enumeration gave. Null is no failure.
KAL_API void CoTaskMemFree(void* block);

// --- Interfaces --------------------------------------------------------------------------------------------

// What all objects have: they count who holds them.
struct IUnknown {
    // Holds the object once more. The number of holders.
    virtual uint32_t AddRef() = 0;
    // Lets go of the object, which ends with its last holder. The number of holders left. The last object of a file
    // writes what changed; Commit before it tells whether that succeeded.
    virtual uint32_t Release() = 0;

protected:
    ~IUnknown() = default;
};

// A stream, open once at a time. Its position has 64 bits and starts at 0.
struct IStream : IUnknown {
    // Reads at the position and moves it. `read`, which may be null, tells how many bytes came; fewer than asked only at
    // the stream's end, with S_OK, or where a damaged file loses it: a read that starts there gives
    // STG_E_DOCFILECORRUPT. STG_E_ACCESSDENIED for a stream opened with STGM_WRITE; STG_E_READFAULT, with the bytes that
    // came before.
    virtual HRESULT Read(void* destination, uint32_t count, uint32_t* read) = 0;
    // Writes at the position and moves it. `written`, which may be null, tells how many bytes were taken; fewer than
    // asked, with S_OK, when there is no more room. STG_E_ACCESSDENIED without write access; STG_E_WRITEFAULT, with the
    // bytes that were taken before.
    virtual HRESULT Write(const void* source, uint32_t count, uint32_t* written) = 0;
    // Moves the position, which `position` tells unless it is null. One past the end is no failure; what a later write
    // leaves between is 0. STG_E_INVALIDFUNCTION, and the position stays, for another origin or a position below 0.
    virtual HRESULT Seek(int64_t offset, uint32_t origin, uint64_t* position) = 0;
    // Cuts the stream, or lengthens it by zeros; the position stays. A cut also writes what changed in the file, as
    // Commit does. STG_E_ACCESSDENIED without write access; STG_E_MEDIUMFULL when there is no room or the host fails:
    // the stream is as it was.
    virtual HRESULT SetSize(uint64_t size) = 0;

protected:
    ~IStream() = default;
};

// The elements of a storage, in the directory's order, as they were when this was made.
struct IEnumSTATSTG : IUnknown {
    // The next `count` elements. `fetched`, which may be null, tells how many came. S_FALSE at the end, when fewer were
    // left; STG_E_INSUFFICIENTMEMORY when a name cannot be given, which the next call then tries again.
    virtual HRESULT Next(uint32_t count, STATSTG* elements, uint32_t* fetched) = 0;

protected:
    ~IEnumSTATSTG() = default;
};

// A storage: streams and storages by names of up to 31 UTF-16 units, which compare without regard to case. Elements
// hold the file open after the storage was released. Reserved arguments are 0 or null and not looked at.
//
// All calls by name give STG_E_INVALIDNAME for what is no name and STG_E_INSUFFICIENTMEMORY; those that make or change
// something STG_E_ACCESSDENIED in a file opened for reading, and STG_E_DOCFILECORRUPT where the element, or for new and
// removed ones the storage's list of elements, is damaged. Other elements of a damaged file can be read and changed.
struct IStorage : IUnknown {
    // Makes a stream; one that is there is emptied with STGM_CREATE, else STG_E_FILEALREADYEXISTS, as for a storage of
    // that name. A new name has none of `/`, `\`, `:` and `!`. The file keeps the bytes that were there until the next
    // writing of what changed. STG_E_ACCESSDENIED for a stream that is open; STG_E_MEDIUMFULL.
    virtual HRESULT CreateStream(const wchar_t* name, uint32_t mode, uint32_t reserved1, uint32_t reserved2,
                                 IStream** stream) = 0;
    // Opens a stream. STG_E_FILENOTFOUND; STG_E_ACCESSDENIED for a stream that is open.
    virtual HRESULT OpenStream(const wchar_t* name, void* reserved1, uint32_t mode, uint32_t reserved2,
                               IStream** stream) = 0;
    // Makes a storage. STG_E_FILEALREADYEXISTS when the name is taken; STG_E_MEDIUMFULL.
    virtual HRESULT CreateStorage(const wchar_t* name, uint32_t mode, uint32_t reserved1, uint32_t reserved2,
                                  IStorage** storage) = 0;
    // Opens a storage, which may be open already. STG_E_FILENOTFOUND.
    virtual HRESULT OpenStorage(const wchar_t* name, IStorage* priority, uint32_t mode, void* exclude,
                                uint32_t reserved, IStorage** storage) = 0;
    // Takes out a stream. STG_E_FILENOTFOUND; STG_E_ACCESSDENIED for a stream that is open.
    virtual HRESULT DestroyElement(const wchar_t* name) = 0;
    // Lists the elements.
    virtual HRESULT EnumElements(uint32_t reserved1, void* reserved2, uint32_t reserved3,
                                 IEnumSTATSTG** elements) = 0;
    // Writes what changed in the whole file, not only at the end. STG_E_WRITEFAULT: the file is as it was or as it is
    // now; STG_E_MEDIUMFULL: it is as it was, since a changed directory of several sectors is written beside the old one
    // and there is no room for that. What made the file grow has that room already; what was cut or removed on a full
    // disk may not. The next Commit tries again.
    virtual HRESULT Commit(uint32_t flags) = 0;
    // Forgets what changed in the whole file since it was last written, but for bytes that were overwritten in place.
    // The file takes no changes from then on, and its objects are good for being released alone. S_OK.
    virtual HRESULT Revert() = 0;

protected:
    ~IStorage() = default;
};

// --- Files -------------------------------------------------------------------------------------------------

// Makes a compound file under a path of the platform in wide characters: a new one, or with STGM_CREATE in place of one
// that is there, which stays as it is while it is in use. `*storage` is its root storage, open for reading and writing.
// STG_E_FILEALREADYEXISTS, STG_E_FILENOTFOUND (a folder is missing), STG_E_INVALIDNAME, STG_E_ACCESSDENIED,
// STG_E_SHAREVIOLATION, STG_E_MEDIUMFULL, STG_E_INSUFFICIENTMEMORY; `*storage` is null then.
KAL_API HRESULT StgCreateDocfile(const wchar_t* name, uint32_t mode, uint32_t reserved, IStorage** storage);

// Opens the root storage of a compound file. `priority`, `exclude` and `reserved` are not looked at.
// STG_E_FILENOTFOUND, STG_E_INVALIDNAME, STG_E_ACCESSDENIED, STG_E_SHAREVIOLATION, STG_E_INSUFFICIENTMEMORY;
// STG_E_DOCFILECORRUPT when header or directory make no sense, for reading only so far that nothing could be reached.
// Of a file that is damaged elsewhere what is whole can be read and changed.
KAL_API HRESULT StgOpenStorage(const wchar_t* name, IStorage* priority, uint32_t mode, void* exclude,
                               uint32_t reserved, IStorage** storage);

#endif
