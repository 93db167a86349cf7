#include "platform/log/Log.h"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/foundation/fatalError.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class LogTest : public testing::Test {
  protected:
    ~LogTest() override { installLog(nullptr, LogLevel::Debug); }

    const std::shared_ptr<MemorySink> sink_ = std::make_shared<MemorySink>();
    const Log log_{"com.quenby.test", "unit"};
};

TEST_F(LogTest, KeepsErrnoWhateverTheTextAndTheSinkDo) {
    struct Spoiler final : LogSink {
        void write(const LogRecord&) override { errno = EIO; }
    };
    installLog(std::make_shared<Spoiler>(), LogLevel::Debug);
    errno = ENOENT;
    log_.write(LogLevel::Info, [] {
        errno = EPERM;
        return std::string("text");
    });
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(errnoText(ENOENT), "[2: No such file or directory]");
    EXPECT_EQ(errnoText(4000), "[4000: Unknown error]");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LogTest, StandardErrorHasOneCleanLineARecord) {
    const LogRecord record{"com.quenby.test", "unit", LogLevel::Error, "a\nb\x1b[31m\ttab"};
    testing::internal::CaptureStderr();
    makeStandardErrorSink()->write(record);
    struct stat status;
    ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
    const auto stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    makeStandardErrorSink()->write(record);
    ::setenv("JOURNAL_STREAM", "1:2", 1);  // another process's stream, inherited
    makeStandardErrorSink()->write(record);
    ::unsetenv("JOURNAL_STREAM");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_THAT(text,
                testing::MatchesRegex("[-0-9T:.]+Z com.quenby.test/unit: a.x0ab.x1b.31m\ttab\n"
                                      "<3>com.quenby.test/unit: a.x0ab.x1b.31m\ttab\n"
                                      "[-0-9T:.]+Z com.quenby.test/unit: a.x0ab.x1b.31m\ttab\n"));
}

/// Binds a socket where journald's would be, in a mount namespace of the calling thread.
int makePrivateJournal() {
    if (::unshare(CLONE_NEWNS) != 0) return -1;
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return -1;
    if (::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) return -1;
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return ::bind(descriptor, generic, sizeof address) == 0 ? descriptor : -1;
}

TEST_F(LogTest, JournalGetsTheFieldsOfARecord) {
    std::string datagram;
    bool isPossible = true;
    std::jthread([&] {
        const int journal = makePrivateJournal();
        isPossible = journal >= 0;
        if (!isPossible) return;
        const auto sink = makeJournalSink();
        ASSERT_NE(sink, nullptr);
        sink->write({"com.quenby.test", "unit", LogLevel::Error, "100% done"});
        datagram.resize(4096);
        datagram.resize(static_cast<std::size_t>(
            std::max<ssize_t>(0, ::recv(journal, datagram.data(), datagram.size(), 0))));
        ::unlink("/run/systemd/journal/socket");
        EXPECT_EQ(makeJournalSink(), nullptr);
        ::close(journal);
    }).join();
    if (!isPossible) GTEST_SKIP() << "needs a mount namespace";
    EXPECT_THAT(datagram, AllOf(HasSubstr("MESSAGE=100% done\n"), HasSubstr("PRIORITY=3\n"),
                                HasSubstr("SYSLOG_IDENTIFIER=test_platform_log\n"),
                                HasSubstr("TIDEWELL_SUBSYSTEM=com.quenby.test\n"),
                                HasSubstr("TIDEWELL_CATEGORY=unit\n"), HasSubstr("TID="),
                                testing::Not(HasSubstr("CODE_FILE"))));
}

TEST(LogDeathTest, FatalErrorsGoToTheSinkAlsoFromWithinIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Failing final : LogSink {
        void write(const LogRecord& record) override {
            std::fprintf(stderr, "sink: %s\n", record.message.c_str());
            fatalError("in the sink");
        }
    };
    EXPECT_DEATH(
        {
            installLog(std::make_shared<Failing>(), LogLevel::Error);
            fatalError("broken invariant");
        },
        "sink: fatal error: broken invariant .*LogTest.cpp:[0-9]+.*\n.*in the sink");
}

}  // namespace
}  // namespace platform
