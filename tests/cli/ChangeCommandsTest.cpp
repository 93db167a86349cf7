#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <nlohmann/json.hpp>

#include "cli/Progress.h"
#include "cli/commands.h"
#include "host/local/LocalSession.h"
#include "platform/fileprovider/QSFileProviderManager.h"
#include "tests/host/ScriptedExtension.h"

namespace {

using cli::ExitCode;

/// The commands over a scripted extension, from the words to the bytes of a pipe. Anchors are one
/// digit; in base64 "0" is MA==, "1" is MQ==, "2" is Mg==.
class ChangeCommandsTest : public testing::Test {
  protected:
    ChangeCommandsTest() {
        EXPECT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        auto& folder = extension->containers["fid=1"];
        extension->containers[std::string(
            platform::QSFileProviderAllDirectoriesContainerItemIdentifier)];
        folder.anchor = "0";
        folder.changes = {
            {"0", {.deletions = {"did=8"}, .anchor = "1", .moreComing = true}},
            {"1", {.updates = {std::make_shared<tests::ScriptedItem>("did=5")}, .anchor = "2"}}};
    }
    ~ChangeCommandsTest() override {
        close(pipe[0]);
        close(pipe[1]);
    }

    ExitCode run(std::vector<const char*> words) {
        words.insert(words.begin(), "tidewell");
        const auto parsed = cli::parseArguments(static_cast<int>(words.size()), words.data());
        cli::Progress progress(false);
        cli::Output output(pipe[1], progress);
        return cli::runCommand(std::get<cli::Arguments>(parsed), service, output, progress);
    }

    std::string read() const {
        std::string text(4096, '\0');
        text.resize(static_cast<std::size_t>(::read(pipe[0], text.data(), text.size())));
        return text;
    }

    std::string readLine() const {
        std::string line;
        for (char c = 0; c != '\n' && ::read(pipe[0], &c, 1) == 1;) line += c;
        return line;
    }

    void signal() {
        manager.signalEnumeratorForContainerItemIdentifier("fid=1", [](const auto&) {});
    }

    int pipe[2] = {-1, -1};
    platform::QSFileProviderManager manager{platform::QSURL::fileURLWithPath("/presented")};
    std::shared_ptr<tests::ScriptedExtension> extension =
        std::make_shared<tests::ScriptedExtension>();
    int settled = 0;
    platform::Result<void> waitResult;
    host::Health health;
    host::NativePaths paths{[](const auto& url) { return url.path(); },
                            [](auto path) { return platform::QSURL::fileURLWithPath(path); }};
    host::VolumeAccess volume{[this] { return ++settled, waitResult; }, [this] { return health; }};
    host::DocumentService service{std::make_unique<host::LocalSession>(
        [this] { return extension; },
        host::LocalSession::Options{.paths = paths, .volume = volume, .manager = &manager})};
};

TEST_F(ChangeCommandsTest, ChangesEndWithTheAnchorToGoOnFrom) {
    EXPECT_EQ(run({"changes", "fid=1", "--since", "MA=="}), ExitCode::Done);
    EXPECT_EQ(read(), "deleted  did=8\nupdated  did=5         /presented/did=5\nanchor: Mg==\n");
    EXPECT_EQ(run({"changes", "fid=1", "--one-page"}), ExitCode::Done);
    EXPECT_EQ(read(), "deleted  did=8\nanchor: MQ== (more to come)\n");
    EXPECT_EQ(run({"--json", "changes", "fid=1", "--since", "MA==", "--one-page"}), ExitCode::Done);
    EXPECT_EQ(read(), "{\"delete\":\"did=8\"}\n{\"anchor\":\"MQ==\",\"moreComing\":true}\n");
    EXPECT_EQ(run({"--json", "changes", "fid=1", "--since", "MQ=="}), ExitCode::Done);
    const auto lines = read();
    const auto update = nlohmann::json::parse(lines.substr(0, lines.find('\n')))["update"];
    EXPECT_EQ(update["itemIdentifier"], "did=5");
    EXPECT_TRUE(lines.ends_with("}\n{\"anchor\":\"Mg==\",\"moreComing\":false}\n")) << lines;
    EXPECT_EQ(run({"anchor", "fid=1"}), ExitCode::Done);
    EXPECT_EQ(read(), "MA==\n");
    EXPECT_EQ(settled, 5);
    EXPECT_EQ(run({"changes", "fid=1", "--since", "Mg=="}), ExitCode::Expired);
}

TEST_F(ChangeCommandsTest, WatchPrintsSignalledChangesUntilItIsInterrupted) {
    auto& folder = extension->containers["fid=1"];
    folder.changes["0"].moreComing = false;
    const std::vector<const char*> words{"--json", "watch", "fid=1", "--since", "MA=="};
    // The third change expires; before that a signal to the process, or a reader that goes, ends
    // it.
    for (const auto& [interrupt, expected] :
         {std::pair{SIGINT, ExitCode::Done}, {SIGTERM, ExitCode::Done}, {0, ExitCode::Expired}}) {
        auto running = std::async(std::launch::async, [&] { return run(words); });
        EXPECT_EQ(readLine(), "{\"delete\":\"did=8\"}\n");
        EXPECT_EQ(readLine(), "{\"anchor\":\"MQ==\",\"moreComing\":false}\n");
        signal();
        EXPECT_TRUE(readLine().starts_with("{\"update\":"));
        EXPECT_EQ(readLine(), "{\"anchor\":\"Mg==\",\"moreComing\":false}\n");
        interrupt == 0 ? signal() : static_cast<void>(kill(getpid(), interrupt));
        EXPECT_EQ(running.get(), expected);
        EXPECT_EQ(folder.watches, 0);
    }
    auto running = std::async(std::launch::async, [&] { return run({"watch", "fid=1"}); });
    EXPECT_EQ(readLine(), "deleted  did=8\n");
    close(std::exchange(pipe[0], -1));
    EXPECT_EQ(running.get(), ExitCode::Done);
}

TEST_F(ChangeCommandsTest, DoctorAndSyncFailWhereSomethingIsWrong) {
    EXPECT_EQ(run({"sync"}), ExitCode::Done);
    health.lastGap = "the queue overflowed";
    health.identityIsWeak = true;
    EXPECT_EQ(run({"doctor"}), ExitCode::Done);
    EXPECT_NE(read().find("\nlastGap                       the queue overflowed\n"),
              std::string::npos);
    health.degradedFolderCount = 2;
    EXPECT_EQ(run({"--json", "doctor"}), ExitCode::Failed);
    const auto object = nlohmann::json::parse(read());
    EXPECT_EQ(object["isHealthy"], false);
    EXPECT_EQ(object["identity"], "weak");
    EXPECT_EQ(object["problems"].size(), 1U);
    waitResult = std::unexpected(platform::errorFromErrno(ENOTCONN));
    health = {};
    EXPECT_EQ(run({"--json", "doctor"}), ExitCode::Failed);
    EXPECT_TRUE(nlohmann::json::accept(read())) << "what is known is shown all the same";
    EXPECT_EQ(run({"sync"}), ExitCode::Failed);
}

}  // namespace
