// Thumbnails: the icons of the applications whose libraries are shown. Files and folders have none,
// so that the host draws its own.
#include <new>

#include "platform/fileprovider/Platform.h"
#include "tidewell/common/Logging.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"
#include "tidewell/provider/BestIcon.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {

namespace {

/// An empty buffer with room for a picture of usual size; nothing if memory is short.
std::optional<QSData> newData() {
    constexpr std::size_t usualSize = 16 * 1024;
    try {
        QSData data;
        data.reserve(usualSize);
        return data;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

/// The picture as a PNG file; none, after a log line that begins with the identifier, on failure.
std::optional<QSData> pngData(const std::string& identifier, QIImage image) {
    auto png = newData();
    if (!png) {
        logError([&] { return identifier + ": can't create new data"; });
        return std::nullopt;
    }
    auto destination = QIImageDestination::createWithData(*png, pngTypeIdentifier, 1);
    if (!destination) {
        logError([&] { return identifier + ": can't create image from new data"; });
        return std::nullopt;
    }
    destination->addImage(std::move(image));
    if (!destination->finalize()) {
        logError([&] { return identifier + ": can't finalize image"; });
        return std::nullopt;
    }
    logDebug([&] { return identifier + ": returning " + std::to_string(png->size()) + " bytes"; });
    return png;
}

std::optional<QSData> thumbnail(const std::string& identifier) {
    if (!isAppLibraryIdentifier(identifier)) return std::nullopt;
    const auto bundleIdentifier = identifier.substr(1);
    const auto application =
        QLApplicationWorkspace::defaultWorkspace().applicationProxyForIdentifier(bundleIdentifier);
    if (!application) {
        logDebug([&] { return identifier + ": can't get app proxy for " + bundleIdentifier; });
        return std::nullopt;
    }
    const auto icon = bestIconData(*application);
    if (!icon) {
        logDebug([&] {
            return identifier + ": can't get primary icon data; " + descriptionOf(*application);
        });
        return std::nullopt;
    }
    auto image = Platform::current().icons().QICreateIconFromCachedBitmap(*icon);
    if (!image) {
        logDebug([&] { return identifier + ": can't create icon from cached bitmap"; });
        return std::nullopt;
    }
    return pngData(identifier, std::move(*image));
}

}  // namespace

std::shared_ptr<QSProgress> LocalFileProvider::fetchThumbnailsForItemIdentifiers(
    const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize /*requestedSize*/,
    const PerThumbnailCompletionHandlerWithType& perThumbnailCompletionHandlerWithType,
    CompletionHandler completionHandler) {
    const LogSection section([&] {
        std::string title = "fetching thumbnails for ";
        for (const auto& identifier : identifiers) {
            if (&identifier != &identifiers.front()) title += ", ";
            title += identifier;
        }
        return title;
    });
    auto progress = std::make_shared<QSProgress>();
    for (const auto& identifier : identifiers) {
        const auto data = thumbnail(identifier);
        const auto type = data ? std::optional<std::string>(pngTypeIdentifier) : std::nullopt;
        perThumbnailCompletionHandlerWithType(identifier, data, type, std::nullopt);
        progress->addItem();
    }
    completionHandler(std::nullopt);
    return progress;
}

std::shared_ptr<QSProgress> LocalFileProvider::fetchThumbnailsForItemIdentifiers(
    const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize requestedSize,
    const PerThumbnailCompletionHandler& perThumbnailCompletionHandler,
    CompletionHandler completionHandler) {
    const PerThumbnailCompletionHandlerWithType withoutType =
        [&](const QSFileProviderItemIdentifier& identifier, const std::optional<QSData>& data,
            const std::optional<std::string>& /*type*/, const std::optional<QSError>& error) {
            perThumbnailCompletionHandler(identifier, data, error);
        };
    return fetchThumbnailsForItemIdentifiers(identifiers, requestedSize, withoutType,
                                             std::move(completionHandler));
}

}  // namespace tidewell
