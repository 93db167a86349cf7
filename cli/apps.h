#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "host/documents/Apps.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// Where a watch ended because the service of another process did.
struct WatchEnd {
    std::string container;                ///< the identifier
    std::optional<host::Anchor> reached;  ///< none: it had not begun
};

/// What commands use besides the document service.
struct Helpers {
    /// The identifiers of the items whose names match; see host::Search.
    std::function<platform::Result<std::vector<std::string>>(const std::string& text)> search = {};
    /// Receives the end of a watch, which is no failure then; null: it is one.
    std::optional<WatchEnd>* watchEnd = nullptr;
};

/// The app libraries, with `--all` the other installed applications too; or what was decided about
/// one of them.
[[nodiscard]] platform::Result<ExitCode> printApps(const Arguments& arguments,
                                                   host::DocumentService& service, Output& output);

/// The items whose names match the words, each as `ls` would print it but with its path.
[[nodiscard]] platform::Result<ExitCode> printMatches(const Arguments& arguments,
                                                      const host::DocumentService& service,
                                                      const Helpers& helpers, Output& output);

}  // namespace cli
