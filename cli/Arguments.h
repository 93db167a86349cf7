#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "cli/ExitCode.h"
#include "cli/MetadataArguments.h"
#include "cli/MutationArguments.h"
#include "host/documents/Apps.h"
#include "host/session/Page.h"

namespace cli {

enum class Command : std::uint8_t {
    List,
    Tree,
    Stat,
    Resolve,
    Path,
    Anchor,
    Changes,
    Watch,
    Tag,
    Favorite,
    Used,
    Thumbnail,
    Cat,
    Sync,
    Serve,
    Doctor,
    MakeDirectory,
    Import,
    Rename,
    Move,
    Trash,
    Untrash,
    Remove,
    EmptyTrash,
    Apps,
    Search
};

/// The command line and the environment, understood.
struct Arguments {
    std::string storage;              ///< empty: the user's documents folder
    bool acceptsReplacement = false;  ///< of the storage that was there before
    std::string state;                ///< empty: the XDG folders
    bool json = false;
    int verbosity = 0;
    Command command = Command::List;
    /// As typed: an identifier, a word or a path, or words to search for; empty for a command that
    /// takes none.
    std::string item = "root";
    bool onePage = false;
    host::PageStart start = host::Order::ByName;
    std::optional<host::Anchor> since;
    MutationArguments mutation;
    /// How long `watch` and `serve` keep what is in the trash; for ever where it is none.
    std::optional<std::chrono::seconds> trashAge;
    MetadataArguments metadata;
    bool all = false;
    std::optional<host::Override> decision;  ///< about the application `item`
};

/// There is nothing to run: help was asked for, or the command line is wrong.
struct NothingToRun {
    std::string help;  ///< for standard output
    std::optional<platform::QSError> error;
    bool json = false;  ///< whether the error goes out as JSON
};

[[nodiscard]] std::variant<Arguments, NothingToRun> parseArguments(int argc,
                                                                   const char* const* argv);

/// What an ITEM argument names.
struct ItemName {
    std::string text;     ///< an identifier, or an absolute native path
    bool isPath = false;  ///< to be resolved to an identifier by the service
};

/// An identifier ("did=…", "fid=…", "#…", a reserved one), one of the four words, or a path, which
/// becomes absolute: links on its way are followed, a final one only where "/" follows it. Blocks
/// for the file system; fails with its error.
[[nodiscard]] platform::Result<ItemName> parseItem(const std::string& argument);

/// The path part of parseItem alone.
[[nodiscard]] platform::Result<std::string> absolutePath(const std::string& path);

}  // namespace cli
