#pragma once

#include "platform/fileprovider/URLOperations.h"
#include "tests/support/Await.h"
#include "tests/support/InstalledPlatform.h"
#include "tests/support/ScriptedHistory.h"
#include "tests/tidewell/Observers.h"
#include "tidewell/enumeration/LocalFileEnumerator.h"
#include "tidewell/fs/VolumeIdentity.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

namespace tests {

using namespace tidewell;

/// A platform whose streams read a scripted history; the files are real.
class ChangesFixture : public InstalledPlatform {
  protected:
    ChangesFixture() {
        history = &scripted;
        restart();
    }
    void TearDown() override { installed.reset(); }

    std::shared_ptr<LocalFileEnumerator> enumeratorOf(std::string_view container,
                                                      const std::string& below = {}) const {
        return std::make_shared<LocalFileEnumerator>(std::string(container),
                                                     std::vector{url(below)});
    }
    FSChangeToken present() const {
        return {.deviceUUID = volumeUUID(url()).value(), .streamEventID = currentFSEventID()};
    }
    static std::shared_ptr<ChangeCollector> changes(LocalFileEnumerator& enumerator,
                                                    const FSChangeToken& since) {
        auto collector = std::make_shared<ChangeCollector>();
        enumerator.enumerateChangesForObserver(collector, since.data());
        wait(*collector);
        return collector;
    }
    static void wait(ChangeCollector& collector) {
        ASSERT_TRUE(await("the end of the changes", collector.end.get_future()));
    }

    /// An event about what stands there, with its identity.
    FSEvent eventAt(const std::string& below) const {
        FSEvent event{.flags = fsEventMoved, .path = url(below).path()};
        const auto identifier = itemIdentifier(url(below)).value();
        const auto number = std::stoull(identifier.substr(4));
        if (identifier.starts_with("fid=")) {
            event.fileID = number;
        } else {
            event.identifierKind = IdentifierKind::Document;
            event.documentID = static_cast<std::uint32_t>(number);
            event.fileID = fileIDOfObject(url(below));
        }
        return event;
    }
    /// An event about a document that was never on the disk.
    FSEvent removedEvent(std::uint32_t documentID) const {
        return {.flags = fsEventRemoved,
                .path = url("removed/" + std::to_string(documentID)).path(),
                .fileID = std::uint64_t{5'000'000'000} + documentID,
                .identifierKind = IdentifierKind::Document,
                .documentID = documentID};
    }

    ScriptedHistory scripted;
};

}  // namespace tests
