// Records: op lists in files and VMem, bitmap rows and items, beside the simplest thing that does the same work.
#include <kal.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace {

constexpr char kFile[] = "/dev/shm/kal-record-bench";
constexpr int kRecords = 160000;
constexpr uint32_t kRecordBytes = 1678; // 256 MiB in all
constexpr int kRows = 3000;
constexpr uint16_t kRowPixels = 12000;
constexpr uint16_t kItems = 4000;
constexpr uint16_t kNew = KAL_MODE_CREATE | KAL_MODE_WRITE;

void check(bool held) {
    if (!held)
        std::abort();
}

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

void putRows(benchmark::State& state) {
    rows(state, true);
}

void getRows(benchmark::State& state) {
    rows(state, false);
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

void readItemsAtRandom(benchmark::State& state) {
    IFILE* file;
    check(KalOpenIFile(&file, kFile, kNew, 0) == 0);
    writeItems(file);
    std::vector<uint16_t> order(kItems);
    std::iota(order.begin(), order.end(), uint16_t(0));
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    std::vector<char> room(65536);
    for (auto _ : state)
        for (uint16_t id : order)
            check(KalReadIFile(file, room.data(), uint32_t(room.size()), id) == itemBytes(id));
    KalCloseIFile(file);
}

} // namespace

BENCHMARK(putRecordsInFile)->Unit(benchmark::kMillisecond);
BENCHMARK(putRecordsStdio)->Unit(benchmark::kMillisecond);
BENCHMARK(getRecordsFromFile)->Unit(benchmark::kMillisecond);
BENCHMARK(readRecordsStdio)->Unit(benchmark::kMillisecond);
// Warm: the first time round the host has to make every page.
BENCHMARK(putRecordsInVMem)->MinWarmUpTime(1.2)->Unit(benchmark::kMillisecond);
BENCHMARK(getRecordsFromVMem)->Unit(benchmark::kMillisecond);
BENCHMARK(putRows)->Unit(benchmark::kMillisecond);
BENCHMARK(getRows)->Unit(benchmark::kMillisecond);
BENCHMARK(writeItemFile)->Unit(benchmark::kMillisecond);
BENCHMARK(readItemsAtRandom)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    KalSetMaxVMem(1 << 30);
    check(KalOpenVMem(0) == 0);
    benchmark::RunSpecifiedBenchmarks();
    KalCloseVMem();
    std::remove(kFile);
    return 0;
}
