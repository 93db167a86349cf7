#pragma once

#include <optional>
#include <span>
#include <string>

#include "platform/fileprovider/Mutations.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

// What a trashed item carries with it: when it was trashed and where it was. Failures are logged.
// Any thread; the calls block for the file system.

namespace tidewell {

using namespace platform;

/// The trash of the library that holds the URL: its first "Documents" and ".Trash" below it. Fails
/// with the invalid-parameter error after a log line.
[[nodiscard]] Result<QSURL> trashFolderFor(const QSURL& url);

/// `path` relative to `root`, component by component; none if it is not below it.
[[nodiscard]] std::optional<std::string> putBackString(const QSURL& path, const QSURL& root);

/// Writes the trash date, or removes it where there is none, of the open object; of
/// one that is not, of the object that the URL's attributes are of, where it keeps any.
Result<void> setTrashDate(const OpenURL& item, const std::optional<QSDate>& date);

/// Notes on the item, in the same way, that it was at `formerURL`.
Result<void> setPutBackString(const QSURL& formerURL, const OpenURL& item);

/// Writes both on what was trashed. Where that fails for now (a full disk), the next start tries
/// again.
void writeTrashRecord(TrashedObject& trashed, const QSURL& formerURL);

/// Gives the entry of a trash the present date, in the attribute and in the ledger.
void dateNow(const QSURL& url);

/// Writes what a process that ended in the middle of these operations, or could not write, left
/// out.
void finishTrashing(std::span<const TrashRow> interrupted);

}  // namespace tidewell
