// Everything that lists do, with everything going wrong: what was put is there, or a status says why not; and a stored
// list stays.
#include "tests/oplist/lists.h"
#include "tests/support/trouble.h"

#include <cerrno>

namespace {

class ListTrouble : public ListTest {
protected:
    static int putAndGet(uint16_t mode) {
        OpList* list = nullptr;
        int status = KalOpenOpList(&list, "list", kNew | mode);
        if (status == KAL_OK) {
            const bool put = putOp(list, {1, randomBytes(9000, 1)}) != KAL_OP_FAILED &&
                             putOp(list, {2, bytesOf("b")}) != KAL_OP_FAILED;
            status = KalSeekOp(list, 0);
            const size_t got = restOf(list).size();
            status = status != KAL_OK ? status : KalGetOpError(list);
            status = status == KAL_OK && !put ? KAL_ERR_MEMORY : status; // no memory for the op itself
            EXPECT_TRUE(got == 2 || status != KAL_OK) << got;
        }
        KalCloseOpList(list);
        return status;
    }
    static int bitmap() {
        OpList *list = nullptr, *clone = nullptr;
        int status = KalTempOpList(&list, KAL_OPL_VMEM_DIB);
        if (status == KAL_OK) {
            list->blockSize = 1000;
            status = KalSetupOpList(list, 0, 0, 50, 40, 24, 0, 2000);
        }
        if (status == KAL_OK) {
            Op band = {KAL_OP_DIB, randomBytes(KAL_DIB_OP_HEADER + 40 * 200, 1)};
            const uint16_t words[] = {0, 0, 50, 40, 24};
            std::memcpy(band.payload.data(), words, sizeof words);
            const bool put = putOp(list, band) != KAL_OP_FAILED;
            KalSeekOp(list, 0);
            const size_t bands = restOf(list).size();
            status = put ? KalGetOpError(list) : int16_t{KAL_ERR_MEMORY};
            EXPECT_TRUE(bands == 5 || status != KAL_OK) << bands << " bands";
        }
        status = status == KAL_OK ? KalCloneOpList(list, &clone) : status;
        KalCloseOpList(list);
        EXPECT_TRUE(clone == nullptr || status != KAL_OK || clone->dib->height == 40);
        KalCloseOpList(clone);
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
};

} // namespace

TEST_F(ListTrouble, IsToldAndLosesNoStoredList) {
    for (const auto& [name, format] :
         {std::pair<const char*, uint16_t>{"plain", 0x8000}, {"packed", 0xC000}}) {
        IOPFILE* made = openFile(name, kNew, format);
        EXPECT_EQ(store(made, 1, {{1, bytesOf("kept")}}), KAL_OK);
        EXPECT_EQ(KalReserveItems(made->ifile, 20), KAL_OK);
        KalCloseIOpFile(made);
    }
    KalCloseVMem();
    const auto check = [](int) {
        for (const char* name : {"plain", "packed"}) {
            IOPFILE* file = openFile(name, 0, 0);
            EXPECT_EQ(load(file, 1), (std::vector<Op>{{1, bytesOf("kept")}}));
            for (uint16_t id = 2; id < 14; id++)
                if (KalFindItem(file->ifile, id) != nullptr) { // an op that was refused is missing
                    const std::vector<Op> ops = load(file, id);
                    EXPECT_TRUE(ops.empty() || ops == (std::vector<Op>{{id, Bytes(100, 'n')}}));
                }
            KalCloseIOpFile(file);
        }
    };
    const std::function<int()> works[] = {[] { return putAndGet(0); },
                                          [] { return putAndGet(KAL_OPL_COMPRESSED); },
                                          [] { return putAndGet(KAL_OPL_VMEM); },
                                          bitmap,
                                          [] { return storeMore("plain"); },
                                          [] { return storeMore("packed"); },
                                          [] { return verify("packed"); }};
    for (const auto& work : works) {
        SCOPED_TRACE(&work - works);
        const auto run = [&work] {
            const int opened = KalOpenVMem(0);
            const int done = opened == KAL_OK ? work() : opened;
            KalCloseVMem();
            return done;
        };
        walkTrouble(
            {.run = run,
             .statuses = {KAL_ERR_MEMORY, KAL_ERR_VMEM, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ,
                          KAL_ERR_CLOSE, KAL_ERR_DISK_FULL, KAL_ERR_SHORT_READ, KAL_ERR_SEEK, KAL_ERR_END,
                          KAL_ERR_RUN, KAL_ERR_SERVICE, KAL_ERR_OPEN - EIO, KAL_ERR_OPEN - ENOSPC},
             .check = check,
             .unfinished = {"list", "plain", "packed"}},
            &work < works + 4 ? kAllTrouble & ~kKilled : kAllTrouble & ~kDiskFull);
    }
    EXPECT_EQ(KalOpenVMem(0), KAL_OK);
}
