#include "tidewell/fs/ObjectLookup.h"

#include "platform/fileprovider/Platform.h"
#include "platform/files/LookFailure.h"

namespace tidewell {

namespace {

std::vector<QSURL> placesOf(const FSEvent& event) {
    const auto& volume = Platform::current().volume();
    return event.identifierKind == IdentifierKind::Document
               ? volume.placesOfDocumentID(event.documentID)
               : volume.placesOfFileID(event.fileID);
}

/// Whether the item is the object that the event is about, or the one that its document goes on in,
/// whatever the item's identifier is made of.
bool isObjectOf(const LocalItem& item, const FSEvent& event) {
    const auto& volume = Platform::current().volume();
    const auto fileID = event.identifierKind == IdentifierKind::Document
                            ? volume.fileIDForDocumentID(event.documentID).value_or(0)
                            : event.fileID;
    if (fileID == 0) return false;
    if (item.docID()) {
        const auto number = static_cast<std::uint32_t>(*item.docID());
        return volume.fileIDForDocumentID(number) == fileID;
    }
    return item.itemIdentifier() == "fid=" + std::to_string(fileID);
}

/// Whether the object is missing for the moment and an event in the container will report what
/// becomes of it.
bool isAwaited(const FSEvent& event, const ContainerCover& cover) {
    auto& volume = Platform::current().volume();
    if (cover.isRecursive()) return volume.isMissing(event);
    const auto last = volume.lastPlaceOf(event);
    if (!last) return false;
    const auto place = cover.placeOf(*last);
    // In a package it is as little in a single folder as outside.
    if (place.cover != Cover::Outside && !place.package) return true;
    // It left the container before it went missing. A replacement in the container is all that
    // would be reported here.
    volume.decideAbout(event);
    return false;
}

}  // namespace

Result<ObjectLookup> lookUp(const FSEvent& event, const std::string& identifier,
                            const ContainerCover& cover) {
    const bool isEnd = (event.flags & (fsEventRemoved | fsEventMoved)) == fsEventRemoved;
    ObjectLookup found;
    found.isOnTheMove = !isEnd && isAwaited(event, cover);
    const auto wantsPackage = event.identifierKind == IdentifierKind::Document;
    for (const auto& known : placesOf(event)) {
        if (cover.placeOf(known).cover != Cover::Shown) continue;
        // A folder by whose name it has an identifier of the other kind, wherever it is now.
        const bool isFolder = (event.flags & fsEventIsFolder) != 0;
        if (isFolder && isPackageName(known.lastPathComponent()) != wantsPackage) continue;
        const auto place = QSURL::fileURLWithPath(known.path());
        const auto attributes = Platform::current().files().attributes(place);
        if (!attributes) {
            const auto failure = lookFailureOf(attributes.error());
            if (failure == LookFailure::Unknown) return std::unexpected(attributes.error());
            found.isOnTheMove = true;
            if (failure == LookFailure::Missing) found.missed.push_back(place);
            continue;
        }
        const auto item = LocalItem::findAtURL(place);
        if (!item) return std::unexpected(item.error());
        if (*item && (*item)->itemIdentifier() == identifier) {
            if (cover.coverOf(**item) != Cover::Shown) continue;
            found.shown = *item;
            return found;
        }
        // With another identifier it has become a package there, or ceased to be one.
        if (!*item || isObjectOf(**item, event)) continue;
        found.isOnTheMove = true;
        found.missed.push_back(place);
    }
    return found;
}

}  // namespace tidewell
