// What tests of streams share.
#ifndef KAL_TESTS_STREAMS_STREAMS_H
#define KAL_TESTS_STREAMS_STREAMS_H

#include "tests/support/faults.h"

// Opens a file by its name; with the name of a stream that one of a compound file.
inline SFILE* openStream(const char* name, uint16_t mode, int status = KAL_OK, const char* stream = nullptr,
                         int32_t size = 0) {
    SFILE* s = nullptr;
    EXPECT_EQ(stream != nullptr ? KalOpenFileAsIStream(&s, name, stream, mode)
                                : KalOpenFile(&s, name, mode, size),
              status)
        << (name != nullptr ? name : "null") << " mode " << mode;
    EXPECT_EQ(s != nullptr, status == KAL_OK);
    return s;
}

#endif
