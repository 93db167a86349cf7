#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/QSUUID.h"
#include "tidewell/fs/FSEventReader.h"

namespace tidewell {

/// Signals a container to the host when something happens in its folders from now on. What happened
/// the host asks for itself.
class FSChangesNotifier final : public FSEventReaderDelegate,
                                public std::enable_shared_from_this<FSChangesNotifier> {
  public:
    /// Null, after an error line, where the volume of the first URL is not known. `longestWait` is
    /// how long the reader's queue waits for the host's answer to a signal. REQUIRES: `urls` is not
    /// empty.
    [[nodiscard]] static std::shared_ptr<FSChangesNotifier> make(
        std::string container, std::vector<QSURL> urls,
        std::chrono::nanoseconds longestWait = std::chrono::seconds(3));

    /// Any thread, both.
    void start();
    void stop();

    [[nodiscard]] const QSUUID& deviceUUID() const { return deviceUUID_; }

    void itemChanged(FSEventReader& reader, const QSURL& url,
                     std::shared_ptr<LocalItem> item) override;
    void historyDone(FSEventReader& /*reader*/) override {}
    void eventsLost(FSEventReader& reader) override;

  private:
    FSChangesNotifier(std::string container, std::vector<QSURL> urls, QSUUID deviceUUID,
                      std::chrono::nanoseconds longestWait);
    void signalAfterBatch(FSEventReader& reader);
    void signal(std::uint64_t upToEventID) const;

    // Constant after construction.
    std::string container_;
    std::shared_ptr<FSEventReader> reader_;
    QSUUID deviceUUID_;
    std::chrono::nanoseconds longestWait_;

    // On the reader's queue.
    bool shouldSignalChange_ = false;  ///< a block that signals is under way
    bool isSignalDue_ = false;         ///< of a report from before the last stop
};

}  // namespace tidewell
