#include "platform/fileprovider/QPTag.h"

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/QSUnicode.h"

namespace platform {

namespace {

constexpr std::uint64_t lastColor = 7;

/// Far more than an attribute holds, so that too long a list is refused where it would be kept.
constexpr QSPropertyListLimits limits = {
    .bytes = 1 << 20, .objects = 1 << 16, .expandedBytes = 8 << 20};

std::optional<QPTag> tagFromPropertyList(const QSPropertyList& entry) {
    const auto* label = entry.find("label");
    const auto* color = entry.find("color");
    const auto* text = label ? label->asString() : nullptr;
    const auto number = color ? color->asUnsigned() : std::nullopt;
    if (!text || !number || *number > lastColor) return std::nullopt;
    return QPTag{*text, static_cast<std::uint8_t>(*number)};
}

}  // namespace

QSData QPGetTagsDataForTags(const std::vector<QPTag>& tags) {
    QSPropertyList::Array entries;
    for (const auto& tag : tags) {
        if (!isUTF8(tag.label) || tag.color > lastColor) continue;
        entries.push_back(QSPropertyList::Dictionary{{"label", tag.label}, {"color", tag.color}});
    }
    // What can fail is shut out above.
    return binaryData(entries).value();
}

std::optional<std::vector<QPTag>> QPGetTagsFromTagsData(QSDataView data) {
    const auto list = propertyListWithBinaryData(data, limits);
    const auto* entries = list ? list->asArray() : nullptr;
    if (!entries) return std::nullopt;
    std::vector<QPTag> tags;
    tags.reserve(entries->size());
    for (const auto& entry : *entries) {
        auto tag = tagFromPropertyList(entry);
        if (!tag) return std::nullopt;
        tags.push_back(std::move(*tag));
    }
    return tags;
}

}  // namespace platform
