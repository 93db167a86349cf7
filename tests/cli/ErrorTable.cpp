#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/ExitCode.h"
#include "platform/fileprovider/QSFileProviderError.h"

namespace {

/// The cells of one row of a Markdown table, trimmed; none for any other line.
std::vector<std::string> cells(const std::string& line) {
    std::vector<std::string> found;
    if (!line.starts_with("| ")) return found;
    std::istringstream rest(line.substr(1));
    for (std::string cell; std::getline(rest, cell, '|');) {
        const auto first = cell.find_first_not_of(' ');
        const auto last = cell.find_last_not_of(' ');
        found.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return found;
}

TEST(ErrorTable, EveryErrorEndsTheCommandWithTheExitCodeThatTheManualPromises) {
    std::ifstream text(ERRORS_PAGE);
    ASSERT_TRUE(text) << ERRORS_PAGE;
    std::set<std::pair<std::string, std::int64_t>> known;
    for (std::string line; std::getline(text, line);) {
        const auto row = cells(line);
        if (row.size() != 5 || row[0] == "Domain") continue;
        const bool isAnyErrno = row[1].starts_with("any other errno");
        const platform::QSError error{row[0], isAnyErrno ? EIO : std::stoll(row[1])};
        EXPECT_EQ(std::to_string(static_cast<int>(cli::exitCodeFor(error))), row[4]) << line;
        EXPECT_TRUE(known.emplace(error.domain, error.code).second) << "twice: " << line;
    }
    for (const auto& raised :
         {platform::syncAnchorExpiredError(), cli::usageError("x"),
          platform::fileProviderErrorForNonExistentItemWithIdentifier("x"),
          platform::QPItemNotFoundError("x"), platform::QPInvalidParameterError("x", "y"),
          platform::errorFromErrno(ENOENT), platform::errorFromErrno(EIO)}) {
        EXPECT_TRUE(known.contains({raised.domain, raised.code})) << raised.description();
    }
}

}  // namespace
