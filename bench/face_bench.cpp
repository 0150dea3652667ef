// The C++ face beside what it stands on or stands in for: kal::streambuf beside std::filebuf, ranges and owners beside
// the plain calls. Files in memory.
#include "bench/row.h"

#include <kal/cpp.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr char kFile[] = "/dev/shm/kal-face-bench";
constexpr std::streamsize kBytes = 64 << 20;
constexpr uint16_t kOps = 60000;

// Each takes its turn as the stream buffer of `use`.
template <class Use>
void withFilebuf(std::ios::openmode mode, Use use) {
    std::filebuf buffer;
    check(buffer.open(kFile, mode | std::ios::binary) != nullptr);
    use(buffer);
    check(buffer.close() != nullptr);
}
template <class Use>
void withStreambuf(std::ios::openmode mode, Use use) {
    const bool writes = (mode & std::ios::out) != 0;
    auto stream = writes ? kal::Stream::create(kFile) : kal::Stream::open(kFile);
    {
        kal::streambuf buffer(*stream);
        use(buffer);
    }
    check(stream->close().ok());
}

// A cell for each: `use` is the whole work, from opening to closing.
template <class Use>
void bufferRow(const std::string& row, std::ios::openmode mode, Use use) {
    cell(row, "kal", [=](benchmark::State& state) {
        for (auto _ : state)
            withStreambuf(mode, use);
    });
    cell(row, "filebuf", [=](benchmark::State& state) {
        for (auto _ : state)
            withFilebuf(mode, use);
    });
}

void bufferRows() {
    for (const std::streamsize size : {100, 4096, 32768}) {
        const std::string pieces = "64 MiB by a stream buffer, pieces of " + std::to_string(size) + ", ";
        bufferRow(pieces + "written", std::ios::out | std::ios::trunc, [size](std::streambuf& buffer) {
            const std::vector<char> piece(size_t(size), 'x');
            for (std::streamsize done = 0; done < kBytes; done += size)
                check(buffer.sputn(piece.data(), size) == size);
        });
        bufferRow(pieces + "read", std::ios::in, [size](std::streambuf& buffer) {
            std::vector<char> piece(static_cast<size_t>(size));
            while (buffer.sgetn(piece.data(), size) > 0)
                benchmark::ClobberMemory();
        });
    }
    bufferRow("64 MiB by a stream buffer, a byte at a time, written", std::ios::out | std::ios::trunc,
              [](std::streambuf& buffer) {
                  for (std::streamsize done = 0; done < kBytes; done++)
                      buffer.sputc(char(done));
              });
    bufferRow("64 MiB by a stream buffer, a byte at a time, read", std::ios::in, [](std::streambuf& buffer) {
        uint32_t sum = 0;
        for (int byte; (byte = buffer.sbumpc()) >= 0;)
            sum += uint32_t(byte);
        benchmark::DoNotOptimize(sum);
    });
    bufferRow("20,000 places in 64 MiB by a stream buffer, 16 bytes read at each", std::ios::in,
              [](std::streambuf& buffer) {
                  char bytes[16];
                  uint32_t place = 1;
                  for (int i = 0; i < 20000; i++) {
                      place = place * 1664525 + 1013904223;
                      buffer.pubseekpos(place % (kBytes - 16));
                      check(buffer.sgetn(bytes, 16) == 16);
                  }
              });
}

// A list of ops of 1 to 200 bytes in movable memory.
kal::OperationList list() {
    auto made = kal::OperationList::inMemory().value();
    const std::string bytes(200, 'x');
    for (uint16_t i = 1; i <= kOps; i++)
        check(KalPutOpData(made.get(), i, bytes.data(), i % 200 + 1U) != KAL_OP_FAILED);
    return made;
}

void listRows() {
    const std::string got = "60,000 ops got in a loop";
    cell(got, "kal", [](benchmark::State& state) {
        const kal::OperationList ops = list();
        for (auto _ : state) {
            size_t sum = 0;
            for (kal::Op op : ops)
                sum += op.type + op.bytes.size();
            benchmark::DoNotOptimize(sum);
        }
    });
    cell(got, "plain calls", [](benchmark::State& state) {
        const kal::OperationList ops = list();
        for (auto _ : state) {
            size_t sum = 0;
            KalSeekOp(ops.get(), 0);
            for (void* op; (op = KalGetOp(ops.get())) != nullptr; KalFreeSMem(KalOpBlock(op)))
                sum += size_t{KalOpType(op)} + KalOpSize(op);
            benchmark::DoNotOptimize(sum);
        }
    });
    const std::string put = "60,000 ops put";
    const std::string bytes(100, 'x');
    cell(put, "kal", [bytes](benchmark::State& state) {
        auto ops = list();
        for (auto _ : state) {
            check(ops.seek(0).ok());
            for (uint16_t i = 1; i <= kOps; i++)
                check(ops.put(i, bytes).has_value());
        }
    });
    cell(put, "plain calls", [bytes](benchmark::State& state) {
        const auto ops = list();
        for (auto _ : state) {
            check(KalSeekOp(ops.get(), 0) == 0);
            for (uint16_t i = 1; i <= kOps; i++)
                check(KalPutOpData(ops.get(), i, bytes.data(), uint32_t(bytes.size())) != KAL_OP_FAILED);
        }
    });
}

void ownerRows() {
    const std::string streams = "100,000 memory streams opened, written, closed";
    cell(streams, "kal", [](benchmark::State& state) {
        for (auto _ : state)
            for (int i = 0; i < 100000; i++) {
                auto stream = kal::Stream::open("", KAL_MODE_MEMORY | KAL_MODE_WRITE);
                check(stream->write(kal::bytesOf("hello")) == 5);
            }
    });
    cell(streams, "plain calls", [](benchmark::State& state) {
        for (auto _ : state)
            for (int i = 0; i < 100000; i++) {
                SFILE* stream;
                check(KalOpenFile(&stream, "", KAL_MODE_MEMORY | KAL_MODE_WRITE, 0) == 0);
                check(stream->write(stream, "hello", 5) == 5);
                stream->close(stream);
            }
    });
    const std::string blocks = "100,000 locks of a block, to read";
    cell(blocks, "kal", [](benchmark::State& state) {
        auto block = kal::VMemBlock::allocate(4096).value();
        block.lock()->bytes()[0] = std::byte{1};
        for (auto _ : state)
            for (int i = 0; i < 100000; i++)
                check(block.lockToRead()->bytes()[0] == std::byte{1});
    });
    cell(blocks, "plain calls", [](benchmark::State& state) {
        auto block = kal::VMemBlock::allocate(4096).value();
        block.lock()->bytes()[0] = std::byte{1};
        for (auto _ : state)
            for (int i = 0; i < 100000; i++) {
                check(*static_cast<const uint8_t*>(KalLockVMem(block.get())) == 1);
                KalUnLockVMem(block.get());
            }
    });
    const std::string rows = "3,000 bitmap rows of 12,000 bytes looked at";
    const auto look = [](benchmark::State& state, auto sum) {
        auto picture = kal::Bitmap::create(4000, 3000, 24).value();
        const std::vector<std::byte> row(picture.rowBytes());
        for (uint32_t y = 0; y < picture.height(); y++)
            check(picture.put(y, row).ok());
        for (auto _ : state)
            benchmark::DoNotOptimize(sum(picture));
    };
    cell(rows, "kal", [look](benchmark::State& state) {
        look(state, [](const kal::Bitmap& picture) {
            int sum = 0;
            for (const kal::Row& row : picture.rows())
                sum += std::to_integer<int>(row.bytes().back());
            return sum;
        });
    });
    cell(rows, "plain calls", [look](benchmark::State& state) {
        look(state, [](const kal::Bitmap& picture) {
            int sum = 0;
            std::vector<uint8_t> row(picture.rowBytes());
            for (uint16_t y = 0; y < picture.height(); y++) {
                KalSeekDIBScanLineOffset(picture.get(), y, 0);
                KalGetDIBOpData(picture.get(), row.data(), picture.rowBytes());
                sum += row.back();
            }
            return sum;
        });
    });
}

} // namespace

int main(int argc, char** argv) {
    const auto manager = kal::VMem::open().value();
    benchmark::Initialize(&argc, argv);
    withStreambuf(std::ios::out, [](std::streambuf& buffer) {
        for (std::streamsize done = 0; done < kBytes; done++)
            buffer.sputc('x');
    });
    bufferRows();
    listRows();
    ownerRows();
    benchmark::RunSpecifiedBenchmarks();
    std::remove(kFile);
    return 0;
}
