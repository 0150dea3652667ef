// What each fuzz target is made of.
#ifndef KAL_FUZZ_FUZZ_TARGET_H
#define KAL_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// The target: any bytes, and a crash where something is wrong with what the library makes of them.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the run when a promise was broken.
inline void require(bool held, const char* promise) {
    if (held)
        return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

#endif
