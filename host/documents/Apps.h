#pragma once

#include <string>
#include <vector>

#include "host/documents/DocumentService.h"
#include "host/session/AppRecord.h"

namespace host {

/// Applications as the user sees and decides about them. Calls block for the extension.
class Apps {
  public:
    /// `service` must outlive this.
    explicit Apps(DocumentService& service) : service_(service) {}

    /// The libraries that are shown, sorted by identifier; with `all` also the other installed
    /// applications, behind them.
    [[nodiscard]] platform::Result<std::vector<AppRecord>> list(bool all);

    /// What the user decides about an installed application is kept; the answer is how it stands
    /// then. The error satisfies meansNoSuchItem where it is not installed.
    [[nodiscard]] platform::Result<AppRecord> decide(const std::string& identifier,
                                                     Override decision);

  private:
    DocumentService& service_;
};

}  // namespace host
