#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileSystem.h"
#include "platform/files/Folder.h"

namespace platform {

/// Who learns what a walk finds. Called on the walking thread.
class CrawlObserver {
  public:
    struct Entry {
        std::string_view name;  ///< valid during the call
        std::uint64_t inode = 0;
        ObjectKind kind = ObjectKind::Other;
    };

    virtual ~CrawlObserver() = default;
    /// A folder was opened; its entries follow.
    virtual void entered(const FileAttributes& folder) = 0;
    /// Some entries of the folder entered last; a large one comes in several calls.
    virtual void saw(const FileAttributes& folder, std::span<const Entry> entries) = 0;
    /// It was read to its end in the state that `folder` tells, and any later change will show in
    /// its times.
    virtual void counted(const FileAttributes& folder, std::uint64_t entries) = 0;
};

/// One walk over everything below some roots: hidden entries too, other mounts not, symbolic links
/// never followed.
class CrawlPass {
  public:
    CrawlPass(const FileSystem& files, CrawlObserver& observer, const std::atomic<bool>& stop);

    void walk(const QSURL& root);

    /// Everything that is there was seen: no folder refused to be read, and nothing stopped it.
    [[nodiscard]] bool isComplete() const { return isComplete_ && !stop_; }

  private:
    struct Level {
        QSURL url;
        std::shared_ptr<Folder> folder;    ///< null in depths where descriptors would run out
        std::vector<std::string> folders;  ///< names still to be walked, the next one last
    };

    [[nodiscard]] Result<void> enter(const QSURL& url, Result<std::shared_ptr<Folder>> opened);
    [[nodiscard]] Result<std::uint64_t> readEntries(Folder& folder,
                                                    const FileAttributes& attributes,
                                                    std::vector<std::string>& folders);
    void deliver(const FileAttributes& folder);
    void missed(const QSURL& url, const QSError& error);

    const FileSystem& files_;
    CrawlObserver& observer_;
    const std::atomic<bool>& stop_;
    bool isComplete_ = true;
    std::vector<Level> levels_;
    std::vector<CrawlObserver::Entry> entries_;
    std::string names_;  ///< of entries_; never grows beyond what was reserved
};

}  // namespace platform
