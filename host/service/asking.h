#pragma once

#include <utility>

#include "host/service/Supervisor.h"
#include "host/session/errors.h"

namespace host {

/// The answer of the present extension to `ask(session)`; of the next one where that ended before
/// it answered. An operation that was begun fails with another error, so it is not repeated.
template <typename Ask>
auto askSupervised(Supervisor& supervisor, const Ask& ask)
    -> decltype(ask(std::declval<RemoteSession&>())) {
    constexpr int tries = 2;
    for (int attempt = 1;; ++attempt) {
        const auto session = supervisor.session();
        if (!session) return std::unexpected(session.error());
        auto answer = ask(**session);
        if (answer || !meansServiceEnded(answer.error())) return answer;
        supervisor.replace(*session);
        if (attempt == tries) {
            return std::unexpected(errorForUnavailableExtension(std::nullopt));
        }
    }
}

}  // namespace host
