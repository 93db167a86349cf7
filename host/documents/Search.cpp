#include "host/documents/Search.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "host/session/errors.h"
#include "platform/fileprovider/QSFileProviderItem.h"

namespace host {

using platform::Result;

namespace {

const std::string workingSet(platform::QSFileProviderWorkingSetContainerItemIdentifier);

/// Items of a listing that go into the index in one step.
constexpr std::size_t batch = 1000;

}  // namespace

Search::Search(DocumentService& service, std::string path)
    : service_(service), index_(std::make_shared<SearchIndex>(std::move(path))) {
    service_.session().setDomainRemoval(
        [index = index_](const auto& domains) { return index->removeDomains(domains); });
}

Search::~Search() {
    service_.session().setDomainRemoval({});
}

Result<void> Search::readAll() {
    if (auto cleared = index_->clear(); !cleared) return cleared;
    const auto anchor = service_.anchor(workingSet);
    if (!anchor) return std::unexpected(anchor.error());
    std::vector<ItemRecord> items;
    Result<void> applied;
    const auto listed = service_.list(workingSet, Order::ByName, [&](const ItemRecord& item) {
        items.push_back(item);
        if (items.size() < batch) return true;
        applied = index_->apply(std::exchange(items, {}), {}, std::nullopt);
        return applied.has_value();
    });
    if (!applied) return applied;
    if (!listed) return listed;
    return index_->apply(items, {}, *anchor);
}

Result<void> Search::update() {
    const std::scoped_lock lock(mutex_);
    // An anchor that expires while it is used is as good as none; a second one is an error.
    constexpr int tries = 2;
    for (int attempt = 1;; ++attempt) {
        auto since = index_->anchor();
        if (!since) return std::unexpected(std::move(since.error()));
        if (!*since) {
            if (auto read = readAll(); !read) return read;
            since = index_->anchor();
            if (!since || !*since) return std::unexpected(platform::errorFromErrno(ENODATA));
        }
        Result<void> applied;
        const auto reached = service_.changes(workingSet, **since, [&](const ChangePage& page) {
            applied = index_->apply(page.updates, page.deletions, page.anchor);
            return applied.has_value();
        });
        if (!applied) return applied;
        if (reached) return {};
        if (!meansExpired(reached.error()) || attempt == tries) {
            return std::unexpected(reached.error());
        }
        if (auto cleared = index_->clear(); !cleared) return cleared;
    }
}

Result<std::vector<std::string>> Search::find(std::string_view text) {
    if (auto settled = service_.waitUntilSettled(); !settled) {
        return std::unexpected(std::move(settled.error()));
    }
    if (auto updated = update(); !updated) return std::unexpected(std::move(updated.error()));
    return index_->find(text);
}

}  // namespace host
