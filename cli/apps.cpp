#include "cli/apps.h"

#include <fmt/format.h>

#include <iterator>

#include "cli/format.h"
#include "cli/text.h"
#include "host/session/errors.h"

namespace cli {

using platform::Result;

namespace {

void appendJson(std::string& out, const host::AppRecord& app) {
    const auto text = [&](std::string_view key, const std::optional<std::string>& value) {
        fmt::format_to(std::back_inserter(out), ",\"{}\":", key);
        if (value) {
            appendJsonString(out, *value);
        } else {
            out += "null";
        }
    };
    out += "{\"bundleIdentifier\":";
    appendJsonString(out, app.bundleIdentifier);
    text("name", app.name);
    fmt::format_to(std::back_inserter(out), ",\"isShown\":{}", app.isShown);
    text("root", app.root);
    out += ",\"childItemCount\":";
    out += app.childItemCount ? std::to_string(*app.childItemCount) : "null";
    text("reason", app.isShown ? std::nullopt : std::optional(app.reason));
    out += "}\n";
}

void appendRow(std::string& out, const host::AppRecord& app, const Style& style) {
    const auto count = app.childItemCount ? fmt::format("{} item{}", *app.childItemCount,
                                                        *app.childItemCount == 1 ? "" : "s")
                                          : std::string("-");
    fmt::format_to(std::back_inserter(out), "{:>11}  {}  {}  {}\n", count,
                   shown(app.bundleIdentifier, style), shown(app.name, style),
                   app.isShown ? shown(app.root.value_or("-"), style)
                               : fmt::format("(not shown: {})", shown(app.reason, style)));
}

bool print(const host::AppRecord& app, bool json, Output& output) {
    if (json) {
        appendJson(output.text(), app);
    } else {
        appendRow(output.text(), app, output.style());
    }
    return output.pace();
}

}  // namespace

Result<ExitCode> printApps(const Arguments& arguments, host::DocumentService& service,
                           Output& output) {
    host::Apps apps(service);
    if (arguments.decision) {
        const auto app = apps.decide(arguments.item, *arguments.decision);
        if (!app) return std::unexpected(app.error());
        print(*app, arguments.json, output);
        // The user's decision is kept all the same.
        const bool isWanted = *arguments.decision == host::Override::Allow;
        return app->isShown == isWanted ? ExitCode::Done : ExitCode::Failed;
    }
    const auto all = apps.list(arguments.all);
    if (!all) return std::unexpected(all.error());
    for (const auto& app : *all) {
        if (!print(app, arguments.json, output)) break;
    }
    return ExitCode::Done;
}

Result<ExitCode> printMatches(const Arguments& arguments, const host::DocumentService& service,
                              const Helpers& helpers, Output& output) {
    const auto found = helpers.search(arguments.item);
    if (!found) return std::unexpected(found.error());
    for (const auto& identifier : *found) {
        const auto item = service.item(identifier);
        if (!item && host::meansNoSuchItem(item.error())) continue;  // removed since
        if (!item) return std::unexpected(item.error());
        if (arguments.json) {
            cli::appendJson(output.text(), *item);
        } else {
            auto row = *item;
            row.filename = item->path.value_or(item->filename);
            cli::appendRow(output.text(), row, output.style());
        }
        if (!output.pace()) break;
    }
    return ExitCode::Done;
}

}  // namespace cli
