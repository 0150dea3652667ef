// The message log.
#include <kal/log.h>

#include "platform/process.h"

#include <kal/heap.h>
#include <kal/stream.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr char kEndOfMessage = '\r';

SFILE* logStream;   // null while the file is closed
char* logMessName;  // KAL_LOG_NAME_SIZE bytes, made on first need and kept
uint32_t logFlag;   // 1: close after each message
int openingProcess; // the buffered tail is this one's to write, not a fork's

// Closes the file. A stream whose last bytes could not be written stays open and whole, for the next time.
void closeLog() {
    const int16_t status = logStream->close(logStream);
    if (status == KAL_OK || status == KAL_ERR_CLOSE)
        logStream = nullptr;
}

// A fork starts without the file: both would move one file pointer and write one tail twice.
void leaveInheritedLog() {
    if (logStream != nullptr && openingProcess != _getpid()) {
        logStream->dirty = 0;
        closeLog();
    }
}

// At the end of the process. Whoever logs after this still gets every message to the file.
void finishLog() {
    leaveInheritedLog();
    logFlag = 1;
    if (logStream != nullptr)
        closeLog();
}

int16_t openLog() {
    const int16_t status = KalOpenFile(&logStream, logMessName, KAL_MODE_APPEND, 0);
    if (status != KAL_OK) {
        logStream = nullptr;
        return status;
    }
    static const bool finishes = std::atexit(finishLog) == 0;
    if (!finishes)
        logFlag = 1; // nobody would write the tail
    openingProcess = _getpid();
    return KAL_OK;
}

void write(const char* bytes, size_t count) {
    logStream->write(logStream, bytes, static_cast<uint32_t>(count));
}

bool hasNameBlock() {
    if (logMessName == nullptr)
        logMessName = static_cast<char*>(KalAllocSMem(KAL_LOG_NAME_SIZE));
    return logMessName != nullptr;
}

} // namespace

int16_t KalLogMessage(const char* message) {
    const int16_t named = KalGenLogMessName();
    if (named != KAL_OK)
        return named;
    leaveInheritedLog();
    if (logStream == nullptr) {
        const int16_t opened = openLog();
        if (opened != KAL_OK)
            return opened;
    }
    logStream->status = KAL_OK; // a disk that was full may have room again
    if (message != nullptr)
        write(message, std::strlen(message));
    write(&kEndOfMessage, 1);
    if (logFlag == 1)
        closeLog();
    return KAL_OK;
}

uint16_t KalSetLogFlag(uint16_t flag) {
    if (flag > 1)
        return 1;
    logFlag = flag;
    return 0;
}

int16_t KalGenLogMessName() {
    if (logMessName != nullptr)
        return KAL_OK;
    SFILE* file;
    int16_t status = KalOpenTempFile(&file, KAL_MODE_NEW_FILE, 0);
    if (status != KAL_OK)
        return status;
    if (hasNameBlock()) {
        std::strcpy(logMessName, file->tempName);
        KalFreeSMem(file->tempName);
        file->tempName = nullptr; // so that closing keeps the file
    } else {
        status = KAL_ERR_MEMORY;
    }
    file->close(file);
    return status;
}

int16_t KalGetLogMessName(char* destination) {
    const int16_t status = KalGenLogMessName();
    if (status == KAL_OK && destination != nullptr)
        std::strcpy(destination, logMessName);
    return status;
}

int16_t KalSetLogMessName(const char* name) {
    if (name == nullptr || std::strlen(name) >= KAL_LOG_NAME_SIZE || !hasNameBlock())
        return KAL_ERR_MEMORY;
    std::memmove(logMessName, name, std::strlen(name) + 1);
    return KAL_OK;
}
