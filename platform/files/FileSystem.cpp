#include "platform/files/FileSystem.h"
#include "platform/files/ExtendedAttributes.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>

#include "platform/files/Folder.h"
#include "platform/files/SystemCalls.h"
#include "platform/files/VolumeFingerprint.h"
#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"

namespace platform {

namespace {

constexpr std::uint64_t beneath = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;

/// The path with every link resolved, or nothing. What is beyond the PATH_MAX bytes that can be
/// resolved stays as it is; no link in it is followed when it is opened.
std::string resolved(const std::string& path) {
    const auto end = path.size() < PATH_MAX ? path.size() : path.rfind('/', PATH_MAX - 1);
    if (end == std::string::npos) return {};
    char* text = realpath(path.substr(0, end).c_str(), nullptr);
    if (!text) return {};
    std::string result = text + path.substr(end);
    std::free(text);
    return result;
}

/// Which folder a path led to, also after another mount.
struct FolderObject {
    VolumeFingerprint volume;
    bool isWeak = false;  ///< the identity does not outlive the mount

    static std::optional<FolderObject> of(int fd) {
        const auto attributes = readAttributes(fd, "", nullptr, {});
        if (!attributes) return std::nullopt;
        return FolderObject{VolumeFingerprint::of(fd, (*attributes)->identity),
                            (*attributes)->identityIsWeak};
    }
    [[nodiscard]] bool isSame(const FolderObject& other) const {
        if (isWeak != other.isWeak) return false;
        // Only the file system distinguishes its mounts where the identity is weak.
        const bool isSameFileSystem = volume.uuid == other.volume.uuid && !volume.uuid.empty();
        return (isWeak && isSameFileSystem) || volume.isSameFolder(other.volume);
    }
};

/// Whether two open folders are one object of one mount.
bool areOne(int one, int other) {
    constexpr unsigned wanted = STATX_INO | STATX_MNT_ID;
    struct statx first {};
    struct statx second {};
    return statx(one, "", AT_EMPTY_PATH, wanted, &first) == 0 &&
           statx(other, "", AT_EMPTY_PATH, wanted, &second) == 0 &&
           first.stx_ino == second.stx_ino && first.stx_mnt_id == second.stx_mnt_id;
}

FileDescriptor openRoot(const std::string& path) {
    return FileDescriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

}  // namespace

/// Its folder is open only while it is used, and a moment longer.
struct FileSystem::Root {
    // Constant after construction.
    std::string presented;
    std::string native;

    mutable std::mutex mutex;
    // Guarded by mutex. The object is known from the first time on that the folder is closed.
    mutable std::shared_ptr<const FileDescriptor> folder;
    mutable std::optional<FolderObject> object;
    mutable std::chrono::steady_clock::time_point lastUse{};

    /// The folder, opened again where it was closed. Null with errno where the path leads to
    /// another one or to none.
    [[nodiscard]] std::shared_ptr<const FileDescriptor> open() const {
        const std::scoped_lock lock(mutex);
        lastUse = std::chrono::steady_clock::now();
        if (folder) return folder;
        auto fd = openRoot(native);
        if (!fd) return nullptr;
        const auto found = FolderObject::of(fd.get());
        if (!found || !object || !object->isSame(*found)) {
            errno = ENOENT;
            return nullptr;
        }
        folder = std::make_shared<const FileDescriptor>(std::move(fd));
        return folder;
    }
    /// Whether that is its folder. No use of it: it stays closed.
    [[nodiscard]] bool leadsTo(int found) const {
        const std::scoped_lock lock(mutex);
        // As long as it is open, its mount has its number for itself.
        if (folder) return areOne(folder->get(), found);
        const auto now = FolderObject::of(found);
        return now && object && object->isSame(*now);
    }
    /// False where it is still open.
    bool closeIdle(std::chrono::steady_clock::duration idle) const {
        const std::scoped_lock lock(mutex);
        const bool isIdle =
            folder.use_count() <= 1 && std::chrono::steady_clock::now() - lastUse >= idle;
        if (!folder || !isIdle) return !folder;
        if (!object) object = FolderObject::of(folder->get());
        if (object) folder.reset();
        return !folder;
    }
};

Result<std::shared_ptr<const FileSystem::Root>> FileSystem::makeRoot(std::string presented,
                                                                     std::string_view native) {
    auto real = resolved(std::string(native));
    if (real.empty()) return std::unexpected(errorFromErrno(errno, native));
    auto fd = openRoot(real);
    if (!fd) return std::unexpected(errorFromErrno(errno, native));
    const auto root = std::make_shared<Root>();
    root->presented = std::move(presented);
    root->native = std::move(real);
    root->folder = std::make_shared<const FileDescriptor>(std::move(fd));
    root->lastUse = std::chrono::steady_clock::now();
    return root;
}

bool FileSystem::closeIdleRoots(std::chrono::steady_clock::duration idle) const {
    const std::shared_lock lock(mutex_);
    bool someAreOpen = false;
    for (const auto& root : roots_) someAreOpen |= !root->closeIdle(idle);
    return someAreOpen;
}

FileSystem::Location FileSystem::locate(const QSURL& url) const {
    auto location = textuallyLocate(url);
    if (!location.root) return location;
    location.folder = location.root->open();
    if (!location.folder) location.error = errno;
    return location;
}

Result<std::unique_ptr<FileSystem>> FileSystem::open(std::string_view storage) {
    auto root = makeRoot(std::string(presentedStoragePath), storage);
    if (!root) return std::unexpected(root.error());
    std::unique_ptr<FileSystem> files(new FileSystem);
    files->nativeStorage_ = (*root)->native;
    files->credentials_ = Credentials::ofThisProcess();
    files->roots_.push_back(std::move(*root));
    return files;
}

Result<QSURL> FileSystem::addContainer(std::string_view identifier, std::string_view path) {
    auto url = containerURL(identifier);
    auto root = makeRoot(url.path(), path);
    if (!root) return std::unexpected(root.error());
    const std::scoped_lock lock(mutex_);
    std::erase_if(roots_, [&](const auto& known) { return known->presented == url.path(); });
    roots_.push_back(std::move(*root));
    return url;
}

void FileSystem::removeContainer(std::string_view identifier) {
    const auto url = containerURL(identifier);
    const std::scoped_lock lock(mutex_);
    std::erase_if(roots_, [&](const auto& known) { return known->presented == url.path(); });
}

Result<void> FileSystem::checkStorage() const {
    std::shared_ptr<const Root> root;
    {
        const std::shared_lock lock(mutex_);
        root = roots_.front();
    }
    const auto found = openRoot(nativeStorage_);
    int failure = found ? 0 : errno;
    if (found && !root->leadsTo(found.get())) failure = ENOENT;
    if (failure == ELOOP) failure = ENOTDIR;
    if (failure != 0) return std::unexpected(errorFromErrno(failure, nativeStorage_));
    return {};
}

QSURL FileSystem::storageURL() const {
    return QSURL::fileURLWithPath(presentedStoragePath);
}

FileSystem::Location FileSystem::textuallyLocate(const QSURL& url) const {
    const std::shared_lock lock(mutex_);
    for (const auto& root : roots_) {
        const auto relative = relativePath(url.path(), root->presented);
        if (!relative) continue;
        if (relative->empty()) return {root, "."};
        // An entry of a container beside its library is not part of the tree.
        if (!pathInLibrary(url.path())) return {};
        const auto isPassedOver = [&](const std::string& folder) {
            return isAtOrBelow(root->native + "/" + std::string(*relative), folder);
        };
        if (std::ranges::any_of(passedOverPaths_, isPassedOver)) return {};
        return {root, std::string(*relative)};
    }
    if (url.path() == presentedVolumePath) return {roots_.front(), "."};
    return {nullptr, url.path()};
}

int FileSystem::pathDescriptorAt(const Location& location, FileDescriptor& opened) {
    if (location.isRoot() && location.folder) return location.folder->get();
    opened = openAt(location, O_PATH);
    return opened.get();
}

FileDescriptor FileSystem::openAt(const Location& location, int flags) {
    if (location.path.empty()) {
        errno = ENOENT;
        return {};
    }
    if (!location.root) {
        return FileDescriptor(::open(location.path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW));
    }
    if (!location.folder) {
        errno = location.error;
        return {};
    }
    return FileDescriptor(
        openBeneath(location.folder->get(), location.path.c_str(), flags, beneath));
}

std::string FileSystem::nativePath(const QSURL& url) const {
    const auto location = textuallyLocate(url);
    if (!location.root) return location.path;
    if (location.isRoot()) return location.root->native;
    return (location.root->native == "/" ? "" : location.root->native) + "/" + location.path;
}

QSURL FileSystem::URLForNativePath(std::string_view path) const {
    const auto url = QSURL::fileURLWithPath(path);
    const auto inRoots = [&](std::string_view native, bool itself) -> std::optional<QSURL> {
        const std::shared_lock lock(mutex_);
        for (const auto& root : roots_) {
            const auto relative = relativePath(native, root->native);
            if (!relative || (itself && !relative->empty())) continue;
            auto found = QSURL::fileURLWithPath(root->presented + "/" + std::string(*relative));
            if (relative->empty() || pathInLibrary(found.path())) return found;
        }
        return std::nullopt;
    };
    // A folder that is itself a root is meant by any path that leads to it.
    const auto whole = resolved(url.path());
    if (auto found = whole.empty() ? std::nullopt : inRoots(whole, true)) return *found;
    const auto parent = resolved(url.URLByDeletingLastPathComponent().path());
    if (!parent.empty() && !url.lastPathComponent().empty()) {
        const auto native =
            QSURL::fileURLWithPath(parent).URLByAppendingPathComponent(url.lastPathComponent());
        if (auto found = inRoots(native.path(), false)) return *found;
    }
    return url;
}

void FileSystem::passOver(std::span<const std::string> folders) {
    for (const auto& folder : folders) {
        const auto path = resolved(folder);
        const FileDescriptor opened(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!opened) continue;
        const auto identity = readIdentity(opened.get(), "", nullptr, credentials_);
        if (!identity) continue;
        passedOver_.push_back(*identity);
        if (isAtOrBelow(path, nativeStorage_)) passedOverPaths_.push_back(path);
    }
}

Result<FileDescriptor> FileSystem::openObject(const QSURL& url, int flags) const {
    auto fd = openAt(locate(url), flags | ((flags & O_PATH) != 0 ? 0 : O_NONBLOCK | O_NOCTTY));
    if (!fd) return std::unexpected(errorFromErrno(errno, nativePath(url)));
    return fd;
}

Result<FileDescriptor> FileSystem::openForExtendedAttributes(const QSURL& url) const {
    const auto failure = [&](int code) {
        return std::unexpected(errorFromErrno(code, nativePath(url)));
    };
    const auto meant = attributes(url);
    if (!meant) return std::unexpected(meant.error());
    const auto object = openObject(url, O_PATH);
    if (!object) return std::unexpected(object.error());
    const auto found = readAttributes(object->get(), "", nullptr, credentials_);
    if (!found) return failure(static_cast<int>(found.error().code));
    if ((*found)->identity != (*meant)->identity) return failure(ESTALE);
    const bool isFile = (*found)->kind() == ObjectKind::RegularFile;
    if (!isFile && !(*found)->isDirectory()) return failure(EOPNOTSUPP);
    const auto path = descriptorPath(object->get(), "");
    constexpr int flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    FileDescriptor opened(::open(path.c_str(), O_RDONLY | flags));
    // To write attributes takes the right to write, not to read.
    if (!opened && errno == EACCES && isFile) opened.reset(::open(path.c_str(), O_WRONLY | flags));
    if (!opened) return failure(errno);
    return opened;
}

Result<std::shared_ptr<Folder>> FileSystem::openFolder(const QSURL& url) const {
    auto fd = openObject(url, O_RDONLY | O_DIRECTORY);
    if (!fd) return std::unexpected(fd.error());
    return Folder::make(*this, url, std::move(*fd));
}

Result<std::shared_ptr<const FileAttributes>> FileSystem::freshAttributes(const QSURL& url) const {
    const auto location = locate(url);
    const auto failure = [&](int code) {
        return std::unexpected(errorFromErrno(code, nativePath(url)));
    };
    const bool isTop = location.root ? location.isRoot() : url.path() == "/";
    const auto place = isTop ? location : locate(url.URLByDeletingLastPathComponent());
    FileDescriptor opened;
    const int folder = pathDescriptorAt(place, opened);
    if (folder < 0) return failure(errno);
    const auto facts = readFolderFacts(folder, passedOver_);
    if (!facts) return failure(static_cast<int>(facts.error().code));
    const std::string name(isTop ? std::string_view() : url.lastPathComponent());
    auto attributes = readAttributes(folder, name.c_str(), isTop ? nullptr : &*facts, credentials_);
    if (!attributes) return failure(static_cast<int>(attributes.error().code));
    return *attributes;
}

Result<std::shared_ptr<const FileAttributes>> FileSystem::attributes(const QSURL& url) const {
    // Nothing but attributes is ever attached to a URL.
    if (auto kept = url.attachment()) {
        return std::static_pointer_cast<const FileAttributes>(std::move(kept));
    }
    auto fetched = freshAttributes(url);
    if (fetched) url.setAttachment(*fetched);
    return fetched;
}

std::vector<Result<std::shared_ptr<const FileAttributes>>> FileSystem::attributes(
    std::span<const QSURL> urls) const {
    std::vector<Result<std::shared_ptr<const FileAttributes>>> results;
    results.reserve(urls.size());
    std::shared_ptr<Folder> folder;
    const auto isInFolder = [&](const QSURL& url) {
        const std::string_view path = url.path();
        return folder && path.substr(0, path.rfind('/')) == folder->url().path();
    };
    for (const auto& url : urls) {
        if (!isInFolder(url)) {
            const auto parent = url.URLByDeletingLastPathComponent();
            const auto location = locate(parent);
            folder.reset();
            // Roots are asked for themselves, not by their names.
            if (location.root && textuallyLocate(url).path != ".") {
                auto opened = openAt(location, O_PATH | O_DIRECTORY);
                if (opened)
                    folder = Folder::make(*this, parent, std::move(opened)).value_or(nullptr);
            }
        }
        if (!folder || url.attachment()) {
            results.push_back(attributes(url));
            continue;
        }
        auto found = folder->childAttributes(url.lastPathComponent());
        if (found) {
            url.setAttachment(*found);
            results.emplace_back(std::move(*found));
        } else {
            const auto code = static_cast<int>(found.error().code);
            results.push_back(std::unexpected(errorFromErrno(code, nativePath(url))));
        }
    }
    return results;
}

Result<std::uint32_t> FileSystem::deviceOf(const QSURL& url) const {
    const auto location = locate(url);
    FileDescriptor opened;
    const int object = pathDescriptorAt(location, opened);
    struct statx status {};
    if (object < 0 || statx(object, "", AT_EMPTY_PATH, 0, &status) != 0) {
        return std::unexpected(errorFromErrno(errno, nativePath(url)));
    }
    return foldedDevice(status.stx_dev_major, status.stx_dev_minor);
}

Result<void> FileSystem::makeFolder(const QSURL& url) const {
    if (openObject(url, O_PATH | O_DIRECTORY)) return {};
    const auto parentURL = url.URLByDeletingLastPathComponent();
    if (textuallyLocate(parentURL).root && !(parentURL == url)) {
        if (auto parent = makeFolder(parentURL); !parent) return parent;
    }
    const auto parent = openObject(parentURL, O_PATH | O_DIRECTORY);
    if (!parent) return std::unexpected(parent.error());
    const std::string name(url.lastPathComponent());
    if (mkdirat(parent->get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
        return std::unexpected(errorFromErrno(errno, nativePath(url)));
    }
    const auto made = openObject(url, O_PATH | O_DIRECTORY);
    if (!made) return std::unexpected(made.error());
    return {};
}

Result<std::uint64_t> FileSystem::followedInode(const QSURL& url) const {
    auto kept = attributes(url);
    if (!kept) return std::unexpected(kept.error());
    if ((*kept)->kind() != ObjectKind::SymbolicLink) return (*kept)->identity.inode;
    auto link = openObject(url, O_PATH);
    if (!link) return std::unexpected(link.error());
    auto parent = openObject(url.URLByDeletingLastPathComponent(), O_PATH | O_DIRECTORY);
    if (!parent) return std::unexpected(parent.error());
    struct stat status {};
    const std::string name(url.lastPathComponent());
    if (fstatat(parent->get(), name.c_str(), &status, AT_NO_AUTOMOUNT) != 0) {
        return std::unexpected(errorFromErrno(errno, nativePath(url)));
    }
    return status.st_ino;
}

Result<std::optional<QSData>> FileSystem::extendedAttribute(const QSURL& url,
                                                            std::string_view name) const {
    const auto kept = std::static_pointer_cast<const FileAttributes>(url.attachment());
    if (kept && kept->attributeNames.empty()) return std::nullopt;
    const auto stored = storedAttributeName(name);
    if (kept && !kept->hasAttribute(stored)) return std::nullopt;
    auto object = openObject(url, O_PATH);
    if (!object) return std::unexpected(object.error());
    QSData value;
    bool wasFound = false;
    for (;;) {
        const auto size = getAttribute(object->get(), "", stored.c_str(), nullptr, 0);
        wasFound = size >= 0;
        if (!wasFound) break;
        value.resize(static_cast<std::size_t>(size));
        // An empty buffer would ask for the size once more.
        std::uint8_t none = 0;
        const auto read =
            getAttribute(object->get(), "", stored.c_str(), value.empty() ? &none : value.data(),
                         value.empty() ? 1 : value.size());
        if (read >= 0) {
            value.resize(std::min(value.size(), static_cast<std::size_t>(read)));
            return value;
        }
        if (errno != ERANGE) break;  // else it grew between the two calls
    }
    if (errno == ENODATA || errno == EOPNOTSUPP || errno == EPERM || errno == ELOOP) {
        return std::nullopt;
    }
    auto error = errorFromErrno(errno, nativePath(url));
    if (wasFound) error.userInfo.emplace(attributeWasFoundErrorKey, "");
    return std::unexpected(std::move(error));
}

}  // namespace platform
