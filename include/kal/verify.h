// Walks through stored files that believe no number they read and tell every fault. A walk changes nothing, ends on any
// input and takes memory in proportion to what is there. What it calls whole, the readers of this library read whole.
#ifndef KAL_VERIFY_H
#define KAL_VERIFY_H

#include <kal/base.h>

struct tagSFILE;

// The `id` of a fault that belongs to no item, list or stream.
inline constexpr uint32_t KAL_FAULT_OF_FILE = 0xFFFFFFFF;

// Is told each fault as it is found.
class FaultSink {
public:
    // `offset` counts bytes from where the file starts, in a compressed list those of the file; `id` is that of the item
    // or list, in a compound file the number of the directory entry, in a registry's log that of the record. `text` says what is wrong, in lower case without a
    // full stop; it holds during the call only.
    virtual void Fault(uint64_t offset, uint32_t id, const char* text) = 0;

protected:
    ~FaultSink() = default;
};

// Walks through the item file in a stream that can be read and sought, from the stream's base offset on: header, index,
// every entry against the file's length, the index and the other entries; two entries of one id are a fault, since only
// the first is ever found. The faults told, 0 for a whole file. Negative when the walk could not be made:
// KAL_ERR_BUFFER, or the stream's status. The stream's position is anywhere afterwards.
KAL_API int32_t KalVerifyIFile(tagSFILE* stream, FaultSink& sink);

// The same for a resource file, whose readers take 16 bits of a size: a resource of more bytes, as a wide file can have,
// is a fault too.
KAL_API int32_t KalVerifyResources(tagSFILE* stream, FaultSink& sink);

// The same for an operation-list file, and then every op of every list to its end: ops that run past the file, lists
// without an end op or that reach past what the index says, runs that make no sense, bands of scan lines that hold
// fewer lines than they say.
KAL_API int32_t KalVerifyIOpFile(tagSFILE* stream, FaultSink& sink);

// The same for one stored list that starts where the stream stands, compressed or not. That it ends without an end op
// is a fault here too.
KAL_API int32_t KalVerifyOpList(tagSFILE* stream, uint16_t compressed, FaultSink& sink);

// Walks through the compound file in a stream that can be read and sought, from the stream's base offset on: header, FAT
// and mini FAT, the directory, the chain of every stream against its size, the file's length and the other chains, and
// the tree of every storage. Sectors that nothing owns are no fault, since a writer that was killed leaves such. The
// faults told, 0 for a whole file. Negative when the walk could not be made: KAL_ERR_BUFFER, or the stream's status.
// The stream's position is anywhere afterwards.
KAL_API int32_t KalVerifyCompoundFile(tagSFILE* stream, FaultSink& sink);

// The same for one log of the registry, as docs/formats/registry.md shows it: header and every record up to the log's
// end. Readers stop at the first record that is not as it was written; the walk goes on to those behind it. What stands
// behind the log's end is nobody's.
KAL_API int32_t KalVerifyRegistry(tagSFILE* stream, FaultSink& sink);

#endif
