#include "host/documents/DocumentService.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <thread>
#include <utility>

#include "host/session/errors.h"

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

DocumentService::DocumentService(std::unique_ptr<Session> session)
    : DocumentService(std::move(session), Options{}) {}

DocumentService::DocumentService(std::unique_ptr<Session> session, Options options)
    : wait_(options.wait
                ? std::move(options.wait)
                : [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); }),
      session_(std::move(session)) {
    if (!options.trashAge) return;
    trashKeeper_ = std::make_unique<TrashKeeper>(
        [this, age = *options.trashAge] {
            const auto limit = session_->limitForAge(age);
            return limit ? limit->safe : std::nullopt;
        },
        [this](const platform::QSDate& date) {
            const auto& mutations = session_->mutations();
            if (mutations.dateArrivalsInTrash()) (void)mutations.emptyTrash(date);
        });
}

DocumentService::~DocumentService() = default;

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

Result<void> DocumentService::readContent(const ItemTarget& target,
                                          const ContentHandler& handler) const {
    const auto file = session_->open(target);
    if (!file) return std::unexpected(file.error());
    std::array<std::uint8_t, 64 * 1024> buffer;
    for (;;) {
        const auto count = read(file->get(), buffer.data(), buffer.size());
        if (count < 0) {
            const auto code = errno;
            const auto path = session_->path(target.itemIdentifier);
            return std::unexpected(platform::errorFromErrno(code, path.value_or(std::string())));
        }
        const auto size = static_cast<std::size_t>(count);
        if (size == 0 || !handler(platform::QSDataView(buffer).first(size))) return {};
    }
}

}  // namespace host
