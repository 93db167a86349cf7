#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSResourceValue.h"
#include "platform/foundation/QSURL.h"

// Operations on URLs that need more than the file system: types, identities, the index. All work on
// the installed platform, may block for the file system and run on any thread.

namespace platform {

/// A resource value of the object, from the attributes that the URL keeps or from the disk (kept
/// then). monostate
/// where the object has no such value. A missing object fails with QSMochaErrorDomain 260, anything
/// else with the POSIX error. FileID and DocumentIdentifier of an existing object are what the URL
/// keeps: monostate means not known yet.
[[nodiscard]] Result<QSResourceValue> resourceValue(const QSURL& url, QSResourceKey key);

/// Whether the host browses into the object: a directory that is no package. A URL that keeps
/// IsDirectory answers with that, for a removed object. False if it cannot be found out.
[[nodiscard]] bool qp_isFolder(const QSURL& url);

/// Gives each URL, whose attributes must be kept already, its file ID or document ID as a kept
/// resource value, in one durable transaction for all. A URL without attributes is passed over.
Result<void> prefetchIdentifiers(std::span<const QSURL> urls);

/// The document ID of the object with those kept attributes, allocated where it has none; 0 with
/// errno on failure.
[[nodiscard]] std::uint32_t QGLibraryGetOrAllocateDocumentId(const QSURL& url);
/// The file ID of the object, never another object's; 0 with errno on failure.
[[nodiscard]] std::uint64_t fileIDOfObject(const QSURL& url);
/// The file ID of the document with that ID on that device; 0 with errno on failure (ENOENT
/// unknown; EAGAIN, EBUSY and ESTALE are worth another try).
[[nodiscard]] std::uint64_t QGLibraryResolveDocumentId2(std::uint64_t documentID,
                                                        std::uint32_t device);

/// `stat` as the platform presents it: links followed, and of a folder the link count is its number
/// of entries (hidden ones too) plus 2 on every file system, 65,537 at the most.
struct FileStatus {
    std::uint64_t inode = 0;
    std::uint64_t linkCount = 0;
};
[[nodiscard]] Result<FileStatus> statusOfURL(const QSURL& url);

/// A folder's link count, as above, and which of `names` it holds, all from one reading.
struct FolderContents {
    std::uint64_t linkCount = 0;
    std::vector<bool> isPresent;  ///< as many as `names`
};
[[nodiscard]] Result<FolderContents> contentsOfFolder(const QSURL& folder,
                                                      std::span<const std::string_view> names);

/// Bytes of all regular files below the folder, links not followed.
[[nodiscard]] Result<std::uint64_t> qp_directorySizeWithError(const QSURL& folder);

}  // namespace platform
