#include "tidewell/items/LocalItem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <sstream>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/foundation/fatalError.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/UserMetadata.h"

namespace tidewell {

namespace {

const TypeRegistry& types() {
    return Platform::current().types();
}

/// The beginning of what the messages of refused items say in parentheses.
std::string identifiersText(const std::string& item, const std::string& parent) {
    return "(itemIdentifier: " + item + ", parentItemIdentifier: " + parent;
}

}  // namespace

namespace {
struct Buildable final : LocalItem {};
}  // namespace

std::shared_ptr<LocalItem> LocalItem::initWithURL(
    const QSURL& url, const Custom& custom, bool hasBeaconDomainIdentifier,
    const std::optional<std::string>& bundleIdentifier) {
    const std::shared_ptr<LocalItem> item = std::make_shared<Buildable>();
    const auto isBuilt = item->build(url, custom, hasBeaconDomainIdentifier, bundleIdentifier);
    return isBuilt.value_or(false) ? item : nullptr;
}

Result<std::shared_ptr<LocalItem>> LocalItem::findAtURL(const QSURL& url, const Custom& custom) {
    const std::shared_ptr<LocalItem> item = std::make_shared<Buildable>();
    const auto isBuilt = item->build(url, custom, true, {});
    if (!isBuilt) return std::unexpected(isBuilt.error());
    return *isBuilt ? item : nullptr;
}

std::shared_ptr<LocalItem> LocalItem::initWithFileIdentifier(std::uint64_t fileID) {
    const auto url = fileURLWithFileIdentifier(fileID);
    return url ? initWithURL(*url) : nullptr;
}

Result<bool> LocalItem::build(const QSURL& url, const Custom& custom,
                              bool hasBeaconDomainIdentifier,
                              const std::optional<std::string>& bundleIdentifier) {
    if (auto identified = buildIdentity(url, custom); !identified.value_or(false)) {
        return identified;
    }
    readSizeAndDates(url);
    readCapabilities(url);
    versionIdentifier_ = dataResource(url, QSResourceKey::ContentModificationDate);
    readUserMetadata(url);
    readStatus(url);
    constexpr std::string_view documentPrefix = "did=";
    if (_itemIdentifier.starts_with(documentPrefix)) {
        std::int64_t number = 0;
        const char* end = _itemIdentifier.data() + _itemIdentifier.size();
        const auto parsed =
            std::from_chars(_itemIdentifier.data() + documentPrefix.size(), end, number);
        if (parsed.ec == std::errc() && parsed.ptr == end) docID_ = number;
    }
    fileURL_ = url;
    const auto bundle = hasBeaconDomainIdentifier ? proxyWithContaining(url) : nullptr;
    if (bundle) {
        qp_beaconDomainIdentifier_ = bundle->bundleIdentifier;
        qp_appContainerBundleIdentifier_ = bundle->bundleIdentifier;
    } else {
        qp_appContainerBundleIdentifier_ = bundleIdentifier;
    }
    return true;
}

Result<bool> LocalItem::buildIdentity(const QSURL& url, const Custom& custom) {
    using Identifier = Result<std::optional<std::string>>;
    auto identifier = custom.itemID ? Identifier(custom.itemID) : findItemIdentifier(url);
    if (!identifier || !*identifier) {
        logDebug("can't create an item without an ID");
        if (!identifier) return std::unexpected(std::move(identifier.error()));
        return false;
    }
    _itemIdentifier = std::move(**identifier);
    if (_itemIdentifier == QSFileProviderRootContainerItemIdentifier) {
        _parentItemIdentifier = _itemIdentifier;
    } else {
        auto parent =
            custom.parentItemID ? Identifier(custom.parentItemID) : findParentIdentifier(url);
        if (!parent || !*parent) {
            logError("can't create an item without a parent ID (itemIdentifier: " +
                     _itemIdentifier + ")");
            if (!parent) return std::unexpected(std::move(parent.error()));
            return false;
        }
        _parentItemIdentifier = std::move(**parent);
        isTrashed_ = isInTrash(url.path());
    }
    auto filename = custom.filename ? custom.filename : stringResource(url, QSResourceKey::Name);
    if (!filename) {
        logError("can't create an item without a filename " +
                 identifiersText(_itemIdentifier, _parentItemIdentifier) + ")");
        return false;
    }
    filename_ = std::move(*filename);
    auto type = stringResource(url, QSResourceKey::TypeIdentifier);
    if (!type) {
        logError("can't create an item without a type identifier " +
                 identifiersText(_itemIdentifier, _parentItemIdentifier) +
                 ", filename: " + filename_ + ")");
        return false;
    }
    typeIdentifier_ = std::move(*type);
    if (isInboxOfLibrary()) {
        logDebug("can't create an item for the \"Inbox\" directory");
        return false;
    }
    return true;
}

bool LocalItem::isInboxOfLibrary() const {
    return filename_ == inboxName && isFolder() &&
           (_parentItemIdentifier == QSFileProviderRootContainerItemIdentifier ||
            isAppLibraryIdentifier(_parentItemIdentifier));
}

void LocalItem::readSizeAndDates(const QSURL& url) {
    if (isPackage()) {
        if (typeIdentifier_.starts_with("com.quenby.quire") ||
            typeIdentifier_.starts_with("com.quenby.lutebox")) {
            if (const auto size = qp_directorySizeWithError(url)) documentSize_ = *size;
        }
    } else if (!isFolder()) {
        documentSize_ = numberResource(url, QSResourceKey::FileSize);
    }
    creationDate_ = dateResource(url, QSResourceKey::CreationDate);
    contentModificationDate_ = dateResource(url, QSResourceKey::ContentModificationDate);
}

void LocalItem::readCapabilities(const QSURL& url) {
    capabilities_ = QSFileProviderItemCapabilitiesAllowsReading;
    if (_itemIdentifier == QSFileProviderRootContainerItemIdentifier) return;
    if (isFolder()) capabilities_ |= QSFileProviderItemCapabilitiesAllowsContentEnumerating;
    if (booleanResource(url, QSResourceKey::IsWritable) != true) return;
    capabilities_ |= isFolder() ? QSFileProviderItemCapabilitiesAllowsAddingSubItems
                                : QSFileProviderItemCapabilitiesAllowsWriting;
    if (isAppLibraryIdentifier(_itemIdentifier)) return;
    capabilities_ |= QSFileProviderItemCapabilitiesAllowsReparenting |
                     QSFileProviderItemCapabilitiesAllowsRenaming |
                     QSFileProviderItemCapabilitiesAllowsTrashing |
                     QSFileProviderItemCapabilitiesAllowsDeleting;
}

void LocalItem::readUserMetadata(const QSURL& url) {
    if (!isAppLibraryIdentifier(_itemIdentifier)) lastUsedDate_ = lastUsedDateOf(url);
    tagData_ = tagDataOf(url);
    favoriteRank_ = favoriteRankOf(url);
}

void LocalItem::readStatus(const QSURL& url) {
    const auto status = statusOfURL(url);
    if (!status) {
        const auto message = [&] {
            return "can't find fileID for item " + quoted(url.path()) + "; " +
                   status.error().description();
        };
        if (status.error().code == ENOENT) {
            logDebug(message);
        } else {
            logError(message);
        }
        return;
    }
    fileID_ = static_cast<std::int64_t>(status->inode);
    if (!isFolder()) return;
    if (status->linkCount < 2 || status->linkCount - 2 > UINT16_MAX) {
        fatalError("a folder's child count does not fit 16 bits");
    }
    childItemCount_ = static_cast<std::uint16_t>(status->linkCount - 2);
}

bool LocalItem::isFolder() const {
    return typeIdentifier_ == folderTypeIdentifier;
}

bool LocalItem::isPackage() const {
    return types().conforms(typeIdentifier_, packageTypeIdentifier);
}

std::shared_ptr<LocalAppLibraryItem> LocalItem::fetchAppLibraryItem() const {
    const auto bundle = fileURL_ ? proxyWithContaining(*fileURL_) : nullptr;
    return bundle ? LocalAppLibraryItem::initFrom(*bundle) : nullptr;
}

std::optional<QSURL> LocalItem::putBackURL() const {
    const std::scoped_lock lock(putBackMutex_);
    if (hasPutBackURL_) return putBackURL_;
    hasPutBackURL_ = true;
    const auto root = fileURL_ ? libraryRootOf(*fileURL_) : std::nullopt;
    // Where an item of the storage was is never recorded: what it has is of an earlier time, when
    // it was an application's.
    const auto storage = QSFileProviderManager::defaultManager().documentStorageURL();
    if (!root || *root == storage) return std::nullopt;
    const auto path = putBackPathOf(*fileURL_, description());
    if (!path) return std::nullopt;
    const auto former = QSURL::fileURLWithPath(root->path() + "/" + *path);
    const auto components = former.pathComponents();
    if (former == *root || path->find('\0') != std::string::npos ||
        std::ranges::find(components, "..") != components.end()) {
        logError("couldn't compute putback url");
        return std::nullopt;
    }
    putBackURL_ = former.URLByDeletingLastPathComponent();
    return putBackURL_;
}

void LocalItem::setPutBackURL(std::optional<QSURL> url) {
    const std::scoped_lock lock(putBackMutex_);
    hasPutBackURL_ = true;
    putBackURL_ = std::move(url);
}

std::string LocalItem::description() const {
    std::ostringstream text;
    text << '<' << className() << ':' << static_cast<const void*>(this) << ' ' << _itemIdentifier
         << " name:" << quoted(filename_) << " parent:"
         << (_parentItemIdentifier == QSFileProviderRootContainerItemIdentifier
                 ? std::string("root")
                 : _parentItemIdentifier)
         << " type:" << typeIdentifier_;
    if (isTrashed_) text << " trashed";
    if (favoriteRank_) text << " favorite:" << *favoriteRank_;
    text << '>';
    return text.str();
}

std::string_view LocalItem::xattrLastUsedDateName() {
    return lastUsedDateAttribute;
}
std::string_view LocalItem::xattrTagDataName() {
    return tagDataAttribute;
}
std::string_view LocalItem::xattrFavoriteRankName() {
    return favoriteRankAttribute;
}
std::string_view LocalItem::xattrTrashDateName() {
    return "com.quenby.trash.time#PS";
}
std::string_view LocalItem::xattrTrashPutBackName() {
    return "com.quenby.trash.putback#PS";
}

std::span<const QSResourceKey> LocalItem::urlKeys() {
    static constexpr std::array keys = {QSResourceKey::ParentDirectoryURL,
                                        QSResourceKey::Name,
                                        QSResourceKey::LocalizedName,
                                        QSResourceKey::TypeIdentifier,
                                        QSResourceKey::FileSize,
                                        QSResourceKey::CreationDate,
                                        QSResourceKey::ContentModificationDate,
                                        QSResourceKey::IsReadable,
                                        QSResourceKey::IsWritable};
    return keys;
}

}  // namespace tidewell
