#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>

#include "cli/Arguments.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/StorageWait.h"
#include "cli/apps.h"
#include "cli/commands.h"
#include "host/documents/DocumentService.h"
#include "host/documents/Search.h"
#include "host/local/LocalSession.h"
#include "host/service/SupervisedSession.h"
#include "host/session/errors.h"
#include "host/wire/Handshake.h"
#include "host/wire/RemoteSession.h"
#include "host/wire/SessionServer.h"
#include "platform/fileprovider/Platform.h"
#include "platform/log/Log.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

/// A failure is one line on standard error; what the log has to say besides goes to the journal,
/// unless the user asks to see it.
void installLog(const cli::Arguments& arguments) {
    using platform::LogLevel;
    if (arguments.verbosity == 0) {
        platform::installLog(platform::makeJournalSink(), LogLevel::Info);
    } else {
        platform::installLog(platform::makeStandardErrorSink(),
                             arguments.verbosity == 1 ? LogLevel::Info : LogLevel::Debug);
    }
}

bool showsProgress() {
    const char* term = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && term && std::string_view(term) != "dumb";
}

host::ExtensionSetup setupOf(const cli::Arguments& arguments) {
    host::ExtensionSetup setup;
    setup.storage = arguments.storage.empty() ? platform::userDocumentsFolder() : arguments.storage;
    setup.acceptsReplacement = arguments.acceptsReplacement;
    setup.verbosity = static_cast<std::uint8_t>(std::min(arguments.verbosity, 2));
    if (arguments.state.empty()) return setup;
    setup.data = arguments.state + "/data";
    setup.state = arguments.state + "/state";
    setup.cache = arguments.state + "/cache";
    setup.config = arguments.state + "/config";
    setup.applicationSupport = arguments.state + "/application-support";
    return setup;
}

platform::Platform::Options platformOptions(const cli::Arguments& arguments,
                                            cli::Progress& progress) {
    const auto setup = setupOf(arguments);
    platform::Platform::Options options;
    options.folders = {.storage = setup.storage,
                       .data = setup.data,
                       .state = setup.state,
                       .cache = setup.cache,
                       .config = setup.config,
                       .applicationSupport = setup.applicationSupport};
    options.acceptsReplacement = setup.acceptsReplacement;
    // One command reads little of the storage; a look-up that needs the whole index waits for it.
    options.followsAtStart = false;
    options.scanProgress = [&progress](std::uint64_t objects) {
        progress.update(std::to_string(objects) + " objects indexed");
    };
    return options;
}

/// Whether the command runs on until it is interrupted, and serves the others as long.
bool stays(const cli::Arguments& arguments) {
    return arguments.command == cli::Command::Watch || arguments.command == cli::Command::Serve;
}

/// What a command asks: an extension of this process, which stands on a platform; one that this
/// process serves; the service of another process.
using Place = std::variant<std::unique_ptr<platform::Platform>, std::unique_ptr<host::Supervisor>,
                           std::unique_ptr<host::ServiceClient>>;

/// The store for this process: a command that stays leaves it to an extension's process.
platform::Result<Place> openHere(const cli::Arguments& arguments, cli::Progress& progress) {
    if (stays(arguments)) {
        auto supervisor = host::Supervisor::start({.setup = setupOf(arguments)});
        if (!supervisor) return std::unexpected(std::move(supervisor.error()));
        return std::move(*supervisor);
    }
    auto own = platform::Platform::make(platformOptions(arguments, progress));
    if (!own) return std::unexpected(std::move(own.error()));
    return std::move(*own);
}

/// One try. Where there is nothing to ask, the error says why; it meansInUse where that may pass.
platform::Result<Place> tryToOpen(const cli::Arguments& arguments, cli::Progress& progress) {
    auto own = openHere(arguments, progress);
    if (own) return own;
    const auto socket = platform::Platform::serviceSocketOf(own.error());
    if (!socket || arguments.command == cli::Command::Serve) return own;
    auto connected = host::Endpoint::connect(*socket);
    if (!connected) return own;  // that process is ending, or has not begun to serve
    auto service = host::ServiceClient::connect(std::move(*connected));
    // One that ended since then is as good as none.
    if (!service && host::meansServiceEnded(service.error())) return own;
    if (!service) return std::unexpected(std::move(service.error()));
    return std::move(*service);
}

/// Waits for a command that needs the store for a moment.
platform::Result<Place> open(const cli::Arguments& arguments, cli::Progress& progress) {
    constexpr std::chrono::milliseconds pause(20);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        auto place = tryToOpen(arguments, progress);
        const bool isInUse = !place && platform::Platform::meansInUse(place.error());
        if (!isInUse || std::chrono::steady_clock::now() >= end) return place;
        std::this_thread::sleep_for(pause);
    }
}

/// A storage that is missing is waited for by what stays. None: it was interrupted.
std::optional<platform::Result<Place>> openWaiting(const cli::Arguments& arguments,
                                                   cli::Progress& progress) {
    auto place = open(arguments, progress);
    const auto isMissing = [&] {
        return !place && platform::Platform::meansStorageMissing(place.error());
    };
    if (!isMissing() || !stays(arguments)) return place;
    cli::report(place.error(), {}, arguments.json);
    const bool isBack = cli::waitForStorage([&] {
        place = open(arguments, progress);
        return !isMissing();
    });
    return isBack ? std::optional(std::move(place)) : std::nullopt;
}

cli::ExitCode runAsClient(const cli::Arguments& arguments, cli::Progress& progress,
                          std::unique_ptr<host::ServiceClient> client,
                          std::optional<cli::WatchEnd>& watchEnd) {
    auto session = std::make_unique<host::RemoteSession>(std::move(client));
    const auto& remote = *session;
    host::DocumentService service(std::move(session));
    cli::Output output(STDOUT_FILENO, progress);
    return cli::runCommand(arguments, service, output, progress,
                           {.search = [&](const std::string& text) { return remote.search(text); },
                            .watchEnd = &watchEnd});
}

cli::ExitCode runService(const cli::Arguments& arguments, cli::Progress& progress,
                         host::Supervisor& supervisor) {
    std::atomic<const host::SessionServer*> present = nullptr;
    auto session = std::make_unique<host::SupervisedSession>(supervisor);
    session->countClients([&] {
        const auto* own = present.load();
        return own ? own->clientCount() : 0;
    });
    host::DocumentService service(std::move(session), {.trashAge = arguments.trashAge});
    const auto& facts = supervisor.facts();
    host::Search search(service, facts.cacheFolder + "/search.sqlite");
    const auto find = [&](const std::string& text) { return search.find(text); };
    auto endpoint = host::Endpoint::listen(facts.socket);
    if (!endpoint) return cli::report(endpoint.error(), {}, arguments.json);
    const auto server = host::SessionServer::start(std::move(*endpoint), service.session(), find);
    if (!server) return cli::report(server.error(), {}, arguments.json);
    present = server->get();
    cli::Output output(STDOUT_FILENO, progress);
    const auto code = cli::runCommand(arguments, service, output, progress, {.search = find});
    // First, so that nobody's long call keeps the rest from ending.
    supervisor.stop();
    return code;
}

cli::ExitCode runAlone(const cli::Arguments& arguments, cli::Progress& progress,
                       platform::Platform& platform) {
    platform.install();
    const auto libraries = tidewell::AppLibraries::load();
    // A command answers for now, not for when the last one ran.
    (void)libraries->refresh();
    host::LocalSession::Options access;
    access.applications = host::AppRegistry::ofPlatform([&] { (void)libraries->refresh(); });
    host::DocumentService service(std::make_unique<host::LocalSession>(
        [&] { return tidewell::makeLocalFileProvider(libraries); }, std::move(access)));
    host::Search search(service, platform.folders().cache + "/search.sqlite");
    cli::Output output(STDOUT_FILENO, progress);
    return cli::runCommand(arguments, service, output, progress,
                           {.search = [&](const std::string& text) { return search.find(text); }});
}

cli::ExitCode run(cli::Arguments arguments) {
    installLog(arguments);
    cli::Progress progress(showsProgress());
    for (;;) {
        auto place = openWaiting(arguments, progress);
        if (!place) return cli::ExitCode::Done;
        if (!*place) {
            // A storage that is missing is a failure, not an item that was not found.
            cli::report(place->error(), {}, arguments.json);
            return cli::ExitCode::Failed;
        }
        if (const auto* own = std::get_if<std::unique_ptr<platform::Platform>>(&**place)) {
            return runAlone(arguments, progress, **own);
        }
        if (const auto* own = std::get_if<std::unique_ptr<host::Supervisor>>(&**place)) {
            return runService(arguments, progress, **own);
        }
        auto& service = std::get<std::unique_ptr<host::ServiceClient>>(**place);
        std::optional<cli::WatchEnd> end;
        const auto code = runAsClient(arguments, progress, std::move(service), end);
        if (!end) return code;
        // Another process serves from now on, perhaps this one.
        arguments.item = std::move(end->container);
        if (end->reached) arguments.since = std::move(end->reached);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that closes its end ends the output, not the process.
    std::signal(SIGPIPE, SIG_IGN);
    // The order of names, and the letters in them, are the user's; numbers stay as they are.
    std::setlocale(LC_COLLATE, "");
    std::setlocale(LC_CTYPE, "");
    const auto parsed = cli::parseArguments(argc, argv);
    if (const auto* arguments = std::get_if<cli::Arguments>(&parsed)) {
        return std::to_underlying(run(*arguments));
    }
    const auto& nothing = std::get<cli::NothingToRun>(parsed);
    if (nothing.error) return std::to_underlying(cli::report(*nothing.error, {}, nothing.json));
    std::fwrite(nothing.help.data(), 1, nothing.help.size(), stdout);
    return 0;
}
