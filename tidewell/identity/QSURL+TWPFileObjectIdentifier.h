#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

// The way from a URL to its item identifier and back. Each failure is logged once and, save where a
// Result is returned, becomes null (0 for a device number). Any thread; the look-ups block
// for the disk and, for an object that moved behind the index, for the history to catch up.

namespace tidewell {

using namespace platform;

/// The item identifier of the object at the URL. What the URL keeps is answered without opening the
/// object; an ID that is new is durable before it is returned.
[[nodiscard]] std::optional<std::string> itemIdentifier(const QSURL& url);

/// The item identifier of the folder in which the object was seen: where the folder moved since,
/// not of the object that has its path now.
[[nodiscard]] std::optional<std::string> parentIdentifier(const QSURL& url);

/// The URL of the item that bears the identifier now. App-library identifiers are not for here.
[[nodiscard]] std::optional<QSURL> fileURLWithItemIdentifier(std::string_view identifier);

// The same three for callers to whom "has none" and "could not be found out" are different answers:
// none is the first, an error the second.
[[nodiscard]] Result<std::optional<std::string>> findItemIdentifier(const QSURL& url);
[[nodiscard]] Result<std::optional<std::string>> findParentIdentifier(const QSURL& url);
[[nodiscard]] Result<std::optional<QSURL>> findFileURLWithItemIdentifier(
    std::string_view identifier);

/// The object with that file ID on the storage's volume.
[[nodiscard]] std::optional<QSURL> fileURLWithFileIdentifier(std::uint64_t fileID);
/// The same on a given device. The place is not checked.
[[nodiscard]] std::optional<QSURL> fileURLWithFileIdentifier(std::uint64_t fileID,
                                                             std::uint32_t deviceIdentifier);

/// 32 bits that name the device the object is on now.
[[nodiscard]] Result<std::uint32_t> deviceIDWithError(const QSURL& url);
/// The same; 0 means unknown, with errno.
[[nodiscard]] std::uint32_t deviceID(const QSURL& url);

/// One call of the storage service: the file ID, or 0 with errno.
using DocumentIDResolver =
    std::function<std::uint64_t(std::uint64_t documentID, std::uint32_t device)>;

/// The file ID of a document; tries again after 1 ms, five times at most, while the service says
/// EAGAIN, EBUSY or ESTALE.
[[nodiscard]] std::optional<std::uint64_t> fileIDForDocumentID(std::uint64_t documentID,
                                                               std::uint32_t device,
                                                               const DocumentIDResolver& resolve);

}  // namespace tidewell
