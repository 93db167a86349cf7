#include "tidewell/provider/TrashRecords.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

namespace {

/// Sets or removes an attribute of the very object that the URL was made for.
Result<void> setAttribute(const OpenURL& item, std::string_view name,
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

/// Whether the same may succeed later.
bool failedForNow(const Result<void>& done) {
    constexpr std::array codes = {ENOSPC, EDQUOT, EIO, EROFS, ENOMEM};
    return !done && std::ranges::find(codes, done.error().code) != codes.end();
}

/// Writes both; false where the next start has to.
bool writeAttributes(const OpenURL& item, const QSDate& date, const std::optional<QSURL>& former) {
    const auto dated = setTrashDate(item, date);
    const auto placed = former ? setPutBackString(*former, item) : Result<void>();
    return !failedForNow(dated) && !failedForNow(placed);
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

Result<void> setTrashDate(const OpenURL& item, const std::optional<QSDate>& date) {
    const auto& url = item.url;
    logDebug([&] { return "setting trash date on " + url.description(); });
    const auto bytes = date ? archived(QSPropertyList(*date)) : std::nullopt;
    auto done = setAttribute(item, LocalItem::xattrTrashDateName(), bytes);
    if (done) return done;
    logError([&] {
        return std::string("can't ") + (bytes ? "set" : "remove") + " xattr " +
               std::string(LocalItem::xattrTrashDateName()) + " on " + url.description() + "; " +
               done.error().description();
    });
    return done;
}

Result<void> setPutBackString(const QSURL& formerURL, const OpenURL& item) {
    const auto& newURL = item.url;
    logDebug([&] { return "setting putback string on " + newURL.description(); });
    const auto bundle = proxyWithContaining(formerURL);
    const auto library = bundle ? LocalAppLibraryItem::initFrom(*bundle) : nullptr;
    const auto root = library ? library->fileURL() : std::nullopt;
    if (!root) {
        logError([&] { return "couldn't find app library for " + formerURL.description(); });
        return {};
    }
    const auto string = putBackString(formerURL, *root);
    if (!string) {
        logError([&] {
            return "could't compute putback string (path: " + formerURL.description() +
                   ", basePath: " + root->description();
        });
        return {};
    }
    logDebug([&] { return "setting putback '" + *string + "' on " + newURL.description(); });
    const auto bytes = archivedDataWithRootObject(QSPropertyList(*string));
    auto done = bytes ? setAttribute(item, LocalItem::xattrTrashPutBackName(), *bytes)
                      : std::unexpected(bytes.error());
    if (done) return done;
    logError([&] {
        return "couldn't set putback xattr (" + *string + ") on " + newURL.description() + "; " +
               done.error().description();
    });
    return done;
}

void writeTrashRecord(TrashedObject& trashed, const QSURL& formerURL) {
    // What lay there already keeps the record of where it came from.
    const auto former = trashed.url == formerURL ? std::nullopt : std::optional(formerURL);
    if (!writeAttributes(trashed, trashed.date, former)) trashed.intent->keep();
}

void dateNow(const QSURL& url) {
    auto& volume = Platform::current().volume();
    const auto now = volume.clock().stamp();
    (void)setTrashDate({url}, now);
    const auto object = Platform::current().files().attributes(url);
    if (!object) return;
    auto record = volume.trash().find(url.path(), (*object)->identity).value_or(TrashRecord{});
    record.date = now;
    volume.trash().put(url.path(), (*object)->identity, std::move(record));
}

void finishTrashing(std::span<const TrashRow> interrupted) {
    auto& ledger = Platform::current().volume().trash();
    for (const auto& intent : interrupted) {
        const auto& [date, formerPath] = *intent.record;
        const auto former =
            formerPath.empty() ? std::nullopt : std::optional(QSURL::fileURLWithPath(formerPath));
        if (former) (void)proxyWithContaining(*former);  // so that its library is presented
        bool isDone = true;
        DirectoryWalk walk(
            {{QSURL::fileURLWithPath(intent.path), walkDescendsIntoNothing}},
            [](std::string_view, WalkOptions inherited) { return inherited; },
            DirectoryWalk::Emits::everything);
        const auto walked = walk.walk(0, walkWithoutPageLimit, [&](const QSURL& url) {
            const auto object = Platform::current().files().attributes(url);
            if (!object || (*object)->identity != intent.object) return Result<void>();
            const auto known = ledger.find(url.path(), intent.object);
            if (known && known->date != date) return Result<void>();
            ledger.put(url.path(), intent.object, *intent.record);
            isDone &= writeAttributes({url}, date, former);
            return Result<void>();
        });
        // A trash that cannot be read now may be there at the next start.
        if (walked && isDone) ledger.remove(intent.path, intent.object);
    }
}

}  // namespace tidewell
