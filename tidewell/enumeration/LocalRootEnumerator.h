#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tidewell/applibraries/AppLibraries.h"
#include "tidewell/enumeration/LocalFileEnumerator.h"

namespace tidewell {

/// Lists the root, the working set or all directories: first the app libraries, then what the inner
/// enumerator finds in the tree of documents. Which libraries its host knows is a version in the
/// anchor; docs/app-libraries.md has the table of what each version is answered with.
class LocalRootEnumerator final : public QSFileProviderEnumerator,
                                  public std::enable_shared_from_this<LocalRootEnumerator> {
  public:
    [[nodiscard]] static std::shared_ptr<LocalRootEnumerator> initWithContainer(
        std::string container, std::shared_ptr<AppLibraries> appLibraries);
    ~LocalRootEnumerator() override;

    void enumerateItemsForObserver(std::shared_ptr<QSFileProviderEnumerationObserver> observer,
                                   const QSFileProviderPage& startingAtPage) override;
    void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                     const QSFileProviderSyncAnchor& fromSyncAnchor) override;
    /// Names no version: the first changes after it report every library.
    void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) override;
    void start() override;
    void stop() override;
    void invalidate() override { stop(); }

    [[nodiscard]] const std::string& container() const { return container_; }

  private:
    /// The changes of libraries, reported ahead of the tree.
    struct LibraryChanges {
        std::vector<ItemRef> items;
        std::vector<std::string> deletions;
        std::uint64_t version = 0;  ///< of the set that they lead to
    };

    LocalRootEnumerator(std::string container, std::shared_ptr<AppLibraries> appLibraries);

    /// Moves the token to the local version. Fails, with an expired anchor where the host has to
    /// start from scratch.
    [[nodiscard]] Result<LibraryChanges> appLibraryStep(FSChangeToken& token);
    [[nodiscard]] bool isUsable(std::uint64_t changeTokenVersion, std::uint64_t localVersion) const;
    [[nodiscard]] bool saveWorkingSet();
    [[nodiscard]] Result<std::set<std::string>> identifiersLost(std::uint64_t sinceEventID) const;
    [[nodiscard]] std::string versionSuffix(std::uint64_t changeTokenVersion) const;

    /// The inner enumerator over these libraries, a new one where the present one has others.
    [[nodiscard]] std::shared_ptr<LocalFileEnumerator> fileEnumeratorOver(
        const AppLibraryRoots& libraries);

    // Constant after construction.
    std::string container_;
    bool isWorkingSet_;
    std::shared_ptr<AppLibraries> appLibraries_;
    LocalAppLibraryManager appLibraryManager_;  // its own synchronisation
    SerialQueue enumQueue_;                     ///< "tidewell.root-enumerator.queue"
    std::shared_ptr<void> listening_;           ///< set before anyone else has the enumerator

    // On enumQueue_.
    std::shared_ptr<LocalFileEnumerator> localFileEnumerator_;
    bool isRunning_ = false;
};

}  // namespace tidewell
