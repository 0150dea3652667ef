#include "tests/support/storage.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace {

bool run(const std::string& command) {
    return std::system((command + " 2>/dev/null").c_str()) == 0;
}

bool readInto(IStorage* storage, const std::wstring& prefix, Streams& streams, uint32_t mode, int depth) {
    Ref<IEnumSTATSTG> elements;
    if (depth > 100 || storage->EnumElements(0, nullptr, 0, elements.out()) != S_OK)
        return false;
    bool whole = true;
    STATSTG element;
    while (elements->Next(1, &element, nullptr) == S_OK) {
        const std::wstring name = element.pwcsName;
        CoTaskMemFree(element.pwcsName);
        if (element.type == STGTY_STREAM) {
            Ref<IStream> stream;
            HRESULT result = openStream(storage, name, stream, mode);
            if (result == S_OK) {
                Bytes bytes = readAll(stream.get(), &result);
                if (result == S_OK && bytes.size() == element.cbSize)
                    streams[prefix + name] = std::move(bytes);
            }
            whole = whole && streams.count(prefix + name) != 0;
        } else {
            Ref<IStorage> inner;
            whole = storage->OpenStorage(name.c_str(), nullptr, STGM_READ, nullptr, 0, inner.out()) == S_OK &&
                    readInto(inner.get(), prefix + name + L"/", streams, mode, depth + 1) && whole;
        }
    }
    return whole;
}

} // namespace

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

HRESULT createFile(const std::string& path, Ref<IStorage>& storage) {
    return StgCreateDocfile(wide(path).c_str(), kUpdate | STGM_CREATE, 0, storage.out());
}

HRESULT openFile(const std::string& path, uint32_t mode, Ref<IStorage>& storage) {
    return StgOpenStorage(wide(path).c_str(), nullptr, mode, nullptr, 0, storage.out());
}

HRESULT makeStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream) {
    return storage->CreateStream(name.c_str(), kUpdate | STGM_CREATE, 0, 0, stream.out());
}

HRESULT openStream(IStorage* storage, const std::wstring& name, Ref<IStream>& stream, uint32_t mode) {
    return storage->OpenStream(name.c_str(), nullptr, mode, 0, stream.out());
}

void writeAll(IStream* stream, const Bytes& bytes, uint32_t piece) {
    for (size_t done = 0; done < bytes.size();) {
        const auto step = static_cast<uint32_t>(std::min<size_t>(piece, bytes.size() - done));
        uint32_t written = 0;
        ASSERT_EQ(stream->Write(bytes.data() + done, step, &written), S_OK);
        ASSERT_EQ(written, step);
        done += step;
    }
}

Bytes readAll(IStream* stream, HRESULT* result) {
    Bytes bytes;
    stream->Seek(0, STREAM_SEEK_SET, nullptr);
    HRESULT last = S_OK;
    for (uint32_t got = 1; got > 0 && last == S_OK;) {
        const size_t before = bytes.size();
        const size_t step = std::max<size_t>(before, 8192);
        bytes.resize(before + step);
        last = stream->Read(bytes.data() + before, static_cast<uint32_t>(step), &got);
        bytes.resize(before + got);
    }
    if (result != nullptr)
        *result = last;
    return bytes;
}

void writeStreams(const std::string& path, const Streams& streams) {
    Ref<IStorage> storage;
    ASSERT_EQ(createFile(path, storage), S_OK);
    for (const auto& [name, bytes] : streams) {
        Ref<IStream> stream;
        ASSERT_EQ(makeStream(storage.get(), name, stream), S_OK);
        writeAll(stream.get(), bytes);
    }
}

bool readStreams(const std::string& path, Streams& streams, uint32_t mode) {
    Ref<IStorage> storage;
    return openFile(path, mode, storage) == S_OK && readInto(storage.get(), L"", streams, mode, 0);
}

bool readByOlefile(const std::string& path, Streams& streams) {
    // Each stream goes to a numbered file, its name beside it as the numbers of its characters.
    const std::string script =
        "import sys, os, olefile\n"
        "os.makedirs('olefile-out', exist_ok=True)\n"
        "ole = olefile.OleFileIO(sys.argv[1], raise_defects=olefile.DEFECT_INCORRECT)\n"
        "for i, parts in enumerate(ole.listdir()):\n"
        "    open('olefile-out/%d' % i, 'wb').write(ole.openstream(parts).read())\n"
        "    print(i, *[ord(c) for c in '/'.join(parts)])\n";
    writeFile("dump_streams.py", bytesOf(script));
    std::string python = "/usr/bin/python3"; // the one that the system's packages belong to
    if (!run(python + " -c 'import olefile'") && !run((python = "python3") + " -c 'import olefile'"))
        return false;
    EXPECT_TRUE(run(python + " dump_streams.py '" + path + "' > olefile.txt")) << path;
    const Bytes listing = readFile("olefile.txt");
    std::string text(listing.begin(), listing.end());
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        char* next = text.data() + at;
        const long number = std::strtol(next, &next, 10);
        std::wstring name;
        while (*next == ' ')
            name += static_cast<wchar_t>(std::strtol(next, &next, 10));
        streams[name] = readFile("olefile-out/" + std::to_string(number));
        at = end + 1;
    }
    std::filesystem::remove_all("olefile-out");
    return true;
}

bool readByGsf(const std::string& path, const std::vector<std::wstring>& names, Streams& streams) {
    if (!run("gsf help > gsf.txt"))
        return false;
    for (const std::wstring& name : names) {
        const std::string plain(name.begin(), name.end());
        EXPECT_TRUE(run("gsf cat '" + path + "' '" + plain + "' > gsf.out")) << plain;
        streams[name] = readFile("gsf.out");
    }
    return true;
}
