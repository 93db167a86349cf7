#pragma once

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/apps.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// Runs one command: results to `output`, what fails to standard error. Blocks until it is done,
/// output included. Commands about applications and search need their helpers.
[[nodiscard]] ExitCode runCommand(const Arguments& arguments, host::DocumentService& service,
                                  Output& output, Progress& progress, const Helpers& helpers = {});

/// Writes the line for `error` to standard error and returns the exit code that goes with it.
ExitCode report(const platform::QSError& error, std::string_view subject, bool json);

}  // namespace cli
