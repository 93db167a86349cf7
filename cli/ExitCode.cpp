#include "cli/ExitCode.h"

#include <fmt/format.h>

#include <cstring>
#include <utility>

#include "cli/text.h"
#include "host/session/errors.h"

namespace cli {

namespace {

/// What happened, without the domain and code that only programs want.
std::string reason(const platform::QSError& error) {
    const auto described = error.userInfo.find(platform::QSDescriptionErrorKey);
    if (described != error.userInfo.end()) return described->second;
    if (error.domain == platform::QSPOSIXErrorDomain) {
        char buffer[128];
        // The GNU variant returns a pointer that need not be the buffer.
        return strerror_r(static_cast<int>(error.code), buffer, sizeof buffer);
    }
    if (error.domain == platform::QSMochaErrorDomain &&
        error.code == platform::QSFileWriteNoPermissionError) {
        return "writing is not permitted there";
    }
    if (host::meansNoSuchItem(error)) return "there is no such item";
    return error.description();
}

std::string message(const platform::QSError& error, std::string_view subject) {
    const auto path = error.userInfo.find(platform::QSFilePathErrorKey);
    const auto about = path != error.userInfo.end() ? std::string_view(path->second) : subject;
    auto text = reason(error);
    return about.empty() || text.find(about) != std::string::npos
               ? text
               : fmt::format("{}: {}", about, text);
}

}  // namespace

platform::QSError usageError(std::string_view message) {
    return {std::string(usageErrorDomain),
            std::to_underlying(ExitCode::Usage),
            {{std::string(platform::QSDescriptionErrorKey), std::string(message)}}};
}

ExitCode exitCodeFor(const platform::QSError& error) {
    if (error.domain == usageErrorDomain) return ExitCode::Usage;
    if (host::meansExpired(error)) return ExitCode::Expired;
    if (host::meansNoSuchItem(error)) return ExitCode::NoSuchItem;
    if (host::meansMayBeDone(error)) return ExitCode::MayBeDone;
    return ExitCode::Failed;
}

std::string errorLine(const platform::QSError& error, std::string_view subject, bool json) {
    const auto text = message(error, subject);
    if (!json) return "tidewell: " + escapedForTerminal(text) + "\n";
    std::string line = R"({"error":{"domain":)";
    appendJsonString(line, error.domain);
    line += fmt::format(R"(,"code":{},"message":)", error.code);
    appendJsonString(line, text);
    return line + "}}\n";
}

}  // namespace cli
