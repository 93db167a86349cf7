// What users keep with items, as the document service sets it.
#include <cerrno>

#include "host/DocumentService.h"
#include "host/EntryChoice.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace host {

using platform::Result;

Result<ItemRecord> DocumentService::itemAfter(const ItemTarget& target,
                                              const ExtensionSession::ItemRequest& request) const {
    const auto choice = EntryChoice::ofEntry(*session_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    return session_->itemAfter(request);
}

Result<ItemRecord> DocumentService::setLastUsedDate(
    const ItemTarget& target, const std::optional<platform::QSDate>& date) const {
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setLastUsedDate(date, target.itemIdentifier, std::move(completion));
    });
}

Result<ItemRecord> DocumentService::setTags(const ItemTarget& target,
                                            const std::vector<std::string>& labels) const {
    std::vector<platform::QPTag> tags;
    tags.reserve(labels.size());
    for (const auto& label : labels) tags.push_back({label, 0});
    const auto data = platform::QPGetTagsDataForTags(tags);
    // An extension takes what it cannot read for no tags at all.
    if (!platform::QPGetTagsFromTagsData(data)) {
        auto error = platform::errorFromErrno(E2BIG);
        error.userInfo.emplace(platform::QSDescriptionErrorKey, "too many tags for one item");
        return std::unexpected(std::move(error));
    }
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setTagData(data, target.itemIdentifier, std::move(completion));
    });
}

Result<ItemRecord> DocumentService::setFavoriteRank(const ItemTarget& target,
                                                    std::optional<std::uint64_t> rank) const {
    return itemAfter(target, [&](auto& extension, auto completion) {
        extension.setFavoriteRank(rank, target.itemIdentifier, std::move(completion));
    });
}

}  // namespace host
