#include "cli/Arguments.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "cli/text.h"
#include "platform/fileprovider/QSFileProviderItem.h"

namespace cli {

namespace {

constexpr const char* itemHelp =
    "An identifier (did=…, fid=…, #…), root, working-set, all-directories, temporary, or a path";

constexpr std::array reservedItems{
    std::pair{std::string_view("root"), platform::QSFileProviderRootContainerItemIdentifier},
    std::pair{std::string_view("working-set"),
              platform::QSFileProviderWorkingSetContainerItemIdentifier},
    std::pair{std::string_view("all-directories"),
              platform::QSFileProviderAllDirectoriesContainerItemIdentifier},
    std::pair{std::string_view("temporary"),
              platform::QSFileProviderTemporaryLocalFolderItemIdentifier},
};

/// For a command line that could not be parsed.
bool asksForJson(int argc, const char* const* argv) {
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        if (std::string_view(argv[i]) == "--json") return true;
    }
    return false;
}

enum class Takes : std::uint8_t { Nothing, AnyItem, OneItem };

/// The parser and where it stores what it finds.
struct Parser {
    Arguments arguments;
    std::string page;
    std::string since;
    std::string trashAge = "30d";
    std::string application;
    std::vector<std::string> words;
    bool byDate = false;
    bool needsItem = true;
    CLI::App app{"Browse the documents of this user as document browsers see them.", "tidewell"};

    Parser() {
        app.require_subcommand(1);
        app.fallthrough();
        app.set_version_flag("--version", "tidewell " TIDEWELL_VERSION);
        app.add_option("--storage", arguments.storage, "The folder that is the document storage")
            ->envname("TIDEWELL_STORAGE");
        app.add_option("--state", arguments.state, "Keep all data and state below this folder")
            ->envname("TIDEWELL_STATE");
        app.add_flag("--accept-replacement", arguments.acceptsReplacement,
                     "Go on with another folder where the storage was before");
        app.add_flag("--json", arguments.json, "Print JSON Lines");
        app.add_flag("-v,--verbose", arguments.verbosity, "Log more; twice: everything");

        auto& list = add(Command::List, "ls", "List a container", Takes::AnyItem);
        list.add_flag("--one-page", arguments.onePage, "Stop after one page");
        auto* from = list.add_option("--page", page, "Begin at the page with this token (base64)");
        list.add_flag("--sort-by-date", byDate, "Sort by modification date, the newest first")
            ->excludes(from);
        add(Command::Tree, "tree", "Draw a folder and all folders below it", Takes::AnyItem);
        add(Command::Stat, "stat", "Print every field of an item", Takes::OneItem);
        add(Command::Resolve, "resolve", "Print the identifier of what is at a path",
            Takes::OneItem);
        add(Command::Path, "path", "Print the path of an item", Takes::OneItem);
        add(Command::Anchor, "anchor", "Print the present position in what happens to a container",
            Takes::OneItem);
        auto& changes =
            add(Command::Changes, "changes", "Print what changed since an anchor", Takes::OneItem);
        changes.add_flag("--one-page", arguments.onePage, "Stop after one page");
        auto& watch = add(Command::Watch, "watch", "Print changes as they happen", Takes::OneItem);
        for (auto* sub : {&changes, &watch}) {
            sub->add_option("--since", since, "Begin at this anchor (base64)");
        }
        auto& serve = add(Command::Serve, "serve", "Serve the other commands until interrupted",
                          Takes::Nothing);
        for (auto* sub : {&watch, &serve}) {
            sub->add_option("--trash-age", trashAge,
                            "Delete what has been in the trash for longer: 30d, or off")
                ->envname("TIDEWELL_TRASH_AGE");
        }
        addMetadataCommands();
        add(Command::Sync, "sync", "Wait until all that happened is known", Takes::Nothing);
        add(Command::Doctor, "doctor", "Tell how the system is", Takes::Nothing);
        addMutation(Command::MakeDirectory, "mkdir", "Make a folder");
        addMutation(Command::Import, "import", "Copy files and folders into a folder");
        addMutation(Command::Rename, "rename", "Give an item another name");
        addMutation(Command::Move, "mv", "Move an item into another folder");
        addMutation(Command::Trash, "trash", "Move items to the trash");
        addMutation(Command::Untrash, "untrash", "Put an item from the trash back");
        addMutation(Command::Remove, "rm", "Delete items for good");
        addMutation(Command::EmptyTrash, "empty-trash", "Delete what was trashed long ago");
        addApps();
        auto& search =
            add(Command::Search, "search", "Find items by words of their names", Takes::Nothing);
        search.add_option("WORD", words, "Words that the name has, or beginnings of them")
            ->option_text(" ")
            ->required();
    }

    void addMutation(Command command, const char* name, const char* help) {
        addMutationOptions(add(command, name, help, Takes::Nothing), arguments.mutation);
    }

    void addApps() {
        using Override = host::Override;
        auto& apps = add(Command::Apps, "apps", "Print the app libraries", Takes::Nothing);
        apps.require_subcommand(0, 1);
        apps.add_flag("--all", arguments.all, "Also installed applications that are not shown");
        const auto addDecision = [&](const char* name, const char* help, Override decision) {
            auto& sub = *apps.add_subcommand(name, help);
            sub.add_option("ID", application, "The identifier of an installed application")
                ->option_text(" ")
                ->required();
            sub.callback([this, decision] { arguments.decision = decision; });
        };
        addDecision("allow", "Show the documents of an application", Override::Allow);
        addDecision("deny", "Show them no longer; they stay on the disk", Override::Deny);
    }

    CLI::App& add(Command command, const char* name, const char* help, Takes takes) {
        auto& sub = *app.add_subcommand(name, help);
        sub.callback([this, command, takes] {
            arguments.command = command;
            needsItem = takes != Takes::Nothing;
        });
        if (takes == Takes::Nothing) return sub;
        const bool needsPath = command == Command::Resolve;
        auto* item = sub.add_option(needsPath ? "PATH" : "ITEM", arguments.item,
                                    needsPath ? "A native path" : itemHelp);
        item->option_text(takes == Takes::OneItem ? " " : "(root)");
        if (takes == Takes::OneItem) item->required();
        return sub;
    }

    void addMetadataCommands() {
        auto& given = arguments.metadata;
        addTagOptions(add(Command::Tag, "tag", "Give an item these tags alone", Takes::OneItem),
                      given);
        addRankOptions(add(Command::Favorite, "favorite", "Give an item a rank", Takes::OneItem),
                       given);
        addDateOptions(add(Command::Used, "used", "Say when an item was used", Takes::OneItem),
                       given);
        add(Command::Cat, "cat", "Write the content of a document", Takes::OneItem);
        addThumbnailOptions(add(Command::Thumbnail, "thumbnail",
                                "Write the thumbnails of items into a folder", Takes::Nothing),
                            given);
    }

    [[nodiscard]] std::optional<platform::QSError> complete() {
        const bool isWide = arguments.item == "working-set" || arguments.item == "all-directories";
        if (arguments.item.empty()) return usageError("an empty item names nothing");
        if (arguments.command == Command::Tree && isWide) {
            return usageError("tree draws folders; list " + arguments.item + " with ls");
        }
        if (!needsItem) arguments.item = application;
        for (const auto& word : words) {
            arguments.item += (arguments.item.empty() ? "" : " ") + word;
        }
        const bool isMetadata = arguments.command == Command::Tag ||
                                arguments.command == Command::Favorite ||
                                arguments.command == Command::Used;
        if (isMetadata && arguments.metadata.hasValue() == arguments.metadata.clear) {
            return usageError("say what the item is to have, or --clear, and not both");
        }
        if (trashAge != "off") {
            arguments.trashAge = parseAge(trashAge);
            if (!arguments.trashAge) return usageError(checkAge(trashAge));
        }
        if (byDate) arguments.start = host::Order::ByDate;
        if (isGiven("ls", "--page")) {
            auto token = dataFromBase64(page);
            if (!token) return usageError("the token of --page is not base64");
            arguments.start = std::move(*token);
        }
        if (isGiven("changes", "--since") || isGiven("watch", "--since")) {
            arguments.since = dataFromBase64(since);
            if (!arguments.since) return usageError("the anchor of --since is not base64");
        }
        return std::nullopt;
    }

    [[nodiscard]] bool isGiven(const char* command, const char* option) const {
        return app.get_subcommand(command)->get_option(option)->count() > 0;
    }
};

}  // namespace

std::variant<Arguments, NothingToRun> parseArguments(int argc, const char* const* argv) {
    Parser parser;
    try {
        parser.app.parse(argc, argv);
    } catch (const CLI::ParseError& stop) {
        if (stop.get_exit_code() != 0) {
            const auto unknown = parser.app.get_subcommands().empty() ? parser.app.remaining()
                                                                      : std::vector<std::string>{};
            const auto message = unknown.empty() ? std::string(stop.what())
                                                 : "there is no command \"" + unknown[0] + "\"";
            return NothingToRun{{}, usageError(message), asksForJson(argc, argv)};
        }
        std::ostringstream help;
        std::ostringstream unused;
        parser.app.exit(stop, help, unused);
        return NothingToRun{help.str(), std::nullopt, false};
    }
    if (auto error = parser.complete()) {
        return NothingToRun{{}, std::move(error), parser.arguments.json};
    }
    return std::move(parser.arguments);
}

namespace {

/// Whether the text is exactly how a number of an identifier is written.
bool isNumber(std::string_view text) {
    std::uint64_t number = 0;
    const auto end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end && std::to_string(number) == text;
}

}  // namespace

platform::Result<ItemName> parseItem(const std::string& argument) {
    for (const auto& [word, identifier] : reservedItems) {
        if (argument == word || argument == identifier) return ItemName{std::string(identifier)};
    }
    const bool isNumbered = argument.starts_with("did=") || argument.starts_with("fid=");
    if (isNumbered && !isNumber(std::string_view(argument).substr(4))) {
        return std::unexpected(
            usageError(argument + " is not an identifier; a file of that name is ./" + argument));
    }
    if (isNumbered || argument.starts_with('#')) return ItemName{argument};
    auto path = absolutePath(argument);
    if (!path) return std::unexpected(std::move(path.error()));
    return ItemName{std::move(*path), true};
}

platform::Result<std::string> absolutePath(const std::string& path) {
    const std::filesystem::path typed(path);
    const auto name = typed.filename();
    const bool isWhole = name.empty() || name == "." || name == "..";
    auto folder = isWhole ? typed : typed.parent_path();
    if (folder.empty() && !path.empty()) folder = ".";
    std::error_code failure;
    const auto real = std::filesystem::canonical(folder, failure);
    if (path.empty()) failure = std::make_error_code(std::errc::no_such_file_or_directory);
    if (failure) return std::unexpected(platform::errorFromErrno(failure.value(), path));
    if (isWhole && path.ends_with('/') && !std::filesystem::is_directory(real)) {
        return std::unexpected(platform::errorFromErrno(ENOTDIR, path));
    }
    return isWhole ? real.string() : (real / name).string();
}

}  // namespace cli
