#include "tests/convergence/Replica.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sstream>

#include "host/session/errors.h"

namespace tests {

namespace {

const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
const std::string workingSet(platform::QSFileProviderWorkingSetContainerItemIdentifier);

char kindOf(const host::ItemRecord& item) {
    if (item.isFolder()) return 'd';
    if (item.itemIdentifier.starts_with("fid=")) return 'l';
    return item.typeIdentifier == "com.quenby.lutebox" ? 'p' : 'f';
}

/// What differs between an item and the walk's row.
std::string difference(const host::ItemRecord& item, const WalkedRow& row) {
    std::ostringstream text;
    const auto compare = [&](const char* what, auto ours, auto onDisk) {
        if (ours != onDisk) text << what << " " << ours << ", on disk " << onDisk << "; ";
    };
    compare("kind", kindOf(item), row.kind);
    // Changes of the folder itself are not reported.
    if (item.itemIdentifier.starts_with('#')) return text.str();
    compare("size", item.documentSize.value_or(0), row.size);
    compare("children", item.childItemCount.value_or(0), row.kind == 'd' ? row.entries : 0);
    const auto modified = item.contentModificationDate.value_or(platform::QSDate{});
    compare("modified", modified.seconds * 1'000'000'000 + modified.nanoseconds, row.modified);
    compare("has tags", item.tags.has_value(), row.hasAttribute);
    return text.str();
}

}  // namespace

bool Replica::isTree() const {
    return container_ == workingSet;
}

/// A replica of a folder that is out of sight ends; what fails on a full disk is tried again.
void Replica::fail(const platform::QSError& error) {
    const bool isMissing = host::meansNoSuchItem(error) || error.code == ENODATA;
    if (!isTree() && (isMissing || host::meansExpired(error))) return turnTo({});
    isListing_ = true;
    if (isPatient_ && (error.code == EIO || error.code == ENOSPC)) return;
    if (failure_.empty()) failure_ = name_ + ": " + error.description();
}

std::string Replica::anyFolder(Random& random) const {
    std::map<std::string, std::string> folders{{"", root}};
    for (const auto& [identifier, item] : state_.items) {
        if (item.isFolder()) folders[pathOf(item)] = identifier;
    }
    return std::next(folders.begin(), static_cast<int>(below(random, folders.size())))->second;
}

void Replica::begin(host::DocumentService& service) {
    state_ = {};
    pending_.clear();
    listed_.clear();
    isListing_ = false;
    auto anchor = service.anchor(container_);
    if (!anchor) return fail(anchor.error());
    state_.anchor = std::move(*anchor);
}

void Replica::list(host::DocumentService& service) {
    begin(service);
    if (isListing_) return;
    const auto listed = service.list(container_, host::Order::ByName, [&](const auto& item) {
        if (!item.isTrashed || !isTree()) state_.items[item.itemIdentifier] = item;
        return true;
    });
    if (!listed) fail(listed.error());
}

void Replica::listStep(host::DocumentService& service) {
    if (pending_.empty()) {
        begin(service);
        pending_.push_back({root});
        isListed_ = true;
    }
    auto next = std::move(pending_.front());
    pending_.pop_front();
    auto page = service.session().page(next.container, next.start);
    for (const auto& item : page.items) {
        state_.items[item.itemIdentifier] = item;
        listed_.insert(item.itemIdentifier);
        if (item.isFolder()) pending_.push_back({item.itemIdentifier});
    }
    if (page.next && *page.next) {
        pending_.push_front({next.container, std::move(**page.next)});
    } else if (!page.next && host::meansExpired(page.next.error())) {
        pending_.push_front({next.container});  // it has changed between its pages
    } else if (!page.next && host::meansNoSuchItem(page.next.error())) {
        // The kernel may have reported half of a rename so far: only then is it found later.
        constexpr int mostRefusals = 4;
        if (++next.refusals < mostRefusals) {
            pending_.push_back({next.container, host::Order::ByName, next.refusals});
        } else {
            state_.items.erase(next.container);  // if it is there, an update follows
        }
    } else if (!page.next) {
        // Another object has the folder's path now; that cannot go on for ever.
        if (!isPatient_ && ++mishaps_ == 100) return fail(page.next.error());
        pending_.push_back({next.container});
    }
}

void Replica::apply(const host::ChangePage& page) {
    // Libraries come ahead of a page, and those that went with all that was in them.
    const auto isLibrary = [](const auto& identifier) { return identifier.starts_with('#'); };
    const bool isAboutLibraries =
        std::ranges::any_of(page.deletions, isLibrary) ||
        std::ranges::any_of(page.updates, isLibrary, &host::ItemRecord::itemIdentifier);
    if (page.updates.size() + page.deletions.size() > 100 && !isAboutLibraries) {
        failure_ = name_ + ": a page too large";
    }
    for (const auto& item : page.updates) {
        if (item.isTrashed && isTree())
            failure_ = name_ + ": trashed, but updated: " + item.filename;
        const auto isNew = state_.items.insert_or_assign(item.itemIdentifier, item).second;
        listed_.erase(item.itemIdentifier);
        // It may have moved from a folder not yet listed to one that was, with all that is in it.
        if (isNew && isListed_ && item.isFolder()) pending_.push_back({item.itemIdentifier});
    }
    for (const auto& identifier : page.deletions) {
        state_.items.erase(identifier);
        deleted_.insert(identifier);
    }
    state_.anchor = page.anchor;
}

void Replica::pull(host::DocumentService& service) {
    if (container_.empty()) return;
    if (isListing_) return list(service);
    const auto reached = service.changes(container_, state_.anchor, [&](const auto& page) {
        apply(page);
        return true;
    });
    if (reached) {
        // It may have listed a folder that was about to go out of sight with all that is in it.
        if (!pending_.empty() || !std::exchange(isListed_, false)) return;
        // What was reported since may be in a folder whose event is still to come.
        const auto isOutOfSight = [&](const auto& entry) {
            if (!listed_.contains(entry.first)) return false;
            const auto parent = state_.items.find(entry.second.parentItemIdentifier);
            const bool isInPackage = parent != state_.items.end() && !parent->second.isFolder();
            return isInPackage || pathOf(entry.second).empty();
        };
        while (std::erase_if(state_.items, isOutOfSight) > 0) continue;
        return;
    }
    if (!host::meansExpired(reached.error())) {
        fail(reached.error());
        isListing_ = false;  // the anchor is where it was
        return;
    }
    ++refusals_;
    list(service);
    keep();
}

std::string Replica::pathOf(const host::ItemRecord& item) const {
    std::string path = item.filename;
    const auto* at = &item;
    const auto& top = isTree() ? root : container_;
    for (std::size_t depth = 0; at->parentItemIdentifier != top; ++depth) {
        const auto parent = state_.items.find(at->parentItemIdentifier);
        if (parent == state_.items.end() || depth > state_.items.size()) return {};
        at = &parent->second;
        path = at->filename + "/" + path;
    }
    return path;
}

bool Replica::isShown(const WalkedRow& row, const std::string& folder) const {
    if (isTree()) return row.isShown && row.path != folder;
    if (!row.path.starts_with(folder + "/")) return false;
    const auto name = row.path.substr(folder.size() + 1);
    return !name.starts_with('.') && name.find('/') == name.npos;
}

std::string Replica::compare(const std::vector<WalkedRow>& rows,
                             std::map<ObjectKey, std::string>& identifiers,
                             const std::string& folder) const {
    if (!failure_.empty() || container_.empty()) return failure_;
    std::map<std::string, const WalkedRow*> shown;
    for (const auto& row : rows) {
        if (isShown(row, folder)) shown[row.path.substr(folder.size() + 1)] = &row;
    }
    std::set<ObjectKey> found;
    for (const auto& [identifier, item] : state_.items) {
        const auto path = pathOf(item);
        const auto label = name_ + ": " + identifier + " (" + path + ") ";
        if (path.empty()) return label + item.filename + " is in no folder that is known";
        const auto row = shown.find(path);
        if (row == shown.end()) return label + "is not on disk";
        const auto different = difference(item, *row->second);
        if (!different.empty()) return label + different;
        const auto& known = identifiers.emplace(row->second->object, identifier).first->second;
        if (known != identifier) return label + "is also " + known;
        found.insert(row->second->object);
    }
    for (const auto& [path, row] : shown) {
        if (!found.contains(row->object)) return name_ + ": " + path + " is missing";
    }
    return {};
}

}  // namespace tests
