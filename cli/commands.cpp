#include "cli/commands.h"

#include <fmt/format.h>

#include <cstdio>
#include <iterator>
#include <utility>

#include "cli/Interruption.h"
#include "cli/ItemOrder.h"
#include "cli/changes.h"
#include "cli/format.h"
#include "cli/metadata.h"
#include "cli/mutations.h"
#include "cli/text.h"
#include "cli/thumbnails.h"
#include "host/session/errors.h"

namespace cli {

using platform::Result;

namespace {

/// One run of one command.
class Run {
  public:
    Run(const Arguments& arguments, host::DocumentService& service, Output& output,
        Progress& progress, const Helpers& helpers)
        : arguments_(arguments),
          service_(service),
          output_(output),
          progress_(progress),
          helpers_(helpers) {}

    [[nodiscard]] Result<ExitCode> command() {
        if (arguments_.command == Command::Resolve) return resolve();
        if (arguments_.command == Command::Sync) return sync();
        if (arguments_.command == Command::Doctor) return doctor();
        if (arguments_.command == Command::Serve) return serve();
        if (arguments_.command == Command::Thumbnail) {
            return writeThumbnails(arguments_, service_, output_);
        }
        if (isMutation(arguments_.command)) {
            return runMutation(arguments_, service_, output_, progress_);
        }
        if (arguments_.command == Command::Apps) {
            return printApps(arguments_, service_, output_);
        }
        if (arguments_.command == Command::Search) {
            return printMatches(arguments_, service_, helpers_, output_);
        }
        const auto target = itemTarget();
        if (!target) return std::unexpected(target.error());
        const auto* const identifier = &target->itemIdentifier;
        switch (arguments_.command) {
            case Command::Tree:
                return tree(*identifier);
            case Command::Stat:
                return stat(*target);
            case Command::Path:
                return path(*identifier);
            case Command::Anchor:
                return anchor(*identifier);
            case Command::Changes:
                return printChanges(arguments_, service_, output_, *identifier);
            case Command::Watch:
                return watchChanges(arguments_, service_, output_, progress_, helpers_,
                                    *identifier);
            case Command::Tag:
            case Command::Favorite:
            case Command::Used:
                return setMetadata(arguments_, service_, output_, *target);
            case Command::Cat:
                return writeContent(service_, output_, *target);
            default:
                return list(*identifier);
        }
    }

  private:
    [[nodiscard]] Result<host::ItemTarget> itemTarget() const {
        auto name = parseItem(arguments_.item);
        if (!name) return std::unexpected(std::move(name.error()));
        if (name->isPath) return service_.resolveEntry(name->text);
        return host::ItemTarget(std::move(name->text));
    }

    [[nodiscard]] Result<ExitCode> resolve() {
        const auto path = absolutePath(arguments_.item);
        if (!path) return std::unexpected(path.error());
        const auto identifier = service_.resolve(*path);
        if (!identifier) return std::unexpected(identifier.error());
        return value("itemIdentifier", *identifier);
    }

    [[nodiscard]] Result<ExitCode> path(const std::string& identifier) {
        const auto path = service_.path(identifier);
        if (!path) return std::unexpected(path.error());
        return value("path", *path);
    }

    /// Others are served beside it; it only stays.
    [[nodiscard]] Result<ExitCode> serve() {
        const auto health = service_.session().health();
        if (!health) return std::unexpected(health.error());
        const Interruption interruption;
        auto said = value("serving", health->roots.empty() ? "" : health->roots.front());
        if (!said || !output_.flush()) return said;
        constexpr int nothing = -1;
        (void)interruption.waitFor(nothing, nothing);
        return ExitCode::Done;
    }

    [[nodiscard]] Result<ExitCode> sync() {
        const auto settled = service_.waitUntilSettled();
        if (!settled) return std::unexpected(settled.error());
        return ExitCode::Done;
    }

    /// Waits first, so that what is shown is of a system at work; the reasons why it is not are
    /// shown all the same.
    [[nodiscard]] Result<ExitCode> doctor() {
        const auto settled = service_.waitUntilSettled();
        const auto health = service_.session().health();
        if (!health) return std::unexpected(health.error());
        if (arguments_.json) {
            appendJson(output_.text(), *health);
        } else {
            appendFields(output_.text(), *health, output_.style());
        }
        if (!settled) return std::unexpected(settled.error());
        return health->problems().empty() ? ExitCode::Done : ExitCode::Failed;
    }

    /// Waits first: what happened before the command is not after the anchor.
    [[nodiscard]] Result<ExitCode> anchor(const std::string& container) {
        const auto settled = service_.waitUntilSettled();
        if (!settled) return std::unexpected(settled.error());
        const auto anchor = service_.anchor(container);
        if (!anchor) return std::unexpected(anchor.error());
        return value("anchor", base64(*anchor));
    }

    [[nodiscard]] Result<ExitCode> stat(const host::ItemTarget& target) {
        const auto item = service_.item(target);
        if (!item) return std::unexpected(item.error());
        printItem(arguments_, output_, *item);
        return ExitCode::Done;
    }

    [[nodiscard]] Result<ExitCode> list(const std::string& container) {
        const auto* order = std::get_if<host::Order>(&arguments_.start);
        const auto listed =
            order && !arguments_.onePage ? whole(container, *order) : pages(container);
        if (!listed) return std::unexpected(listed.error());
        return ExitCode::Done;
    }

    /// On a terminal, and where the user asked for an order, in that order; else as it comes.
    [[nodiscard]] Result<void> whole(const std::string& container, host::Order order) {
        const bool byDate = order == host::Order::ByDate;
        if (!byDate && !sortsByName()) {
            return service_.list(container, order, [this](const auto& item) { return row(item); });
        }
        std::vector<host::ItemRecord> items;
        auto listed = service_.list(container, order, [&](const auto& item) {
            items.push_back(item);
            noteProgress(items.size());
            return true;
        });
        byDate ? sortByDate(items) : sortByName(items);
        for (const auto& item : items) {
            if (!row(item)) break;
        }
        return listed;
    }

    [[nodiscard]] bool sortsByName() const {
        return output_.style().isTerminal && !arguments_.json;
    }

    /// From one page on: here a refusal is the user's to know, not a reason to start again.
    [[nodiscard]] Result<void> pages(const std::string& container) {
        for (auto start = arguments_.start;;) {
            auto page = service_.session().page(container, start);
            for (const auto& item : page.items) {
                if (!row(item)) return {};
            }
            if (!page.next) return std::unexpected(std::move(page.next.error()));
            if (arguments_.onePage) {
                nextPage(*page.next);
                return {};
            }
            if (!*page.next) return {};
            start = std::move(**page.next);
        }
    }

    void nextPage(const std::optional<host::PageToken>& token) {
        const auto out = std::back_inserter(output_.text());
        if (arguments_.json) {
            fmt::format_to(out, "{{\"nextPage\":{}}}\n",
                           token ? "\"" + base64(*token) + "\"" : "null");
        } else if (token) {
            fmt::format_to(out, "next page: {}\n", base64(*token));
        }
    }

    [[nodiscard]] Result<ExitCode> tree(const std::string& container) {
        const auto top = service_.item(container);
        if (!top) return std::unexpected(top.error());
        if (!arguments_.json) {
            output_.text() += shown(top->path.value_or(top->filename), output_.style()) + "\n";
        }
        ExitCode code = ExitCode::Done;
        const host::DocumentService::TreeHandler handler{
            [this](const host::ItemRecord& item, std::size_t depth, bool isLast) {
                return arguments_.json ? row(item) : branch(item, depth, isLast);
            },
            [&](const host::ItemRecord& folder, const platform::QSError& error) {
                progress_.end();
                code = report(error, folder.path.value_or(folder.filename), arguments_.json);
            },
            [this](auto& items) {
                if (sortsByName()) sortByName(items);
            }};
        const auto listed = service_.listTree(container, handler);
        if (!listed) return std::unexpected(listed.error());
        if (!arguments_.json) {
            fmt::format_to(std::back_inserter(output_.text()), "\n{} folder{}, {} other item{}\n",
                           folders_, folders_ == 1 ? "" : "s", count_ - folders_,
                           count_ - folders_ == 1 ? "" : "s");
        }
        return code;
    }

    [[nodiscard]] bool branch(const host::ItemRecord& item, std::size_t depth, bool isLast) {
        auto& out = output_.text();
        wasLast_.resize(depth);
        for (const bool last : wasLast_) out += last ? "    " : "│   ";
        out += isLast ? "└── " : "├── ";
        wasLast_.push_back(isLast);
        appendName(out, item, output_.style());
        out += '\n';
        return counted(item);
    }

    [[nodiscard]] bool row(const host::ItemRecord& item) {
        if (arguments_.json) {
            appendJson(output_.text(), item);
        } else {
            appendRow(output_.text(), item, output_.style());
        }
        return counted(item);
    }

    [[nodiscard]] bool counted(const host::ItemRecord& item) {
        if (item.isFolder()) ++folders_;
        noteProgress(++count_);
        return output_.pace();
    }

    void noteProgress(std::uint64_t items) {
        if (items % 200 == 0) progress_.update(fmt::format("{} items listed", items));
    }

    [[nodiscard]] Result<ExitCode> value(std::string_view key, const std::string& text) {
        auto& out = output_.text();
        if (arguments_.json) {
            fmt::format_to(std::back_inserter(out), "{{\"{}\":", key);
            appendJsonString(out, text);
            out += "}\n";
        } else {
            out += shown(text, output_.style()) + "\n";
        }
        return ExitCode::Done;
    }

    const Arguments& arguments_;
    host::DocumentService& service_;
    Output& output_;
    Progress& progress_;
    const Helpers& helpers_;
    std::uint64_t count_ = 0;
    std::uint64_t folders_ = 0;
    std::vector<bool> wasLast_;  // per level of the tree on the way to the current item
};

}  // namespace

ExitCode report(const platform::QSError& error, std::string_view subject, bool json) {
    const auto line = errorLine(error, subject, json);
    std::fwrite(line.data(), 1, line.size(), stderr);
    return exitCodeFor(error);
}

ExitCode runCommand(const Arguments& arguments, host::DocumentService& service, Output& output,
                    Progress& progress, const Helpers& helpers) {
    auto code = Run(arguments, service, output, progress, helpers).command();
    const auto written = output.finish();
    progress.end();
    if (!code) return report(code.error(), arguments.item, arguments.json);
    if (!written) return report(written.error(), {}, arguments.json);
    return *code;
}

}  // namespace cli
