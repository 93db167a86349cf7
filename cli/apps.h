#pragma once

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "host/documents/Apps.h"
#include "host/documents/Search.h"

namespace cli {

/// What commands use besides the document service.
struct Helpers {
    host::Search* search = nullptr;  ///< must outlive the command
};

/// The app libraries, with `--all` the other installed applications too; or what was decided about
/// one of them.
[[nodiscard]] platform::Result<ExitCode> printApps(const Arguments& arguments,
                                                   host::DocumentService& service, Output& output);

/// The items whose names match the words, each as `ls` would print it but with its path.
[[nodiscard]] platform::Result<ExitCode> printMatches(const Arguments& arguments,
                                                      const Helpers& helpers, Output& output);

}  // namespace cli
