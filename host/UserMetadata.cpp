// What users keep with items, as the document service sets it.
#include <cerrno>

#include "host/DocumentService.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace host {

using platform::Result;

Result<ItemRecord> DocumentService::setLastUsedDate(
    const std::string& identifier, const std::optional<platform::QSDate>& date) const {
    return session_->itemAfter([&](auto& extension, auto completion) {
        extension.setLastUsedDate(date, identifier, std::move(completion));
    });
}

Result<ItemRecord> DocumentService::setTags(const std::string& identifier,
                                            const std::vector<std::string>& labels) const {
    std::vector<platform::QPTag> tags;
    tags.reserve(labels.size());
    for (const auto& label : labels) tags.push_back({label, 0});
    const auto data = platform::QPGetTagsDataForTags(tags);
    // An extension takes what it cannot read for no tags at all.
    if (!platform::QPGetTagsForTagsData(data)) {
        auto error = platform::errorFromErrno(E2BIG);
        error.userInfo.emplace(platform::QSDescriptionErrorKey, "too many tags for one item");
        return std::unexpected(std::move(error));
    }
    return session_->itemAfter([&](auto& extension, auto completion) {
        extension.setTagData(data, identifier, std::move(completion));
    });
}

Result<ItemRecord> DocumentService::setFavoriteRank(const std::string& identifier,
                                                    std::optional<std::uint64_t> rank) const {
    return session_->itemAfter([&](auto& extension, auto completion) {
        extension.setFavoriteRank(rank, identifier, std::move(completion));
    });
}

}  // namespace host
