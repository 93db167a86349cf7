#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"

struct sd_bus;
struct sd_bus_message;

namespace host {

/// The interface that both ends speak, and its version: both ends need the same.
inline constexpr const char* sessionInterface = "com.quenby.Documents1.Session";
inline constexpr std::uint32_t sessionVersion = 1;

/// One end of a D-Bus connection without a bus in between. Every call, answer and signal of
/// sessionInterface carries one array of bytes (see Packing); an answer may carry a descriptor
/// besides.
///
/// One thread, which polls: whenever the descriptor or the time says so it calls process().
class Bus {
  public:
    struct Answer {
        platform::QSData bytes;
        platform::FileDescriptor file;  ///< none for most calls
    };
    using AnswerHandler = std::function<void(platform::Result<Answer>)>;

    /// A call of the peer that waits for its answer. Moves only; dropped without one it is never
    /// answered.
    class Call {
      public:
        Call() = default;
        explicit Call(sd_bus_message* message);

        [[nodiscard]] std::string_view member() const;
        /// Valid as long as this is.
        [[nodiscard]] platform::QSDataView bytes() const { return bytes_; }

      private:
        friend class Bus;
        struct Release {
            void operator()(sd_bus_message* message) const;
        };
        std::unique_ptr<sd_bus_message, Release> message_;
        platform::QSDataView bytes_;
    };

    struct Handlers {
        std::function<void(Call)> call = {};
        std::function<void(std::string_view member, platform::QSDataView bytes)> signal = {};
    };

    enum class End : std::uint8_t { Client, Server };
    /// Over a connected socket. Authentication goes on within process().
    [[nodiscard]] static platform::Result<std::unique_ptr<Bus>> open(
        platform::FileDescriptor socket, End end, Handlers handlers);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// The events to poll for. Without `reads`, only those of what is still to be written.
    [[nodiscard]] pollfd pollEntry(bool reads) const;
    /// When to call process() though nothing happens, none: never; zero: at once.
    [[nodiscard]] std::optional<std::chrono::milliseconds> timeout() const;

    enum class Progress : std::uint8_t { Idle, Busy, Ended };
    /// Reads or writes one message. Calls the handlers.
    Progress process();

    void answer(const Call& call, const Answer& answer);
    void answer(const Call& call, const platform::QSError& error);
    void signal(const char* member, platform::QSDataView bytes);
    /// The handler is called within process(), once, unless the connection ends before. No time
    /// limit.
    [[nodiscard]] platform::Result<void> call(const char* member, platform::QSDataView bytes,
                                              AnswerHandler handler);
    /// A call whose answer nobody waits for.
    void post(const char* member, platform::QSDataView bytes);
    /// Whether the peer's loop is alive.
    [[nodiscard]] platform::Result<void> ping(AnswerHandler handler);
    /// Messages that the peer has not taken yet.
    [[nodiscard]] std::uint64_t unsentCount() const;

  private:
    explicit Bus(Handlers handlers) : handlers_(std::move(handlers)) {}
    [[nodiscard]] platform::Result<void> send(sd_bus_message* message, AnswerHandler handler);

    const Handlers handlers_;
    sd_bus* bus_ = nullptr;
};

}  // namespace host
