#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// Key of `userInfo`: the socket of the document service that uses the store.
inline constexpr std::string_view serviceSocketErrorKey = "serviceSocket";

/// Makes the folder and those above it that are missing, with mode 0700.
Result<void> makePrivateFolder(const std::string& path);

/// A note beside the store's database that says which process uses it, and that lets one process at
/// a time try to lock the database. The lock on the database is what counts: without the note (it
/// was deleted, or cannot be made) only the message is poorer. The kernel drops both locks with the
/// process, so that a file left behind by a kill means nothing.
class StoreLock {
  public:
    /// Never waits. Fails with EBUSY and "in use by PID …" where another process holds it, and with
    /// its socket under serviceSocketErrorKey where that one serves others.
    [[nodiscard]] static Result<StoreLock> acquire(std::string path);

    /// EBUSY, and who holds the store as far as the note says it.
    [[nodiscard]] QSError inUse() const;
    /// Writes down that this process holds the store.
    void noteHolder() const;
    /// Writes down that it is used through that process, at this socket.
    void noteService(pid_t process, std::string_view socket) const;

  private:
    void write(const std::string& note) const;
    explicit StoreLock(std::string path) : path_(std::move(path)) {}

    std::string path_;
    FileDescriptor file_;
};

}  // namespace platform
