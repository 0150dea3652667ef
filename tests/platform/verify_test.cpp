// The walks through compound files, registry logs and resource files, held against their readers.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/storage.h"
#include "tests/support/vector_stream.h"

#include <kal.h>

#include <filesystem>
#include <functional>
#include <unistd.h>

namespace {

using Verify = int32_t (*)(SFILE*, FaultSink&);

class Faults : public FaultSink {
public:
    void Fault(uint64_t offset, uint32_t id, const char* text) override {
        told += std::to_string(offset) + "/" + (id == KAL_FAULT_OF_FILE ? "file" : std::to_string(id)) +
                ": " + text + "\n";
    }
    std::string told;
};

std::string toldOf(Verify verify, const Bytes& bytes) {
    VectorStream stream(bytes);
    Faults faults;
    const int32_t count = verify(stream.file(), faults);
    EXPECT_EQ(count, std::count(faults.told.begin(), faults.told.end(), '\n')) << faults.told;
    return faults.told;
}

Bytes with(Bytes bytes, size_t at, uint8_t value) {
    bytes.at(at) = value;
    return bytes;
}

// Of a small compound file, the sector whose number stands in the header.
size_t sectorAt(const Bytes& ole, size_t field) {
    return 512 * (1 + size_t(ole[field]));
}

class VerifyFiles : public RegistryTest {
protected:
    // Every bit flipped and every cut, `step` by `step`: what is called whole the reader reads.
    static void expectHonest(Verify verify, const Bytes& whole,
                             const std::function<bool(const Bytes&)>& reads,
                             const std::function<size_t(size_t)>& step) {
        ASSERT_EQ(toldOf(verify, whole), "");
        ASSERT_TRUE(reads(whole));
        for (size_t at = 0; at < whole.size(); at += step(at)) {
            for (int bit = 0; bit < 8; bit++) {
                const Bytes damaged = with(whole, at, uint8_t(whole[at] ^ 1 << bit));
                if (toldOf(verify, damaged).empty()) {
                    ASSERT_TRUE(reads(damaged)) << "byte " << at << ", bit " << bit;
                }
            }
            ASSERT_NE(toldOf(verify, Bytes(whole.begin(), whole.begin() + long(at))), "") << "cut at " << at;
        }
    }

    // Two sectors of mini streams, a stream in sectors, and a storage with a stream.
    Bytes compoundFile() {
        {
            Ref<IStorage> root, inner;
            Ref<IStream> stream;
            EXPECT_EQ(createFile("c.ole", root), S_OK);
            EXPECT_EQ(root->CreateStorage(L"Abc", kUpdate, 0, 0, inner.out()), S_OK);
            const std::tuple<IStorage*, const wchar_t*, size_t> streams[] = {
                {root.get(), L"a", 70}, {root.get(), L"Big", 4096}, {inner.get(), L"b", 9}};
            for (const auto& [storage, name, bytes] : streams) {
                EXPECT_EQ(makeStream(storage, name, stream), S_OK);
                writeAll(stream.get(), randomBytes(bytes, 1));
            }
        }
        return readFile("c.ole");
    }
    // Whether a compound file reads whole, and takes changes.
    static bool readsCompound(const Bytes& bytes) {
        Streams streams;
        const std::string name = "/dev/shm/kal-verify-" + std::to_string(::getpid()); // files there are fast
        writeFile(name, bytes);
        const bool whole =
            readStreams(name, streams) && readStreams(name, streams, kUpdate) && streams.size() == 3;
        std::filesystem::remove(name);
        return whole;
    }

    Bytes registryLog() {
        setText("Maker\\App", "blue");
        setText("Maker\\Other", std::string(50, 'o'));
        RegDeleteKeyA(HKEY_CLASSES_ROOT, "Maker\\Other");
        return readFile(persistentTree() + "/log");
    }
};

TEST_F(VerifyFiles, CompoundFilesCalledWholeAreReadWhole) {
    const Bytes whole = compoundFile();
    const size_t directory = sectorAt(whole, 48);
    expectHonest(KalVerifyCompoundFile, whole, readsCompound, [&](size_t at) {
        return at % 512 < 80 || (at >= directory && at < directory + 512) ? 1 : 41;
    });
    for (const char* name : {"letter.doc", "table.xls"})
        EXPECT_EQ(toldOf(KalVerifyCompoundFile,
                         readFile(std::string(KAL_SOURCE_DIR "/tests/data/compound/") + name)),
                  "")
            << name;
}

TEST_F(VerifyFiles, RegistryLogsCalledWholeSayWhatTheySaid) {
    const Bytes whole = registryLog();
    const std::string said = dumpRegistry();
    const auto reads = [&](const Bytes& bytes) {
        std::filesystem::remove_all("other");
        std::filesystem::create_directories("other");
        writeFile("other/log", bytes);
        setenv("KAL_REGISTRY", path("other").c_str(), 1);
        const bool same = inProcess([&] { return dumpRegistry() == said ? 0 : 1; }) == 0;
        setenv("KAL_REGISTRY", persistentTree().c_str(), 1);
        return same;
    };
    expectHonest(KalVerifyRegistry, whole, reads, [](size_t at) { return at < 32 || at >= 4096 ? 1 : 61; });
}

TEST_F(VerifyFiles, TellWhereAndWhatIsWrong) {
    const Bytes log = registryLog();
    const Bytes narrow = {0, 0, 1, 0, 1, 0, 2, 0, 12, 0, 0, 0, 'h', 'i'};
    Bytes wide = {0, 0x80, 1, 0, 1, 0, 0, 0, 1, 0, 14, 0, 0, 0};
    wide.resize(14 + 65536);
    EXPECT_EQ(toldOf(KalVerifyResources, narrow), "");
    const Bytes ole = compoundFile();
    const size_t fat = sectorAt(ole, 76);
    const size_t directory = sectorAt(ole, 48);
    const size_t miniFat = sectorAt(ole, 60);
    // Entries: 1 the storage, 2 the stream a, 3 the stream Big, 4 the stream in the storage.
    const size_t later = 512 * (size_t{1} + ole[fat + ole[48] * 4]); // the directory's second sector
    const auto entry = [=](size_t number, size_t field) {
        return (number < 4 ? directory : later) + number % 4 * 128 + field;
    };
    const size_t big = ole[entry(3, 116)];
    const struct {
        Verify verify;
        Bytes bytes;
        size_t place;
        const char* told;
    } damages[] = {
        {KalVerifyResources, with(narrow, 6, 3), 4, "/1: it runs past the end of the file\n"},
        {KalVerifyResources, wide, 4, "/1: it has more bytes than a resource can have\n"},
        {KalVerifyRegistry, with(log, 0, 'k'), 0, "/file: it does not begin as a registry's log does\n"},
        {KalVerifyRegistry, with(log, 4, 2), 4, "/file: its version is not 1\n"},
        {KalVerifyRegistry, with(log, 13, 0), 12, "/file: the log ends inside its header\n"},
        {KalVerifyRegistry, with(log, 14, 1), 12, "/file: the log ends behind the end of the file\n"},
        {KalVerifyRegistry, with(log, 4096, 19), 4096,
         "/0: a record's length makes no sense: nothing from here on is read\n"},
        {KalVerifyRegistry, with(log, 4096 + 20, '!'), 4096,
         "/0: a record is not what was written: nothing from here on is read\n"},
        {KalVerifyCompoundFile, with(ole, 1, 0), 0, "/file: it does not begin as a compound file does\n"},
        {KalVerifyCompoundFile, with(ole, 26, 5), 26, "/file: its version is neither 3 nor 4\n"},
        {KalVerifyCompoundFile, with(ole, 44, 200), 44,
         "/file: the number of its FAT's sectors is 0 or more than the file has\n"},
        {KalVerifyCompoundFile, with(ole, 76, 99), 76, "/file: the FAT has a sector that the file has not\n"},
        {KalVerifyCompoundFile, with(ole, fat + ole[76] * 4, 0), fat + ole[76] * 4,
         "/file: the FAT does not mark a sector of its own as such\n"},
        {KalVerifyCompoundFile, with(ole, entry(0, 66), 2), entry(0, 66),
         "/file: the directory has no root entry\n"},
        {KalVerifyCompoundFile, with(ole, 48, 99), 48,
         "/file: its chain leads to a sector that the file has not\n"},
        {KalVerifyCompoundFile, with(ole, fat + big * 4, uint8_t(big)), fat + big * 4,
         "/3: its chain comes round\n"},
        {KalVerifyCompoundFile, with(ole, entry(3, 116), uint8_t(ole[48])), entry(3, 116),
         "/3: its chain leads to a sector of another one\n"},
        {KalVerifyCompoundFile, with(ole, entry(3, 121), 0x12), entry(3, 120),
         "/3: it has more bytes than its chain\n"},
        {KalVerifyCompoundFile, with(ole, miniFat, 50), miniFat,
         "/2: its chain leads to a sector that the file has not\n"},
        {KalVerifyCompoundFile, with(ole, entry(4, 66), 7), entry(4, 66),
         "/4: it is neither a storage nor a stream\n"},
        {KalVerifyCompoundFile, with(ole, entry(4, 64), 6), entry(4, 64),
         "/4: its name is not of the length that it says\n"},
        {KalVerifyCompoundFile, with(ole, entry(1, 76), 3), entry(0, 76) - 76 + 128 * 1 + 76,
         "/1: it leads to an entry that belongs somewhere already\n"},
        {KalVerifyCompoundFile, with(ole, entry(1, 76), 2), entry(4, 66), "/4: no storage leads to it\n"},
        {KalVerifyCompoundFile, with(ole, entry(3, 0), ' '), entry(3, 0),
         "/3: its name is not where readers look for it in its storage\n"},
        {KalVerifyCompoundFile, Bytes(ole.begin(), ole.end() - 1), ole.size() - 1,
         "/file: the file ends inside a sector of its tables\n"},
    };
    for (const auto& damage : damages) {
        const std::string expected = std::to_string(damage.place) + damage.told;
        const std::string told = toldOf(damage.verify, damage.bytes);
        EXPECT_NE(told.find(expected), std::string::npos) << expected << "expected, told was\n" << told;
    }
}

TEST_F(VerifyFiles, SayThatTheyCouldNotLook) {
    const struct {
        Verify verify;
        Bytes bytes;
    } cases[] = {{KalVerifyCompoundFile, compoundFile()}, {KalVerifyRegistry, registryLog()}};
    for (const auto& [verify, whole] : cases) {
        bool met = true;
        for (int n = 1; met; n++) {
            HeapBalance balance;
            VectorStream stream(whole);
            Faults faults;
            failHeapAllocationsFrom(n);
            const int32_t result = verify(stream.file(), faults);
            met = heapFaultHappened();
            failHeapAllocationsFrom(0);
            EXPECT_EQ(result, met ? KAL_ERR_BUFFER : 0) << n;
            EXPECT_EQ(faults.told, "");
            EXPECT_TRUE(met || n > 1);
        }
    }
}

} // namespace
