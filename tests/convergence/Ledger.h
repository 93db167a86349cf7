#pragma once

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/convergence/Actor.h"
#include "tests/convergence/Walker.h"

namespace tests {

/// Which document is which: what must have become of identifiers, from what the actors did. It
/// speaks up only where that leaves no doubt.
class Ledger {
  public:
    struct Barrier {
        std::vector<Deed> deeds;  ///< since the last barrier
        std::vector<WalkedRow> rows;
        std::map<ObjectKey, std::string> identifiers = {};  ///< of what is shown
        std::set<std::string> deleted = {};                 ///< reported since the last barrier
        bool forgetsIdentifiers = false;                    ///< the store was lost
        bool isReportedLate = false;                        ///< some of it after clients looked
    };

    /// The first thing that is wrong, or nothing. A deed "save NAME" says that the operation is a
    /// safe-save, after which the identifier is to be found with the name.
    [[nodiscard]] std::string check(Barrier barrier);

    /// How many safe-saves were certain enough to be judged.
    [[nodiscard]] std::size_t judgedSaves() const { return judgedSaves_; }

  private:
    void readInterval();
    void noteRelated(const std::map<std::string, std::set<ObjectKey>>& objectsAtPlaces);
    [[nodiscard]] std::string checkObject(const ObjectKey& object,
                                          const std::string& identifier) const;
    [[nodiscard]] std::string checkSave(const Deed& save);
    [[nodiscard]] std::string checkDeletions() const;
    [[nodiscard]] std::string describe(const ObjectKey& object) const;

    Barrier before_, now_;
    // Of the time between the two.
    std::set<ObjectKey> doubtful_;           // whose identifier another object may have taken over
    std::set<ObjectKey> hidden_;             // that were out of sight at some time
    std::map<ObjectKey, std::string> path_;  // of what is there now

    // Over the whole run.
    std::map<ObjectKey, std::array<std::string, 2>> known_;  // as document, as file
    std::map<std::string, ObjectKey> owners_;
    /// Objects that were at the same place at nearly the same time, and those related to them
    /// before.
    std::map<ObjectKey, std::set<ObjectKey>> related_;
    std::size_t judgedSaves_ = 0;
};

}  // namespace tests
