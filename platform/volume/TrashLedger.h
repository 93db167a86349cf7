#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/files/FileAttributes.h"
#include "platform/foundation/QSDate.h"

namespace platform {

/// When an entry came into the trash, and where its object was before.
struct TrashRecord {
    QSDate date;
    std::string formerPath;  ///< presented; empty where it is not known
};

/// The record of one entry of a trash, or of an operation that was to make one: then `path` is of
/// the trash itself, since the entry's name is not known before the kernel has accepted it.
struct TrashRow {
    std::string path;  ///< presented
    ObjectIdentity object;
    std::optional<TrashRecord> record;  ///< none: the record is to be removed
};

/// The records of what lies in the trash, in memory; the store keeps them between runs. Extended
/// attributes say the same of most entries, but links and what the user may not write take none,
/// and the names of one object share them. Any thread; never blocks for the disk.
class TrashLedger {
  public:
    /// An operation that was recorded before it began. Its end removes that record; where the
    /// process ends first, the next one finds it.
    class Intent {
      public:
        Intent(TrashLedger& ledger, std::string trash, const ObjectIdentity& object)
            : ledger_(ledger), trash_(std::move(trash)), object_(object) {}
        ~Intent() {
            if (!isKept_) ledger_.remove(trash_, object_);
        }
        Intent(const Intent&) = delete;
        Intent& operator=(const Intent&) = delete;

        /// Leaves the record for the next start, which tries again to write the attributes.
        void keep() { isKept_ = true; }

      private:
        TrashLedger& ledger_;
        const std::string trash_;
        const ObjectIdentity object_;
        bool isKept_ = false;
    };

    [[nodiscard]] std::optional<TrashRecord> find(std::string_view path,
                                                  const ObjectIdentity& object) const;
    void put(const std::string& path, const ObjectIdentity& object, TrashRecord record);
    void remove(const std::string& path, const ObjectIdentity& object);
    /// The same for an entry that is at that path no more; of a trash, for all that is in it.
    void removeWithEntries(const std::string& path, const ObjectIdentity& object);

    /// The operations that the last run recorded and did not end; empty the second time.
    [[nodiscard]] std::vector<TrashRow> popInterrupted();

    // For the service.

    void load(std::vector<TrashRow> rows);
    /// What is to be stored; where that fails, markChanged() has it returned once more.
    [[nodiscard]] std::vector<TrashRow> popChanges();
    void markChanged(std::span<const TrashRow> rows);

  private:
    using Key = std::tuple<std::string, std::uint64_t, std::uint64_t>;

    mutable std::mutex mutex_;
    std::map<Key, TrashRecord> records_;  // guarded by mutex_
    std::set<Key> changed_;               // guarded by mutex_
    std::vector<TrashRow> interrupted_;   // guarded by mutex_
};

}  // namespace platform
