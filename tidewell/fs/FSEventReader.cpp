#include "tidewell/fs/FSEventReader.h"

#include <algorithm>
#include <semaphore>

#include "platform/dispatch/WorkerPool.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/LookFailure.h"
#include "platform/foundation/fatalError.h"
#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/DocIDPath.h"
#include "tidewell/fs/ItemFactory.h"
#include "tidewell/fs/VolumeIdentity.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"

namespace tidewell {

namespace {

constexpr auto latency = std::chrono::milliseconds(500);

bool isDocIDPath(std::string_view path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    return path.starts_with(".docid/");
}

/// A URL that keeps the identifier of the event's object, so that it can be named once it is
/// removed.
QSURL subjectURL(const QSURL& url, const FSEvent& event) {
    auto subject = QSURL::fileURLWithPath(url.path());
    const bool isFile = event.identifierKind == IdentifierKind::File;
    if (isFile ? event.fileID == 0 : event.documentID == 0) return subject;
    subject.setCachedResourceValue(QSResourceKey::IsDirectory, isFile);
    if (isFile) {
        subject.setCachedResourceValue(QSResourceKey::FileID, event.fileID);
    } else {
        subject.setCachedResourceValue(QSResourceKey::DocumentIdentifier,
                                       std::uint64_t{event.documentID});
    }
    return subject;
}

std::string descriptionOf(std::span<const FSEvent> events) {
    std::string text;
    for (const auto& event : events) {
        text += (text.empty() ? "" : ", ") + std::to_string(event.id) + " " +
                std::to_string(event.flags) + " " + quoted(event.path);
    }
    return " [" + text + "]";
}

/// Ends with the first report.
class FSEventChecker final : public FSEventReaderDelegate {
  public:
    void itemChanged(FSEventReader& reader, const QSURL&, std::shared_ptr<LocalItem>) override {
        end(reader, FSEventReaderGatherPhaseResumeStatus::deletionOccurred);
    }
    void historyDone(FSEventReader& reader) override {
        end(reader, FSEventReaderGatherPhaseResumeStatus::canResume);
    }
    void eventsLost(FSEventReader& reader) override { end(reader, gatherPhaseResumeStatus); }

    FSEventReaderGatherPhaseResumeStatus gatherPhaseResumeStatus =
        FSEventReaderGatherPhaseResumeStatus::deletionOccurred;
    std::binary_semaphore sema{0};

  private:
    void end(FSEventReader& reader, FSEventReaderGatherPhaseResumeStatus status) {
        reader.streamQueue().assertOnQueue();
        gatherPhaseResumeStatus = status;
        reader.stop();
        sema.release();
    }
};

}  // namespace

FSEventReader::FSEventReader(std::vector<QSURL> urls, std::uint64_t sinceFSEventID, Mode mode,
                             bool verbose)
    : streamQueue_("tidewell.fsevents-stream"),
      urls_(std::move(urls)),
      mode_(mode),
      verbose_(verbose),
      gate_(Platform::current().events().gate),
      lastProcessedFSEventID_(sinceFSEventID) {}

FSEventReader::~FSEventReader() {
    if (!stream_) return;
    logError([&] { return "stream deleted without being stopped;" + description(); });
}

void FSEventReader::setDelegate(std::weak_ptr<FSEventReaderDelegate> delegate) {
    const std::scoped_lock lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<FSEventReaderDelegate> FSEventReader::delegate() const {
    const std::scoped_lock lock(mutex_);
    return delegate_.lock();
}

void FSEventReader::start() {
    streamQueue_.async([self = shared_from_this()] {
        self->isStopped_ = false;
        if (self->stream_) return;
        // The platform may have been destroyed since.
        if (const auto pass = self->gate_->enter()) {
            self->createStream();
        } else {
            self->historyHasClosed_ = true;
            self->reportLoss("fsevents closed");
        }
    });
}

void FSEventReader::stop() {
    isStopped_ = true;
    streamQueue_.async([self = shared_from_this()] {
        if (!self->stream_) return;
        self->stream_->stop();
        self->stream_->invalidate();
        self->stream_.reset();
    });
}

void FSEventReader::createStream() {
    if (verbose_) logDebug([&] { return "starting " + description(); });
    const auto& source = Platform::current().events();
    FSEventStream::Options options{
        .since = lastProcessedFSEventID_,
        .latency = latency,
        .flags =
            fsEventStreamUsesPathObjects | fsEventStreamFileEvents | fsEventStreamUsesExtendedData,
        .info = shared_from_this(),
    };
    const auto callback = [this](std::span<const FSEvent> events) { receive(events); };
    if (mode_ == Mode::docIDBased) {
        const auto device = deviceID(QSURL::fileURLWithPath(presentedVolumePath));
        stream_ = FSEventStream::createRelativeToDevice(source, device, {"/.docid"},
                                                        std::move(options), callback);
    } else {
        std::vector<std::string> paths;
        paths.reserve(urls_.size());
        for (const auto& url : urls_) paths.push_back(url.path());
        stream_ = FSEventStream::create(source, std::move(paths), std::move(options), callback);
    }
    if (!stream_) fatalError("can't create event stream");
    stream_->setDispatchQueue(streamQueue_);
    stream_->start();
}

std::uint64_t FSEventReader::position() const {
    return stream_ ? stream_->latestEventID() : lastProcessedFSEventID_.load();
}

void FSEventReader::afterBatch(Work work) {
    streamQueue_.async([self = shared_from_this(), work = std::move(work)]() mutable {
        const auto pass = self->gate_->enter();
        if (pass && !self->isStopped_) work();
    });
}

void FSEventReader::receive(std::span<const FSEvent> events) {
    if (isStopped_) return;
    if (verbose_ && !events.empty()) {
        logDebug([&] { return "fsevent: received" + descriptionOf(events); });
    }
    const auto subjects = subjectsOf(events);
    if (!subjects) return fail(subjects.error());
    ItemFactory factory;
    for (std::size_t i = 0; i < events.size() && !isStopped_; ++i) {
        currentEvent_ = events[i];
        if (const auto done = handle(events[i], (*subjects)[i], factory); !done) {
            return fail(done.error());
        }
    }
    if (hints_.passed && !isStopped_) hints_.passed();
}

Result<std::vector<FSEventReader::Subject>> FSEventReader::subjectsOf(
    std::span<const FSEvent> events) const {
    constexpr auto aboutTheStream = fsEventIDsWrapped | fsEventUserDropped | fsEventKernelDropped |
                                    fsEventHistoryDone | fsEventHistoryClosed;
    std::vector<Subject> subjects(events.size());
    std::vector<QSURL> wanted;
    std::vector<Subject*> wanting;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if ((events[i].flags & aboutTheStream) != 0) continue;
        auto subject = subjectOf(events[i]);
        if (!subject) return std::unexpected(std::move(subject.error()));
        subjects[i] = std::move(*subject);
        const auto& url = subjects[i].url;
        if (!url || (hints_.needsItem && !hints_.needsItem(*url))) continue;
        wanted.push_back(*url);
        wanting.push_back(&subjects[i]);
    }
    if (wanted.empty()) return subjects;  // the platform may have been destroyed
    const auto attributes = Platform::current().files().attributes(wanted);
    std::vector<QSURL> present;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (attributes[i]) {
            wanting[i]->state = Subject::State::Present;
            present.push_back(std::move(wanted[i]));
            continue;
        }
        const auto failure = lookFailureOf(attributes[i].error());
        if (failure == LookFailure::Unknown) return std::unexpected(attributes[i].error());
        wanting[i]->state =
            failure == LookFailure::Missing ? Subject::State::Missing : Subject::State::Unreadable;
    }
    // In one durable step for all.
    if (auto identified = prefetchIdentifiers(present); !identified) {
        return std::unexpected(std::move(identified.error()));
    }
    return subjects;
}

Result<FSEventReader::Subject> FSEventReader::subjectOf(const FSEvent& event) const {
    Subject subject;
    if (event.path.empty()) {
        logDropped(std::to_string(event.id), "because no path can be extracted");
        return subject;
    }
    auto url = QSURL::fileURLWithPath(event.path);
    if (isDocIDPath(event.path)) {
        std::int64_t documentID = 0;
        std::int64_t source = 0;
        std::int64_t destination = 0;
        if (!parseDocIDPath(event.path.c_str(), documentID, source, destination)) {
            logError([&] {
                return "can't parse docID path " + quoted(event.path) + "; format expected is " +
                       quoted("/.docid/$dev/changed/$docid/src=$src,dst=$dst");
            });
            return subject;
        }
        subject.documentID = static_cast<std::uint64_t>(documentID);
        const auto resolved = findFileURLWithItemIdentifier(
            TWPFileObjectIdentifier::fromDocumentID(subject.documentID));
        if (!resolved) return std::unexpected(resolved.error());
        if (!*resolved) {
            logDebug([&] { return "can't compute url for " + std::to_string(documentID); });
            return subject;
        }
        url = QSURL::fileURLWithPath((*resolved)->path());
    }
    if (isMonitored(url)) {
        subject.url = std::move(url);
    } else if ((event.flags & fsEventMustScanSubDirs) == 0) {  // else reported as a loss
        logDropped(url.description(), "; URL is not monitored");
    }
    return subject;
}

bool FSEventReader::isMonitored(const QSURL& url) const {
    return std::ranges::any_of(
        urls_, [&](const QSURL& folder) { return isAtOrBelow(url.path(), folder.path()); });
}

Result<void> FSEventReader::handle(const FSEvent& event, const Subject& subject,
                                   ItemFactory& factory) {
    if ((event.flags & fsEventHistoryClosed) != 0) {
        historyHasClosed_ = true;
        reportLoss("fsevents closed");
        return {};
    }
    if ((event.flags & fsEventIDsWrapped) != 0) {
        reportLoss("fsevents id wrapped");
        return {};
    }
    if ((event.flags & (fsEventUserDropped | fsEventKernelDropped)) != 0) {
        reportLoss("dropped fsevents");
        return {};
    }
    lastProcessedFSEventID_ = std::max(lastProcessedFSEventID_.load(), event.id);
    if ((event.flags & fsEventHistoryDone) != 0) {
        if (verbose_) logDebug("done processing history");
        if (const auto receiver = delegate()) receiver->historyDone(*this);
        return {};
    }
    if (subject.url) return handleObject(subject, factory);
    if ((event.flags & fsEventMustScanSubDirs) != 0) {
        // Above the folders that are watched, hence about all of them.
        reportLoss("fsevents require to scan everything");
    }
    return {};
}

Result<void> FSEventReader::handleObject(const Subject& subject, ItemFactory& factory) {
    using State = Subject::State;
    const auto& url = *subject.url;
    const bool isDocIDEvent = subject.documentID != 0;
    if (isDocIDEvent) {
        currentEvent_.identifierKind = IdentifierKind::Document;
        currentEvent_.documentID = static_cast<std::uint32_t>(subject.documentID);
    }
    const auto drop = [&](const std::string& what, const std::string& reason) -> Result<void> {
        logDropped(what, reason);
        return {};
    };
    if (isDocIDEvent && subject.state == State::NotLookedAt) {
        return drop(url.description(), "; its owner needs no item there");
    }
    if (isDocIDEvent && subject.state == State::Missing) {
        return drop(quoted(currentEvent_.path), "; No object at path");
    }
    const auto about = subjectURL(url, currentEvent_);
    std::shared_ptr<LocalItem> item;
    if (subject.state == State::Present) {
        auto made = factory.makeItem(url);
        if (!made) return std::unexpected(std::move(made.error()));
        item = std::move(*made);
        // What stands there is no item, but the object that the event names may be removed.
        const bool namesObject = about.cachedResourceValue(QSResourceKey::IsDirectory).index() != 0;
        if (!item && (isDocIDEvent || !namesObject)) {
            return drop(url.description(), "; can't create local item");
        }
    } else if (subject.state == State::Unreadable) {
        return drop(url.description(), "; can't create local item");
    }
    if (isDocIDEvent) {
        const auto expected = tidewell::itemIdentifier(about).value_or("none");
        if (expected != item->itemIdentifier()) {
            return drop(url.description(), "; fileObjectIDs don't match (" +
                                               item->itemIdentifier() + ", " + expected + ")");
        }
    }
    if (const auto receiver = delegate()) receiver->itemChanged(*this, about, std::move(item));
    return {};
}

void FSEventReader::fail(const QSError& error) {
    logError([&] { return "can't identify the objects of fsevents; " + error.description(); });
    if (hints_.failed) hints_.failed(error);
}

void FSEventReader::reportLoss(std::string_view reason) {
    if (verbose_) logInfo(reason);
    if (const auto receiver = delegate()) receiver->eventsLost(*this);
}

void FSEventReader::logDropped(const std::string& what, std::string_view reason) const {
    if (!verbose_) return;
    logDebug([&] { return "dropping fsevent at " + what + std::string(reason); });
}

std::pair<FSEventReaderGatherPhaseResumeStatus, std::uint64_t> FSEventReader::canResumeGatherPhase(
    const std::vector<QSURL>& urls, std::uint64_t previousEventID) {
    const LogSection section(
        [&] { return "checking for changes since FSEventID " + std::to_string(previousEventID); });
    const auto currentEventID = currentFSEventID();
    const auto reader =
        std::make_shared<FSEventReader>(urls, previousEventID, Mode::pathBased, false);
    reader->setHints({.needsItem = [](const QSURL&) { return false; }});
    const auto checker = std::make_shared<FSEventChecker>();
    reader->setDelegate(checker);
    reader->start();
    {
        const WorkerPool::Wait wait;  // for the reader's queue
        checker->sema.acquire();
    }
    const auto status = reader->historyHasClosed()
                            ? FSEventReaderGatherPhaseResumeStatus::cantReplayHistoricalFSEvents
                            : checker->gatherPhaseResumeStatus;
    return {status, currentEventID};
}

std::string FSEventReader::description() const {
    std::string paths;
    for (const auto& url : urls_) paths += (paths.empty() ? "" : ", ") + url.path();
    return std::string("<FSEventReader ") + (mode_ == Mode::docIDBased ? "document IDs" : "paths") +
           " [" + paths + "] since " + std::to_string(lastProcessedFSEventID_) + ">";
}

}  // namespace tidewell
