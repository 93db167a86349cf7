#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <thread>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/LookFailure.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"

namespace tidewell {

namespace {

void logRaw(LogLevel level, std::string_view text) {
    logHandle().write(level, text);
}

QSURL storageURL() {
    return QSFileProviderManager::defaultManager().documentStorageURL();
}

/// The path of the first root, libraries before the storage, that is a prefix of the URL's. A plain
/// prefix: presented roots are named so that no sibling shares one.
std::optional<std::string> rootHolding(const QSURL& url) {
    const auto roots = AppLibraryRootTable::shared().bundleProxiesByRootURLs();
    for (const auto& [root, bundle] : *roots) {
        if (url.path().starts_with(root.path())) return root.path();
    }
    const auto& storage = QSFileProviderManager::defaultManager().documentStoragePath();
    if (url.path().starts_with(storage)) return storage;
    return std::nullopt;
}

/// The identifier of the root at that path.
std::optional<std::string> identifierOfRoot(const std::string& path) {
    if (path == QSFileProviderManager::defaultManager().documentStoragePath()) {
        return std::string(QSFileProviderRootContainerItemIdentifier);
    }
    return TWPFileObjectIdentifier::fromAppLibraryDataContainerURL(QSURL::fileURLWithPath(path));
}

using Identifier = std::optional<std::string>;

/// No identifier, or the error where that says nothing about the object.
Result<Identifier> noneBecauseOf(const QSError& error) {
    if (lookFailureOf(error) == LookFailure::Unknown) return std::unexpected(error);
    return Identifier();
}

/// What the URL keeps of one of the two identifier values; even asking may fail.
Result<std::optional<std::uint64_t>> keptNumber(const QSURL& url, QSResourceKey key) {
    const auto value = resourceValue(url, key);
    if (!value) {
        const auto& error = value.error();
        const bool isMissing =
            error.domain == QSMochaErrorDomain && error.code == QSFileNoSuchFileError;
        logRaw(isMissing ? LogLevel::Debug : LogLevel::Error,
               "can't get resource value for " + std::string(nameOfResourceKey(key)) + "; " +
                   error.description());
        return std::unexpected(error);
    }
    if (value->index() == 0) return std::nullopt;
    if (const auto* number = std::get_if<std::uint64_t>(&*value)) return *number;
    const auto text =
        std::string("unexpected class for ") +
        (key == QSResourceKey::FileID ? "file ID" : "doc ID") +
        " (expected: QSNumber, actual: " + std::string(classNameOfResourceValue(*value)) + ")";
#ifdef NDEBUG
    logRaw(LogLevel::Error, text);
    return std::nullopt;
#else
    fatalError(text);
#endif
}

/// Keeps the number with the URL. The log names the key as hosts know it.
void keepNumber(const QSURL& url, QSResourceKey key, std::uint64_t number,
                std::string_view loggedKey) {
    try {
        url.setCachedResourceValue(key, number);
    } catch (const std::bad_alloc&) {
        logHandle().write(LogLevel::Debug, [&] {
            return "can't cache value " + std::to_string(number) + " for key " +
                   std::string(loggedKey) + "; " + errorFromErrno(ENOMEM).description();
        });
    }
}

/// Asks the volume for the identifier of an object whose URL keeps none.
Result<Identifier> freshIdentifier(const QSURL& url) {
    const auto isPackage = resourceValue(url, QSResourceKey::IsPackage);
    if (!isPackage) {
        logRaw(LogLevel::Error, "can't get resource QSURLIsPackageKey for " + quoted(url.path()) +
                                    "; " + isPackage.error().description());
        return noneBecauseOf(isPackage.error());
    }
    const auto attributes = Platform::current().files().attributes(url);
    if (!attributes) {
        logRaw(LogLevel::Error, "can't open file at " + quoted(url.path()) + "; " +
                                    errnoText(static_cast<int>(attributes.error().code)));
        return noneBecauseOf(attributes.error());
    }
    const bool needsDocumentID = (*attributes)->kind() == ObjectKind::RegularFile ||
                                 ((*attributes)->isDirectory() && std::get<bool>(*isPackage));
    if (!needsDocumentID) {
        const auto fileID = fileIDOfObject(url);
        if (fileID == 0) {
            const int reason = errno;
            logRaw(LogLevel::Error,
                   "can't get attribute list for " + quoted(url.path()) + "; " + errnoText(reason));
            return std::unexpected(errorFromErrno(reason));
        }
        keepNumber(url, QSResourceKey::FileID, fileID, "QSURLFileResourceIdentifierKey");
        return TWPFileObjectIdentifier::fromFileID(fileID);
    }
    const std::uint64_t documentID = QGLibraryGetOrAllocateDocumentId(url);
    if (documentID == 0) {
        const int reason = errno;
        logRaw(LogLevel::Error, "can't get permanent storage for " + quoted(url.path()));
        return std::unexpected(errorFromErrno(reason));
    }
    keepNumber(url, QSResourceKey::DocumentIdentifier, documentID, "QSURLDocumentIdentifierKey");
    return TWPFileObjectIdentifier::fromDocumentID(documentID);
}

Result<std::optional<QSURL>> findFileURL(std::uint64_t fileID, std::uint32_t device) {
    auto& volume = Platform::current().volume();
    const auto url = volume.UUIDForDevice(device)
                         ? volume.URLForFileID(fileID)
                         : Result<QSURL>(std::unexpected(errorFromErrno(ENODEV)));
    if (url) return *url;
    const auto& error = url.error();
    logHandle().write(LogLevel::Debug, [&] {
        return "can't resolve path matching file ID " +
               quoted(std::to_string(static_cast<std::int64_t>(fileID))) + "; " +
               errnoText(static_cast<int>(error.code));
    });
    // One that names a path is about the storage.
    if (error == errorFromErrno(ENOENT)) return std::nullopt;
    return std::unexpected(error);
}

void logUnknownDevice(const QSURL& storage) {
    logRaw(LogLevel::Error,
           "can't get device ID for " + quoted(storage.path()) + "; " + errnoText(errno));
}

}  // namespace

std::optional<std::string> itemIdentifier(const QSURL& url) {
    return findItemIdentifier(url).value_or(std::nullopt);
}

Result<std::optional<std::string>> findItemIdentifier(const QSURL& url) {
    if (!url.isFileURL()) {
        logRaw(LogLevel::Error, "can't compute file object identifier if not a file URL");
        return std::nullopt;
    }
    const auto proper = properURL(url);
    const auto root = rootHolding(proper);
    if (!root) {
        logHandle().write(LogLevel::Debug, [&] {
            return "can't compute file object identifier because " + quoted(proper.path()) +
                   " is not part of Tidewell";
        });
        return std::nullopt;
    }
    if (proper.path() == *root) return identifierOfRoot(*root);
    const bool isFolder = qp_isFolder(url);
    const auto number =
        keptNumber(url, isFolder ? QSResourceKey::FileID : QSResourceKey::DocumentIdentifier);
    if (!number) return noneBecauseOf(number.error());
    if (!*number) return freshIdentifier(url);
    return isFolder ? TWPFileObjectIdentifier::fromFileID(**number)
                    : TWPFileObjectIdentifier::fromDocumentID(**number);
}

std::optional<std::string> parentIdentifier(const QSURL& url) {
    return findParentIdentifier(url).value_or(std::nullopt);
}

Result<std::optional<std::string>> findParentIdentifier(const QSURL& url) {
    const auto& files = Platform::current().files();
    const auto attributes = files.attributes(url);
    if (!attributes && lookFailureOf(attributes.error()) == LookFailure::Unknown) {
        return std::unexpected(attributes.error());
    }
    const auto seenIn = attributes ? (*attributes)->parent : ObjectIdentity();
    auto& volume = Platform::current().volume();
    if (const auto fileID = volume.fileIDOfFolder(seenIn)) {
        return TWPFileObjectIdentifier::fromFileID(*fileID);
    }
    const auto isSeenIn = [&](const QSURL& folder) -> Result<bool> {
        const auto own = files.attributes(folder);
        if (!own && lookFailureOf(own.error()) == LookFailure::Unknown) {
            return std::unexpected(own.error());
        }
        return own && (*own)->isDirectory() && (*own)->identity.inode == seenIn.inode;
    };
    const auto parent = url.URLByDeletingLastPathComponent();
    auto identifier = findItemIdentifier(parent);
    if (!identifier) return identifier;
    // A root needs no look at it, and keeps its path.
    const bool isRoot = *identifier && !parent.attachment();
    if (!attributes || isRoot) return identifier;
    const auto isStillThere = isSeenIn(parent);
    if (!isStillThere) return std::unexpected(isStillThere.error());
    if (*identifier && *isStillThere) return identifier;
    if (auto seen = volume.waitUntilSeen(); !seen) return std::unexpected(seen.error());
    const auto place = volume.placeOfInode(seenIn.inode);
    if (!place) return std::nullopt;
    const auto isAtPlace = isSeenIn(*place);
    if (!isAtPlace) return std::unexpected(isAtPlace.error());
    return *isAtPlace ? findItemIdentifier(*place) : std::nullopt;
}

std::optional<QSURL> fileURLWithItemIdentifier(std::string_view identifier) {
    return findFileURLWithItemIdentifier(identifier).value_or(std::nullopt);
}

Result<std::optional<QSURL>> findFileURLWithItemIdentifier(std::string_view identifier) {
    const auto storage = storageURL();
    if (identifier == QSFileProviderRootContainerItemIdentifier) return storage;
    const auto pieces = 1 + std::ranges::count(identifier, '=');
    if (pieces != 2) {
        logRaw(LogLevel::Error, "invalid identifier; identifier should have 2 components, not " +
                                    std::to_string(pieces));
        return std::nullopt;
    }
    const auto object = ObjectNumber::parse(identifier);
    if (!object) {
        logRaw(LogLevel::Error, "invalid host for identifier " + quoted(identifier));
        return std::nullopt;
    }
    const auto device = deviceIDWithError(storage);
    if (!device) {
        logUnknownDevice(storage);
        return std::unexpected(device.error());
    }
    if (object->kind == ObjectNumber::Kind::File) return findFileURL(object->number, *device);
    const auto fileID = fileIDForDocumentID(object->number, *device, QGLibraryResolveDocumentId2);
    if (!fileID) return std::nullopt;
    return findFileURL(*fileID, *device);
}

std::optional<QSURL> fileURLWithFileIdentifier(std::uint64_t fileID) {
    const auto storage = storageURL();
    const auto device = deviceID(storage);
    if (device == 0) {
        logUnknownDevice(storage);
        return std::nullopt;
    }
    return fileURLWithFileIdentifier(fileID, device);
}

std::optional<QSURL> fileURLWithFileIdentifier(std::uint64_t fileID,
                                               std::uint32_t deviceIdentifier) {
    return findFileURL(fileID, deviceIdentifier).value_or(std::nullopt);
}

Result<std::uint32_t> deviceIDWithError(const QSURL& url) {
    const auto device = Platform::current().files().deviceOf(url);
    if (!device) {
        errno = static_cast<int>(device.error().code);
        return std::unexpected(errorWithPOSIXCode(errno));
    }
    return *device;
}

std::uint32_t deviceID(const QSURL& url) {
    return deviceIDWithError(url).value_or(0);
}

std::optional<std::uint64_t> fileIDForDocumentID(std::uint64_t documentID, std::uint32_t device,
                                                 const DocumentIDResolver& resolve) {
    constexpr int retries = 5;
    auto fileID = resolve(documentID, device);
    const auto number = [&] {
        return quoted(std::to_string(static_cast<std::int64_t>(documentID)));
    };
    for (int attempt = 0; fileID == 0 && attempt < retries; ++attempt) {
        const int reason = errno;
        if (reason != EAGAIN && reason != EBUSY && reason != ESTALE) {
            logRaw(LogLevel::Error, "can't resolve doc ID " + number() + "; " + errnoText(reason));
            return std::nullopt;
        }
        logHandle().write(LogLevel::Debug, [&] {
            return "doc ID resolution failed with errno(" + std::to_string(reason) +
                   "), let's try again after resting";
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        fileID = resolve(documentID, device);
    }
    if (fileID != 0) return fileID;
    logHandle().write(LogLevel::Debug,
                      [&] { return "can't resolve doc ID " + number() + " after five attempts"; });
    return std::nullopt;
}

}  // namespace tidewell
