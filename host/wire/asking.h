#pragma once

#include <cerrno>
#include <utility>

#include "host/wire/Packing.h"
#include "host/wire/ServiceClient.h"

namespace host {

/// The value of an answer; EBADMSG where it is none of that type.
template <typename T>
[[nodiscard]] platform::Result<T> valueOf(platform::Result<Bus::Answer> answer) {
    if (!answer) return std::unexpected(std::move(answer.error()));
    auto value = unpacked<T>(answer->bytes);
    if (!value) return std::unexpected(platform::errorFromErrno(EBADMSG));
    return std::move(*value);
}

/// One question to the service. Blocks for the answer.
template <typename T, typename... Values>
[[nodiscard]] platform::Result<T> ask(ServiceClient& client, const char* member,
                                      const Values&... values) {
    return valueOf<T>(client.call(member, packed(values...)));
}

/// One operation that changes something. Blocks until it is done.
template <typename T, typename... Values>
[[nodiscard]] platform::Result<T> operate(ServiceClient& client, const char* member,
                                          const Mutations::ProgressHandler& progress,
                                          const Values&... values) {
    const auto number = client.nextNumber();
    return valueOf<T>(client.operate(member, number, packed(number, values...), progress));
}

[[nodiscard]] inline platform::Result<void> succeeded(const platform::Result<Nothing>& result) {
    if (!result) return std::unexpected(result.error());
    return {};
}

}  // namespace host
