#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/session/Page.h"

namespace host {

/// Names of items by their words, in one database file, and up to which anchor it holds what it
/// should. Nothing that cannot be had again: a file that is damaged or of another layout is begun
/// anew. Any thread; calls block for the disk.
class SearchIndex {
  public:
    /// `path` is native; folders that are missing are made.
    explicit SearchIndex(std::string path);
    ~SearchIndex();

    /// The position up to which pages were applied; none before everything has been read once.
    [[nodiscard]] platform::Result<std::optional<Anchor>> anchor();

    /// Forgets everything.
    platform::Result<void> clear();
    /// Takes in, then takes out; with `anchor` all of that counts as done up to there. One step.
    platform::Result<void> apply(const std::vector<ItemRecord>& updates,
                                 const std::vector<std::string>& deletions,
                                 const std::optional<Anchor>& anchor);
    /// Forgets what belongs to these domains; returns how many items that were.
    platform::Result<std::uint64_t> removeDomains(const std::vector<std::string>& domains);

    /// Identifiers of the items whose name has a word that begins with each word of `text`, in any
    /// order and without regard to case and accents; the best first. None for a text without words.
    [[nodiscard]] platform::Result<std::vector<std::string>> find(std::string_view text);

  private:
    struct Database;
    platform::Result<Database*> open();
    template <typename Work>
    auto use(Work&& work) -> decltype(work(std::declval<Database&>()));

    // Constant after construction.
    std::string path_;

    std::mutex mutex_;
    std::unique_ptr<Database> database_;  // guarded by mutex_; null until the first use
};

}  // namespace host
