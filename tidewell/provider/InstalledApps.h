#pragma once

#include "tidewell/applibraries/AppLibraries.h"

namespace tidewell {

/// Brings the app libraries up to the application registry and signals to the host the containers
/// changed by that, the root first. Runs on the app-refresh queue.
void refreshInstalledApps(AppLibraries& appLibraries);

}  // namespace tidewell
