#include "host/local/LocalSession.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "host/local/Answer.h"
#include "host/local/EntryChoice.h"
#include "host/local/LocalFollowing.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"
#include "platform/fileprovider/QSFileProviderManager.h"

namespace host {

using platform::Result;

namespace {

constexpr std::chrono::milliseconds thumbnailDeadline = std::chrono::seconds(10);

struct None {};

/// What an extension's completion handler without a value is to be.
template <typename Parts>
auto finishing(const std::shared_ptr<Answer<Parts, None>>& answer) {
    return [answer](std::optional<platform::QSError> error) {
        answer->finish(error ? Result<None>(std::unexpected(std::move(*error))) : None{});
    };
}

}  // namespace

LocalSession::LocalSession(const ExtensionFactory& makeExtension)
    : LocalSession(makeExtension, Options{}) {}

LocalSession::LocalSession(const ExtensionFactory& makeExtension, Options options)
    : manager_(options.manager ? *options.manager : platform::Platform::current().manager()),
      volume_(options.volume ? std::move(*options.volume) : VolumeAccess::ofPlatform()),
      applications_(std::move(options.applications)),
      signals_(std::make_shared<SignalBoard>()),
      extension_([&] {
          // Connected first: an extension signals while it is being made. The board outlives the
          // session as long as a signal is on its way.
          manager_.setSignalHandler(
              [signals = signals_](const platform::QSFileProviderItemIdentifier& container,
                                   platform::QSFileProviderManager::CompletionHandler completion) {
                  signals->signal(container);
                  if (completion) completion(std::nullopt);
              });
          return std::make_unique<ExtensionSession>(
              makeExtension, options.paths ? std::move(*options.paths) : NativePaths::ofPlatform(),
              options.pageDeadline);
      }()),
      mutations_(*extension_, volume_, options.stallDeadline) {}

LocalSession::~LocalSession() {
    manager_.setSignalHandler({});
    manager_.setSearchableItems({});
}

Result<ItemRecord> LocalSession::item(const ItemTarget& target) const {
    const auto choice = EntryChoice::ofEntry(*extension_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    return extension_->item(target.itemIdentifier);
}

Result<std::string> LocalSession::resolve(std::string_view path) const {
    return extension_->identifierForPath(path);
}

Result<ItemTarget> LocalSession::resolveEntry(std::string_view path) const {
    return extension_->targetForPath(path);
}

Result<std::string> LocalSession::path(const std::string& identifier) const {
    return extension_->pathForIdentifier(identifier);
}

Page LocalSession::page(const std::string& container, const PageStart& start) {
    return extension_->page(container, start);
}

Result<std::vector<std::string>> LocalSession::trashContainers() const {
    return extension_->trashContainers();
}

Result<Anchor> LocalSession::anchor(const std::string& container) const {
    return extension_->anchor(container);
}

Result<ChangePage> LocalSession::changes(const std::string& container, const Anchor& since) const {
    return extension_->changes(container, since);
}

Result<std::unique_ptr<Following>> LocalSession::follow(const std::string& container) {
    auto everywhere = watchEverywhere();
    if (!everywhere) return std::unexpected(std::move(everywhere.error()));
    return LocalFollowing::begin(*extension_, signals_, container, std::move(*everywhere));
}

/// One for all who follow something; of two that are started at a time one goes again.
Result<std::shared_ptr<void>> LocalSession::watchEverywhere() {
    const auto shared = [this](std::shared_ptr<void> started) {
        const std::scoped_lock lock(mutex_);
        if (auto present = everywhere_.lock()) return present;
        everywhere_ = started;
        return started;
    };
    if (auto present = shared(nullptr)) return present;
    auto started = extension_->startWatch(
        std::string(platform::QSFileProviderAllDirectoriesContainerItemIdentifier));
    if (!started) return started;
    return shared(*started);
}

Result<ItemRecord> LocalSession::itemAfter(const ItemTarget& target,
                                           const ExtensionSession::ItemRequest& request) const {
    const auto choice = EntryChoice::ofEntry(*extension_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    return extension_->itemAfter(request);
}

Result<ItemRecord> LocalSession::setLastUsedDate(
    const ItemTarget& target, const std::optional<platform::QSDate>& date) const {
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setLastUsedDate(date, target.itemIdentifier, std::move(completion));
    });
}

Result<ItemRecord> LocalSession::setTags(const ItemTarget& target,
                                         const std::vector<std::string>& labels) const {
    std::vector<platform::QPTag> tags;
    tags.reserve(labels.size());
    for (const auto& label : labels) tags.push_back({label, 0});
    const auto data = platform::QPGetTagsDataForTags(tags);
    // An extension takes what it cannot read for no tags at all.
    if (!platform::QPGetTagsFromTagsData(data)) {
        auto error = platform::errorFromErrno(E2BIG);
        error.userInfo.emplace(platform::QSDescriptionErrorKey, "too many tags for one item");
        return std::unexpected(std::move(error));
    }
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setTagData(data, target.itemIdentifier, std::move(completion));
    });
}

Result<ItemRecord> LocalSession::setFavoriteRank(const ItemTarget& target,
                                                 std::optional<std::uint64_t> rank) const {
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setFavoriteRank(rank, target.itemIdentifier, std::move(completion));
    });
}

Result<std::vector<Thumbnail>> LocalSession::thumbnails(
    const std::vector<std::string>& identifiers) const {
    const auto answer = std::make_shared<Answer<std::vector<Thumbnail>, None>>();
    const platform::QSFileProviderExtension::PerThumbnailCompletionHandlerWithType collect =
        [answer](const std::string& identifier, const std::optional<platform::QSData>& data,
                 const std::optional<std::string>& type,
                 const std::optional<platform::QSError>& /*error*/) {
            answer->collect([&](auto& all) { all.push_back({identifier, data, type}); });
        };
    extension_->extension().fetchThumbnailsForItemIdentifiers(identifiers, {}, collect,
                                                              finishing(answer));
    const auto count = static_cast<int>(identifiers.size());
    auto [thumbnails, end] = answer->wait(thumbnailDeadline * (count + 1));
    if (!end) return std::unexpected(extension_->withNativePath(std::move(end.error())));
    return std::move(thumbnails);
}

Result<platform::FileDescriptor> LocalSession::open(const ItemTarget& target) const {
    const auto& identifier = target.itemIdentifier;
    const auto choice = EntryChoice::ofEntry(*extension_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    auto& extension = extension_->extension();
    const auto url = extension.URLForItemWithPersistentIdentifier(identifier);
    if (!url) {
        return std::unexpected(extension_->withNativePath(
            platform::fileProviderErrorForNonExistentItemWithIdentifier(identifier)));
    }
    const auto answer = std::make_shared<Answer<None, None>>();
    extension.startProvidingItemAtURL(*url, finishing(answer));
    auto provided = answer->wait(thumbnailDeadline).second;
    if (!provided) return std::unexpected(extension_->withNativePath(std::move(provided.error())));
    // What is open stays readable.
    auto file = volume_.open(*url);
    extension.stopProvidingItemAtURL(*url);
    if (!file) return file;
    struct stat status {};
    const auto failed = [&](int code) {
        return std::unexpected(
            platform::errorFromErrno(code, extension_->paths().nativePath(*url)));
    };
    if (fstat(file->get(), &status) != 0) return failed(errno);
    if (!S_ISREG(status.st_mode)) return failed(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return file;
}

Result<void> LocalSession::waitUntilSettled() const {
    return volume_.waitUntilSettled();
}

Result<Health> LocalSession::health() const {
    return volume_.health();
}

Result<AgeLimit> LocalSession::limitForAge(std::chrono::seconds age) const {
    return volume_.limitForAge(age);
}

Result<std::vector<AppRecord>> LocalSession::applications() const {
    return applications_ ? applications_->installed() : std::vector<AppRecord>();
}

Result<void> LocalSession::setOverride(const std::string& identifier, Override decision) {
    if (!applications_) return std::unexpected(platform::errorFromErrno(ENOENT));
    auto set = applications_->setOverride(identifier, decision);
    if (set) applications_->refresh();
    return set;
}

Result<void> LocalSession::refreshApplications() {
    if (applications_) applications_->refresh();
    return {};
}

void LocalSession::setDomainRemoval(DomainRemoval removal) {
    if (!removal) return manager_.setSearchableItems({});
    manager_.setSearchableItems(
        [removal = std::move(removal)](
            const std::vector<std::string>& domains,
            platform::QSFileProviderManager::DeletionHandler completionHandler) {
            completionHandler(removal(domains));
        });
}

}  // namespace host
