// The walks through compound files, registry logs and resource files, held against their readers.
#include "tests/platform/told.h"
#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/storage.h"

namespace {

Bytes with(Bytes bytes, size_t at, size_t value) {
    bytes.at(at) = static_cast<uint8_t>(value);
    return bytes;
}

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
    static Bytes registryLog() {
        setText("Maker\\App", "blue");
        return readFile("registry/log");
    }
};

TEST_F(VerifyFiles, TellWhereAndWhatIsWrong) {
    const Bytes log = registryLog(), ole = compoundFile(),
                narrow = {0, 0, 1, 0, 1, 0, 2, 0, 12, 0, 0, 0, 'h', 'i'};
    Bytes wide = {0, 0x80, 1, 0, 1, 0, 0, 0, 1, 0, 14, 0, 0, 0};
    wide.resize(14 + 65536);
    EXPECT_EQ(toldOf(KalVerifyResources, narrow), "");
    const auto sector = [](size_t number) { return 512 * (1 + number); };
    const size_t fat = sector(ole[76]), own = fat + ole[76] * 4u, miniFat = sector(ole[60]);
    // Entries: 1 the storage, 2 the stream a, 3 the stream Big, 4 the stream in the storage, in a second sector.
    const auto entry = [=, first = sector(ole[48]), later = sector(ole[fat + ole[48] * 4u])](size_t number,
                                                                                             size_t field) {
        return (number < 4 ? first : later) + number % 4 * 128 + field;
    };
    const size_t big = ole[entry(3, 116)];
    const struct {
        Verify verify;
        const Bytes& whole;
        size_t at, value, place;
        const char* told;
    } damages[] = {
        {KalVerifyResources, narrow, 6, 3, 4, "/1: it runs past the end of the file"},
        {KalVerifyResources, wide, 0, 0, 4, "/1: it has more bytes than a resource can have"},
        {KalVerifyRegistry, log, 4, 2, 4, "/file: its version is not 1"},
        {KalVerifyRegistry, log, 13, 0, 12, "/file: the log ends inside its header"},
        {KalVerifyRegistry, log, 14, 1, 12, "/file: the log ends behind the end of the file"},
        {KalVerifyRegistry, log, 4096, 19, 4096, "/0: a record's length makes no sense"},
        {KalVerifyRegistry, log, 4116, '!', 4096, "/0: a record is not what was written"},
        {KalVerifyCompoundFile, ole, 44, 200, 44, "/file: the number of its FAT's sectors is 0 or more"},
        {KalVerifyCompoundFile, ole, own, 0, own, "/file: the FAT does not mark a sector of its own"},
        {KalVerifyCompoundFile, ole, 48, 99, 48, "/file: its chain leads to a sector that the file has not"},
        {KalVerifyCompoundFile, ole, fat + big * 4, big, fat + big * 4, "/3: its chain comes round"},
        {KalVerifyCompoundFile, ole, entry(3, 121), 0x12, entry(3, 120),
         "/3: it has more bytes than its chain"},
        {KalVerifyCompoundFile, ole, miniFat, 50, miniFat,
         "/2: its chain leads to a sector that the file has"},
        {KalVerifyCompoundFile, ole, entry(4, 64), 6, entry(4, 64),
         "/4: its name is not of the length that it says"},
        {KalVerifyCompoundFile, ole, entry(1, 76), 3, entry(1, 76),
         "/1: it leads to an entry that belongs somewhere"},
        {KalVerifyCompoundFile, ole, entry(1, 76), 2, entry(4, 66), "/4: no storage leads to it"},
        {KalVerifyCompoundFile, ole, entry(3, 0), ' ', entry(3, 0),
         "/3: its name is not where readers look for it"}};
    for (const auto& [verify, whole, at, value, place, text] : damages) {
        const std::string told = toldOf(verify, with(whole, at, value)),
                          wanted = std::to_string(place) + text;
        EXPECT_NE(told.find(wanted), std::string::npos) << wanted << "expected, told was\n" << told;
    }
}

TEST_F(VerifyFiles, SayThatTheyCouldNotLook) {
    const std::pair<Verify, Bytes> cases[] = {{KalVerifyCompoundFile, compoundFile()},
                                              {KalVerifyRegistry, registryLog()}};
    for (const auto& [verify, whole] : cases)
        EXPECT_GT(withEachAllocationFailing([&, verify = verify, &whole = whole](int n) {
                      VectorStream stream(whole);
                      Faults faults;
                      failHeapAllocationsFrom(n);
                      const int32_t result = verify(stream.file(), faults);
                      EXPECT_EQ(result, heapFaultHappened() ? KAL_ERR_BUFFER : 0) << n;
                      EXPECT_EQ(faults.told, "");
                  }),
                  0);
}

} // namespace
