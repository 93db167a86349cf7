#include "tidewell/common/Logging.h"
#include "tidewell/enumeration/LocalFileEnumerator.h"
#include "tidewell/enumeration/LocalRootEnumerator.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {

Result<std::shared_ptr<QSFileProviderEnumerator>>
LocalFileProvider::enumeratorForContainerItemIdentifier(
    const QSFileProviderItemIdentifier& identifier) {
    const LogSection section([&] { return "enumerator for " + identifier; });
    if (identifier == QSFileProviderRootContainerItemIdentifier ||
        identifier == QSFileProviderWorkingSetContainerItemIdentifier ||
        identifier == QSFileProviderAllDirectoriesContainerItemIdentifier) {
        auto enumerator = LocalRootEnumerator::initWithContainer(identifier, appLibraries_);
        enumerator->start();
        return enumerator;
    }
    const auto url = throwingURLForItem(identifier);
    if (!url) return std::unexpected(url.error());
    auto enumerator = std::make_shared<LocalFileEnumerator>(identifier, std::vector<QSURL>{*url});
    enumerator->start();
    return enumerator;
}

}  // namespace tidewell
