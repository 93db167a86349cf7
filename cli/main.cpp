#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "cli/Arguments.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/StorageWait.h"
#include "cli/apps.h"
#include "cli/commands.h"
#include "host/documents/DocumentService.h"
#include "host/local/LocalSession.h"
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

platform::Platform::Options platformOptions(const cli::Arguments& arguments,
                                            cli::Progress& progress) {
    platform::Platform::Options options;
    options.folders.storage =
        arguments.storage.empty() ? platform::userDocumentsFolder() : arguments.storage;
    if (!arguments.state.empty()) {
        options.folders.data = arguments.state + "/data";
        options.folders.state = arguments.state + "/state";
        options.folders.cache = arguments.state + "/cache";
        options.folders.config = arguments.state + "/config";
        options.folders.applicationSupport = arguments.state + "/application-support";
    }
    options.acceptsReplacement = arguments.acceptsReplacement;
    // One command reads little of the storage; a look-up that needs the whole index waits for it.
    options.followsAtStart = false;
    options.scanProgress = [&progress](std::uint64_t objects) {
        progress.update(std::to_string(objects) + " objects indexed");
    };
    return options;
}

cli::ExitCode run(const cli::Arguments& arguments) {
    installLog(arguments);
    cli::Progress progress(showsProgress());
    auto platform = platform::Platform::make(platformOptions(arguments, progress));
    const auto isMissing = [&] {
        return !platform && platform::Platform::meansStorageMissing(platform.error());
    };
    // What stays goes on when the storage is back.
    if (isMissing() && arguments.command == cli::Command::Watch) {
        cli::report(platform.error(), {}, arguments.json);
        const bool isBack = cli::waitForStorage([&] {
            platform = platform::Platform::make(platformOptions(arguments, progress));
            return !isMissing();
        });
        if (!isBack) return cli::ExitCode::Done;
    }
    if (!platform) {
        // A storage that is missing is a failure, not an item that was not found.
        cli::report(platform.error(), {}, arguments.json);
        return cli::ExitCode::Failed;
    }
    (*platform)->install();
    if (arguments.command == cli::Command::Watch) (*platform)->workspace().follow();
    const auto libraries = tidewell::AppLibraries::load();
    // A command answers for now, not for when the last one ran.
    (void)libraries->refresh();
    host::DocumentService::Options options;
    // Only a service that stays looks after the trash.
    if (arguments.command == cli::Command::Watch) options.trashAge = arguments.trashAge;
    host::LocalSession::Options access;
    access.applications = host::AppRegistry::ofPlatform([&] { (void)libraries->refresh(); });
    host::DocumentService service(
        std::make_unique<host::LocalSession>(
            [&] { return tidewell::makeLocalFileProvider(libraries); }, std::move(access)),
        std::move(options));
    host::Search search(service, (*platform)->folders().cache + "/search.sqlite");
    cli::Output output(STDOUT_FILENO, progress);
    return cli::runCommand(arguments, service, output, progress, {&search});
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
