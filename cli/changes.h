#pragma once

#include <string>

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/apps.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// What changed in the container since the anchor of the arguments, up to now; without one, what is
/// found by looking now. Blocks until everything that happened before is known.
[[nodiscard]] platform::Result<ExitCode> printChanges(const Arguments& arguments,
                                                      const host::DocumentService& service,
                                                      Output& output, const std::string& container);

/// What changes in the container from the anchor or from now on, each change as soon as it is
/// signalled. Ends with success when the process is interrupted or the reader goes.
[[nodiscard]] platform::Result<ExitCode> watchChanges(const Arguments& arguments,
                                                      host::DocumentService& service,
                                                      Output& output, Progress& progress,
                                                      const Helpers& helpers,
                                                      const std::string& container);

}  // namespace cli
