#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/session/ItemTarget.h"
#include "host/session/Page.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSURL.h"

namespace platform {
class QSFileProviderEnumerator;
class QSFileProviderExtension;
}  // namespace platform

namespace host {

using ExtensionFactory = std::function<std::shared_ptr<platform::QSFileProviderExtension>()>;

/// How presented URLs and the paths that people know become each other. Text only, any thread.
struct NativePaths {
    std::function<std::string(const platform::QSURL&)> nativePath;
    std::function<platform::QSURL(std::string_view)> URLForNativePath;
    /// Why an object that was not found may exist all the same: then that is the error.
    std::function<std::optional<platform::QSError>()> missReason = {};

    /// Those of the installed platform.
    [[nodiscard]] static NativePaths ofPlatform();
};

/// One extension and what the service says to it. Everything that goes in and out is a plain value,
/// so that the session can move into the extension's process and leave a proxy of this shape.
///
/// Any thread, several calls at once; calls block for the extension. Paths in errors are native.
class ExtensionSession {
  public:
    /// Makes the extension, which must not be null.
    ExtensionSession(const ExtensionFactory& makeExtension, NativePaths paths,
                     std::chrono::milliseconds pageDeadline);
    /// Invalidates every enumerator, then lets the extension go.
    ~ExtensionSession();

    [[nodiscard]] platform::Result<ItemRecord> item(const std::string& identifier) const;

    /// The identifier of what is at an absolute native path. ENOENT where nothing is there or the
    /// extension has no item for it.
    [[nodiscard]] platform::Result<std::string> identifierForPath(std::string_view path) const;

    /// The same with the entry; without one if the folder around it is no item.
    [[nodiscard]] platform::Result<ItemTarget> targetForPath(std::string_view path) const;

    [[nodiscard]] platform::Result<std::string> pathForIdentifier(
        const std::string& identifier) const;

    /// The containers of what was trashed.
    [[nodiscard]] platform::Result<std::vector<std::string>> trashContainers() const;

    /// The present position of the container; ENODATA where the extension has none to give.
    [[nodiscard]] platform::Result<Anchor> anchor(const std::string& container) const;

    /// What happened after the anchor, one page of it or nothing but an error. With a new
    /// enumerator, as an initial page.
    [[nodiscard]] platform::Result<ChangePage> changes(const std::string& container,
                                                       const Anchor& since) const;

    /// Lets the extension signal changes of the container until the handle goes, which must not
    /// outlive the session.
    [[nodiscard]] platform::Result<std::shared_ptr<void>> startWatch(
        const std::string& container) const;

    /// For calls that have no wrapper here; lives as long as the session.
    [[nodiscard]] platform::QSFileProviderExtension& extension() const { return *extension_; }
    [[nodiscard]] const NativePaths& paths() const { return paths_; }
    [[nodiscard]] ItemRecord record(const platform::QSFileProviderItem& item) const;
    [[nodiscard]] platform::QSError withNativePath(platform::QSError error) const;
    /// A request that the extension answers with an item: how to make it, given where the answer
    /// goes.
    using ItemRequest =
        std::function<void(platform::QSFileProviderExtension&,
                           std::move_only_function<void(platform::Result<platform::ItemRef>)>)>;
    /// Makes the request and waits for its item; ETIMEDOUT when the deadline passes.
    [[nodiscard]] platform::Result<ItemRecord> itemAfter(const ItemRequest& request) const;

    /// An enumerator that is kept; must not outlive the session.
    struct Lease;
    [[nodiscard]] platform::Result<std::shared_ptr<Lease>> newLease(
        const std::string& container) const;
    /// As changes(), with that enumerator.
    [[nodiscard]] platform::Result<Anchor> anchor(const Lease& lease) const;
    [[nodiscard]] platform::Result<ChangePage> changes(const Lease& lease,
                                                       const Anchor& since) const;

    /// One page, waited for up to the deadline (then ETIMEDOUT; so are anchors and changes), also
    /// where the extension answers on other threads. An initial page begins with a new enumerator,
    /// so that a folder that was renamed is found at its new place; a token goes to the enumerator
    /// whose page it ended, where that is kept, and holds in another process too. Invalid parameter
    /// for a token that another container's page ended with.
    [[nodiscard]] Page page(const std::string& container, const PageStart& start);

  private:
    /// An enumerator with the page token that its latest page ended with; empty where that was the
    /// last page.
    struct Kept {
        std::string container;
        std::shared_ptr<Lease> lease;
        std::optional<PageToken> next;
    };

    /// The one whose page ended with the token, or another of the container; null where none is
    /// kept.
    [[nodiscard]] std::shared_ptr<Lease> keptLease(const std::string& container,
                                                   const PageToken& token);
    void keep(const std::string& container, const std::shared_ptr<Lease>& lease,
              const std::optional<PageToken>& next);
    [[nodiscard]] std::vector<ItemRecord> records(
        const std::vector<platform::ItemRef>& items) const;

    // Constant after construction.
    NativePaths paths_;
    std::chrono::milliseconds pageDeadline_;
    std::shared_ptr<platform::QSFileProviderExtension> extension_;

    std::mutex mutex_;
    std::list<Kept> kept_;  // guarded; latest first
};

}  // namespace host
