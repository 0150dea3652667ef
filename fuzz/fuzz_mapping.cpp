// A mapping whose words another process scribbles over while streams on it are open.
#include "fuzz/memory_host.h"

#include "platform/host_calls.h"

#include <kal/mapping.h>

#include <cstring>

namespace {

constexpr int32_t kSizes[] = {4, 5, 8, 100, 4096}; // a mapping a size

// What the host calls the mapping of that number.
std::string objectOf(unsigned number) {
    return "/kal." + std::to_string(hostCalls.geteuid()) + ".m" + std::to_string(number);
}

void scribble(Input& input, unsigned number) {
    uint8_t* view = memoryHost::mapped(objectOf(number));
    if (view == nullptr)
        return;
    const auto size = static_cast<uint32_t>(kSizes[number]);
    const uint8_t choice = input.byte();
    const uint32_t word = choice < 128   ? choice * size / 64
                          : choice < 250 ? size + choice - 200
                                         : input.number();
    std::memcpy(view, &word, 4);
    view[size - 1] = choice;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = false;
    if (!started) // mappings are held to the end of the process
        memoryHost::start();
    started = true;
    Input input(data, size);
    SFILE* streams[3] = {};
    unsigned numbers[3] = {};
    while (!input.ended()) {
        const uint8_t step = input.byte();
        const unsigned at = step / 16 % 3;
        SFILE*& stream = streams[at];
        if (stream == nullptr) {
            static const uint16_t modes[] = {KAL_MODE_CREATE | KAL_MODE_WRITE,
                                             KAL_MODE_CREATE | KAL_MODE_UPDATE, 0, KAL_MODE_UPDATE,
                                             KAL_MODE_WRITE};
            numbers[at] = input.byte() % static_cast<unsigned>(std::size(kSizes));
            KalOpenFile(&stream, ("m" + std::to_string(numbers[at])).c_str(),
                        static_cast<uint16_t>(KAL_MODE_FILEMAP | modes[step % std::size(modes)]),
                        kSizes[numbers[at]]);
            continue;
        }
        Bytes bytes(step * 3u);
        const auto count = static_cast<uint32_t>(bytes.size());
        const auto place = static_cast<int32_t>(step < 250 ? input.byte() : input.number());
        switch (step % 9) {
        case 0:
            scribble(input, numbers[at]);
            break;
        case 1:
            require(stream->read(stream, bytes.data(), count) <= kSizes[numbers[at]],
                    "no more is read than is mapped");
            break;
        case 2:
            require(stream->write(stream, bytes.data(), count) <= kSizes[numbers[at]], "nor written");
            break;
        case 3:
            stream->seek(stream, place - (step < 128 ? 100 : 0), step % 4);
            break;
        case 4:
            KalNextChar(stream);
            break;
        case 5:
            stream->putChar(stream, 'x');
            break;
        case 6:
            KalGetStr(stream, reinterpret_cast<char*>(bytes.data()), step);
            break;
        case 7:
            KalUnGetChar(stream);
            break;
        default:
            stream->close(stream);
            stream = nullptr;
        }
    }
    for (SFILE* stream : streams)
        if (stream != nullptr)
            stream->close(stream);
    memoryHost::countBlocks();
    return 0;
}
