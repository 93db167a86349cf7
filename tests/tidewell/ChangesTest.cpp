#include <semaphore>

#include "tests/support/FullDisk.h"
#include "tests/tidewell/ChangesFixture.h"
#include "tidewell/fs/DocIDPath.h"
#include "tidewell/fs/FSChangesNotifier.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using tests::await;

constexpr auto workingSet = QSFileProviderWorkingSetContainerItemIdentifier;
constexpr auto allDirectories = QSFileProviderAllDirectoriesContainerItemIdentifier;

TEST(DocIDPathTest, Grammar) {
    using Numbers = std::vector<std::int64_t>;
    const auto parsed = [](const char* path) -> std::optional<Numbers> {
        std::int64_t document = -1, source = -1, destination = -1;
        if (!parseDocIDPath(path, document, source, destination)) return std::nullopt;
        return Numbers{document, source, destination};
    };
    for (const auto* path :
         {"/.docid/3/changed/42/src=7,dst=9", "//.docid/3/changed/42/src=7,dst=9",
          ".docid/3/changed/42/src=7,dst=9", "/.docid/changed/42/src=7,dst=9",
          "/.docid/3/changed/ +42/src= 7,dst=+9"}) {
        EXPECT_EQ(parsed(path), Numbers({42, 7, 9})) << path;
    }
    EXPECT_EQ(parsed("/.docid/changed//src=-5,dst="), Numbers({0, -5, 0}));
    EXPECT_EQ(parsed("/.docid/changed/1/src=9223372036854775807,dst=2"),
              Numbers({1, INT64_MAX, 2}));
    for (const auto* path :
         {"", "/", "/.docid", "/.docid/3/changed/42/src=7,dst=9/",
          "/.docid/3x/changed/1/src=7,dst=9", "/.docid/3/changed/42/src=7,dst=9x",
          "/.docid/-3/changed/42/src=7,dst=9", "/.docid/3changed/42/src=7,dst=9",
          "/.docid/3/changed/42src=7,dst=9", "/.docid/99999999999999999999/changed/1/src=7,dst=9",
          "/.docid/3/changed/1/src=7,dst=9223372036854775808", "/docid/3/changed/1/src=7,dst=9"}) {
        EXPECT_FALSE(parsed(path)) << path;
    }
}

class ChangesTest : public tests::ChangesFixture {
  protected:
    /// Documents d/0 and on, with their identifiers.
    std::vector<FSEvent> documents(int count) {
        std::vector<FSEvent> events;
        for (int i = 0; i < count; ++i) {
            const auto name = "d/" + std::to_string(i);
            (void)file(name);
            events.push_back(eventAt(name));
        }
        return events;
    }
    void appendDocIDChange(const FSEvent& document) {
        scripted.append(
            {.flags = fsEventDocumentIDChanged,
             .path = "/.docid/1/changed/" + std::to_string(document.documentID) + "/src=1,dst=2",
             .fileID = 2,
             .documentID = document.documentID});
    }
    /// Every page from the token on, each by an enumerator of its own, as after a restart.
    std::multiset<std::string> everyPage(FSChangeToken token, std::size_t pages) {
        std::multiset<std::string> reported;
        const auto firstOffset = token.offset > INT64_MAX ? 0 : token.offset;
        for (bool more = true; more; --pages) {
            EXPECT_GT(pages, 0u);
            const auto page = changes(*enumeratorOf(workingSet), token);
            if (!page->anchor || pages == 0) return reported;
            for (const auto& [identifier, item] : page->updated) reported.insert(identifier);
            reported.insert(page->deleted.begin(), page->deleted.end());
            more = page->moreComing;
            EXPECT_EQ(page->updated.size() + page->deleted.size(),
                      more ? 100u : reported.size() % 100);
            const auto reached = FSChangeToken::fromData(page->anchor).value();
            EXPECT_EQ(reached.offset, firstOffset + reported.size());
            EXPECT_TRUE(more ? reached.streamEventID > token.streamEventID
                             : reached.streamEventID == scripted.currentEventID());
            token = reached;
        }
        EXPECT_EQ(pages, 0u);
        return reported;
    }
};

TEST_F(ChangesTest, EveryChangeOnceWhicheverReaderHasIt) {
    const auto known = documents(500);
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{99}, std::uint64_t{1} << 62,
                                       std::uint64_t{1} << 63, UINT64_MAX - 50, UINT64_MAX}) {
        const auto isWhole = [&](const std::function<void(std::uint32_t)>& append, int count) {
            auto token = present();
            token.offset = offset;
            for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(count); ++i) append(i);
            const auto reported = everyPage(token, 6);
            return reported.size() == 500 &&
                   std::set(reported.begin(), reported.end()).size() == 500;
        };
        const auto byPath = [&](std::uint32_t i) { scripted.append(removedEvent(7000 + i)); };
        const auto byDocumentID = [&](std::uint32_t i) { appendDocIDChange(known[i]); };
        EXPECT_TRUE(isWhole(byPath, 500)) << offset;
        EXPECT_TRUE(isWhole(byDocumentID, 500)) << offset;
        EXPECT_TRUE(isWhole([&](std::uint32_t i) { byPath(i), byDocumentID(i); }, 250)) << offset;
    }
}

TEST_F(ChangesTest, WhatIsLostExpiresTheAnchor) {
    (void)folder("d");
    const auto start = present();
    const auto expires = [&](FSChangeToken token, const std::string& below) {
        const auto enumerator = enumeratorOf("fid=1", below);
        const auto answer = changes(*enumerator, token);
        enumerator->stop();
        EXPECT_THAT(answer->updated, IsEmpty());
        return answer->error && answer->error->code == QSFileProviderErrorSyncAnchorExpired;
    };
    for (std::uint32_t i = 0; i < 50; ++i) scripted.append(removedEvent(7000 + i));
    scripted.append({.flags = fsEventKernelDropped, .path = url("other").path()});
    EXPECT_FALSE(expires(start, "d"));
    scripted.append({.flags = fsEventKernelDropped, .path = url("d/deep").path()});
    EXPECT_TRUE(expires(start, "d"));
    EXPECT_FALSE(logged(LogLevel::Info, "fetching changes did finish after reset").empty());
    EXPECT_FALSE(expires(present(), "d"));
    auto token = present();
    ++token.streamEventID;
    EXPECT_TRUE(expires(token, "d")) << "from the future";
    scripted.expire(start.streamEventID + 1);
    EXPECT_TRUE(expires(start, "d")) << "one too old";
    token = present();
    token.deviceUUID = QSUUID::random();
    EXPECT_TRUE(expires(token, "d"));
}

TEST_F(ChangesTest, AnswersWithWhatHappenedWhileNobodyWatched) {
    const auto token = present();
    scripted.setCaughtUp(false);
    const auto enumerator = enumeratorOf(workingSet);
    const auto collector = std::make_shared<tests::ChangeCollector>();
    enumerator->enumerateChangesForObserver(collector, token.data());
    const auto last = scripted.append(removedEvent(7000));
    scripted.setCaughtUp(true);
    wait(*collector);
    EXPECT_THAT(collector->deleted, ElementsAre("did=7000"));
    EXPECT_EQ(FSChangeToken::fromData(collector->anchor)->streamEventID, last);
}

TEST_F(ChangesTest, StoppingAndClosingAnswer) {
    scripted.setCaughtUp(false);
    for (const bool closes : {false, true}) {
        auto enumerator = enumeratorOf(workingSet);
        const auto collector = std::make_shared<tests::ChangeCollector>();
        enumerator->enumerateChangesForObserver(collector, present().data());
        auto resumed = std::async(std::launch::async, [urls = enumerator->urls(), closes] {
            return closes ? FSEventReader::canResumeGatherPhase(urls, 0).first
                          : FSEventReaderGatherPhaseResumeStatus::cantReplayHistoricalFSEvents;
        });
        if (closes) {
            ASSERT_TRUE(await("three streams", [&] { return scripted.subscriberCount() == 3; }));
            installed.reset();
            scripted.notify();
        } else {
            enumerator->stop();
        }
        wait(*collector);
        EXPECT_EQ(collector->error->code, QSFileProviderErrorSyncAnchorExpired);
        ASSERT_TRUE(await("the end of all streams",
                          [&] { return closes || scripted.subscriberCount() == 0; }));
        EXPECT_EQ(resumed.get(),
                  FSEventReaderGatherPhaseResumeStatus::cantReplayHistoricalFSEvents);
    }
}

/// Runs something before each read of the kernel's events.
class InterruptedKernel final : public KernelEventSource {
  public:
    explicit InterruptedKernel(std::function<void()>& beforeRead) : beforeRead_(beforeRead) {}
    Result<int> addWatch(int folder) override { return kernel_->addWatch(folder); }
    void removeWatch(int watch) override { kernel_->removeWatch(watch); }
    std::vector<KernelEvent> read() override {
        if (beforeRead_) beforeRead_();
        return kernel_->read();
    }
    int descriptor() const override { return kernel_->descriptor(); }

  private:
    std::function<void()>& beforeRead_;
    std::unique_ptr<KernelEventSource> kernel_ = makeInotifySource().value();
};

/// The volume's own history, which moves only within calls, and which calls can be interrupted.
class FollowedTest : public tests::ChangesFixture {
  protected:
    FollowedTest() {
        history = nullptr;
        adjustVolume = [this](VolumeService::Configuration& configuration) {
            configuration.isManual = true;
            configuration.windows = windows;
            configuration.now = [this] { return std::chrono::steady_clock::now() + passed; };
            configuration.makeSource = [this]() -> Result<std::unique_ptr<KernelEventSource>> {
                return std::make_unique<InterruptedKernel>(beforeRead);
            };
        };
        restart();
        waitUntilSettled();
    }
    void waitUntilSettled() { ASSERT_TRUE(installed->volume().waitUntilSettled()); }
    /// An enumerator as a host gets it, of the folder that is there now.
    std::shared_ptr<LocalFileEnumerator> lookedUp(const std::string& below) const {
        const auto identifier = itemIdentifier(url(below)).value();
        return std::make_shared<LocalFileEnumerator>(
            identifier, std::vector{fileURLWithItemIdentifier(identifier).value()});
    }
    static bool hasExpired(const std::optional<QSError>& error) {
        return error && error->code == QSFileProviderErrorSyncAnchorExpired;
    }

    std::function<void()> beforeRead;
    VolumeService::Windows windows{.rest = std::chrono::milliseconds(1),
                                   .replacement = std::chrono::milliseconds(2),
                                   .rename = std::chrono::milliseconds(4)};
    std::chrono::seconds passed{0};
};

TEST_F(FollowedTest, ChangesOfAFolderThatMovesAreReportedOrItsAnchorExpires) {
    using Step = std::pair<std::string, std::string>;
    const std::vector<std::vector<Step>> moves = {{{"up", "up2"}},
                                                  {{"up/F", "up/G"}},
                                                  {{"up/F", "up/G"}, {"up/S", "up/F"}},
                                                  {{"up/F", "../out"}},
                                                  {{"up", "up2"}, {"up2", "up"}}};
    for (const auto& steps : moves) {
        int reads = 0;
        // Before the changes are asked for, before each read, and not at all.
        for (int at = 0; at <= reads + 1; ++at) {
            for (const auto& entry : std::filesystem::directory_iterator(storage())) {
                std::filesystem::remove_all(entry.path());
            }
            std::filesystem::remove_all(scratch / "out");
            for (int i = 0; i < 3; ++i) (void)file("up/F/" + std::to_string(i));
            (void)file("up/S/stranger");
            waitUntilSettled();
            const auto enumerator = lookedUp("up/F");
            const auto known = tests::onePage(*enumerator);
            const auto token = present();
            for (const auto& item : known->items) (void)file("up/F/" + item->filename());
            waitUntilSettled();
            auto next = steps.begin();
            reads = 0;
            const auto move = [&] {
                if (++reads < at || next == steps.end()) return;
                std::filesystem::rename(storage() / next->first, storage() / next->second);
                ++next;
            };
            if (at == 0) move(), waitUntilSettled();
            beforeRead = move;
            const auto reported = changes(*enumerator, token);
            const auto page = tests::onePage(*enumerator);
            beforeRead = nullptr;
            const auto where = steps.front().first + " at read " + std::to_string(at);
            EXPECT_TRUE(hasExpired(reported->error) || reported->updated.size() == 3) << where;
            for (const auto& [identifier, item] : reported->updated) {
                EXPECT_NE(item->filename(), "stranger") << where;
            }
            EXPECT_TRUE(hasExpired(page->error) || page->names() == known->names()) << where;
        }
    }
}

TEST_F(FollowedTest, AFolderThatIsRemovedWithAPackageIsDeletedWhereItWasShown) {
    windows.replacement = std::chrono::seconds(30);
    restart();
    (void)file("a/F/file");
    (void)file("a/p.lutebox/file");
    waitUntilSettled();
    const auto enumerator = lookedUp("a");
    const auto folder = itemIdentifier(url("a/F")).value();
    const auto token = present();
    std::filesystem::rename(storage() / "a/F", storage() / "a/p.lutebox/F");
    ASSERT_TRUE(installed->volume().waitUntilSeen());
    std::filesystem::rename(storage() / "a/p.lutebox", scratch / "out");
    ASSERT_TRUE(installed->volume().waitUntilSeen());
    // While the removal of the package is pending, and after it.
    const auto pending = changes(*enumerator, token);
    passed = std::chrono::minutes(1);
    waitUntilSettled();
    const auto rest = changes(*enumerator, FSChangeToken::fromData(pending->anchor).value());
    EXPECT_EQ(
        std::ranges::count(pending->deleted, folder) + std::ranges::count(rest->deleted, folder),
        1);
}

TEST_F(FollowedTest, WhatCannotBeIdentifiedIsNeitherLeftOutNorDeleted) {
    (void)file("a/known");
    const auto enumerator = lookedUp("a");
    EXPECT_THAT(tests::onePage(*enumerator)->items, SizeIs(1));
    const auto token = present();
    for (int i = 0; i < 3; ++i) (void)file("a/new" + std::to_string(i));
    waitUntilSettled();
    {
        const tests::FullDisk full;
        const auto answer = changes(*enumerator, token);
        EXPECT_TRUE(answer->error && !hasExpired(answer->error));
        EXPECT_THAT(answer->updated, IsEmpty());
        EXPECT_THAT(answer->deleted, IsEmpty());
        const auto page = tests::onePage(*enumerator);
        EXPECT_TRUE(page->error && !hasExpired(page->error));
        EXPECT_THAT(page->items, IsEmpty());
    }
    EXPECT_THAT(changes(*enumerator, token)->updated, SizeIs(3));
    EXPECT_THAT(tests::onePage(*enumerator)->items, SizeIs(4));
}

TEST_F(FollowedTest, APageIsRefusedAndDoesNotWaitWhileThePastCannotBeRecorded) {
    for (int i = 0; i < 201; ++i) (void)file("a/" + std::to_string(i));
    const auto token = tests::onePage(*lookedUp("a"))->next.value();
    std::filesystem::remove(storage() / "a/200");
    restart();
    const auto enumerator = lookedUp("a");
    const tests::FullDisk full;
    const auto page = tests::onePage(*enumerator, token);
    EXPECT_TRUE(page->error && !hasExpired(page->error));
}

/// Containers over a folder "a" with a document and a package.
class CoverTest : public tests::ChangesFixture {
  protected:
    static constexpr std::string_view folderContainer = "folder";

    /// What a container reports of these events.
    std::shared_ptr<tests::ChangeCollector> reported(std::string_view container,
                                                     const std::vector<FSEvent>& events) {
        const auto token = present();
        for (const auto& event : events) scripted.append(event);
        return changes(*enumeratorOf(container, container == folderContainer ? "a" : ""), token);
    }
    FSEvent folderEvent(const std::string& below, FSEventFlags flag) const {
        auto event = eventAt(below);
        event.flags = flag | fsEventIsFolder;
        return event;
    }
    static auto only(const FSEvent& document) {
        return ElementsAre(Pair("did=" + std::to_string(document.documentID), testing::_));
    }

    const std::filesystem::path files[2] = {file("a/kept"), file("a/p.lutebox/deep/inner")};
    const FSEvent kept = eventAt("a/kept");
    const FSEvent inner = eventAt("a/p.lutebox/deep/inner");
};

TEST_F(CoverTest, WhatAnEventMeansIsSeenOnTheDisk) {
    auto wrong = kept;
    wrong.flags = fsEventRemoved;
    auto never = removedEvent(0);
    never.fileID = 0;
    auto other = kept;
    other.documentID = 4'000'000;
    auto answer = reported(workingSet, {wrong, never, other, {.path = url().path()}});
    EXPECT_THAT(answer->updated, only(kept));
    EXPECT_THAT(answer->deleted, ElementsAre("did=4000000")) << "another object stands there now";
    (void)file("a/new");
    other.path = url("a/new").path();
    const tests::FullDisk full;
    answer = reported(workingSet, {other});
    EXPECT_TRUE(answer->error && answer->deleted.empty()) << "which object is not known";
}

TEST_F(CoverTest, WhatHappensInAPackageIsAChangeOfThePackage) {
    const auto package = only(eventAt("a/p.lutebox"));
    const auto answer = reported(folderContainer, {inner});
    EXPECT_THAT(answer->updated, package);
    EXPECT_THAT(answer->deleted, IsEmpty());
    EXPECT_THAT(reported(allDirectories, {inner})->updated, IsEmpty());
    (void)folder("a/p.lutebox/.hidden");
    EXPECT_THAT(
        reported(workingSet, {folderEvent("a/p.lutebox/.hidden", fsEventModified)})->updated,
        package);
}

TEST_F(CoverTest, WhatAContainerNeverShowedIsNotDeletedFromIt) {
    (void)folder(".Trash");
    (void)file(".note");
    auto note = eventAt(".note");
    for (const auto& [flag, count] : {std::pair(fsEventModified, 0U), {fsEventMoved, 1U}}) {
        EXPECT_THAT(reported(workingSet, {folderEvent(".Trash", flag)})->deleted, SizeIs(count));
        note.flags = flag;
        EXPECT_THAT(reported(workingSet, {note})->deleted, SizeIs(count));
    }
}

TEST_F(CoverTest, AFolderThatHasToBeScannedIsScannedOrExpires) {
    const auto scan = [&](const char* path) {
        return FSEvent{.flags = fsEventMustScanSubDirs, .path = url(path).path()};
    };
    EXPECT_THAT(reported(workingSet, {scan("a")})->updated, SizeIs(3));
    for (int i = 0; i < 100; ++i) (void)file("many/" + std::to_string(i));
    EXPECT_TRUE(reported(workingSet, {scan("many")})->error);
    EXPECT_TRUE(reported(folderContainer, {scan("")})->error);
    EXPECT_TRUE(reported(folderContainer, {scan("a")})->error);
}

TEST_F(CoverTest, ARemovedNameOfADocumentWithAnotherIsAnUpdate) {
    std::filesystem::create_hard_link(storage() / "a/kept", storage() / "a/second");
    EXPECT_EQ(eventAt("a/second").documentID, kept.documentID);
    std::filesystem::remove(storage() / "a/kept");
    EXPECT_THAT(reported(folderContainer, {kept})->updated, only(kept));
}

TEST_F(ChangesTest, SignalsOnceForABatchAndWaitsForTheAnswerUpToItsLimit) {
    std::vector<QSFileProviderManager::CompletionHandler> signals;
    signals.reserve(10);
    std::counting_semaphore<> signalled(0);
    installed->manager().setSignalHandler(
        [&](const QSFileProviderItemIdentifier& container, auto handler) {
            EXPECT_EQ(container, "fid=1");
            signals.push_back(std::move(handler));
            signalled.release();
        });
    for (const auto limit : {std::chrono::milliseconds(50), std::chrono::milliseconds(3'600'000)}) {
        signals.clear();
        log->clear();
        const auto notifier = FSChangesNotifier::make("fid=1", {url()}, limit);
        notifier->start();
        ASSERT_TRUE(await("a stream", [&] { return scripted.subscriberCount() == 1; }));
        for (std::uint32_t i = 0; i < 300; ++i) scripted.append(removedEvent(8000 + i));
        ASSERT_TRUE(await("the signal of the batch", signalled));
        scripted.append(removedEvent(9000));
        const bool isAnswered = limit > tests::longestWait;
        if (isAnswered) signals[0](std::nullopt);
        ASSERT_TRUE(await("the signal of what came during the wait", signalled));
        for (std::size_t i = isAnswered ? 1 : 0; i < 2; ++i) signals[i](std::nullopt);
        notifier->stop();
        ASSERT_TRUE(
            await("the end of the stream", [&] { return scripted.subscriberCount() == 0; }));
        EXPECT_THAT(signals, SizeIs(2));
        EXPECT_EQ(logged(LogLevel::Debug, " timed out").empty(), isAnswered);
    }

    installed->manager().setSignalHandler([&](const auto&, auto handler) {
        handler(std::nullopt);
        signalled.release();
    });
    const auto notifier = FSChangesNotifier::make("fid=1", {url()});
    const auto stopped = std::make_shared<FSEventReader>(std::vector{url()}, currentFSEventID(),
                                                         FSEventReader::Mode::pathBased, false);
    stopped->stop();
    notifier->itemChanged(*stopped, url(), nullptr);
    notifier->start();
    EXPECT_TRUE(await("the signal that the stop kept back", signalled));
    notifier->stop();
}

}  // namespace
}  // namespace tidewell
