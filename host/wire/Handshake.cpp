#include "host/wire/Handshake.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace host {

using platform::Result;

namespace {

constexpr std::uint32_t mostBytes = 1024 * 1024;

Result<void> receiveAll(int socket, std::span<std::uint8_t> bytes,
                        std::chrono::steady_clock::time_point end) {
    while (!bytes.empty()) {
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd polled{socket, POLLIN, 0};
        const auto timeout = static_cast<int>(std::max(rest.count(), std::int64_t{0}));
        const int ready = poll(&polled, 1, timeout);
        if (ready == 0) return std::unexpected(platform::errorFromErrno(ETIMEDOUT));
        if (ready < 0 && errno == EINTR) continue;
        const auto count = recv(socket, bytes.data(), bytes.size(), 0);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0) return std::unexpected(platform::errorFromErrno(errno));
        if (count == 0) return std::unexpected(platform::errorFromErrno(ECONNRESET));
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

}  // namespace

Result<void> sendWord(int socket, platform::QSDataView bytes) {
    auto word = packed(static_cast<std::uint32_t>(bytes.size()));
    word.insert(word.end(), bytes.begin(), bytes.end());
    for (platform::QSDataView rest(word); !rest.empty();) {
        const auto count = send(socket, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::unexpected(platform::errorFromErrno(errno));
        rest = rest.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

Result<platform::QSData> receiveWord(int socket, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    platform::QSData bytes(sizeof(std::uint32_t));
    if (auto done = receiveAll(socket, bytes, end); !done) {
        return std::unexpected(std::move(done.error()));
    }
    const auto size = unpacked<std::uint32_t>(bytes).value_or(0);
    if (size > mostBytes) return std::unexpected(platform::errorFromErrno(EBADMSG));
    bytes.resize(size);
    if (auto done = receiveAll(socket, bytes, end); !done) {
        return std::unexpected(std::move(done.error()));
    }
    return bytes;
}

}  // namespace host
