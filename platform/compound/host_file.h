// The host file below a compound file: whole transfers at positions, room set aside ahead, sharing by locks.
#ifndef KAL_PLATFORM_COMPOUND_HOST_FILE_H
#define KAL_PLATFORM_COMPOUND_HOST_FILE_H

#include "platform/host_io.h"
#include <kal/compound.h>

#include <cstddef>
#include <cstdint>

namespace compound {

class HostFile {
public:
    HostFile() = default;
    ~HostFile();
    HostFile(const HostFile&) = delete;
    HostFile& operator=(const HostFile&) = delete;

    // Opens a regular file. A reader shares it with readers; a writer shares it with nobody.
    HRESULT open(const char* hostPath, bool writable);
    // Makes a file, or with `replace` empties the one that is there once it is known that nobody uses it.
    HRESULT create(const char* hostPath, bool replace);
    // Closes and deletes what create() made. A file that was there before stays.
    void abandon(const char* hostPath);

    bool writable() const { return writable_; }
    uint64_t length() const { return length_; }

    Moved read(uint64_t position, void* destination, size_t count) const;
    Moved write(uint64_t position, const void* source, size_t count);

    // Makes the file at least `length` bytes long with its room set aside, so that writing there later cannot
    // meet a full disk. False when there is no room; the length is then as before.
    bool reserve(uint64_t length);
    bool truncate(uint64_t length);

private:
    HRESULT take(int fd, bool writable);
    bool extend(uint64_t length);

    int fd_ = -1;
    bool writable_ = false;
    bool made_ = false;
    uint64_t length_ = 0;
};

} // namespace compound

#endif
