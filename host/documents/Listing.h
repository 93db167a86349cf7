#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/session/Page.h"

namespace host {

class Session;

/// Receives each item of a listing; false ends it.
using ItemHandler = std::function<bool(const ItemRecord&)>;
using Waiter = std::function<void(std::chrono::milliseconds)>;

/// What a listing has given out, over its restarts. Two names of one file are two rows with one
/// identifier, so what counts is how often an identifier was met: a row is new when its identifier
/// comes more often in this try than in any before. The first try, mostly the only one, keeps no
/// more than the identifiers' bytes.
class DeliveredItems {
  public:
    void beginTry();
    /// Whether the row has not been given out; it counts as given out from here on.
    [[nodiscard]] bool accept(const std::string& identifier);

  private:
    std::uint32_t tries_ = 0;
    std::string firstTry_;  // identifiers, a "\0" behind each
    std::unordered_map<std::string, std::uint32_t> delivered_;
    std::unordered_map<std::string, std::uint32_t> metInThisTry_;
};

/// One listing of one container to its end. A page that the extension refuses as expired sends the
/// listing back to its initial page after a pause; items given out before are not given out again.
///
/// A recursive container (working set, all directories) that is refused three times is put together
/// from single folders instead, which a change elsewhere does not disturb. A single folder fails
/// with its last error after eight tries. One thread, used once; blocks.
class Listing {
  public:
    /// All three must outlive the listing.
    Listing(Session& session, const Waiter& wait, const ItemHandler& handler)
        : session_(session), wait_(wait), handler_(handler) {}

    /// Success also where the handler ended it.
    [[nodiscard]] platform::Result<void> run(const std::string& container, Order order);

  private:
    [[nodiscard]] platform::Result<void> tryOnce(const std::string& container, Order order,
                                                 const ItemHandler& handler);
    /// Tries up to `tries` times, each row once in all of them.
    [[nodiscard]] platform::Result<void> retry(const std::string& container, Order order,
                                               std::uint32_t tries, DeliveredItems& delivered,
                                               const ItemHandler& handler);
    [[nodiscard]] platform::Result<void> folderByFolder(const std::string& container, Order order,
                                                        DeliveredItems& delivered);
    /// What is directly in the trash containers.
    [[nodiscard]] platform::Result<void> trash(Order order, const ItemHandler& handler);

    Session& session_;
    const Waiter& wait_;
    const ItemHandler& handler_;
    bool stopped_ = false;  // by the handler
};

}  // namespace host
