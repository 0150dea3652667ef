#include <kal/compound.h>

#include "platform/compound/part.h"
#include "platform/compound/stream.h"
#include "platform/host_path.h"

#include <cstdlib>

namespace compound {

namespace {

class Elements final : public Part<IEnumSTATSTG> {
public:
    using Part::Part;

    bool fill(const Array<uint32_t>& entries) {
        if (!entries_.resize(entries.size()))
            return false;
        std::copy(entries.begin(), entries.end(), entries_.begin());
        return true;
    }

    HRESULT Next(uint32_t count, STATSTG* elements, uint32_t* fetched) override {
        uint32_t done = 0;
        bool named = true;
        while (done < count && next_ < entries_.size() && named) {
            named = describe(entries_[next_], elements[done]);
            next_ += named ? 1 : 0;
            done += named ? 1 : 0;
        }
        if (fetched != nullptr)
            *fetched = done;
        return !named ? STG_E_INSUFFICIENTMEMORY : done == count ? S_OK : S_FALSE;
    }

private:
    bool describe(uint32_t entry, STATSTG& element) {
        Name name;
        const Directory& directory = file_.directory();
        directory.name(entry, name);
        element.pwcsName = static_cast<wchar_t*>(KalAllocSMem((kNameUnits + 1) * sizeof(wchar_t)));
        if (element.pwcsName == nullptr)
            return false;
        nameText(name, element.pwcsName);
        element.type = directory.type(entry) == kStream ? STGTY_STREAM : STGTY_STORAGE;
        element.cbSize = element.type == STGTY_STREAM ? directory.size(entry) : 0;
        return true;
    }

    Array<uint32_t> entries_;
    size_t next_ = 0;
};

class Storage final : public Part<IStorage> {
public:
    Storage(CompoundFile& file, Children& children) : Part(file), children_(children) {}

    HRESULT CreateStream(const wchar_t* name, uint32_t mode, uint32_t, uint32_t, IStream** stream) override {
        *stream = nullptr;
        uint32_t entry;
        bool made;
        const HRESULT result = make(name, mode, kStream, entry, made);
        return result != S_OK ? result
                              : unmakeOnFailure(openStream(file_, entry, mode, !made, stream), entry, made);
    }

    HRESULT OpenStream(const wchar_t* name, void*, uint32_t mode, uint32_t, IStream** stream) override {
        *stream = nullptr;
        uint32_t entry;
        const HRESULT result = find(name, kStream, entry);
        return result != S_OK ? result : openStream(file_, entry, mode, false, stream);
    }

    HRESULT CreateStorage(const wchar_t* name, uint32_t mode, uint32_t, uint32_t,
                          IStorage** storage) override {
        *storage = nullptr;
        uint32_t entry;
        bool made;
        const HRESULT result = make(name, mode & ~STGM_CREATE, kStorage, entry, made);
        return result != S_OK ? result : unmakeOnFailure(openStorage(file_, entry, storage), entry, made);
    }

    HRESULT OpenStorage(const wchar_t* name, IStorage*, uint32_t, void*, uint32_t,
                        IStorage** storage) override {
        *storage = nullptr;
        uint32_t entry;
        const HRESULT result = find(name, kStorage, entry);
        return result != S_OK ? result : openStorage(file_, entry, storage);
    }

    HRESULT DestroyElement(const wchar_t* name) override {
        uint32_t entry;
        IStream* stream;
        HRESULT result = find(name, kStream, entry);
        if (result == S_OK && children_.damaged())
            result = STG_E_DOCFILECORRUPT;
        if (result == S_OK)
            result = openStream(file_, entry, STGM_READWRITE, true, &stream);
        if (result != S_OK)
            return result;
        stream->Release();
        file_.remove(children_, entry);
        return S_OK;
    }

    HRESULT EnumElements(uint32_t, void*, uint32_t, IEnumSTATSTG** elements) override {
        auto* fresh = new Elements(file_);
        *elements = nullptr;
        if (fresh == nullptr)
            return STG_E_INSUFFICIENTMEMORY;
        if (!fresh->fill(children_.entries())) {
            fresh->Release();
            return STG_E_INSUFFICIENTMEMORY;
        }
        *elements = fresh;
        return S_OK;
    }

    HRESULT Commit(uint32_t) override { return file_.writable() ? file_.flush() : S_OK; }

    HRESULT Revert() override {
        file_.revert();
        return S_OK;
    }

    static HRESULT openStorage(CompoundFile& file, uint32_t entry, IStorage** storage) {
        Children* children = file.childrenOf(entry);
        *storage = children != nullptr ? new Storage(file, *children) : nullptr;
        return *storage != nullptr ? S_OK : STG_E_INSUFFICIENTMEMORY;
    }

private:
    HRESULT find(const wchar_t* text, EntryType type, uint32_t& entry) const {
        Name name;
        if (!makeName(text, name))
            return STG_E_INVALIDNAME;
        entry = children_.find(name);
        return entry != kNoEntry && file_.directory().type(entry) == type ? S_OK : STG_E_FILENOTFOUND;
    }

    // The entry of that name and type, made where it is missing.
    HRESULT make(const wchar_t* text, uint32_t mode, EntryType type, uint32_t& entry, bool& made) {
        Name name;
        if (!makeName(text, name))
            return STG_E_INVALIDNAME;
        if (!file_.writable())
            return STG_E_ACCESSDENIED;
        entry = children_.find(name);
        made = entry == kNoEntry;
        if (!made)
            return (mode & STGM_CREATE) != 0 && file_.directory().type(entry) == type
                       ? S_OK
                       : STG_E_FILEALREADYEXISTS;
        if (!isProper(name))
            return STG_E_INVALIDNAME;
        if (children_.damaged()) // it would be made anew from what was found of it
            return STG_E_DOCFILECORRUPT;
        entry = file_.add(children_, name, type);
        return entry != kNoEntry ? S_OK : STG_E_MEDIUMFULL;
    }

    HRESULT unmakeOnFailure(HRESULT result, uint32_t entry, bool made) {
        if (result != S_OK && made)
            file_.remove(children_, entry);
        return result;
    }

    Children& children_;
};

// A path in wide characters as the platform's text: what mbstowcs made of it is undone. In a locale of single
// bytes a character above ASCII is the byte of its value.
bool narrow(const wchar_t* name, HostPath& text) {
    const size_t size = sizeof text.text;
    size_t length = std::wcstombs(text.text, name, size);
    if (length == static_cast<size_t>(-1)) {
        if (MB_CUR_MAX != 1)
            return false;
        for (length = 0; length < size && (length == 0 || name[length - 1] != 0); length++) {
            if (static_cast<uint32_t>(name[length]) > 0xFF)
                return false;
            text.text[length] = static_cast<char>(name[length]);
        }
        return length > 0 && text.text[length - 1] == 0;
    }
    return length < size;
}

// The root storage of the file that `open` gives for a path of the host.
template <class Open>
HRESULT rootOf(const wchar_t* name, IStorage** storage, Open open) {
    *storage = nullptr;
    HostPath text;
    HostPath hostPath;
    if (name == nullptr || !narrow(name, text) || !toHostPath(text.text, hostPath))
        return STG_E_INVALIDNAME;
    HRESULT result;
    CompoundFile* file = open(hostPath.text, result);
    if (file == nullptr)
        return result;
    result = Storage::openStorage(*file, kRoot, storage);
    file->letGo(); // the storage holds it
    return result;
}

} // namespace

} // namespace compound

using compound::CompoundFile;

void CoTaskMemFree(void* block) {
    if (block != nullptr)
        KalFreeSMem(block);
}

HRESULT StgCreateDocfile(const wchar_t* name, uint32_t mode, uint32_t, IStorage** storage) {
    return compound::rootOf(name, storage, [mode](const char* path, HRESULT& result) {
        return CompoundFile::create(path, (mode & STGM_CREATE) != 0, result);
    });
}

HRESULT StgOpenStorage(const wchar_t* name, IStorage*, uint32_t mode, void*, uint32_t, IStorage** storage) {
    const bool writable = (mode & (STGM_WRITE | STGM_READWRITE)) != 0;
    return compound::rootOf(name, storage, [writable](const char* path, HRESULT& result) {
        return CompoundFile::open(path, writable, result);
    });
}
