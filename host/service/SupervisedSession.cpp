#include "host/service/SupervisedSession.h"

#include <utility>

#include "host/service/SupervisedFollowing.h"
#include "host/service/asking.h"

namespace host {

using platform::Result;

Result<ItemRecord> SupervisedSession::item(const ItemTarget& target) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.item(target); });
}

Result<std::string> SupervisedSession::resolve(std::string_view path) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.resolve(path); });
}

Result<ItemTarget> SupervisedSession::resolveEntry(std::string_view path) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.resolveEntry(path); });
}

Result<std::string> SupervisedSession::path(const std::string& identifier) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.path(identifier); });
}

/// A page is one answer: without its end it is none.
Page SupervisedSession::page(const std::string& container, const PageStart& start) {
    auto page = askSupervised(supervisor_, [&](auto& session) -> Result<Page> {
        auto answer = session.page(container, start);
        if (!answer.next && meansServiceEnded(answer.next.error())) {
            return std::unexpected(std::move(answer.next.error()));
        }
        return answer;
    });
    return page ? std::move(*page) : Page{{}, std::unexpected(std::move(page.error()))};
}

Result<std::vector<std::string>> SupervisedSession::trashContainers() const {
    return askSupervised(supervisor_, [](auto& session) { return session.trashContainers(); });
}

Result<Anchor> SupervisedSession::anchor(const std::string& container) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.anchor(container); });
}

Result<ChangePage> SupervisedSession::changes(const std::string& container,
                                              const Anchor& since) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.changes(container, since); });
}

Result<std::unique_ptr<Following>> SupervisedSession::follow(const std::string& container) {
    return SupervisedFollowing::begin(supervisor_, container);
}

Result<ItemRecord> SupervisedSession::setLastUsedDate(
    const ItemTarget& target, const std::optional<platform::QSDate>& date) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.setLastUsedDate(target, date); });
}

Result<ItemRecord> SupervisedSession::setTags(const ItemTarget& target,
                                              const std::vector<std::string>& labels) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.setTags(target, labels); });
}

Result<ItemRecord> SupervisedSession::setFavoriteRank(const ItemTarget& target,
                                                      std::optional<std::uint64_t> rank) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.setFavoriteRank(target, rank); });
}

Result<std::vector<Thumbnail>> SupervisedSession::thumbnails(
    const std::vector<std::string>& identifiers) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.thumbnails(identifiers); });
}

Result<platform::FileDescriptor> SupervisedSession::open(const ItemTarget& target) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.open(target); });
}

Result<void> SupervisedSession::waitUntilSettled() const {
    return askSupervised(supervisor_, [](auto& session) { return session.waitUntilSettled(); });
}

Result<Health> SupervisedSession::health() const {
    auto health = askSupervised(supervisor_, [](auto& session) { return session.health(); });
    if (!health) return health;
    auto status = supervisor_.status();
    health->service = ServiceHealth{.socket = supervisor_.facts().socket,
                                    .clients = clientCount_ ? clientCount_() : 0,
                                    .extensionProcess = status.process,
                                    .restarts = status.restarts,
                                    .lastEnd = std::move(status.lastEnd)};
    return health;
}

Result<AgeLimit> SupervisedSession::limitForAge(std::chrono::seconds age) const {
    return askSupervised(supervisor_, [&](auto& session) { return session.limitForAge(age); });
}

Result<std::vector<AppRecord>> SupervisedSession::applications() const {
    return askSupervised(supervisor_, [](auto& session) { return session.applications(); });
}

Result<void> SupervisedSession::setOverride(const std::string& identifier, Override decision) {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.setOverride(identifier, decision); });
}

Result<void> SupervisedSession::refreshApplications() {
    return askSupervised(supervisor_, [](auto& session) { return session.refreshApplications(); });
}

void SupervisedSession::setDomainRemoval(DomainRemoval removal) {
    supervisor_.setDomainRemoval(std::move(removal));
}

}  // namespace host
