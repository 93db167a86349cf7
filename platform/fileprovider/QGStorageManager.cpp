#include "platform/fileprovider/QGStorageManager.h"

#include "platform/fileprovider/Platform.h"

namespace platform {

QGStorageManager& QGStorageManager::defaultManager() {
    static QGStorageManager manager;
    return manager;
}

Result<QGPermanentStorage> QGStorageManager::permanentStorageForItemAtURL(const QSURL& url,
                                                                          bool allocateIfNone) {
    const auto attributes = Platform::current().files().attributes(url);
    if (!attributes) return std::unexpected(attributes.error());
    VolumeService::IdentityRequest request{
        attributes->get(), url.lastPathComponent(), allocateIfNone, {}};
    const auto identified = Platform::current().volume().identify({&request, 1});
    if (!identified) return std::unexpected(identified.error());
    QGPermanentStorage storage{request.result.fileID, request.result.documentID};
    const auto kept = url.cachedResourceValue(QSResourceKey::DocumentIdentifier);
    const auto* number = std::get_if<std::uint64_t>(&kept);
    if (storage.documentID == 0 && number) {
        storage.documentID = static_cast<std::uint32_t>(*number);
    }
    return storage;
}

}  // namespace platform
