#include "tidewell/fs/ContainerCover.h"

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/files/LookFailure.h"

namespace tidewell {

namespace {

constexpr std::string_view trashName = ".Trash";
constexpr WalkOptions recursiveOptions = walkSkipsHiddenEntries | walkSkipsPackageDescendants;
constexpr WalkOptions singleFolderOptions = walkSkipsHiddenEntries | walkDescendsIntoNothing;

WalkOptions optionsFor(std::string_view name, WalkOptions inherited) {
    return name == trashName ? singleFolderOptions : inherited;
}

/// The part of the path below the root, "" for the root itself; none outside.
std::optional<std::string_view> pathBelow(const QSURL& root, const QSURL& url) {
    const std::string_view path = url.path();
    if (!path.starts_with(root.path())) return std::nullopt;
    const auto rest = path.substr(root.path().size());
    if (rest.empty()) return rest;
    if (!rest.starts_with('/')) return std::nullopt;
    return rest.substr(1);
}

/// What the names on the way from a root to a place make of it.
ContainerCover::Place placeBelow(const QSURL& url, std::string_view below) {
    if (below.empty()) return {Cover::Root};
    for (bool isFirst = true;; isFirst = false) {
        const auto slash = below.find('/');
        const auto name = below.substr(0, slash);
        if (isHiddenName(name)) {
            return {isFirst && name == trashName ? Cover::Trashed : Cover::Hidden};
        }
        if (slash == std::string_view::npos) return {Cover::Shown};
        below.remove_prefix(slash);
        if (isPackageName(name)) {
            const auto path = std::string_view(url.path());
            const auto package = path.substr(0, path.size() - below.size());
            return {Cover::InPackage, QSURL::fileURLWithPath(package)};
        }
        below.remove_prefix(1);
    }
}

}  // namespace

bool isPackageName(std::string_view name) {
    const auto& types = Platform::current().types();
    return types.conforms(types.typeOfDirectory(name), packageTypeIdentifier);
}

ContainerCover::ContainerCover(std::string container, std::vector<QSURL> urls)
    : container_(std::move(container)),
      urls_(std::move(urls)),
      isWorkingSet_(container_ == QSFileProviderWorkingSetContainerItemIdentifier),
      showsFoldersOnly_(container_ == QSFileProviderAllDirectoriesContainerItemIdentifier) {
    const auto kept = std::static_pointer_cast<const FileAttributes>(urls_.front().attachment());
    if (kept && !isRecursive()) meant_ = kept->identity;
}

ContainerCover::Place ContainerCover::placeOf(const QSURL& url) const {
    if (!isRecursive()) {
        const auto below = pathBelow(urls_.front(), url);
        if (!below) return {};
        const auto place = placeBelow(url, *below);
        if (place.package && place.package->URLByDeletingLastPathComponent() == urls_.front()) {
            return place;
        }
        return below->find('/') == std::string_view::npos ? place : Place{};
    }
    for (const auto& root : urls_) {
        if (const auto below = pathBelow(root, url)) return placeBelow(url, *below);
    }
    return {};
}

Cover ContainerCover::coverOf(const LocalItem& item) const {
    const auto url = item.fileURL();
    const auto cover = url ? placeOf(*url).cover : Cover::Outside;
    if (cover != Cover::Shown) return cover;
    if (item.isTrashed()) return Cover::Trashed;
    return showsFoldersOnly_ && !item.isFolder() ? Cover::NotAFolder : Cover::Shown;
}

Result<bool> ContainerCover::isInPlace() const {
    if (!meant_) return true;
    const auto found = Platform::current().files().freshAttributes(urls_.front());
    if (found) return (*found)->identity == *meant_;
    if (lookFailureOf(found.error()) == LookFailure::Missing) return false;
    return std::unexpected(found.error());
}

WalkOptions ContainerCover::walkOptions() const {
    return isRecursive() ? recursiveOptions : singleFolderOptions;
}

std::vector<DirectoryWalk::Root> ContainerCover::walkRoots() const {
    std::vector<DirectoryWalk::Root> roots;
    const auto add = [&](const QSURL& url, WalkOptions options) {
        roots.push_back({url, optionsFor(url.lastPathComponent(), options)});
    };
    if (!isRecursive()) {
        add(urls_.front(), singleFolderOptions);
        roots.front().identity = meant_;
        return roots;
    }
    for (const auto& url : urls_) {
        add(url, recursiveOptions);
        if (isWorkingSet_) add(url.URLByAppendingPathComponent(trashName), singleFolderOptions);
    }
    return roots;
}

DirectoryWalk ContainerCover::makeWalk(std::vector<DirectoryWalk::Root> roots) const {
    return {
        std::move(roots), optionsFor,
        showsFoldersOnly_ ? DirectoryWalk::Emits::directories : DirectoryWalk::Emits::everything};
}

}  // namespace tidewell
