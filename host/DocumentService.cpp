#include "host/DocumentService.h"

#include <cerrno>
#include <thread>
#include <utility>

#include "host/EntryChoice.h"
#include "host/errors.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderManager.h"

namespace host {

using platform::Result;

namespace {

/// Page after page, until nothing more is coming or the handler ends it.
template <typename NextPage>
Result<Anchor> changesFrom(const NextPage& nextPage, const Anchor& since,
                           const DocumentService::ChangeHandler& handler) {
    for (auto reached = since;;) {
        auto page = nextPage(reached);
        if (!page) return std::unexpected(std::move(page.error()));
        if (page->moreComing && page->anchor == reached) {
            auto error = platform::errorFromErrno(EPROTO);
            error.userInfo.emplace(platform::QSDescriptionErrorKey,
                                   "the extension goes on telling changes without getting further");
            return std::unexpected(std::move(error));
        }
        reached = page->anchor;
        if (!handler(*page) || !page->moreComing) return reached;
    }
}

}  // namespace

DocumentService::DocumentService(const ExtensionFactory& makeExtension)
    : DocumentService(makeExtension, Options{}) {}

DocumentService::DocumentService(const ExtensionFactory& makeExtension, Options options)
    : wait_(options.wait
                ? std::move(options.wait)
                : [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); }),
      manager_(options.manager ? *options.manager : platform::Platform::current().manager()),
      volume_(options.volume ? std::move(*options.volume) : VolumeAccess::ofPlatform()),
      signals_(std::make_shared<SignalBoard>()),
      mutations_(session_, volume_, options.stallDeadline) {
    // Connected first: an extension signals while it is being made. The board outlives the service
    // as long as a signal is on its way.
    manager_.setSignalHandler(
        [signals = signals_](const platform::QSFileProviderItemIdentifier& container,
                             platform::QSFileProviderManager::CompletionHandler completion) {
            signals->signal(container);
            if (completion) completion(std::nullopt);
        });
    session_ = std::make_unique<ExtensionSession>(
        makeExtension, options.paths ? std::move(*options.paths) : NativePaths::ofPlatform(),
        options.pageDeadline);
    if (options.trashAge) {
        trashKeeper_ = std::make_unique<TrashKeeper>(
            [this, age = *options.trashAge] { return volume_.limitForAge(age).safe; },
            [this](const platform::QSDate& date) {
                if (mutations_.dateArrivalsInTrash()) (void)mutations_.emptyTrash(date);
            });
    }
}

DocumentService::~DocumentService() {
    trashKeeper_.reset();
    manager_.setSignalHandler({});
}

Result<ItemRecord> DocumentService::item(const ItemTarget& target) const {
    const auto choice = EntryChoice::ofEntry(*session_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    return session_->item(target.itemIdentifier);
}

Result<std::string> DocumentService::resolve(std::string_view path) const {
    return session_->identifierForPath(path);
}

Result<ItemTarget> DocumentService::resolveEntry(std::string_view path) const {
    return session_->targetForPath(path);
}

Result<std::string> DocumentService::path(const std::string& identifier) const {
    return session_->pathForIdentifier(identifier);
}

Page DocumentService::onePage(const std::string& container, const PageStart& start) {
    return session_->page(container, start);
}

Result<void> DocumentService::list(const std::string& container, Order order,
                                   const ItemHandler& handler) {
    return Listing(*session_, wait_, handler).run(container, order);
}

Result<void> DocumentService::listTree(const std::string& container, const TreeHandler& handler) {
    const auto listed = listLevel(container, 0, handler);
    if (!listed) return std::unexpected(listed.error());
    return {};
}

/// False where the handler ended it. Folders nest no deeper than a path can be long.
Result<bool> DocumentService::listLevel(const std::string& container, std::size_t depth,
                                        const TreeHandler& handler) {
    std::vector<ItemRecord> children;
    auto listed = list(container, Order::ByName, [&](const ItemRecord& item) {
        children.push_back(item);
        return true;
    });
    if (!listed) return std::unexpected(std::move(listed.error()));
    if (handler.sort) handler.sort(children);
    for (const auto& child : children) {
        if (!handler.item(child, depth, &child == &children.back())) return false;
        if (!child.isFolder()) continue;
        const auto below = listLevel(child.itemIdentifier, depth + 1, handler);
        if (below && !*below) return false;
        // One that was removed since its folder was read is no failure.
        if (!below && !meansNoSuchItem(below.error())) handler.failed(child, below.error());
    }
    return true;
}

Result<Anchor> DocumentService::anchor(const std::string& container) const {
    return session_->anchor(container);
}

Result<ChangePage> DocumentService::onePageOfChanges(const std::string& container,
                                                     const Anchor& since) const {
    return session_->changes(container, since);
}

Result<Anchor> DocumentService::changes(const std::string& container, const Anchor& since,
                                        const ChangeHandler& handler) const {
    return changesFrom([&](const Anchor& anchor) { return session_->changes(container, anchor); },
                       since, handler);
}

Result<Anchor> DocumentService::changes(const Following& following, const Anchor& since,
                                        const ChangeHandler& handler) const {
    return changesFrom([&](const Anchor& anchor) { return following.changes(anchor); }, since,
                       handler);
}

Result<std::unique_ptr<Following>> DocumentService::follow(const std::string& container) {
    auto everywhere = watchEverywhere();
    if (!everywhere) return std::unexpected(std::move(everywhere.error()));
    return Following::begin(*session_, signals_, container, std::move(*everywhere));
}

/// One for all who follow something; of two that are started at a time one goes again.
Result<std::shared_ptr<void>> DocumentService::watchEverywhere() {
    const auto shared = [this](std::shared_ptr<void> started) {
        const std::scoped_lock lock(mutex_);
        if (auto present = everywhere_.lock()) return present;
        everywhere_ = started;
        return started;
    };
    if (auto present = shared(nullptr)) return present;
    auto started = session_->startWatch(
        std::string(platform::QSFileProviderAllDirectoriesContainerItemIdentifier));
    if (!started) return started;
    return shared(*started);
}

}  // namespace host
