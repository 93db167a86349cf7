#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tidewell/items/LocalItem.h"

namespace tidewell {

/// Builds items of one moment, a page or a batch of events: the identifier of a parent is looked up
/// once for all of them. One thread at a time.
class ItemFactory {
  public:
    /// As LocalItem::findAtURL.
    [[nodiscard]] Result<std::shared_ptr<LocalItem>> makeItem(const QSURL& url);

  private:
    std::map<std::uint64_t, std::optional<std::string>> parents_;  ///< by inode
};

}  // namespace tidewell
