#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/session/AppRecord.h"
#include "host/session/Following.h"
#include "host/session/Health.h"
#include "host/session/ItemRecord.h"
#include "host/session/ItemTarget.h"
#include "host/session/Mutations.h"
#include "host/session/Page.h"
#include "host/session/Thumbnail.h"
#include "platform/files/FileDescriptor.h"

namespace host {

/// Everything that can be asked of one extension and of the platform that it runs on. All that goes
/// in and out is a plain value, so the extension can be in this process or in another one.
///
/// Any thread, several calls at once; each call blocks until it has its answer. Identifiers, tokens
/// and anchors are opaque. Paths, also those in errors, are native.
class Session {
  public:
    virtual ~Session() = default;

    /// Of an item with several names, as it is under the target's entry.
    [[nodiscard]] virtual platform::Result<ItemRecord> item(const ItemTarget& target) const = 0;

    /// The identifier of what is at an absolute native path; a final symbolic link is an item of
    /// its own. The error satisfies meansNoSuchItem where there is no item at it.
    [[nodiscard]] virtual platform::Result<std::string> resolve(std::string_view path) const = 0;
    /// The same, with the entry that the path names; none for the root of the storage or a library.
    [[nodiscard]] virtual platform::Result<ItemTarget> resolveEntry(
        std::string_view path) const = 0;
    /// The native path of an item, as it is now.
    [[nodiscard]] virtual platform::Result<std::string> path(
        const std::string& identifier) const = 0;

    /// One page of a listing. An initial page begins anew, so that a folder that was renamed is
    /// found at its new place. A token holds also after the session has ended; a refused one is the
    /// caller's to deal with. Invalid parameter for a token of another container.
    [[nodiscard]] virtual Page page(const std::string& container, const PageStart& start) = 0;
    /// The containers of what was trashed.
    [[nodiscard]] virtual platform::Result<std::vector<std::string>> trashContainers() const = 0;

    /// The present position in what happens to a container; ENODATA where there is none.
    [[nodiscard]] virtual platform::Result<Anchor> anchor(const std::string& container) const = 0;
    /// What happened to the container after the anchor, one page of it. The error satisfies
    /// meansExpired where the anchor is no longer good: take a new one and list again.
    [[nodiscard]] virtual platform::Result<ChangePage> changes(const std::string& container,
                                                               const Anchor& since) const = 0;
    /// Follows a container. Take the anchor, or the changes since one, after this call, and nothing
    /// falls in between.
    [[nodiscard]] virtual platform::Result<std::unique_ptr<Following>> follow(
        const std::string& container) = 0;

    /// What changes documents. Lives as long as the session.
    [[nodiscard]] virtual const Mutations& mutations() const = 0;

    // What the user keeps with an item; none clears it. They answer with the item as it is then.
    /// A date that cannot be kept is no error: the answer does not have it. An application's
    /// library has none (QPErrorDomain, invalid parameter).
    [[nodiscard]] virtual platform::Result<ItemRecord> setLastUsedDate(
        const ItemTarget& target, const std::optional<platform::QSDate>& date) const = 0;
    /// In that order. E2BIG where they are too many or too long. REQUIRES: the labels are UTF-8.
    [[nodiscard]] virtual platform::Result<ItemRecord> setTags(
        const ItemTarget& target, const std::vector<std::string>& labels) const = 0;
    [[nodiscard]] virtual platform::Result<ItemRecord> setFavoriteRank(
        const ItemTarget& target, std::optional<std::uint64_t> rank) const = 0;

    /// One for each identifier, in that order. An item without a thumbnail is no error, nor is
    /// an identifier without an item. ETIMEDOUT where an extension takes more than ten seconds for
    /// each.
    [[nodiscard]] virtual platform::Result<std::vector<Thumbnail>> thumbnails(
        const std::vector<std::string>& identifiers) const = 0;
    /// A file, open for reading. EISDIR for folders and packages, ELOOP for symbolic links, EINVAL
    /// for special files.
    [[nodiscard]] virtual platform::Result<platform::FileDescriptor> open(
        const ItemTarget& target) const = 0;

    /// Blocks until everything that happened before the call shows in changes, short-lived
    /// uncertainty about what was replaced or deleted included.
    [[nodiscard]] virtual platform::Result<void> waitUntilSettled() const = 0;
    [[nodiscard]] virtual platform::Result<Health> health() const = 0;
    [[nodiscard]] virtual platform::Result<AgeLimit> limitForAge(
        std::chrono::seconds age) const = 0;

    /// All applications that are installed, each with the reason for which the registry alone would
    /// not show it, empty where it would.
    [[nodiscard]] virtual platform::Result<std::vector<AppRecord>> applications() const = 0;
    /// Keeps what the user decides about an installed application, and returns when the extension
    /// shows it. The error satisfies meansNoSuchItem where it is not installed.
    [[nodiscard]] virtual platform::Result<void> setOverride(const std::string& identifier,
                                                             Override decision) = 0;
    /// Returns when the extension shows what is installed now.
    [[nodiscard]] virtual platform::Result<void> refreshApplications() = 0;

    /// Forgets what a search index has of these domains, those of app libraries that ended; returns
    /// how many items that were. Called on any thread; may block for the disk.
    using DomainRemoval =
        std::function<platform::Result<std::uint64_t>(const std::vector<std::string>& domains)>;
    /// Connects the search index, one at a time; empty: none.
    virtual void setDomainRemoval(DomainRemoval removal) = 0;
};

}  // namespace host
