#include "platform/tree/TreeLayout.h"

#include "platform/tree/PathRelation.h"

namespace platform {

namespace {

/// Whether the text is "Documents" with any number of `mark` behind it.
constexpr char mark = '~';
bool isMarkedDocuments(std::string_view text) {
    return text.starts_with(documentsName) &&
           text.find_first_not_of(mark, documentsName.size()) == std::string_view::npos;
}

}  // namespace

QSURL temporaryFolderURL() {
    return QSURL::fileURLWithPath(presentedStoragePath)
        .URLByAppendingPathComponent(temporaryFolderName);
}

// No container may be called "Documents", or its library would seem to begin with it.
QSURL containerURL(std::string_view identifier) {
    auto name = std::string(identifier);
    if (isMarkedDocuments(name)) name += mark;
    return QSURL::fileURLWithPath(presentedContainersPath).URLByAppendingPathComponent(name);
}

std::optional<std::string> identifierOfContainerAt(std::string_view path) {
    const auto relative = relativePath(path, presentedContainersPath);
    if (!relative || relative->empty()) return std::nullopt;
    auto name = relative->substr(0, relative->find('/'));
    if (isMarkedDocuments(name) && name != documentsName) name.remove_suffix(1);
    return std::string(name);
}

QSURL libraryRootInContainer(const QSURL& container) {
    return container.URLByAppendingPathComponent(documentsName);
}

std::optional<QSURL> libraryRootOf(const QSURL& url) {
    const std::string_view path = url.path();
    for (std::size_t begin = 1; begin < path.size();) {
        const auto end = std::min(path.find('/', begin), path.size());
        if (path.substr(begin, end - begin) == documentsName) {
            return QSURL::fileURLWithPath(path.substr(0, end));
        }
        begin = end + 1;
    }
    return std::nullopt;
}

std::optional<std::string_view> pathInLibrary(std::string_view path) {
    if (const auto relative = relativePath(path, presentedStoragePath)) return relative;
    const auto inContainers = relativePath(path, presentedContainersPath);
    if (!inContainers) return std::nullopt;
    const auto slash = inContainers->find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    return relativePath(inContainers->substr(slash + 1), documentsName);
}

QSURL trashInLibrary(const QSURL& root) {
    return root.URLByAppendingPathComponent(trashName);
}

bool isInTrash(std::string_view path) {
    constexpr std::string_view pair = "/Documents/.Trash";
    for (auto at = path.find(pair); at != std::string_view::npos; at = path.find(pair, at + 1)) {
        const auto end = at + pair.size();
        if (end == path.size() || path[end] == '/') return true;
    }
    return false;
}

bool hasToStay(std::string_view path) {
    const auto relative = pathInLibrary(path);
    return !relative || relative->empty() || *relative == trashName ||
           relativePath(path, temporaryFolderURL().path()) == "";
}

}  // namespace platform
