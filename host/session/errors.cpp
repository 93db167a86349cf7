#include "host/session/errors.h"

#include <cerrno>
#include <string_view>

#include "platform/fileprovider/QSFileProviderError.h"

namespace host {

namespace {

// The extension's own domain; its first case stands for a failed look-up of an item.
constexpr std::string_view localFileProviderErrorDomain = "Tidewell.LocalFileProviderError";
constexpr std::int64_t lookupFailed = 0;

constexpr std::string_view serviceErrorDomain = "com.quenby.Documents1";
constexpr std::int64_t serviceEnded = 1;
constexpr std::int64_t operationInterrupted = 2;
constexpr std::int64_t extensionUnavailable = 3;

platform::QSError serviceError(std::int64_t code, std::string_view text) {
    return {std::string(serviceErrorDomain),
            code,
            {{std::string(platform::QSDescriptionErrorKey), std::string(text)}}};
}

}  // namespace

bool meansExpired(const platform::QSError& error) {
    return error.domain == platform::QSFileProviderErrorDomain &&
           error.code == platform::QSFileProviderErrorSyncAnchorExpired;
}

bool meansNoSuchItem(const platform::QSError& error) {
    if (error.domain == platform::QSFileProviderErrorDomain) {
        return error.code == platform::QSFileProviderErrorNoSuchItem;
    }
    if (error.domain == platform::QPErrorDomain) {
        return error.code == platform::QPItemNotFoundErrorCode;
    }
    if (error.domain == localFileProviderErrorDomain) return error.code == lookupFailed;
    if (error.domain == platform::QSMochaErrorDomain) {
        return error.code == platform::QSFileNoSuchFileError;
    }
    return error.domain == platform::QSPOSIXErrorDomain && error.code == ENOENT;
}

bool meansServiceEnded(const platform::QSError& error) {
    return error.domain == serviceErrorDomain && error.code == serviceEnded;
}

platform::QSError errorForEndedService() {
    return serviceError(serviceEnded, "the document service has ended or does not answer");
}

bool meansUnavailable(const platform::QSError& error) {
    return error.domain == serviceErrorDomain && error.code == extensionUnavailable;
}

platform::QSError errorForUnavailableExtension(const std::optional<platform::QSError>& reason) {
    return serviceError(extensionUnavailable,
                        "the extension has ended, and cannot be started again just now" +
                            (reason ? "; " + reason->description() : std::string()));
}

bool meansMayBeDone(const platform::QSError& error) {
    return error.domain == serviceErrorDomain && error.code == operationInterrupted;
}

platform::QSError errorForInterruptedOperation() {
    return serviceError(
        operationInterrupted,
        "the document service ended during the operation, which may have been done");
}

}  // namespace host
