// Walking through stored lists of which nothing is believed.
#include "items/item_index.h"
#include "items/stored_index.h"
#include "oplist/op.h"

#include <algorithm>

namespace {

constexpr uint32_t kBufferBytes = UINT16_MAX;

class ListWalk {
public:
    ListWalk(SFILE* stream, FaultCount& faults) : stream_(stream), faults_(faults) {}
    ~ListWalk() {
        if (run_ != nullptr)
            KalFreeCFile(run_);
        if (buffer_ != nullptr)
            KalFreeSMem(buffer_);
    }
    ListWalk(const ListWalk&) = delete;
    ListWalk& operator=(const ListWalk&) = delete;

    int16_t start(bool compressed) {
        buffer_ = static_cast<uint8_t*>(KalAllocSMem(kBufferBytes));
        if (buffer_ == nullptr)
            return KAL_ERR_BUFFER;
        return compressed ? KalMakeCFile(&run_, stream_) : int16_t(KAL_OK);
    }

    // Walks to the end op of the list that starts where the stream stands; that it lies before `end`, unless `end` is 0,
    // is part of being whole. The status of a stream or heap that fails.
    int16_t walk(uint32_t id, uint64_t end) {
        for (;;) {
            const uint32_t start = logicalPosition(stream_);
            if (!read(KAL_OP_HEADER))
                return stop(start, id, "the list ends without an end op");
            const OpHeader op = loadOpHeader(buffer_);
            if (op.type == KAL_OP_END)
                break;
            if (!read(op.size))
                return stop(start, id, "an op runs past the end of the list");
            if (op.type == KAL_OP_FILLER)
                faults_.tell(start, id, "an op has the type that marks unused memory");
            if (op.type == KAL_OP_DIB && !holdsItsLines(op.size))
                faults_.tell(start, id, "a band of scan lines holds fewer lines than it says");
        }
        if (end != 0 && logicalPosition(stream_) > end)
            faults_.tell(end, id, "the list runs past its entry's size");
        return KAL_OK;
    }

private:
    bool read(uint32_t count) {
        if (run_ != nullptr)
            return KalReadCFile(run_, buffer_, static_cast<uint16_t>(count)) == count;
        return stream_->read(stream_, buffer_, count) == static_cast<int32_t>(count);
    }

    // Reading came short. Is it the list's fault or the stream's?
    int16_t stop(uint32_t offset, uint32_t id, const char* text) {
        const int16_t status = run_ != nullptr ? run_->status : stream_->status;
        if (status == KAL_ERR_RUN)
            faults_.tell(logicalPosition(stream_), id,
                         "its compressed bytes make no sense or end before the list does");
        else if (status == KAL_OK || status == KAL_ERR_SHORT_READ || status == KAL_ERR_END)
            faults_.tell(offset, id, text);
        else
            return status;
        return KAL_OK;
    }

    // An op without payload is no band yet.
    bool holdsItsLines(uint32_t size) const {
        if (size == 0)
            return true;
        if (size < KAL_DIB_OP_HEADER)
            return false;
        const uint64_t width = loadLittle<uint16_t>(buffer_ + 4);
        const uint64_t lines = loadLittle<uint16_t>(buffer_ + 6);
        const uint32_t bits = buffer_[8];
        const uint64_t lineBytes = bits == 24 ? width * 4 : (width * bits + 15) / 16 * 2;
        return KAL_DIB_OP_HEADER + lines * lineBytes <= size;
    }

    SFILE* stream_;
    FaultCount& faults_;
    uint8_t* buffer_ = nullptr;
    scfiletag* run_ = nullptr;
};

} // namespace

int32_t KalVerifyOpList(SFILE* stream, uint16_t compressed, FaultSink& sink) {
    FaultCount faults(sink);
    ListWalk list(stream, faults);
    int16_t status = list.start(compressed != 0);
    if (status == KAL_OK)
        status = list.walk(KAL_FAULT_OF_FILE, 0);
    return faults.result(status);
}

int32_t KalVerifyIOpFile(SFILE* stream, FaultSink& sink) {
    FaultCount faults(sink);
    StoredIndex index;
    int16_t status = index.verify(stream, faults);
    const bool compressed = (index.formatFlags() & KAL_IOP_COMPRESSED) != 0;
    const bool wide = (index.formatFlags() & KAL_ITEMS_WIDE) != 0;
    for (const StoredEntry& entry : index) {
        if (status != KAL_OK)
            break;
        if (entry.offset >= index.fileBytes()) {
            faults.tell(index.fileBytes(), entry.id, "the list starts behind the end of the file");
            continue;
        }
        // A size of 0 was written while the list was being stored, and a narrow one leaves out what 16 bits do not hold.
        const uint64_t end = wide && entry.size > 0 ? uint64_t(entry.offset) + entry.size : 0;
        ListWalk list(stream, faults);
        status = list.start(compressed);
        if (status == KAL_OK)
            status = seekTo(stream, entry.offset) ? list.walk(entry.id, end) : stream->status;
    }
    return faults.result(status);
}
