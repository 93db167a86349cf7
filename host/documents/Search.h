#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/documents/DocumentService.h"
#include "host/documents/SearchIndex.h"

namespace host {

/// Search by name over the working set: a replica of its names, kept on disk and brought up to date
/// with what changed since it was last used. While it lives, the extension's requests to forget a
/// domain go to it. Any thread; calls block for the extension and the disk.
class Search {
  public:
    /// `service` must outlive the search; `path` is the native path of the replica.
    Search(DocumentService& service, std::string path);
    ~Search();
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    /// The identifiers of the items whose names match, as SearchIndex::find says. Everything that
    /// happened before the call is taken into account.
    [[nodiscard]] platform::Result<std::vector<std::string>> find(std::string_view text);

  private:
    [[nodiscard]] platform::Result<void> update();
    [[nodiscard]] platform::Result<void> readAll();

    // Constant after construction.
    DocumentService& service_;
    std::shared_ptr<SearchIndex> index_;  // its own synchronisation

    std::mutex mutex_;  // held through an update, so that there is one at a time
};

}  // namespace host
