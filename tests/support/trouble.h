// Work that meets trouble at every point, one after another: an allocation fails, a host call fails, a transfer comes
// short, the disk is full, the process is killed. After each the same must hold: the status is one that the scenario
// names; no memory and no descriptor is lost; in the test's folder nothing is half made, nothing strange is left, and
// what was there is there. A run that gives the status of a run without trouble has done all its work.
//
//     TEST_F(StoreTest, LosesNothingInTrouble) {           // a FolderTest
//         writeFile("list", kOld);
//         walkTrouble({.run = [] { return store("list", kNew); },          // closes what it opens
//                      .statuses = {KAL_ERR_MEMORY, KAL_ERR_WRITE, KAL_ERR_DISK_FULL},
//                      .check = [](int) { EXPECT_TRUE(opens("list")); }});  // optional
//     }
//
// Each run finds the folder as it was before the walk. `.unfinished = {"list"}` allows a failed run to leave that file
// in any state (`check` may say which), and a second argument chooses troubles: walkTrouble({...}, kNoMemory | kDiskFull).
// A failure says what befell the run, as "host
// call 7 (fstat) fails" does; the walk ends there.
#ifndef KAL_TESTS_SUPPORT_TROUBLE_H
#define KAL_TESTS_SUPPORT_TROUBLE_H

#include "tests/support/files.h"

#include <climits>
#include <functional>
#include <set>
#include <string>

struct Scenario {
    std::function<void()> prepare = [] {}; // before each run, without trouble: for what is not in the folder
    std::function<int()> run;              // the work, which gives a status and always takes the same steps
    std::set<int> statuses = {};           // what trouble may make of the status
    std::function<void(int status)> check = [](int) {}; // after each run, without trouble
    std::set<std::string> unfinished = {};              // files that a failed run may leave in any state
    std::set<std::string> loose = {}; // files whose bytes say nothing: `check` looks into them
};

// The status that `check` gets when the run was killed.
inline constexpr int kWasKilled = INT_MIN;

enum Trouble : unsigned {
    kNoMemory = 1,  // allocation n fails; from n on all fail
    kHostFails = 2, // host call n fails with EIO; from n on all fail
    kCutShort = 4,  // transfer n moves half: the run must take no notice
    kDiskFull = 8,  // from change n on, which writes half of its bytes, the disk is full
    kKilled = 16,   // SIGKILL before change n
    kAllTrouble = 31
};

// Returns the number of runs.
int walkTrouble(const Scenario& scenario, unsigned troubles = kAllTrouble);

#endif
