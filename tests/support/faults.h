// Faults for tests: host calls put back and counted, and the heap held in balance.
#ifndef KAL_TESTS_SUPPORT_FAULTS_H
#define KAL_TESTS_SUPPORT_FAULTS_H

#include "platform/global_memory.h"
#include "platform/heap_faults.h"
#include "platform/host_calls.h"
#include "tests/support/files.h"

// A field of a packed record by value: the assertion macros bind references, which packed fields do not take.
template <class T>
T val(T field) {
    return field;
}

// Puts the host calls back as they were when it goes out of scope.
class HostCallGuard {
public:
    HostCallGuard() : saved_(hostCalls) {}
    ~HostCallGuard() { hostCalls = saved_; }
    HostCallGuard(const HostCallGuard&) = delete;
    HostCallGuard& operator=(const HostCallGuard&) = delete;

private:
    HostCalls saved_;
};

// How often the host was asked to read, write and seek while it is in scope.
class HostCallCounter {
public:
    HostCallCounter() {
        all_ = writes_ = seeks_ = 0;
        hostCalls.read = [](auto... given) { return all_++, ::read(given...); };
        hostCalls.write = [](auto... given) { return all_++, writes_++, ::write(given...); };
        hostCalls.lseek = [](auto... given) { return all_++, seeks_++, ::lseek(given...); };
    }
    static int64_t writes() { return writes_; }
    static int64_t seeks() { return seeks_; }
    static int64_t all() { return all_; }

private:
    HostCallGuard guard_;
    static inline int64_t all_, writes_, seeks_;
};

#endif
