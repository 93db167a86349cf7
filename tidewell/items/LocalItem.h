#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSResourceValue.h"

namespace tidewell {

using namespace platform;

class LocalAppLibraryItem;

/// What the caller knows already; missing parts are computed.
struct LocalItemCustomFields {
    std::optional<std::string> itemID = {};
    std::optional<std::string> parentItemID = {};
    std::optional<std::string> filename = {};
};

/// The record of one file, folder or package. Immutable once built, but for the child count and the
/// put-back URL; both setters are for the owner, before it shares the item.
class LocalItem : public QSFileProviderItem {
  public:
    using Custom = LocalItemCustomFields;

    /// Builds the item for `url`, reading what the URL does not keep. Null, after a log line, where
    /// it has no identifier, parent, name or type, or is a library's "Inbox".
    /// `hasBeaconDomainIdentifier`: look for the application whose container holds the URL, instead
    /// of taking `bundleIdentifier`.
    [[nodiscard]] static std::shared_ptr<LocalItem> initWithURL(
        const QSURL& url, const Custom& custom = {}, bool hasBeaconDomainIdentifier = true,
        const std::optional<std::string>& bundleIdentifier = {});
    /// The same for callers to whom "no item" and "could not be identified" are different answers:
    /// null is the first, an error the second.
    [[nodiscard]] static Result<std::shared_ptr<LocalItem>> findAtURL(const QSURL& url,
                                                                      const Custom& custom = {});

    /// Null where the file ID means no object.
    [[nodiscard]] static std::shared_ptr<LocalItem> initWithFileIdentifier(std::uint64_t fileID);

    // QSFileProviderItem
    [[nodiscard]] std::string itemIdentifier() const override { return _itemIdentifier; }
    [[nodiscard]] std::string parentItemIdentifier() const override {
        return _parentItemIdentifier;
    }
    [[nodiscard]] const std::string& itemIdentifierAsString() const { return _itemIdentifier; }
    [[nodiscard]] const std::string& parentItemIdentifierAsString() const {
        return _parentItemIdentifier;
    }
    [[nodiscard]] std::string filename() const override { return filename_; }
    [[nodiscard]] std::string typeIdentifier() const override { return typeIdentifier_; }
    [[nodiscard]] std::optional<std::uint64_t> documentSize() const override {
        return documentSize_;
    }
    [[nodiscard]] std::optional<QSDate> creationDate() const override { return creationDate_; }
    [[nodiscard]] std::optional<QSDate> contentModificationDate() const override {
        return contentModificationDate_;
    }
    [[nodiscard]] std::optional<std::uint16_t> childItemCount() const override {
        return childItemCount_;
    }
    [[nodiscard]] QSFileProviderItemCapabilities capabilities() const override {
        return capabilities_;
    }
    [[nodiscard]] std::optional<QSData> versionIdentifier() const override {
        return versionIdentifier_;
    }
    [[nodiscard]] bool isTrashed() const override { return isTrashed_; }
    [[nodiscard]] std::optional<QSDate> lastUsedDate() const override { return lastUsedDate_; }
    [[nodiscard]] std::optional<QSData> tagData() const override { return tagData_; }
    [[nodiscard]] std::optional<std::uint64_t> favoriteRank() const override {
        return favoriteRank_;
    }
    [[nodiscard]] std::optional<std::int64_t> fileID() const override { return fileID_; }
    [[nodiscard]] std::optional<std::int64_t> docID() const override { return docID_; }
    [[nodiscard]] std::optional<QSURL> fileURL() const override { return fileURL_; }
    [[nodiscard]] std::optional<std::string> qp_beaconDomainIdentifier() const override {
        return qp_beaconDomainIdentifier_;
    }
    [[nodiscard]] std::optional<std::string> qp_appContainerBundleIdentifier() const override {
        return qp_appContainerBundleIdentifier_;
    }
    [[nodiscard]] bool qp_isUbiquitous() const override { return false; }
    [[nodiscard]] bool qp_isContainer() const override { return false; }

    void setChildItemCount(std::optional<std::uint16_t> count) { childItemCount_ = count; }

    [[nodiscard]] bool isFolder() const;   ///< exactly the folder type; a package is none
    [[nodiscard]] bool isPackage() const;  ///< conforms to the package type

    /// The item of the application whose container holds this one; null if none.
    [[nodiscard]] std::shared_ptr<LocalAppLibraryItem> fetchAppLibraryItem() const;

    /// The folder that a trashed item returns to, read once and kept; none if the item has no
    /// usable record of it. The record is hostile until checked: it never leads out of the library.
    [[nodiscard]] std::optional<QSURL> putBackURL() const;
    void setPutBackURL(std::optional<QSURL> url);

    [[nodiscard]] std::string description() const;

    // The names of the extended attributes of user metadata.
    [[nodiscard]] static std::string_view xattrLastUsedDateName();
    [[nodiscard]] static std::string_view xattrTagDataName();
    [[nodiscard]] static std::string_view xattrFavoriteRankName();
    [[nodiscard]] static std::string_view xattrTrashDateName();
    [[nodiscard]] static std::string_view xattrTrashPutBackName();

    /// The resource values that a listing fetches with each entry.
    [[nodiscard]] static std::span<const QSResourceKey> urlKeys();

  protected:
    LocalItem() = default;

    /// Fills a fresh item; false where it cannot be one, an error where it could not be identified.
    Result<bool> build(const QSURL& url, const Custom& custom, bool hasBeaconDomainIdentifier,
                       const std::optional<std::string>& bundleIdentifier);
    [[nodiscard]] virtual std::string_view className() const { return "LocalItem"; }

  private:
    Result<bool> buildIdentity(const QSURL& url, const Custom& custom);
    void readSizeAndDates(const QSURL& url);
    void readCapabilities(const QSURL& url);
    void readUserMetadata(const QSURL& url);
    void readStatus(const QSURL& url);
    [[nodiscard]] bool isInboxOfLibrary() const;

    std::string _itemIdentifier;
    std::string _parentItemIdentifier;
    std::string filename_;
    std::string typeIdentifier_;
    std::optional<std::uint64_t> documentSize_;
    std::optional<QSDate> creationDate_;
    std::optional<QSDate> contentModificationDate_;
    std::optional<std::uint16_t> childItemCount_;
    QSFileProviderItemCapabilities capabilities_ = 0;
    std::optional<QSData> versionIdentifier_;
    bool isTrashed_ = false;
    std::optional<QSDate> lastUsedDate_;
    std::optional<QSData> tagData_;
    std::optional<std::uint64_t> favoriteRank_;
    std::optional<std::int64_t> fileID_;
    std::optional<std::int64_t> docID_;
    std::optional<QSURL> fileURL_;
    std::optional<std::string> qp_beaconDomainIdentifier_;
    std::optional<std::string> qp_appContainerBundleIdentifier_;

    mutable std::mutex putBackMutex_;
    mutable bool hasPutBackURL_ = false;            // guarded by putBackMutex_
    mutable std::optional<QSURL> putBackURL_ = {};  // guarded by putBackMutex_
};

}  // namespace tidewell
