#include "tidewell/provider/TrashRecords.h"

#include <algorithm>
#include <span>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

namespace {

/// Sets or removes an attribute of the very object that the URL was made for.
Result<void> setAttribute(const HeldURL& item, std::string_view name,
                          const std::optional<QSData>& bytes) {
    if (item.object) return setOrRemoveXattr(item.object.get(), name, bytes);
    const auto object = openSameObject(item.url);
    if (!object) return std::unexpected(object.error());
    return setOrRemoveXattr(object->get(), name, bytes);
}

std::optional<QSData> archived(const QSPropertyList& root) {
    auto bytes = archivedDataWithRootObject(root);
    return bytes ? std::optional(std::move(*bytes)) : std::nullopt;
}

}  // namespace

Result<QSURL> trashFolderFor(const QSURL& url) {
    const auto root = libraryRootOf(url);
    if (!root) {
        logError([&] { return "no Documents directory found in path " + quoted(url.path()); });
        return std::unexpected(QPInvalidParameterError("sourceURL", url.description()));
    }
    auto components = root->pathComponents();
    components.push_back(trashName);
    auto trash = QSURL::fileURLWithPathComponents(components);
    if (!trash) {
        std::string list;
        for (const auto component : components) {
            list += (list.empty() ? "" : ", ") + std::string(component);
        }
        logError([&] { return "can't build trash URL from components " + quoted(list); });
        return std::unexpected(QPInvalidParameterError("trashComponents", list));
    }
    logDebug([&] { return "trash is located at " + quoted(trash->path()); });
    return std::move(*trash);
}

std::optional<std::string> putBackString(const QSURL& path, const QSURL& root) {
    const auto whole = path.pathComponents();
    const auto base = root.pathComponents();
    if (base.empty() || whole.size() < base.size() ||
        !std::equal(base.begin(), base.end(), whole.begin())) {
        return std::nullopt;
    }
    std::string relative;
    for (const auto component : std::span(whole).subspan(base.size())) {
        if (!relative.empty()) relative += '/';
        relative += component;
    }
    return relative;
}

void setTrashDate(const HeldURL& item, const std::optional<QSDate>& date) {
    const auto& url = item.url;
    logDebug([&] { return "setting trash date on " + url.description(); });
    const auto bytes = date ? archived(QSPropertyList(*date)) : std::nullopt;
    const auto done = setAttribute(item, LocalItem::xattrTrashDateName(), bytes);
    if (done) return;
    logError([&] {
        return std::string("can't ") + (bytes ? "set" : "remove") + " xattr " +
               std::string(LocalItem::xattrTrashDateName()) + " on " + url.description() + "; " +
               done.error().description();
    });
}

void setPutBackString(const QSURL& formerURL, const HeldURL& item) {
    const auto& newURL = item.url;
    logDebug([&] { return "setting putback string on " + newURL.description(); });
    const auto bundle = proxyWithContaining(formerURL);
    const auto library = bundle ? LocalAppLibraryItem::initFrom(*bundle) : nullptr;
    const auto root = library ? library->fileURL() : std::nullopt;
    if (!root) {
        return logError([&] { return "couldn't find app library for " + formerURL.description(); });
    }
    const auto string = putBackString(formerURL, *root);
    if (!string) {
        return logError([&] {
            return "could't compute putback string (path: " + formerURL.description() +
                   ", basePath: " + root->description();
        });
    }
    logDebug([&] { return "setting putback '" + *string + "' on " + newURL.description(); });
    const auto bytes = archivedDataWithRootObject(QSPropertyList(*string));
    const auto done = bytes ? setAttribute(item, LocalItem::xattrTrashPutBackName(), *bytes)
                            : std::unexpected(bytes.error());
    if (done) return;
    logError([&] {
        return "couldn't set putback xattr (" + *string + ") on " + newURL.description() + "; " +
               done.error().description();
    });
}

}  // namespace tidewell
