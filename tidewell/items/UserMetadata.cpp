#include "tidewell/items/UserMetadata.h"

#include <vector>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/foundation/QSKeyedUnarchiver.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

std::optional<QSDate> lastUsedDateOf(const QSURL& url) {
    const auto bytes = initWithValueOfXattr(LocalItem::xattrLastUsedDateName(), url);
    if (!bytes) return std::nullopt;
    const auto root = unarchivedObjectOfClasses({ArchiveClass::Date}, *bytes);
    if (!root || !root->asDate()) return std::nullopt;
    return *root->asDate();
}

std::optional<QSData> tagDataOf(const QSURL& url) {
    const auto bytes = initWithValueOfXattr(LocalItem::xattrTagDataName(), url);
    if (!bytes) return std::nullopt;
    const auto root =
        unarchivedObjectOfClasses({ArchiveClass::Array, ArchiveClass::String}, *bytes);
    if (!root || !root->asArray()) return std::nullopt;
    std::vector<QPTag> tags;
    for (const auto& label : *root->asArray()) {
        if (!label.asString()) return std::nullopt;
        tags.push_back({*label.asString(), 0});
    }
    return QPGetTagsDataForTags(tags);
}

std::optional<std::uint64_t> favoriteRankOf(const QSURL& url) {
    const auto bytes = initWithValueOfXattr(LocalItem::xattrFavoriteRankName(), url);
    if (!bytes) return std::nullopt;
    const auto root = unarchivedObjectOfClasses({ArchiveClass::Number}, *bytes);
    return root ? root->asUnsigned() : std::nullopt;
}

std::optional<RecordOfTrash> trashRecordOf(const QSURL& url) {
    const auto object = Platform::current().files().attributes(url);
    if (!object) return std::nullopt;
    auto record = Platform::current().volume().trash().find(url.path(), (*object)->identity);
    if (!record) return std::nullopt;
    return RecordOfTrash{std::move(*record), !(*object)->isDirectory() && (*object)->linkCount > 1};
}

std::optional<std::string> putBackPathOf(const QSURL& url, const std::string& item) {
    const auto record = trashRecordOf(url);
    const auto library = record ? libraryRootOf(url) : std::nullopt;
    const auto prefix = library ? library->path() + "/" : std::string();
    const bool isKnown = library && record->formerPath.starts_with(prefix);
    const auto recorded = [&] { return record->formerPath.substr(prefix.size()); };
    if (isKnown && record->isDecisive) return recorded();
    const auto bytes = initWithValueOfXattr(LocalItem::xattrTrashPutBackName(), url);
    if (!bytes && isKnown) return recorded();
    if (!bytes) {
        logError("couldn't find putback xattr for " + item);
        return std::nullopt;
    }
    const auto root = unarchivedObjectOfClasses({ArchiveClass::String}, *bytes);
    if (!root || !root->asString()) {
        logError("couldn't compute putback url");
        return std::nullopt;
    }
    return *root->asString();
}

}  // namespace tidewell
