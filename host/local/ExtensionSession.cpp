#include "host/local/ExtensionSession.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "host/local/Collectors.h"
#include "host/session/errors.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"
#include "platform/foundation/fatalError.h"

namespace host {

using platform::QSError;
using platform::Result;

namespace {

/// A walk over many folders needs one enumerator at a time; this many keep the pages of as many
/// clients cheap to resume.
constexpr std::size_t keptLeases = 32;
/// Listings of one container that wait for their next page. Each may hold folders open.
constexpr std::size_t keptListings = 4;

std::optional<std::vector<std::string>> labels(const std::optional<platform::QSData>& tagData) {
    if (!tagData) return std::nullopt;
    const auto tags = platform::QPGetTagsFromTagsData(*tagData);
    if (!tags) return std::nullopt;
    std::vector<std::string> result;
    result.reserve(tags->size());
    for (const auto& tag : *tags) result.push_back(tag.label);
    return result;
}

/// The error; or, of one that says that there is no such item, why that may not be so.
QSError missOrReason(QSError error, const NativePaths& paths) {
    if (!paths.missReason || !meansNoSuchItem(error)) return error;
    return paths.missReason().value_or(std::move(error));
}

ItemRecord makeRecord(const platform::QSFileProviderItem& item, const NativePaths& paths) {
    ItemRecord record{
        .itemIdentifier = item.itemIdentifier(),
        .parentItemIdentifier = item.parentItemIdentifier(),
        .filename = item.filename(),
        .typeIdentifier = item.typeIdentifier(),
        .documentSize = item.documentSize(),
        .creationDate = item.creationDate(),
        .contentModificationDate = item.contentModificationDate(),
        .childItemCount = item.childItemCount(),
        .capabilities = item.capabilities(),
        .versionIdentifier = item.versionIdentifier(),
        .isTrashed = item.isTrashed(),
        .lastUsedDate = item.lastUsedDate(),
        .tags = labels(item.tagData()),
        .favoriteRank = item.favoriteRank(),
        .fileID = item.fileID(),
        .docID = item.docID(),
        .path = std::nullopt,
        .beaconDomainIdentifier = item.qp_beaconDomainIdentifier(),
        .appContainerBundleIdentifier = item.qp_appContainerBundleIdentifier(),
        .isContainer = item.qp_isContainer(),
    };
    if (const auto url = item.fileURL()) record.path = paths.nativePath(*url);
    return record;
}

std::string_view initialPage(Order order) {
    return order == Order::ByName ? platform::QSFileProviderInitialPageSortedByName
                                  : platform::QSFileProviderInitialPageSortedByDate;
}

/// Stands between the container's identifier and the extension's page token, in those that clients
/// get.
constexpr char endOfContainer = '\0';

/// The extension's own token in that of a client.
Result<platform::QSFileProviderPage> extensionToken(const std::string& container,
                                                    const PageToken& token) {
    const auto text = platform::stringFromData(token);
    const auto end = text.find(endOfContainer);
    if (end == std::string_view::npos) return std::unexpected(platform::syncAnchorExpiredError());
    if (text.substr(0, end) != container) {
        return std::unexpected(platform::QPInvalidParameterError("page", "of another container"));
    }
    return platform::dataFromString(text.substr(end + 1));
}

PageToken clientToken(const std::string& container, const platform::QSFileProviderPage& token) {
    return platform::dataFromString(container + endOfContainer +
                                    std::string(platform::stringFromData(token)));
}

}  // namespace

NativePaths NativePaths::ofPlatform() {
    return {[](const platform::QSURL& url) {
                return platform::Platform::current().files().nativePath(url);
            },
            [](std::string_view path) {
                return platform::Platform::current().files().URLForNativePath(path);
            },
            [] { return platform::Platform::current().volume().writeTrouble(); }};
}

/// Invalidates its enumerator when the last call on it has ended.
struct ExtensionSession::Lease {
    explicit Lease(std::shared_ptr<platform::QSFileProviderEnumerator> leased)
        : enumerator(std::move(leased)) {}
    ~Lease() { enumerator->invalidate(); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    const std::shared_ptr<platform::QSFileProviderEnumerator> enumerator;
};

ExtensionSession::ExtensionSession(const ExtensionFactory& makeExtension, NativePaths paths,
                                   std::chrono::milliseconds pageDeadline)
    : paths_(std::move(paths)), pageDeadline_(pageDeadline), extension_(makeExtension()) {
    if (!extension_) platform::fatalError("the factory made no extension");
}

ExtensionSession::~ExtensionSession() = default;

Result<ItemRecord> ExtensionSession::item(const std::string& identifier) const {
    const auto item = extension_->itemForIdentifier(identifier);
    if (!item) return std::unexpected(withNativePath(item.error()));
    return makeRecord(**item, paths_);
}

ItemRecord ExtensionSession::record(const platform::QSFileProviderItem& item) const {
    return makeRecord(item, paths_);
}

Result<std::string> ExtensionSession::identifierForPath(std::string_view path) const {
    // The extension answers a miss without a reason; the path itself knows a better one.
    const std::string native(path);
    struct stat status {};
    if (lstat(native.c_str(), &status) != 0) {
        return std::unexpected(platform::errorFromErrno(errno, path));
    }
    auto identifier = extension_->persistentIdentifierForItemAtURL(paths_.URLForNativePath(path));
    if (identifier) return std::move(*identifier);
    auto error = platform::errorFromErrno(ENOENT, path);
    error.userInfo.emplace(platform::QSDescriptionErrorKey, "not an item of the document storage");
    return std::unexpected(missOrReason(std::move(error), paths_));
}

Result<ItemTarget> ExtensionSession::targetForPath(std::string_view path) const {
    auto identifier = identifierForPath(path);
    if (!identifier) return std::unexpected(std::move(identifier.error()));
    const auto url = paths_.URLForNativePath(path);
    auto parent =
        extension_->persistentIdentifierForItemAtURL(url.URLByDeletingLastPathComponent());
    if (!parent) return ItemTarget(std::move(*identifier));
    return ItemTarget(std::move(*identifier),
                      {std::move(*parent), std::string(url.lastPathComponent())});
}

Result<std::string> ExtensionSession::pathForIdentifier(const std::string& identifier) const {
    const auto url = extension_->URLForItemWithPersistentIdentifier(identifier);
    if (url) return paths_.nativePath(*url);
    // Why there is none, only the item's error says.
    const auto item = this->item(identifier);
    if (item && item->path) return *item->path;
    if (!item && !meansNoSuchItem(item.error())) return std::unexpected(item.error());
    return std::unexpected(missOrReason(
        platform::fileProviderErrorForNonExistentItemWithIdentifier(identifier), paths_));
}

Result<std::vector<std::string>> ExtensionSession::trashContainers() const {
    auto containers = extension_->trashContainerItemIdentifiers();
    if (!containers) return std::unexpected(withNativePath(std::move(containers.error())));
    return containers;
}

Result<ItemRecord> ExtensionSession::itemAfter(const ItemRequest& request) const {
    struct None {};
    const auto answer = std::make_shared<Answer<None, platform::ItemRef>>();
    request(*extension_,
            [answer](Result<platform::ItemRef> item) { answer->finish(std::move(item)); });
    auto item = answer->wait(pageDeadline_).second;
    if (!item) return std::unexpected(withNativePath(std::move(item.error())));
    return makeRecord(**item, paths_);
}

Page ExtensionSession::page(const std::string& container, const PageStart& start) {
    std::shared_ptr<Lease> lease;
    Result<platform::QSFileProviderPage> from;
    if (const auto* token = std::get_if<PageToken>(&start)) {
        from = extensionToken(container, *token);
        if (!from) return {{}, std::unexpected(std::move(from.error()))};
        lease = keptLease(container, *token);
    } else {
        from = platform::dataFromString(initialPage(std::get<Order>(start)));
    }
    if (!lease) {
        auto made = newLease(container);
        if (!made) return {{}, std::unexpected(std::move(made.error()))};
        lease = std::move(*made);
    }
    const auto collector = std::make_shared<PageCollector>();
    lease->enumerator->enumerateItemsForObserver(collector, *from);
    auto [items, next] = collector->wait(pageDeadline_);

    Page page{records(items), std::move(next)};
    if (!page.next) {
        page.next = std::unexpected(withNativePath(page.next.error()));
        return page;
    }
    if (auto& token = *page.next) token = clientToken(container, *token);
    keep(container, lease, *page.next);
    return page;
}

Result<Anchor> ExtensionSession::anchor(const std::string& container) const {
    const auto lease = newLease(container);
    if (!lease) return std::unexpected(lease.error());
    return anchor(**lease);
}

Result<Anchor> ExtensionSession::anchor(const Lease& lease) const {
    struct Nothing {};
    using Given = std::optional<platform::QSFileProviderSyncAnchor>;
    const auto answer = std::make_shared<Answer<Nothing, Given>>();
    lease.enumerator->currentSyncAnchorWithCompletionHandler(
        [answer](Given anchor) { answer->finish(std::move(anchor)); });
    auto given = answer->wait(pageDeadline_).second;
    if (!given) return std::unexpected(std::move(given.error()));
    if (*given) return std::move(**given);
    auto error = platform::errorFromErrno(ENODATA);
    error.userInfo.emplace(platform::QSDescriptionErrorKey,
                           "the present position in the history cannot be told");
    return std::unexpected(std::move(error));
}

Result<ChangePage> ExtensionSession::changes(const std::string& container,
                                             const Anchor& since) const {
    const auto lease = newLease(container);
    if (!lease) return std::unexpected(lease.error());
    return changes(**lease, since);
}

Result<ChangePage> ExtensionSession::changes(const Lease& lease, const Anchor& since) const {
    const auto collector = std::make_shared<ChangeCollector>();
    lease.enumerator->enumerateChangesForObserver(collector, since);
    auto [changes, end] = collector->wait(pageDeadline_);
    if (!end) return std::unexpected(withNativePath(std::move(end.error())));
    return ChangePage{.updates = records(changes.updates),
                      .deletions = std::move(changes.deletions),
                      .anchor = std::move(end->first),
                      .moreComing = end->second};
}

Result<std::shared_ptr<void>> ExtensionSession::startWatch(const std::string& container) const {
    auto lease = newLease(container);
    if (!lease) return std::unexpected(std::move(lease.error()));
    // An enumerator signals what happens after the first anchor that it was asked for.
    (void)anchor(**lease);
    return *std::move(lease);
}

std::shared_ptr<ExtensionSession::Lease> ExtensionSession::keptLease(const std::string& container,
                                                                     const PageToken& token) {
    const std::scoped_lock lock(mutex_);
    auto found = std::ranges::find_if(
        kept_, [&](const Kept& kept) { return kept.container == container && kept.next == token; });
    if (found == kept_.end()) found = std::ranges::find(kept_, container, &Kept::container);
    return found == kept_.end() ? nullptr : found->lease;
}

Result<std::shared_ptr<ExtensionSession::Lease>> ExtensionSession::newLease(
    const std::string& container) const {
    auto enumerator = extension_->enumeratorForContainerItemIdentifier(container);
    if (!enumerator) return std::unexpected(withNativePath(std::move(enumerator.error())));
    return std::make_shared<Lease>(std::move(*enumerator));
}

void ExtensionSession::keep(const std::string& container, const std::shared_ptr<Lease>& lease,
                            const std::optional<PageToken>& next) {
    std::list<Kept> dropped;  // ended only after the lock
    const std::scoped_lock lock(mutex_);
    std::size_t listings = 0;
    for (auto at = kept_.begin(); at != kept_.end();) {
        const auto present = at++;
        if (present->container != container) continue;
        // Of the listings that have ended only the latest stays, for a page that is asked for
        // again.
        const bool isDone = !present->next || present->lease == lease;
        if (isDone || ++listings == keptListings) {
            dropped.splice(dropped.end(), kept_, present);
        }
    }
    kept_.push_front({container, lease, next});
    if (kept_.size() > keptLeases) {
        dropped.splice(dropped.end(), kept_, std::prev(kept_.end()));
    }
}

std::vector<ItemRecord> ExtensionSession::records(
    const std::vector<platform::ItemRef>& items) const {
    std::vector<ItemRecord> result;
    result.reserve(items.size());
    for (const auto& item : items) result.push_back(makeRecord(*item, paths_));
    return result;
}

QSError ExtensionSession::withNativePath(QSError error) const {
    error = missOrReason(std::move(error), paths_);
    if (const auto path = error.userInfo.find(platform::QSFilePathErrorKey);
        path != error.userInfo.end()) {
        path->second = paths_.nativePath(platform::QSURL::fileURLWithPath(path->second));
    }
    return error;
}

}  // namespace host
