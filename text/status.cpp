#include <kal/status.h>

#include <cerrno>

namespace {

struct Words {
    const char* name;
    const char* text;
};

// A constant that the table lacks is a warning of the compiler here.
Words wordsOf(KalStatus status) {
    switch (status) {
#define KAL_STATUS_CASE(constant, text)                                                                      \
    case constant:                                                                                           \
        return {#constant, text};
        KAL_STATUS_TABLE(KAL_STATUS_CASE)
#undef KAL_STATUS_CASE
    }
    return {nullptr, nullptr};
}

// Errors of the host lie behind KAL_ERR_OPEN, and have fewer numbers than this.
constexpr int kHostErrors = 134;

bool isOpenFailure(int16_t status) {
    return status < KAL_ERR_OPEN && status > KAL_ERR_OPEN - kHostErrors;
}

const char* textOfOpenFailure(int error) {
    switch (error) {
    case EPERM:
    case EACCES:
        return "permission denied";
    case EIO:
        return "the disk fails";
    case ENOMEM:
        return "not enough memory";
    case EBUSY:
    case ETXTBSY:
        return "it is in use";
    case EEXIST:
        return "it is there already";
    case ENOTDIR:
        return "what should be a directory in its path is none";
    case EISDIR:
        return "it is a directory";
    case EINVAL:
    case ENAMETOOLONG:
        return "no file can have this name";
    case ENFILE:
    case EMFILE:
        return "too many open files";
    case EFBIG:
    case EOVERFLOW:
        return "it is too large";
    case ENOSPC:
    case EDQUOT:
        return "no room left on the disk";
    case EROFS:
        return "the disk takes no writes";
    case ELOOP:
        return "its links lead back to themselves";
    default:
        return "cannot be opened or made";
    }
}

} // namespace

const char* KalStatusText(int16_t status) {
    if (const char* text = wordsOf(static_cast<KalStatus>(status)).text)
        return text;
    if (isOpenFailure(status))
        return textOfOpenFailure(KAL_ERR_OPEN - status);
    return status > 0 ? "refused" : "unknown status";
}

const char* KalStatusName(int16_t status) {
    if (const char* name = wordsOf(static_cast<KalStatus>(status)).name)
        return name;
    return isOpenFailure(status) ? "KAL_ERR_OPEN" : nullptr;
}
