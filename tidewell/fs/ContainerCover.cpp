#include "tidewell/fs/ContainerCover.h"

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/files/LookFailure.h"
#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"

namespace tidewell {

namespace {

constexpr WalkOptions recursiveOptions = walkSkipsHiddenEntries | walkSkipsPackageDescendants;
constexpr WalkOptions singleFolderOptions = walkSkipsHiddenEntries | walkDescendsIntoNothing;

WalkOptions optionsFor(std::string_view name, WalkOptions inherited) {
    return name == trashName ? singleFolderOptions : inherited;
}

ContainerCover::Place placeOf(const QSURL& root, std::string_view relative) {
    const auto found = placementOf(relative, isPackageName);
    switch (found.kind) {
        case Placement::Kind::Itself:
            return {Cover::Root};
        case Placement::Kind::Shown:
            return {Cover::Shown};
        case Placement::Kind::InTrash:
            return {Cover::Trashed};
        case Placement::Kind::Hidden:
            return {Cover::Hidden};
        case Placement::Kind::InPackage:
            break;
    }
    const auto package = relative.substr(0, found.packageLength);
    return {Cover::InPackage, QSURL::fileURLWithPath(root.path() + "/" + std::string(package))};
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
        const auto below = relativePath(url.path(), urls_.front().path());
        if (!below) return {};
        const auto place = tidewell::placeOf(urls_.front(), *below);
        if (place.package && place.package->URLByDeletingLastPathComponent() == urls_.front()) {
            return place;
        }
        return below->find('/') == std::string_view::npos ? place : Place{};
    }
    for (const auto& root : urls_) {
        const auto below = relativePath(url.path(), root.path());
        if (below) return tidewell::placeOf(root, *below);
    }
    return {};
}

Cover ContainerCover::coverOf(const LocalItem& item) const {
    const auto url = item.fileURL();
    const auto cover = url ? placeOf(*url).cover : Cover::Outside;
    if (cover != Cover::Shown) return cover;
    // Who browses the trash sees what is in it, and what changes there.
    if (item.isTrashed() && (isRecursive() || !isInTrash(urls_.front().path()))) {
        return Cover::Trashed;
    }
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
        if (isWorkingSet_) add(trashInLibrary(url), singleFolderOptions);
    }
    return roots;
}

DirectoryWalk ContainerCover::makeWalk(std::vector<DirectoryWalk::Root> roots) const {
    return {
        std::move(roots), optionsFor,
        showsFoldersOnly_ ? DirectoryWalk::Emits::directories : DirectoryWalk::Emits::everything};
}

}  // namespace tidewell
