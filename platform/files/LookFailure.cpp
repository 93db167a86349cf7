#include "platform/files/LookFailure.h"

#include <cerrno>

namespace platform {

LookFailure lookFailureOf(const QSError& error) {
    if (error.domain == QSMochaErrorDomain && error.code == QSFileNoSuchFileError) {
        return LookFailure::Missing;
    }
    if (error.domain != QSPOSIXErrorDomain) return LookFailure::Unknown;
    switch (error.code) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case EXDEV:
        case ESTALE:
            return LookFailure::Missing;
        case EACCES:
        case EPERM:
        case EIO:
        case EUCLEAN:
        case EBADMSG:
        case ENAMETOOLONG:
        case EOVERFLOW:
            return LookFailure::Unreadable;
        default:
            return LookFailure::Unknown;
    }
}

QSError movesAllTheTimeError() {
    auto error = errorFromErrno(EBUSY);
    error.userInfo.emplace(QSDescriptionErrorKey, "it is being moved all the time; try again");
    return error;
}

}  // namespace platform
