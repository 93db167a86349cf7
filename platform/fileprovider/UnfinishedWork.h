#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/files/FileSystem.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// What operations keep under hidden names while they work, recorded so that a process that ends in
/// the middle leaves nothing behind: the next one finishes or undoes it. A record is a symbolic
/// link in the state folder; see docs/stored-formats.md. Any thread; calls block for the file
/// system.
class UnfinishedWork {
  public:
    /// `folder` is native and made when it is needed. `files` must outlive the object.
    UnfinishedWork(const FileSystem& files, std::string folder);

    enum class Kind : char {
        Removal = 'r',  ///< what is under the hidden name is to go, if it is the recorded object
        Copy = 'c',     ///< an incomplete copy
        Move = 'm',     ///< what is under the hidden name is being copied, and goes back
    };

    /// One recorded piece of work; its end removes the record.
    class Record {
      public:
        ~Record();
        Record(const Record&) = delete;
        Record& operator=(const Record&) = delete;

        /// In the folder of the place.
        [[nodiscard]] const std::string& name() const { return name_; }
        /// Leaves the record for the next start, since what is hidden could not be dealt with now.
        void keep() { isKept_ = true; }

      private:
        friend class UnfinishedWork;
        Record(UnfinishedWork& owner, std::string token, std::string path);

        UnfinishedWork& owner_;
        std::string token_;
        std::string path_;  ///< of the record; empty: it could not be written
        std::string name_;
        bool isKept_ = false;
    };

    /// Records that work on `place` (where the object is, or will be) begins in `folder`, by whose
    /// identity the next start finds what is hidden there. Where the state folder's disk is full or
    /// read-only, a removal has a record in memory only: deleting must be possible then.
    [[nodiscard]] Result<std::unique_ptr<Record>> begin(Kind kind, const QSURL& place,
                                                        const ObjectIdentity& object,
                                                        const ObjectIdentity& folder);

    /// The present place of the folder with that identity; blocks. An error where it is not known.
    using Locate = std::function<Result<QSURL>(const ObjectIdentity& folder)>;
    /// Deals with what earlier processes left. `locate` is asked about folders that are not where
    /// they were. What cannot be reached now stays for the next call; so does, for 30 days, what
    /// lies in a folder that is not there. Logs; never fails.
    void finish(const Locate& locate);

  private:
    struct Leftover;
    /// Opens the folder of what is hidden, wherever it is.
    [[nodiscard]] Result<FileDescriptor> openFolder(const Leftover& leftover,
                                                    const Locate& locate) const;
    [[nodiscard]] bool deal(const Leftover& leftover, const std::string& record,
                            const Locate& locate) const;

    const FileSystem& files_;
    const std::string folder_;

    std::mutex finishing_;  // one call of finish() at a time
    std::mutex mutex_;
    std::set<std::string> live_;  // guarded by mutex_: tokens of records of this process
};

}  // namespace platform
