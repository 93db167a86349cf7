#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

#include "host/session/Session.h"
#include "host/wire/Bus.h"

namespace host {

/// The client's end of a connection to a document service: calls that block, and the service's
/// signals. Its own thread reads and writes.
///
/// Any thread. Where the connection ends, or the service does not answer a ping for eight seconds,
/// every call fails, those under way too, with an error that meansServiceEnded.
class ServiceClient {
  public:
    /// Blocks until the service has answered that it speaks this version; EPROTO where it does not.
    [[nodiscard]] static platform::Result<std::unique_ptr<ServiceClient>> connect(
        platform::FileDescriptor socket);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    /// Ends the connection: every call fails, those under way too.
    void close();

    /// `member` must live as long as the process.
    [[nodiscard]] platform::Result<Bus::Answer> call(const char* member, platform::QSData bytes);
    /// The same for an operation, which the service reports the progress of and which can be
    /// cancelled. Its number is the first value of `bytes`.
    [[nodiscard]] platform::Result<Bus::Answer> operate(const char* member, std::uint64_t number,
                                                        platform::QSData bytes,
                                                        const Mutations::ProgressHandler& handler);
    /// Without an answer.
    void post(const char* member, platform::QSData bytes);
    /// Of operations; none is used twice.
    [[nodiscard]] std::uint64_t nextNumber() { return lastNumber_.fetch_add(1) + 1; }

    /// Has the event descriptor count what is signalled about the following, and the end of the
    /// connection. Until forget().
    void notify(std::uint64_t following, int descriptor);
    void forget(std::uint64_t following);
    /// Receives what the service asks to forget; see Session. On a worker.
    void setDomainRemoval(Session::DomainRemoval removal);

  private:
    struct Call {
        const char* member = nullptr;
        platform::QSData bytes;
        std::uint64_t operation = 0;  ///< 0: none
        bool isPosted = false;
        // Guarded by mutex_.
        bool isSent = false;
        std::optional<platform::Result<Bus::Answer>> answer;
        Mutations::Progress progress;
        std::condition_variable changed;
    };
    using CallRef = std::shared_ptr<Call>;

    explicit ServiceClient() = default;
    [[nodiscard]] platform::Result<Bus::Answer> await(const CallRef& call,
                                                      const Mutations::ProgressHandler& handler);
    void submit(CallRef call);
    void run();
    void sendWaiting();
    void finish(const CallRef& call, platform::Result<Bus::Answer> answer);
    void receive(std::string_view member, platform::QSDataView bytes);
    /// False where the service is silent.
    [[nodiscard]] bool checkPeer();
    void end();

    std::atomic<std::uint64_t> lastNumber_ = 0;
    platform::FileDescriptor wake_;

    // Of the thread.
    std::unique_ptr<Bus> bus_;
    std::chrono::steady_clock::time_point pinged_;
    std::chrono::steady_clock::time_point heard_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::deque<CallRef> waiting_;            ///< to be sent
    std::map<Call*, CallRef> sent_;          ///< without an answer so far
    std::map<std::uint64_t, int> notified_;  ///< event descriptors by following
    Session::DomainRemoval domainRemoval_;
    bool isStopping_ = false;
    bool isClosed_ = false;  ///< by close()
    bool hasEnded_ = false;

    std::thread thread_;
};

}  // namespace host
