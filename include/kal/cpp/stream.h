// Streams and compressed streams that close themselves. kal/cpp/streambuf.h makes standard streams of them.
#ifndef KAL_CPP_STREAM_H
#define KAL_CPP_STREAM_H

#include <kal/cfile.h>
#include <kal/cpp/owner.h>
#include <kal/mapping.h>
#include <kal/storage.h>
#include <kal/stream.h>

#include <algorithm>

namespace kal {

// How a stream ends: one whose last bytes find no room stays open, and gives them up only when its owner goes.
struct StreamTraits : RecordTraits<SFILE> {
    // The close slot's status.
    static Status close(SFILE* stream) { return stream->close(stream); }
    // Whether that left the stream open.
    static bool survives(Status status) { return !status.ok() && status != KAL_ERR_CLOSE; }
    // Closes it without what its buffer holds.
    static void abandon(SFILE* stream) {
        KalSetBuf(stream, 0);
        stream->close(stream);
    }
};

// A stream of any back-end. Its slots are reached by get(), its fields by ->.
class Stream : public Owner<StreamTraits> {
public:
    using Owner::Owner;

    // Opens as KalOpenFile, KalOpenTempFile and KalOpenFileAsIStream do; their statuses.
    static Expected<Stream> open(const char* name, uint16_t mode = 0, int32_t size = 0) {
        return opened<Stream>([&](SFILE** out) { return KalOpenFile(out, name, mode, size); });
    }
    static Expected<Stream> create(const char* name) { return open(name, KAL_MODE_CREATE | KAL_MODE_UPDATE); }
    static Expected<Stream> temporary(bool keep = false) {
        const uint16_t mode = KAL_MODE_CREATE | KAL_MODE_UPDATE | 0x0200;
        return opened<Stream>([&](SFILE** out) { return KalOpenTempFile(out, mode, keep); });
    }
    static Expected<Stream> inCompoundFile(const char* file, const char* name, uint16_t mode = 0) {
        return opened<Stream>([&](SFILE** out) { return KalOpenFileAsIStream(out, file, name, mode); });
    }

    // Move up to 4 GiB. The bytes moved; where they are fewer, status() says why.
    size_t read(WritableBytes to) {
        return count(get()->read(get(), to.data(), static_cast<uint32_t>(to.size())));
    }
    size_t write(Bytes from) {
        return count(get()->write(get(), from.data(), static_cast<uint32_t>(from.size())));
    }

    // Moves the position, or writes the buffer back. The status.
    Status seek(int32_t offset, uint32_t origin = KAL_SEEK_START) {
        return get()->seek(get(), offset, origin);
    }
    Status flush() { return KalFlushBuf(get()); }

    // The position from the stream's start, and the status of the last operation.
    uint32_t position() const { return get()->pos - get()->offset; }
    Status status() const { return get()->status; }

private:
    static size_t count(int32_t result) {
        const auto bytes = static_cast<uint32_t>(result);
        return bytes > static_cast<uint32_t>(INT16_MIN) ? 0 : bytes; // a status is no count
    }
};

// How a compressed stream ends: the run first, so that what it could not write is told.
struct CompressedStreamTraits : RecordTraits<scfiletag> {
    // The status of ending the run.
    static Status close(scfiletag* cfile) {
        SFILE* stream = cfile->stream;
        const int16_t flushed = KalFlushCFile(cfile);
        const int16_t before = stream->status;
        KalFreeCFile(cfile);
        return stream->status != before ? stream->status : flushed;
    }
};

// LZW runs over a stream, which must outlive it and is not closed by it.
class CompressedStream : public Owner<CompressedStreamTraits> {
public:
    using Owner::Owner;

    // Lays one over a stream where that stands. The statuses of KalMakeCFile.
    static Expected<CompressedStream> over(const Stream& stream) {
        return opened<CompressedStream>([&](scfiletag** out) { return KalMakeCFile(out, stream.get()); });
    }

    // Move bytes, any number of them. The bytes moved; where they are fewer, status() says why.
    size_t read(WritableBytes to) {
        return move(to, [this](std::byte* bytes, uint16_t size) {
            return KalReadCFile(get(), reinterpret_cast<uint8_t*>(bytes), size);
        });
    }
    size_t write(Bytes from) {
        return move(from, [this](const std::byte* bytes, uint16_t size) {
            return KalWriteCFile(get(), reinterpret_cast<const uint8_t*>(bytes), size);
        });
    }

    // Ends the run that was written. The status.
    Status flush() { return KalFlushCFile(get()); }
    // The status of the last read or write.
    Status status() const { return get()->status; }

private:
    template <class Span, class Call>
    static size_t move(Span bytes, Call call) {
        size_t done = 0;
        while (done < bytes.size()) {
            const auto wanted = static_cast<uint16_t>(std::min<size_t>(bytes.size() - done, UINT16_MAX));
            const uint16_t moved = call(bytes.data() + done, wanted);
            done += moved;
            if (moved < wanted)
                break;
        }
        return done;
    }
};

} // namespace kal

#endif
