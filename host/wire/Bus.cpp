#include "host/wire/Bus.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "host/session/errors.h"
#include "host/wire/Packing.h"

namespace host {

using platform::Result;

namespace {

constexpr const char* sessionPath = "/com/quenby/Documents1";
constexpr const char* errorName = "com.quenby.Documents1.Error.Failed";

struct ReleaseMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, ReleaseMessage>;

/// Of calls of sd-bus, which answer with a negative errno.
Result<void> checked(int result) {
    if (result < 0) return std::unexpected(platform::errorFromErrno(-result));
    return {};
}

platform::QSDataView bytesOf(sd_bus_message* message) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read_array(message, 'y', &bytes, &size) <= 0) return {};
    return {static_cast<const std::uint8_t*>(bytes), size};
}

bool append(sd_bus_message* message, platform::QSDataView bytes) {
    return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()) >= 0;
}

platform::QSError errorOf(sd_bus_message* message) {
    const auto* error = sd_bus_message_get_error(message);
    const char* text = "";
    (void)sd_bus_message_read_basic(message, 's', static_cast<void*>(&text));
    if (error && std::strcmp(error->name, errorName) == 0) {
        if (auto own = unpacked<platform::QSError>(bytesOf(message))) return std::move(*own);
    }
    auto protocol = platform::errorFromErrno(EPROTO);
    protocol.userInfo.emplace(platform::QSDescriptionErrorKey,
                              "the service does not understand a call: " + std::string(text));
    return protocol;
}

Result<Bus::Answer> answerOf(sd_bus_message* message) {
    if (sd_bus_message_is_method_error(message, nullptr)) return std::unexpected(errorOf(message));
    const auto bytes = bytesOf(message);
    Bus::Answer answer{{bytes.begin(), bytes.end()}, {}};
    int file = -1;
    // The message closes its own.
    if (sd_bus_message_read_basic(message, 'h', &file) > 0) {
        answer.file.reset(fcntl(file, F_DUPFD_CLOEXEC, 0));
        if (!answer.file) return std::unexpected(platform::errorFromErrno(errno));
    }
    return answer;
}

int deliver(sd_bus_message* message, void* handler, sd_bus_error* /*error*/) {
    (*static_cast<Bus::AnswerHandler*>(handler))(answerOf(message));
    return 1;
}

}  // namespace

Bus::Call::Call(sd_bus_message* message)
    : message_(sd_bus_message_ref(message)), bytes_(bytesOf(message)) {}

std::string_view Bus::Call::member() const {
    const char* member = sd_bus_message_get_member(message_.get());
    return member ? member : "";
}

void Bus::Call::Release::operator()(sd_bus_message* message) const {
    sd_bus_message_unref(message);
}

Result<std::unique_ptr<Bus>> Bus::open(platform::FileDescriptor socket, End end,
                                       Handlers handlers) {
    std::unique_ptr<Bus> self(new Bus(std::move(handlers)));
    if (auto made = checked(sd_bus_new(&self->bus_)); !made) {
        return std::unexpected(std::move(made.error()));
    }
    auto* bus = self->bus_;
    const auto begin = [&]() -> int {
        const auto onMessage = [](sd_bus_message* message, void* own, sd_bus_error*) {
            const auto& to = static_cast<Bus*>(own)->handlers_;
            const bool isOurs =
                sd_bus_message_get_interface(message) &&
                std::strcmp(sd_bus_message_get_interface(message), sessionInterface) == 0;
            if (!isOurs) return 0;
            if (sd_bus_message_is_signal(message, nullptr, nullptr)) {
                if (to.signal) to.signal(sd_bus_message_get_member(message), bytesOf(message));
                return 1;
            }
            if (!to.call || !sd_bus_message_is_method_call(message, nullptr, nullptr)) return 0;
            to.call(Call(message));
            return 1;
        };
        // Closed with the bus.
        int owned = fcntl(socket.get(), F_DUPFD_CLOEXEC, 0);
        if (owned < 0) return -errno;
        if (const int done = sd_bus_set_fd(bus, owned, owned); done < 0) {
            close(owned);
            return done;
        }
        if (const int done = sd_bus_negotiate_fds(bus, 1); done < 0) return done;
        if (end == End::Server) {
            sd_id128_t identity;
            if (const int done = sd_id128_randomize(&identity); done < 0) return done;
            if (const int done = sd_bus_set_server(bus, 1, identity); done < 0) return done;
        }
        if (const int done = sd_bus_add_filter(bus, nullptr, onMessage, self.get()); done < 0) {
            return done;
        }
        return sd_bus_start(bus);
    };
    if (auto begun = checked(begin()); !begun) return std::unexpected(std::move(begun.error()));
    return self;
}

Bus::~Bus() {
    sd_bus_close(bus_);
    sd_bus_unref(bus_);
}

pollfd Bus::pollEntry(bool reads) const {
    const int events = sd_bus_get_events(bus_);
    const int wanted = events < 0 ? 0 : reads ? events : events & ~POLLIN;
    return {sd_bus_get_fd(bus_), static_cast<short>(wanted), 0};
}

std::optional<std::chrono::milliseconds> Bus::timeout() const {
    std::uint64_t until = 0;  // microseconds of the monotonic clock
    if (sd_bus_get_timeout(bus_, &until) < 0 || until == UINT64_MAX) return std::nullopt;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto rest = std::chrono::microseconds(until) - now;
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(rest),
                    std::chrono::milliseconds(0));
}

Bus::Progress Bus::process() {
    const int done = sd_bus_process(bus_, nullptr);
    if (done < 0 || sd_bus_is_open(bus_) <= 0) return Progress::Ended;
    return done > 0 ? Progress::Busy : Progress::Idle;
}

void Bus::answer(const Call& call, const Answer& answer) {
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_return(call.message_.get(), &made) < 0) return;
    const Message message(made);
    if (!append(made, answer.bytes)) return;
    if (answer.file) {
        const int file = answer.file.get();
        if (sd_bus_message_append_basic(made, 'h', &file) < 0) return;
    }
    (void)send(made, {});
}

void Bus::answer(const Call& call, const platform::QSError& error) {
    sd_bus_message* made = nullptr;
    const auto text = error.description();
    const sd_bus_error named{errorName, text.c_str(), 0};
    if (sd_bus_message_new_method_error(call.message_.get(), &made, &named) < 0) return;
    const Message message(made);
    if (append(made, packed(error))) (void)send(made, {});
}

void Bus::signal(const char* member, platform::QSDataView bytes) {
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_signal(bus_, &made, sessionPath, sessionInterface, member) < 0) return;
    const Message message(made);
    if (append(made, bytes)) (void)send(made, {});
}

Result<void> Bus::call(const char* member, platform::QSDataView bytes, AnswerHandler handler) {
    sd_bus_message* made = nullptr;
    auto begun = checked(sd_bus_message_new_method_call(bus_, &made, nullptr, sessionPath,
                                                        sessionInterface, member));
    const Message message(made);
    if (!begun) return begun;
    if (!append(made, bytes)) return std::unexpected(platform::errorFromErrno(E2BIG));
    return send(made, std::move(handler));
}

void Bus::post(const char* member, platform::QSDataView bytes) {
    (void)call(member, bytes, {});
}

Result<void> Bus::ping(AnswerHandler handler) {
    sd_bus_message* made = nullptr;
    auto begun = checked(sd_bus_message_new_method_call(bus_, &made, nullptr, sessionPath,
                                                        "org.freedesktop.DBus.Peer", "Ping"));
    const Message message(made);
    if (!begun) return begun;
    return send(made, std::move(handler));
}

/// Without a handler no answer is asked for.
Result<void> Bus::send(sd_bus_message* message, AnswerHandler handler) {
    if (!handler) return checked(sd_bus_send(bus_, message, nullptr));
    auto kept = std::make_unique<AnswerHandler>(std::move(handler));
    sd_bus_slot* slot = nullptr;
    constexpr auto forEver = std::numeric_limits<std::uint64_t>::max();
    auto sent = checked(sd_bus_call_async(bus_, &slot, message, deliver, kept.get(), forEver));
    if (!sent) return sent;
    // From now on the bus keeps both, until the answer has been delivered or the bus goes.
    sd_bus_slot_set_destroy_callback(slot,
                                     [](void* own) { delete static_cast<AnswerHandler*>(own); });
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    (void)kept.release();
    return sent;
}

std::uint64_t Bus::unsentCount() const {
    std::uint64_t count = 0;
    return sd_bus_get_n_queued_write(bus_, &count) < 0 ? 0 : count;
}

}  // namespace host
