// What the walks through stored files tell of one.
#ifndef KAL_TESTS_PLATFORM_TOLD_H
#define KAL_TESTS_PLATFORM_TOLD_H

#include "tests/support/files.h"
#include "tests/support/vector_stream.h"

#include <kal/verify.h>

#include <algorithm>
#include <string>

using Verify = int32_t (*)(SFILE*, FaultSink&);

// A line a fault: "offset/id: text".
class Faults : public FaultSink {
public:
    void Fault(uint64_t offset, uint32_t id, const char* text) override {
        told += std::to_string(offset) + (id == KAL_FAULT_OF_FILE ? "/file" : "/" + std::to_string(id)) +
                ": " + text + "\n";
    }
    std::string told;
};

inline std::string toldOf(Verify verify, const Bytes& bytes) {
    VectorStream stream(bytes);
    Faults faults;
    const int32_t count = verify(stream.file(), faults);
    EXPECT_EQ(count, std::count(faults.told.begin(), faults.told.end(), '\n')) << faults.told;
    return faults.told;
}

#endif
