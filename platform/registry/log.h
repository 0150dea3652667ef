// One log of changes: a file that only grows, shared by every process, and what it says kept in a tree of keys.
// docs/formats/registry.md shows the file.
//
// The file's first page is mapped. Its word `committed` tells how far the log goes, and by its top bit that another
// file takes this one's place. A writer holds the flock, writes behind the end and then stores the word; a reader
// that finds the word where it stopped reading knows everything. Calls give 0 or an error of the host.
#ifndef KAL_PLATFORM_REGISTRY_LOG_H
#define KAL_PLATFORM_REGISTRY_LOG_H

#include "platform/registry/keys.h"

#include <atomic>
#include <cerrno>
#include <initializer_list>

class RegistryLog {
public:
    // The folder's name must outlive the log. Nothing is opened yet.
    RegistryLog(KeyTree& tree, LogIndex index, const char* folder)
        : tree_(tree), index_(index), folder_(folder) {}
    RegistryLog(const RegistryLog&) = delete;
    RegistryLog& operator=(const RegistryLog&) = delete;
    ~RegistryLog() { detach(); }

    // Opens the file where it could not be had yet, or is gone from its folder.
    void look();

    // 0, or why nothing is known of what the file says; and why nothing can be added to it.
    int readable() const { return error_; }
    int writable() const { return error_ != 0 || writable_ ? error_ : EACCES; }

    // Makes the tree say what the log says now. One load where it does already.
    int refresh();

    // Takes the lock and refreshes. The log is written anew when most of it is of the past, or its end makes no
    // sense: behind that nothing may be added.
    int lock();
    void unlock();
    // With the lock held. The records are everybody's, all at once, when this returns 0.
    int append(std::initializer_list<RegistryRecord> records);

    // Grows whenever this process learns of a change in any log.
    inline static uint64_t changes = 0;
    // How often this process is the child of a fork. A child shares its parent's open files and so the locks on them.
    inline static int forks = 0;

private:
    enum { kNumber = 2, kCommitted = 3 }; // words of the header

    int openOwn(int folder, const char* name, int flags);
    int open();
    int attach();
    void detach();
    bool isGone() const;
    int settle();
    int read();
    bool apply(const RegistryRecord& record);
    int rewrite(uint64_t live);
    uint32_t word() const { return header_[kCommitted]; }
    bool isReplaced() const { return (word() & kReplaced) != 0; }

    KeyTree& tree_;
    const LogIndex index_;
    const char* const folder_;
    bool writable_ = false;
    int folderFd_ = -1;
    int fd_ = -1;
    int error_ = 0;                           // why the log is not attached
    int forks_ = 0;                           // when the file was opened
    std::atomic<uint32_t>* header_ = nullptr; // mapped
    uint32_t end_ = 0;                        // of what was read
    uint32_t lookAt_ = 0;                     // the length at which to ask how much of the log is of the past
};

#endif
