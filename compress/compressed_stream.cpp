// Which run a call goes on with, how runs start and how they end.
#include <kal/cfile.h>

#include "compress/end_run.h"
#include "compress/stream_bytes.h"
#include "compress/stretch_decoder.h"
#include "compress/stretch_encoder.h"
#include "memory/record.h"
#include "platform/uncleared.h"

#include <kal/heap.h>

#include <algorithm>

namespace {

constexpr uint32_t kExpansionBytes = KAL_LZW_CODES;

// What the last call that worked on a run did to it.
enum class Side : uint8_t { none, writing, reading };

// The strings of either side are made when it is first used and kept, so
// that a stream that only reads never pays for a coder.
struct CompressedStream {
    scfiletag shown;
    Side side;
    bool open; // whether encoder or decoder stand at `runPos`, so that the run can go on from there
    bool mostlySingle;
    StretchStrings* encoderStrings;
    BlockStrings* decoderStrings;
};

uint32_t logicalPos(const SFILE* stream) {
    return stream->pos - stream->offset;
}

template <class T>
T* allocate() {
    return static_cast<T*>(KalAllocSMem(sizeof(T)));
}

bool continues(const CompressedStream* self, Side side) {
    return self->open && self->side == side && logicalPos(self->shown.stream) == self->shown.runPos;
}

// The call did what was asked: the run goes on where the stream stands now.
uint16_t succeed(CompressedStream* self, uint16_t count) {
    self->shown.runPos = logicalPos(self->shown.stream);
    self->shown.status = KAL_OK;
    return count;
}

uint16_t fail(CompressedStream* self, int16_t status, uint16_t count) {
    self->shown.status = status;
    return count;
}

// The stream refused a byte. Once bytes of this call have passed, the run cannot go on, not even for who
// seeks back to `runPos`; while none have, the call can be made again.
uint16_t failOnStream(CompressedStream* self, uint16_t count) {
    self->open = logicalPos(self->shown.stream) == self->shown.runPos;
    return fail(self, self->shown.stream->status, count);
}

void endRun(CompressedStream* self) {
    self->open = false;
    self->shown.runPos = KAL_NO_POSITION;
}

// --- Writing -----------------------------------------------------------------------------------------

int16_t startWriting(CompressedStream* self) {
    self->side = Side::writing;
    self->open = false;
    if (self->encoderStrings == nullptr)
        self->encoderStrings = allocate<StretchStrings>();
    if (self->encoderStrings == nullptr)
        return KAL_ERR_BUFFER;
    TAGWRITELZW* const encoder = self->shown.encoder;
    startStretch(self->encoderStrings, encoder);
    encoder->bitBuffer = 0;
    encoder->bitCount = 0;
    const int16_t status = KalWriteLZWCode(encoder, self->shown.stream);
    self->open = status == KAL_OK;
    return status;
}

int16_t writeCode(CompressedStream* self, uint16_t code) {
    self->shown.encoder->outputCode = code;
    return KalWriteLZWCode(self->shown.encoder, self->shown.stream);
}

// --- Reading -----------------------------------------------------------------------------------------

// A run must start here, with a clear code in two bytes that hold nothing else whole.
int16_t startReading(CompressedStream* self) {
    scfiletag* const shown = shownOf(self);
    self->side = Side::reading;
    self->open = false;
    shown->pending = 0;
    if (self->decoderStrings == nullptr) {
        self->decoderStrings = static_cast<BlockStrings*>(allocateUncleared(sizeof(BlockStrings)));
        if (self->decoderStrings == nullptr)
            return KAL_ERR_BUFFER;
        startStrings(self->decoderStrings);
    }
    uint8_t first;
    uint8_t second;
    if (!takeByte(shown->stream, &first) || !takeByte(shown->stream, &second))
        return shown->stream->status;

    DecoderState state = {};
    state.bits = first | uint32_t{second} << 8;
    state.bitCount = 16;
    state.width = kFirstWidth;
    state.firstAfterClear = true;
    // The clear code comes in the first width, and is the only code that sets the decoder back.
    if (takeCode(self->decoderStrings, &state) != Taken::noString) {
        endRun(self);
        return KAL_ERR_RUN;
    }
    state.store(shown->decoder);
    self->open = true;
    return KAL_OK;
}

// One read call at work: the run's codes from the stream to the caller's bytes.
class Reader {
public:
    Reader(CompressedStream* self, uint8_t* destination, uint16_t count)
        : self_(self), stream_(self->shown.stream), start_(destination), out_(destination),
          end_(destination + count) {
        state_.load(self->shown.decoder);
        state_.mostlySingle = self->mostlySingle;
    }

    uint16_t run() {
        deliverPending();
        while (out_ < end_) {
            decodeFromBuffer();
            if (out_ == end_)
                break;
            if (!fetchCode())
                return finish(failOnStream(self_, delivered()));
            switch (takeCode(self_->decoderStrings, &state_)) {
            case Taken::string:
                deliverString();
                break;
            case Taken::noString:
                break;
            case Taken::endOfRun:
                endRun(self_);
                return finish(fail(self_, KAL_ERR_RUN, delivered()));
            }
        }
        return finish(succeed(self_, delivered()));
    }

private:
    uint16_t delivered() const { return static_cast<uint16_t>(out_ - start_); }

    uint16_t finish(uint16_t result) {
        state_.store(self_->shown.decoder);
        self_->mostlySingle = state_.mostlySingle;
        return result;
    }

    // Hands out the string in `expansion`, whose first characters are the last ones there.
    void deliverPending() {
        const auto count = std::min<uint32_t>(self_->shown.pending, static_cast<uint32_t>(end_ - out_));
        const uint8_t* const left = self_->shown.expansion + self_->shown.pending;
        out_ = std::reverse_copy(left - count, left, out_);
        self_->shown.pending = static_cast<uint16_t>(self_->shown.pending - count);
    }

    void deliverString() {
        const BlockString string = self_->decoderStrings->of[state_.previous];
        self_->shown.pending = static_cast<uint16_t>(string.length());
        writeReversed(self_->decoderStrings, state_.previous, self_->shown.expansion);
        deliverPending();
    }

    // Takes as much as the buffer and the caller's bytes allow without care for their ends.
    void decodeFromBuffer() {
        if (state_.firstAfterClear)
            return;
        BytesAhead ahead(stream_);
        const uint8_t* in = ahead.bytes();
        decodeInBulk(self_->decoderStrings, &state_, &in, in + ahead.count(), &out_, end_);
        ahead.take(static_cast<uint32_t>(in - ahead.bytes()));
    }

    // Makes sure of a whole code in `bits`; false when the stream fails, with what came kept for later.
    bool fetchCode() {
        while (state_.bitCount < state_.width) {
            uint8_t byte;
            if (!takeByte(stream_, &byte))
                return false;
            state_.bits |= uint64_t{byte} << state_.bitCount;
            state_.bitCount += 8;
        }
        return true;
    }

    CompressedStream* self_;
    SFILE* stream_;
    uint8_t* start_;
    uint8_t* out_;
    uint8_t* end_;
    DecoderState state_;
};

} // namespace

int16_t KalMakeCFile(scfiletag** out, SFILE* stream) {
    *out = nullptr;
    CompressedStream* const self = allocate<CompressedStream>();
    if (self == nullptr)
        return KAL_ERR_MEMORY;
    scfiletag* const shown = shownOf(self);
    shown->stream = stream;
    shown->runPos = KAL_NO_POSITION;
    shown->encoder = allocate<TAGWRITELZW>();
    shown->decoder = allocate<readlzw>();
    shown->expansion = static_cast<uint8_t*>(allocateUncleared(kExpansionBytes));
    int16_t status = KAL_ERR_MEMORY;
    if (shown->encoder != nullptr && shown->decoder != nullptr && shown->expansion != nullptr) {
        status = KalInitWriteLZW(shown->encoder, kRoots);
        if (status == KAL_OK)
            status = KalInitReadLZW(shown->decoder, kRoots);
    }
    if (status != KAL_OK) {
        KalFreeCFile(shown);
        return status;
    }
    *out = shown;
    return KAL_OK;
}

int16_t KalFreeCFile(scfiletag* cfile) {
    if (cfile == nullptr)
        return KAL_OK;
    CompressedStream* const self = wholeOf<CompressedStream>(cfile);
    endWrittenRun(cfile); // also where the stream's buffer was written back meanwhile
    KalDestroyReadLZW(cfile->decoder);
    KalFreeSMem(cfile->decoder);
    KalDestroyWriteLZW(cfile->encoder);
    KalFreeSMem(cfile->expansion);
    KalFreeSMem(self->encoderStrings);
    KalFreeSMem(self->decoderStrings);
    KalFreeSMem(self);
    return KAL_OK;
}

uint16_t KalWriteCFile(scfiletag* cfile, const uint8_t* data, uint16_t count) {
    CompressedStream* const self = wholeOf<CompressedStream>(cfile);
    if (cfile->stream == nullptr)
        return fail(self, KAL_ERR_NULL_STREAM, 0);
    if (count == 0)
        return 0;
    if (!continues(self, Side::writing)) {
        const int16_t status = startWriting(self);
        if (status != KAL_OK)
            return fail(self, status, 0);
    }
    const uint16_t consumed = encodeBytes(self->encoderStrings, cfile->encoder, cfile->stream, data, count);
    if (consumed == count)
        return succeed(self, count);
    return failOnStream(self, consumed);
}

int16_t KalFlushCFile(scfiletag* cfile) {
    CompressedStream* const self = wholeOf<CompressedStream>(cfile);
    SFILE* const stream = cfile->stream;
    if (stream == nullptr || self->side == Side::reading)
        return KAL_OK;
    if (keepsDirty(stream)) {
        if (stream->dirty == 0)
            return KAL_OK;
        if (!self->open)
            return KAL_ERR_RUN;
    }
    return endWrittenRun(cfile);
}

int16_t endWrittenRun(scfiletag* cfile) {
    CompressedStream* const self = wholeOf<CompressedStream>(cfile);
    SFILE* const stream = cfile->stream;
    if (stream == nullptr || self->side != Side::writing || !self->open)
        return KAL_OK;
    if (!continues(self, Side::writing))
        return KAL_ERR_RUN;

    TAGWRITELZW* const encoder = cfile->encoder; // there is one: a run is being written
    int16_t status =
        writeCode(self, encoder->currentCode); // NOLINT(clang-analyzer-core.NullDereference): see above
    if (status == KAL_OK)
        status = writeCode(self, kEndCode);
    if (status != KAL_OK)
        return status;
    const unsigned unfinished = encoder->bitCount % 8u;
    if (unfinished != 0)
        stream->putChar(stream, static_cast<char>(encoder->bitBuffer >> (7 - unfinished)));
    endRun(self);
    return stream->status;
}

uint16_t KalReadCFile(scfiletag* cfile, uint8_t* destination, uint16_t count) {
    CompressedStream* const self = wholeOf<CompressedStream>(cfile);
    if (cfile->stream == nullptr)
        return fail(self, KAL_ERR_NULL_STREAM, 0);
    if (!continues(self, Side::reading)) {
        const int16_t status = startReading(self);
        if (status != KAL_OK)
            return fail(self, status, 0);
    }
    return Reader(self, destination, count).run();
}
