#include "platform/fileprovider/MutableTree.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "platform/fileprovider/Mutations.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/files/Folder.h"
#include "platform/files/ItemNames.h"
#include "platform/files/SystemCalls.h"
#include "platform/files/TreeRemoval.h"
#include "platform/tree/TreeLayout.h"

namespace platform {

namespace {

constexpr std::uint64_t beneath = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;

QSError notPermitted(std::string_view why, const std::string& path) {
    auto error = mochaError(QSFileWriteNoPermissionError, why);
    error.userInfo.emplace(QSFilePathErrorKey, path);
    return error;
}

/// What says that an object is not where it was.
bool meansMissing(int code) {
    return code == ENOENT || code == ENOTDIR || code == ELOOP || code == EXDEV;
}

/// Of two objects that are both held open.
bool areSame(const struct stat& one, const struct stat& other) {
    return one.st_ino == other.st_ino && one.st_dev == other.st_dev;
}
bool areSame(int one, int other) {
    struct stat first {};
    struct stat second {};
    return fstat(one, &first) == 0 && fstat(other, &second) == 0 && areSame(first, second);
}

FileDescriptor duplicate(int fd) {
    return FileDescriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

/// When an open object was changed last, its name included. Empty if that cannot be read.
std::optional<std::pair<std::int64_t, std::int64_t>> changeTime(int object) {
    struct stat status {};
    if (fstat(object, &status) != 0) return std::nullopt;
    return std::pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

/// Syncs the folder that has the entry; where it cannot be read, all of the file system. Returns
/// the errno.
int syncEntry(int folder, const std::string& name) {
    const FileDescriptor readable(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (readable) return fsync(readable.get()) == 0 ? 0 : errno;
    const FileDescriptor entry(
        openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return entry && syncfs(entry.get()) == 0 ? 0 : errno;
}

QSError missingError(const std::string& path) {
    auto error = QPItemNotFoundError(path);
    error.userInfo.insert_or_assign(std::string(QSDescriptionErrorKey),
                                    "the item is not there any more");
    error.userInfo.emplace(QSFilePathErrorKey, path);
    return error;
}

}  // namespace

QSError MutableTree::failure(int code, const QSURL& url) const {
    auto error = errorFromErrno(code, files_.nativePath(url));
    const auto describe = [&](std::string_view why) {
        error.userInfo.emplace(QSDescriptionErrorKey, why);
    };
    if (code == EINVAL) describe("a folder cannot be moved or copied into itself");
    if (code == EBUSY) describe("it was changed while it was copied");
    if (code == ENOTSUP) describe("only files, folders and links can be copied");
    if (code == EXDEV) describe("the file system does not let it be moved");
    if (code == E2BIG) describe("the extended attributes do not fit the file system");
    return error;
}

QSError MutableTree::failure(const QSError& error, const QSURL& url) const {
    if (error.domain != QSPOSIXErrorDomain) return error;
    auto failed = failure(static_cast<int>(error.code), url);
    const auto path = error.userInfo.find(QSFilePathErrorKey);
    if (path != error.userInfo.end()) failed.userInfo.insert_or_assign(path->first, path->second);
    return failed;
}

Result<MutableTree::OpenFolder> MutableTree::openFolder(const QSURL& url) const {
    if (!pathInLibrary(url.path())) {
        return std::unexpected(notPermitted("not a folder of documents", files_.nativePath(url)));
    }
    auto missing = missingError(files_.nativePath(url));
    missing.userInfo.emplace(qp_isDestinationKey, "");
    auto fd = files_.openObject(url, O_PATH | O_DIRECTORY);
    if (!fd) {
        const auto code = static_cast<int>(fd.error().code);
        if (code == ENOTDIR) return std::unexpected(failure(code, url));
        return std::unexpected(meansMissing(code) ? std::move(missing) : std::move(fd.error()));
    }
    if (const auto meant = std::static_pointer_cast<const FileAttributes>(url.attachment())) {
        const auto found = readIdentity(fd->get(), "", nullptr, files_.credentials());
        if (!found) return std::unexpected(found.error());
        if (*found != meant->identity) return std::unexpected(std::move(missing));
    }
    return OpenFolder{url, std::move(*fd)};
}

Result<MutableTree::OpenItem> MutableTree::hold(const QSURL& url) const {
    const auto native = files_.nativePath(url);
    if (hasToStay(url.path())) {
        return std::unexpected(notPermitted("this one has to stay where it is", native));
    }
    const auto expected = std::static_pointer_cast<const FileAttributes>(url.attachment());
    const auto parentURL = url.URLByDeletingLastPathComponent();
    auto parent = files_.openObject(parentURL, O_PATH | O_DIRECTORY);
    std::string name(url.lastPathComponent());
    FileDescriptor object;
    int code = parent ? 0 : static_cast<int>(parent.error().code);
    if (parent) {
        object.reset(openBeneath(parent->get(), name.c_str(), O_PATH, beneath));
        if (!object) code = errno;
    }
    if (meansMissing(code)) return std::unexpected(missingError(native));
    if (code != 0) return std::unexpected(failure(code, url));
    const auto identity = readIdentity(object.get(), "", nullptr, files_.credentials());
    if (!identity) return std::unexpected(identity.error());
    if (expected && expected->identity != *identity) return std::unexpected(missingError(native));
    return OpenItem{{parentURL, std::move(*parent)}, std::move(name), std::move(object), *identity};
}

bool MutableTree::is(const ObjectIdentity& object, int folder, const std::string& name) const {
    const auto found = readIdentity(folder, name.c_str(), nullptr, files_.credentials());
    return found && *found == object;
}

QSURL MutableTree::made(const OpenFolder& folder, const std::string& name) const {
    return folder.url.URLByAppendingPathComponent(name);
}

/// The same for what is there now, also where the folder has been renamed since.
QSURL MutableTree::placed(const OpenFolder& folder, const std::string& name) const {
    const auto link = "/proc/self/fd/" + std::to_string(folder.fd.get());
    std::string path(PATH_MAX, '\0');
    const auto size = readlink(link.c_str(), path.data(), path.size());
    path.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    if (path.empty() || path == files_.nativePath(folder.url)) return made(folder, name);
    const auto expected = files_.openObject(folder.url, O_PATH | O_DIRECTORY);
    if (expected && areSame(expected->get(), folder.fd.get())) return made(folder, name);
    return files_.URLForNativePath(path).URLByAppendingPathComponent(name);
}

/// Renames to the first name that is free, which the kernel decides.
Result<std::string> MutableTree::renameInto(int from, const std::string& name, const OpenFolder& to,
                                            const std::string& wanted, Naming naming) const {
    auto candidate = wanted;
    for (std::uint64_t attempt = 1;; ++attempt) {
        if (renameat2(from, name.c_str(), to.fd.get(), candidate.c_str(), RENAME_NOREPLACE) == 0) {
            return candidate;
        }
        const auto url = made(to, candidate);
        if (errno != EEXIST) return std::unexpected(failure(errno, url));
        if (naming == Naming::Exact) {
            auto taken = mochaError(QSFileWriteFileExistsError, "the name is taken");
            taken.userInfo.emplace(QSFilePathErrorKey, files_.nativePath(url));
            taken.userInfo.emplace(qp_collidingURLKey, url.path());
            return std::unexpected(std::move(taken));
        }
        candidate = numberedName(wanted, nextNumber(attempt));
    }
}

/// A stranger that was moved instead of the item, or an item that stays after all, goes back to
/// where it was; under a free name if that is taken.
bool MutableTree::putBack(int from, const std::string& hidden, const OpenItem& item) const {
    return renameInto(from, hidden, item.parent, item.name, Naming::Free).has_value();
}

bool MutableTree::hasToBeCopied(const QSError& error) {
    return error.domain == QSPOSIXErrorDomain && error.code == EXDEV;
}

Result<QSURL> MutableTree::moveOpen(OpenItem& item, const OpenFolder& folder,
                                    const std::string& name, Naming naming, QSProgress& progress,
                                    const CopyHandler& onCopy) const {
    auto moved = renameOpen(item, folder, name, naming);
    if (moved || !hasToBeCopied(moved.error())) return moved;
    return copyAcross(item, folder, name, naming, progress, onCopy);
}

Result<QSURL> MutableTree::renameOpen(const OpenItem& item, const OpenFolder& folder,
                                      const std::string& name, Naming naming) const {
    const auto itemURL = made(item.parent, item.name);
    if (name == item.name && areSame(item.parent.fd.get(), folder.fd.get())) {
        return made(folder, name);
    }
    const auto reached = renameInto(item.parent.fd.get(), item.name, folder, name, naming);
    if (!reached) {
        const auto code = reached.error().domain == QSPOSIXErrorDomain ? reached.error().code : 0;
        if (code == ENOENT) return std::unexpected(missingError(files_.nativePath(itemURL)));
        return std::unexpected(reached.error());
    }
    if (!is(item.identity, folder.fd.get(), *reached)) {
        (void)putBack(folder.fd.get(), *reached, item);
        return std::unexpected(missingError(files_.nativePath(itemURL)));
    }
    return placed(folder, *reached);
}

/// For folders between which the file system moves nothing. The original is hidden while it is
/// copied, so that nobody finds it by its name and changes what was copied already.
Result<QSURL> MutableTree::copyAcross(OpenItem& item, const OpenFolder& folder,
                                      const std::string& name, Naming naming, QSProgress& progress,
                                      const CopyHandler& onCopy) const {
    const int parent = item.parent.fd.get();
    const auto url = made(item.parent, item.name);
    const auto record = hide(item, UnfinishedWork::Kind::Move);
    if (!record) return std::unexpected(record.error());
    const auto& hidden = (*record)->name();
    const auto fail = [&](QSError error) {
        if (!putBack(parent, hidden, item)) (*record)->keep();
        // Nobody knows the object under the hidden name.
        const auto path = error.userInfo.find(QSFilePathErrorKey);
        const auto at =
            path == error.userInfo.end() ? std::string::npos : path->second.find(hidden);
        if (at != std::string::npos) path->second.replace(at, hidden.size(), item.name);
        return std::unexpected(std::move(error));
    };
    const auto before = changeTime(item.object.get());
    auto copied = copyInto(parent, hidden, folder, name, naming, TreeCopy::Special::Refused,
                           progress, onCopy);
    if (!copied) return fail(std::move(copied.error()));
    // Whoever had it open may have written to it.
    const bool isUnchanged = before && before == changeTime(item.object.get());
    const OpenItem original{
        {item.parent.url, duplicate(parent)}, hidden, std::move(item.object), item.identity};
    QSProgress removal;
    const auto removed = isUnchanged ? removeOpen(original, removal)
                                     : Result<void>(std::unexpected(failure(EBUSY, url)));
    if (removed) {
        item.object = std::move(copied->object);
        item.identity = copied->identity;
        return copied->url;
    }
    // Once something of the original is missing, only the copy is whole.
    if (removal.completedItems() == 0) {
        const OpenItem copy{{folder.url, duplicate(folder.fd.get())},
                            copied->name,
                            std::move(copied->object),
                            copied->identity};
        (void)removeOpen(copy, removal);
    }
    return fail(removed.error());
}

Result<MutableTree::Copied> MutableTree::copyInto(int source, const std::string& sourceName,
                                                  const OpenFolder& folder, const std::string& name,
                                                  Naming naming, TreeCopy::Special special,
                                                  QSProgress& progress,
                                                  const CopyHandler& onCopy) const {
    const auto url = made(folder, name);
    const int target = folder.fd.get();
    auto record = begin(UnfinishedWork::Kind::Copy, folder, name, {});
    if (!record) return std::unexpected(record.error());
    const auto& hidden = (*record)->name();
    const auto fail = [&](QSError error) {
        QSProgress removal;
        if (!removeTree(target, hidden, removal)) (*record)->keep();
        return std::unexpected(std::move(error));
    };
    TreeCopy copy(progress, special);
    auto done = copy.copy(source, sourceName, target, hidden);
    if (done) done = copy.sync(target, hidden);
    if (!done) return fail(failure(done.error(), url));
    if (progress.isCancelled()) return fail(failure(ECANCELED, url));
    FileDescriptor object(openat(target, hidden.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!object) return fail(failure(errno, url));
    const auto identity = readIdentity(object.get(), "", nullptr, files_.credentials());
    if (!identity) return fail(identity.error());
    if (onCopy) onCopy(*identity);
    const auto reached = renameInto(target, hidden, folder, name, naming);
    if (!reached) return fail(reached.error());
    if (const int code = syncEntry(target, *reached); code != 0) {
        const auto removed =
            renameat2(target, reached->c_str(), target, hidden.c_str(), RENAME_NOREPLACE) == 0;
        if (!removed || is(*identity, target, hidden)) return fail(failure(code, url));
        // Another object has got the name since.
        if (!renameInto(target, hidden, folder, *reached, Naming::Free)) (*record)->keep();
        return std::unexpected(failure(code, url));
    }
    return Copied{placed(folder, *reached), *reached, std::move(object), *identity};
}

/// Walks up from the folder: none of the folders on the way to the top may be the object.
Result<void> MutableTree::checkNotInside(const FileDescriptor& object,
                                         const OpenFolder& folder) const {
    struct stat source {};
    if (fstat(object.get(), &source) != 0) return std::unexpected(failure(errno, folder.url));
    FileDescriptor above(openat(folder.fd.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (struct stat last{}, now{}; above && fstat(above.get(), &now) == 0; last = now) {
        if (areSame(now, source)) return std::unexpected(failure(EINVAL, folder.url));
        if (areSame(now, last)) break;  // the top
        above.reset(openat(above.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return {};
}

Result<QSURL> MutableTree::makeFolder(const QSURL& folderURL, const std::string& name) const {
    if (auto checked = checkName(name); !checked) return std::unexpected(checked.error());
    const auto folder = openFolder(folderURL);
    if (!folder) return std::unexpected(folder.error());
    auto candidate = name;
    for (std::uint64_t attempt = 1;; ++attempt) {
        if (mkdirat(folder->fd.get(), candidate.c_str(), 0777) == 0) {
            return placed(*folder, candidate);
        }
        if (errno != EEXIST) return std::unexpected(failure(errno, made(*folder, candidate)));
        candidate = numberedName(name, nextNumber(attempt));
    }
}

Result<QSURL> MutableTree::import(const QSURL& source, const QSURL& folderURL,
                                  QSProgress& progress) const {
    const std::string name(source.lastPathComponent());
    if (auto checked = checkName(name); !checked) return std::unexpected(checked.error());
    const auto folder = openFolder(folderURL);
    if (!folder) return std::unexpected(folder.error());
    const auto parent =
        files_.openObject(source.URLByDeletingLastPathComponent(), O_PATH | O_DIRECTORY);
    if (!parent) return std::unexpected(parent.error());
    const FileDescriptor object(
        openat(parent->get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!object) return std::unexpected(errorFromErrno(errno, files_.nativePath(source)));
    if (auto checked = checkNotInside(object, *folder); !checked) {
        return std::unexpected(checked.error());
    }
    auto copied = copyInto(parent->get(), name, *folder, name, Naming::Free,
                           TreeCopy::Special::LeftOut, progress);
    if (!copied) return std::unexpected(std::move(copied.error()));
    return std::move(copied->url);
}

Result<QSURL> MutableTree::move(const QSURL& url, const QSURL& folderURL,
                                const std::optional<std::string>& name, Naming naming,
                                QSProgress& progress) const {
    if (name) {
        if (auto checked = checkName(*name); !checked) return std::unexpected(checked.error());
    }
    auto item = hold(url);
    if (!item) return std::unexpected(item.error());
    const auto folder = openFolder(folderURL);
    if (!folder) return std::unexpected(folder.error());
    const auto identity = item->identity;
    volume_.moveBegins(identity);
    auto moved = moveOpen(*item, *folder, name.value_or(item->name), naming, progress);
    volume_.moveEnds(identity, moved.has_value());
    return moved;
}

Result<TrashedObject> MutableTree::trash(const QSURL& url, const QSURL& trashURL, Copying copying,
                                         QSProgress& progress) const {
    auto item = hold(url);
    if (!item) return std::unexpected(item.error());
    const auto refused = [&](std::string_view why) {
        return std::unexpected(notPermitted(why, files_.nativePath(trashURL)));
    };
    auto fd = files_.openObject(trashURL, O_PATH | O_DIRECTORY);
    if (!fd && meansMissing(static_cast<int>(fd.error().code))) {
        return refused("the trash is not a folder");
    }
    if (!fd) return std::unexpected(fd.error());
    struct stat status {};
    if (fstat(fd->get(), &status) != 0) return std::unexpected(failure(errno, trashURL));
    if (status.st_uid != geteuid()) return refused("the trash belongs to another user");
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return refused("the trash can be written by others");
    }
    const OpenFolder trash{trashURL, std::move(*fd)};
    const auto identity = item->identity;
    // What lies in the trash already keeps the record of where it was.
    auto record =
        volume_.trash()
            .find(url.path(), identity)
            .value_or(TrashRecord{{}, isInTrash(url.path()) ? std::string() : url.path()});
    record.date = volume_.clock().stamp();
    auto intent = volume_.trashingBegins(trashURL.path(), identity, record);
    const auto noteCopy = [&](const ObjectIdentity& copy) {
        intent = volume_.trashingBegins(trashURL.path(), copy, record);
    };
    volume_.moveBegins(identity);
    const auto moved = copying == Copying::Allowed
                           ? moveOpen(*item, trash, item->name, Naming::Free, progress, noteCopy)
                           : renameOpen(*item, trash, item->name, Naming::Free);
    volume_.moveEnds(identity, moved.has_value());
    if (!moved) return std::unexpected(moved.error());
    const auto date = record.date;
    volume_.trash().put(moved->path(), item->identity, std::move(record));
    return TrashedObject{{*moved, std::move(item->object)}, date, std::move(intent)};
}

Result<void> MutableTree::remove(const QSURL& url, QSProgress& progress) const {
    const auto item = hold(url);
    if (!item) return std::unexpected(item.error());
    return removeOpen(*item, progress);
}

Result<void> MutableTree::removeOpen(const OpenItem& item, QSProgress& progress) const {
    volume_.removalBegins(item.identity);
    auto removed = hideAndRemove(item, progress);
    struct stat status {};
    const bool isRemoved =
        removed && fstat(item.object.get(), &status) == 0 && status.st_nlink == 0;
    volume_.removalEnds(item.identity, isRemoved);
    return removed;
}

Result<std::unique_ptr<UnfinishedWork::Record>> MutableTree::begin(
    UnfinishedWork::Kind kind, const OpenFolder& folder, const std::string& name,
    const ObjectIdentity& object) const {
    const auto identity = readIdentity(folder.fd.get(), "", nullptr, files_.credentials());
    if (!identity) return std::unexpected(identity.error());
    return unfinished_.begin(kind, made(folder, name), object, *identity);
}

/// Renames the object to a hidden name beside it; another one that stood there goes back.
Result<std::unique_ptr<UnfinishedWork::Record>> MutableTree::hide(const OpenItem& item,
                                                                  UnfinishedWork::Kind kind) const {
    const auto url = made(item.parent, item.name);
    const int folder = item.parent.fd.get();
    auto record = begin(kind, item.parent, item.name, item.identity);
    if (!record) return record;
    const auto& hidden = (*record)->name();
    if (renameat2(folder, item.name.c_str(), folder, hidden.c_str(), RENAME_NOREPLACE) != 0) {
        return std::unexpected(errno == ENOENT ? missingError(files_.nativePath(url))
                                               : failure(errno, url));
    }
    if (is(item.identity, folder, hidden)) return record;
    if (!putBack(folder, hidden, item)) (*record)->keep();
    return std::unexpected(missingError(files_.nativePath(url)));
}

Result<void> MutableTree::hideAndRemove(const OpenItem& item, QSProgress& progress) const {
    const int folder = item.parent.fd.get();
    const auto record = hide(item, UnfinishedWork::Kind::Removal);
    if (!record) return std::unexpected(record.error());
    const auto removed = removeTree(folder, (*record)->name(), progress);
    if (removed) return {};
    if (!putBack(folder, (*record)->name(), item)) (*record)->keep();
    return std::unexpected(failure(removed.error(), made(item.parent, item.name)));
}

}  // namespace platform
