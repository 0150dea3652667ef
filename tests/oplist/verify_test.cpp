// The walk through stored lists: what it calls whole the readers read, and what it tells of damage.
#include "tests/oplist/lists.h"
#include "tests/support/vector_stream.h"

#include <kal/cpp/items.h>

namespace {

// Lines of `bits` a pixel, some bytes too few or too many.
Op band(uint16_t width, uint16_t lines, uint16_t bits, size_t bytes) {
    Op op = {KAL_OP_DIB, Bytes(KAL_DIB_OP_HEADER + bytes)};
    const uint16_t words[] = {0, 0, width, lines, bits};
    std::memcpy(op.payload.data(), words, sizeof words);
    return op;
}

class Verify : public ListTest {
protected:
    // Three lists, the last with a band of rows; plain or compressed.
    static Bytes makeFile(uint16_t format) {
        VectorStream stream;
        stream.file()->mode = kNew;
        IOPFILE* file;
        EXPECT_EQ(KalMakeIOpFile(&file, stream.file(), format), KAL_OK);
        const Op text = {1, bytesOf("some text, some text")};
        EXPECT_EQ(store(file, 1, {text, {KAL_OP_DIB, {}}}) | store(file, 2, {text, {KAL_OP_DIB, {}}}) |
                      store(file, 3, {text, band(5, 1, 8, 6)}) | KalFreeIOpFile(file),
                  KAL_OK);
        return stream.bytes;
    }
    // Whether the library reads every list of the file to its end op.
    static bool readsWhole(const Bytes& bytes) {
        VectorStream stream(bytes);
        IOPFILE* file;
        bool whole = KalMakeIOpFile(&file, stream.file(), 0) == KAL_OK;
        for (uint32_t place = 0; whole && place < file->ifile->count; place++) {
            OpList* list;
            const uint16_t id = (*kal::EntryIterator(file->ifile, place)).id;
            whole =
                KalOpenGetIOpList(file, id, &list) == KAL_OK && (restOf(list), KalGetOpError(list)) == KAL_OK;
            KalCloseGetIOpList(file);
        }
        KalFreeIOpFile(file);
        return whole;
    }
    static std::string faults(const Bytes& bytes) {
        VectorStream stream(bytes);
        return faultsIn(stream.file(), KalVerifyIOpFile);
    }
};

template <uint16_t Compressed>
int32_t verifyList(SFILE* stream, FaultSink& sink) {
    return KalVerifyOpList(stream, Compressed, sink);
}

} // namespace

TEST_F(Verify, CallsAFileWholeOnlyIfTheReadersReadIt) {
    for (const uint16_t format : Words{0, 0x4000, 0x8000, 0xC000}) {
        const Bytes whole = makeFile(format);
        ASSERT_TRUE(faults(whole) == "" && readsWhole(whole)) << format;
        for (size_t bit = 0; bit < whole.size() * 8; bit++) {
            Bytes damaged = whole;
            damaged[bit / 8] ^= uint8_t(1 << bit % 8);
            ASSERT_TRUE(faults(damaged) != "" || readsWhole(damaged)) << format << ", bit " << bit;
            damaged.resize(bit / 8);
            ASSERT_TRUE(bit % 8 != 0 || faults(damaged) != "") << format << ", cut at " << bit / 8;
        }
    }
}

// Each fault by its place and the last word of its text. A wide plain file has entries of id, size and offset at 4, 14
// and 24; lists at 104, 136 and 168 to 218.
TEST_F(Verify, TellsWhereAndWhatIsWrong) {
    const struct {
        size_t at;
        uint8_t value;
        const char* told;
    } damages[] = {{14, 1, "14/1 it "},     {10, 20, "4/1 index "},    {26, 70, "24/3 file "},
                   {6, 33, "14/2 item "},   {6, 31, "135/1 size "},    {6, 0, ""},
                   {13, 1, "218/1 file "},  {170, 200, "168/3 list "}, {214, 1, "218/3 op "},
                   {202, 9, "192/3 says "}, {3, 16, "2/file with "}};
    for (const auto& [at, value, told] : damages) {
        Bytes bytes = makeFile(KAL_ITEMS_WIDE);
        bytes[at] = value;
        const std::string all = faults(bytes);
        EXPECT_TRUE(all == told || (*told != 0 && all.find(told) != std::string::npos))
            << told << ": " << all;
    }
    const Op end = {0, {}};
    const std::pair<std::vector<Op>, const char*> lists[] = {
        {{{1, {}}, {2, Bytes(65535)}, band(0, 9, 8, 0), band(3, 0, 8, 0), end}, ""},
        {{{1, {}}}, "4/file op "},
        {{{KAL_OP_FILLER, {}}, end}, "0/file memory "},
        {{{KAL_OP_DIB, Bytes(11)}, {KAL_OP_DIB, {}}, end}, "0/file says "},
        {{band(17, 3, 1, 12), band(17, 3, 1, 11), band(16, 3, 1, 6), end}, "28/file says "},
        {{band(5, 2, 4, 8), band(5, 2, 4, 7), band(4, 2, 4, 4), end}, "24/file says "},
        {{band(3, 2, 24, 24), band(3, 2, 24, 23), end}, "40/file says "}};
    for (const auto& [ops, told] : lists) {
        VectorStream stream(stored(ops));
        EXPECT_EQ(faultsIn(stream.file(), verifyList<0>), told);
    }
    OpList* list = open(kNew | KAL_OPL_COMPRESSED);
    putOp(list, {1, Bytes(300)});
    close(list);
    VectorStream stream(readFile("f"));
    EXPECT_EQ(faultsIn(stream.file(), verifyList<1>), "");
    stream.bytes.resize(stream.bytes.size() - 3);
    stream.rewind();
    EXPECT_NE(faultsIn(stream.file(), verifyList<1>), "");
}
