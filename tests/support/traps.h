// The n-th host call fails, comes short or kills the process: for walks over every point at which an operation can be
// cut off. tests/support/trouble.h walks.
#ifndef KAL_TESTS_SUPPORT_TRAPS_H
#define KAL_TESTS_SUPPORT_TRAPS_H

#include "tests/support/faults.h"

#include <string>
#include <vector>

// While in scope, all calls of platform/host_calls.h come through here and are counted from 1.
class HostCallTrap {
public:
    enum Effect {
        kCount,     // none
        kFail,      // call `nth` fails with `error`
        kFailOn,    // and so does every later one
        kShorten,   // transfer `nth` moves half of its bytes; a single byte is interrupted by a signal
        kNoRoom,    // change `nth` finds the disk full, after half of its bytes, and so does every later one
        kKillBefore // the process is killed before change `nth`
    };

    HostCallTrap(Effect effect, int64_t nth, int error = 0);

    // The names of the calls so far: all, those that move bytes, and those that change files.
    static const std::vector<std::string>& names();
    static const std::vector<std::string>& transfers();
    static const std::vector<std::string>& changes();

private:
    HostCallGuard guard_;
};

#endif
