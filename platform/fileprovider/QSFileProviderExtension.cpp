#include "platform/fileprovider/QSFileProviderExtension.h"

#include <cerrno>

namespace platform {

namespace {

void refuse(QSFileProviderExtension::ItemCompletionHandler& handler) {
    handler(std::unexpected(errorFromErrno(ENOTSUP)));
}

}  // namespace

Result<std::vector<QSFileProviderItemIdentifier>>
QSFileProviderExtension::trashContainerItemIdentifiers() {
    return {};
}

std::shared_ptr<QSProgress> QSFileProviderExtension::importDocumentAtURL(
    const QSURL& /*url*/, const QSFileProviderItemIdentifier& /*toParentItemIdentifier*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
    return nullptr;
}

void QSFileProviderExtension::createDirectoryWithName(
    std::string_view /*name*/, const QSFileProviderItemIdentifier& /*inParentItemIdentifier*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
}

void QSFileProviderExtension::renameItemWithIdentifier(
    const QSFileProviderItemIdentifier& /*identifier*/, std::string_view /*toName*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
}

std::shared_ptr<QSProgress> QSFileProviderExtension::reparentItemWithIdentifier(
    const QSFileProviderItemIdentifier& /*identifier*/,
    const QSFileProviderItemIdentifier& /*toParentItemWithIdentifier*/,
    const std::optional<std::string>& /*newName*/, ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
    return nullptr;
}

std::shared_ptr<QSProgress> QSFileProviderExtension::trashItemWithIdentifier(
    const QSFileProviderItemIdentifier& /*identifier*/, ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
    return nullptr;
}

std::shared_ptr<QSProgress> QSFileProviderExtension::untrashItemWithIdentifier(
    const QSFileProviderItemIdentifier& /*identifier*/,
    const std::optional<QSFileProviderItemIdentifier>& /*toParentItemIdentifier*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
    return nullptr;
}

std::shared_ptr<QSProgress> QSFileProviderExtension::deleteItemWithIdentifier(
    const QSFileProviderItemIdentifier& /*identifier*/, CompletionHandler completionHandler) {
    completionHandler(errorFromErrno(ENOTSUP));
    return nullptr;
}

void QSFileProviderExtension::_removeTrashedItemsOlderThanDate(
    const QSDate& /*date*/, std::move_only_function<void()> completionHandler) {
    completionHandler();
}

Result<void> QSFileProviderExtension::dateArrivalsInTrash() {
    return {};
}

std::vector<ItemRef> QSFileProviderExtension::itemsTrashedBeforeDate(const QSDate& /*date*/) {
    return {};
}

void QSFileProviderExtension::setLastUsedDate(
    const std::optional<QSDate>& /*date*/,
    const QSFileProviderItemIdentifier& /*forItemIdentifier*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
}

void QSFileProviderExtension::setTagData(const std::optional<QSData>& /*tagData*/,
                                         const QSFileProviderItemIdentifier& /*forItemIdentifier*/,
                                         ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
}

void QSFileProviderExtension::setFavoriteRank(
    std::optional<std::uint64_t> /*rank*/,
    const QSFileProviderItemIdentifier& /*forItemIdentifier*/,
    ItemCompletionHandler completionHandler) {
    refuse(completionHandler);
}

std::shared_ptr<QSProgress> QSFileProviderExtension::fetchThumbnailsForItemIdentifiers(
    const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize /*requestedSize*/,
    const PerThumbnailCompletionHandler& perThumbnailCompletionHandler,
    CompletionHandler completionHandler) {
    for (const auto& identifier : identifiers) {
        perThumbnailCompletionHandler(identifier, std::nullopt, std::nullopt);
    }
    completionHandler(std::nullopt);
    return std::make_shared<QSProgress>();
}

std::shared_ptr<QSProgress> QSFileProviderExtension::fetchThumbnailsForItemIdentifiers(
    const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize /*requestedSize*/,
    const PerThumbnailCompletionHandlerWithType& perThumbnailCompletionHandlerWithType,
    CompletionHandler completionHandler) {
    for (const auto& identifier : identifiers) {
        perThumbnailCompletionHandlerWithType(identifier, std::nullopt, std::nullopt, std::nullopt);
    }
    completionHandler(std::nullopt);
    return std::make_shared<QSProgress>();
}

}  // namespace platform
