// Who changes a tree, and whether anything changed: one small file that every process maps.
//
//     0      4      8                                            4096
//     +------+------+------+--------------------------------------+
//     | seq  | c[1] | c[2] | ...                          c[1023] |   32-bit numbers
//     +------+------+------+--------------------------------------+
//
// A writer holds the file's flock, makes `seq` odd, raises the counter of every key that it is about to
// change, changes the tree, and makes `seq` even again. What was read of a key while `seq` stood even and
// unchanged holds for as long as the key's counter stands. A writer that dies leaves `seq` odd and gives the
// lock up; whoever gets the lock next puts `seq` right.
#ifndef KAL_PLATFORM_REGISTRY_CHANGES_H
#define KAL_PLATFORM_REGISTRY_CHANGES_H

#include <atomic>
#include <cstdint>

inline constexpr uint32_t kChangeCounters = 1024;

class RegistryChanges {
public:
    // Opens the file in the folder, or makes it. 0 or an error of the host.
    int attach(int folder);
    void detach();
    bool attached() const { return fd_ >= 0; }

    // Whether nobody shares the file any more, as it is gone from its folder (somebody emptied the tree), or
    // this process is a fork of the one that opened it. It is to be attached anew then.
    bool orphaned() const;

    uint32_t sequence() const { return counters_[0].load(std::memory_order_acquire); }
    uint32_t counter(uint32_t slot) const { return counters_[slot].load(std::memory_order_acquire); }

    // Waits for a writer at work and keeps others out. 0, ESTALE for an orphaned file, or an error of the
    // host.
    int hold();
    void release();

    // A change, between hold() and release(). begin() gives 0 or an error of the host.
    int begin();
    void touch(uint32_t slot) { counters_[slot].fetch_add(1); }
    void end() { counters_[0].fetch_add(1); }

private:
    using Counter = std::atomic<uint32_t>;
    bool inherited() const;

    static Counter none_[kChangeCounters]; // what there is to read while no file is attached

    int fd_ = -1;
    int forks_ = 0; // when the file was opened
    bool writable_ = false;
    Counter* counters_ = none_;
};

#endif
