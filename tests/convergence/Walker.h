#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/convergence/Actor.h"

namespace tests {

/// One name of one object, as an independent walk found it.
struct WalkedRow {
    std::string path;  ///< below the base folder
    std::string place;
    ObjectKey object;
    char kind = 'f';            ///< d(irectory), p(ackage), f(ile), l(ink)
    std::uint64_t size = 0;     ///< of files and links, and of all files in a package
    std::int64_t modified = 0;  ///< ns since 1970
    std::uint64_t links = 1;    ///< names of a file
    std::uint64_t entries = 0;  ///< of folders
    bool hasAttribute = false;
    bool isShown = true;  ///< not hidden, in a package or in the trash
};

/// What is below "s" in the base folder, while nobody works on it; the folder itself comes first.
/// The documents of the applications, below "l" on disk, follow as "s/" and the application's name.
/// Shares no code with the product.
[[nodiscard]] std::vector<WalkedRow> walk(const std::string& base, const std::string& attribute,
                                          const std::set<std::string>& applications = {});

}  // namespace tests
