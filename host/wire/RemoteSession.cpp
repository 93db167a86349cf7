#include "host/wire/RemoteSession.h"

#include <cerrno>
#include <utility>

#include "host/wire/RemoteFollowing.h"
#include "host/wire/asking.h"

namespace host {

using platform::Result;

Result<ItemRecord> RemoteSession::item(const ItemTarget& target) const {
    return ask<ItemRecord>(*client_, "Item", target);
}

Result<std::string> RemoteSession::resolve(std::string_view path) const {
    return ask<std::string>(*client_, "Resolve", std::string(path));
}

Result<ItemTarget> RemoteSession::resolveEntry(std::string_view path) const {
    return ask<ItemTarget>(*client_, "ResolveEntry", std::string(path));
}

Result<std::string> RemoteSession::path(const std::string& identifier) const {
    return ask<std::string>(*client_, "Path", identifier);
}

Page RemoteSession::page(const std::string& container, const PageStart& start) {
    auto page = ask<Page>(*client_, "Page", container, start);
    return page ? std::move(*page) : Page{{}, std::unexpected(std::move(page.error()))};
}

Result<std::vector<std::string>> RemoteSession::trashContainers() const {
    return ask<std::vector<std::string>>(*client_, "TrashContainers");
}

Result<Anchor> RemoteSession::anchor(const std::string& container) const {
    return ask<Anchor>(*client_, "Anchor", container);
}

Result<ChangePage> RemoteSession::changes(const std::string& container, const Anchor& since) const {
    return ask<ChangePage>(*client_, "Changes", container, since);
}

Result<std::unique_ptr<Following>> RemoteSession::follow(const std::string& container) {
    return RemoteFollowing::begin(*client_, container);
}

Result<ItemRecord> RemoteSession::setLastUsedDate(
    const ItemTarget& target, const std::optional<platform::QSDate>& date) const {
    return operate<ItemRecord>(*client_, "SetLastUsedDate", {}, target, date);
}

Result<ItemRecord> RemoteSession::setTags(const ItemTarget& target,
                                          const std::vector<std::string>& labels) const {
    return operate<ItemRecord>(*client_, "SetTags", {}, target, labels);
}

Result<ItemRecord> RemoteSession::setFavoriteRank(const ItemTarget& target,
                                                  std::optional<std::uint64_t> rank) const {
    return operate<ItemRecord>(*client_, "SetFavoriteRank", {}, target, rank);
}

Result<std::vector<Thumbnail>> RemoteSession::thumbnails(
    const std::vector<std::string>& identifiers) const {
    return ask<std::vector<Thumbnail>>(*client_, "Thumbnails", identifiers);
}

Result<platform::FileDescriptor> RemoteSession::open(const ItemTarget& target) const {
    auto answer = client_->call("Open", packed(target));
    if (!answer) return std::unexpected(std::move(answer.error()));
    if (!answer->file) return std::unexpected(platform::errorFromErrno(EBADMSG));
    return std::move(answer->file);
}

Result<void> RemoteSession::waitUntilSettled() const {
    return succeeded(ask<Nothing>(*client_, "WaitUntilSettled"));
}

Result<Health> RemoteSession::health() const {
    return ask<Health>(*client_, "Health");
}

Result<AgeLimit> RemoteSession::limitForAge(std::chrono::seconds age) const {
    return ask<AgeLimit>(*client_, "LimitForAge", age);
}

Result<std::vector<AppRecord>> RemoteSession::applications() const {
    return ask<std::vector<AppRecord>>(*client_, "Applications");
}

Result<void> RemoteSession::setOverride(const std::string& identifier, Override decision) {
    return succeeded(operate<Nothing>(*client_, "SetOverride", {}, identifier, decision));
}

Result<void> RemoteSession::refreshApplications() {
    return succeeded(ask<Nothing>(*client_, "RefreshApplications"));
}

void RemoteSession::setDomainRemoval(DomainRemoval removal) {
    client_->setDomainRemoval(std::move(removal));
}

Result<std::vector<std::string>> RemoteSession::search(std::string_view text) const {
    return ask<std::vector<std::string>>(*client_, "Search", std::string(text));
}

}  // namespace host
