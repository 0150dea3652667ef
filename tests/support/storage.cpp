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
            Bytes bytes;
            HRESULT result = openStream(storage, name, stream, mode);
            for (uint32_t got = 1; result == S_OK && got > 0;) {
                const size_t before = bytes.size();
                bytes.resize(before + std::max<size_t>(before, 8192));
                result = stream->Read(&bytes[before], static_cast<uint32_t>(bytes.size() - before), &got);
                bytes.resize(before + got);
            }
            if (result == S_OK && bytes.size() == element.cbSize)
                streams[prefix + name] = std::move(bytes);
            else
                whole = false;
        } else {
            Ref<IStorage> inner;
            whole = storage->OpenStorage(name.c_str(), nullptr, STGM_READ, nullptr, 0, inner.out()) == S_OK &&
                    readInto(inner.get(), prefix + name + L"/", streams, mode, depth + 1) && whole;
        }
    }
    return whole;
}

} // namespace

HRESULT putStream(IStorage* storage, const std::wstring& name, const Bytes& bytes) {
    Ref<IStream> stream;
    uint32_t written = 0;
    HRESULT result = makeStream(storage, name, stream);
    if (result == S_OK)
        result = stream->Write(bytes.data(), static_cast<uint32_t>(bytes.size()), &written);
    return result == S_OK && written < bytes.size() ? STG_E_MEDIUMFULL : result;
}

void writeStreams(const std::string& path, const Streams& streams) {
    Ref<IStorage> storage;
    ASSERT_EQ(createFile(path, storage), S_OK);
    for (const auto& [name, bytes] : streams)
        ASSERT_EQ(putStream(storage.get(), name, bytes), S_OK);
}

bool readStreams(const std::string& path, Streams& streams, uint32_t mode) {
    streams.clear();
    Ref<IStorage> storage;
    return openFile(path, mode, storage) == S_OK && readInto(storage.get(), L"", streams, mode, 0);
}

int expectOthersRead(const std::string& path, const Streams& expected) {
    std::wstring names;
    std::vector<std::string> readByGsf;
    std::filesystem::create_directory("expected");
    for (const auto& [name, bytes] : expected) {
        const std::string file = "expected/" + std::to_string(readByGsf.size());
        writeFile(file, bytes);
        names += name + L'\n';
        readByGsf.push_back("gsf cat '" + path + "' '" + std::string(name.begin(), name.end()) +
                            "' | cmp - " + file);
    }
    const auto* text = reinterpret_cast<const uint8_t*>(names.data());
    writeFile("names", Bytes(text, text + names.size() * sizeof names[0]));
    writeFile(
        "compare.py",
        bytesOf("import sys, olefile\n"
                "ole = olefile.OleFileIO(sys.argv[1], raise_defects=olefile.DEFECT_INCORRECT)\n"
                "names = open('names', 'rb').read().decode('utf-32-le').split('\\n')[:-1]\n"
                "assert sorted(names) == sorted('/'.join(parts) for parts in ole.listdir())\n"
                "for i, name in enumerate(names):\n"
                "    assert ole.openstream(name).read() == open(f'expected/{i}', 'rb').read(), name\n"));
    int readers = 0;
    for (const std::string python : {"/usr/bin/python3", "python3"}) // of the system's packages, the user's
        if (readers == 0 && run(python + " -c 'import olefile'")) {
            EXPECT_TRUE(run(python + " compare.py '" + path + "'"))
                << "olefile reads something else of " << path;
            readers++;
        }
    if (run("gsf help >gsf.txt")) {
        for (const std::string& command : readByGsf)
            EXPECT_TRUE(run(command)) << command;
        readers++;
    }
    return readers;
}
