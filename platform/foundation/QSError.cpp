#include "platform/foundation/QSError.h"

#include <cstring>

namespace platform {

namespace {

std::string textOfErrno(int value) {
    char buffer[128];
    // The GNU variant returns a pointer that need not be the buffer.
    return strerror_r(value, buffer, sizeof buffer);
}

}  // namespace

std::string QSError::description() const {
    std::string text;
    if (const auto found = userInfo.find(QSDescriptionErrorKey); found != userInfo.end()) {
        text = found->second;
    } else if (domain == QSPOSIXErrorDomain) {
        text = textOfErrno(static_cast<int>(code));
    } else {
        text = "The operation could not be completed";
    }
    if (const auto path = userInfo.find(QSFilePathErrorKey); path != userInfo.end()) {
        text += ": " + path->second;
    }
    return text + " (" + domain + " " + std::to_string(code) + ")";
}

QSError errorFromErrno(int errnoValue, std::string_view path) {
    QSError error{std::string(QSPOSIXErrorDomain), errnoValue};
    if (!path.empty()) error.userInfo.emplace(QSFilePathErrorKey, path);
    return error;
}

QSError mochaError(std::int64_t code, std::string_view description) {
    return {std::string(QSMochaErrorDomain),
            code,
            {{std::string(QSDescriptionErrorKey), std::string(description)}}};
}

}  // namespace platform
