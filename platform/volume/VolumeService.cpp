#include "platform/volume/VolumeService.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/volume/VolumeState.h"

namespace platform {

VolumeService::VolumeService(std::unique_ptr<State> state) : state_(std::move(state)) {}

Result<std::unique_ptr<VolumeService>> VolumeService::open(Configuration configuration) {
    auto state = std::make_unique<State>(std::move(configuration));
    const auto& files = state->configuration.files;
    const auto root = files.storageURL();
    const auto folder = files.openObject(root, O_RDONLY | O_DIRECTORY);
    if (!folder) return std::unexpected(folder.error());
    const auto attributes = files.freshAttributes(root);
    if (!attributes) return std::unexpected(attributes.error());
    const auto identity = (*attributes)->identity;

    auto store =
        IdentityStore::open(state->configuration.dataFolder, state->configuration.stateFolder,
                            VolumeFingerprint::of(folder->get(), identity), state->index);
    if (!store) return std::unexpected(store.error());
    state->store = std::move(*store);
    state->device = (*attributes)->device;
    state->identityIsWeak = (*attributes)->identityIsWeak;
    const auto& facts = state->store->state();
    state->history = facts.history;
    state->freshOnly = facts.freshOnly;
    state->trouble = facts.trouble;
    state->addRoot(identity, root);

    state->crawler = std::make_unique<Crawler>(
        [shared = state.get()](const std::atomic<bool>& stop) { shared->crawl(stop); },
        state->configuration.crawlInterval);
    if (state->configuration.crawlAtStart) state->crawler->request(state->crawler->next());
    return std::unique_ptr<VolumeService>(new VolumeService(std::move(state)));
}

VolumeService::~VolumeService() {
    state_->crawler.reset();
    state_->flushAll();
}

Result<void> VolumeService::addRoot(const QSURL& root) {
    const auto attributes = state_->configuration.files.freshAttributes(root);
    if (!attributes) return std::unexpected(attributes.error());
    if ((*attributes)->device != state_->device) {
        return std::unexpected(errorFromErrno(EXDEV, root.path()));
    }
    state_->addRoot((*attributes)->identity, root);
    return {};
}

std::optional<QSUUID> VolumeService::UUIDForDevice(std::uint32_t device) const {
    if (device != state_->device) return std::nullopt;
    return state_->history;
}

std::uint64_t VolumeService::currentEventID() const {
    return state_->store->lastEvent();
}

void VolumeService::follow() {}

bool VolumeService::isCaughtUp() const {
    return true;
}

Result<std::vector<FSEvent>> VolumeService::eventsAfter(std::uint64_t after, std::uint64_t,
                                                        std::size_t) const {
    if (after != currentEventID()) return std::unexpected(errorFromErrno(ESTALE));
    return std::vector<FSEvent>{};
}

std::shared_ptr<void> VolumeService::subscribe(std::function<void()> /*news*/) {
    return std::make_shared<int>(0);
}

Result<void> VolumeService::waitUntilSeen() {
    return {};
}
Result<void> VolumeService::waitUntilSettled() {
    return {};
}

std::vector<QSURL> VolumeService::placesOfFileID(std::uint64_t fileID) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findFileID(fileID);
    if (number == ObjectIndex::none) return {};
    const auto url = state_->urlOf(number);
    return url ? std::vector{*url} : std::vector<QSURL>{};
}

std::vector<QSURL> VolumeService::placesOfDocumentID(std::uint32_t documentID) const {
    const auto fileID = fileIDForDocumentID(documentID);
    return fileID ? placesOfFileID(*fileID) : std::vector<QSURL>{};
}

Result<void> VolumeService::identify(std::span<IdentityRequest> requests) {
    for (const auto& request : requests) {
        if (request.object->identityIsWeak) state_->identityIsWeak = true;
    }
    if (state_->answerFromIndex(requests)) return {};
    return state_->allocate(requests);
}

Result<std::uint64_t> VolumeService::fileIDForDocumentID(std::uint32_t documentID) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findDocumentID(documentID);
    if (number == ObjectIndex::none) return std::unexpected(errorFromErrno(ENOENT));
    return state_->index.node(number).fileID;
}

Result<QSURL> VolumeService::URLForFileID(std::uint64_t fileID) const {
    auto& crawler = *state_->crawler;
    if (auto url = state_->locate(fileID)) return *url;
    const auto decisive = crawler.next();
    // The crawl that runs may have passed the object already, or not; it costs less to see.
    for (const auto number : {crawler.current(), decisive}) {
        if (number == 0) continue;
        if (!state_->mayBeFound(fileID)) break;
        if (!crawler.wait(number)) return std::unexpected(errorFromErrno(ECANCELED));
        if (auto url = state_->locate(fileID)) return *url;
    }
    return std::unexpected(errorFromErrno(ENOENT));
}

std::optional<std::uint64_t> VolumeService::entryCount(const FileAttributes& folder) const {
    const std::shared_lock lock(state_->indexMutex);
    return state_->index.entryCount(folder);
}

void VolumeService::rememberEntryCount(const FileAttributes& folder, std::uint64_t count) const {
    // When the reading began is not known, so it is taken to have lasted a second.
    auto begun = QSDate::now();
    --begun.seconds;
    if (!isSettled(folder, begun)) return;
    const std::unique_lock lock(state_->indexMutex);
    state_->index.rememberEntryCount(folder, count);
}

void VolumeService::waitForCrawl() const {
    if (const auto number = state_->crawler->current(); number != 0) {
        (void)state_->crawler->wait(number);
    }
}

VolumeService::Statistics VolumeService::statistics() const {
    const std::shared_lock lock(state_->indexMutex);
    Statistics statistics;
    statistics.objects = state_->index.size();
    statistics.indexBytes = state_->index.bytes();
    statistics.identityIsWeak = state_->identityIsWeak;
    statistics.storePath = state_->store->path();
    if (!state_->trouble.empty()) statistics.lastTrouble = state_->trouble;
    return statistics;
}

}  // namespace platform
