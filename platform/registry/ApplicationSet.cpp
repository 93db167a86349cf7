#include "platform/registry/ApplicationSet.h"

#include <sys/stat.h>

#include <algorithm>

namespace platform {

namespace {

/// The identifiers that the application had before.
std::vector<std::string> formerIdentifiers(const DesktopEntry& entry, std::string_view identifier) {
    std::vector<std::string> former;
    for (std::string name : entry.renamedFrom) {
        if (name.ends_with(desktopEntrySuffix))
            name.resize(name.size() - desktopEntrySuffix.size());
        if (isBundleIdentifier(name) && name != identifier) former.push_back(std::move(name));
    }
    return former;
}

}  // namespace

ApplicationRef ApplicationSet::find(std::string_view identifier) const {
    const auto found = std::ranges::lower_bound(
        applications, identifier, {}, [](const ApplicationRef& application) -> std::string_view {
            return *application->bundleIdentifier;
        });
    if (found != applications.end() && (*found)->bundleIdentifier == identifier) return *found;
    const auto former = renamed.find(identifier);
    return former == renamed.end() ? nullptr : former->second;
}

void ApplicationSetMaker::add(const ApplicationFolder& folder,
                              std::vector<EntryReader::File> files) {
    for (auto& file : files) {
        if (!taken_.emplace(file.name, true).second) continue;
        const auto& entry = *file.entry;
        if (entry.isHidden || !entry.isApplication) continue;
        const auto identifier = entry.flatpak.empty() ? file.name : entry.flatpak;
        if (!isBundleIdentifier(identifier)) continue;
        // An application may have several entries, such as one for each kind of file it opens.
        const int rank = (file.name == identifier ? 0 : 2) + (entry.isNoDisplay ? 1 : 0);
        const auto known = candidates_.find(identifier);
        if (known != candidates_.end() && known->second.rank <= rank) continue;
        candidates_.insert_or_assign(identifier, Candidate{folder, std::move(file), rank});
    }
}

std::string ApplicationSetMaker::containerOf(const std::string& identifier,
                                             const std::vector<std::string>& former) const {
    const auto path = [&](const std::string& name) { return sources_.containers + "/" + name; };
    const auto isThere = [&](const std::string& name) {
        struct stat status {};
        return stat(path(name).c_str(), &status) == 0;
    };
    if (former.empty() || isThere(identifier)) return path(identifier);
    for (const auto& name : former) {
        // One that is installed under that name still has it.
        if (!candidates_.contains(name) && isThere(name)) return path(name);
    }
    return path(identifier);
}

ApplicationSet ApplicationSetMaker::make(
    const std::map<std::string, SupportFlags, std::less<>>& overrides) {
    ApplicationSet set;
    set.applications.reserve(candidates_.size());
    for (const auto& [identifier, candidate] : candidates_) {
        const auto& entry = *candidate.file.entry;
        const auto former = formerIdentifiers(entry, identifier);
        auto made = std::make_shared<QLApplicationProxy>();
        made->bundleIdentifier = identifier;
        if (!entry.name.empty()) made->displayName = entry.name;
        made->applicationType = candidate.folder.type;
        made->desktopEntryPath = candidate.file.path;
        made->iconName = entry.icon;
        made->dataFolder = candidate.folder.path;

        auto given = overrides.find(identifier);
        for (std::size_t i = 0; given == overrides.end() && i < former.size(); ++i) {
            if (!candidates_.contains(former[i])) given = overrides.find(former[i]);
        }
        const auto mine = given == overrides.end() ? SupportFlags{} : given->second;
        const auto choose = [](std::optional<bool> users, std::optional<bool> entrys) {
            return users ? *users : entrys.value_or(false);
        };
        made->supportsDocumentBrowser = choose(mine.documentBrowser, entry.flags.documentBrowser);
        made->supportsOpenInPlace = choose(mine.openInPlace, entry.flags.openInPlace);
        made->fileSharingEnabled = choose(mine.fileSharing, entry.flags.fileSharing);
        made->hasOverride = mine.documentBrowser || mine.openInPlace || mine.fileSharing;

        made->dataContainerPath = containerOf(identifier, former);
        if (present_) {
            auto url = present_(identifier, made->dataContainerPath);
            if (url) {
                made->dataContainerURL = std::move(*url);
            } else {
                made->containerTrouble = url.error().description();
            }
        } else {
            made->dataContainerURL = QSURL::fileURLWithPath(made->dataContainerPath);
        }
        for (const auto& name : former) {
            if (!candidates_.contains(name)) set.renamed.emplace(name, made);
        }
        set.applications.push_back(std::move(made));
    }
    return set;
}

}  // namespace platform
