#pragma once

#include <optional>
#include <string>

#include "platform/fileprovider/Mutations.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

// What a trashed item carries with it: when it was trashed and where it was. Failures are logged
// and change nothing else. Any thread; they block for the file system.

namespace tidewell {

using namespace platform;

/// The trash of the library that holds the URL: its first "Documents" and ".Trash" below it. Fails
/// with the invalid-parameter error after a log line.
[[nodiscard]] Result<QSURL> trashFolderFor(const QSURL& url);

/// `path` relative to `root`, component by component; none where it is not below it.
[[nodiscard]] std::optional<std::string> putBackString(const QSURL& path, const QSURL& root);

/// Writes the trash date, or removes it where there is none, of the object that is held open; of
/// one that is not, of the object that the URL's attributes are of, where it keeps any.
void setTrashDate(const HeldURL& item, const std::optional<QSDate>& date);

/// Notes on the item, in the same way, that it was at `formerURL`.
void setPutBackString(const QSURL& formerURL, const HeldURL& item);

}  // namespace tidewell
