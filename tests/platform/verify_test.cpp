// The walks through compound files, registry logs and resource files, held against their readers.
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/storage.h"
#include "tests/support/told.h"

namespace {

class VerifyFiles : public RegistryTest {
protected:
    // Two sectors of mini streams, a stream in sectors, and a storage with a stream.
    static Bytes compoundFile() {
        {
            Ref<IStorage> root, inner;
            EXPECT_EQ(createFile("c.ole", root), S_OK);
            EXPECT_EQ(root->CreateStorage(L"Abc", kUpdate, 0, 0, inner.out()), S_OK);
            EXPECT_EQ(putStream(root.get(), L"a", randomBytes(70, 1)) |
                          putStream(root.get(), L"Big", randomBytes(4096, 1)) |
                          putStream(inner.get(), L"b", randomBytes(9, 1)),
                      S_OK);
        }
        return readFile("c.ole");
    }
};

TEST_F(VerifyFiles, TellWhereAndWhatIsWrong) {
    setText("Maker\\App", "blue");
    const Bytes log = readFile("registry/log"), ole = compoundFile(),
                narrow = {0, 0, 1, 0, 1, 0, 2, 0, 12, 0, 0, 0, 'h', 'i'};
    Bytes wide = {0, 0x80, 1, 0, 1, 0, 0, 0, 1, 0, 14, 0, 0, 0};
    wide.resize(14 + 65536);
    EXPECT_EQ(faultsIn(narrow, KalVerifyResources), "");
    const auto sector = [](size_t number) { return 512 * (1 + number); };
    const size_t fat = sector(ole[76]), own = fat + ole[76] * 4u, miniFat = sector(ole[60]);
    // Entries: 1 the storage, 2 the stream a, 3 the stream Big, 4 the stream in the storage, in a second sector.
    const auto entry = [=, first = sector(ole[48]), later = sector(ole[fat + ole[48] * 4u])](size_t number,
                                                                                             size_t field) {
        return (number < 4 ? first : later) + number % 4 * 128 + field;
    };
    const size_t big = ole[entry(3, 116)];
    const struct {
        int32_t (*verify)(SFILE*, FaultSink&);
        const Bytes& whole;
        size_t at, value, place;
        const char* told;
    } damages[] = {{KalVerifyResources, narrow, 6, 3, 4, "/1 file "},
                   {KalVerifyResources, wide, 0, 0, 4, "/1 have "},
                   {KalVerifyRegistry, log, 4, 2, 4, "/file 1 "},
                   {KalVerifyRegistry, log, 13, 0, 12, "/file header "},
                   {KalVerifyRegistry, log, 14, 1, 12, "/file file "},
                   {KalVerifyRegistry, log, 4096, 19, 4096, "/0 read "},
                   {KalVerifyRegistry, log, 4116, '!', 4096, "/0 read "},
                   {KalVerifyCompoundFile, ole, 44, 200, 44, "/file has "},
                   {KalVerifyCompoundFile, ole, own, 0, own, "/file such "},
                   {KalVerifyCompoundFile, ole, 48, 99, 48, "/file not "},
                   {KalVerifyCompoundFile, ole, fat + big * 4, big, fat + big * 4, "/3 round "},
                   {KalVerifyCompoundFile, ole, entry(3, 121), 0x12, entry(3, 120), "/3 chain "},
                   {KalVerifyCompoundFile, ole, miniFat, 50, miniFat, "/2 not "},
                   {KalVerifyCompoundFile, ole, entry(4, 64), 6, entry(4, 64), "/4 says "},
                   {KalVerifyCompoundFile, ole, entry(1, 76), 3, entry(1, 76), "/1 already "},
                   {KalVerifyCompoundFile, ole, entry(1, 76), 2, entry(4, 66), "/4 it "},
                   {KalVerifyCompoundFile, ole, entry(3, 0), ' ', entry(3, 0), "/3 storage "}};
    for (const auto& [verify, whole, at, value, place, text] : damages) {
        Bytes damaged = whole;
        damaged.at(at) = static_cast<uint8_t>(value);
        const std::string told = faultsIn(damaged, verify), wanted = std::to_string(place) + text;
        EXPECT_NE(told.find(wanted), std::string::npos) << wanted << "expected, told was\n" << told;
        const std::string sound = faultsIn(whole, verify);
        bool met = true;
        for (int n = 1; met; n++) {
            const HeapBalance balance;
            failHeapAllocationsFrom(n);
            const std::string found = faultsIn(whole, verify);
            met = heapFaultHappened();
            failHeapAllocation(0);
            EXPECT_EQ(found, met ? "KAL_ERR_BUFFER" : sound) << n;
        }
    }
}

} // namespace
