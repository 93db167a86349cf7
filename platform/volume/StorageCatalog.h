#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/files/VolumeFingerprint.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// Which folders of data, state and cache belong to which storage. A storage is known by its folder
/// object wherever that lies; the paths at which it was found say which storage is missing. See
/// docs/identity.md. One thread; calls block for the disk.
class StorageCatalog {
  public:
    /// A folder that is to serve as the storage.
    struct Storage {
        /// As the user named it and with all links followed, both absolute.
        std::string given;
        std::string resolved;
        VolumeFingerprint volume;
        /// The number of the folder may be another one when the file system is mounted again. Such
        /// a storage is known by the UUID of its file system and its path.
        bool isWeak = false;
    };

    /// Reads the records of all storages. Native folders; nothing is made before it is needed.
    /// Fails where a record cannot be read, since its storage would pass for a new one.
    [[nodiscard]] static Result<StorageCatalog> load(std::string dataFolder,
                                                     std::string stateFolder);

    /// The name of the storage's own folder in `data/storages`, `state/storages` and the like. A
    /// storage that is new gets one; that of the layout before this catalog is taken over. Fails
    /// with an error that meansMissing where another storage that holds identifiers was at the path
    /// before, unless `acceptsReplacement`.
    [[nodiscard]] Result<std::string> nameOf(const Storage& storage, bool acceptsReplacement);

    /// The error for a storage that cannot be opened because of `failure`. It satisfies
    /// meansMissing where a storage was found at that path before.
    [[nodiscard]] QSError errorForMissing(const std::string& given, QSError failure) const;

    /// Whether the error says that a known storage is missing, and may come back.
    [[nodiscard]] static bool meansMissing(const QSError& error);

  private:
    struct Record {
        std::string name;
        VolumeFingerprint volume;
        bool isWeak = false;
        std::vector<std::string> paths;  ///< the latest first
    };

    StorageCatalog(std::string dataFolder, std::string stateFolder);
    [[nodiscard]] Result<void> readRecords();
    /// Null where the folder is of no storage: a process ended before it had one.
    [[nodiscard]] Result<std::optional<Record>> read(const std::string& name) const;
    Result<void> write(const Record& record) const;
    [[nodiscard]] static bool isOf(const Record& record, const Storage& storage);
    /// Whether numbers of the record's store may have been handed out.
    [[nodiscard]] bool holdsIdentifiers(const Record& record) const;
    /// Whether it lies at another of its paths now, so that it is not missing.
    [[nodiscard]] static bool isElsewhere(const Record& record, const Storage& than);
    [[nodiscard]] Result<std::string> add(const Storage& storage);
    /// Notes where the storage is; a failure leaves the former paths.
    void noteFound(Record& found, const Storage& storage);
    void moveFormerLayout(const Storage& storage, const std::string& name) const;

    std::string dataFolder_;
    std::string stateFolder_;
    std::vector<Record> records_;
};

}  // namespace platform
