// What the walks through stored files tell of one.
#ifndef KAL_TESTS_SUPPORT_TOLD_H
#define KAL_TESTS_SUPPORT_TOLD_H

#include "tests/support/files.h"
#include "tests/support/vector_stream.h"

#include <kal/status.h>
#include <kal/verify.h>

#include <algorithm>
#include <cstring>

// Each as "offset/id last-word ", or the status that kept it from walking.
inline std::string faultsIn(SFILE* stream, int32_t (*verify)(SFILE*, FaultSink&) = KalVerifyIFile) {
    struct : FaultSink {
        void Fault(uint64_t offset, uint32_t id, const char* text) override {
            told += std::to_string(offset) + "/" + (id == KAL_FAULT_OF_FILE ? "file" : std::to_string(id));
            told += std::strrchr(text, ' ') + std::string(" ");
        }
        std::string told;
    } sink;
    const int32_t count = verify(stream, sink);
    EXPECT_TRUE(count < 0 || count == std::count(sink.told.begin(), sink.told.end(), '/')) << sink.told;
    return count < 0 ? KalStatusName(int16_t(count)) : sink.told;
}
inline std::string faultsIn(const Bytes& file, int32_t (*verify)(SFILE*, FaultSink&)) {
    VectorStream stream(file);
    return faultsIn(stream.file(), verify);
}

#endif
