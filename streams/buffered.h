// The one buffered algorithm: read, write, seek, get and put character of every stream that keeps its bytes
// behind a file pointer, over three primitives of the back-end:
//
//     static uint32_t seek(SFILE*, int32_t offset, int origin);      the new position
//     static uint32_t read(SFILE*, void* destination, uint32_t n);   the bytes read
//     static uint32_t write(SFILE*, const void* source, uint32_t n); the bytes written, fewer when it is full
//
// each KAL_NO_POSITION on failure, and one question:
//
//     static bool isWritable(const SFILE*);                          may bytes go to the back-end at all?
//
// The buffer holds one unbroken stretch [bufStart, bufEnd) as the stream sees it. The file pointer is moved
// only when `osPos`, where it stands, is not where the next transfer goes.
#ifndef KAL_STREAMS_BUFFERED_H
#define KAL_STREAMS_BUFFERED_H

#include "streams/bytes_ahead.h"

#include <cstring>

template <class Source>
class BufferedStream {
public:
    static int32_t read(SFILE* s, void* destination, uint32_t count) {
        auto* out = static_cast<uint8_t*>(destination);
        if (s->bufSize == 0)
            return readStraight(s, out, count, 0);

        uint32_t left = count;
        if (const uint32_t taken = std::min(left, bytesInBuffer(s)); taken > 0) {
            takeFromBuffer(s, out, taken);
            out += taken;
            left -= taken;
        }
        if (left == 0) {
            s->status = KAL_OK;
            return asResult(count);
        }
        if (flush(s) != KAL_OK)
            return s->status;
        if (left >= s->bufSize)
            return readStraight(s, out, left, count - left);
        return readThroughBuffer(s, out, left, count - left);
    }

    static int32_t write(SFILE* s, const void* source, uint32_t count) {
        if (s->status == KAL_ERR_DISK_FULL)
            return 0;
        if (!Source::isWritable(s))
            return s->status = KAL_ERR_WRITE;
        if (s->pos == KAL_NO_POSITION) // left by a seek that failed
            return fail(s, KAL_ERR_SEEK);
        const auto* in = static_cast<const uint8_t*>(source);
        const uint32_t room = kLastPosition - s->pos;
        if (count <= room)
            return writeWithin(s, in, count);
        const int32_t accepted = writeWithin(s, in, room);
        if (accepted == asResult(room) && s->status == KAL_OK)
            s->status = KAL_ERR_DISK_FULL;
        return accepted;
    }

    static int32_t getChar(SFILE* s) {
        const uint32_t pos = s->pos;
        if (isInBuffer(s, pos)) [[likely]] {
            const uint8_t* next = s->bufPtr;
            s->bufPtr = const_cast<uint8_t*>(next + 1);
            s->pos = pos + 1;
            return *next;
        }
        return getCharSlowly(s);
    }

    static int16_t putChar(SFILE* s, char byte) {
        const uint32_t pos = s->pos;
        const uint32_t bufEnd = s->bufEnd;
        const uint32_t filled = bufEnd - s->bufStart;
        // Room behind the valid end, which also says that there is a buffer; pos within it or at its end.
        if (filled < s->bufSize && pos - s->bufStart <= filled && pos < kLastPosition &&
            Source::isWritable(s)) [[likely]] {
            uint8_t* next = s->bufPtr;
            s->dirty = 1;
            s->status = KAL_OK;
            s->pos = pos + 1;
            if (pos == bufEnd)
                s->bufEnd = pos + 1;
            s->bufPtr = next + 1;
            *next = static_cast<uint8_t>(byte);
            return KAL_OK;
        }
        return putCharSlowly(s, byte);
    }

    static int16_t seek(SFILE* s, int32_t offset, uint32_t origin) {
        if (s->status == KAL_ERR_DISK_FULL)
            return KAL_ERR_DISK_FULL;
        if (origin == KAL_SEEK_END)
            return moveFilePointer(s, offset, KAL_SEEK_END);

        uint32_t target = static_cast<uint32_t>(offset);
        if (origin == KAL_SEEK_START)
            target += s->offset;
        else if (origin == KAL_SEEK_CURRENT)
            target += s->pos;
        // A stream without a buffer has bufEnd at the very end, so it only notes where the next transfer
        // goes.
        const bool inBuffer = s->bufStart <= target && target < s->bufEnd;
        const bool alreadyThere = s->osPos == target && s->bufStart == target;
        if (inBuffer || alreadyThere) {
            s->pos = target;
            s->bufPtr = s->buf != nullptr ? s->buf + (target - s->bufStart) : nullptr;
            return s->status = KAL_OK;
        }
        return moveFilePointer(s, static_cast<int32_t>(target), KAL_SEEK_START);
    }

    // Writes a dirty buffer back. It stays dirty on failure.
    static int16_t flush(SFILE* s) {
        if (s->dirty == 0 || !Source::isWritable(s))
            return KAL_OK;
        if (!moveToWrite(s, s->bufStart))
            return s->status;
        const uint32_t count = s->bufEnd - s->bufStart;
        const uint32_t written = Source::write(s, s->buf, count);
        if (written == KAL_NO_POSITION)
            return s->status = KAL_ERR_WRITE;
        s->osPos += written;
        if (written < count)
            return s->status = KAL_ERR_DISK_FULL;
        s->dirty = 0;
        return s->status = KAL_OK;
    }

private:
    // Positions are 32 bits and all ones means none, so the last byte of a stream lies before this one.
    static constexpr uint32_t kLastPosition = KAL_NO_POSITION - 1;

    static int32_t asResult(uint32_t count) { return static_cast<int32_t>(count); }

    // Failure before any byte moved.
    static int32_t fail(SFILE* s, int16_t status) {
        s->status = status;
        return 0;
    }

    static void takeFromBuffer(SFILE* s, uint8_t* out, uint32_t count) {
        const uint8_t* from = s->buf + (s->pos - s->bufStart);
        std::memcpy(out, from, count);
        s->pos += count;
        s->bufPtr = s->buf + (s->pos - s->bufStart);
    }

    static void emptyBuffer(SFILE* s) {
        s->bufPtr = s->buf;
        s->bufStart = s->bufEnd = s->pos;
    }

    static bool isAt(const SFILE* s, uint32_t target) {
        return s->osPos == target && target != KAL_NO_POSITION;
    }

    // Moves the file pointer before a read: a failure leaves `osPos` alone, since the pointer did not move.
    static bool moveToRead(SFILE* s) {
        if (isAt(s, s->pos))
            return true;
        const uint32_t reached = Source::seek(s, static_cast<int32_t>(s->pos), int(KAL_SEEK_START));
        if (reached == KAL_NO_POSITION) {
            s->status = KAL_ERR_SEEK;
            return false;
        }
        s->osPos = reached;
        return true;
    }

    // Moves the file pointer before a write: a failure marks it as unknown, so that the next one moves it
    // anew.
    static bool moveToWrite(SFILE* s, uint32_t target) {
        if (isAt(s, target))
            return true;
        s->osPos = Source::seek(s, static_cast<int32_t>(target), int(KAL_SEEK_START));
        if (s->osPos != KAL_NO_POSITION)
            return true;
        s->status = KAL_ERR_SEEK;
        return false;
    }

    // Reads at the file pointer, never past the last position; the caller moves `osPos`.
    static uint32_t fetch(SFILE* s, uint8_t* out, uint32_t count) {
        return Source::read(s, out, std::min(count, kLastPosition - s->osPos));
    }

    static int16_t endStatus(uint32_t got, uint32_t asked) {
        return got == asked ? KAL_OK : got > 0 ? KAL_ERR_SHORT_READ : KAL_ERR_END;
    }

    static int32_t readStraight(SFILE* s, uint8_t* out, uint32_t left, uint32_t delivered) {
        if (!moveToRead(s))
            return 0;
        const uint32_t got = fetch(s, out, left);
        if (got == KAL_NO_POSITION)
            return fail(s, KAL_ERR_READ);
        s->pos += got;
        s->osPos = s->pos;
        s->status = endStatus(got, left);
        return asResult(delivered + got);
    }

    static int32_t readThroughBuffer(SFILE* s, uint8_t* out, uint32_t left, uint32_t delivered) {
        if (!moveToRead(s))
            return 0;
        emptyBuffer(s); // whatever the read leaves in it, it no longer holds the old stretch
        const uint32_t got = fetch(s, s->buf, s->bufSize);
        if (got == KAL_NO_POSITION)
            return fail(s, KAL_ERR_READ);
        s->bufEnd = s->osPos = s->pos + got;
        const uint32_t taken = std::min(got, left);
        takeFromBuffer(s, out, taken);
        s->status = endStatus(taken, left);
        return asResult(delivered + taken);
    }

    static int32_t writeWithin(SFILE* s, const uint8_t* in, uint32_t count) {
        if (s->bufSize == 0)
            return writeStraight(s, in, count, 0);

        uint32_t left = count;
        const uint32_t at = s->pos - s->bufStart;
        // Never behind a gap: the stretch between would be bytes that nobody put.
        if (at < s->bufSize && at <= s->bufEnd - s->bufStart) {
            const uint32_t taken = std::min(left, s->bufSize - at);
            putIntoBuffer(s, in, taken);
            in += taken;
            left -= taken;
        }
        if (left == 0) {
            s->status = KAL_OK;
            return asResult(count);
        }
        if (flush(s) != KAL_OK)
            return s->status;
        if (left >= s->bufSize)
            return writeStraight(s, in, left, count - left);
        if (!startBuffer(s, left))
            return 0;
        putIntoBuffer(s, in, left);
        s->status = KAL_OK;
        return asResult(count);
    }

    static void putIntoBuffer(SFILE* s, const uint8_t* in, uint32_t count) {
        if (count == 0)
            return;
        std::memcpy(s->buf + (s->pos - s->bufStart), in, count);
        s->pos += count;
        s->bufPtr = s->buf + (s->pos - s->bufStart);
        s->bufEnd = std::max(uint32_t(s->bufEnd), uint32_t(s->pos));
        s->dirty = 1;
    }

    // Starts a buffer at `pos` for `count` bytes to come, filled from the file first in update mode.
    static bool startBuffer(SFILE* s, uint32_t count) {
        if ((s->mode & KAL_MODE_UPDATE) == 0) {
            emptyBuffer(s);
            return true;
        }
        if (!moveToWrite(s, s->pos))
            return false;
        emptyBuffer(s);
        const uint32_t got = fetch(s, s->buf, s->bufSize);
        if (got == KAL_NO_POSITION) {
            s->status = KAL_ERR_READ;
            return false;
        }
        s->osPos += got;
        s->bufEnd = s->pos + std::max(got, count);
        return true;
    }

    static int32_t writeStraight(SFILE* s, const uint8_t* in, uint32_t left, uint32_t accepted) {
        if (!moveToWrite(s, s->pos))
            return 0;
        const uint32_t written = Source::write(s, in, left);
        if (written == KAL_NO_POSITION)
            return fail(s, KAL_ERR_WRITE);
        s->pos += written;
        s->osPos = s->pos;
        s->status = written == left ? KAL_OK : KAL_ERR_DISK_FULL;
        return asResult(accepted + written);
    }

    static int16_t moveFilePointer(SFILE* s, int32_t offset, uint32_t origin) {
        if (flush(s) != KAL_OK)
            return s->status;
        s->pos = Source::seek(s, offset, int(origin));
        if (s->pos == KAL_NO_POSITION)
            return s->status = KAL_ERR_SEEK;
        s->bufPtr = s->buf;
        s->osPos = s->bufStart = s->pos;
        if (s->bufSize != 0)
            s->bufEnd = s->pos;
        return s->status = KAL_OK;
    }

    [[gnu::noinline, gnu::cold]] static int32_t getCharSlowly(SFILE* s) {
        uint8_t byte;
        return s->read(s, &byte, 1) == 1 ? byte : s->status;
    }

    [[gnu::noinline, gnu::cold]] static int16_t putCharSlowly(SFILE* s, char byte) {
        s->write(s, &byte, 1);
        return s->status;
    }
};

#endif
