#include "tests/convergence/Ledger.h"

#include <algorithm>
#include <utility>

#include "tests/convergence/Recipes.h"

namespace tests {

namespace {

bool isDocument(const std::string& identifier) {
    return identifier.starts_with("did=");
}

}  // namespace

std::string Ledger::check(Barrier barrier) {
    before_ = std::exchange(now_, std::move(barrier));
    if (now_.forgetsIdentifiers) {
        before_.identifiers.clear();
        known_.clear();  // the owners stay: no identifier comes back for another object
    }
    readInterval();
    for (const auto& object : doubtful_) known_.erase(object);

    std::string wrong = checkDeletions();
    for (const auto& deed : now_.deeds) {
        if (wrong.empty() && deed.call.starts_with("save ")) wrong = checkSave(deed);
    }
    for (const auto& [object, identifier] : now_.identifiers) {
        if (wrong.empty()) wrong = checkObject(object, identifier);
        known_[object].at(isDocument(identifier) ? 0 : 1) = identifier;
    }
    for (const auto& [object, identifier] : now_.identifiers) owners_[identifier] = object;
    return wrong;
}

void Ledger::readInterval() {
    // Where nobody has seen it since, the doubt stays.
    std::erase_if(doubtful_, [&](const auto& key) { return before_.identifiers.contains(key); });
    hidden_.clear();
    path_.clear();
    std::map<std::string, std::set<ObjectKey>> objectsAtPlaces;
    const auto meet = [&](const std::string& place, const ObjectKey& object) {
        objectsAtPlaces[place].insert(object);
        if (isBackupName(place)) doubtful_.insert(object);
    };
    std::set<ObjectKey> old;
    for (const auto& row : before_.rows) old.insert(row.object);
    for (const auto* rows : {&before_.rows, &now_.rows}) {
        for (const auto& row : *rows) {
            meet(row.place, row.object);
            meet(row.path, row.object);
            if (row.links > 1) hidden_.insert(row.object);  // some of its names may not be shown
            if (rows == &now_.rows) path_[row.object] = row.path;
        }
    }
    for (const auto& deed : now_.deeds) {
        for (const auto& [place, object] : deed.sightings) meet(place, object);
        hidden_.insert(deed.hidden.begin(), deed.hidden.end());
        // An exchange with something new may be a save; and one of which half was reported looks
        // so.
        const auto isNew = [&](const auto& seen) { return !old.contains(seen.object); };
        if (deed.call.starts_with("swap ") &&
            (now_.isReportedLate || std::ranges::any_of(deed.sightings, isNew))) {
            for (const auto& seen : deed.sightings) doubtful_.insert(seen.object);
        }
    }
    // Twice: a document may have moved over two times in between.
    for (int i = 0; i < 2; ++i) noteRelated(objectsAtPlaces);
    // An object that left the tree looks like a deleted one.
    const auto goes = [&](const ObjectKey& object) {
        if (related_[object].size() > 1) doubtful_.insert(object);
    };
    for (const auto& deed : now_.deeds) std::ranges::for_each(deed.left, goes);
    for (const auto* rows : {&before_.rows, &now_.rows}) {
        for (const auto& row : *rows) {
            if (!now_.identifiers.contains(row.object)) goes(row.object);
        }
    }
}

void Ledger::noteRelated(const std::map<std::string, std::set<ObjectKey>>& objectsAtPlaces) {
    const auto before = related_;
    for (const auto& [place, together] : objectsAtPlaces) {
        for (const auto& one : together) {
            related_[one].insert(together.begin(), together.end());
            for (const auto& other : together) {
                const auto found = before.find(other);
                if (found == before.end()) continue;
                related_[one].insert(found->second.begin(), found->second.end());
            }
        }
    }
}

std::string Ledger::describe(const ObjectKey& object) const {
    const auto found = path_.find(object);
    return found == path_.end() ? "a removed object" : found->second;
}

std::string Ledger::checkObject(const ObjectKey& object, const std::string& identifier) const {
    const auto owner = owners_.find(identifier);
    if (owner != owners_.end() && owner->second != object) {
        const auto present = known_.find(owner->second);
        const bool hasOther = present != known_.end() && !present->second.at(0).empty() &&
                              present->second.at(0) != identifier;
        const bool isRemoved =
            hasOther || !path_.contains(owner->second) || doubtful_.contains(owner->second);
        if (isDocument(identifier) && isRemoved && related_.at(object).contains(owner->second))
            return {};
        return identifier + " now names " + describe(object) + "; it was given to " +
               describe(owner->second);
    }
    const auto known = known_.find(object);
    if (known == known_.end()) return {};
    const auto& before = known->second.at(isDocument(identifier) ? 0 : 1);
    if (before.empty() || before == identifier) return {};
    return describe(object) + " was " + before + " and is now " + identifier;
}

/// Judges where the document was and is at one place, and nothing but this save came there in
/// between. A client that looks half-way has to get an answer, and that is final.
std::string Ledger::checkSave(const Deed& save) {
    const auto end = "/" + save.call.substr(5);
    const auto isOwn = [&](const Deed& deed) { return deed.operation == save.operation; };
    const auto& deeds = now_.deeds;
    const auto first = std::ranges::find_if(deeds, isOwn);
    const auto last = std::find_if(deeds.rbegin(), deeds.rend(), isOwn).base();
    std::string place;
    for (auto deed = first; deed != (now_.isReportedLate ? deeds.end() : last); ++deed) {
        if (deed->actor > 1 || deed->isDuringLook || deed->call.contains("own ") ||
            (isOwn(*deed) && deed->error && deed->call[0] != '?'))
            return {};
        for (const auto& seen : deed->sightings) {
            if (isOwn(*deed) && seen.place.ends_with(end)) place = seen.place;
        }
    }
    const auto at = [&](const std::vector<WalkedRow>& rows) {
        const auto found = std::ranges::find(rows, place, &WalkedRow::place);
        const bool isShownFile = found != rows.end() && found->isShown && found->kind == 'f';
        return isShownFile ? found->object : ObjectKey();
    };
    const auto old = at(before_.rows), present = at(now_.rows);
    const auto identifier = before_.identifiers.find(old);
    if (present.empty() || identifier == before_.identifiers.end() || hidden_.contains(old) ||
        hidden_.contains(present)) {
        return {};
    }
    for (const auto& deed : deeds) {
        for (const auto& seen : deed.sightings) {
            if (!isOwn(deed) && (seen.place == place || seen.object == old)) return {};
        }
    }
    ++judgedSaves_;
    const auto& now = now_.identifiers.at(present);
    if (now == identifier->second) return {};
    return describe(present) + " was saved (operation " + std::to_string(save.operation) +
           "), but " + identifier->second + " became " + now;
}

std::string Ledger::checkDeletions() const {
    for (const auto& [object, identifier] : before_.identifiers) {
        const auto now = now_.identifiers.find(object);
        if (now == now_.identifiers.end() || now->second != identifier ||
            !now_.deleted.contains(identifier) || hidden_.contains(object)) {
            continue;
        }
        return identifier + " was reported deleted, but " + describe(object) +
               " was there all the time";
    }
    return {};
}

}  // namespace tests
