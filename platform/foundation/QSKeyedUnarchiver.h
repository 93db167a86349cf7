#pragma once

#include <cstdint>
#include <initializer_list>

#include "platform/foundation/QSPropertyList.h"

namespace platform {

/// The classes that a keyed archive may hold. A boolean is a number.
enum class ArchiveClass : std::uint8_t { Date, String, Number, Array, Dictionary, Data };

/// A set of them, made from a list in braces.
class ArchiveClasses {
  public:
    constexpr ArchiveClasses(std::initializer_list<ArchiveClass> members) {
        for (const auto member : members) bits_ |= bit(member);
    }
    [[nodiscard]] constexpr bool contains(ArchiveClass member) const {
        return (bits_ & bit(member)) != 0;
    }

  private:
    static constexpr unsigned bit(ArchiveClass member) {
        return 1U << static_cast<unsigned>(member);
    }

    unsigned bits_ = 0;
};

/// The root object of a keyed archive. The class of each object is checked against `allowed` before
/// anything of the object is built; one that is not allowed refuses the whole archive, as do cycles
/// and everything that the reader of property lists refuses. The code is then
/// QSCoderReadCorruptError. `limits` bound the archive, and its result once more by itself. Keys of
/// dictionaries are strings and need no ArchiveClass::String. Does not block; any thread.
[[nodiscard]] Result<QSPropertyList> unarchivedObjectOfClasses(
    ArchiveClasses allowed, QSDataView data, const QSPropertyListLimits& limits = {});

}  // namespace platform
