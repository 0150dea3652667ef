// The n-th host call of any kind fails, or kills the process: for walks over every point at which an
// operation can be cut off.
#ifndef KAL_TESTS_SUPPORT_TRAPS_H
#define KAL_TESTS_SUPPORT_TRAPS_H

#include "tests/support/faults.h"

// While in scope. Counts calls from 1; `error` is the host error of call `nth`, or kKill. An `nth` of 0 only
// counts.
class HostCallTrap {
public:
    static constexpr int kKill = -1;
    explicit HostCallTrap(int64_t nth, int error = kKill);
    static int64_t calls();
    static int64_t listings(); // directory entries that were read

private:
    HostCallGuard guard_;
};

#endif
