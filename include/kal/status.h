// Statuses in words, for messages.
#ifndef KAL_STATUS_H
#define KAL_STATUS_H

#include <kal/base.h>

// Every constant of KalStatus and what it means, as STATUS(name, text). Texts are in lower case without a full stop, to
// stand behind a file's name in a message: "photos.kar: no room left on the disk".
#define KAL_STATUS_TABLE(STATUS)                                                                             \
    STATUS(KAL_OK, "done")                                                                                   \
    STATUS(KAL_ERR_MEMORY, "not enough memory for a record or a name")                                       \
    STATUS(KAL_ERR_VMEM, "not enough memory for a block, or a block cannot be brought back")                 \
    STATUS(KAL_ERR_BUFFER, "not enough memory for a buffer or an index")                                     \
    STATUS(KAL_ERR_OPEN, "cannot be opened or made")                                                         \
    STATUS(KAL_ERR_STORAGE, "there is no such file, or it is no compound file that can be opened")           \
    STATUS(KAL_ERR_SERVICE, "the operation does not apply, or found no unique name, mapping or block")       \
    STATUS(KAL_ERR_WRITE, "cannot be written")                                                               \
    STATUS(KAL_ERR_READ, "cannot be read")                                                                   \
    STATUS(KAL_ERR_CLOSE, "cannot be closed in good order")                                                  \
    STATUS(KAL_ERR_DISK_FULL, "no room left on the disk")                                                    \
    STATUS(KAL_ERR_SHORT_READ, "it ends too early")                                                          \
    STATUS(KAL_ERR_END, "its end is reached")                                                                \
    STATUS(KAL_ERR_SEEK, "a position in it cannot be reached")                                               \
    STATUS(KAL_ERR_NULL_STREAM, "no stream was given")                                                       \
    STATUS(KAL_ERR_GLOBAL, "not enough memory for a memory stream")                                          \
    STATUS(KAL_ERR_RESOURCE, "it has no such resource")                                                      \
    STATUS(KAL_ERR_RESOURCE_TYPE, "the resource is of another kind")                                         \
    STATUS(KAL_ERR_POSITION, "it has no such position or scan line")                                         \
    STATUS(KAL_ERR_TAG_WRITE, "the setting cannot be written")                                               \
    STATUS(KAL_ERR_TAG_KEY, "the settings cannot be opened")                                                 \
    STATUS(KAL_ERR_TAG_PARENT, "the settings have no parent")                                                \
    STATUS(KAL_ERR_TAG_MISSING, "there is no such setting")                                                  \
    STATUS(KAL_ERR_FORMAT, "it has another format")                                                          \
    STATUS(KAL_ERR_CURRENT_DIR, "the current directory is unknown or its name is too long")                  \
    STATUS(KAL_ERR_DESTINATION, "there is no place for the result")                                          \
    STATUS(KAL_ERR_EXAMINE, "cannot be examined")                                                            \
    STATUS(KAL_ERR_DISK, "the disk is not ready")                                                            \
    STATUS(KAL_ERR_LIST, "no list was given, or a node of it cannot be freed")                               \
    STATUS(KAL_ERR_NODE, "no node was given, or it cannot be freed")                                         \
    STATUS(KAL_ERR_RUN, "its compressed data is damaged or over")                                            \
    STATUS(KAL_ERR_EMPTY_PATH, "the path is empty")

// The text of a status; of KAL_ERR_OPEN less an errno what kept the file from being opened or made; for a positive
// status, which some calls give for a refusal, and for a number that is no status a text that says so. Never null; the
// text is constant and nobody frees it.
KAL_API const char* KalStatusText(int16_t status);

// The constant's name, such as "KAL_ERR_READ"; "KAL_ERR_OPEN" also for that less an errno. Null for other numbers. The
// text is constant and nobody frees it.
KAL_API const char* KalStatusName(int16_t status);

#endif
