#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/QSUUID.h"

namespace tidewell {

using namespace platform;

/// A position in a container: what page tokens and sync anchors say. A plain value.
struct FSChangeToken {
    std::uint64_t version = 0;  ///< of the layout, as written by the producer
    QSUUID deviceUUID;          ///< of the event history that `streamEventID` counts in
    std::uint64_t streamEventID = 0;
    std::uint64_t offset = 0;  ///< entries passed in a paged walk; 0 when none is under way
    std::uint64_t appLibraryVersionToken = 0;

    /// Missing bytes give no token, silently; bytes that are no token give none after an error
    /// line.
    [[nodiscard]] static std::optional<FSChangeToken> fromData(const std::optional<QSData>& data);

    /// The stored form. A token that cannot be encoded ends the process.
    [[nodiscard]] QSData data() const;

    /// The token as a value within a larger archive, and the way back, which fails with code
    /// QSCoderReadCorruptError at the first key that is missing or of the wrong type.
    [[nodiscard]] QSPropertyList encode() const;
    [[nodiscard]] static Result<FSChangeToken> decode(const QSPropertyList& list);

    [[nodiscard]] std::string description() const;
};

}  // namespace tidewell
