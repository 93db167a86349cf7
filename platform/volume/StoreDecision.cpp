#include <algorithm>
#include <limits>

#include "platform/volume/ObjectIndex.h"
#include "platform/volume/StoreState.h"

namespace platform {

namespace {

constexpr std::uint64_t farDocuments = std::uint64_t{1} << 24;
constexpr std::uint64_t farOthers = std::uint64_t{1} << 40;
constexpr std::uint64_t lastDocument = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t lastOther = std::numeric_limits<std::int64_t>::max();

constexpr HighWaterMarks beginning() {
    HighWaterMarks marks;
    marks.reserved = {1, 0, firstFreshFileID - 1};
    return marks;
}

/// Marks beyond what can have been handed out since these. A small part of what is left is used,
/// so that a witness that is missing at each start does not use up the numbers.
HighWaterMarks farAbove(HighWaterMarks marks) {
    const auto jump = [&](Counter counter, std::uint64_t distance, std::uint64_t last) {
        const auto left = last - std::min(marks[counter], last);
        marks[counter] += std::min(distance, left / 64);
    };
    jump(Counter::Event, farOthers, lastOther);
    jump(Counter::Document, farDocuments, lastDocument);
    jump(Counter::File, farOthers, lastOther);
    return marks;
}

/// Whether the store has seen less than the record says. What a later change of the store gave back
/// may be larger in the record.
bool isBehind(const HighWaterMarks& store, const HighWaterMarks& record) {
    if (store.sequence != record.sequence) return store.sequence < record.sequence;
    return store.above(record) != store;
}

StoreDecision newStore(const std::optional<Witness::Record>& witness,
                       const std::optional<FolderWitness>& folderWitness,
                       const VolumeFingerprint& volume, const std::string& damage) {
    StoreState state{.store = QSUUID::random(),
                     .history = QSUUID::random(),
                     .marks = beginning(),
                     .volume = volume,
                     .trouble = damage};
    if (witness) state.marks = state.marks.above(witness->marks);
    if (folderWitness) state.marks = state.marks.above(folderWitness->record.marks);
    const bool hadStore = witness || (folderWitness && folderWitness->isOfThisFolder);
    if (hadStore && damage.empty()) state.trouble = "the store was missing";
    if (!hadStore && !damage.empty()) state.marks = farAbove(state.marks);
    state.freshOnly = !state.trouble.empty();
    state.floor = state.marks[Counter::Event];
    return {.state = state, .isChanged = true};
}

}  // namespace

StoreDecision decideAboutStore(const std::optional<StoreState>& found,
                               const std::optional<Witness::Record>& witness,
                               const std::optional<FolderWitness>& folderWitness,
                               const VolumeFingerprint& volume, const std::string& damage) {
    if (!found) return newStore(witness, folderWitness, volume, damage);

    StoreDecision decision{.state = *found};
    auto& state = decision.state;
    const auto doubt = [&](const std::string& why) {
        state.history = QSUUID::random();
        state.freshOnly = true;
        state.trouble = why;
        decision.isChanged = true;
    };
    const bool isInFolder = folderWitness && folderWitness->isOfThisFolder &&
                            folderWitness->record.store == found->store;
    const bool isInFile = witness && witness->store == found->store;
    if (folderWitness && !isInFolder) {
        // Of another store or folder, so it says nothing about the age of this store.
        const auto sequence = state.marks.sequence;
        state.marks = state.marks.above(folderWitness->record.marks);
        state.marks.sequence = sequence;
    }
    if (!isInFile && !isInFolder) {
        if (witness) state.marks = state.marks.above(witness->marks);
        state.marks = farAbove(state.marks);
        doubt(witness ? "the witness was of another store"
                      : "the witness of the store was missing");
    } else if ((isInFile && isBehind(found->marks, witness->marks)) ||
               (isInFolder && isBehind(found->marks, folderWitness->record.marks))) {
        if (isInFile) state.marks = state.marks.above(witness->marks);
        if (isInFolder) state.marks = state.marks.above(folderWitness->record.marks);
        doubt("the store was an older copy of itself");
    }
    // The other witness is enough, and this one is written anew.
    decision.isChanged |= !isInFile;
    if (!damage.empty()) doubt(damage);
    if (!volume.isSameVolume(found->volume)) {
        decision.dropsObjects = true;
        doubt("the storage is on another file system");
    }
    if (volume.uuid != found->volume.uuid || volume.root != found->volume.root) {
        state.volume = volume;
        decision.isChanged = true;
    }
    // A new history knows nothing of what was before it.
    if (state.history != found->history) state.floor = state.marks[Counter::Event];
    return decision;
}

}  // namespace platform
