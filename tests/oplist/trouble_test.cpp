// What trouble leaves of a file of lists that more are stored in.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

namespace {

class ListTrouble : public ListTest {
protected:
    static int storeMore(const char* name) {
        IOPFILE* file = nullptr;
        int status = KalOpenIOpFile(&file, name, KAL_MODE_UPDATE, 0);
        for (uint16_t id = 2; id < 14 && file != nullptr; id++)
            if (const int each = store(file, id, {{id, Bytes(100, 'n')}}); status == KAL_OK)
                status = each;
        const int closed = KalCloseIOpFile(file);
        return status != KAL_OK ? status : closed;
    }
    // What trouble may leave of a file: the list that was there, and none that is not whole, but for ops refused.
    static void check(const char* name) {
        IOPFILE* file = openFile(name, 0, 0);
        EXPECT_EQ(load(file, 1), (std::vector<Op>{{1, bytesOf("kept")}}));
        for (uint16_t id = 2; id < 14; id++)
            if (KalFindItem(file->ifile, id) != nullptr) {
                const std::vector<Op> ops = load(file, id);
                EXPECT_TRUE(ops.empty() || ops == (std::vector<Op>{{id, Bytes(100, 'n')}}));
            }
        KalCloseIOpFile(file);
    }
};

} // namespace

TEST_F(ListTrouble, IsToldAndLosesNoStoredList) {
    for (const auto& [name, format] :
         {std::pair<const char*, uint16_t>{"plain", 0x8000}, {"packed", 0xC000}}) {
        IOPFILE* made = openFile(name, kNew, format);
        EXPECT_EQ(store(made, 1, {{1, bytesOf("kept")}}) | KalReserveItems(made->ifile, 20), KAL_OK);
        EXPECT_EQ(KalCloseIOpFile(made), KAL_OK);
    }
    for (const char* name : {"plain", "packed"}) // whose index goes over an old one
        walkTrouble(
            {.run = [name] { return storeMore(name); },
             .statuses = {KAL_ERR_MEMORY, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE,
                          KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END, KAL_ERR_RUN, KAL_ERR_OPEN - EIO},
             .check = [](int) { check("plain"), check("packed"); },
             .unfinished = {name}},
            kAllTrouble & ~kDiskFull);
}
