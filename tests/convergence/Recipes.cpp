#include "tests/convergence/Recipes.h"

#include <array>

namespace tests {

namespace {

/// Few names, so that what happens collides. "b" is a file as often as a folder.
std::string randomName(Random& random, bool isFolder) {
    constexpr std::array<const char*, 8> ofFolders{"a", "a", "a", "b", "b", "b", ".d", "e.lutebox"};
    constexpr std::array<const char*, 8> ofFiles{"c.txt", "c.txt", "c.txt", "b",
                                                 "b",     "a",     ".d",    "e.lutebox"};
    return (isFolder ? ofFolders : ofFiles)[below(random, 8)];
}

std::string randomPath(Random& random, bool isFolder) {
    std::string path = "s/";
    for (auto depth = below(random, 3); depth > 0; --depth) path += randomName(random, true) + "/";
    return path + randomName(random, isFolder);
}

/// Places outside the tree and in its trash too.
std::string randomTarget(Random& random, bool isFolder) {
    const auto kind = below(random, 12);
    if (kind > 1) return randomPath(random, isFolder);
    return (kind == 0 ? "out/" : "s/.Trash/") + randomName(random, isFolder);
}

/// Anything but a save.
std::string randomCalls(Random& random, const std::string& file) {
    // F is the file, D a folder; X and Y are places for either.
    constexpr std::array<std::string_view, 20> patterns{"excl F|put|close",
                                                        "excl F|put|close",
                                                        "excl F|put|close",
                                                        "open F|put|close",
                                                        "append F|put|put|close",
                                                        "map F",
                                                        "mkdir D",
                                                        "mkdir D",
                                                        "mkdir D|excl D/c.txt|put|close",
                                                        "rm F",
                                                        "rmdir D",
                                                        "rmtree D",
                                                        "mv X Y",
                                                        "mv X Y",
                                                        "mv X Y",
                                                        "mv X Y",
                                                        "swap X Y",
                                                        "ln F X",
                                                        "sym F",
                                                        "chmod D|attr F"};
    const auto folder = randomPath(random, true);
    const bool isFolder = below(random, 2) == 0;
    std::string text;
    for (const char c : patterns[below(random, patterns.size())]) {
        if (c == 'F') {
            text += file;
        } else if (c == 'D') {
            text += folder;
        } else if (c == 'X' || c == 'Y') {
            text += randomTarget(random, isFolder);
        } else {
            text += c;
        }
    }
    return text;
}

}  // namespace

std::string Recipe::on(const std::string& document) const {
    const auto slash = document.rfind('/') + 1;
    std::string text;
    for (const char c : script) {
        if (c == '@') {
            text += document.substr(0, slash);
        } else if (c == '%') {
            text += document.substr(slash);
        } else {
            text += c;
        }
    }
    return text;
}

const std::vector<Recipe>& recipes() {
    static const std::vector<Recipe> all{
        {"vim", true,
         "excl @.%.swx|close|rm @.%.swx|excl @.%.swp|put|excl @4913|mode|close|rm @4913|?rm @%~|"
         "mv @% @%~|new @%|put|sync|mode|close|rm @%~|rm @.%.swp"},
        {"vim with backup", true,
         "excl @.%.swp|put|close|excl @4913|close|rm @4913|?rm @%~|mv @% @%~|new @%|put|sync|mode|"
         "close|rm @.%.swp"},
        {"vim in place", false,
         "?rm @%~|excl @%~|put|close|open @%|cut|put|sync|mode|close|rm @%~"},
        {"neovim", true,
         "excl @4913|close|rm @4913|?rm @%~|mv @% @%~|new @%|put|close|chmod @%|rm @%~"},
        {"emacs, first save", true, "sym @.#%|mv @% @%~|new @%|put|close|rm @.#%|chmod @%"},
        {"emacs, later saves", false, "sym @.#%|trunc @%|put|close|rm @.#%"},
        {"emacs, precious", true,
         "?rm @%~|excl @%~|put|close|excl @tmpaB3xYz|put|close|mv @tmpaB3xYz @%|chmod @%|rm @%~"},
        {"office suite", true,
         "excl @.~lock.%#|put|close|excl @lu88x1.tmp|put|sync|close|?excl @%|mv @lu88x1.tmp @%|"
         "chmod @%|open @%|close|open @%|close|rm @.~lock.%#"},
        {"GIO", true,
         "open @%|close|excl @.goutputstream-A1B2C3|mode|put|sync|close|"
         "mv @.goutputstream-A1B2C3 @%"},
        {"GIO with backup", true,
         "open @%|close|excl @.goutputstream-D4E5F6|mode|put|sync|close|?rm @%~|ln @% @%~|"
         "mv @.goutputstream-D4E5F6 @%"},
        {"file set contents", true, "excl @%.X1Y2Z3|put|sync|close|mv @%.X1Y2Z3 @%"},
        {"unnamed file", true,
         "tmpfile @|mode|put|sync|?name @%|name @%.Qa1b2c|close|mv @%.Qa1b2c @%"},
        {"truncated in place", false, "new @%|put|sync|close"},
        {"overwritten", false, "open @%|cut|put|close"},
        {"stream editor", true, "excl @sedK9x2Lq|put|mode|close|mv @sedK9x2Lq @%"},
        {"stream editor with backup", true,
         "excl @sedM3v7Rw|put|close|mv @% @%.bak|mv @sedM3v7Rw @%"},
        {"removed and made again", true, "rm @%|excl @%|put|close"},
        {"office suite on a share", true, "excl @w1|put|close|mv @% @w2|mv @w1 @%|rm @w2"},
        {"exchanged", true, "excl @n1|put|close|swap @n1 @%|rm @n1"},
        {"database", false, "excl @%-journal|put|close|open @%|put|sync|close|rm @%-journal"},
    };
    return all;
}

bool isBackupName(std::string_view name) {
    for (const std::string_view end : {"~", ".bak", ".orig"}) {
        if (name.ends_with(end)) return true;
    }
    return false;
}

Operation linkingOperation(Random& random) {
    const auto file = randomPath(random, false);
    std::string script = "?excl " + file + "|?put|?close|";
    for (auto names = below(random, 3) + 1; names > 0; --names) {
        const auto other = randomTarget(random, false);
        script += below(random, 3) == 0 ? "?rm " + other + "|" : "?ln " + file + " " + other + "|";
    }
    return {script};
}

Operation randomOperation(Random& random) {
    const auto file = randomPath(random, false);
    // Half of the time the folders above are made where they are missing.
    std::string script;
    for (auto slash = file.find('/', 2); slash != file.npos && file.size() % 2 == 0;
         slash = file.find('/', slash + 1)) {
        script += "?mkdir " + file.substr(0, slash) + "|";
    }
    if (below(random, 5) > 0) return {script + randomCalls(random, file)};
    const auto& recipe = recipes()[below(random, recipes().size())];
    // The document is there more often than not.
    if (below(random, 2) == 0) script += "?excl " + file + "|?close|";
    return {script + recipe.on(file), &recipe, file};
}

}  // namespace tests
