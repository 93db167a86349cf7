#include <algorithm>
#include <limits>

#include "platform/volume/IdentityStore.h"

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

/// Marks beyond everything that can have been handed out since these, by any measure.
HighWaterMarks farAbove(HighWaterMarks marks) {
    const auto jump = [&](Counter counter, std::uint64_t distance, std::uint64_t last) {
        marks[counter] = std::min(marks[counter] + distance, last);
    };
    jump(Counter::Event, farOthers, lastOther);
    jump(Counter::Document, farDocuments, lastDocument);
    jump(Counter::File, farOthers, lastOther);
    return marks;
}

StoreDecision newStore(const std::optional<Witness::Record>& witness,
                       const VolumeFingerprint& volume, const std::string& damage) {
    StoreState state{.store = QSUUID::random(),
                     .history = QSUUID::random(),
                     .marks = beginning(),
                     .volume = volume,
                     .trouble = damage};
    if (witness) {
        state.marks = state.marks.above(witness->marks);
        if (damage.empty()) state.trouble = "the store was missing";
    } else if (!damage.empty()) {
        state.marks = farAbove(state.marks);
    }
    state.freshOnly = !state.trouble.empty();
    state.floor = state.marks[Counter::Event];
    return {.state = state, .isNews = true};
}

}  // namespace

StoreDecision decideAboutStore(const std::optional<StoreState>& found,
                               const std::optional<Witness::Record>& witness,
                               const VolumeFingerprint& volume, const std::string& damage) {
    if (!found) return newStore(witness, volume, damage);

    StoreDecision decision{.state = *found};
    auto& state = decision.state;
    const auto doubt = [&](const char* why) {
        state.history = QSUUID::random();
        state.freshOnly = true;
        state.trouble = why;
        decision.isNews = true;
    };
    if (!witness) {
        state.marks = farAbove(state.marks);
        doubt("the witness of the store was missing");
    } else if (witness->store != found->store) {
        state.marks = farAbove(state.marks.above(witness->marks));
        doubt("the witness was of another store");
    } else if (witness->marks.exceeds(found->marks)) {
        state.marks = state.marks.above(witness->marks);
        doubt("the store was an older copy of itself");
    }
    if (!volume.isSameVolume(found->volume)) {
        decision.dropsObjects = true;
        doubt("the storage is on another file system");
    }
    if (volume.uuid != found->volume.uuid || volume.root != found->volume.root) {
        state.volume = volume;
        decision.isNews = true;
    }
    // A new history knows nothing of what was before it.
    if (state.history != found->history) state.floor = state.marks[Counter::Event];
    return decision;
}

}  // namespace platform
