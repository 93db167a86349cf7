#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/QSError.h"

namespace platform {

/// What the kernel reported. It is a hint: the name may be missing, may name another object, or may
/// never have existed.
struct KernelEvent {
    int watch = -1;
    std::uint32_t mask = 0;  ///< IN_… bits of <sys/inotify.h>; IN_Q_OVERFLOW has no watch
    std::string name;        ///< in the watched folder; empty for the folder itself
};

/// The source of the kernel's events about folders. One thread at a time.
class KernelEventSource {
  public:
    virtual ~KernelEventSource() = default;

    /// Watches an open folder: what happens to its entries from now on is reported. A folder that
    /// is watched already keeps its watch, whatever it is called now. ENOSPC at the user's limit.
    [[nodiscard]] virtual Result<int> addWatch(int folder) = 0;
    virtual void removeWatch(int watch) = 0;

    /// All that has come since the last call; never blocks. What happened before the call has come.
    [[nodiscard]] virtual std::vector<KernelEvent> read() = 0;

    /// To be polled for reading; -1 where nothing will ever come by itself.
    [[nodiscard]] virtual int descriptor() const = 0;
};

/// The kernel's own, by inotify. Fails with EMFILE at the user's limit of instances.
[[nodiscard]] Result<std::unique_ptr<KernelEventSource>> makeInotifySource();

/// How many folders this user may watch; 0 if that cannot be found out.
[[nodiscard]] std::uint64_t inotifyWatchLimit();

}  // namespace platform
