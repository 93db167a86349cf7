#include "host/wire/ServiceClient.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "host/session/errors.h"
#include "host/wire/Packing.h"
#include "platform/dispatch/Queue.h"

namespace host {

using platform::Result;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// Fewer than the service takes at once from one client before it stops reading, so that it always
/// reads cancellations and pings.
constexpr std::size_t mostSent = 24;
constexpr milliseconds pingInterval(2000);
constexpr milliseconds longestSilence(8000);
/// How often the handler of an operation is asked whether it is to go on.
constexpr milliseconds operationInterval(100);

}  // namespace

Result<std::unique_ptr<ServiceClient>> ServiceClient::connect(platform::FileDescriptor socket) {
    std::unique_ptr<ServiceClient> self(new ServiceClient);
    self->wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!self->wake_) return std::unexpected(platform::errorFromErrno(errno));
    auto bus = Bus::open(
        std::move(socket), Bus::End::Client,
        {.signal = [own = self.get()](auto member, auto bytes) { own->receive(member, bytes); }});
    // The service disconnects at once who is one too many.
    if (!bus) return std::unexpected(errorForEndedService());
    self->bus_ = std::move(*bus);
    self->thread_ = std::thread([own = self.get()] { own->run(); });
    const auto greeted = self->call("Hello", packed(sessionVersion));
    if (!greeted) return std::unexpected(greeted.error());
    const auto version = unpacked<std::uint32_t>(greeted->bytes);
    if (version != sessionVersion) {
        auto error = platform::errorFromErrno(EPROTO);
        error.userInfo.emplace(platform::QSDescriptionErrorKey,
                               "the service that runs is of another version; end it first");
        return std::unexpected(std::move(error));
    }
    return self;
}

ServiceClient::~ServiceClient() {
    {
        const std::scoped_lock lock(mutex_);
        isStopping_ = true;
    }
    (void)eventfd_write(wake_.get(), 1);
    if (thread_.joinable()) thread_.join();
}

void ServiceClient::close() {
    {
        const std::scoped_lock lock(mutex_);
        isClosed_ = true;
    }
    (void)eventfd_write(wake_.get(), 1);
}

Result<Bus::Answer> ServiceClient::call(const char* member, platform::QSData bytes) {
    auto call = std::make_shared<Call>();
    call->member = member;
    call->bytes = std::move(bytes);
    return await(call, {});
}

Result<Bus::Answer> ServiceClient::operate(const char* member, std::uint64_t number,
                                           platform::QSData bytes,
                                           const Mutations::ProgressHandler& handler) {
    auto call = std::make_shared<Call>();
    call->member = member;
    call->bytes = std::move(bytes);
    call->operation = number;
    auto answer = await(call, handler);
    const std::scoped_lock lock(mutex_);
    if (!answer && meansServiceEnded(answer.error()) && call->isSent) {
        return std::unexpected(errorForInterruptedOperation());
    }
    return answer;
}

void ServiceClient::post(const char* member, platform::QSData bytes) {
    auto call = std::make_shared<Call>();
    call->member = member;
    call->bytes = std::move(bytes);
    call->isPosted = true;
    submit(std::move(call));
}

void ServiceClient::submit(CallRef call) {
    {
        const std::scoped_lock lock(mutex_);
        if (hasEnded_) {
            call->answer = std::unexpected(errorForEndedService());
            return;
        }
        waiting_.push_back(std::move(call));
    }
    (void)eventfd_write(wake_.get(), 1);
}

Result<Bus::Answer> ServiceClient::await(const CallRef& call,
                                         const Mutations::ProgressHandler& handler) {
    submit(call);
    bool isCancelled = false;
    std::unique_lock lock(mutex_);
    while (!call->answer) {
        if (!handler || isCancelled) {
            call->changed.wait(lock);
            continue;
        }
        call->changed.wait_for(lock, operationInterval);
        if (call->answer) break;
        const auto progress = call->progress;
        lock.unlock();
        isCancelled = !handler(progress);
        if (isCancelled) post("Cancel", packed(call->operation));
        lock.lock();
    }
    return std::move(*call->answer);
}

void ServiceClient::notify(std::uint64_t following, int descriptor) {
    const std::scoped_lock lock(mutex_);
    notified_.insert_or_assign(following, descriptor);
    if (hasEnded_) (void)eventfd_write(descriptor, 1);
}

void ServiceClient::forget(std::uint64_t following) {
    const std::scoped_lock lock(mutex_);
    notified_.erase(following);
}

void ServiceClient::run() {
    heard_ = pinged_ = steady_clock::now();
    for (;;) {
        bool isBusy = true;
        while (isBusy) {
            const auto progress = bus_->process();
            if (progress == Bus::Progress::Ended) return end();
            isBusy = progress == Bus::Progress::Busy;
            if (isBusy) heard_ = steady_clock::now();
        }
        sendWaiting();
        {
            const std::scoped_lock lock(mutex_);
            if (isClosed_ || (isStopping_ && waiting_.empty())) break;
        }
        if (!checkPeer()) return end();
        std::array polled{bus_->pollEntry(true), pollfd{wake_.get(), POLLIN, 0}};
        auto timeout = bus_->timeout();
        {
            const std::scoped_lock lock(mutex_);
            if (!sent_.empty()) timeout = std::min(timeout.value_or(pingInterval), pingInterval);
            if (!waiting_.empty() && sent_.size() < mostSent) timeout = milliseconds(0);
        }
        (void)poll(polled.data(), polled.size(), timeout ? static_cast<int>(timeout->count()) : -1);
        eventfd_t count = 0;
        (void)eventfd_read(wake_.get(), &count);
    }
    end();
}

void ServiceClient::sendWaiting() {
    for (;;) {
        CallRef call;
        {
            const std::scoped_lock lock(mutex_);
            if (waiting_.empty()) return;
            // What is posted goes at once, past those that wait for room.
            auto next = waiting_.begin();
            if (sent_.size() >= mostSent) {
                while (next != waiting_.end() && !(*next)->isPosted) ++next;
                if (next == waiting_.end()) return;
            }
            call = std::move(*next);
            waiting_.erase(next);
            // Silence counts from the first question on.
            if (sent_.empty()) heard_ = pinged_ = steady_clock::now();
            if (!call->isPosted) sent_.emplace(call.get(), call);
            call->isSent = true;
        }
        if (call->isPosted) {
            bus_->post(call->member, call->bytes);
            continue;
        }
        auto sent = bus_->call(call->member, call->bytes,
                               [this, call](auto answer) { finish(call, std::move(answer)); });
        if (sent) continue;
        const std::scoped_lock lock(mutex_);
        call->isSent = false;
        if (sent_.erase(call.get()) == 0) continue;
        // Only too long a call fails here while the connection lasts.
        const bool isTooLong = sent.error().code == E2BIG || sent.error().code == ENOBUFS;
        call->answer = std::unexpected(isTooLong ? sent.error() : errorForEndedService());
        call->changed.notify_all();
    }
}

void ServiceClient::finish(const CallRef& call, Result<Bus::Answer> answer) {
    const std::scoped_lock lock(mutex_);
    if (sent_.erase(call.get()) == 0) return;
    call->answer = std::move(answer);
    call->changed.notify_all();
}

void ServiceClient::setDomainRemoval(Session::DomainRemoval removal) {
    const std::scoped_lock lock(mutex_);
    domainRemoval_ = std::move(removal);
}

void ServiceClient::receive(std::string_view member, platform::QSDataView bytes) {
    if (member == "ForgetDomains") {
        auto domains = unpacked<std::vector<std::string>>(bytes);
        const std::scoped_lock lock(mutex_);
        if (!domains || !domainRemoval_) return;
        platform::dispatchConcurrently(
            [removal = domainRemoval_, domains = std::move(*domains)] { (void)removal(domains); });
        return;
    }
    Unpacker values(bytes);
    const auto number = values.next<std::uint64_t>();
    const std::scoped_lock lock(mutex_);
    if (member == "Changed" && values.isWhole()) {
        const auto found = notified_.find(number);
        if (found != notified_.end()) (void)eventfd_write(found->second, 1);
    } else if (member == "Progress") {
        const auto progress = values.next<Mutations::Progress>();
        if (!values.isWhole()) return;
        for (const auto& [own, call] : sent_) {
            if (call->operation == number) call->progress = progress;
        }
    }
}

bool ServiceClient::checkPeer() {
    const auto now = steady_clock::now();
    {
        const std::scoped_lock lock(mutex_);
        if (sent_.empty()) return true;
    }
    if (now - heard_ >= longestSilence) return false;
    if (now - pinged_ < pingInterval) return true;
    pinged_ = now;
    return bus_->ping([](const auto& /*answer*/) {}).has_value();
}

/// Outside of the bus, whose handlers lock.
void ServiceClient::end() {
    bus_.reset();
    const std::scoped_lock lock(mutex_);
    hasEnded_ = true;
    const auto fail = [](const CallRef& call) {
        call->answer = std::unexpected(errorForEndedService());
        call->changed.notify_all();
    };
    for (const auto& call : std::exchange(waiting_, {})) fail(call);
    for (const auto& [own, call] : std::exchange(sent_, {})) fail(call);
    for (const auto& [following, descriptor] : notified_) (void)eventfd_write(descriptor, 1);
}

}  // namespace host
