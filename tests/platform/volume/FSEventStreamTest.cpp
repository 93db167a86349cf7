#include "platform/volume/FSEventStream.h"

#include <gmock/gmock.h>

#include "tests/support/Await.h"
#include "tests/support/ScriptedHistory.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::SizeIs;

constexpr auto everyFlag =
    fsEventStreamUsesPathObjects | fsEventStreamFileEvents | fsEventStreamUsesExtendedData;

std::vector<std::string> paths(const std::vector<FSEvent>& events) {
    std::vector<std::string> result;
    for (const auto& event : events) result.push_back(event.path);
    return result;
}

class FSEventStreamTest : public testing::Test {
  protected:
    void open(std::vector<std::string> paths, FSEventStream::Options options) {
        stream =
            FSEventStream::create({&history, gate}, std::move(paths), std::move(options),
                                  [this](std::span<const FSEvent> events) { receive(events); });
        stream->setDispatchQueue(queue);
        stream->start();
    }
    ~FSEventStreamTest() override {
        stream.reset();
        queue.sync([] {});
    }
    void receive(std::span<const FSEvent> events) {
        queue.assertOnQueue();
        const std::scoped_lock lock(mutex);
        received.insert(received.end(), events.begin(), events.end());
        if (!events.empty()) batches.push_back(events.size());
    }
    /// All events from the beginning on, as soon as one has that flag.
    std::vector<FSEvent> until(FSEventFlags flag, std::uint64_t id = 0) {
        std::vector<FSEvent> all;
        EXPECT_TRUE(tests::await("an event with that flag and ID", [&] {
            const std::scoped_lock lock(mutex);
            all = received;
            return std::ranges::any_of(received, [&](const FSEvent& event) {
                return (event.flags & flag) == flag && event.id >= id;
            });
        }));
        return all;
    }

    tests::ScriptedHistory history;
    std::shared_ptr<UseGate> gate = std::make_shared<UseGate>();
    SerialQueue queue{"test"};
    std::unique_ptr<FSEventStream> stream;
    std::mutex mutex;
    std::vector<FSEvent> received;
    std::vector<std::size_t> batches;
};

TEST_F(FSEventStreamTest, ReplaysInOrderThenFollowsAfterTheLatency) {
    for (int i = 0; i < 1700; ++i) {
        history.append({.path = (i % 2 == 0 ? "/w/" : "/wx/") + std::to_string(i)});
    }
    open({"/w", "/missing"}, {.since = 1100, .latency = 5ms, .flags = everyFlag});
    const auto replayed = until(fsEventHistoryDone);
    EXPECT_THAT(replayed, SizeIs(800 + 1));
    EXPECT_TRUE(std::ranges::is_sorted(replayed, {}, &FSEvent::id));
    EXPECT_EQ(replayed.front().path, "/w/100");
    EXPECT_EQ(replayed.back().id, 2700u);

    batches.clear();
    const auto begun = std::chrono::steady_clock::now();
    std::uint64_t last = 0;
    queue.sync([&] {  // all before the stream can read one, as within the latency
        for (int i = 0; i < 5; ++i) last = history.append({.path = "/w", .fileID = 7});
    });
    EXPECT_THAT(until(0, last), SizeIs(801 + 5));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, 5ms);
    EXPECT_THAT(batches, ElementsAre(5)) << "one batch of what came within the latency";
}

TEST_F(FSEventStreamTest, GapsConcernWhatLiesAboveAndBelow) {
    for (const auto* path : {"/w/sub", "/w", "/", "/x", "/wx", "/w/a/b"}) {
        history.append({.flags = fsEventKernelDropped, .path = path});
        history.append({.path = path});
    }
    open({"/w/a"}, {.since = 1000, .flags = everyFlag});
    EXPECT_THAT(paths(until(fsEventHistoryDone)), ElementsAre("/w", "/", "/w/a/b", "/w/a/b", "/"));
}

TEST_F(FSEventStreamTest, CreationFlagsDecideWhatAnEventSays) {
    for (const auto* path : {"/w/a/1", "/w/b/1", "/w/a/2", "/w/a"}) {
        history.append({.flags = fsEventModified, .path = path, .fileID = 5, .documentID = 6});
    }
    const auto replay = [&](FSEventStreamCreateFlags flags) {
        received.clear();
        open({"/w"}, {.since = 1000, .flags = flags});
        return until(fsEventHistoryDone);
    };
    const auto folders = replay(fsEventStreamUsesPathObjects);
    EXPECT_THAT(paths(folders), ElementsAre("/w/b", "/w/a", "/w", "/"));
    EXPECT_EQ(folders[1].id, 1003u);
    EXPECT_EQ(replay(everyFlag)[0].documentID, 6u);
    const auto bare = replay(fsEventStreamFileEvents | fsEventStreamUsesExtendedData);
    EXPECT_THAT(bare, SizeIs(5));
    EXPECT_EQ(bare[0].fileID + bare[0].documentID, 0u) << "extended data needs path objects";
}

TEST_F(FSEventStreamTest, ReleasesEverythingWhenItEnds) {
    auto info = std::make_shared<int>();
    const std::weak_ptr<int> watched = info;
    open({"/w"}, {.since = 1000, .latency = 1h, .flags = everyFlag, .info = std::move(info)});
    until(fsEventHistoryDone);
    EXPECT_EQ(history.reads(), 0u) << "nothing happened";
    EXPECT_FALSE(watched.expired());
    queue.sync([&] { stream->stop(); });
    history.append({.path = "/w/late"});
    stream->invalidate();
    queue.sync([] {});
    EXPECT_THAT(received, SizeIs(1));
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(history.subscriberCount(), 0u);
}

}  // namespace
}  // namespace platform
