#include "platform/volume/Follower.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ranges>

#include "platform/files/ItemNames.h"
#include "platform/log/Log.h"
#include "platform/tree/PathRelation.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

constexpr auto retryAfter = 1s;    // a commit that failed, a storage that is missing
constexpr auto longestNap = 50ms;  // of one who waits for a decision
constexpr auto pace = 10ms;        // between commits while things go on happening

}  // namespace

Follower::Follower(VolumeService::State& state)
    : state_(state),
      reconciler_(state),
      reader_(state.index, state.indexMutex,
              [this](NodeNumber folder, std::string_view name) {
                  return reconciler_.isVacated(folder, name);
              }),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Follower::~Follower() {
    stop();
}

void Follower::stop() {
    isStopped_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
    // Who waits takes the mutex for each step, and leaves at the next.
    while (waiting_ != 0) std::this_thread::yield();
    // The next run could not know any more that the last removals have no replacement, nor that
    // an object was missing which is back then. And what could not be written is tried once more.
    const std::scoped_lock lock(mutex_, state_.storeMutex);
    const bool hasRemoved = readRemovals();
    const bool hasMissing = isFollowing_ && reconciler_.recordMissing();
    if (hasMissing || hasRemoved || storeTrouble_) (void)reconciler_.commit();
}

void Follower::wake() {
    const std::uint64_t one = 1;
    (void)!write(wake_.get(), &one, sizeof one);
}

void Follower::resumeDecisions() {
    const std::scoped_lock lock(mutex_, state_.storeMutex);
    reconciler_.restoreUndecided(now());
}

void Follower::follow() {
    if (isFollowing_) return;
    const std::scoped_lock lock(mutex_);
    if (isFollowing_ || isStopped_) return;
    auto source =
        state_.configuration.makeSource ? state_.configuration.makeSource() : makeInotifySource();
    if (!source) {
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't watch folders; " + source.error().description();
        });
    } else {
        source_ = std::move(*source);
    }
    {
        const std::scoped_lock store(state_.storeMutex);
        if (isNeverScanned()) beginFirstScan();
    }
    scanEverything(false);
    isFollowing_ = true;
    if (!state_.configuration.isManual) thread_ = std::thread([this] { run(); });
}

void Follower::run() {
    while (!isStopped_) {
        const auto before = state_.store->lastEvent();
        while (step() && !isStopped_) {
            // Who waits goes first.
            if (waiting_ != 0) std::this_thread::sleep_for(1ms);
        }
        // What comes in quick succession goes into one commit; who cannot wait takes a step itself.
        if (state_.store->lastEvent() != before && !isStopped_) std::this_thread::sleep_for(pace);
        waitForWork();
    }
}

Follower::Time Follower::nextTime() const {
    // Nothing else is done before the storage is back and the store can be written to.
    if (storageTrouble_) return now() + Time::duration(retryAfter);
    if (storeTrouble_) return nextTry_;
    auto until = nextScan_;
    if (!unwatched_.empty()) until = std::min(until, nextDegradedScan_);
    if (!unreadable_.empty()) until = std::min(until, nextUnreadableLook_);
    if (!reconciler_.isSettled()) until = std::min(until, nextDecision_);
    return until;
}

void Follower::waitForWork() {
    Time until;
    {
        const std::scoped_lock lock(mutex_);
        until = nextTime();
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now()).count();
    constexpr std::chrono::seconds idle(1);
    if (state_.configuration.files.closeIdleRoots(idle)) left = std::min(left, std::int64_t{1000});
    pollfd fds[] = {{wake_.get(), POLLIN, 0}, {source_ ? source_->descriptor() : -1, POLLIN, 0}};
    (void)poll(fds, 2, static_cast<int>(std::clamp<std::int64_t>(left + 1, 0, 3'600'000)));
    std::uint64_t count = 0;
    (void)!read(wake_.get(), &count, sizeof count);
}

bool Follower::step() {
    bool more = false;
    {
        const std::scoped_lock lock(mutex_);
        more = isFollowing_ && !isStopped_ && stepLocked(true);
    }
    state_.announce();
    return more;
}

bool Follower::stepLocked(bool waitsForRoutine) {
    passStart_ = now();
    (void)state_.clock->stamp();  // counts on, also through weeks without a start
    state_.lookingSince = std::chrono::steady_clock::now();
    const auto moved = state_.movedObjects();
    moved_.insert(moved_.end(), moved.begin(), moved.end());
    drain();
    if (!checkStorage()) return false;
    if (storeTrouble_) {
        if (passStart_ < nextTry_) return false;
        (void)reconcile({}, Reconciler::Occasion::Live);
        if (storeTrouble_) return false;
    }
    if (!isScanning_ && passStart_ >= nextScan_) scanEverything(true);
    if (!unwatched_.empty() && passStart_ >= nextDegradedScan_) {
        nextDegradedScan_ = passStart_ + state_.configuration.degradedInterval;
        lookAtUnwatched();
    }
    if (!unreadable_.empty() && passStart_ >= nextUnreadableLook_) {
        nextUnreadableLook_ = passStart_ + state_.configuration.degradedInterval;
        for (const auto folder : unreadable_) marks_[folder].isWhole = true;
    }
    lookAtMarks();
    state_.forgetRemovals(std::exchange(moved_, {}));
    commitRemovals();
    const auto compares = [&] { return isScanning_ && (waitsForRoutine || !isRoutine_); };
    if (marks_.empty() && compares()) scanSome();
    if (!isScanning_ && !storeTrouble_) decide();
    return (hasMarks() || compares()) && !storeTrouble_;
}

bool Follower::hasMarks() const {
    return !marks_.empty() || (isMoved_ && !detached_.empty());
}

bool Follower::checkStorage() {
    const auto there = state_.configuration.files.checkStorage();
    const bool isBack = there && storageTrouble_;
    if (!there && !storageTrouble_) {
        Log::platformLog().write(
            LogLevel::Error, [&] { return "the storage is away; " + there.error().description(); });
    }
    storageTrouble_ = there ? std::nullopt : std::optional(there.error());
    state_.setStorageTrouble(storageTrouble_);
    if (!isBack) return there.has_value();
    const auto& files = state_.configuration.files;
    if (const auto device = files.deviceOf(files.storageURL())) state_.device = *device;
    scanEverything(false);
    return true;
}

void Follower::drain() {
    popRechecks();
    readKernelEvents();
}

void Follower::readKernelEvents() {
    if (!source_) return;
    for (const auto& event : source_->read()) receive(event);
}

void Follower::popRechecks() {
    const auto rechecks = state_.popRechecks();
    if (rechecks.empty()) return;
    const std::scoped_lock store(state_.storeMutex);
    for (const auto& recheck : rechecks) {
        const auto folder = reconciler_.expect(recheck, now());
        if (folder == ObjectIndex::none) continue;
        markName(folder, recheck.name);
    }
}

void Follower::markName(NodeNumber folder, std::string_view name) {
    auto& mark = marks_[folder];
    if (!mark.isWhole) mark.names.try_emplace(std::string(name), false);
}

bool Follower::readRemovals() {
    const auto removed = state_.removedObjects();
    for (const auto& object : removed) reconciler_.removed(object, now());
    state_.forgetRemovals(removed);
    return !removed.empty();
}

void Follower::commitRemovals() {
    {
        const std::scoped_lock store(state_.storeMutex);
        if (!readRemovals()) return;
        noteCommit(reconciler_.commit());
    }
    afterCommit();
}

void Follower::receive(const KernelEvent& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        markGap("the kernel's queue of events overflowed");
        return;
    }
    const auto found = folders_.find(event.watch);
    if (found == folders_.end()) return;
    const auto folder = found->second;
    if ((event.mask & IN_IGNORED) != 0) {
        // The watch has ended, or an earlier one of that number has: a look will decide, and watch.
        folders_.erase(found);
        watches_.erase(folder);
        marks_[folder].isWhole = true;
        return;
    }
    const bool isWritten = (event.mask & (IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB)) != 0;
    // What a copy adds is reported once, with its name, and not committed while it grows.
    if (isWritten && event.name.starts_with(hiddenNamePrefix)) return;
    auto& mark = marks_[folder];
    if (mark.isWhole || event.name.empty()) return;
    mark.names[event.name] |= isWritten;
    constexpr std::size_t mostNames = 8192;
    if (mark.names.size() <= mostNames) return;
    mark.names.clear();
    mark.isWhole = true;
}

void Follower::markGap(std::string why) {
    Log::platformLog().write(LogLevel::Info, [&] { return why + "; comparing everything"; });
    {
        const std::scoped_lock store(state_.storeMutex);
        const std::shared_lock index(state_.indexMutex);
        for (const auto& root : state_.roots) reconciler_.recordGap(root.url.path(), why);
    }
    marks_.clear();
    detached_.clear();
    scanEverything(false);
}

Follower::Look Follower::look(NodeNumber folder, Mark mark) {
    std::optional<QSURL> url;
    bool hasChildren = false;
    {
        const std::shared_lock lock(state_.indexMutex);
        url = state_.urlOf(folder);
        hasChildren = state_.index.node(folder).firstChild != ObjectIndex::none;
    }
    auto reading = url ? readFolder(folder, *url, mark) : std::unexpected(errorFromErrno(ENOENT));
    return {folder, std::move(mark), std::move(url), hasChildren, std::move(reading)};
}

Result<FolderReading> Follower::readFolder(NodeNumber number, const QSURL& url, const Mark& mark) {
    auto folder = state_.configuration.files.openFolder(url);
    if (!folder) return std::unexpected(folder.error());
    auto reading = reader_.begin(number, **folder);
    if (!reading) return reading;
    {
        // Watched first, so that nothing happens unseen between the two. What happened before may
        // be unknown.
        const std::scoped_lock lock(readersMutex_);
        if (watch(number, **folder) && !mark.isWhole) marks_[number].isWhole = true;
    }
    if (!mark.isWhole) {
        reading->isPart = isPart(number);
        reader_.readNames(**folder, {mark.names.begin(), mark.names.end()}, *reading);
        return reading;
    }
    const auto done = reader_.readAll(
        **folder,
        [this] {
            const std::scoped_lock lock(readersMutex_);
            readKernelEvents();
            return !isStopped_;
        },
        *reading);
    if (!done) return std::unexpected(done.error());
    return reading;
}

bool Follower::isPart(NodeNumber folder) {
    const std::scoped_lock lock(readersMutex_);
    readKernelEvents();
    const bool isFollowed = watches_.contains(folder) && (!isScanning_ || isCompared(folder));
    return !isFollowed || marks_.contains(folder);
}

void Follower::apply(Look look, std::vector<FolderReading>& readings) {
    const auto folder = look.folder;
    if (look.reading) {
        scanned_ += look.reading->names ? look.reading->names->size() : 0;
        if (look.reading->names) setCompared(folder, true);
        if (look.reading->trouble) {
            noteUnreadable(look, *look.reading->trouble);
        } else if (look.reading->names) {
            unreadable_.erase(folder);
        }
        readings.push_back(std::move(*look.reading));
        return;
    }
    const auto& error = look.reading.error();
    switch (error.code) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case EXDEV:
        case ESTALE: {
            // It is elsewhere, and the index does not know yet; or it was removed.
            auto& kept = detached_[folder];
            kept.isWhole |= look.mark.isWhole;
            if (!kept.isWhole) kept.names.merge(look.mark.names);
            return;
        }
        default:
            break;
    }
    if (isStopped_ || !noteUnreadable(look, error) || !look.hasChildren) return;
    const auto& files = state_.configuration.files;
    const auto own = files.freshAttributes(*look.url);
    const std::scoped_lock store(state_.storeMutex);
    reconciler_.recordUnreadable(look.folder, own ? stampOf(**own) : 0, look.url->path(),
                                 "a folder can't be read: " + files.nativePath(*look.url));
}

bool Follower::noteUnreadable(const Look& look, const QSError& error) {
    if (unreadable_.empty()) nextUnreadableLook_ = now() + state_.configuration.degradedInterval;
    if (!unreadable_.insert(look.folder).second) return false;
    Log::platformLog().write(LogLevel::Error, [&] {
        return "can't read all of \"" + state_.configuration.files.nativePath(*look.url) + "\"; " +
               error.description();
    });
    return true;
}

bool Follower::watch(NodeNumber number, const Folder& folder) {
    if (watches_.contains(number)) return false;
    const auto added =
        source_ ? source_->addWatch(folder.descriptor()) : std::unexpected(errorFromErrno(EMFILE));
    if (added) {
        // Of a removed folder, if the number was used before.
        if (const auto former = folders_.find(*added); former != folders_.end()) {
            watches_.erase(former->second);
        }
        folders_[*added] = number;
        watches_[number] = *added;
        unwatched_.erase(number);
        hasUnwatched_ = !unwatched_.empty();
        return true;
    }
    if (unwatched_.empty()) {
        nextDegradedScan_ = now() + state_.configuration.degradedInterval;
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't watch \"" + state_.configuration.files.nativePath(folder.url()) +
                   "\", which is looked at now and then instead; " + added.error().description();
        });
    }
    unwatched_.insert(number);
    hasUnwatched_ = true;
    return false;
}

void Follower::unwatch(NodeNumber number) {
    unwatched_.erase(number);
    hasUnwatched_ = !unwatched_.empty();
    unreadable_.erase(number);
    setCompared(number, false);
    marks_.erase(number);
    detached_.erase(number);
    const auto found = watches_.find(number);
    if (found == watches_.end()) return;
    source_->removeWatch(found->second);
    folders_.erase(found->second);
    watches_.erase(found);
}

void Follower::lookAtMarks() {
    // All that is marked now is looked at before anything newer, so that an object that went from
    // one folder to another is seen at both within one pass.
    if (std::exchange(isMoved_, false)) {
        for (auto& [folder, mark] : std::exchange(detached_, {})) {
            auto& into = marks_[folder];
            into.isWhole |= mark.isWhole;
            into.names.merge(mark.names);
        }
    }
    if (marks_.empty()) return;
    std::vector<FolderReading> readings;
    std::size_t seen = 0;
    for (auto& [folder, mark] : std::exchange(marks_, {})) {
        apply(look(folder, std::move(mark)), readings);
        if (!readings.empty()) seen += readings.back().sightings.size() + 1;
        if (seen < sightingsAtOnce) continue;
        (void)reconcile(std::exchange(readings, {}), Reconciler::Occasion::Live);
        seen = 0;
    }
    // Also where nothing could be read, which may be a gap.
    (void)reconcile(std::move(readings), Reconciler::Occasion::Live);
}

Result<void> Follower::reconcile(std::vector<FolderReading> readings,
                                 Reconciler::Occasion occasion) {
    Result<void> done;
    {
        const std::scoped_lock store(state_.storeMutex);
        (void)reconciler_.popLeft();
        for (const auto& reading : readings) {
            reconciler_.apply(reading, occasion, now(), beginning_.wall);
        }
        // Where it went may be still to be compared.
        if (occasion != Reconciler::Occasion::Live && reconciler_.popLeft()) isRoutine_ = false;
        done = reconciler_.commit();
        noteCommit(done);
    }
    afterCommit();
    for (const auto& [folder, name] : reconciler_.popUnsureNames()) markName(folder, name);
    const bool isLive = occasion == Reconciler::Occasion::Live;
    for (const auto folder : reconciler_.popNewFolders()) {
        isMoved_ = true;
        if (isLive) marks_[folder].isWhole = true;
        // It may have come from where the scan is still to pass to where it has been.
        if (isLive && isScanning_) scan_.push_back(folder);
    }
    for (const auto& reading : readings) {
        if (isLive && !isScanning_ && reading.names) markMissed(reading.folder);
    }
    isMoved_ |= !detached_.empty() && std::ranges::any_of(readings, [](const auto& reading) {
        return std::ranges::any_of(reading.sightings, [](const Sighting& sighting) {
            return sighting.state && sighting.state->kind == ObjectKind::Directory;
        });
    });
    return done;
}

void Follower::noteCommit(const Result<void>& done) {
    storeTrouble_ = done ? std::nullopt : std::optional(done.error());
    if (storeTrouble_) nextTry_ = now() + Time::duration(retryAfter);
}

void Follower::writeFolderWitness() {
    if (!state_.folderWitnessIsDue) return;
    const std::scoped_lock lock(mutex_);
    state_.writeFolderWitness();
}

void Follower::afterCommit() {
    state_.writeFolderWitness();
    for (const auto folder : reconciler_.popRemovedFolders()) unwatch(folder);
    if (!reconciler_.isSettled()) {
        nextDecision_ = std::min(nextDecision_, now() + state_.configuration.windows.rest);
    }
}

/// What is missing may be in a folder that the kernel does not report on, or in a new one there.
void Follower::lookAtUnwatched() {
    if (unwatched_.empty()) return;
    for (const auto folder : unwatched_) marks_[folder].isWhole = true;
    while (hasMarks() && !storeTrouble_ && !isStopped_) lookAtMarks();
}

void Follower::decide() {
    if (reconciler_.isSettled() || passStart_ < nextDecision_) return;
    lookAtUnwatched();
    {
        const std::scoped_lock store(state_.storeMutex);
        reconciler_.decideDue(passStart_, passStart_);
        noteCommit(reconciler_.commit());
    }
    nextDecision_ = reconciler_.nextDecision(passStart_).value_or(Time::max());
    afterCommit();
    // With folders that have to be looked at each time, not as often.
    if (unwatched_.empty()) return;
    nextDecision_ = std::max(nextDecision_, passStart_ + state_.configuration.windows.replacement);
}

Result<void> Follower::wait(Barrier barrier) {
    follow();
    ++waiting_;
    // The thread sleeps until what it last knew to be due.
    bool isSooner = false;
    const auto leave = [&](Result<void> result) {
        --waiting_;
        if (isSooner) wake();
        return result;
    };
    for (bool isFirst = true;; isFirst = false) {
        bool isDone = false;
        {
            const std::scoped_lock lock(mutex_);
            if (isStopped_) return leave(std::unexpected(errorFromErrno(ECANCELED)));
            if (isFirst) nextTry_ = now();  // the store may be writable again
            const auto due = nextTime();
            const bool more = stepLocked(barrier == Barrier::Settled);
            isSooner |= more || nextTime() < due;
            if (storageTrouble_) return leave(std::unexpected(*storageTrouble_));
            // Nothing is looked at before what was found is written.
            if (storeTrouble_) return leave(std::unexpected(*storeTrouble_));
            isDone = !more && (barrier == Barrier::Seen || reconciler_.isSettled());
            if (more) continue;
        }
        state_.announce();
        if (isDone) return leave({});
        pollfd fd{wake_.get(), POLLIN, 0};
        (void)poll(&fd, 1, static_cast<int>(longestNap.count()));
    }
}

Result<void> Follower::waitLooking(std::span<const std::string> folders) {
    {
        const std::scoped_lock lock(mutex_);
        std::ranges::for_each(folders, [&](const auto& folder) { markPath(folder); });
        lookAtUnwatched();
    }
    return wait(Barrier::Seen);
}

/// Each name on the way is looked at once more.
void Follower::markPath(std::string_view folder) {
    const std::shared_lock lock(state_.indexMutex);
    for (const auto& root : state_.roots) {
        const auto relative = relativePath(folder, root.url.path());
        if (!relative || relative->empty()) continue;
        auto at = root.node;
        for (const auto part : std::views::split(*relative, '/')) {
            const std::string_view name(part.begin(), part.end());
            markName(at, name);
            at = state_.index.findObject(at, name);
            if (at == ObjectIndex::none) break;
        }
    }
}

Result<void> Follower::decideFor(std::span<const VolumeService::IdentityRequest> requests) {
    if (auto seen = wait(Barrier::Seen); !seen) return seen;
    Result<void> done;
    {
        const std::scoped_lock lock(mutex_);
        lookAtUnwatched();
        const std::scoped_lock store(state_.storeMutex);
        reconciler_.decideFor(requests, now());
        done = reconciler_.commit();
        noteCommit(done);
    }
    state_.announce();
    return done;
}

bool Follower::haveOnlyMoved(std::span<const VolumeService::IdentityRequest> requests) const {
    const std::scoped_lock lock(mutex_);
    if (!storeTrouble_) return false;
    return std::ranges::all_of(
        requests, [&](const auto& request) { return reconciler_.hasOnlyMoved(request); });
}

Result<void> Follower::commit() {
    Result<void> done;
    {
        const std::scoped_lock lock(mutex_, state_.storeMutex);
        done = reconciler_.commit();
        noteCommit(done);
    }
    state_.announce();
    return done;
}

std::optional<QSURL> Follower::lastPlaceOf(NodeNumber object) const {
    const std::scoped_lock lock(mutex_);
    return reconciler_.lastPlaceOf(object);
}

void Follower::decideAbout(std::uint32_t documentID) {
    if (!wait(Barrier::Seen)) return;
    {
        const std::scoped_lock lock(mutex_);
        lookAtUnwatched();
        const std::scoped_lock store(state_.storeMutex);
        reconciler_.decideAbout(documentID, now());
        noteCommit(reconciler_.commit());
    }
    state_.announce();
}

std::optional<QSError> Follower::storeTrouble() const {
    const std::scoped_lock lock(mutex_);
    return storeTrouble_;
}

Follower::Health Follower::health() const {
    const std::scoped_lock lock(mutex_);
    Health health{watches_.size(), {}, unwatched_.size() + unreadable_.size(), {}, {}};
    if (storageTrouble_) health.storageTrouble = storageTrouble_->description();
    if (storeTrouble_) health.storeTrouble = storeTrouble_->description();
    constexpr std::size_t mostNamed = 20;
    const std::shared_lock index(state_.indexMutex);
    for (const auto* folders : {&unwatched_, &unreadable_}) {
        for (const auto folder : *folders) {
            if (health.degradedFolders.size() == mostNamed) break;
            const auto url = state_.urlOf(folder);
            if (url) {
                health.degradedFolders.push_back(state_.configuration.files.nativePath(*url));
            }
        }
    }
    return health;
}

}  // namespace platform
