#include "tidewell/common/Utilities.h"

#include <cerrno>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/ExtendedAttributes.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

template <typename Wanted>
std::optional<Wanted> typedResource(const QSURL& url, QSResourceKey key) {
    auto value = resourceValue(url, key);
    if (!value) {
        logError([&] {
            return "can't get resource " + quoted(nameOfResourceKey(key)) + " for " +
                   url.description() + "; " + value.error().description();
        });
        return std::nullopt;
    }
    if (auto* wanted = std::get_if<Wanted>(&*value)) return std::move(*wanted);
    return std::nullopt;
}

}  // namespace

std::optional<QSData> initWithValueOfXattr(std::string_view name, const QSURL& at) {
    auto value = Platform::current().files().extendedAttribute(at, name);
    if (value) return std::move(*value);
    const auto& error = value.error();
    const auto message = [&] {
        const bool wasFound = error.userInfo.contains(attributeWasFoundErrorKey);
        return (wasFound ? "can't copy data for xattr " : "can't get xattr ") + std::string(name) +
               "; " + error.description();
    };
    if (error.code == ENOENT) {
        logDebug(message);
    } else {
        logError(message);
    }
    return std::nullopt;
}

Result<void> setOrRemoveXattr(int descriptor, std::string_view name,
                              const std::optional<QSData>& bytes) {
    const int result = bytes ? setExtendedAttribute(descriptor, name, *bytes)
                             : removeExtendedAttribute(descriptor, name);
    if (result == 0 || (!bytes && errno == ENODATA)) return {};
    auto error = errorWithPOSIXCode(errno);
    if (error.code == E2BIG) {
        error.userInfo.emplace(QSDescriptionErrorKey,
                               "the value is too large to be kept with the item");
    }
    const auto message = [&] {
        return (bytes ? "can't set xattr " : "can't remove xattr ") + quoted(name) + "; " +
               error.description();
    };
    if (error.code == EACCES) {
        logDebug(message);
    } else {
        logError(message);
    }
    return std::unexpected(std::move(error));
}

std::optional<std::string> stringResource(const QSURL& url, QSResourceKey key) {
    return typedResource<std::string>(url, key);
}
std::optional<std::uint64_t> numberResource(const QSURL& url, QSResourceKey key) {
    return typedResource<std::uint64_t>(url, key);
}
std::optional<bool> booleanResource(const QSURL& url, QSResourceKey key) {
    return typedResource<bool>(url, key);
}
std::optional<QSDate> dateResource(const QSURL& url, QSResourceKey key) {
    return typedResource<QSDate>(url, key);
}
std::optional<QSData> dataResource(const QSURL& url, QSResourceKey key) {
    return typedResource<QSData>(url, key);
}

QSURL properURL(const QSURL& url) {
    if (!url.path().starts_with("/var")) return url;
    return QSURL::fileURLWithPath("/private" + url.path());
}

QSError errorWithPOSIXCode(int /*code*/) {
    return errorFromErrno(errno);
}

QSError errorFileWriteNoPermission() {
    return {std::string(QSMochaErrorDomain), QSFileWriteNoPermissionError};
}

BundleRef proxyAt(const QSURL& url) {
    return AppLibraryRootTable::shared().bundleAt(url);
}

BundleRef proxyWithContaining(const QSURL& url) {
    return AppLibraryRootTable::shared().bundleContaining(url);
}

}  // namespace tidewell
