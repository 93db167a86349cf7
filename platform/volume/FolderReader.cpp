#include "platform/volume/FolderReader.h"

#include <algorithm>
#include <cerrno>

namespace platform {

namespace {

constexpr std::size_t namesAtOnce = 1000;  // looked up under one lock

}  // namespace

Result<FolderReading> FolderReader::begin(ObjectIndex::NodeNumber number,
                                          const Folder& folder) const {
    ObjectIdentity meant;
    {
        const std::shared_lock lock(mutex_);
        meant = {index_.node(number).inode, index_.node(number).generation};
    }
    const auto identity = folder.ownIdentity();
    if (!identity) return std::unexpected(identity.error());
    if (identity->inode != meant.inode ||
        (meant.generation != 0 && identity->generation != meant.generation)) {
        return std::unexpected(errorFromErrno(ESTALE, folder.url().path()));
    }
    const auto own = folder.ownState();
    if (!own) return std::unexpected(own.error());
    return FolderReading{number, folder.url(), *own,         identity->generation,
                         {},     std::nullopt, std::nullopt, false};
}

void FolderReader::readNames(const Folder& folder, std::vector<std::pair<std::string, bool>> names,
                             FolderReading& reading) const {
    const auto expected = expectedOf(reading.folder, names);
    for (std::size_t i = 0; i < names.size(); ++i) {
        auto& [name, wasWritten] = names[i];
        auto seen = look(folder, std::move(name), wasWritten, expected[i]);
        if (!seen) {
            reading.trouble = std::move(seen.error());
        } else if (*seen) {
            reading.sightings.push_back(std::move(**seen));
        }
    }
}

Result<void> FolderReader::readAll(Folder& folder, const std::function<bool()>& pause,
                                   FolderReading& reading) const {
    auto& all = reading.names.emplace();
    std::vector<std::pair<std::string, bool>> some;
    for (bool isEnd = false; !isEnd;) {
        auto entry = folder.next();
        if (!entry) return std::unexpected(std::move(entry.error()));
        isEnd = !*entry;
        if (!isEnd) some.emplace_back((*entry)->name, false);
        if (!isEnd && some.size() < namesAtOnce) continue;
        for (const auto& [name, wasWritten] : some) all.push_back(name);
        readNames(folder, std::exchange(some, {}), reading);
        if (!isEnd && !pause()) return std::unexpected(errorFromErrno(ECANCELED));
    }
    std::ranges::sort(all);
    return {};
}

std::vector<FolderReader::Expected> FolderReader::expectedOf(
    ObjectIndex::NodeNumber folder, const std::vector<std::pair<std::string, bool>>& names) const {
    std::vector<Expected> expected(names.size());
    const std::shared_lock lock(mutex_);
    for (std::size_t i = 0; i < names.size(); ++i) {
        expected[i].wantsGeneration = wantsGeneration_(folder, names[i].first);
        const auto object = index_.findObject(folder, names[i].first);
        if (object == ObjectIndex::none) continue;
        const auto& node = index_.node(object);
        expected[i].inode = node.inode;
        expected[i].stamp = node.stamp;
        expected[i].documentID = node.documentID;
        expected[i].isRacy = node.isRacy;
    }
    return expected;
}

bool FolderReader::hasGeneration(std::uint64_t inode) const {
    const std::shared_lock lock(mutex_);
    const auto number = index_.findInode(inode);
    return number != ObjectIndex::none && index_.node(number).generation != 0;
}

Result<std::optional<Sighting>> FolderReader::look(const Folder& folder, std::string name,
                                                   bool wasWritten,
                                                   const Expected& expected) const {
    Sighting sighting{std::move(name), std::nullopt, 0, wasWritten};
    const auto isMissing = [](const QSError& error) {
        return error.code == ENOENT || error.code == EXDEV;
    };
    // Of one that is replaced between the two calls both are made once more.
    constexpr int mostTries = 10;
    for (int i = 0; i < mostTries; ++i) {
        const auto state = folder.childState(sighting.name);
        if (!state && !isMissing(state.error())) return std::unexpected(state.error());
        if (!state) break;
        const bool isAsExpected = state->inode == expected.inode && state->stamp == expected.stamp;
        if (isAsExpected && !(wasWritten && expected.isRacy)) return std::nullopt;
        sighting.state = *state;
        const bool isAtOtherPlace = expected.documentID != 0 && state->inode != expected.inode;
        if (!expected.wantsGeneration && !isAtOtherPlace && !hasGeneration(state->inode)) {
            return sighting;
        }
        const auto identity = folder.childIdentity(sighting.name);
        if (identity && identity->inode == state->inode) {
            sighting.generation = identity->generation;
            return sighting;
        }
        if (!identity && !isMissing(identity.error())) return std::unexpected(identity.error());
        if (i + 1 == mostTries) {
            return std::unexpected(errorFromErrno(ESTALE, folder.url().path()));
        }
    }
    sighting.state = std::nullopt;
    if (expected.inode == 0) return std::nullopt;
    return sighting;
}

}  // namespace platform
