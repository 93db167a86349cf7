#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <latch>

#include "host/local/LocalSession.h"
#include "host/session/errors.h"
#include "platform/fileprovider/QSFileProviderManager.h"
#include "tests/host/ScriptedExtension.h"
#include "tests/host/Served.h"
#include "tests/support/ScratchFolder.h"

namespace {

using host::packed;
using testing::ElementsAre;

constexpr std::chrono::seconds longest(20);

/// Deletes until it is cancelled.
class SlowExtension final : public tests::ScriptedExtension {
  public:
    std::shared_ptr<platform::QSProgress> deleteItemWithIdentifier(
        const std::string& /*identifier*/, CompletionHandler completionHandler) override {
        auto progress = std::make_shared<platform::QSProgress>();
        progress->addItem();
        deletion_ = std::jthread(
            [progress, done = std::move(completionHandler)](const std::stop_token& stop) mutable {
                while (!progress->isCancelled() && !stop.stop_requested())
                    std::this_thread::yield();
                done(platform::errorFromErrno(ECANCELED));
            });
        return progress;
    }

  private:
    std::jthread deletion_;
};

class SessionServerTest : public testing::Test {
  protected:
    SessionServerTest() {
        for (const auto& name : {"f", "g"}) extension->containers[name].anchor = "0";
        extension->containers[std::string(
            platform::QSFileProviderAllDirectoriesContainerItemIdentifier)];
        extension->identifiersByPath = {{"/presented/f", "f"}};
    }
    ~SessionServerTest() override {
        if (!released_) release();
    }
    void release() {
        released_ = true;
        blocked.count_down();
    }
    void signal(const std::string& container) {
        manager.signalEnumeratorForContainerItemIdentifier(container, [](const auto&) {});
    }
    /// Waits in the session until release().
    [[nodiscard]] std::future<platform::Result<void>> wait(host::Session& session) {
        return std::async(std::launch::async, [&] { return session.waitUntilSettled(); });
    }

    tests::ScratchFolder scratch;
    std::latch blocked{1};
    std::atomic<int> waiting = 0;
    platform::QSFileProviderManager manager{platform::QSURL::fileURLWithPath("/presented")};
    std::shared_ptr<SlowExtension> extension = std::make_shared<SlowExtension>();
    host::NativePaths paths{[](const auto& url) { return url.path(); },
                            [](auto path) { return platform::QSURL::fileURLWithPath(path); }};
    host::VolumeAccess volume{[this] {
                                  ++waiting;
                                  waiting.notify_all();
                                  blocked.wait();
                                  return platform::Result<void>();
                              },
                              [] { return host::Health(); }};
    tests::Served served{
        std::make_unique<host::LocalSession>(
            [this] { return extension; },
            host::LocalSession::Options{.paths = paths, .volume = volume, .manager = &manager}),
        scratch.path().string()};

  private:
    bool released_ = false;
};

TEST_F(SessionServerTest, ClientsDoNotWaitForEachOther) {
    const auto greedy = served.connect();
    const auto other = served.connect();
    std::vector<std::future<platform::Result<void>>> waits;
    constexpr int mostAtOnce = 8;  // of one client
    for (int i = 0; i < 5 * mostAtOnce; ++i) waits.push_back(wait(*greedy));
    for (int now = waiting; now < mostAtOnce; now = waiting) waiting.wait(now);
    EXPECT_EQ(other->path("f"), "/presented/f");
    EXPECT_EQ(other->search("a b"), std::vector<std::string>{"a b"});
    EXPECT_EQ(waiting, mostAtOnce);
    release();
    for (auto& each : waits) EXPECT_TRUE(each.get());
    EXPECT_EQ(waiting, 5 * mostAtOnce);
}

TEST_F(SessionServerTest, WhatIsNoCallIsRefused) {
    const auto client = served.client();
    EXPECT_EQ(client->call("Unheard", {}).error().code, ENOSYS);
    EXPECT_EQ(client->call("Item", {1, 2, 3}).error().code, EINVAL);
    EXPECT_EQ(client->call("ChangesFollowed", packed(std::uint64_t{7})).error().code, EINVAL);
    EXPECT_EQ(client->call("Follow", packed(std::uint64_t{7})).error().code, EINVAL);
    const std::string long_(std::size_t{2} * 1024 * 1024, 'x');
    EXPECT_TRUE(host::meansServiceEnded(client->call("Path", packed(long_)).error()));
    EXPECT_TRUE(host::meansServiceEnded(client->call("Path", packed(std::string())).error()));

    // Somebody who speaks something else is disconnected, and hinders nobody.
    const auto stranger = host::Endpoint::connect(served.path()).value();
    const std::string_view garbage = "\1GET / HTTP/1.1\r\n\r\n";
    ASSERT_GT(send(stranger.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL), 0);
    const auto other = served.connect();
    char answer[256];
    while (recv(stranger.get(), answer, sizeof answer, 0) > 0) continue;
    EXPECT_EQ(other->path("f"), "/presented/f");
}

TEST_F(SessionServerTest, AnOperationReportsItsProgressAndIsCancelledByItsClient) {
    const auto session = served.connect();
    std::vector<std::uint64_t> seen;
    const auto removed = session->mutations().remove(std::string("f"), [&](const auto& progress) {
        if (seen.empty() || seen.back() != progress.items) seen.push_back(progress.items);
        return progress.items == 0;
    });
    EXPECT_EQ(removed.error().code, ECANCELED);
    EXPECT_EQ(seen.back(), 1U);

    // So does the end of the client; the server ends only when the operation has.
    auto raw = served.client();
    auto left = std::async(std::launch::async, [&] {
        const auto number = raw->nextNumber();
        return raw->operate("Remove", number, packed(number, host::ItemTarget("f")),
                            [&](const auto& progress) {
                                if (progress.items > 0) served.end();
                                return true;
                            });
    });
    EXPECT_TRUE(host::meansMayBeDone(left.get().error()));
}

TEST_F(SessionServerTest, FollowersAreSignalledEachForItsContainer) {
    const auto one = served.connect();
    const auto two = served.connect();
    const auto f = one->follow("f").value();
    const auto g = one->follow("g").value();
    auto again = two->follow("f").value();
    EXPECT_TRUE(host::meansNoSuchItem(two->follow("missing").error()));
    std::vector<std::unique_ptr<host::Following>> more;
    for (auto next = two->follow("f"); next; next = two->follow("f"))
        more.push_back(std::move(*next));
    EXPECT_EQ(more.size(), 255U) << "of one client";
    more.clear();
    signal("f");
    EXPECT_TRUE(f->wait(longest) && again->wait(longest));
    EXPECT_FALSE(f->wait(std::chrono::milliseconds(0)) || g->wait(std::chrono::milliseconds(0)));
    again.reset();
    extension->containers["g"].changes = {{"0", {.deletions = {"x"}, .anchor = "1"}}};
    signal("g");
    EXPECT_TRUE(g->wait(longest));
    EXPECT_THAT(g->changes(platform::dataFromString("0")).value().deletions, ElementsAre("x"));

    // The end of the service is something to look at, and then a failure.
    auto stuck = wait(*two);
    waiting.wait(0);
    auto ending = std::async(std::launch::async, [&] { served.end(); });
    EXPECT_TRUE(host::meansServiceEnded(stuck.get().error()));
    EXPECT_TRUE(f->wait(longest));
    EXPECT_TRUE(host::meansServiceEnded(f->changes(platform::dataFromString("0")).error()));
    EXPECT_TRUE(host::meansServiceEnded(one->path("f").error()));
    release();
}

}  // namespace
