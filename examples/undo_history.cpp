// An undo history of any length in little memory: each step keeps the bytes that it overwrites as an op of a list in
// movable memory, of which what passes the limit waits in a temporary file.
#include <kal/cpp.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

class Canvas {
public:
    explicit Canvas(kal::OperationList history) : history_(std::move(history)) {}

    kal::Status paint(uint16_t tile, std::byte colour);
    kal::Status undo();

    bool canUndo() const { return !steps_.empty(); }
    bool isBlank() const {
        return std::ranges::all_of(pixels_, [](std::byte pixel) { return pixel == std::byte{0}; });
    }

private:
    static constexpr size_t tileBytes = 16384;
    kal::WritableBytes tileOf(uint16_t number) {
        return kal::WritableBytes(pixels_).subspan(number * tileBytes, tileBytes);
    }

    std::vector<std::byte> pixels_ = std::vector<std::byte>(64 * tileBytes);
    kal::OperationList history_;  // what the steps overwrote
    std::vector<uint32_t> steps_; // where each stands in it
};

// The op's type says which tile it was.
kal::Status Canvas::paint(uint16_t tile, std::byte colour) {
    const auto step = history_.put(static_cast<uint16_t>(tile + 1), tileOf(tile));
    if (!step)
        return step.error();
    steps_.push_back(*step);
    std::ranges::fill(tileOf(tile), colour);
    return KAL_OK;
}

// The next step is kept where the one stood that is undone.
kal::Status Canvas::undo() {
    const uint32_t step = steps_.back();
    if (const auto sought = history_.seek(step); !sought.ok())
        return sought;
    const kal::OpIterator op(history_.get());
    if (op == history_.end())
        return history_.status();
    std::ranges::copy((*op).bytes, tileOf(static_cast<uint16_t>((*op).type - 1)).begin());
    steps_.pop_back();
    return history_.seek(step);
}

} // namespace

int main() {
    auto manager = kal::VMem::open(4 << 20).value(); // bytes in memory
    Canvas canvas(kal::OperationList::inMemory().value());
    for (uint16_t stroke = 0; stroke < 2000; stroke++)
        if (!canvas.paint(stroke % 64, std::byte(stroke / 64 + 1)).ok())
            return 1;
    std::printf("2000 steps take %d bytes, of which %d are in memory\n", KalVMemUsed(),
                manager->bytesResident);
    const bool painted = !canvas.isBlank();
    while (canvas.canUndo())
        if (!canvas.undo().ok())
            return 1;
    std::puts(canvas.isBlank() ? "All undone" : "The canvas is not what it was");
    return painted && canvas.isBlank() ? 0 : 1;
}
