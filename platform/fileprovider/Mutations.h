#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSProgress.h"
#include "platform/foundation/QSURL.h"
#include "platform/volume/TrashLedger.h"

// The operations on URLs that change the tree. Each begins at once on a thread of its own choosing
// and calls the completion handler there, once, under no lock; what goes wrong first ends it, with
// everything as it was. They run beside one another, so one that takes long holds up nobody.
//
// An operation acts on the object, and in the destination folder, that the URL's attributes are of,
// where the URL keeps any, and on nothing that took its place: QPItemNotFoundError then. Names are
// checked once, here (see checkName). A name that is taken is decided by the kernel, never by
// looking first; nothing is ever replaced. Where no other name may be picked, the error is
// QSMochaErrorDomain 516 with the path of the object that has it under qp_collidingURLKey. The
// roots, what is outside the libraries, ".Trash" and the temporary folder are refused with 513. All
// paths in errors are native.

namespace platform {

/// Presented path, in the userInfo of the error for a taken name.
inline constexpr std::string_view qp_collidingURLKey = "qp_collidingURL";

/// In the userInfo of QPItemNotFoundError where it is the destination folder that is missing.
inline constexpr std::string_view qp_isDestinationKey = "qp_isDestination";

/// The URL of what came of it; it keeps the object's attributes as they were then.
using qp_URLHandler = std::move_only_function<void(Result<QSURL>)>;
using qp_ErrorHandler = std::move_only_function<void(std::optional<QSError>)>;

/// An object where it is now, opened with O_PATH; not open if it was removed since.
struct OpenURL {
    QSURL url;
    FileDescriptor object = {};
};

/// What was trashed, and its record. The next start writes the attributes unless they are written
/// when `intent` ends, which belongs to the platform.
struct TrashedObject : OpenURL {
    QSDate date = {};
    std::unique_ptr<TrashLedger::Intent> intent = {};
};
using qp_TrashHandler = std::move_only_function<void(Result<TrashedObject>)>;

/// Makes a folder in `folder`, under a free name like `name` where that is taken.
void qp_createSubFolder(const QSURL& folder, std::string_view name,
                        qp_URLHandler completionHandler);

/// Copies what is at `source` (any URL) into the folder, with all that is below it, under a free
/// name. Durable when it completes, and whole or missing whatever happens on the way. ENOTSUP for
/// what is neither file, folder nor link.
std::shared_ptr<QSProgress> qp_importUnderFolder(const QSURL& source, const QSURL& folder,
                                                 qp_URLHandler completionHandler);

/// Gives the object that name or none.
void qp_renameWithNewName(const QSURL& url, std::string_view newName,
                          qp_URLHandler completionHandler);

/// Moves the object into the folder: under `newName` or not at all; without one under a free name
/// like its own. Where the file system cannot move it, it is copied, synced and then removed.
std::shared_ptr<QSProgress> qp_reparentUnderFolder(const QSURL& url, const QSURL& folder,
                                                   const std::optional<std::string>& newName,
                                                   qp_URLHandler completionHandler);
/// The same under its own name; under a free name like it only where `allowBouncing`.
std::shared_ptr<QSProgress> qp_reparentUnderFolder(const QSURL& url, const QSURL& folder,
                                                   bool allowBouncing,
                                                   qp_URLHandler completionHandler);

/// Moves the object into a trash folder, under a free name. One that is already directly in it
/// stays, with a new date. A folder that is a link, another user's or writable for others is
/// refused with 513. The trash ledger has the record before the object moves. Done at once, on the
/// calling thread and without a progress, unless it has to be copied.
std::shared_ptr<QSProgress> qp_trashUnderFolder(const QSURL& url, const QSURL& trash,
                                                qp_TrashHandler completionHandler);

/// Removes the object with all that is below it. After a failure or a cancel, what is left of it is
/// back in its place; after the end of the process, the next one goes on with it.
std::shared_ptr<QSProgress> qp_deleteWithCompletionHandler(const QSURL& url,
                                                           qp_ErrorHandler completionHandler);

/// Opens the object with O_PATH, which needs no right to read it; ESTALE where it is not the one
/// that the attributes are of which the URL keeps. Blocks for the file system.
[[nodiscard]] Result<FileDescriptor> openSameObject(const QSURL& url);

}  // namespace platform
