#pragma once

namespace tidewell {

/// Brings the table of app-library roots up to date with the application registry. Runs on the
/// app-refresh queue.
void refreshInstalledApps();

}  // namespace tidewell
