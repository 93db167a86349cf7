#include "host/wire/SessionServer.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/dispatch/Queue.h"

namespace host {

using platform::Result;

namespace {

constexpr std::size_t mostClients = 256;
constexpr std::size_t mostFollowings = 256;  // of a client
constexpr std::size_t mostRunning = 64;
constexpr std::size_t mostRunningOfClient = 8;
constexpr std::size_t mostWaiting = 32;    // of a client that is still read
constexpr std::uint64_t mostUnsent = 128;  // messages that a client leaves unread
constexpr std::size_t mostRequestBytes = std::size_t{1024} * 1024;
constexpr int messagesAtOnce = 16;

platform::QSError tooMany(const char* what) {
    auto error = platform::errorFromErrno(EMFILE);
    error.userInfo.emplace(platform::QSDescriptionErrorKey, what);
    return error;
}

}  // namespace

Result<std::unique_ptr<SessionServer>> SessionServer::start(Endpoint endpoint, Session& session,
                                                            SessionCalls::Searcher search) {
    std::unique_ptr<SessionServer> self(
        new SessionServer(std::move(endpoint), session, std::move(search)));
    self->wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!self->wake_) return std::unexpected(platform::errorFromErrno(errno));
    self->thread_ = std::thread([own = self.get()] { own->run(); });
    return self;
}

Result<std::unique_ptr<SessionServer>> SessionServer::start(platform::FileDescriptor connection,
                                                            Session& session) {
    std::unique_ptr<SessionServer> self(
        new SessionServer(std::nullopt, session, [](const std::string& /*text*/) {
            return Result<std::vector<std::string>>(
                std::unexpected(platform::errorFromErrno(ENOTSUP)));
        }));
    self->wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!self->wake_) return std::unexpected(platform::errorFromErrno(errno));
    if (auto added = self->add(std::move(connection)); !added) {
        return std::unexpected(std::move(added.error()));
    }
    self->thread_ = std::thread([own = self.get()] { own->run(); });
    return self;
}

SessionServer::~SessionServer() {
    {
        const std::scoped_lock lock(mutex_);
        isStopping_ = true;
    }
    (void)eventfd_write(wake_.get(), 1);
    if (thread_.joinable()) thread_.join();
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return dispatched_ == 0; });
    // What the last of them posted refers to nobody any more.
    posted_.clear();
}

void SessionServer::run() {
    for (;;) {
        std::vector<std::move_only_function<void()>> posted;
        {
            const std::scoped_lock lock(mutex_);
            if (isStopping_) break;
            posted.swap(posted_);
        }
        for (auto& work : posted) work();

        std::vector<ClientNumber> ended;
        for (auto& [number, client] : clients_) {
            process(client);
            if (client.isMisbehaving) ended.push_back(number);
        }
        for (const auto number : ended) disconnect(number);
        startWaiting();

        std::vector<pollfd> polled{{wake_.get(), POLLIN, 0},
                                   {endpoint_ ? endpoint_->descriptor() : -1, POLLIN, 0}};
        std::vector<Place> places;
        int timeout = -1;
        for (auto& [number, client] : clients_) {
            const bool reads = client.waiting.size() < mostWaiting;
            polled.push_back(client.bus->pollEntry(reads));
            // One that does not say who it is has a limit of time.
            const auto due = reads ? client.bus->timeout() : std::nullopt;
            if (due && (timeout < 0 || due->count() < timeout)) {
                timeout = static_cast<int>(due->count());
            }
            if (reads && client.isBusy) timeout = 0;
            for (const auto& [following, followed] : client.followings) {
                if (!followed->isLooking) places.push_back({number, following, followed});
            }
        }
        const auto firstPlace = polled.size();
        for (const auto& place : places) {
            polled.push_back({place.followed->following->descriptor(), POLLIN, 0});
        }
        (void)poll(polled.data(), polled.size(), timeout);
        eventfd_t count = 0;
        (void)eventfd_read(wake_.get(), &count);
        if (polled[1].revents != 0) accept();
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (polled[firstPlace + i].revents != 0) look(std::move(places[i]));
        }
    }
    while (!clients_.empty()) disconnect(clients_.begin()->first);
}

void SessionServer::accept() {
    auto socket = endpoint_->accept();
    if (socket && clients_.size() < mostClients) (void)add(std::move(*socket));
}

Result<void> SessionServer::add(platform::FileDescriptor connection) {
    const auto number = ++lastClient_;
    auto bus =
        Bus::open(std::move(connection), Bus::End::Server, {.call = [this, number](Bus::Call call) {
                      receive(number, *find(number), std::move(call));
                  }});
    if (!bus) return std::unexpected(std::move(bus.error()));
    clients_[number].bus = std::move(*bus);
    noteCount();
    return {};
}

void SessionServer::noteCount() {
    clientCount_ = clients_.size();
    clientCount_.notify_all();
}

void SessionServer::waitForLast() const {
    for (auto count = clientCount_.load(); count > 0; count = clientCount_) {
        clientCount_.wait(count);
    }
}

void SessionServer::forgetDomains(const std::vector<std::string>& domains) {
    post([this, bytes = packed(domains)] {
        for (auto& [number, client] : clients_) client.bus->signal("ForgetDomains", bytes);
    });
}

void SessionServer::process(Client& client) {
    client.isBusy = true;
    for (int i = 0; i < messagesAtOnce && client.isBusy; ++i) {
        const bool reads = client.waiting.size() < mostWaiting;
        if (!reads && client.bus->unsentCount() == 0) return;
        const auto progress = client.bus->process();
        client.isMisbehaving |= progress == Bus::Progress::Ended;
        client.isBusy = progress == Bus::Progress::Busy;
        if (client.isMisbehaving) return;
    }
    client.isMisbehaving |= client.bus->unsentCount() > mostUnsent;
}

void SessionServer::receive(ClientNumber number, Client& client, Bus::Call call) {
    const auto member = call.member();
    if (call.bytes().size() > mostRequestBytes) {
        client.isMisbehaving = true;
        return;
    }
    if (member == "Hello") return client.bus->answer(call, {packed(sessionVersion), {}});
    if (member == "Follow") return follow(number, client, std::move(call));
    const auto subject = [&] {
        Unpacker values(call.bytes());
        return values.next<std::uint64_t>();
    };
    if (member == "Cancel") {
        const auto found = client.operations.find(subject());
        if (found != client.operations.end()) *found->second = true;
        return;
    }
    if (member == "Unfollow") {
        if (auto ended = client.followings.extract(subject())) discard(std::move(ended.mapped()));
        return;
    }
    const auto* known = calls_.find(member);
    if (!known) return client.bus->answer(call, platform::errorFromErrno(ENOSYS));
    Request request;
    request.number = ++lastCall_;
    request.member = known;
    if (known->kind != SessionCalls::Kind::Question) request.subject = subject();
    if (known->kind == SessionCalls::Kind::OfFollowing) {
        const auto found = client.followings.find(request.subject);
        if (found == client.followings.end()) {
            return client.bus->answer(call, platform::errorFromErrno(EINVAL));
        }
        request.followed = found->second;
    }
    if (known->kind == SessionCalls::Kind::Operation) {
        request.isCancelled = std::make_shared<std::atomic<bool>>(false);
        client.operations.insert_or_assign(request.subject, request.isCancelled);
    }
    const auto bytes = call.bytes();
    request.bytes.assign(bytes.begin(), bytes.end());
    client.calls.emplace(request.number, std::move(call));
    client.waiting.push_back(std::move(request));
}

/// One of each client after another, beginning behind the one that was served last.
void SessionServer::startWaiting() {
    for (bool hasStarted = true; hasStarted && running_ < mostRunning;) {
        hasStarted = false;
        std::vector<ClientNumber> order;
        order.reserve(clients_.size());
        for (const auto& [number, client] : clients_) order.push_back(number);
        const auto behind = std::ranges::upper_bound(order, lastServed_);
        std::ranges::rotate(order, behind);
        for (const auto number : order) {
            auto& client = clients_[number];
            if (client.waiting.empty() || client.running >= mostRunningOfClient ||
                running_ >= mostRunning) {
                continue;
            }
            auto request = std::move(client.waiting.front());
            client.waiting.pop_front();
            ++client.running;
            lastServed_ = number;
            start(number, std::move(request));
            hasStarted = true;
        }
    }
}

void SessionServer::start(ClientNumber number, Request request) {
    ++running_;
    dispatch([this, number, request = std::move(request)]() mutable {
        auto done = answer(number, request);
        post([this, number, request = std::move(request), done = std::move(done)]() mutable {
            finish(number, request, std::move(done));
        });
    });
}

Result<Bus::Answer> SessionServer::answer(ClientNumber number, const Request& request) {
    Unpacker values(request.bytes);
    SessionCalls::Context context{session_};
    if (request.member->kind != SessionCalls::Kind::Question) {
        (void)values.next<std::uint64_t>();
    }
    if (request.isCancelled) {
        if (*request.isCancelled) return std::unexpected(platform::errorFromErrno(ECANCELED));
        context.progress = [this, number, &request, last = Mutations::Progress()](
                               const Mutations::Progress& progress) mutable {
            if (progress != std::exchange(last, progress)) {
                post([this, number, bytes = packed(request.subject, progress)] {
                    if (auto* client = find(number)) client->bus->signal("Progress", bytes);
                });
            }
            return !*request.isCancelled;
        };
    }
    if (!request.followed) return request.member->answer(context, values);
    const std::scoped_lock lock(request.followed->mutex);
    context.following = request.followed->following.get();
    return request.member->answer(context, values);
}

void SessionServer::finish(ClientNumber number, Request& request, Result<Bus::Answer> answer) {
    --running_;
    if (request.followed) discard(std::move(request.followed));
    auto* client = find(number);
    if (!client) return;
    --client->running;
    if (request.isCancelled) client->operations.erase(request.subject);
    const auto call = client->calls.extract(request.number);
    if (answer) {
        client->bus->answer(call.mapped(), *answer);
    } else {
        client->bus->answer(call.mapped(), answer.error());
    }
    client->isBusy = true;
}

void SessionServer::follow(ClientNumber number, Client& client, Bus::Call call) {
    Unpacker values(call.bytes());
    const auto following = values.next<std::uint64_t>();
    auto container = values.next<std::string>();
    if (!values.isWhole() || client.followings.contains(following)) {
        return client.bus->answer(call, platform::errorFromErrno(EINVAL));
    }
    if (client.followings.size() + client.beginning >= mostFollowings) {
        return client.bus->answer(call, tooMany("a client follows too many containers"));
    }
    const auto callNumber = ++lastCall_;
    client.calls.emplace(callNumber, std::move(call));
    ++client.beginning;
    dispatch([this, number, callNumber, following, container = std::move(container)] {
        auto begun = session_.follow(container);
        post([this, number, callNumber, following, begun = std::move(begun)]() mutable {
            auto followed = std::make_shared<Followed>();
            if (begun) followed->following = std::move(*begun);
            auto* present = find(number);
            if (!present) return discard(std::move(followed));
            --present->beginning;
            const auto waiting = present->calls.extract(callNumber);
            if (!begun) return present->bus->answer(waiting.mapped(), begun.error());
            present->followings.emplace(following, std::move(followed));
            present->bus->answer(waiting.mapped(), {packed(Nothing()), {}});
        });
    });
}

/// Off the thread: what is signalled may have to be looked at on the disk.
void SessionServer::look(Place place) {
    place.followed->isLooking = true;
    dispatch([this, place = std::move(place)]() mutable {
        bool isSignalled = false;
        {
            const std::scoped_lock lock(place.followed->mutex);
            isSignalled = place.followed->following->wait(std::chrono::milliseconds(0));
        }
        post([this, place = std::move(place), isSignalled]() mutable {
            place.followed->isLooking = false;
            auto* client = find(place.client);
            if (client && isSignalled) client->bus->signal("Changed", packed(place.following));
            discard(std::move(place.followed));
        });
    });
}

void SessionServer::disconnect(ClientNumber number) {
    auto ended = clients_.extract(number);
    if (!ended) return;
    noteCount();
    ended.mapped().waiting.clear();
    for (const auto& [operation, isCancelled] : ended.mapped().operations) *isCancelled = true;
    for (auto& [following, followed] : ended.mapped().followings) discard(std::move(followed));
}

SessionServer::Client* SessionServer::find(ClientNumber number) {
    const auto found = clients_.find(number);
    return found == clients_.end() ? nullptr : &found->second;
}

/// The end of a following may block. The last to discard it ends it.
void SessionServer::discard(FollowedRef followed) {
    if (followed.use_count() != 1) return;
    dispatch([followed = std::move(followed)]() mutable { followed.reset(); });
}

void SessionServer::dispatch(std::move_only_function<void()> work) {
    {
        const std::scoped_lock lock(mutex_);
        ++dispatched_;
    }
    platform::dispatchConcurrently([this, work = std::move(work)]() mutable {
        work();
        work = nullptr;
        const std::scoped_lock lock(mutex_);
        if (--dispatched_ == 0) idle_.notify_all();
    });
}

void SessionServer::post(std::move_only_function<void()> work) {
    {
        const std::scoped_lock lock(mutex_);
        posted_.push_back(std::move(work));
    }
    (void)eventfd_write(wake_.get(), 1);
}

}  // namespace host
