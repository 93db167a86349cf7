#include "platform/volume/ElapsedClock.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>

#include "platform/files/DataFile.h"
#include "platform/log/Log.h"

namespace platform {

namespace {

constexpr std::int64_t day = 24 * 60 * 60;
constexpr std::int64_t longestGap = 7 * day;
constexpr std::int64_t betweenWrites = 60 * 60;
constexpr std::int64_t retryAfter = 60;
// How far the wall clock may be off its segment: it is slewed, and both clocks are rounded down.
constexpr std::int64_t mostBehind = 1;
constexpr std::int64_t mostAhead = 60;
constexpr std::size_t mostSegments = 1000;
constexpr std::size_t largestFile = 1 << 16;
constexpr std::string_view title = "tidewell clock 1";

}  // namespace

std::chrono::seconds ElapsedClock::secondsSinceBoot() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec);
}

std::string ElapsedClock::bootID() {
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id.empty() ? "unknown" : id;
}

ElapsedClock::ElapsedClock(std::string path, Sources sources)
    : path_(std::move(path)), sources_(std::move(sources)) {
    const std::scoped_lock lock(mutex_);
    const auto wall = sources_.wall();
    if (read()) {
        (void)note(wall);
        return;
    }
    boot_ = sources_.boot();
    sinceBoot_ = sources_.sinceBoot().count();
    elapsed_ = nextWrite_ = 0;
    segments_ = {{0, wall.seconds}};
    (void)note(wall);
}

bool ElapsedClock::read() {
    const auto bytes = dataWithContentsOfFile(path_, largestFile);
    if (!bytes) return false;
    std::istringstream text(std::string(bytes->begin(), bytes->end()));
    std::string line;
    std::int64_t wall = 0;
    if (!std::getline(text, line) || line != title) return false;
    if (!(text >> boot_ >> sinceBoot_ >> elapsed_ >> wall)) return false;
    segments_.clear();
    for (Segment next; text >> next.elapsed >> next.wall;) {
        const bool isInOrder =
            segments_.empty() ? next.elapsed == 0 : segments_.back().elapsed < next.elapsed;
        if (!isInOrder || next.elapsed > elapsed_) return false;
        segments_.push_back(next);
    }
    text.clear();
    if (segments_.empty() || !(text >> line) || line != "end") return false;

    nextWrite_ = elapsed_ + betweenWrites;
    const auto sinceBoot = sources_.sinceBoot().count();
    auto boot = sources_.boot();
    if (boot == boot_ && sinceBoot >= sinceBoot_) return true;
    const auto gap = sources_.wall().seconds - wall - sinceBoot;
    elapsed_ += std::clamp<std::int64_t>(gap, 0, longestGap);
    sinceBoot_ = 0;
    boot_ = std::move(boot);
    nextWrite_ = 0;
    return true;
}

Result<void> ElapsedClock::write() const {
    std::string text(title);
    const auto wall = segments_.back().wall + elapsed_ - segments_.back().elapsed;
    text += "\n" + boot_ + " " + std::to_string(sinceBoot_) + " " + std::to_string(elapsed_) + " " +
            std::to_string(wall) + "\n";
    for (const auto& segment : segments_) {
        text += std::to_string(segment.elapsed) + " " + std::to_string(segment.wall) + "\n";
    }
    text += "end\n";
    return writeDataAtomically(dataFromString(text), path_);
}

std::int64_t ElapsedClock::note(const QSDate& wall) {
    const auto sinceBoot = sources_.sinceBoot().count();
    elapsed_ += std::max<std::int64_t>(sinceBoot - sinceBoot_, 0);
    sinceBoot_ = sinceBoot;
    const auto expected = segments_.back().wall + elapsed_ - segments_.back().elapsed;
    if (wall.seconds < expected - mostBehind || wall.seconds > expected + mostAhead) {
        if (segments_.back().elapsed == elapsed_) {
            // Both were shown within this second.
            auto& last = segments_.back();
            last.wall = std::min(last.wall, wall.seconds);
        } else {
            segments_.push_back({elapsed_, wall.seconds});
        }
        if (segments_.size() > mostSegments) {
            const auto second = segments_[1];
            segments_.erase(segments_.begin() + 1);
            segments_[0].wall = std::min(segments_[0].wall, second.wall - second.elapsed);
        }
        nextWrite_ = 0;
    }
    if (elapsed_ < nextWrite_) return elapsed_;
    const auto written = write();
    nextWrite_ = elapsed_ + (written ? betweenWrites : retryAfter);
    if (!written) {
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't keep the elapsed time; " + written.error().description();
        });
    }
    return elapsed_;
}

QSDate ElapsedClock::stamp() {
    const std::scoped_lock lock(mutex_);
    const auto wall = sources_.wall();
    (void)note(wall);
    return wall;
}

ElapsedClock::Limit ElapsedClock::limitForAge(std::chrono::seconds age) {
    const std::scoped_lock lock(mutex_);
    const auto now = sources_.wall();
    const auto from = note(now) - age.count();
    Limit limit{.wall = {now.seconds - age.count(), now.nanoseconds}, .safe = {}};
    auto earliest = now.seconds;
    auto shown = now.seconds;  // at `from`
    for (std::size_t i = segments_.size(); i-- > 0;) {
        const auto& segment = segments_[i];
        // Before the first segment the wall clock is taken to have been as in it.
        const auto begin = i == 0 ? from : std::max(segment.elapsed, from);
        shown = segment.wall + begin - segment.elapsed;
        earliest = std::min(earliest, shown);
        if (begin == from) break;
    }
    limit.clocksDiffer =
        std::abs(shown - limit.wall.seconds) > day || earliest < limit.wall.seconds - day;
    if (from >= 0) limit.safe = std::min(limit.wall, QSDate{earliest - mostBehind, 0});
    return limit;
}

}  // namespace platform
