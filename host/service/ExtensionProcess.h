#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"

namespace host {

/// One process that holds an extension. It is killed with the thread that spawned it, so that
/// thread has to live as long as it. One thread.
class ExtensionProcess {
  public:
    /// The program beside the present one, or where it is installed.
    [[nodiscard]] static std::string program();

    /// Starts it with its end of the connection, in a process group of its own: what a terminal
    /// sends to this one does not reach it.
    [[nodiscard]] static platform::Result<std::unique_ptr<ExtensionProcess>> spawn(
        const std::string& program, const platform::FileDescriptor& connection);
    /// Kills it, unless it has ended, and waits for its end.
    ~ExtensionProcess();
    ExtensionProcess(const ExtensionProcess&) = delete;
    ExtensionProcess& operator=(const ExtensionProcess&) = delete;

    [[nodiscard]] pid_t number() const { return number_; }
    /// Readable when it has ended.
    [[nodiscard]] int descriptor() const { return descriptor_.get(); }
    void kill();
    /// Blocks until it has ended, up to the deadline. Returns how, in plain words.
    [[nodiscard]] std::optional<std::string> wait(std::chrono::milliseconds deadline);

  private:
    ExtensionProcess(pid_t number, platform::FileDescriptor descriptor)
        : number_(number), descriptor_(std::move(descriptor)) {}

    const pid_t number_;
    const platform::FileDescriptor descriptor_;
    std::optional<std::string> ending_;
};

}  // namespace host
