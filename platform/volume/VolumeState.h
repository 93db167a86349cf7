#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/volume/Crawler.h"
#include "platform/volume/IdentityStore.h"
#include "platform/volume/ObjectIndex.h"
#include "platform/volume/VolumeService.h"

namespace platform {

/// What the service's parts share. Lock order: storeMutex before indexMutex. Look-ups need the
/// second alone, and nobody asks the disk for anything under it.
struct VolumeService::State {
    explicit State(Configuration given) : configuration(std::move(given)) {}

    struct Root {
        ObjectIndex::NodeNumber node;
        QSURL url;
    };
    /// A second root under the same URL replaces the first.
    void addRoot(const ObjectIdentity& identity, const QSURL& url);

    /// The URL where the index locates the object, checked on the disk.
    [[nodiscard]] std::optional<QSURL> locate(std::uint64_t fileID) const;
    /// Where the index has the node, unchecked. REQUIRES: indexMutex is held.
    [[nodiscard]] std::optional<QSURL> urlOf(ObjectIndex::NodeNumber number) const;
    /// Whether the object of the request is still where it was seen. True where that cannot be
    /// told.
    [[nodiscard]] bool isThere(const IdentityRequest& request) const;
    /// Whether an object that locate did not find may be found by a crawl.
    [[nodiscard]] bool mayBeFound(std::uint64_t fileID) const;

    /// Answers from the index alone; false where a request has to be allocated first. Remembers
    /// where the objects are now.
    [[nodiscard]] bool answerFromIndex(std::span<IdentityRequest> requests);
    /// Answers any requests: allocates what is missing in one durable transaction, and lets readers
    /// see it after the commit.
    Result<void> allocate(std::span<IdentityRequest> requests);
    struct StagedRow {
        ObjectRow row;
        bool isNews = false;    ///< other than in the store
        bool hasPlace = false;  ///< a request told where the object is
    };
    Result<Identity> settle(const IdentityRequest& request, StagedRow& staged);
    void publish(const std::unordered_map<std::uint64_t, StagedRow>& staged);

    /// One walk over all roots into the index and the store.
    void crawl(const std::atomic<bool>& stop);
    /// Writes some places that the store does not have yet; false where that was the last of them.
    Result<bool> flush();
    void flushAll();
    /// Takes up to `limit` rows of such places. REQUIRES: storeMutex is held.
    std::vector<ObjectIndex::NodeNumber> takeDirtyRows(std::size_t limit,
                                                       std::vector<ObjectRow>& rows);
    void putBackDirty(std::span<const ObjectIndex::NodeNumber> nodes);

    // Constant after opening.
    const Configuration configuration;
    std::uint32_t device = 0;
    QSUUID history;
    bool freshOnly = false;
    std::string trouble;

    std::mutex storeMutex;
    std::unique_ptr<IdentityStore> store;  // guarded by storeMutex, save lastEvent() and path()

    mutable std::shared_mutex indexMutex;
    ObjectIndex index;        // guarded by indexMutex
    std::vector<Root> roots;  // guarded by indexMutex

    std::atomic<bool> identityIsWeak = false;
    std::unique_ptr<Crawler> crawler;  // the first to go
};

}  // namespace platform
