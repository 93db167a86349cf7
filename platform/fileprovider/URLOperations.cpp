#include "platform/fileprovider/URLOperations.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/fileprovider/Platform.h"
#include "platform/files/Folder.h"

namespace platform {

namespace {

using AttributesRef = std::shared_ptr<const FileAttributes>;

constexpr std::uint64_t largestLinkCount = 65'537;  // 65,535 children, what a 16-bit count holds

const FileSystem& files() {
    return Platform::current().files();
}
const TypeRegistry& types() {
    return Platform::current().types();
}

QSError asResourceError(const QSError& error, const QSURL& url) {
    if (error.domain != QSPOSIXErrorDomain || error.code != ENOENT) return error;
    auto missing = mochaError(QSFileNoSuchFileError, "no such file");
    missing.userInfo.emplace(QSFilePathErrorKey, files().nativePath(url));
    return missing;
}

std::string typeOf(const FileAttributes& attributes, std::string_view name) {
    switch (attributes.kind()) {
        case ObjectKind::Directory:
            return std::string(types().typeOfDirectory(name));
        case ObjectKind::RegularFile:
            return std::string(types().typeOfFile(name));
        case ObjectKind::SymbolicLink:
            return "inode/symlink";
        case ObjectKind::Other:
            break;
    }
    return "inode/special";
}

bool isPackage(const FileAttributes& attributes, std::string_view name) {
    return attributes.isDirectory() &&
           types().conforms(types().typeOfDirectory(name), packageTypeIdentifier);
}

/// The identity service takes a document ID for files and packages, a file ID for the rest.
bool needsDocumentID(const FileAttributes& attributes, std::string_view name) {
    return attributes.kind() == ObjectKind::RegularFile || isPackage(attributes, name);
}

QSResourceValue valueOf(const FileAttributes& attributes, const QSURL& url, QSResourceKey key) {
    const auto name = url.lastPathComponent();
    switch (key) {
        case QSResourceKey::ParentDirectoryURL:
            return url.URLByDeletingLastPathComponent().path();
        case QSResourceKey::Name:
        case QSResourceKey::LocalizedName:
            return std::string(name);
        case QSResourceKey::TypeIdentifier:
            return typeOf(attributes, name);
        case QSResourceKey::FileSize:
            if (attributes.isDirectory()) return {};
            return attributes.size;
        case QSResourceKey::CreationDate:
            return attributes.creation ? QSResourceValue(*attributes.creation) : QSResourceValue();
        case QSResourceKey::ContentModificationDate:
            return attributes.modification;
        case QSResourceKey::IsReadable:
            return attributes.isReadable;
        case QSResourceKey::IsWritable:
            return attributes.isWritable;
        case QSResourceKey::IsPackage:
            return isPackage(attributes, name);
        case QSResourceKey::IsDirectory:
            return attributes.isDirectory();
        case QSResourceKey::FileID:
        case QSResourceKey::DocumentIdentifier:
            break;
    }
    return {};
}

/// Number of entries and presence of names by reading the folder through.
Result<FolderContents> readContents(Folder& folder, std::span<const std::string_view> names) {
    FolderContents contents{2, std::vector<bool>(names.size())};
    for (;;) {
        auto entry = folder.next();
        if (!entry) return std::unexpected(entry.error());
        if (!*entry) return contents;
        contents.linkCount = std::min(contents.linkCount + 1, largestLinkCount);
        const auto found = std::ranges::find(names, (*entry)->name);
        if (found != names.end()) {
            contents.isPresent[static_cast<std::size_t>(found - names.begin())] = true;
        }
    }
}

std::uint64_t linkCountOfFolder(const QSURL& url, const FileAttributes& attributes) {
    auto& volume = Platform::current().volume();
    if (const auto known = volume.entryCount(attributes)) {
        return std::min(*known + 2, largestLinkCount);
    }
    auto folder = files().openFolder(url);
    if (!folder) return 2;
    const auto contents = readContents(**folder, {});
    if (!contents) return 2;
    return contents->linkCount;
}

/// Adds the sizes below `folder`; descends by open folders, so the depth is that of the tree.
Result<std::uint64_t> sizeBelow(Folder& folder) {
    std::uint64_t size = 0;
    for (;;) {
        auto entry = folder.next();
        if (!entry) return std::unexpected(entry.error());
        if (!*entry) return size;
        const std::string name((*entry)->name);
        if ((*entry)->kind == ObjectKind::RegularFile) {
            auto attributes = folder.childAttributes(name);
            if (!attributes) return std::unexpected(attributes.error());
            size += (*attributes)->size;
        } else if ((*entry)->kind == ObjectKind::Directory) {
            auto child = folder.openChild(name);
            if (!child) return std::unexpected(child.error());
            auto below = sizeBelow(**child);
            if (!below) return below;
            size += *below;
        }
    }
}

}  // namespace

Result<QSResourceValue> resourceValue(const QSURL& url, QSResourceKey key) {
    if (key == QSResourceKey::FileID || key == QSResourceKey::DocumentIdentifier) {
        if (auto kept = url.cachedResourceValue(key); kept.index() != 0) return kept;
    }
    const auto attributes = files().attributes(url);
    if (!attributes) return std::unexpected(asResourceError(attributes.error(), url));
    return valueOf(**attributes, url, key);
}

bool qp_isFolder(const QSURL& url) {
    const auto kept = url.cachedResourceValue(QSResourceKey::IsDirectory);
    if (const auto* isDirectory = std::get_if<bool>(&kept)) return *isDirectory;
    const auto attributes = files().attributes(url);
    return attributes && (*attributes)->isDirectory() &&
           !isPackage(**attributes, url.lastPathComponent());
}

Result<void> prefetchIdentifiers(std::span<const QSURL> urls) {
    std::vector<VolumeService::IdentityRequest> requests;
    std::vector<const QSURL*> requesters;
    std::vector<AttributesRef> kept;
    requests.reserve(urls.size());
    for (const auto& url : urls) {
        auto attributes = std::static_pointer_cast<const FileAttributes>(url.attachment());
        if (!attributes) continue;
        const auto name = url.lastPathComponent();
        requests.push_back({attributes.get(), name, needsDocumentID(*attributes, name), {}});
        requesters.push_back(&url);
        kept.push_back(std::move(attributes));
    }
    auto identified = Platform::current().volume().identify(requests);
    if (!identified) return identified;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const auto& [object, name, wantsDocumentID, identity] = requests[i];
        if (wantsDocumentID) {
            requesters[i]->setCachedResourceValue(QSResourceKey::DocumentIdentifier,
                                                  std::uint64_t{identity.documentID});
        } else {
            requesters[i]->setCachedResourceValue(QSResourceKey::FileID, identity.fileID);
        }
    }
    return {};
}

namespace {

/// Identifies one object; errno on failure.
std::optional<VolumeService::Identity> identifyOne(const QSURL& url, bool wantsDocumentID) {
    const auto attributes = files().attributes(url);
    if (!attributes) {
        errno = static_cast<int>(attributes.error().code);
        return std::nullopt;
    }
    VolumeService::IdentityRequest request{
        attributes->get(), url.lastPathComponent(), wantsDocumentID, {}};
    const auto identified = Platform::current().volume().identify({&request, 1});
    if (!identified) {
        errno = identified.error().domain == QSPOSIXErrorDomain
                    ? static_cast<int>(identified.error().code)
                    : EIO;
        return std::nullopt;
    }
    return request.result;
}

}  // namespace

std::uint32_t QGLibraryGetOrAllocateDocumentId(const QSURL& url) {
    const auto identity = identifyOne(url, true);
    return identity ? identity->documentID : 0;
}

std::uint64_t fileIDOfObject(const QSURL& url) {
    const auto identity = identifyOne(url, false);
    return identity ? identity->fileID : 0;
}

std::uint64_t QGLibraryResolveDocumentId2(std::uint64_t documentID, std::uint32_t device) {
    auto& volume = Platform::current().volume();
    if (documentID > UINT32_MAX || !volume.UUIDForDevice(device)) {
        errno = ENOENT;
        return 0;
    }
    const auto fileID = volume.fileIDForDocumentID(static_cast<std::uint32_t>(documentID));
    if (!fileID) {
        errno = static_cast<int>(fileID.error().code);
        return 0;
    }
    return *fileID;
}

Result<FileStatus> statusOfURL(const QSURL& url) {
    const auto attributes = files().attributes(url);
    if (!attributes) return std::unexpected(attributes.error());
    const auto inode = files().followedInode(url);
    if (!inode) return std::unexpected(inode.error());
    const bool isFolder = (*attributes)->isDirectory();
    return FileStatus{*inode, isFolder ? linkCountOfFolder(url, **attributes) : 1};
}

Result<FolderContents> contentsOfFolder(const QSURL& url, std::span<const std::string_view> names) {
    auto folder = files().openFolder(url);
    if (!folder) return std::unexpected(folder.error());
    return readContents(**folder, names);
}

Result<std::uint64_t> qp_directorySizeWithError(const QSURL& url) {
    auto folder = files().openFolder(url);
    if (!folder) return std::unexpected(folder.error());
    return sizeBelow(**folder);
}

}  // namespace platform
