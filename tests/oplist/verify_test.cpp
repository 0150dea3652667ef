#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/vector_stream.h"

#include <kal.h>

namespace {

class Faults : public FaultSink {
public:
    void Fault(uint64_t offset, uint32_t id, const char* text) override {
        told += std::to_string(offset) + "/" + (id == KAL_FAULT_OF_FILE ? "file" : std::to_string(id)) +
                ": " + text + "\n";
    }
    std::string told;
};

// Three lists, the last with a band of rows; plain or compressed.
Bytes makeFile(uint16_t format) {
    VectorStream stream;
    stream.file()->mode = KAL_MODE_CREATE | KAL_MODE_UPDATE;
    IOPFILE* file;
    EXPECT_EQ(KalMakeIOpFile(&file, stream.file(), format), 0);
    uint8_t band[KAL_DIB_OP_HEADER + 6] = {0, 0, 0, 0, 5, 0, 3, 0, 8}; // 3 lines of 5 pixels take 18 bytes
    for (uint16_t id = 1; id <= 3; id++) {
        OpList* list;
        EXPECT_EQ(KalOpenPutIOpList(file, id, &list), 0);
        KalPutOpData(list, id, "some text, some text", 20);
        band[6] = 1;
        KalPutOpData(list, KAL_OP_DIB, band, id == 3 ? sizeof band : 0);
        KalClosePutIOpList(file);
    }
    KalFreeIOpFile(file);
    return stream.bytes;
}

// Whether the library reads every list of the file to its end op.
bool readsWhole(const Bytes& bytes) {
    VectorStream stream(bytes);
    IOPFILE* file;
    if (KalMakeIOpFile(&file, stream.file(), 0) != 0)
        return false;
    bool whole = true;
    for (uint32_t id = 0; id < KAL_ITEM_FREE; id++) {
        OpList* list;
        if (KalFindItem(file->ifile, uint16_t(id)) == nullptr)
            continue;
        whole = whole && KalOpenGetIOpList(file, uint16_t(id), &list) == 0;
        while (void* op = whole ? KalGetOp(list) : nullptr)
            KalFreeSMem(KalOpBlock(op));
        whole = whole && KalGetOpError(list) == 0;
        KalCloseGetIOpList(file);
    }
    KalFreeIOpFile(file);
    return whole;
}

int32_t verify(const Bytes& bytes, std::string* told = nullptr) {
    VectorStream stream(bytes);
    Faults faults;
    const int32_t count = KalVerifyIOpFile(stream.file(), faults);
    if (told != nullptr)
        *told = faults.told;
    EXPECT_EQ(count > 0, !faults.told.empty());
    return count;
}

constexpr uint16_t kFormats[] = {0, KAL_ITEMS_WIDE, KAL_IOP_COMPRESSED, KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED};

} // namespace

TEST(Verify, CallsAFileWholeOnlyIfTheReadersReadIt) {
    for (const uint16_t format : kFormats) {
        const Bytes whole = makeFile(format);
        ASSERT_EQ(verify(whole), 0) << format;
        ASSERT_TRUE(readsWhole(whole));
        for (size_t at = 0; at < whole.size(); at++) {
            for (int bit = 0; bit < 8; bit++) {
                Bytes damaged = whole;
                damaged[at] = uint8_t(damaged[at] ^ 1 << bit);
                if (verify(damaged) == 0) {
                    ASSERT_TRUE(readsWhole(damaged))
                        << "format " << format << ", byte " << at << ", bit " << bit;
                }
            }
            ASSERT_NE(verify(Bytes(whole.begin(), whole.begin() + long(at))), 0)
                << "format " << format << ", cut at " << at;
        }
    }
}

TEST(Verify, TellsWhereAndWhatIsWrong) {
    struct Damage {
        size_t at;
        uint8_t value;
        const char* told;
    };
    // A wide plain file: entries of id, size and offset at 4, 14 and 24; lists at 104, 136 and 168 to 218.
    for (const Damage& damage : {
             Damage{14, 1, "14/1: an entry before it has the same id and hides it\n"},
             Damage{10, 20, "4/1: it lies in the index\n"},
             Damage{26, 70, "24/3: it runs past the end of the file\n"},
             Damage{6, 33, "14/2: it lies in the bytes of another item\n"},
             Damage{6, 31, "135/1: the list runs past its entry's size\n"},
             Damage{13, 1, "218/1: the list starts behind the end of the file\n"},
             Damage{170, 200, "168/3: an op runs past the end of the list\n"},
             Damage{214, 1, "218/3: the list ends without an end op\n"},
             Damage{202, 9, "192/3: a band of scan lines holds fewer lines than it says\n"},
             Damage{3, 16, "2/file: the index has more entries than a file can be opened with\n"},
         }) {
        Bytes bytes = makeFile(KAL_ITEMS_WIDE);
        bytes[damage.at] = damage.value;
        std::string told;
        verify(bytes, &told);
        EXPECT_NE(told.find(damage.told), std::string::npos) << damage.told << "expected, told was\n" << told;
    }
}

TEST(Verify, SaysThatItCouldNotLook) {
    const Bytes whole = makeFile(KAL_IOP_COMPRESSED);
    const int met = withEachAllocationFailing([&](int) {
        VectorStream stream(whole);
        Faults faults;
        const int32_t result = KalVerifyIOpFile(stream.file(), faults);
        EXPECT_TRUE(result == 0 || result == KAL_ERR_BUFFER || result == KAL_ERR_MEMORY) << result;
        EXPECT_EQ(result != 0, heapFaultHappened());
        EXPECT_EQ(faults.told, "");
    });
    EXPECT_GT(met, 3);
}
