#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/fileprovider/Mutations.h"
#include "platform/fileprovider/UnfinishedWork.h"
#include "platform/files/FileDescriptor.h"
#include "platform/files/FileSystem.h"
#include "platform/files/TreeCopy.h"
#include "platform/foundation/QSProgress.h"
#include "platform/volume/VolumeService.h"

namespace platform {

/// What the operations of Mutations.h do, on the calling thread. Any thread.
class MutableTree {
  public:
    MutableTree(const FileSystem& files, UnfinishedWork& unfinished, VolumeService& volume)
        : files_(files), unfinished_(unfinished), volume_(volume) {}

    /// What to do where a name is taken.
    enum class Naming : std::uint8_t { Exact, Free };

    [[nodiscard]] Result<QSURL> makeFolder(const QSURL& folder, const std::string& name) const;
    [[nodiscard]] Result<QSURL> import(const QSURL& source, const QSURL& folder,
                                       QSProgress& progress) const;
    /// Into `folder`, under `name` or its own.
    [[nodiscard]] Result<QSURL> move(const QSURL& url, const QSURL& folder,
                                     const std::optional<std::string>& name, Naming naming,
                                     QSProgress& progress) const;
    enum class Copying : std::uint8_t { Allowed, Refused };
    [[nodiscard]] Result<TrashedObject> trash(const QSURL& url, const QSURL& trash, Copying copying,
                                              QSProgress& progress) const;
    Result<void> remove(const QSURL& url, QSProgress& progress) const;

    /// Whether the file system does not move it.
    [[nodiscard]] static bool hasToBeCopied(const QSError& error);

  private:
    struct OpenFolder {
        QSURL url;
        FileDescriptor fd;
    };
    /// An open object, and where it stood when it was opened.
    struct OpenItem {
        OpenFolder parent;
        std::string name;
        FileDescriptor object;
        ObjectIdentity identity;
    };

    [[nodiscard]] Result<OpenFolder> openFolder(const QSURL& url) const;
    [[nodiscard]] Result<OpenItem> hold(const QSURL& url) const;
    /// Called with the identity of a copy before it has its name.
    using CopyHandler = std::function<void(const ObjectIdentity& copy)>;
    /// `item.object` becomes the copy where there is one.
    [[nodiscard]] Result<QSURL> moveOpen(OpenItem& item, const OpenFolder& folder,
                                         const std::string& name, Naming naming,
                                         QSProgress& progress,
                                         const CopyHandler& onCopy = {}) const;
    [[nodiscard]] Result<QSURL> renameOpen(const OpenItem& item, const OpenFolder& folder,
                                           const std::string& name, Naming naming) const;
    [[nodiscard]] Result<QSURL> copyAcross(OpenItem& item, const OpenFolder& folder,
                                           const std::string& name, Naming naming,
                                           QSProgress& progress, const CopyHandler& onCopy) const;
    /// A copy, held open since before it was given its name.
    struct Copied {
        QSURL url;
        std::string name;
        FileDescriptor object;
        ObjectIdentity identity;
    };
    [[nodiscard]] Result<Copied> copyInto(int source, const std::string& sourceName,
                                          const OpenFolder& folder, const std::string& name,
                                          Naming naming, TreeCopy::Special special,
                                          QSProgress& progress,
                                          const CopyHandler& onCopy = {}) const;
    [[nodiscard]] Result<std::unique_ptr<UnfinishedWork::Record>> begin(
        UnfinishedWork::Kind kind, const OpenFolder& folder, const std::string& name,
        const ObjectIdentity& object) const;
    [[nodiscard]] Result<std::unique_ptr<UnfinishedWork::Record>> hide(
        const OpenItem& item, UnfinishedWork::Kind kind) const;
    Result<void> removeOpen(const OpenItem& item, QSProgress& progress) const;
    Result<void> hideAndRemove(const OpenItem& item, QSProgress& progress) const;
    Result<void> checkNotInside(const FileDescriptor& object, const OpenFolder& folder) const;
    [[nodiscard]] Result<std::string> renameInto(int from, const std::string& name,
                                                 const OpenFolder& to, const std::string& wanted,
                                                 Naming naming) const;
    [[nodiscard]] bool is(const ObjectIdentity& object, int folder, const std::string& name) const;
    /// False where it stays hidden.
    bool putBack(int from, const std::string& hidden, const OpenItem& item) const;
    [[nodiscard]] QSURL placed(const OpenFolder& folder, const std::string& name) const;
    [[nodiscard]] QSURL made(const OpenFolder& folder, const std::string& name) const;
    [[nodiscard]] QSError failure(int code, const QSURL& url) const;
    /// The same for what went wrong, which may name another object.
    [[nodiscard]] QSError failure(const QSError& error, const QSURL& url) const;

    const FileSystem& files_;
    UnfinishedWork& unfinished_;
    VolumeService& volume_;
};

}  // namespace platform
