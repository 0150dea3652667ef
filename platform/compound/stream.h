// The stream object of a compound file.
#ifndef KAL_PLATFORM_COMPOUND_STREAM_H
#define KAL_PLATFORM_COMPOUND_STREAM_H

#include "platform/compound/compound_file.h"

namespace compound {

// Opens the stream of an entry, emptied first if asked. On failure `stream` is null.
HRESULT openStream(CompoundFile& file, uint32_t entry, uint32_t mode, bool emptied, IStream** stream);

} // namespace compound

#endif
