#include "host/DocumentService.h"

#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "host/errors.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderManager.h"

namespace host {

using platform::Result;

/// Outlives the service as long as a signal is on its way.
struct DocumentService::Signals {
    std::mutex mutex;
    std::set<std::string> containers;  // guarded by mutex
};

DocumentService::DocumentService(const ExtensionFactory& makeExtension)
    : DocumentService(makeExtension, Options{}) {}

DocumentService::DocumentService(const ExtensionFactory& makeExtension, Options options)
    : wait_(options.wait
                ? std::move(options.wait)
                : [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); }),
      manager_(options.manager ? *options.manager : platform::Platform::current().manager()),
      signals_(std::make_shared<Signals>()) {
    // Connected first: an extension signals while it is being made.
    manager_.setSignalHandler(
        [signals = signals_](const platform::QSFileProviderItemIdentifier& container,
                             platform::QSFileProviderManager::CompletionHandler completion) {
            {
                const std::scoped_lock lock(signals->mutex);
                signals->containers.insert(container);
            }
            if (completion) completion(std::nullopt);
        });
    session_ = std::make_unique<ExtensionSession>(
        makeExtension, options.paths ? std::move(*options.paths) : NativePaths::ofPlatform(),
        options.pageDeadline);
}

DocumentService::~DocumentService() {
    manager_.setSignalHandler({});
}

Result<ItemRecord> DocumentService::item(const std::string& identifier) const {
    return session_->item(identifier);
}

Result<std::string> DocumentService::resolve(std::string_view path) const {
    return session_->identifierForPath(path);
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
    for (const auto& child : children) {
        if (!handler.item(child, depth, &child == &children.back())) return false;
        if (!child.isFolder()) continue;
        const auto below = listLevel(child.itemIdentifier, depth + 1, handler);
        if (below && !*below) return false;
        // One that went away meanwhile is no failure: it was there when its folder was read.
        if (!below && !meansNoSuchItem(below.error())) handler.failed(child, below.error());
    }
    return true;
}

std::vector<std::string> DocumentService::takeSignalledContainers() {
    const std::scoped_lock lock(signals_->mutex);
    const auto taken = std::exchange(signals_->containers, {});
    return {taken.begin(), taken.end()};
}

}  // namespace host
