#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSResourceValue.h"
#include "platform/foundation/QSURL.h"
#include "platform/registry/QLBundleProxy.h"

// Each logs its own failures, so that callers need not. Any thread; they block for the file system.

namespace tidewell {

using namespace platform;

/// The attribute's bytes (of a link itself); none if it is missing or cannot be read.
[[nodiscard]] std::optional<QSData> initWithValueOfXattr(std::string_view name, const QSURL& at);

/// Sets the attribute of the open file or, without bytes, removes it; removing what is not there
/// succeeds. Never closes `descriptor`.
Result<void> setOrRemoveXattr(int descriptor, std::string_view name,
                              const std::optional<QSData>& bytes);

/// Resource values by wanted type. None if missing, of another type (not logged) or unreadable.
[[nodiscard]] std::optional<std::string> stringResource(const QSURL& url, QSResourceKey key);
[[nodiscard]] std::optional<std::uint64_t> numberResource(const QSURL& url, QSResourceKey key);
[[nodiscard]] std::optional<bool> booleanResource(const QSURL& url, QSResourceKey key);
[[nodiscard]] std::optional<QSDate> dateResource(const QSURL& url, QSResourceKey key);
[[nodiscard]] std::optional<QSData> dataResource(const QSURL& url, QSResourceKey key);

/// The URL with "/private" before a leading "/var" (a plain prefix: "/variable" counts).
[[nodiscard]] QSURL properURL(const QSURL& url);

/// An error of the calling thread's errno; `code` is not consulted. Call it before anything else
/// can change errno.
[[nodiscard]] QSError errorWithPOSIXCode(int code);
[[nodiscard]] QSError errorFileWriteNoPermission();

/// The application whose library root or data container is at `url`; null if none.
[[nodiscard]] BundleRef proxyAt(const QSURL& url);
/// The application whose data container holds `url`; null if none.
[[nodiscard]] BundleRef proxyWithContaining(const QSURL& url);

}  // namespace tidewell
