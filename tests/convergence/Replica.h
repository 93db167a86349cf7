#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/documents/DocumentService.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "tests/convergence/Recipes.h"
#include "tests/convergence/Walker.h"

namespace tests {

/// What a client knows of the tree, or of one folder, from listing pages and change pages alone.
/// What is in the trash of the tree is left out: it is seen by listing only.
class Replica {
  public:
    explicit Replica(std::string name) : name_(std::move(name)) {}

    /// The first reason for which it can go on no more; empty while all is well.
    [[nodiscard]] const std::string& failure() const { return failure_; }

    /// Turns to a single folder. When that is missing, it holds none.
    void turnTo(const std::string& folder) { container_ = folder, isListing_ = true, state_ = {}; }
    /// Empty where it holds none.
    [[nodiscard]] const std::string& container() const { return container_; }
    /// Any folder that it knows; the root where it knows none.
    [[nodiscard]] std::string anyFolder(Random& random) const;

    /// Takes an anchor and lists the container at once.
    void list(host::DocumentService& service);
    /// The same folder by folder, one page each time; begins anew where no listing runs.
    void listStep(host::DocumentService& service);
    [[nodiscard]] bool isListing() const { return !pending_.empty(); }

    /// Applies the changes since its anchor. An anchor that is refused is counted, and the
    /// container listed anew.
    void pull(host::DocumentService& service);
    /// While the store cannot be written, calls may fail, and are made again later.
    void setPatient(bool isPatient) { isPatient_ = isPatient; }
    [[nodiscard]] std::size_t refusals() const { return refusals_; }
    /// Goes back to what it knew when it kept that, as a client would that starts again.
    void goBack() { state_ = kept_; }
    void keep() {
        if (!isListing_) kept_ = state_;
    }

    /// Identifiers that were reported deleted since the last call.
    [[nodiscard]] std::set<std::string> popDeleted() { return std::exchange(deleted_, {}); }

    /// The first difference to what a walk found; else nothing, and `identifiers` has every object.
    /// `folder`: where the container is, below the base folder.
    [[nodiscard]] std::string compare(const std::vector<WalkedRow>& rows,
                                      std::map<ObjectKey, std::string>& identifiers,
                                      const std::string& folder = "s") const;

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
    void apply(const host::ChangePage& page);
    /// Below the root; empty where it is in no folder that is known.
    [[nodiscard]] std::string pathOf(const host::ItemRecord& item) const;
    [[nodiscard]] bool isShown(const WalkedRow& row, const std::string& folder) const;
    [[nodiscard]] bool isTree() const;
    void fail(const platform::QSError& error);

    const std::string name_;
    std::string container_{platform::QSFileProviderWorkingSetContainerItemIdentifier};
    std::string failure_;
    bool isListing_ = false;  ///< at the next pull
    bool isPatient_ = false;
    State state_, kept_;
    std::deque<Pending> pending_;
    std::set<std::string> listed_;  ///< by listStep(), and not reported since
    std::set<std::string> deleted_;
    std::size_t refusals_ = 0, mishaps_ = 0;
    bool isListed_ = false;  ///< folder by folder, and no change was taken over since
};

}  // namespace tests
