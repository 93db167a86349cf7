#include "cli/mutations.h"

#include <fmt/format.h>

#include <utility>

#include "cli/Interruption.h"
#include "cli/commands.h"
#include "cli/format.h"
#include "cli/text.h"
#include "host/session/errors.h"

namespace cli {

using host::ItemRecord;
using platform::Result;

namespace {

/// One run of one command.
class Run {
  public:
    Run(const Arguments& arguments, host::DocumentService& service, Output& output,
        Progress& progress)
        : arguments_(arguments),
          given_(arguments.mutation),
          service_(service),
          output_(output),
          progress_(progress) {}

    [[nodiscard]] Result<ExitCode> command() {
        if (arguments_.command == Command::EmptyTrash) return emptyTrash();
        if (given_.to) {
            auto to = identifierOf(*given_.to);
            if (!to) return std::unexpected(std::move(to.error()));
            folder_ = std::move(*to);
        }
        if (arguments_.command == Command::MakeDirectory) {
            return print(service_.mutations().makeDirectory(*given_.name, folder_), *given_.name);
        }
        auto code = ExitCode::Done;
        for (const auto& item : given_.items) {
            const auto done = print(change(item), item);
            if (code == ExitCode::Done) code = done;
            if (interruption_.hasCome()) break;
        }
        return code;
    }

  private:
    [[nodiscard]] Result<std::string> identifierOf(const std::string& item) const {
        auto name = parseItem(item);
        if (!name) return std::unexpected(std::move(name.error()));
        return name->isPath ? service_.resolve(name->text) : std::move(name->text);
    }

    /// A path means the name that it ends with.
    [[nodiscard]] Result<host::ItemTarget> targetOf(const std::string& item) const {
        auto name = parseItem(item);
        if (!name) return std::unexpected(std::move(name.error()));
        if (name->isPath) return service_.resolveEntry(name->text);
        return host::ItemTarget(std::move(name->text));
    }

    [[nodiscard]] host::Mutations::ProgressHandler drawn(std::string_view verb) {
        return [this, verb](const host::Mutations::Progress& reached) {
            auto text = fmt::format("{} items {}", reached.items, verb);
            if (reached.bytes > 0) text += ", " + humanSize(reached.bytes);
            if (reached.items > 0 || reached.bytes > 0) progress_.update(text);
            return !interruption_.hasCome();
        };
    }

    [[nodiscard]] Result<ItemRecord> change(const std::string& item) {
        const auto& mutations = service_.mutations();
        if (arguments_.command == Command::Import) {
            const auto path = absolutePath(item);
            if (!path) return std::unexpected(path.error());
            return mutations.import(*path, folder_, drawn("copied"));
        }
        const auto target = targetOf(item);
        if (!target) return std::unexpected(target.error());
        switch (arguments_.command) {
            case Command::Rename:
                return mutations.rename(*target, *given_.name);
            case Command::Move:
                return mutations.move(*target, folder_, given_.name, drawn("copied"));
            case Command::Trash:
                return mutations.trash(*target, drawn("copied"));
            case Command::Untrash:
                return mutations.untrash(*target, given_.to ? std::optional(folder_) : std::nullopt,
                                         drawn("copied"));
            default:
                return remove(*target);
        }
    }

    [[nodiscard]] Result<ItemRecord> remove(const host::ItemTarget& target) {
        auto item = service_.item(target);  // as it was
        const auto removed = service_.mutations().remove(target, drawn("deleted"));
        if (!removed) return std::unexpected(removed.error());
        return item;
    }

    [[nodiscard]] Result<ExitCode> emptyTrash() {
        const auto limit = service_.session().limitForAge(given_.age);
        if (!limit) return std::unexpected(limit.error());
        const auto date = limit->wall;
        if (limit->clocksDiffer && !given_.isDryRun && !given_.isForced) {
            auto error = platform::errorFromErrno(EPERM);
            error.userInfo.emplace(
                platform::QSDescriptionErrorKey,
                "the clock was set within that time, or the machine was off for long, so nobody "
                "knows what is that old; look with --dry-run, and give --force to go by the dates");
            return std::unexpected(std::move(error));
        }
        const auto items = service_.mutations().trashedBefore(date);
        if (!items) return std::unexpected(items.error());
        if (!given_.isDryRun) {
            const auto done = service_.mutations().emptyTrash(date);
            if (!done) return std::unexpected(done.error());
        }
        auto code = ExitCode::Done;
        for (const auto& item : *items) {
            const host::ItemTarget entry(item.itemIdentifier,
                                         {item.parentItemIdentifier, item.filename});
            if (given_.isDryRun || isRemoved(entry)) {
                printRow(item);
                continue;
            }
            auto error = platform::errorFromErrno(EIO, item.path.value_or(item.filename));
            error.userInfo.emplace(platform::QSDescriptionErrorKey,
                                   "it could not be deleted; the log says why");
            code = report(error, item.filename, arguments_.json);
        }
        return code;
    }

    [[nodiscard]] bool isRemoved(const host::ItemTarget& entry) {
        const auto found = service_.item(entry);
        return !found && host::meansNoSuchItem(found.error());
    }

    void printRow(const ItemRecord& item) {
        if (arguments_.json) {
            appendJson(output_.text(), item);
        } else {
            appendRow(output_.text(), item, output_.style());
        }
        (void)output_.pace();
    }

    [[nodiscard]] ExitCode print(const Result<ItemRecord>& item, std::string_view subject) {
        if (!item) {
            progress_.end();
            const bool isOfFolder =
                given_.to && item.error().domain == platform::QSMochaErrorDomain;
            return report(item.error(), isOfFolder ? *given_.to : subject, arguments_.json);
        }
        const bool isOneOnly = arguments_.command != Command::Import &&
                               arguments_.command != Command::Trash &&
                               arguments_.command != Command::Remove;
        if (isOneOnly && !arguments_.json) {
            appendFields(output_.text(), *item, output_.style());
        } else {
            printRow(*item);
        }
        return ExitCode::Done;
    }

    const Arguments& arguments_;
    const MutationArguments& given_;
    host::DocumentService& service_;
    Output& output_;
    Progress& progress_;
    Interruption interruption_;
    std::string folder_;
};

}  // namespace

bool isMutation(Command command) {
    switch (command) {
        case Command::MakeDirectory:
        case Command::Import:
        case Command::Rename:
        case Command::Move:
        case Command::Trash:
        case Command::Untrash:
        case Command::Remove:
        case Command::EmptyTrash:
            return true;
        default:
            return false;
    }
}

Result<ExitCode> runMutation(const Arguments& arguments, host::DocumentService& service,
                             Output& output, Progress& progress) {
    return Run(arguments, service, output, progress).command();
}

}  // namespace cli
