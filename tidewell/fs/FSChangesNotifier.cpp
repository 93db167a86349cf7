#include "tidewell/fs/FSChangesNotifier.h"

#include <future>
#include <utility>

#include "platform/fileprovider/QSFileProviderManager.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/VolumeIdentity.h"

namespace tidewell {

std::shared_ptr<FSChangesNotifier> FSChangesNotifier::make(std::string container,
                                                           std::vector<QSURL> urls,
                                                           std::chrono::nanoseconds longestWait) {
    if (urls.empty()) fatalError("require at least one URL to init a change notifier");
    const auto volume = volumeUUID(urls.front());
    if (!volume) {
        logError([&] { return "can't get volume UUID for " + quoted(urls.front().path()); });
        return nullptr;
    }
    return std::shared_ptr<FSChangesNotifier>(
        new FSChangesNotifier(std::move(container), std::move(urls), *volume, longestWait));
}

FSChangesNotifier::FSChangesNotifier(std::string container, std::vector<QSURL> urls,
                                     QSUUID deviceUUID, std::chrono::nanoseconds longestWait)
    : container_(std::move(container)),
      reader_(std::make_shared<FSEventReader>(std::move(urls), currentFSEventID(),
                                              FSEventReader::Mode::pathBased, true)),
      deviceUUID_(deviceUUID),
      longestWait_(longestWait) {
    reader_->setHints({.needsItem = [](const QSURL&) { return false; }});
}

void FSChangesNotifier::start() {
    reader_->setDelegate(weak_from_this());
    // A report that a stop has kept from being signalled is signalled now.
    reader_->streamQueue().async([self = shared_from_this()] {
        self->isSignalDue_ = std::exchange(self->shouldSignalChange_, false);
    });
    reader_->start();
    reader_->streamQueue().async([self = shared_from_this()] {
        if (std::exchange(self->isSignalDue_, false)) self->signalAfterBatch(*self->reader_);
    });
}

void FSChangesNotifier::stop() {
    reader_->stop();
    reader_->setDelegate({});
}

void FSChangesNotifier::itemChanged(FSEventReader& reader, const QSURL& /*url*/,
                                    std::shared_ptr<LocalItem> /*item*/) {
    signalAfterBatch(reader);
}

void FSChangesNotifier::eventsLost(FSEventReader& reader) {
    if (!reader.historyHasClosed()) signalAfterBatch(reader);
}

void FSChangesNotifier::signalAfterBatch(FSEventReader& reader) {
    if (shouldSignalChange_) return;
    shouldSignalChange_ = true;
    reader.afterBatch([self = shared_from_this()] {
        self->shouldSignalChange_ = false;
        self->signal(self->reader_->lastProcessedFSEventID());
    });
}

void FSChangesNotifier::signal(std::uint64_t upToEventID) const {
    const LogSection section([&] { return "notifies changes on" + container_; });
    const auto answered = std::make_shared<std::promise<void>>();
    const auto answer = answered->get_future();
    QSFileProviderManager::defaultManager().signalEnumeratorForContainerItemIdentifier(
        container_, [answered, container = container_](const std::optional<QSError>& error) {
            if (error) {
                logError([&] {
                    return "can't signal changes for " + quoted(container) + error->description();
                });
            }
            answered->set_value();
        });
    const auto upTo = " changes up to FSEventID " + std::to_string(upToEventID);
    if (answer.wait_for(longestWait_) == std::future_status::ready) {
        logDebug("notified" + upTo);
        return;
    }
    const auto message = "notifying" + upTo + " timed out";
    logDebug(message);
    reportSimulatedCrash(message);
}

}  // namespace tidewell
