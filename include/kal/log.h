// The message log: one file for the whole process, to which messages are appended.
//
// Each message stands in the file as its bytes and one carriage return. While no name was set, the first use
// makes a new file in the temporary directory and keeps it. Name, flag and stream belong to the process and
// are not locked: the log is for one caller at a time.
#ifndef KAL_LOG_H
#define KAL_LOG_H

#include <kal/path.h>

// Room for the log file's name, terminating zero included.
inline constexpr uint32_t KAL_LOG_NAME_SIZE = KAL_NAME_SIZE;

// Appends a message. 0, also when there is no room for it: what waits in the buffer is then tried again with
// the next message. Else the status of making the name (KalGenLogMessName) or of opening the file; the next
// message tries again.
KAL_API int16_t KalLogMessage(const char* message);

// 1: the file is closed after each message, which then is in the file when KalLogMessage returns. 0, the
// default: it stays open, and messages wait in its buffer, at most until the process ends by exit. Takes
// effect with the next message. 0, or 1 for any other flag, which changes nothing.
KAL_API uint16_t KalSetLogFlag(uint16_t flag);

// Makes the log file, empty, when it has no name yet. 0, KAL_ERR_MEMORY, or a status of KalOpenTempFile.
KAL_API int16_t KalGenLogMessName();

// Copies the name, made first when there is none, to a buffer of KAL_LOG_NAME_SIZE bytes. Statuses as
// KalGenLogMessName.
KAL_API int16_t KalGetLogMessName(char* destination);

// Sets the name. A file that is open stays in use until a message with flag 1 closes it. 0, or KAL_ERR_MEMORY
// when memory is short or the name has KAL_LOG_NAME_SIZE characters or more; the name then stays as it was.
KAL_API int16_t KalSetLogMessName(const char* name);

#endif
