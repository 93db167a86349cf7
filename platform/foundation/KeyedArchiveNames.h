#pragma once

#include <cstdint>
#include <string_view>

namespace platform::keyedArchive {

// The fixed words of a keyed archive.
inline constexpr std::int64_t version = 100'000;
inline constexpr std::string_view archiver = "QSKeyedArchiver";
inline constexpr std::string_view null = "$null";

inline constexpr std::string_view versionKey = "$version";
inline constexpr std::string_view archiverKey = "$archiver";
inline constexpr std::string_view objectsKey = "$objects";
inline constexpr std::string_view topKey = "$top";
inline constexpr std::string_view rootKey = "root";

inline constexpr std::string_view classKey = "$class";
inline constexpr std::string_view classNameKey = "$classname";
inline constexpr std::string_view classesKey = "$classes";

inline constexpr std::string_view timeKey = "QS.time";
inline constexpr std::string_view keysKey = "QS.keys";
inline constexpr std::string_view elementsKey = "QS.objects";

inline constexpr std::string_view rootClass = "QSObject";
inline constexpr std::string_view dateClass = "QSDate";
inline constexpr std::string_view arrayClass = "QSArray";
inline constexpr std::string_view dictionaryClass = "QSDictionary";

}  // namespace platform::keyedArchive
