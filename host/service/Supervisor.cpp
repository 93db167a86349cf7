#include "host/service/Supervisor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "host/session/errors.h"
#include "platform/log/Log.h"

namespace host {

using platform::Result;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// Loading the index of a large storage takes seconds.
constexpr milliseconds longestStart = std::chrono::minutes(1);
/// How long a call waits for one that cannot be started.
constexpr milliseconds patience = std::chrono::seconds(10);
/// How long an extension may take to write what it has when it is to end.
constexpr milliseconds longestEnd = std::chrono::seconds(10);
/// One that ends sooner than this counts as one that cannot be started.
constexpr milliseconds shortestLife(100);
constexpr milliseconds firstPause = std::chrono::seconds(1);
constexpr milliseconds longestPause = std::chrono::minutes(1);
constexpr milliseconds inUsePause(20);
constexpr milliseconds longestInUse = std::chrono::seconds(5);

void count(int descriptor) {
    (void)eventfd_write(descriptor, 1);
}

void clear(int descriptor) {
    eventfd_t ignored = 0;
    (void)eventfd_read(descriptor, &ignored);
}

}  // namespace

Result<std::unique_ptr<Supervisor>> Supervisor::start(Options options) {
    std::unique_ptr<Supervisor> self(new Supervisor(std::move(options)));
    self->options_.setup.hostProcess = getpid();
    for (auto* descriptor : {&self->wake_, &self->ended_}) {
        descriptor->reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!*descriptor) return std::unexpected(platform::errorFromErrno(errno));
    }
    self->thread_ = std::thread([own = self.get()] { own->run(); });
    std::unique_lock lock(self->mutex_);
    self->changed_.wait(lock, [&] { return self->hasBegun_; });
    if (self->session_) return self;
    auto error = *self->trouble_;
    lock.unlock();
    return std::unexpected(std::move(error));
}

Supervisor::~Supervisor() {
    stop();
    if (thread_.joinable()) thread_.join();
}

void Supervisor::stop() {
    const std::scoped_lock lock(mutex_);
    isStopping_ = true;
    if (session_) session_->close();
    changed_.notify_all();
    count(wake_.get());
}

Result<Supervisor::SessionRef> Supervisor::session() {
    std::unique_lock lock(mutex_);
    const auto isDecided = [this] { return session_ || isStopping_; };
    if (isStopping_) return std::unexpected(errorForUnavailableExtension(std::nullopt));
    if (!changed_.wait_for(lock, patience, isDecided)) {
        changed_.wait_for(lock, longestStart, [&] { return isDecided() || trouble_; });
    }
    if (!session_) return std::unexpected(errorForUnavailableExtension(trouble_));
    return session_;
}

void Supervisor::replace(const SessionRef& ended) {
    const std::scoped_lock lock(mutex_);
    if (session_ != ended) return;
    session_ = nullptr;
    count(ended_.get());
}

bool Supervisor::isPresent(const SessionRef& session) const {
    const std::scoped_lock lock(mutex_);
    return session_ == session;
}

void Supervisor::notify(int descriptor) {
    const std::scoped_lock lock(mutex_);
    notified_.insert(descriptor);
}

void Supervisor::forget(int descriptor) {
    const std::scoped_lock lock(mutex_);
    notified_.erase(descriptor);
}

void Supervisor::setDomainRemoval(Session::DomainRemoval removal) {
    const std::scoped_lock lock(mutex_);
    domainRemoval_ = std::move(removal);
    if (session_) session_->setDomainRemoval(domainRemoval_);
}

Supervisor::Status Supervisor::status() const {
    const std::scoped_lock lock(mutex_);
    return status_;
}

void Supervisor::run() {
    for (bool isFirst = true;; isFirst = false) {
        auto started = isFirst ? startChild() : startOnceFree();
        publish(started);
        if (!started) {
            if (isFirst || !pause(pauseAfter(milliseconds(0)))) return;
            continue;
        }
        const auto begun = steady_clock::now();
        if (!watch(*started)) return end(*started);
        const auto lifetime = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begun);
        if (!pause(pauseAfter(lifetime))) return;
    }
}

/// A command without a service may have the store for a moment.
Result<Supervisor::Child> Supervisor::startOnceFree() {
    const auto end = steady_clock::now() + longestInUse;
    for (;;) {
        auto started = startChild();
        const bool isInUse = !started && started.error().code == EBUSY &&
                             started.error().domain == platform::QSPOSIXErrorDomain;
        if (!isInUse || steady_clock::now() >= end || !pause(inUsePause)) return started;
    }
}

Result<Supervisor::Child> Supervisor::startChild() const {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return std::unexpected(platform::errorFromErrno(errno));
    }
    platform::FileDescriptor ours(ends[0]);
    platform::FileDescriptor theirs(ends[1]);
    auto process = ExtensionProcess::spawn(options_.program, theirs);
    if (!process) return std::unexpected(std::move(process.error()));
    theirs.reset();
    // Where it ends before it has read this, its answer is missing, which says so.
    (void)sendWord(ours.get(), packed(options_.setup));
    const auto word = receiveWord(ours.get(), longestStart);
    if (!word) {
        (*process)->kill();
        const auto ending = (*process)->wait(longestEnd);
        auto error = word.error();
        error.userInfo.insert_or_assign(
            std::string(platform::QSDescriptionErrorKey),
            "the extension's process cannot be started: " + ending.value_or("it does not end"));
        return std::unexpected(std::move(error));
    }
    auto facts = unpacked<Result<ExtensionFacts>>(*word);
    if (!facts) return std::unexpected(platform::errorFromErrno(EBADMSG, options_.program));
    if (!*facts) return std::unexpected(std::move(facts->error()));
    auto client = ServiceClient::connect(std::move(ours));
    if (!client) return std::unexpected(std::move(client.error()));
    clear(ended_.get());
    constexpr std::uint64_t noFollowing = 0;
    (*client)->notify(noFollowing, ended_.get());
    auto session = std::make_shared<RemoteSession>(std::move(*client));
    return Child{std::move(*process), std::move(session), std::move(**facts)};
}

void Supervisor::publish(Result<Child>& started) {
    const std::scoped_lock lock(mutex_);
    if (started) {
        if (!hasBegun_) facts_ = started->facts;
        session_ = started->session;
        session_->setDomainRemoval(domainRemoval_);
        trouble_.reset();
        status_.process = started->process->number();
        if (hasBegun_) ++status_.restarts;
        for (const int descriptor : notified_) count(descriptor);
    } else {
        trouble_ = started.error();
    }
    hasBegun_ = true;
    changed_.notify_all();
}

bool Supervisor::watch(Child& child) {
    std::array polled{pollfd{child.process->descriptor(), POLLIN, 0},
                      pollfd{ended_.get(), POLLIN, 0}, pollfd{wake_.get(), POLLIN, 0}};
    while (poll(polled.data(), polled.size(), -1) < 0) continue;
    {
        const std::scoped_lock lock(mutex_);
        if (isStopping_) return false;
        session_ = nullptr;
        status_.process = 0;
    }
    child.process->kill();
    // One that waits for a dead disk cannot be killed, and keeps the store. There is no second one
    // beside it.
    constexpr milliseconds forEver(-1);
    const auto ending = child.process->wait(forEver);
    platform::Log::platformLog().write(platform::LogLevel::Error, [&] {
        return "the extension's process " + std::to_string(child.process->number()) +
               " has ended; " + ending.value_or("nobody knows why");
    });
    const std::scoped_lock lock(mutex_);
    status_.lastEnd = ending;
    return true;
}

milliseconds Supervisor::pauseAfter(milliseconds lifetime) {
    if (lifetime >= shortestLife) {
        failures_ = 0;
        return milliseconds(0);
    }
    const auto pause = firstPause * (1 << std::min(failures_, 6));
    ++failures_;
    return std::min(pause, longestPause);
}

bool Supervisor::pause(milliseconds duration) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, duration, [this] { return isStopping_; });
}

/// Its connection is closed first: that is how it learns that it is to end.
void Supervisor::end(Child& child) {
    {
        const std::scoped_lock lock(mutex_);
        session_ = nullptr;
        changed_.notify_all();
    }
    child.session.reset();
    if (!child.process->wait(longestEnd)) child.process->kill();
}

}  // namespace host
