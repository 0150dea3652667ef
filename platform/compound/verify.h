// Walking through a compound file of which nothing is believed.
#ifndef KAL_PLATFORM_COMPOUND_VERIFY_H
#define KAL_PLATFORM_COMPOUND_VERIFY_H

#include "platform/byte_source.h"
#include "platform/fault_count.h"

namespace compound {

// Tells each fault; the `id` is the number of the directory entry. KAL_ERR_BUFFER, or the source's status when that
// cannot be read.
int16_t verify(ByteSource& source, FaultCount& faults);

} // namespace compound

#endif
