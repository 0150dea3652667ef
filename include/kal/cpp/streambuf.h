// Standard streams over streams, items and compressed streams:
//
//     auto stream = kal::Stream::create("notes.txt");
//     kal::streambuf buffer(*stream);
//     std::ostream out(&buffer);
//     out << "hello\n" << std::flush;
//
// What it is over outlives the streambuf, and nobody else moves it meanwhile: the streambuf reads ahead and writes
// behind. Positions count from the start of the stream, item or compressed run. Failures show as the standard has them
// (a short count, badbit), and status() says why.
#ifndef KAL_CPP_STREAMBUF_H
#define KAL_CPP_STREAMBUF_H

#include <kal/cpp/items.h>
#include <kal/cpp/stream.h>

#include <cstring>
#include <streambuf>
#include <variant>

namespace kal {

// What streambufs stand on: each kind moves bytes at positions that count from 0, and says what stopped it.
namespace detail {

// A stream, from its start.
struct StreamBytes {
    SFILE* stream; // not owned

    // Moves the stream to a position, where it is not there.
    bool stand(uint64_t position) {
        return stream->pos - stream->offset == position ||
               (position < KAL_NO_POSITION &&
                stream->seek(stream, int32_t(uint32_t(position)), KAL_SEEK_START) == 0);
    }
    // Moves bytes; their count.
    size_t readAt(uint64_t position, char* to, size_t count) {
        // In memory a seek past the end would make the stream longer.
        constexpr uint16_t inMemory = KAL_MODE_VMEM | KAL_MODE_MEMORY | KAL_MODE_FILEMAP;
        if ((stream->mode & inMemory) != 0 && stream->pos - stream->offset < position && position > end())
            return 0;
        return stand(position) ? counted(stream->read(stream, to, uint32_t(count))) : 0;
    }
    size_t writeAt(uint64_t position, const char* from, size_t count) {
        return stand(position) ? counted(stream->write(stream, from, uint32_t(count))) : 0;
    }
    // Where the stream ends; all ones where that cannot be told. No seek leads to the end of a mapping that is full.
    uint64_t end() {
        if ((stream->mode & KAL_MODE_FILEMAP) != 0)
            return stream->bufEnd - stream->offset;
        return stream->seek(stream, 0, KAL_SEEK_END) == 0 ? stream->pos - stream->offset : UINT64_MAX;
    }
    // Writes back what was written; whether that went well.
    bool flush() { return KalFlushBuf(stream) == 0; }
    // Of the last operation.
    Status status() const { return stream->status; }

    // Of a slot's result, which may be a status.
    static size_t counted(int32_t result) { return result < 0 ? 0 : size_t(result); }
};

// An item where the index has it. The first byte written makes one that is not there, behind all others.
struct ItemBytes {
    IFILE* file; // not owned
    uint16_t id;

    // The item, of 0 bytes where it is not there.
    Entry entry() {
        const ItemIndex* found = KalFindItem(file, id);
        return found != nullptr ? entryAt(file, found) : Entry{id, 0, 0};
    }
    StreamBytes bytes() { return {file->stream}; }

    size_t readAt(uint64_t position, char* to, size_t count) {
        const Entry item = entry();
        if (position >= item.size)
            return 0;
        return bytes().readAt(item.offset + position, to,
                              std::min<size_t>(count, item.size - size_t(position)));
    }
    size_t writeAt(uint64_t position, const char* from, size_t count) {
        if (id == KAL_ITEM_FREE || (KalFindItem(file, id) == nullptr && !make()))
            return 0;
        const Entry item = entry();
        if (position > item.size)
            return 0;
        const size_t within = std::min<size_t>(count, item.size - size_t(position));
        if (within > 0) {
            const size_t moved = bytes().writeAt(item.offset + position, from, within);
            if (moved < within)
                return moved;
        }
        return within < count ? within + KalAddIFile(file, from + within, uint32_t(count - within), id)
                              : within;
    }
    uint64_t end() { return entry().size; }
    bool stand(uint64_t) { return true; }
    bool flush() { return bytes().flush(); }
    Status status() const { return file->stream->status; }

    // Adds an entry that stands at the stream's end.
    bool make() {
        const uint64_t end = bytes().end();
        ItemIndex* made = end <= UINT32_MAX ? KalAppendItemIndex(file) : nullptr;
        if (made == nullptr)
            return false;
        if (isWide(file))
            made->wide = {id, 0, uint32_t(end)};
        else
            made->narrow = {id, 0, uint32_t(end)};
        return true;
    }
};

// The plain bytes of a compressed run that starts where its stream stands. They are read from any position, backwards
// by starting over, and written one behind the other. A flush does not end the run: its CompressedStream does.
struct RunBytes {
    scfiletag* run; // not owned
    uint32_t start = run->stream->pos - run->stream->offset;
    uint64_t at = 0;      // the position that the run has reached
    bool written = false; // whether by writing

    size_t readAt(uint64_t position, char* to, size_t count) {
        if ((written || position < at) && !restart())
            return 0;
        char passed[4096];
        while (at < position)
            if (read(passed, size_t(std::min<uint64_t>(position - at, sizeof passed))) == 0)
                return 0;
        return read(to, count);
    }
    size_t writeAt(uint64_t position, const char* from, size_t count) {
        if (position != at)
            return 0;
        written = true;
        const auto* bytes = reinterpret_cast<const uint8_t*>(from);
        return move(count,
                    [&](size_t done, uint16_t piece) { return KalWriteCFile(run, bytes + done, piece); });
    }
    uint64_t end() {
        char passed[4096];
        while (!written && read(passed, sizeof passed) > 0) {
        }
        return at;
    }
    bool stand(uint64_t) { return true; }
    bool flush() { return true; }
    Status status() const { return run->status; }

    // Ends a run that was written, and goes to where it starts.
    bool restart() {
        if (written && KalFlushCFile(run) != 0)
            return false;
        written = false;
        at = 0;
        return run->stream->seek(run->stream, int32_t(start), KAL_SEEK_START) == 0;
    }
    size_t read(char* to, size_t count) {
        auto* bytes = reinterpret_cast<uint8_t*>(to);
        return move(count,
                    [&](size_t done, uint16_t piece) { return KalReadCFile(run, bytes + done, piece); });
    }
    template <class Call>
    size_t move(size_t count, Call call) {
        size_t done = 0;
        for (uint16_t wanted = 1, moved = 1; done < count && moved == wanted; done += moved, at += moved) {
            wanted = uint16_t(std::min<size_t>(count - done, UINT16_MAX));
            moved = call(done, wanted);
        }
        return done;
    }
};

} // namespace detail

// The stream buffer; see above and std::streambuf.
class streambuf : public std::streambuf {
public:
    // Over a stream, standing where that does; over an item, which writing makes or makes longer; over a compressed
    // run that starts where the stream stands.
    explicit streambuf(SFILE* stream)
        : bytes_(detail::StreamBytes{stream}), position_(stream->pos - stream->offset) {}
    explicit streambuf(Stream& stream) : streambuf(stream.get()) {}
    streambuf(IFILE* file, uint16_t id) : bytes_(detail::ItemBytes{file, id}) {}
    streambuf(ItemFile& file, uint16_t id) : streambuf(file.get(), id) {}
    explicit streambuf(scfiletag* run) : bytes_(detail::RunBytes{run}) {}
    explicit streambuf(CompressedStream& run) : streambuf(run.get()) {}
    streambuf(const streambuf&) = delete;
    streambuf& operator=(const streambuf&) = delete;
    // Writes what waits, and gives back what was read ahead. Where neither is, as behind a flush, what is beneath may be
    // closed already.
    ~streambuf() override {
        if (pptr() != pbase() || gptr() != egptr())
            streambuf::sync();
    }

    // Of the last operation beneath.
    Status status() const {
        return std::visit([](const auto& bytes) { return bytes.status(); }, bytes_);
    }

private:
    // What the standard asks of a stream buffer. The two that serve a whole buffer are not inlined: into code that
    // reads a buffer of another kind a compiler may put them on a guess, and then warns of what it put there.

    [[gnu::noinline]] int_type underflow() override {
        if (gptr() < egptr())
            return traits_type::to_int_type(*gptr());
        if (!drain())
            return traits_type::eof();
        const size_t count = readAt(buffer_, sizeof buffer_);
        setg(buffer_, buffer_, buffer_ + count);
        return count > 0 ? traits_type::to_int_type(buffer_[0]) : traits_type::eof();
    }

    [[gnu::noinline]] int_type overflow(int_type c) override {
        stopReading();
        if (!drain())
            return traits_type::eof();
        setp(buffer_, buffer_ + sizeof buffer_);
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            sputc(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }

    // What went out of the buffer is fetched again.
    int_type pbackfail(int_type c) override {
        const off_type here = tell();
        if (here == 0 || seekTo(here - 1) < 0 || traits_type::eq_int_type(underflow(), traits_type::eof()))
            return traits_type::eof();
        const bool given = !traits_type::eq_int_type(c, traits_type::eof());
        if (!given || traits_type::eq(*gptr(), traits_type::to_char_type(c)))
            return traits_type::to_int_type(*gptr());
        gbump(1);
        return traits_type::eof();
    }

    std::streamsize xsgetn(char* to, std::streamsize count) override {
        std::streamsize done = 0;
        while (done < count) {
            const std::streamsize wanted = count - done;
            if (const std::streamsize here = std::min<std::streamsize>(egptr() - gptr(), wanted); here > 0) {
                std::memcpy(to + done, gptr(), size_t(here));
                gbump(int(here));
                done += here;
            } else if (wanted >= std::streamsize(sizeof buffer_)) {
                stopReading();
                const size_t moved = drain() ? readAt(to + done, most(wanted)) : 0;
                if (moved == 0)
                    break;
                done += std::streamsize(moved);
            } else if (traits_type::eq_int_type(underflow(), traits_type::eof())) {
                break;
            }
        }
        return done;
    }

    std::streamsize xsputn(const char* from, std::streamsize count) override {
        std::streamsize done = 0;
        while (done < count) {
            const std::streamsize wanted = count - done;
            if (wanted <= epptr() - pptr()) {
                std::memcpy(pptr(), from + done, size_t(wanted));
                pbump(int(wanted));
                return count;
            }
            if (traits_type::eq_int_type(overflow(traits_type::eof()), traits_type::eof()))
                break;
            if (wanted >= std::streamsize(sizeof buffer_)) {
                const size_t moved = writeAt(from + done, most(wanted));
                if (moved == 0)
                    break;
                done += std::streamsize(moved);
            }
        }
        return done;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
        if (from == std::ios_base::cur)
            return offset == 0 ? tell() : seekTo(tell() + offset);
        if (from == std::ios_base::beg)
            return seekTo(offset);
        if (!drain())
            return off_type(-1);
        const auto end = off_type(std::visit([](auto& bytes) { return bytes.end(); }, bytes_));
        return end < 0 ? off_type(-1) : seekTo(end + offset);
    }

    pos_type seekpos(pos_type position, std::ios_base::openmode) override {
        return seekTo(off_type(position));
    }

    // The stream beneath then stands where the reader does.
    int sync() override {
        stopReading();
        if (!drain())
            return -1;
        return std::visit([this](auto& bytes) { return bytes.stand(position_) && bytes.flush(); }, bytes_)
                   ? 0
                   : -1;
    }

    // At any time the buffer holds bytes that were read, or bytes to write, or nothing. position_ is the place beneath
    // of the end of those read, or of the start of those to write.
    off_type tell() const { return off_type(position_) - (egptr() - gptr()) + (pptr() - pbase()); }

    // Drops what was read ahead.
    void stopReading() {
        position_ -= uint64_t(egptr() - gptr());
        setg(nullptr, nullptr, nullptr);
    }

    // Writes what waits. What finds no room goes on waiting.
    bool drain() {
        const auto waiting = size_t(pptr() - pbase());
        const size_t moved = waiting > 0 ? writeAt(pbase(), waiting) : 0;
        setp(nullptr, nullptr);
        if (moved == waiting)
            return true;
        std::memmove(buffer_, buffer_ + moved, waiting - moved);
        setp(buffer_, buffer_ + sizeof buffer_);
        pbump(int(waiting - moved));
        return false;
    }

    // The new position, or -1.
    off_type seekTo(off_type target) {
        const off_type first = off_type(position_) - (egptr() - eback());
        if (eback() != nullptr && target >= first && target <= off_type(position_)) {
            setg(eback(), eback() + (target - first), egptr());
            return target;
        }
        if (target < 0 || !drain())
            return -1;
        setg(nullptr, nullptr, nullptr);
        position_ = uint64_t(target);
        return target;
    }

    size_t readAt(char* to, size_t count) {
        const size_t moved =
            std::visit([&](auto& bytes) { return bytes.readAt(position_, to, count); }, bytes_);
        position_ += moved;
        return moved;
    }
    size_t writeAt(const char* from, size_t count) {
        const size_t moved =
            std::visit([&](auto& bytes) { return bytes.writeAt(position_, from, count); }, bytes_);
        position_ += moved;
        return moved;
    }
    static size_t most(std::streamsize count) { return size_t(std::min<std::streamsize>(count, 1 << 30)); }

    std::variant<detail::StreamBytes, detail::ItemBytes, detail::RunBytes> bytes_;
    uint64_t position_ = 0;
    char buffer_[8192];
};

} // namespace kal

#endif
