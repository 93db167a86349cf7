#pragma once

#include <string_view>

#include "platform/foundation/QSData.h"

namespace platform {

// The attributes, by their given names, that users put on a document.
inline constexpr std::string_view lastUsedDateAttribute = "com.quenby.lastuseddate#PS";
inline constexpr std::string_view tagDataAttribute = "com.quenby.metadata:_kMDItemUserTags";
inline constexpr std::string_view favoriteRankAttribute = "com.quenby.favorite-rank.number#PS";

/// Of the storage folder alone: how far the store had come that knows it.
inline constexpr std::string_view folderWitnessAttribute = "com.quenby.tidewell.witness";

/// In the errors of reading an attribute that was there, its size at least, at first.
inline constexpr std::string_view attributeWasFoundErrorKey = "AttributeWasFound";

/// Sets an extended attribute (given name, kept below "user.") of an object that is open, even
/// with O_PATH, whole or not at all. 0, or -1 with errno: ENOSPC where the disk is full, E2BIG
/// where the value does not fit the object's attribute space.
int setExtendedAttribute(int descriptor, std::string_view name, QSDataView value);

/// Removes it. 0, or -1 with errno: ENODATA where there is none.
int removeExtendedAttribute(int descriptor, std::string_view name);

}  // namespace platform
