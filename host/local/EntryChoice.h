#pragma once

#include <memory>

#include "host/local/ExtensionSession.h"
#include "host/local/VolumeAccess.h"
#include "host/session/ItemTarget.h"

namespace host {

/// Makes the calls of this thread mean one name of an item for as long as it lives. Ends on the
/// thread that made it.
class EntryChoice {
  public:
    /// Which names an item without an entry is sought among.
    enum class Among { OutsideTrash, InTrash };

    /// The target's entry, which must still be the item: else the error for an item that does not
    /// exist. Without an entry, the only name of the item on that side of the trash; EMLINK, with
    /// their number in the description, where there are several; no choice where there is none.
    [[nodiscard]] static platform::Result<EntryChoice> make(const ExtensionSession& session,
                                                            const VolumeAccess& volume,
                                                            const ItemTarget& target, Among among);
    /// The target's entry, else no choice: for calls that harm no other name.
    [[nodiscard]] static platform::Result<EntryChoice> ofEntry(const ExtensionSession& session,
                                                               const VolumeAccess& volume,
                                                               const ItemTarget& target);

  private:
    /// Fails where the place cannot be read: without a preference another name would be meant.
    [[nodiscard]] static platform::Result<EntryChoice> ofPlace(const ExtensionSession& session,
                                                               const VolumeAccess& volume,
                                                               const platform::QSURL& place);
    explicit EntryChoice(std::shared_ptr<void> preference) : preference_(std::move(preference)) {}

    std::shared_ptr<void> preference_;  // null: none
};

}  // namespace host
