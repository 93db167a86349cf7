#include "platform/fileprovider/Mutations.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/MutableTree.h"
#include "platform/fileprovider/Platform.h"

namespace platform {

namespace {

using Naming = MutableTree::Naming;

MutableTree treeOf(Platform& platform) {
    return {platform.files(), platform.unfinished(), platform.volume()};
}

/// Runs `work` on some worker, which reports its progress. The platform waits for operations that
/// have begun; one that comes too late is cancelled.
template <typename Work, typename Handler>
std::shared_ptr<QSProgress> start(Work work, Handler handler) {
    auto progress = std::make_shared<QSProgress>();
    dispatchConcurrently([gate = Platform::current().events().gate, work = std::move(work),
                          handler = std::move(handler), progress]() mutable {
        const auto pass = gate->enter();
        if (!pass) return handler(std::unexpected(errorFromErrno(ECANCELED)));
        handler(work(treeOf(Platform::current()), *progress));
    });
    return progress;
}

/// A result's URL keeps the object's attributes, so that its receiver can distinguish it from
/// others.
qp_URLHandler withAttributes(qp_URLHandler handler) {
    return [handler = std::move(handler)](Result<QSURL> result) mutable {
        if (result) (void)Platform::current().files().attributes(*result);
        handler(std::move(result));
    };
}

}  // namespace

void qp_createSubFolder(const QSURL& folder, std::string_view name,
                        qp_URLHandler completionHandler) {
    (void)start([folder, name = std::string(name)](
                    const MutableTree& tree, QSProgress&) { return tree.makeFolder(folder, name); },
                withAttributes(std::move(completionHandler)));
}

std::shared_ptr<QSProgress> qp_importUnderFolder(const QSURL& source, const QSURL& folder,
                                                 qp_URLHandler completionHandler) {
    return start(
        [source, folder](const MutableTree& tree, QSProgress& progress) {
            return tree.import(source, folder, progress);
        },
        withAttributes(std::move(completionHandler)));
}

void qp_renameWithNewName(const QSURL& url, std::string_view newName,
                          qp_URLHandler completionHandler) {
    (void)qp_reparentUnderFolder(url, url.URLByDeletingLastPathComponent(), std::string(newName),
                                 std::move(completionHandler));
}

std::shared_ptr<QSProgress> qp_reparentUnderFolder(const QSURL& url, const QSURL& folder,
                                                   const std::optional<std::string>& newName,
                                                   qp_URLHandler completionHandler) {
    return start(
        [url, folder, newName](const MutableTree& tree, QSProgress& progress) {
            return tree.move(url, folder, newName, newName ? Naming::Exact : Naming::Free,
                             progress);
        },
        withAttributes(std::move(completionHandler)));
}

std::shared_ptr<QSProgress> qp_reparentUnderFolder(const QSURL& url, const QSURL& folder,
                                                   bool allowBouncing,
                                                   qp_URLHandler completionHandler) {
    return start(
        [url, folder, naming = allowBouncing ? Naming::Free : Naming::Exact](
            const MutableTree& tree, QSProgress& progress) {
            return tree.move(url, folder, std::nullopt, naming, progress);
        },
        withAttributes(std::move(completionHandler)));
}

std::shared_ptr<QSProgress> qp_trashUnderFolder(const QSURL& url, const QSURL& trash,
                                                qp_TrashHandler completionHandler) {
    using Copying = MutableTree::Copying;
    // A rename takes no longer than waking a worker and being woken by it.
    const auto gate = Platform::current().events().gate;
    if (const auto pass = gate->enter()) {
        QSProgress progress;
        auto done = treeOf(Platform::current()).trash(url, trash, Copying::Refused, progress);
        if (done || !MutableTree::hasToBeCopied(done.error())) {
            completionHandler(std::move(done));
            return nullptr;
        }
    }
    return start(
        [url, trash](const MutableTree& tree, QSProgress& progress) {
            return tree.trash(url, trash, Copying::Allowed, progress);
        },
        std::move(completionHandler));
}

std::shared_ptr<QSProgress> qp_deleteWithCompletionHandler(const QSURL& url,
                                                           qp_ErrorHandler completionHandler) {
    return start(
        [url](const MutableTree& tree, QSProgress& progress) { return tree.remove(url, progress); },
        [handler = std::move(completionHandler)](Result<void> result) mutable {
            handler(result ? std::nullopt : std::optional(std::move(result.error())));
        });
}

Result<FileDescriptor> openSameObject(const QSURL& url) {
    const auto& files = Platform::current().files();
    auto object = files.openObject(url, O_PATH);
    if (!object) return object;
    const auto meant = std::static_pointer_cast<const FileAttributes>(url.attachment());
    if (!meant) return object;
    const auto found = readIdentity(object->get(), "", nullptr, files.credentials());
    if (!found) return std::unexpected(found.error());
    if (*found != meant->identity) {
        return std::unexpected(errorFromErrno(ESTALE, files.nativePath(url)));
    }
    return object;
}

}  // namespace platform
