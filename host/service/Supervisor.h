#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "host/service/ExtensionProcess.h"
#include "host/wire/Handshake.h"
#include "host/wire/RemoteSession.h"

namespace host {

/// Keeps an extension in a process of its own running. One that ends, or does not answer, is
/// killed, waited for, and replaced by another: at once, or after a pause where it cannot be
/// started or ends at once. Any thread.
class Supervisor {
  public:
    using SessionRef = std::shared_ptr<RemoteSession>;
    struct Options {
        std::string program = ExtensionProcess::program();
        ExtensionSetup setup;  ///< hostProcess is filled in
    };

    /// Blocks until the first extension can be asked. Fails with the error of its start; then
    /// nothing is left running.
    [[nodiscard]] static platform::Result<std::unique_ptr<Supervisor>> start(Options options);
    /// Ends the extension: in order where it does so within seconds.
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Ends the extension, and starts no other: every call fails from now on, those under way too.
    /// Does not wait.
    void stop();

    /// What the first extension said.
    [[nodiscard]] const ExtensionFacts& facts() const { return facts_; }

    /// The present session. Blocks while one is being started. Fails with an error that
    /// meansUnavailable where none could be started for ten seconds.
    [[nodiscard]] platform::Result<SessionRef> session();
    /// The caller found that the session has ended. The next session() is another one.
    void replace(const SessionRef& ended);
    [[nodiscard]] bool isPresent(const SessionRef& session) const;

    /// Has the event descriptor count whenever there is a new session. Until forget().
    void notify(int descriptor);
    void forget(int descriptor);

    /// As that of a session, also for those to come.
    void setDomainRemoval(Session::DomainRemoval removal);

    struct Status {
        pid_t process = 0;  ///< 0: there is none now
        std::uint64_t restarts = 0;
        std::optional<std::string> lastEnd =
            {};  ///< how the one before ended; none: it is the first
    };
    [[nodiscard]] Status status() const;

  private:
    struct Child {
        std::unique_ptr<ExtensionProcess> process;
        SessionRef session;
        ExtensionFacts facts;
    };

    explicit Supervisor(Options options) : options_(std::move(options)) {}
    void run();
    [[nodiscard]] platform::Result<Child> startChild() const;
    [[nodiscard]] platform::Result<Child> startOnceFree();
    void publish(platform::Result<Child>& started);
    /// False where it ended because the supervisor stops.
    [[nodiscard]] bool watch(Child& child);
    /// Before the next start, after an extension that lived so long; none was started: 0.
    [[nodiscard]] std::chrono::milliseconds pauseAfter(std::chrono::milliseconds lifetime);
    /// False where the supervisor stops.
    [[nodiscard]] bool pause(std::chrono::milliseconds duration);
    void end(Child& child);

    Options options_;
    ExtensionFacts facts_;  // constant after start()
    platform::FileDescriptor wake_;
    platform::FileDescriptor ended_;  ///< readable when the connection of the present one has ended

    // Of the thread.
    int failures_ = 0;  ///< in a row

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    SessionRef session_;                        ///< null: none
    std::optional<platform::QSError> trouble_;  ///< why none is being started just now
    bool hasBegun_ = false;                     ///< the first start has ended, one way or the other
    bool isStopping_ = false;
    std::set<int> notified_;
    Session::DomainRemoval domainRemoval_;
    Status status_;

    std::thread thread_;
};

}  // namespace host
