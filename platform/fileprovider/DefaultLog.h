#pragma once

#include "platform/log/Log.h"

namespace platform {

/// The host framework's own log (subsystem "com.quenby.FileProvider", category "default").
[[nodiscard]] const Log& qp_default_log();

}  // namespace platform
