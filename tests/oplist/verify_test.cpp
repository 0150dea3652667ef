// The walk through stored lists: what it tells of damage. That the readers read what it calls whole is fuzzed.
#include "tests/oplist/lists.h"
#include "tests/support/vector_stream.h"

namespace {

class Verify : public ListTest {
protected:
    // Three lists, the last with a band of rows; plain or compressed.
    static Bytes makeFile(uint16_t format) {
        IOPFILE* file = openFile("f", kNew, format);
        const Op text = {1, bytesOf("some text, some text")}, band = bandOf(0, 5, 1, 8, Bytes(6));
        EXPECT_EQ(store(file, 1, {text, {KAL_OP_DIB, {}}}) | store(file, 2, {text, {KAL_OP_DIB, {}}}) |
                      store(file, 3, {text, band}) | KalCloseIOpFile(file),
                  KAL_OK);
        return readFile("f");
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
        {{{1, {}}, {2, Bytes(65535)}, bandOf(0, 0, 9, 8, Bytes(0)), bandOf(0, 3, 0, 8, Bytes(0)), end}, ""},
        {{{1, {}}}, "4/file op "},
        {{{KAL_OP_FILLER, {}}, end}, "0/file memory "},
        {{{KAL_OP_DIB, Bytes(11)}, {KAL_OP_DIB, {}}, end}, "0/file says "},
        {{bandOf(0, 17, 3, 1, Bytes(12)), bandOf(0, 17, 3, 1, Bytes(11)), bandOf(0, 16, 3, 1, Bytes(6)), end},
         "28/file says "},
        {{bandOf(0, 5, 2, 4, Bytes(8)), bandOf(0, 5, 2, 4, Bytes(7)), bandOf(0, 4, 2, 4, Bytes(4)), end},
         "24/file says "},
        {{bandOf(0, 3, 2, 24, Bytes(24)), bandOf(0, 3, 2, 24, Bytes(23)), end}, "40/file says "}};
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
