// The extension and the platform that it stands on, in a process of their own. The host starts it
// with one end of a connection, and it ends when the host closes the other.

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "extension/Confinement.h"
#include "host/local/LocalSession.h"
#include "host/wire/Endpoint.h"
#include "host/wire/Handshake.h"
#include "host/wire/SessionServer.h"
#include "platform/fileprovider/Platform.h"
#include "platform/log/Log.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

using platform::Result;

constexpr int connectionNumber = 3;

/// As the command that started the host: see its options.
void installLog(std::uint8_t verbosity) {
    using platform::LogLevel;
    if (verbosity == 0) return platform::installLog(platform::makeJournalSink(), LogLevel::Info);
    platform::installLog(platform::makeStandardErrorSink(),
                         verbosity == 1 ? LogLevel::Info : LogLevel::Debug);
}

platform::Platform::Options platformOptions(const host::ExtensionSetup& setup) {
    platform::Platform::Options options;
    options.folders = {.storage = setup.storage,
                       .data = setup.data,
                       .state = setup.state,
                       .cache = setup.cache,
                       .config = setup.config,
                       .applicationSupport = setup.applicationSupport};
    options.acceptsReplacement = setup.acceptsReplacement;
    return options;
}

int answerWith(Result<host::ExtensionFacts> answer) {
    (void)host::sendWord(connectionNumber, host::packed(answer));
    return answer ? 0 : 1;
}

int run() {
    const auto word = host::receiveWord(connectionNumber, std::chrono::seconds(10));
    const auto setup = word ? host::unpacked<host::ExtensionSetup>(*word) : std::nullopt;
    // Nor does it go on where the host ended before this one asked to end with it.
    if (!setup || getppid() != setup->hostProcess) return 1;
    installLog(setup->verbosity);
    auto platform = platform::Platform::make(platformOptions(*setup));
    if (!platform) return answerWith(std::unexpected(std::move(platform.error())));
    (*platform)->install();
    const auto libraries = tidewell::AppLibraries::load();
    (void)libraries->refresh();
    host::LocalSession::Options access;
    access.applications = host::AppRegistry::ofPlatform([&] { (void)libraries->refresh(); });
    host::LocalSession session([&] { return tidewell::makeLocalFileProvider(libraries); },
                               std::move(access));

    const auto& folders = (*platform)->folders();
    const host::ExtensionFacts facts{host::Endpoint::pathFor(folders.data), folders.cache};
    (*platform)->volume().noteService(setup->hostProcess, facts.socket);
    (void)answerWith(facts);
    auto server = host::SessionServer::start(platform::FileDescriptor(connectionNumber), session);
    if (!server) return 1;
    session.setDomainRemoval([&](const std::vector<std::string>& domains) {
        (*server)->forgetDomains(domains);
        return std::uint64_t{0};  // nobody here knows
    });
    (*server)->waitForLast();
    session.setDomainRemoval({});
    return 0;
}

}  // namespace

int main() {
    // It never outlives its host, even where it is stopped.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!tidewell::confineThisProcess()) {
        return answerWith(std::unexpected(platform::errorFromErrno(ENOSYS, "seccomp")));
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::setlocale(LC_CTYPE, "");
    return run();
}
