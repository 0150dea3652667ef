#include "tests/compress/step_run.h"

#include <kal/heap.h>

#include <algorithm>

void StepWriter::renewEncoder() {
    const uint8_t bitBuffer = encoder != nullptr ? encoder->bitBuffer : uint8_t{0};
    const uint16_t bitCount = encoder != nullptr ? encoder->bitCount : uint16_t{0};
    KalDestroyWriteLZW(encoder);
    encoder = static_cast<TAGWRITELZW*>(KalAllocSMem(sizeof(TAGWRITELZW)));
    KalInitWriteLZW(encoder, 256);
    encoder->bitBuffer = bitBuffer;
    encoder->bitCount = bitCount;
    encoder->currentCode = encoder->outputCode = 256;
}

bool StepWriter::put(uint16_t code) {
    encoder->outputCode = code;
    return KalWriteLZWCode(encoder, stream_) == 0;
}

uint16_t StepWriter::write(const uint8_t* data, uint16_t count) {
    if (stream_->pos - stream_->offset != runPos) {
        KalDestroyWriteLZW(encoder);
        encoder = nullptr;
        renewEncoder();
        if (!put(256))
            return 0;
    }
    for (uint16_t at = 0; at < count; at++) {
        encoder->character = data[at];
        if (encoder->currentCode == 256) {
            startWith(data[at]);
            continue;
        }
        if (KalFindString(encoder) == 1)
            continue;
        if (!put(encoder->outputCode))
            return at;
        KalAddTreeEntry(encoder);
        startWith(data[at]);
        if (encoder->nextCode <= 4093)
            continue;
        if (!put(data[at]) || !put(256))
            return at;
        renewEncoder();
    }
    runPos = stream_->pos - stream_->offset;
    return count;
}

void StepWriter::flush() {
    put(encoder->currentCode);
    put(257);
    while (encoder->bitCount % 8 != 0) {
        encoder->codeWidth = 1;
        put(0);
    }
    runPos = KAL_NO_POSITION;
}

bool StepReader::feedByte() {
    decoder.inputByte = static_cast<uint8_t>(stream_->getChar(stream_));
    status = stream_->status;
    completed_ = status == 0 ? KalDecodeLZW(&decoder) : uint16_t{0};
    return status == 0;
}

uint16_t StepReader::read(uint8_t* destination, uint16_t count) {
    if (stream_->pos - stream_->offset != runPos) {
        pending.clear();
        KalDestroyReadLZW(&decoder);
        decoder = {};
        KalInitReadLZW(&decoder, 256);
        if (!feedByte() || !feedByte())
            return 0;
        if (decoder.firstAfterClear == 0) {
            runPos = KAL_NO_POSITION;
            status = KAL_ERR_RUN;
            return 0;
        }
    }
    uint16_t done = 0;
    for (;;) {
        for (; !pending.empty() && done < count; pending.pop_back())
            destination[done++] = pending.back();
        if (done == count)
            break;
        if (!feedByte())
            return done;
        if (completed_ == 0)
            continue;
        for (uint16_t code = decoder.codes[0]; code != 0xFFFF; code = decoder.table[code].prefix)
            pending.push_back(decoder.table[code].character);
    }
    status = 0;
    runPos = stream_->pos - stream_->offset;
    return done;
}
