// Everything that lists do, with everything going wrong: what was put is there, or a status says why not; and a stored
// list stays.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

#include <cerrno>

namespace {

class ListTrouble : public ListTest {
protected:
    // Puts two ops and reads them back, or a band that comes back as five.
    static int putAndGet(uint16_t mode) {
        OpList *list = nullptr, *clone = nullptr;
        int status = (mode & KAL_OPL_DIB) != 0 ? KalTempOpList(&list, mode)
                                               : KalOpenOpList(&list, "list", kNew | mode);
        if (status == KAL_OK && (mode & KAL_OPL_DIB) != 0) {
            list->blockSize = 1000;
            status = KalSetupOpList(list, 0, 0, 50, 40, 24, 0, 2000);
        }
        if (status == KAL_OK) {
            Bytes band = randomBytes(KAL_DIB_OP_HEADER + 40 * 200, 1);
            const uint16_t words[] = {0, 0, 50, 40, 24};
            std::memcpy(band.data(), words, sizeof words);
            const bool put = putOp(list, {KAL_OP_DIB, band}) != KAL_OP_FAILED &&
                             (list->dib != nullptr || putOp(list, {2, bytesOf("b")}) != KAL_OP_FAILED);
            status = KalSeekOp(list, 0);
            const size_t got = restOf(list).size();
            status = status != KAL_OK ? status : KalGetOpError(list);
            status = status == KAL_OK && !put ? KAL_ERR_MEMORY : status; // none for the op itself
            EXPECT_TRUE(got == (list->dib != nullptr ? 5 : 2) || status != KAL_OK) << got;
        }
        if (status == KAL_OK && (mode & KAL_OPL_VMEM) != 0)
            status = KalCloneOpList(list, &clone);
        KalCloseOpList(clone);
        KalCloseOpList(list);
        return status;
    }
    static int storeMore(const char* name) {
        IOPFILE* file = nullptr;
        int status = KalOpenIOpFile(&file, name, KAL_MODE_UPDATE, 0);
        for (uint16_t id = 2; id < 14 && file != nullptr; id++)
            if (const int each = store(file, id, {{id, Bytes(100, 'n')}}); status == KAL_OK)
                status = each;
        const int closed = KalCloseIOpFile(file);
        return status != KAL_OK ? status : closed;
    }
    static int verify(const char* name) {
        SFILE* stream = nullptr;
        const int opened = KalOpenFile(&stream, name, 0, 0);
        const std::string told = opened == KAL_OK ? faultsIn(stream, KalVerifyIOpFile) : "";
        EXPECT_EQ(told.find('/'), std::string::npos) << told;
        const int closed = opened == KAL_OK ? stream->close(stream) : opened;
        return told.empty() ? closed : KAL_ERR_READ;
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
    KalCloseVMem();
    KalSetMaxVMem(12000); // so that blocks go out and come back
    const std::pair<std::function<int()>, unsigned> works[] = {
        {[] { return putAndGet(0); }, kAllTrouble & ~kKilled},
        {[] { return putAndGet(KAL_OPL_COMPRESSED); }, kAllTrouble & ~kKilled},
        {[] { return putAndGet(KAL_OPL_VMEM); }, kNoMemory | kHostFails},
        {[] { return putAndGet(KAL_OPL_VMEM_DIB); }, kNoMemory | kHostFails},
        {[] { return storeMore("plain"); }, kAllTrouble & ~kDiskFull}, // the index goes over an old one
        {[] { return storeMore("packed"); }, kAllTrouble & ~kDiskFull},
        {[] { return verify("packed"); }, kNoMemory | kHostFails | kCutShort}};
    for (const auto& work : works) {
        SCOPED_TRACE(&work - works);
        const auto run = [&work] {
            const int opened = KalOpenVMem(0);
            const int done = opened == KAL_OK ? work.first() : opened;
            KalCloseVMem();
            return done;
        };
        walkTrouble(
            {.run = run,
             .statuses = {KAL_ERR_MEMORY, KAL_ERR_VMEM, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ,
                          KAL_ERR_CLOSE, KAL_ERR_DISK_FULL, KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END,
                          KAL_ERR_RUN, KAL_ERR_SERVICE, KAL_ERR_OPEN - EIO, KAL_ERR_OPEN - ENOSPC},
             .check = [](int) { check("plain"), check("packed"); },
             .unfinished = {"list", "plain", "packed"}},
            work.second);
    }
    EXPECT_EQ(KalOpenVMem(0), KAL_OK);
}
