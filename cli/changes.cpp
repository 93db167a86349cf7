#include "cli/changes.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "cli/Interruption.h"
#include "cli/StorageWait.h"
#include "cli/commands.h"
#include "cli/format.h"
#include "cli/text.h"
#include "host/session/errors.h"

namespace cli {

using platform::Result;

namespace {

void appendPage(Output& output, const host::ChangePage& page, bool json) {
    auto& out = output.text();
    for (const auto& item : page.updates) {
        json ? appendJsonUpdate(out, item) : appendUpdate(out, item, output.style());
    }
    for (const auto& identifier : page.deletions) {
        if (!json) {
            appendDeletion(out, identifier, output.style());
            continue;
        }
        out += "{\"delete\":";
        appendJsonString(out, identifier);
        out += "}\n";
    }
}

void appendAnchor(Output& output, const host::Anchor& anchor, bool moreComing, bool json) {
    const auto out = std::back_inserter(output.text());
    if (json) {
        fmt::format_to(out, "{{\"anchor\":\"{}\",\"moreComing\":{}}}\n", base64(anchor),
                       moreComing);
    } else {
        fmt::format_to(out, "anchor: {}{}\n", base64(anchor), moreComing ? " (more to come)" : "");
    }
}

Result<host::Anchor> startingAnchor(const Arguments& arguments,
                                    const host::DocumentService& service,
                                    const std::string& container) {
    if (arguments.since) return *arguments.since;
    return service.anchor(container);
}

bool isStorageMissing(const host::DocumentService& service) {
    (void)service.waitUntilSettled();  // looks
    const auto health = service.session().health();
    return health && health->storageTrouble.has_value();
}

/// False where the wait was interrupted.
bool waitUntilStorageIsBack(const host::DocumentService& service, platform::QSError error,
                            bool json) {
    error.userInfo.insert_or_assign(std::string(platform::QSDescriptionErrorKey),
                                    "the storage is missing, and is waited for");
    report(error, {}, json);
    return waitForStorage([&] { return !isStorageMissing(service); });
}

/// `known` is the last anchor that was reported.
Result<ExitCode> follow(const Arguments& arguments, host::DocumentService& service, Output& output,
                        Progress& progress, const std::string& container,
                        std::optional<host::Anchor>& known) {
    const auto settled = service.waitUntilSettled();
    if (!settled) return std::unexpected(settled.error());
    progress.end();
    const Interruption interruption;
    const auto following = service.session().follow(container);
    if (!following) return std::unexpected(following.error());
    auto reached = startingAnchor(arguments, service, container);
    bool printsAnchor = true;  // the first anchor says that the watch has begun
    bool hasFailed = false;    // at this anchor
    while (reached) {
        known = *reached;
        bool moreComing = false;
        auto next = service.changes(**following, *reached, [&](const host::ChangePage& page) {
            moreComing = page.moreComing;
            printsAnchor = printsAnchor || !page.updates.empty() || !page.deletions.empty();
            appendPage(output, page, arguments.json);
            known = page.anchor;
            return output.flush() && !interruption.hasCome();
        });
        if (!next) {
            const bool isMissing = isStorageMissing(service);
            if (isMissing && !waitUntilStorageIsBack(service, next.error(), arguments.json)) {
                return ExitCode::Done;
            }
            // Where it is there, it may have come back just now.
            if (isMissing || !std::exchange(hasFailed, true)) continue;
        }
        hasFailed = false;
        reached = std::move(next);
        if (!reached) break;
        if (arguments.json && printsAnchor) appendAnchor(output, *reached, moreComing, true);
        printsAnchor = false;
        if (!output.flush()) return ExitCode::Done;
        do {
            if (!interruption.waitFor((*following)->descriptor(), output.descriptor())) {
                return ExitCode::Done;
            }
        } while (!(*following)->wait(std::chrono::milliseconds(0)));
    }
    return std::unexpected(reached.error());
}

}  // namespace

Result<ExitCode> printChanges(const Arguments& arguments, const host::DocumentService& service,
                              Output& output, const std::string& container) {
    // Before the wait, which finds what happened while nobody looked.
    const auto since = startingAnchor(arguments, service, container);
    if (!since) return std::unexpected(since.error());
    const auto settled = service.waitUntilSettled();
    if (!settled) return std::unexpected(settled.error());
    bool moreComing = false;
    const auto reached = service.changes(container, *since, [&](const host::ChangePage& page) {
        moreComing = page.moreComing;
        appendPage(output, page, arguments.json);
        return output.pace() && !arguments.onePage;
    });
    if (!reached) return std::unexpected(reached.error());
    appendAnchor(output, *reached, moreComing, arguments.json);
    return ExitCode::Done;
}

Result<ExitCode> watchChanges(const Arguments& arguments, host::DocumentService& service,
                              Output& output, Progress& progress, const Helpers& helpers,
                              const std::string& container) {
    auto known = arguments.since;
    auto ended = follow(arguments, service, output, progress, container, known);
    if (ended || !helpers.watchEnd || !host::meansServiceEnded(ended.error())) return ended;
    *helpers.watchEnd = WatchEnd{container, std::move(known)};
    return ExitCode::Done;
}

}  // namespace cli
