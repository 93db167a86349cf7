#pragma once

#include <cstddef>

#include "platform/foundation/QSPropertyList.h"

namespace platform {

/// The memory that a decoder may still fill. One decoder owns it; not shared between threads.
class ExpansionBudget {
  public:
    /// What an entry of a dictionary takes: a node of the tree, with the key and the value.
    static constexpr std::size_t dictionaryEntry =
        4 * sizeof(void*) + sizeof(QSPropertyList::Dictionary::value_type);

    explicit ExpansionBudget(std::size_t bytes) : left_(bytes) {}

    /// False, and nothing taken, where fewer are left.
    [[nodiscard]] bool spend(std::size_t bytes) {
        if (bytes > left_) return false;
        left_ -= bytes;
        return true;
    }

  private:
    std::size_t left_;
};

}  // namespace platform
