#include "platform/foundation/QSResourceValue.h"

#include <array>

namespace platform {

std::string_view nameOfResourceKey(QSResourceKey key) {
    static constexpr std::array<std::string_view, 13> names = {"QSURLParentDirectoryURLKey",
                                                               "QSURLNameKey",
                                                               "QSURLLocalizedNameKey",
                                                               "QSURLTypeIdentifierKey",
                                                               "QSURLFileSizeKey",
                                                               "QSURLCreationDateKey",
                                                               "QSURLContentModificationDateKey",
                                                               "QSURLIsReadableKey",
                                                               "QSURLIsWritableKey",
                                                               "QSURLIsPackageKey",
                                                               "QSURLIsDirectoryKey",
                                                               "_kQCURLFileIDKey",
                                                               "QSURLDocumentIdentifierKey"};
    return names[static_cast<std::size_t>(key)];
}

std::string_view classNameOfResourceValue(const QSResourceValue& value) {
    static constexpr std::array<std::string_view, 6> names = {"QSNull",   "QSBoolean", "QSNumber",
                                                              "QSString", "QSDate",    "QSData"};
    return names[value.index()];
}

}  // namespace platform
