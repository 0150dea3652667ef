// Records: op lists in files and VMem, bitmap rows and items, beside the simplest thing that does the same work.
#include "bench/row.h"

#include <kal.h>
#include <lmdb.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <numeric>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kFile[] = "/dev/shm/kal-record-bench";
constexpr char kLmdbFile[] = "/dev/shm/kal-record-bench-lmdb";
constexpr int kRecords = 160000;
constexpr uint32_t kRecordBytes = 1678; // 256 MiB in all
constexpr int kRows = 3000;
constexpr uint16_t kRowPixels = 12000;
constexpr uint16_t kItems = 4000;
constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_WRITE;

const std::vector<char>& record() {
    static const std::vector<char> bytes(65536, 'r');
    return bytes;
}

void putRecords(OpList* list) {
    for (int i = 0; i < kRecords; i++)
        check(KalPutOpData(list, 7, record().data(), kRecordBytes) != KAL_OP_FAILED);
}

int getRecords(OpList* list) {
    int count = 0;
    while (void* op = KalGetOp(list)) {
        KalFreeSMem(KalOpBlock(op));
        count++;
    }
    return count;
}

void putRecordsInFile(benchmark::State& state) {
    for (auto _ : state) {
        OpList* list;
        check(KalOpenOpList(&list, kFile, kNew) == 0);
        putRecords(list);
        KalCloseOpList(list);
    }
}

void writeRecordsStdio() {
    FILE* file = std::fopen(kFile, "wb");
    for (int i = 0; i < kRecords; i++) {
        const uint16_t header[] = {7, kRecordBytes};
        std::fwrite(header, 1, sizeof header, file);
        std::fwrite(record().data(), 1, kRecordBytes, file);
    }
    std::fclose(file);
}

void putRecordsStdio(benchmark::State& state) {
    for (auto _ : state)
        writeRecordsStdio();
}

void getRecordsFromFile(benchmark::State& state) {
    OpList* list;
    check(KalOpenOpList(&list, kFile, kNew) == 0);
    putRecords(list);
    KalSeekOp(list, 0);
    for (auto _ : state) {
        check(getRecords(list) == kRecords);
        KalSeekOp(list, 0);
    }
    KalCloseOpList(list);
}

void readRecordsStdio(benchmark::State& state) {
    writeRecordsStdio();
    for (auto _ : state) {
        FILE* file = std::fopen(kFile, "rb");
        uint16_t header[2];
        while (std::fread(header, 1, sizeof header, file) == sizeof header) {
            auto* payload = static_cast<char*>(std::malloc(header[1]));
            check(std::fread(payload, 1, header[1], file) == header[1]);
            std::free(payload);
        }
        std::fclose(file);
    }
}

// As many bytes in 64 KiB pieces, without a record.
void readRecordBytes(benchmark::State& state) {
    writeRecordsStdio();
    std::vector<char> piece(0x10000);
    for (auto _ : state) {
        const int file = open(kFile, O_RDONLY);
        while (read(file, piece.data(), piece.size()) > 0)
            benchmark::ClobberMemory();
        close(file);
    }
}

void writeRecordBytes(benchmark::State& state) {
    constexpr ssize_t kPiece = 0x10000;
    for (auto _ : state) {
        const int file = open(kFile, O_RDWR | O_CREAT | O_TRUNC, 0600);
        for (uint64_t left = uint64_t{kRecords} * (kRecordBytes + 4); left >= kPiece; left -= kPiece)
            check(write(file, record().data(), kPiece) == kPiece);
        close(file);
    }
}

void putRecordsInVMem(benchmark::State& state) {
    for (auto _ : state) {
        OpList* list;
        check(KalOpenOpList(&list, nullptr, KAL_OPL_VMEM) == 0);
        putRecords(list);
        KalCloseOpList(list);
    }
}

void getRecordsFromVMem(benchmark::State& state) {
    OpList* list;
    check(KalOpenOpList(&list, nullptr, KAL_OPL_VMEM) == 0);
    putRecords(list);
    KalSeekOp(list, 0);
    for (auto _ : state) {
        check(getRecords(list) == kRecords);
        KalSeekOp(list, 0);
    }
    KalCloseOpList(list);
}

// A bare copy of as many records into memory that is warm, and out of it.
void copyRecords(benchmark::State& state, bool put) {
    std::vector<char> arena(size_t(kRecords) * (kRecordBytes + 4), 'a');
    std::vector<char> room(kRecordBytes);
    const uint16_t header[] = {7, kRecordBytes};
    for (auto _ : state)
        for (char* place = arena.data(); place != arena.data() + arena.size(); place += kRecordBytes + 4) {
            if (put) {
                std::memcpy(place, header, sizeof header);
                std::memcpy(place + 4, record().data(), kRecordBytes);
            } else {
                std::memcpy(room.data(), place + 4, kRecordBytes);
            }
            benchmark::ClobberMemory();
        }
}

void rows(benchmark::State& state, bool put) {
    OpList* list;
    check(KalTempOpList(&list, KAL_OPL_VMEM | KAL_OPL_DIB) == 0);
    check(KalSetupOpList(list, 0, 0, kRowPixels, kRows, 8, 0, 60000) == 0);
    std::vector<char> row(kRowPixels, 'p');
    auto all = [&](bool writing) {
        KalSeekDIBScanLineOffset(list, 0, 0);
        for (int i = 0; i < kRows; i++)
            check(writing ? KalPutDIBOpData(list, row.data(), kRowPixels) != KAL_OP_FAILED
                          : KalGetDIBOpData(list, row.data(), kRowPixels) == 0);
    };
    all(true);
    for (auto _ : state)
        all(put);
    KalCloseOpList(list);
}

uint32_t itemBytes(uint16_t id) {
    return 1024 + id * 15u % 60000;
}

void writeItems(IFILE* file) {
    for (uint16_t id = 0; id < kItems; id++)
        check(KalWriteIFile(file, record().data(), itemBytes(id), id) == itemBytes(id));
}

void writeItemFile(benchmark::State& state) {
    for (auto _ : state) {
        IFILE* file;
        check(KalOpenIFile(&file, kFile, kNew, 0) == 0);
        writeItems(file);
        KalCloseIFile(file);
    }
}

std::vector<uint16_t> randomOrder() {
    std::vector<uint16_t> order(kItems);
    std::iota(order.begin(), order.end(), uint16_t(0));
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

void readItems(benchmark::State& state) {
    IFILE* file;
    check(KalOpenIFile(&file, kFile, kNew, 0) == 0);
    writeItems(file);
    const auto order = randomOrder();
    std::vector<char> room(65536);
    for (auto _ : state)
        for (uint16_t id : order)
            check(KalReadIFile(file, room.data(), uint32_t(room.size()), id) == itemBytes(id));
    KalCloseIFile(file);
}

void readItemsFromLmdb(benchmark::State& state) {
    MDB_env* store;
    MDB_txn* work;
    MDB_dbi table;
    const auto begin = [&](unsigned flags) {
        check(mdb_txn_begin(store, nullptr, flags, &work) == 0 &&
              mdb_dbi_open(work, nullptr, 0, &table) == 0);
    };
    check(mdb_env_create(&store) == 0 && mdb_env_set_mapsize(store, 1 << 30) == 0 &&
          mdb_env_open(store, kLmdbFile, MDB_NOSUBDIR | MDB_NOSYNC | MDB_NOLOCK, 0600) == 0);
    begin(0);
    for (uint16_t id = 0; id < kItems; id++) {
        MDB_val key = {sizeof id, &id};
        MDB_val value = {itemBytes(id), const_cast<char*>(record().data())};
        check(mdb_put(work, table, &key, &value, 0) == 0);
    }
    check(mdb_txn_commit(work) == 0);
    begin(MDB_RDONLY);
    const auto order = randomOrder();
    std::vector<char> room(65536);
    for (auto _ : state)
        for (uint16_t id : order) {
            MDB_val key = {sizeof id, &id};
            MDB_val value;
            check(mdb_get(work, table, &key, &value) == 0 && value.mv_size == itemBytes(id));
            std::memcpy(room.data(), value.mv_data, value.mv_size);
            benchmark::ClobberMemory();
        }
    mdb_txn_abort(work);
    mdb_env_close(store);
    std::remove(kLmdbFile);
}

// One call of the host for each item, where it stands known.
void readItemBytes(benchmark::State& state) {
    IFILE* items;
    check(KalOpenIFile(&items, kFile, kNew, 0) == 0);
    writeItems(items);
    KalCloseIFile(items);
    std::vector<off_t> offsets;
    off_t offset = 0;
    for (uint16_t id = 0; id < kItems; offset += itemBytes(id++))
        offsets.push_back(offset);
    const int file = open(kFile, O_RDONLY);
    const auto order = randomOrder();
    std::vector<char> room(65536);
    for (auto _ : state)
        for (uint16_t id : order)
            check(pread(file, room.data(), itemBytes(id), offsets[id]) == ssize_t(itemBytes(id)));
    close(file);
}

void cells() {
    constexpr char kPut[] = "160,000 records put in a file";
    cell(kPut, "kal", putRecordsInFile);
    cell(kPut, "stdio", putRecordsStdio);
    cell(kPut, "limit", writeRecordBytes);
    constexpr char kGet[] = "160,000 records got from a file";
    cell(kGet, "kal", getRecordsFromFile);
    cell(kGet, "stdio", readRecordsStdio);
    cell(kGet, "limit", readRecordBytes);
    // Warm: the first time round the host has to make every page.
    constexpr char kPutInMemory[] = "160,000 records put in memory";
    cell(kPutInMemory, "kal", putRecordsInVMem)->MinWarmUpTime(1.2);
    cell(kPutInMemory, "limit", [](benchmark::State& state) { copyRecords(state, true); });
    constexpr char kGotFromMemory[] = "160,000 records got from memory";
    cell(kGotFromMemory, "kal", getRecordsFromVMem);
    cell(kGotFromMemory, "limit", [](benchmark::State& state) { copyRecords(state, false); });
    cell("3,000 bitmap rows put", "kal", [](benchmark::State& state) { rows(state, true); });
    cell("3,000 bitmap rows got", "kal", [](benchmark::State& state) { rows(state, false); });
    cell("4,000 items written", "kal", writeItemFile);
    constexpr char kItemsRead[] = "4,000 items read at random";
    cell(kItemsRead, "kal", readItems);
    cell(kItemsRead, "LMDB", readItemsFromLmdb);
    cell(kItemsRead, "pread", readItemBytes);
}

} // namespace

int main(int argc, char** argv) {
    cells();
    benchmark::Initialize(&argc, argv);
    KalSetMaxVMem(1 << 30);
    check(KalOpenVMem(0) == 0);
    benchmark::RunSpecifiedBenchmarks();
    KalCloseVMem();
    std::remove(kFile);
    return 0;
}
