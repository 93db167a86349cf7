#include "platform/volume/SaveVerdict.h"

#include "platform/volume/SaveNames.h"

namespace platform {

SaveVerdict decideAboutSave(const SaveFacts& facts, const VolumeService::Windows& windows) {
    if (facts.isByThisProcess) return SaveVerdict::Keep;
    const bool mayWait = !facts.mustDecide && !facts.isFromScan;
    if (!facts.replacement) {
        const auto window = facts.ownerName ? windows.rename : windows.replacement;
        return mayWait && facts.age < window ? SaveVerdict::Wait : SaveVerdict::Keep;
    }
    const auto& replacement = *facts.replacement;
    if (!replacement.isSameKind || replacement.hasOwnIdentifier) return SaveVerdict::Keep;
    if (!facts.ownerName) {
        // The second half of a move of the document's object may still be unread.
        const bool isSure = facts.isRead && facts.age >= windows.rest;
        return mayWait && !isSure ? SaveVerdict::Wait : SaveVerdict::Move;
    }
    if (!facts.isOwnerInTrash && isBackupName(*facts.ownerName, facts.vacatedName)) {
        return SaveVerdict::Move;
    }
    if (replacement.isFromOwnersPlace && replacement.isRecent) return SaveVerdict::Move;
    return mayWait && facts.age < windows.rename ? SaveVerdict::Wait : SaveVerdict::Keep;
}

}  // namespace platform
