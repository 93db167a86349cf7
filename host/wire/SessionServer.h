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
#include <vector>

#include "host/session/Session.h"
#include "host/wire/Bus.h"
#include "host/wire/Endpoint.h"
#include "host/wire/SessionCalls.h"

namespace host {

/// Lets other processes of the same user use a session. One thread reads and writes; calls run on
/// workers, of each client at most eight at a time, and clients take turns. A client with too many
/// calls is read no further until some have been answered; one that takes no answers, sends too
/// much at once or something else than this interface is disconnected, and what it began is
/// cancelled.
class SessionServer {
  public:
    /// Serves until it is destroyed. `session` must outlive it.
    [[nodiscard]] static platform::Result<std::unique_ptr<SessionServer>> start(
        Endpoint endpoint, Session& session, SessionCalls::Searcher search);
    /// Serves the one at the other end of this connection, who is trusted.
    [[nodiscard]] static platform::Result<std::unique_ptr<SessionServer>> start(
        platform::FileDescriptor connection, Session& session);
    /// Disconnects everybody, cancels operations, and waits for the calls that are under way.
    ~SessionServer();
    SessionServer(const SessionServer&) = delete;
    SessionServer& operator=(const SessionServer&) = delete;

    [[nodiscard]] std::size_t clientCount() const { return clientCount_; }
    /// Blocks until nobody is connected.
    void waitForLast() const;
    /// Has clients forget what they know of these domains; see Session. Never blocks.
    void forgetDomains(const std::vector<std::string>& domains);

  private:
    using ClientNumber = std::uint64_t;
    using CallNumber = std::uint64_t;

    /// A following that a client began. The mutex is held for its calls, off the thread.
    struct Followed {
        std::mutex mutex;
        std::unique_ptr<Following> following;
        bool isLooking = false;  // of the thread
    };
    using FollowedRef = std::shared_ptr<Followed>;
    struct Place {
        ClientNumber client;
        std::uint64_t following;
        FollowedRef followed;
    };
    using Cancellation = std::shared_ptr<std::atomic<bool>>;

    struct Request {
        CallNumber number = 0;
        const SessionCalls::Member* member = nullptr;
        std::uint64_t subject = 0;  ///< the number that comes first, where the kind has one
        FollowedRef followed;
        Cancellation isCancelled;
        platform::QSData bytes;
    };
    struct Client {
        std::unique_ptr<Bus> bus;
        std::map<CallNumber, Bus::Call> calls;  ///< without an answer so far
        std::deque<Request> waiting;
        std::size_t running = 0;
        std::map<std::uint64_t, Cancellation> operations;
        std::map<std::uint64_t, FollowedRef> followings;
        std::size_t beginning = 0;  ///< followings that are being begun
        bool isMisbehaving = false;
        bool isBusy = true;  ///< may have more to read at once
    };

    SessionServer(std::optional<Endpoint> endpoint, Session& session, SessionCalls::Searcher search)
        : endpoint_(std::move(endpoint)), session_(session), calls_(std::move(search)) {}

    // On the thread.
    void run();
    void accept();
    [[nodiscard]] platform::Result<void> add(platform::FileDescriptor connection);
    void noteCount();
    void process(Client& client);
    void receive(ClientNumber number, Client& client, Bus::Call call);
    void startWaiting();
    void start(ClientNumber number, Request request);
    void follow(ClientNumber number, Client& client, Bus::Call call);
    void look(Place place);
    void finish(ClientNumber number, Request& request, platform::Result<Bus::Answer> answer);
    void disconnect(ClientNumber number);
    [[nodiscard]] Client* find(ClientNumber number);

    // Any thread.
    [[nodiscard]] platform::Result<Bus::Answer> answer(ClientNumber number, const Request& request);
    void dispatch(std::move_only_function<void()> work);
    void post(std::move_only_function<void()> work);
    void discard(FollowedRef followed);

    const std::optional<Endpoint> endpoint_;  ///< none: nobody else can connect
    Session& session_;
    const SessionCalls calls_;
    platform::FileDescriptor wake_;
    std::atomic<std::size_t> clientCount_ = 0;

    // Of the thread.
    std::map<ClientNumber, Client> clients_;
    ClientNumber lastClient_ = 0;
    ClientNumber lastServed_ = 0;  ///< the others come before it again
    CallNumber lastCall_ = 0;
    std::size_t running_ = 0;

    std::mutex mutex_;
    std::condition_variable idle_;
    // Guarded by mutex_.
    std::vector<std::move_only_function<void()>> posted_;  ///< for the thread
    std::size_t dispatched_ = 0;                           ///< work that has not ended
    bool isStopping_ = false;

    std::thread thread_;
};

}  // namespace host
