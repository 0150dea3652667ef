// The heap's fault switch, for tests: makes one allocation fail, and counts what is alive.
#ifndef KAL_PLATFORM_HEAP_FAULTS_H
#define KAL_PLATFORM_HEAP_FAULTS_H

#include <cstdint>

// The n-th allocation or growth from now on (1 is the next) fails, and only that one; 0 switches faults off.
void failHeapAllocation(int64_t n);

// Every allocation from the n-th on fails; 0 switches faults off.
void failHeapAllocationsFrom(int64_t n);

// Whether the fault that was last asked for has happened.
bool heapFaultHappened();

// Live small-memory blocks of the whole process.
uint64_t liveHeapBlocks();

// For the allocating stand-ins of this folder: whether this allocation is to fail.
bool heapFaultDue();

#endif
