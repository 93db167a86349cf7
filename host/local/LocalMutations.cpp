#include "host/local/LocalMutations.h"

#include <cerrno>
#include <utility>

#include "host/local/Answer.h"
#include "host/local/EntryChoice.h"
#include "host/local/ExtensionSession.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace host {

using platform::QSProgress;
using platform::Result;

namespace {

constexpr std::chrono::milliseconds betweenLooks{100};

using Among = EntryChoice::Among;

struct Nothing {};

/// The completion handler that finishes the answer.
template <typename End>
auto finishing(const std::shared_ptr<Answer<Nothing, End>>& answer) {
    if constexpr (std::is_same_v<End, Nothing>) {
        return [answer](std::optional<platform::QSError> error) {
            answer->finish(error ? Result<Nothing>(std::unexpected(std::move(*error))) : Nothing{});
        };
    } else {
        return [answer](Result<End> end) { answer->finish(std::move(end)); };
    }
}

}  // namespace

template <typename End, typename Start>
Result<End> LocalMutations::run(const Start& start, const ProgressHandler& progress) const {
    const auto answer = std::make_shared<Answer<Nothing, End>>();
    const std::shared_ptr<QSProgress> work = start(session_.extension(), finishing(answer));
    auto last = Progress{};
    auto moved = std::chrono::steady_clock::now();
    while (!answer->waitFor(betweenLooks)) {
        const auto now = std::chrono::steady_clock::now();
        const auto reached =
            work ? Progress{work->completedItems(), work->completedBytes()} : Progress{};
        if (reached.items != last.items || reached.bytes != last.bytes) moved = now;
        last = reached;
        if (progress && !progress(reached) && work) work->cancel();
        if (now - moved >= stallDeadline_) break;
    }
    auto end = answer->wait(std::chrono::milliseconds(0)).second;
    if (!end) return std::unexpected(session_.withNativePath(std::move(end.error())));
    return end;
}

namespace {

/// A start without progress.
template <typename Call>
auto plain(Call call) {
    return [call = std::move(call)](platform::QSFileProviderExtension& extension,
                                    const auto& handler) {
        call(extension, handler);
        return std::shared_ptr<QSProgress>();
    };
}

}  // namespace

template <typename End, typename Start>
Result<End> LocalMutations::runOn(const ItemTarget& target, EntryChoice::Among among,
                                  const Start& start, const ProgressHandler& progress) const {
    const auto choice = EntryChoice::make(session_, volume_, target, among);
    if (!choice) return std::unexpected(choice.error());
    return run<End>(start, progress);
}

Result<ItemRecord> LocalMutations::recordOf(const Result<platform::ItemRef>& item) const {
    if (!item) return std::unexpected(item.error());
    return session_.record(**item);
}

Result<ItemRecord> LocalMutations::makeDirectory(std::string_view name,
                                                 const std::string& parent) const {
    return recordOf(run<platform::ItemRef>(plain([&](auto& extension, auto handler) {
                                               extension.createDirectoryWithName(
                                                   name, parent, std::move(handler));
                                           }),
                                           {}));
}

Result<ItemRecord> LocalMutations::import(std::string_view path, const std::string& parent,
                                          const ProgressHandler& progress) const {
    const auto url = session_.paths().URLForNativePath(path);
    return recordOf(run<platform::ItemRef>(
        [&](auto& extension, auto handler) {
            return extension.importDocumentAtURL(url, parent, std::move(handler));
        },
        progress));
}

Result<ItemRecord> LocalMutations::rename(const ItemTarget& target, std::string_view name) const {
    return recordOf(runOn<platform::ItemRef>(
        target, Among::OutsideTrash, plain([&](auto& extension, auto handler) {
            extension.renameItemWithIdentifier(target.itemIdentifier, name, std::move(handler));
        }),
        {}));
}

Result<ItemRecord> LocalMutations::move(const ItemTarget& target, const std::string& parent,
                                        const std::optional<std::string>& name,
                                        const ProgressHandler& progress) const {
    return recordOf(runOn<platform::ItemRef>(
        target, Among::OutsideTrash,
        [&](auto& extension, auto handler) {
            return extension.reparentItemWithIdentifier(target.itemIdentifier, parent, name,
                                                        std::move(handler));
        },
        progress));
}

Result<ItemRecord> LocalMutations::trash(const ItemTarget& target,
                                         const ProgressHandler& progress) const {
    return recordOf(runOn<platform::ItemRef>(
        target, Among::OutsideTrash,
        [&](auto& extension, auto handler) {
            return extension.trashItemWithIdentifier(target.itemIdentifier, std::move(handler));
        },
        progress));
}

Result<ItemRecord> LocalMutations::untrash(const ItemTarget& target,
                                           const std::optional<std::string>& parent,
                                           const ProgressHandler& progress) const {
    auto done = recordOf(runOn<platform::ItemRef>(
        target, Among::InTrash,
        [&](auto& extension, auto handler) {
            return extension.untrashItemWithIdentifier(target.itemIdentifier, parent,
                                                       std::move(handler));
        },
        progress));
    const bool isRefused = !done && done.error().domain == platform::QPErrorDomain &&
                           done.error().code == platform::QPInvalidParameterErrorCode;
    if (!isRefused) return done;
    const auto item = session_.item(target.itemIdentifier);
    done.error().userInfo.insert_or_assign(std::string(platform::QSDescriptionErrorKey),
                                           item && item->isTrashed
                                               ? "its former folder is not recorded; give --to"
                                               : "it is not in the trash");
    return done;
}

Result<void> LocalMutations::remove(const ItemTarget& target,
                                    const ProgressHandler& progress) const {
    const auto removed = runOn<Nothing>(
        target, Among::OutsideTrash,
        [&](auto& extension, auto handler) {
            return extension.deleteItemWithIdentifier(target.itemIdentifier, std::move(handler));
        },
        progress);
    if (!removed) return std::unexpected(removed.error());
    return {};
}

Result<void> LocalMutations::emptyTrash(const platform::QSDate& date) const {
    const auto done = run<Nothing>(plain([&](auto& extension, const auto& handler) {
                                       extension._removeTrashedItemsOlderThanDate(
                                           date, [handler] { handler(std::nullopt); });
                                   }),
                                   {});
    if (!done) return std::unexpected(done.error());
    return {};
}

Result<void> LocalMutations::dateArrivalsInTrash() const {
    return session_.extension().dateArrivalsInTrash();
}

Result<std::vector<ItemRecord>> LocalMutations::trashedBefore(const platform::QSDate& date) const {
    std::vector<ItemRecord> records;
    for (const auto& item : session_.extension().itemsTrashedBeforeDate(date)) {
        records.push_back(session_.record(*item));
    }
    return records;
}

}  // namespace host
