// The walks that read from anywhere, given a stream.
#include <kal/stream.h>
#include <kal/verify.h>

#include "platform/compound/verify.h"
#include "platform/registry/verify.h"

namespace {

class StreamSource final : public ByteSource {
public:
    StreamSource(SFILE* stream, uint32_t byteCount) : ByteSource(byteCount), stream_(stream) {}

    bool read(uint64_t offset, void* destination, uint32_t count) override {
        status_ = stream_->seek(stream_, static_cast<int32_t>(static_cast<uint32_t>(offset)), KAL_SEEK_START);
        if (status_ != KAL_OK)
            return false;
        const int32_t got = stream_->read(stream_, destination, count);
        if (got == static_cast<int32_t>(count))
            return true;
        status_ = stream_->status != KAL_OK ? stream_->status : int16_t(KAL_ERR_SHORT_READ);
        return false;
    }

private:
    SFILE* stream_;
};

int32_t walk(SFILE* stream, FaultSink& sink, int16_t (*verify)(ByteSource&, FaultCount&)) {
    const int16_t sought = stream->seek(stream, 0, KAL_SEEK_END);
    if (sought != KAL_OK)
        return sought;
    FaultCount faults(sink);
    StreamSource source(stream, stream->pos - stream->offset);
    return faults.result(verify(source, faults));
}

} // namespace

int32_t KalVerifyCompoundFile(SFILE* stream, FaultSink& sink) {
    return walk(stream, sink, compound::verify);
}

int32_t KalVerifyRegistry(SFILE* stream, FaultSink& sink) {
    return walk(stream, sink, verifyRegistryLog);
}
