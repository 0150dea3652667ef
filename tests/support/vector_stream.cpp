#include "tests/support/vector_stream.h"

#include <algorithm>

VectorStream::VectorStream(std::vector<uint8_t> content) : bytes(std::move(content)) {
    record_.owner = this;
    SFILE& file = record_.file;
    file.mode = KAL_MODE_WRITE;
    file.bufEnd = KAL_NO_POSITION;
    file.read = [](SFILE* stream, void* destination, uint32_t count) {
        const auto& from = ownerOf(stream)->bytes;
        const size_t left = from.size() - std::min<size_t>(stream->pos, from.size());
        const auto got = static_cast<uint32_t>(std::min<size_t>(count, left));
        std::copy_n(from.data() + stream->pos, got, static_cast<uint8_t*>(destination));
        stream->pos += got;
        stream->status = got == count ? KAL_OK : got > 0 ? KAL_ERR_SHORT_READ : KAL_ERR_END;
        return static_cast<int32_t>(got);
    };
    file.getChar = [](SFILE* stream) {
        uint8_t byte;
        return stream->read(stream, &byte, 1) == 1 ? int32_t{byte} : int32_t{stream->status};
    };
    file.write = [](SFILE* stream, const void* source, uint32_t count) {
        VectorStream* const owner = ownerOf(stream);
        const size_t room = owner->capacity - std::min<size_t>(stream->pos, owner->capacity);
        const auto taken = static_cast<uint32_t>(std::min<size_t>(count, room));
        owner->bytes.resize(std::max<size_t>(owner->bytes.size(), size_t{stream->pos} + taken));
        std::copy_n(static_cast<const uint8_t*>(source), taken, owner->bytes.data() + stream->pos);
        stream->pos += taken;
        stream->status = taken == count ? KAL_OK : KAL_ERR_DISK_FULL;
        return static_cast<int32_t>(taken);
    };
    file.putChar = [](SFILE* stream, char byte) {
        stream->write(stream, &byte, 1);
        return int16_t{stream->status};
    };
    file.seek = [](SFILE* stream, int32_t offset, uint32_t origin) {
        const size_t from = origin == KAL_SEEK_CURRENT ? stream->pos
                            : origin == KAL_SEEK_END   ? ownerOf(stream)->bytes.size()
                                                       : 0;
        stream->pos = static_cast<uint32_t>(from + static_cast<size_t>(offset));
        return int16_t{stream->status = KAL_OK};
    };
    file.close = [](SFILE*) { return int16_t{KAL_OK}; };
}
