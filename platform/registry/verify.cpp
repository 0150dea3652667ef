#include "platform/registry/verify.h"

#include "platform/little_endian.h"
#include "platform/registry/record.h"

#include <kal/heap.h>

#include <algorithm>

namespace {

constexpr uint32_t kText = 1; // the type of values that end with a zero
constexpr uint32_t kLongestRecord = kRecordHead + kMostPathBytes + kMostNameBytes + kMostValueBytes;

class Walk {
public:
    Walk(ByteSource& source, FaultCount& faults) : source_(source), faults_(faults) {}
    ~Walk() {
        if (bytes_ != nullptr)
            KalFreeSMem(bytes_);
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    int16_t run() {
        bytes_ = static_cast<uint8_t*>(KalAllocSMem(
            static_cast<uint32_t>(std::clamp<uint64_t>(source_.byteCount(), kHeaderBytes, kLongestRecord))));
        if (bytes_ == nullptr)
            return KAL_ERR_BUFFER;
        if (source_.byteCount() < kHeaderBytes)
            tell(source_.byteCount(), "the file ends inside its header");
        else if (!source_.read(0, bytes_, kHeaderBytes))
            return source_.status();
        else if (loadLittle<uint32_t>(bytes_) != kMagic)
            tell(0, "it does not begin as a registry's log does");
        else if (loadLittle<uint32_t>(bytes_ + 4) != kVersion)
            tell(4, "its version is not 1");
        else
            return records();
        return KAL_OK;
    }

private:
    void tell(uint64_t offset, const char* text) { faults_.tell(offset, KAL_FAULT_OF_FILE, text); }

    int16_t records() {
        const auto number = loadLittle<uint32_t>(bytes_ + 8);
        // That another file takes this one's place is no fault: its writer died, and the next goes on from there.
        uint64_t end = loadLittle<uint32_t>(bytes_ + 12) & ~kReplaced;
        const auto* nothing =
            std::find_if(bytes_ + 16, bytes_ + kHeaderBytes, [](uint8_t byte) { return byte != 0; });
        if (nothing != bytes_ + kHeaderBytes)
            tell(static_cast<uint64_t>(nothing - bytes_), "a byte of the header that nothing uses is not 0");
        if (end < kHeaderBytes)
            tell(12, "the log ends inside its header");
        else if (end > source_.byteCount())
            tell(12, "the log ends behind the end of the file");
        end = std::min(end, source_.byteCount());
        uint32_t id = 0;
        for (uint64_t at = kHeaderBytes; at < end; id++) {
            const uint64_t left = end - at;
            if (left < kRecordHead) {
                faults_.tell(at, id, "the log ends inside a record: nothing of it is read");
                break;
            }
            if (!source_.read(at, bytes_, kRecordHead))
                return source_.status();
            const auto length = loadLittle<uint32_t>(bytes_);
            if (length < kRecordHead || length > std::min<uint64_t>(left, kLongestRecord)) {
                faults_.tell(at, id, "a record's length makes no sense: nothing from here on is read");
                break;
            }
            if (!source_.read(at, bytes_, length))
                return source_.status();
            record(at, id, number, length);
            at += length;
        }
        return KAL_OK;
    }

    void record(uint64_t at, uint32_t id, uint32_t number, uint32_t length) {
        RegistryRecord record;
        if (!record.load(number, {reinterpret_cast<const char*>(bytes_), length}))
            faults_.tell(at, id, "a record is not what was written: nothing from here on is read");
        else if (bytes_[9] != 0 || bytes_[14] != 0 || bytes_[15] != 0)
            faults_.tell(at, id, "a byte of a record that nothing uses is not 0");
        else if (record.kind != RecordKind::value && record.name.size() + record.bytes.size() != 0)
            faults_.tell(at, id, "a record that is no value's has a value");
        else if (record.kind == RecordKind::value && record.type == kText && !record.bytes.ends_with('\0'))
            faults_.tell(at, id, "a text does not end with its zero");
    }

    ByteSource& source_;
    FaultCount& faults_;
    uint8_t* bytes_ = nullptr;
};

} // namespace

int16_t verifyRegistryLog(ByteSource& source, FaultCount& faults) {
    return Walk(source, faults).run();
}
