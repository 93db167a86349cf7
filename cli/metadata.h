#pragma once

#include <string>

#include "cli/Arguments.h"
#include "cli/ExitCode.h"
#include "cli/Output.h"
#include "host/documents/DocumentService.h"

namespace cli {

/// Sets what the arguments say, or clears it, and prints the item as it is then.
[[nodiscard]] platform::Result<ExitCode> setMetadata(const Arguments& arguments,
                                                     const host::DocumentService& service,
                                                     Output& output,
                                                     const host::ItemTarget& target);

/// Every field of the item, or its JSON object.
void printItem(const Arguments& arguments, Output& output, const host::ItemRecord& item);

}  // namespace cli
