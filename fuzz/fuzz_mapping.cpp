// A mapping whose words another process scribbles over while streams on it are open.
#include "fuzz/memory_host.h"

#include "platform/host_calls.h"

#include <kal/mapping.h>

namespace {

constexpr int32_t kSizes[] = {4, 5, 8, 100, 4096}; // a mapping a size
constexpr uint16_t kModes[] = {KAL_MODE_CREATE | KAL_MODE_WRITE, KAL_MODE_CREATE | KAL_MODE_UPDATE, 0,
                               KAL_MODE_UPDATE, KAL_MODE_WRITE};

struct Mapping {
    unsigned number = 0; // of kSizes
    SFILE* stream = nullptr;

    std::string name() const { return "m" + std::to_string(number); }

    void open(Input& input, uint8_t step) {
        number = input.byte() % unsigned(std::size(kSizes));
        KalOpenFile(&stream, name().c_str(), KAL_MODE_FILEMAP | kModes[step % std::size(kModes)],
                    kSizes[number]);
    }

    void scribble(Input& input) const {
        Bytes& view = memoryHost::file("/kal." + std::to_string(hostCalls.geteuid()) + "." + name());
        const auto size = static_cast<uint32_t>(kSizes[number]);
        const uint8_t choice = input.byte();
        const uint32_t word = choice < 128   ? choice * size / 64
                              : choice < 250 ? size + choice - 200
                                             : input.number();
        std::memcpy(view.data(), &word, 4);
        view.at(size - 1) = choice;
    }

    void use(Input& input, uint8_t step) {
        Bytes bytes(step * 3u);
        const auto count = static_cast<uint32_t>(bytes.size());
        const auto place = static_cast<int32_t>(step < 250 ? input.byte() : input.number());
        switch (step % 9) {
        case 0:
            return scribble(input);
        case 1:
            return require(stream->read(stream, bytes.data(), count) <= kSizes[number],
                           "no more is read than is mapped");
        case 2:
            return require(stream->write(stream, bytes.data(), count) <= kSizes[number], "nor written");
        case 3:
            return void(stream->seek(stream, place - (step < 128 ? 100 : 0), step % 4));
        case 4:
            return void(KalNextChar(stream));
        case 5:
            return void(stream->putChar(stream, 'x'));
        case 6:
            return void(KalGetStr(stream, reinterpret_cast<char*>(bytes.data()), step));
        case 7:
            return void(KalUnGetChar(stream));
        default:
            close();
        }
    }

    void close() {
        if (stream != nullptr)
            stream->close(stream);
        stream = nullptr;
    }
};

} // namespace

void fuzz(Input input) {
    Mapping mappings[3];
    while (!input.ended()) {
        const uint8_t step = input.byte();
        Mapping& mapping = mappings[step / 16 % 3];
        mapping.stream == nullptr ? mapping.open(input, step) : mapping.use(input, step);
    }
    for (Mapping& mapping : mappings)
        mapping.close();
}
