#pragma once

#include <functional>
#include <shared_mutex>

#include "platform/volume/CrawlPass.h"
#include "platform/volume/ObjectIndex.h"

namespace platform {

/// Writes what one crawl sees into the index, a folder's worth at a time, so that look-ups wait for
/// fractions of a millisecond, and has the store follow.
class CrawlIndexer final : public CrawlObserver {
  public:
    struct Sinks {
        ObjectIndex& index;
        std::shared_mutex& mutex;  ///< guards index
        /// Stores some of what is dirty; false on failure. Called without the mutex, about every
        /// rowsAtOnce objects.
        std::function<bool()> flush;
        const std::function<void(std::uint64_t objects)>& progress;  ///< may be empty
    };
    static constexpr std::size_t rowsAtOnce = 4096;

    explicit CrawlIndexer(Sinks sinks);

    void entered(const FileAttributes& folder) override;
    void saw(const FileAttributes& folder, std::span<const Entry> entries) override;
    void counted(const FileAttributes& folder, std::uint64_t entries) override;

    /// After a complete crawl: what was not seen is located nowhere any more.
    void displaceUnseen();

  private:
    void flushIfMany(std::size_t dirty);

    const Sinks sinks_;
    std::uint64_t seen_ = 0;
    std::uint64_t reported_ = 0;
    std::size_t flushAt_ = rowsAtOnce;
};

}  // namespace platform
