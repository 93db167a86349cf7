#pragma once

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// Whether runMutation runs the command.
[[nodiscard]] bool isMutation(Command command);

/// A command that changes documents. Prints each item as it is then (one that was deleted: as it
/// was); an item that fails is reported, the rest goes on, and the exit code is the first
/// failure's. An interrupt cancels what is under way and ends the command.
[[nodiscard]] platform::Result<ExitCode> runMutation(const Arguments& arguments,
                                                     host::DocumentService& service, Output& output,
                                                     Progress& progress);

}  // namespace cli
