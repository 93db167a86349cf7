#pragma once

#include <string>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// Makes the folder and those above it that are missing, with mode 0700.
Result<void> makePrivateFolder(const std::string& path);

/// The right to use a store: one holder among all processes, for as long as the object lives. The
/// kernel drops the lock with the process, so that a file left behind by a kill means nothing.
class StoreLock {
  public:
    /// Never waits. Fails with EBUSY and "in use by PID …" where someone holds it.
    [[nodiscard]] static Result<StoreLock> take(const std::string& path);

  private:
    FileDescriptor file_;
};

}  // namespace platform
