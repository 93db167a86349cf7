#pragma once

#include <string>

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// Writes the items' thumbnails into the folder of the arguments and prints where each one is.
[[nodiscard]] platform::Result<ExitCode> writeThumbnails(const Arguments& arguments,
                                                         const host::DocumentService& service,
                                                         Output& output);

/// Writes the content of a document to the output.
[[nodiscard]] platform::Result<ExitCode> writeContent(const host::DocumentService& service,
                                                      Output& output,
                                                      const host::ItemTarget& target);

}  // namespace cli
