// What a walk through a stored file has found so far.
#ifndef KAL_PLATFORM_FAULT_COUNT_H
#define KAL_PLATFORM_FAULT_COUNT_H

#include <kal/verify.h>

class FaultCount {
public:
    explicit FaultCount(FaultSink& sink) : sink_(sink) {}

    void tell(uint64_t offset, uint32_t id, const char* text) {
        if (count_ < INT32_MAX)
            count_++;
        sink_.Fault(offset, id, text);
    }
    // A walk's result: what kept it from going on, else the number of faults.
    int32_t result(int16_t status) const { return status != KAL_OK ? status : count_; }

private:
    FaultSink& sink_;
    int32_t count_ = 0;
};

#endif
