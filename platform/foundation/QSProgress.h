#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

/// How far one long operation is, and the way to end it early. Shared by who works and who waits;
/// any thread, nothing blocks.
class QSProgress {
  public:
    /// Files, folders and links that are done.
    [[nodiscard]] std::uint64_t completedItems() const { return items_; }
    /// Bytes of content that are done; an operation that copies none stays at 0.
    [[nodiscard]] std::uint64_t completedBytes() const { return bytes_; }
    void addItem() { items_.fetch_add(1, std::memory_order_relaxed); }
    void addBytes(std::uint64_t bytes) { bytes_.fetch_add(bytes, std::memory_order_relaxed); }

    /// Asks the operation to end with ECANCELED, as if it had never begun. One that is past the
    /// point of no return ends as it would have.
    void cancel() { isCancelled_ = true; }
    [[nodiscard]] bool isCancelled() const { return isCancelled_; }

  private:
    std::atomic<std::uint64_t> items_ = 0;
    std::atomic<std::uint64_t> bytes_ = 0;
    std::atomic<bool> isCancelled_ = false;
};

}  // namespace platform
