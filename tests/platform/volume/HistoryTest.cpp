#include <gmock/gmock.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <thread>

#include <algorithm>
#include <set>

#include "tests/platform/volume/VolumeFixture.h"
#include "tests/support/AsOwnerAlone.h"
#include "tests/support/FullDisk.h"

namespace {

std::string unreadableName;           // of an entry on which statx fails
std::function<void()> happensAtLook;  // once, before the next statx

}  // namespace

/// The product's calls come here.
extern "C" int statx(int folder, const char* name, int flags, unsigned mask, struct statx* into) {
    if (const auto happens = std::exchange(happensAtLook, nullptr)) happens();
    if (!unreadableName.empty() && name == unreadableName) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_statx, folder, name, flags, mask, into));
}

namespace tests {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

/// The kernel's events, with only so many watches, an overflow where a test wants one, and what a
/// test does once while they are read.
class LimitedSource final : public KernelEventSource {
  public:
    LimitedSource(int& watches, bool& overflows, std::function<void()>& happens)
        : watches_(watches), overflows_(overflows), happens_(happens) {}
    Result<int> addWatch(int folder) override {
        if (watches_-- <= 0) return std::unexpected(errorFromErrno(ENOSPC));
        return real_->addWatch(folder);
    }
    void removeWatch(int watch) override { real_->removeWatch(watch); }
    std::vector<KernelEvent> read() override {
        ++reads;
        if (const auto happens = std::exchange(happens_, nullptr)) happens();
        auto events = real_->read();
        if (std::exchange(overflows_, false)) events.push_back({-1, IN_Q_OVERFLOW, ""});
        return events;
    }
    int descriptor() const override { return real_->descriptor(); }

    static inline std::atomic<int> reads = 0;  // by all of them

  private:
    std::unique_ptr<KernelEventSource> real_ = makeInotifySource().value();
    int& watches_;  // that are still available
    bool& overflows_;
    std::function<void()>& happens_;
};

class HistoryTest : public VolumeFixture {
  protected:
    HistoryTest() {
        follows = true;
        adjust = [this](VolumeService::Configuration& configuration) {
            if (adjustMore) adjustMore(configuration);
            configuration.makeSource = [this]() -> Result<std::unique_ptr<KernelEventSource>> {
                return std::make_unique<LimitedSource>(watches, overflows, happens);
            };
        };
    }
    void start() {
        open();
        ASSERT_TRUE(service->waitUntilSettled());
        since = service->currentEventID();
    }
    /// What happened since the last call, settled: "path" of each event once, and in `removed` the
    /// document or file IDs whose last event is a removal.
    std::set<std::string> changes() {
        service->waitUntilSettled().value();
        std::set<std::string> paths;
        removed.clear();
        gaps = 0;
        const auto events =
            service->eventsAfter(since, service->currentEventID(), 1'000'000).value();
        for (const auto& event : events) {
            EXPECT_GT(event.id, since);
            since = event.id;
            gaps += (event.flags & fsEventKernelDropped) != 0;
            if (event.flags == fsEventRemoved) {
                removed.insert(event.documentID != 0 ? event.documentID : event.fileID);
            }
            const auto root = std::string(presentedStoragePath) + "/";
            paths.insert(event.path.starts_with(root) ? event.path.substr(root.size())
                                                      : event.path);
        }
        return paths;
    }
    void write(std::string_view path, std::string_view text) const {
        std::ofstream(native(path)) << text;
    }
    std::uint32_t documentID(std::string_view path) const { return identify(path).documentID; }

    std::function<void(VolumeService::Configuration&)> adjustMore;
    int watches = 1'000'000;
    bool overflows = false;
    std::function<void()> happens;
    std::uint64_t since = 0;
    std::set<std::uint64_t> removed;
    int gaps = 0;
};

TEST_F(HistoryTest, RecordsWhatHappensWhereItHappens) {
    makeFile("a/one");
    makeFile("b/two");
    start();
    const auto one = documentID("a/one");
    const auto two = documentID("b/two");
    const auto folder = identify("b").fileID;
    EXPECT_THAT(changes(), IsEmpty());

    makeFile("a/new");
    EXPECT_THAT(changes(), UnorderedElementsAre("a", "a/new"));
    write("a/one", "longer than before");
    EXPECT_THAT(changes(), UnorderedElementsAre("a/one"));
    fs::rename(native("a/one"), native("b/uno"));
    EXPECT_THAT(changes(), UnorderedElementsAre("a", "b", "a/one", "b/uno"));
    EXPECT_EQ(documentID("b/uno"), one);
    write("b/temporary", "saved anew");
    fs::rename(native("b/temporary"), native("b/uno"));
    EXPECT_THAT(changes(), Contains(HasSubstr("/changed/" + std::to_string(one) + "/src=")));
    EXPECT_EQ(documentID("b/uno"), one);
    fs::rename(native("b"), native("c"));
    EXPECT_THAT(changes(), UnorderedElementsAre(HasSubstr("private"), "b", "c"));
    EXPECT_THAT(removed, IsEmpty());
    EXPECT_EQ(service->placesOfDocumentID(one), std::vector{url("c/uno")});
    fs::create_hard_link(native("c/two"), native("a/link"));
    EXPECT_THAT(changes(), UnorderedElementsAre("a", "a/link", "c/two"));
    EXPECT_EQ(documentID("a/link"), two);
    fs::remove(native("c/two"));
    EXPECT_THAT(changes(), UnorderedElementsAre("c", "c/two", "a/link"));
    EXPECT_THAT(removed, IsEmpty());
    fs::remove_all(native("c"));
    EXPECT_THAT(changes(), Contains("c/uno"));
    EXPECT_THAT(removed, UnorderedElementsAre(one, folder));
}

TEST_F(HistoryTest, ADocumentIsRemovedFromEachFolderThatHadAName) {
    fs::create_directory(native("b"));
    start();
    for (const bool isNumberUsedAgain : {false, true}) {
        makeFile("a/one");
        fs::create_hard_link(native("a/one"), native("b/two"));
        const auto document = documentID("a/one");
        const auto inode = attributes("a/one")->identity.inode;
        changes();
        service.reset();
        fs::remove(native("a/one"));
        fs::remove(native("b/two"));
        constexpr int mostFiles = 100;  // until one gets the number; where none does, as before
        for (int i = 0; isNumberUsedAgain && i < mostFiles; ++i) {
            makeFile("c/" + std::to_string(i));
            if (attributes("c/" + std::to_string(i))->identity.inode == inode) break;
        }
        open();
        EXPECT_THAT(changes(), testing::IsSupersetOf({"a/one", "b/two"})) << isNumberUsedAgain;
        EXPECT_THAT(removed, Contains(document)) << isNumberUsedAgain;
    }
}

TEST_F(HistoryTest, AnObjectThatMovedOnBeforeItsFirstAnswerIsReported) {
    makeFile("before");
    start();
    const auto seen = attributes("before");
    fs::rename(native("before"), native("after"));
    EXPECT_THAT(changes(), Contains("after"));
    VolumeService::IdentityRequest request{
        .object = seen.get(), .name = "before", .wantsDocumentID = true, .result = {}};
    service->identify({&request, 1}).value();
    EXPECT_THAT(changes(), UnorderedElementsAre("after", "before"));
}

TEST_F(HistoryTest, AFolderWhoseNumberIsUsedAgainBeforeItsPlaceIsKnownIsRemoved) {
    adjustMore = [](auto& configuration) { configuration.isManual = true; };
    makeFile("file");
    start();
    (void)identify("file");
    std::uint64_t fileID = 0;
    happens = [&] {
        fs::create_directory(native("former"));
        const auto identity = attributes("former")->identity;
        fileID = identify("former").fileID;
        fs::remove(native("former"));
        constexpr int mostFolders = 100;  // until one gets the number
        for (int i = 0; i < mostFolders; ++i) {
            fs::create_directory(native(std::to_string(i)));
            if (attributes(std::to_string(i))->identity.inode == identity.inode) break;
        }
    };
    EXPECT_THAT(changes(), Contains("former"));
    EXPECT_THAT(removed, Contains(fileID));
}

TEST_F(HistoryTest, WhatTheKernelDoesNotReportIsFoundInTime) {
    adjustMore = [](auto& configuration) {
        configuration.reconcileInterval = 20ms;
        configuration.degradedInterval = 20ms;
    };
    watches = 1;  // the storage itself
    makeFile("a/b/file");
    makeFile("linked");
    fs::create_hard_link(native("linked"), scratch / "outside");
    start();
    EXPECT_EQ(service->statistics().watches, 1u);
    EXPECT_EQ(service->statistics().degradedFolderCount, 2u);
    EXPECT_THAT(service->statistics().degradedFolders, Contains(native("a/b").string()));
    makeFile("a/b/new");
    std::ofstream(scratch / "outside") << "written behind its back";
    std::set<std::string> found;
    while (!found.contains("a/b/new") || !found.contains("linked")) found.merge(changes());
    EXPECT_GT(watches, -100) << "asks again and again";
}

TEST_F(HistoryTest, ADocumentKeepsItsIdentifierInANewFolderThatIsNotWatched) {
    adjustMore = [](auto& configuration) { configuration.windows.replacement = 10s; };
    watches = 1;  // the storage itself
    makeFile("folder/file");
    makeFile("document");
    makeFile("other");
    start();
    const auto identity = identify("document");
    // What the kernel does not report is looked at for this removal, and then not for a while.
    (void)identify("other");
    fs::remove(native("other"));
    service->waitUntilSeen().value();
    fs::create_directories(native("folder/new/below"));
    fs::rename(native("document"), native("folder/new/below/document"));
    makeFile("document");
    EXPECT_NE(identify("document").documentID, identity.documentID);
    EXPECT_EQ(identify("folder/new/below/document").documentID, identity.documentID);
}

TEST_F(HistoryTest, AMissingStorageIsLookedForAtRest) {
    adjustMore = [](auto& configuration) { configuration.reconcileInterval = 1ms; };
    start();
    fs::rename(native(""), scratch / "elsewhere");
    while (!service->statistics().storageTrouble) (void)service->waitUntilSeen();
    const int before = LimitedSource::reads;
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(LimitedSource::reads, before + 5) << "looks again and again";
}

TEST_F(HistoryTest, AFolderThatCannotBeReadCostsNoChange) {
    const AsOwnerAlone asOwner;
    makeFile("closed/file");
    start();
    documentID("closed/file");
    service.reset();  // it would record a gap of its own, if it got to see the change
    for (const int perState : {1, 0, 0, 1}) {
        if (perState == 1) fs::permissions(native("closed"), fs::perms::owner_exec);
        if (perState == 1) fs::permissions(native("closed"), fs::perms::none);
        open();
        changes();
        EXPECT_EQ(gaps, perState);
        EXPECT_THAT(removed, IsEmpty());
    }
    EXPECT_THAT(service->statistics().degradedFolders, Contains(native("closed").string()));
    fs::permissions(native("closed"), fs::perms::owner_all);
    changes();
    EXPECT_THAT(removed, IsEmpty());
    makeFile("closed/new");
    EXPECT_THAT(changes(), Contains("closed/new"));
}

TEST_F(HistoryTest, AnEntryThatCannotBeLookedAtCostsNoOther) {
    adjustMore = [](auto& configuration) { configuration.degradedInterval = 20ms; };
    makeFile("folder/bad");
    makeFile("folder/good");
    start();
    (void)identifyAll({"folder/bad", "folder/good"});
    service.reset();
    write("folder/bad", "one");
    write("folder/good", "one");
    unreadableName = "bad";
    open();
    EXPECT_THAT(changes(), UnorderedElementsAre("folder/good"));
    EXPECT_THAT(service->statistics().degradedFolders, Contains(native("folder").string()));
    write("folder/good", "longer");
    EXPECT_THAT(changes(), UnorderedElementsAre("folder/good"));
    unreadableName.clear();
    while (!changes().contains("folder/bad")) continue;
    EXPECT_EQ(gaps, 0);
    EXPECT_THAT(removed, IsEmpty());
    EXPECT_EQ(service->statistics().degradedFolderCount, 0u);
}

TEST_F(HistoryTest, ABarrierFailsWhereWhatItSawCannotBeWritten) {
    makeFile("a");
    start();
    const auto a = identify("a");
    {
        const FullDisk full;
        fs::rename(native("a"), native("b"));
        EXPECT_NE(service->waitUntilSeen().error().code, 0);
        EXPECT_NE(resolve(a.fileID), std::to_string(ENOENT)) << "that is not known";
    }
    EXPECT_EQ(resolve(a.fileID), "b");
    EXPECT_THAT(changes(), testing::IsSupersetOf({"a", "b"}));
}

/// The one who calls does all the work, by clocks of its own.
class FirstComparisonTest : public HistoryTest {
  protected:
    FirstComparisonTest() {
        follows = false;
        adjustMore = [this](auto& configuration) {
            configuration.isManual = true;
            configuration.now = [this] { return time; };
            configuration.clocks = clocks.sources();
        };
        clocks.wall = QSDate::now().seconds;
        makeFile("old/file");
    }
    void pass(std::chrono::seconds span) {
        clocks.pass(span.count());
        time += span;
    }
    /// Whether an anchor at `since` reports the file, or expires.
    bool isReported(const std::string& path) {
        while (service->step()) continue;
        return changes().contains(path) || gaps > 0;
    }

    std::chrono::steady_clock::time_point time{};
};

TEST_F(FirstComparisonTest, ReportsWhatHappenedSinceAnEarlierAnchor) {
    int round = 0;
    // In one process, in the next one, each with the wall clock set, and after a restart.
    for (const auto& between : std::initializer_list<std::function<void()>>{
             [] {}, [&] { open(); }, [&] { clocks.wall -= 3600; },
             [&] { open(), clocks.wall -= 3600; }, [&] { open(), clocks.reboot(500); }}) {
        service.reset();
        fs::remove_all(scratch / "data");
        fs::remove_all(scratch / "state");
        clocks.wall = QSDate::now().seconds;
        open();
        since = service->currentEventID();
        makeFile("new");
        pass(100s);
        between();
        EXPECT_TRUE(isReported("new")) << round;
        ++round;
        fs::remove(native("new"));
    }
}

TEST_F(FirstComparisonTest, ExpiresEarlierAnchorsOnceAfterItWasKilled) {
    for (int folder = 0; folder < 3; ++folder)
        makeFile("old/deep/" + std::to_string(folder) + "/f");
    open();
    since = service->currentEventID();
    service->step();
    // Only the time of the folder itself shows that it is new here.
    fs::create_directories(scratch / "elsewhere/in");
    scratch.makeFile("elsewhere/in/here");
    pass(100s);
    fs::rename(scratch / "elsewhere", native("moved"));
    service->step();
    for (const int refused : {1, 0}) {
        open();
        pass(100s);
        EXPECT_EQ(isReported("moved/in/here"), refused == 1);
        EXPECT_EQ(gaps, refused);
    }
}

TEST_F(FirstComparisonTest, EndsOnceItsEndCanBeWritten) {
    open();
    for (int step = 0; step < 10; ++step) {
        {
            const FullDisk full;
            service->step();
        }
        pass(1s);
        service->step();
    }
    EXPECT_TRUE(service->isCaughtUp());
}

TEST_F(FirstComparisonTest, OnlyOneThatMayFindSomethingIsWaitedForByWhoJustLooks) {
    open();
    while (service->step()) continue;
    for (const bool isLoss : {false, true}) {
        pass(11min);
        overflows = isLoss;
        ASSERT_TRUE(service->waitUntilSeen());
        EXPECT_EQ(service->step(), !isLoss) << "the comparison goes on";
        while (service->step()) continue;
    }
}

TEST_F(FirstComparisonTest, CountsOnlyTheEntriesOfTheStateThatIsMeant) {
    makeFile("busy/1");
    open();
    while (service->step()) continue;
    const auto count = [&] { return service->entryCount(*attributes("busy")).value_or(0); };
    ASSERT_EQ(count(), 1U);

    // The folder above is compared first.
    makeFile("busy/2");
    for (overflows = true; service->step();) EXPECT_NE(count(), 1U);
    EXPECT_EQ(count(), 2U);

    // More happens between the kernel's events and the look that they lead to.
    makeFile("busy/3");
    happensAtLook = [&] { makeFile("busy/4"); };
    service->step();
    EXPECT_NE(count(), 3U);
    while (service->step()) continue;
    EXPECT_EQ(count(), 4U);
}

TEST_F(HistoryTest, OldEventsGoAndTheEdgeIsExact) {
    adjustMore = [](auto& configuration) { configuration.eventsKept = 50; };
    start();
    for (int i = 0; i < 40; ++i) {
        makeFile("f" + std::to_string(i));
        changes();
    }
    const auto statistics = service->statistics();
    EXPECT_LE(statistics.eventCount, 60u);
    const auto edge = statistics.oldestEventID;
    const auto kept = service->eventsAfter(edge, service->currentEventID(), 1000);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->size(), statistics.eventCount);
    EXPECT_EQ(service->eventsAfter(edge - 1, edge, 1).error().code, ESTALE);
    EXPECT_EQ(service->eventsAfter(service->currentEventID() + 1, ~0ull, 1).error().code, ESTALE);
}

TEST_F(HistoryTest, EventsExpireByAgeOnlyOnceThatTimeHasPassed) {
    adjustMore = [&](auto& configuration) { configuration.clocks = clocks.sources(); };
    start();
    const auto isKept = [&, anchor = service->currentEventID()] {
        makeFile("f" + std::to_string(clocks.sinceBoot));
        changes();
        return service->eventsAfter(anchor, anchor + 1, 1).has_value();
    };
    EXPECT_TRUE(isKept());
    for (const std::int64_t wrong : {3650 * clocks.day, -clocks.wall}) {
        clocks.wall += wrong;
        clocks.pass(5 * clocks.day);
        EXPECT_TRUE(isKept()) << wrong;
        clocks.wall -= wrong;
        clocks.pass(1);
        EXPECT_TRUE(isKept());
    }
    clocks.pass(60 * clocks.day);
    EXPECT_TRUE(isKept());
    clocks.pass(10 * clocks.day);
    EXPECT_FALSE(isKept());
}

}  // namespace
}  // namespace tests
