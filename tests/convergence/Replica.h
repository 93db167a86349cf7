#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/DocumentService.h"
#include "tests/convergence/Walker.h"

namespace tests {

/// What a client knows of the tree, from listing pages and change pages alone. What is in the trash
/// is left out: it is seen by listing only.
class Replica {
  public:
    explicit Replica(std::string name) : name_(std::move(name)) {}

    /// The first reason for which it can go on no more; empty while all is well.
    [[nodiscard]] const std::string& failure() const { return failure_; }

    /// Takes an anchor and lists the tree at once.
    void list(host::DocumentService& service);
    /// The same folder by folder, one page each time; begins anew where no listing runs.
    void listStep(host::DocumentService& service);
    [[nodiscard]] bool isListing() const { return !pending_.empty(); }

    /// Takes over what has changed. An anchor that is refused is counted, and the tree listed anew.
    void pull(host::DocumentService& service);
    [[nodiscard]] std::size_t refusals() const { return refusals_; }
    /// Goes back to what it knew when it kept that, as a client would that starts again.
    void goBack() { state_ = kept_; }
    void keep() { kept_ = state_; }

    /// Identifiers that were reported deleted since the last call.
    [[nodiscard]] std::set<std::string> takeDeleted() { return std::exchange(deleted_, {}); }

    /// The first difference to what a walk found; else nothing, and `identifiers` has every object.
    [[nodiscard]] std::string compare(const std::vector<WalkedRow>& rows,
                                      std::map<ObjectKey, std::string>& identifiers) const;

  private:
    struct State {
        std::map<std::string, host::ItemRecord> items;
        host::Anchor anchor;
    };
    struct Pending {
        std::string container;
        host::PageStart start = host::Order::ByName;
        int refusals = 0;
    };

    void begin(host::DocumentService& service);
    void take(const host::ChangePage& page);
    /// Below the root; empty where it is in no folder that is known.
    [[nodiscard]] std::string pathOf(const host::ItemRecord& item) const;
    void fail(const platform::QSError& error) {
        if (failure_.empty()) failure_ = name_ + ": " + error.description();
    }

    const std::string name_;
    std::string failure_;
    State state_, kept_;
    std::deque<Pending> pending_;
    std::set<std::string> deleted_;
    std::size_t refusals_ = 0, mishaps_ = 0;
    bool isListed_ = false;  ///< folder by folder, and no change was taken over since
};

}  // namespace tests
