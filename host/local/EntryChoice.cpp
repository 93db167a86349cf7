#include "host/local/EntryChoice.h"

#include <cerrno>
#include <utility>

#include "host/session/errors.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace host {

using platform::Result;

Result<EntryChoice> EntryChoice::ofEntry(const ExtensionSession& session,
                                         const VolumeAccess& volume, const ItemTarget& target) {
    if (!target.entry) return EntryChoice(nullptr);
    const auto missing =
        platform::fileProviderErrorForNonExistentItemWithIdentifier(target.itemIdentifier);
    auto& extension = session.extension();
    const auto parent =
        extension.URLForItemWithPersistentIdentifier(target.entry->parentItemIdentifier);
    if (!parent) return std::unexpected(missing);
    const auto place = parent->URLByAppendingPathComponent(target.entry->filename);
    auto choice = ofPlace(session, volume, place);
    if (!choice && meansNoSuchItem(choice.error())) return std::unexpected(missing);
    if (!choice) return choice;
    if (extension.persistentIdentifierForItemAtURL(place) == target.itemIdentifier) return choice;
    return std::unexpected(missing);
}

Result<EntryChoice> EntryChoice::ofPlace(const ExtensionSession& session,
                                         const VolumeAccess& volume, const platform::QSURL& place) {
    if (!volume.preferPlace) return EntryChoice(nullptr);
    auto preference = volume.preferPlace(place);
    if (!preference) return std::unexpected(session.withNativePath(preference.error()));
    return EntryChoice(std::move(*preference));
}

Result<EntryChoice> EntryChoice::make(const ExtensionSession& session, const VolumeAccess& volume,
                                      const ItemTarget& target, Among among) {
    if (target.entry) return ofEntry(session, volume, target);
    const auto url =
        volume.names ? session.extension().URLForItemWithPersistentIdentifier(target.itemIdentifier)
                     : std::nullopt;
    if (!url) return EntryChoice(nullptr);
    const auto names = volume.names(*url);
    if (!names) return std::unexpected(session.withNativePath(names.error()));
    const auto& candidates = among == Among::InTrash ? names->inTrash : names->outsideTrash;
    if (candidates.size() == 1) return ofPlace(session, volume, candidates.front());
    if (candidates.empty()) return EntryChoice(nullptr);
    auto error = platform::errorFromErrno(EMLINK);
    error.userInfo.emplace(platform::QSDescriptionErrorKey,
                           "it has " + std::to_string(candidates.size()) + " names" +
                               (among == Among::InTrash ? " in the trash" : "") +
                               "; give the path of the one that is meant");
    return std::unexpected(std::move(error));
}

}  // namespace host
