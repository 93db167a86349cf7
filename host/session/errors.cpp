#include "host/session/errors.h"

#include <cerrno>
#include <string_view>

#include "platform/fileprovider/QSFileProviderError.h"

namespace host {

namespace {

// The extension's own domain; its first case stands for a failed look-up of an item.
constexpr std::string_view localFileProviderErrorDomain = "Tidewell.LocalFileProviderError";
constexpr std::int64_t lookupFailed = 0;

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

}  // namespace host
