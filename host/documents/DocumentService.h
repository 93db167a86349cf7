#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/documents/Listing.h"
#include "host/documents/TrashKeeper.h"
#include "host/session/Session.h"

namespace host {

/// The document service: what file browsers ask. All that goes in and out is a plain value, and
/// identifiers and tokens are opaque.
///
/// Any thread, several calls at once; every call blocks until it has its answer. Handlers run on
/// the calling thread, under no lock, and may call the service.
class DocumentService {
  public:
    struct Options {
        /// Pauses between tries of a listing; sleeps where empty.
        Waiter wait = {};
        /// What was trashed longer ago than this, by the wall clock and by the time that has
        /// passed, is deleted at the start and once a day; nothing where it is none.
        std::optional<std::chrono::seconds> trashAge = {};
    };

    explicit DocumentService(std::unique_ptr<Session> session);
    DocumentService(std::unique_ptr<Session> session, Options options);
    ~DocumentService();

    /// For the calls that need nothing else; lives as long as the service.
    [[nodiscard]] Session& session() { return *session_; }
    [[nodiscard]] const Session& session() const { return *session_; }

    // As those of the session.
    [[nodiscard]] platform::Result<ItemRecord> item(const ItemTarget& target) const {
        return session_->item(target);
    }
    [[nodiscard]] platform::Result<std::string> resolve(std::string_view path) const {
        return session_->resolve(path);
    }
    [[nodiscard]] platform::Result<ItemTarget> resolveEntry(std::string_view path) const {
        return session_->resolveEntry(path);
    }
    [[nodiscard]] platform::Result<std::string> path(const std::string& identifier) const {
        return session_->path(identifier);
    }
    [[nodiscard]] platform::Result<Anchor> anchor(const std::string& container) const {
        return session_->anchor(container);
    }
    [[nodiscard]] const Mutations& mutations() const { return session_->mutations(); }
    [[nodiscard]] platform::Result<void> waitUntilSettled() const {
        return session_->waitUntilSettled();
    }

    /// Receives a document's bytes in pieces; false ends it.
    using ContentHandler = std::function<bool(platform::QSDataView)>;
    /// The content of a file, as it is while it is read. EISDIR for folders and packages, ELOOP for
    /// symbolic links, EINVAL for special files.
    [[nodiscard]] platform::Result<void> readContent(const ItemTarget& target,
                                                     const ContentHandler& handler) const;

    /// Every item of the container, page after page, memory for one page and the identifiers given
    /// out. Restarts a refused listing by itself (see Listing). Success also where the handler
    /// ended it.
    [[nodiscard]] platform::Result<void> list(const std::string& container, Order order,
                                              const ItemHandler& handler);

    /// Receives what listTree finds. Both are called depth first, a folder before what it holds.
    struct TreeHandler {
        /// `depth` is 0 for the children of the container; `isLast` among those of its folder.
        /// False ends the listing.
        std::function<bool(const ItemRecord& item, std::size_t depth, bool isLast)> item;
        /// A folder below the container that could not be listed; the rest goes on.
        std::function<void(const ItemRecord& folder, const platform::QSError& error)> failed;
        /// Puts the entries of one folder in order; empty: they stay in the order of pages.
        std::function<void(std::vector<ItemRecord>& entries)> sort = {};
    };

    /// Everything below a folder, into folders but not into packages or links. Memory for the
    /// entries of the folders on the way down. Fails where the container itself cannot be listed.
    [[nodiscard]] platform::Result<void> listTree(const std::string& container,
                                                  const TreeHandler& handler);

    /// Receives each page of changes; false ends them.
    using ChangeHandler = std::function<bool(const ChangePage&)>;

    /// Page after page, until nothing more is coming or the handler ends it. Returns the anchor of
    /// the last page. After an error, go on from the last page that the handler was given.
    [[nodiscard]] platform::Result<Anchor> changes(const std::string& container,
                                                   const Anchor& since,
                                                   const ChangeHandler& handler) const;

    /// The same for one who follows the container.
    [[nodiscard]] platform::Result<Anchor> changes(const Following& following, const Anchor& since,
                                                   const ChangeHandler& handler) const;

  private:
    [[nodiscard]] platform::Result<bool> listLevel(const std::string& container, std::size_t depth,
                                                   const TreeHandler& handler);

    // Constant after construction; the session has its own synchronisation.
    Waiter wait_;
    std::unique_ptr<Session> session_;
    std::unique_ptr<TrashKeeper> trashKeeper_;  // null where the trash is kept for ever
};

}  // namespace host
